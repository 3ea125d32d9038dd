/** @file
  The state file \boot\VELMARO.COM: which group is active, as KEY:VALUE lines. Every
  write is read back before it counts.
**/

#ifndef VELMARO_STATE_FILE_H_
#define VELMARO_STATE_FILE_H_

#include <Velmaro.h>

#define STATE_FILE_PATH      L16 (u"\\boot\\VELMARO.COM")
/// A written state file holds at most 511 bytes.
#define STATE_TEXT_BYTES     512
/// The text that records no active group.
#define STATE_TEXT_NO_GROUP  "velmaro file configuration\r\n"

EFI_STATUS
NarrowToAscii (
  OUT CHAR8         *Destination,
  IN  UINTN         Size,
  IN  CONST CHAR16  *Text
  );

/** EFI_SUCCESS: a group is recorded; EFI_NOT_FOUND: none; EFI_COMPROMISED_DATA: a
    partial record; EFI_BUFFER_TOO_SMALL: a name of 128 characters or more.
    The text is not changed. **/
EFI_STATUS
ParseStateFile (
  IN  CONST CHAR8  *Text,
  OUT GROUP_STATE  *State
  );

EFI_STATUS
FormatStateFile (
  IN  CONST GROUP_STATE  *State,
  OUT CHAR8              *Text
  );

EFI_STATUS
WriteStateFile (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST GROUP_STATE  *State
  );

EFI_STATUS
ResetStateFile (
  IN EFI_FILE_PROTOCOL  *Root
  );

#endif
