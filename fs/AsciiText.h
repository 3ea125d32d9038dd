/** @file
  Text helpers every reader of the stick's files walks ASCII text with, and the copies
  between ASCII and CHAR16 names. They touch no volume and log nothing, so every layer
  may use them.
**/

#ifndef VELMARO_ASCII_TEXT_H_
#define VELMARO_ASCII_TEXT_H_

#include <Velmaro.h>

VOID
TrimAsciiSpace (
  IN OUT CHAR8  *Text
  );

/**
  Widens Source into Destination.

  @retval EFI_SUCCESS           Destination holds the whole text.
  @retval EFI_BUFFER_TOO_SMALL  Source and its NUL do not fit in Capacity characters;
                                Destination is then the empty string, never a cut copy.
**/
EFI_STATUS
AsciiToChar16 (
  OUT CHAR16       *Destination,
  IN  UINTN        Capacity,
  IN  CONST CHAR8  *Source
  );

#define LEAF_NAME_CHARS  128

/**
  The leaf of Path (what follows its last "\" or "/"), trimmed of blanks and line ends
  and widened into Destination (LEAF_NAME_CHARS characters).

  @retval EFI_SUCCESS           Destination holds the trimmed leaf.
  @retval EFI_BUFFER_TOO_SMALL  The leaf, measured before trimming, has LEAF_NAME_CHARS
                                characters or more; Destination is left as it was.
**/
EFI_STATUS
AsciiLeafNameToChar16 (
  OUT CHAR16       *Destination,
  IN  CONST CHAR8  *Path
  );

/** Characters of the line at Line: up to the first CR, LF or NUL. **/
UINTN
LineLength (
  IN CONST CHAR8  *Line
  );

/** Value of one hexadecimal digit of either case, or -1. **/
INTN
HexValue (
  IN CHAR8  Character
  );

/** Start of the next non-empty line, or null at the end of the text. **/
CONST CHAR8 *
NextLine (
  IN CONST CHAR8  *Position
  );

CONST CHAR16 *
PathLeafName (
  IN CONST CHAR16  *Path
  );

BOOLEAN
GroupNamesEqual (
  IN CONST GROUP_STATE  *First,
  IN CONST GROUP_STATE  *Second
  );

BOOLEAN
HasTxtSuffix (
  IN CONST CHAR16  *Name
  );

/**
  Name without its last four characters (the ".txt" callers have tested with
  HasTxtSuffix), narrowed into Destination (VELMARO_NAME_CHARS bytes).

  @retval EFI_SUCCESS           Destination holds the name's stem.
  @retval EFI_BUFFER_TOO_SMALL  Name has fewer than 5 or more than 131 characters, or its
                                stem a character of 128 or more; what was copied then
                                stays, unterminated.
**/
EFI_STATUS
TxtNameToAscii (
  OUT CHAR8         *Destination,
  IN  CONST CHAR16  *Name
  );

/**
  Narrows Text into Destination (Size bytes).

  @retval EFI_SUCCESS           Destination holds the whole text.
  @retval EFI_BUFFER_TOO_SMALL  A character of 128 or more, or the text and its NUL do
                                not fit; what was copied then stays, unterminated.
**/
EFI_STATUS
NarrowToAscii (
  OUT CHAR8         *Destination,
  IN  UINTN         Size,
  IN  CONST CHAR16  *Text
  );

#endif
