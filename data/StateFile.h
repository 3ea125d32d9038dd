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

/**
  Reads the state text into *State (zeroed first): the leaf names of BCD, SRC and EFI,
  and SRC_PART and SRC_FS as written (one that does not fit is dropped). A name given as
  "NotFound" counts as absent. The text is not changed.

  @retval EFI_SUCCESS           BCD, SRC and EFI are all recorded: a group is active.
  @retval EFI_NOT_FOUND         None of them is: no group is recorded.
  @retval EFI_COMPROMISED_DATA  Some of them are: a partial record.
  @retval EFI_BUFFER_TOO_SMALL  A leaf name has LEAF_NAME_CHARS characters or more.
**/
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

/**
  Replaces the state file with the state's text and reads it back. The old file is
  deleted before the new one is written, so a failure after that point may leave no
  state file, or a partial one.

  @retval EFI_SUCCESS           The file reads back as the state's text.
  @retval EFI_BUFFER_TOO_SMALL  The text cannot be formatted (see FormatStateFile);
                                the file is untouched.
  @retval EFI_DEVICE_ERROR      The write failed or came up short.
  @retval EFI_COMPROMISED_DATA  The file reads back otherwise.
  @retval other                 Opening, deleting, creating or reading back the file failed.
**/
EFI_STATUS
WriteStateFile (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST GROUP_STATE  *State
  );

/**
  Replaces the state file with STATE_TEXT_NO_GROUP and reads it back, as WriteStateFile
  does.

  @retval EFI_SUCCESS           The file reads back as STATE_TEXT_NO_GROUP.
  @retval EFI_DEVICE_ERROR      The write failed or came up short.
  @retval EFI_COMPROMISED_DATA  The file reads back otherwise.
  @retval other                 Opening, deleting, creating or reading back the file failed.
**/
EFI_STATUS
ResetStateFile (
  IN EFI_FILE_PROTOCOL  *Root
  );

#endif
