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

/**
  Decodes Length hexadecimal digits of Line into Decoded (ENTRY_LINE_BYTES): each pair
  gives one byte, bit-complemented, and a NUL follows. An odd last digit is ignored.

  @retval EFI_SUCCESS           Decoded holds the line's bytes and a NUL.
  @retval EFI_BAD_BUFFER_SIZE   The bytes and their NUL would not fit ENTRY_LINE_BYTES.
  @retval EFI_COMPROMISED_DATA  A character is not a hexadecimal digit; Decoded is then
                                unterminated.
**/
EFI_STATUS
DecodeEntryLine (
  IN  CONST CHAR8  *Line,
  IN  UINTN        Length,
  OUT CHAR8        *Decoded
  );

/**
  Fills Bcd, Src and Efi of the requested group from the first line whose "ID:" token
  names it; every other field stays zero. The first line that decodes is the header. A
  damaged line after it is logged and passed over; one before it ends the lookup.

  @retval EFI_SUCCESS           The group's line gives all three names.
  @retval EFI_NOT_FOUND         No line names the group, or its line lacks one of the
                                three names.
  @retval EFI_COMPROMISED_DATA  The text holds no line, or its first line has a
                                character that is not a hexadecimal digit.
  @retval EFI_BAD_BUFFER_SIZE   The first line has an odd number of digits, or too many.
  @retval EFI_BUFFER_TOO_SMALL  A name on the group's line has VELMARO_NAME_CHARS
                                characters or more.
**/
EFI_STATUS
LookupGroupInEntries (
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *GroupId,
  OUT GROUP_STATE  *State
  );

/**
  The distinct BCD names of all group lines, in the order they first appear, into
  Names (ENTRY_BCD_NAMES_MAX entries). Damaged lines are treated as in
  LookupGroupInEntries. *Count is 0 on any failure.

  @retval EFI_SUCCESS           Names holds *Count names.
  @retval EFI_NOT_FOUND         The text holds no line, or no group line names a BCD.
  @retval EFI_COMPROMISED_DATA  The first line has a character that is not a
                                hexadecimal digit.
  @retval EFI_BAD_BUFFER_SIZE   The first line has an odd number of digits, or too many.
  @retval EFI_BUFFER_TOO_SMALL  A BCD name has VELMARO_NAME_CHARS characters or more, or
                                there are more than ENTRY_BCD_NAMES_MAX names.
**/
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
