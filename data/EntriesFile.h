/** @file
  The entries file \boot\NUR_VEL_EFI.COM: every group's BCD, source and EFI names, one
  hex-encoded, bit-complemented line per group after a header line. Read only.
**/

#ifndef VELMARO_ENTRIES_FILE_H_
#define VELMARO_ENTRIES_FILE_H_

#include <Velmaro.h>

#define ENTRIES_FILE_PATH     L16 (u"\\boot\\NUR_VEL_EFI.COM")
/// A decoded line holds at most 511 bytes and its NUL.
#define ENTRY_LINE_BYTES      512
/// The listing of BCD names holds at most this many names.
#define ENTRY_BCD_NAMES_MAX   64

typedef CHAR16 ENTRY_NAME[VELMARO_NAME_CHARS];

EFI_STATUS
DecodeEntryLine (
  IN  CONST CHAR8  *Line,
  IN  UINTN        Length,
  OUT CHAR8        *Decoded
  );

/** Fills Bcd, Src and Efi of the requested group; every other field stays zero. **/
EFI_STATUS
LookupGroupInEntries (
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *GroupId,
  OUT GROUP_STATE  *State
  );

EFI_STATUS
ListEntryBcdNames (
  IN  CONST CHAR8  *Text,
  OUT ENTRY_NAME   *Names,
  OUT UINTN        *Count
  );

/** The rest of Token after Prefix, or null when Token does not begin with it. **/
CONST CHAR8 *
MatchPrefix (
  IN CONST CHAR8  *Token,
  IN CONST CHAR8  *Prefix
  );

#endif
