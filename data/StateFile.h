/** @file
  The state file \boot\VELMARO.COM: which group is active, as KEY:VALUE lines. Every
  write is read back before it counts.
**/

#ifndef VELMARO_STATE_FILE_H_
#define VELMARO_STATE_FILE_H_

#include <Velmaro.h>
#include <fs/AsciiText.h>

#define STATE_FILE_PATH      L16 (u"\\boot\\VELMARO.COM")
/// A written state file holds at most 511 bytes.
#define STATE_TEXT_BYTES     512
/// Room for the longest text the fields allow (four 127-character names, a 15-character
/// type and the keys), so that a text over STATE_TEXT_BYTES is seen whole and refused.
#define STATE_TEXT_FORMAT_BYTES  640
/// The text that records no active group.
#define STATE_TEXT_NO_GROUP  "velmaro file configuration\r\n"

/** EFI_SUCCESS: a group is recorded; EFI_NOT_FOUND: none; EFI_COMPROMISED_DATA: a
    partial record; EFI_BUFFER_TOO_SMALL: a name of 128 characters or more.
    The text is not changed. **/
EFI_STATUS
ParseStateFile (
  IN  CONST CHAR8  *Text,
  OUT GROUP_STATE  *State
  );

/**
  Formats the state's text into a STATE_TEXT_BYTES buffer.

  @retval EFI_SUCCESS           Text holds the whole record.
  @retval EFI_BUFFER_TOO_SMALL  A name cannot be narrowed to ASCII, or the text would
                                not fit whole; Text is then not to be written.
**/
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
