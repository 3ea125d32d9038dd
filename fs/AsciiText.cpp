/** @file
  ASCII text walkers and the copies between ASCII and CHAR16 names.
**/

#include <fs/AsciiText.h>

STATIC
BOOLEAN
IsAsciiSpace (
  IN CHAR8  Character
  )
{
  return (Character == '\t') || (Character == '\n') || (Character == '\r') || (Character == ' ');
}

VOID
TrimAsciiSpace (
  IN OUT CHAR8  *Text
  )
{
  UINTN  Start;
  UINTN  End;

  if (Text == nullptr) {
    return;
  }

  Start = 0;
  while (IsAsciiSpace (Text[Start])) {
    Start++;
  }

  End = Start + AsciiStrLen (Text + Start);
  while ((End > Start) && IsAsciiSpace (Text[End - 1])) {
    End--;
  }

  CopyMem (Text, Text + Start, End - Start);
  Text[End - Start] = '\0';
}

EFI_STATUS
AsciiToChar16 (
  OUT CHAR16       *Destination,
  IN  UINTN        Capacity,
  IN  CONST CHAR8  *Source
  )
{
  UINTN  Index;

  if ((Source == nullptr) || (Destination == nullptr) || (Capacity == 0)) {
    return EFI_INVALID_PARAMETER;
  }

  for (Index = 0; Source[Index] != '\0'; Index++) {
    if (Index + 1 >= Capacity) {
      // A cut name must not be mistaken for a whole one.
      Destination[0] = L'\0';
      return EFI_BUFFER_TOO_SMALL;
    }

    Destination[Index] = static_cast<UINT8>(Source[Index]);
  }

  Destination[Index] = L'\0';
  return EFI_SUCCESS;
}

EFI_STATUS
AsciiLeafNameToChar16 (
  OUT CHAR16       *Destination,
  IN  CONST CHAR8  *Path
  )
{
  CONST CHAR8  *Leaf;
  CHAR8        Copy[LEAF_NAME_CHARS];
  UINTN        Length;

  if ((Destination == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Leaf = Path;
  for (CONST CHAR8 *Scan = Path; *Scan != '\0'; Scan++) {
    if ((*Scan == '\\') || (*Scan == '/')) {
      Leaf = Scan + 1;
    }
  }

  Length = AsciiStrLen (Leaf);
  if (Length >= LEAF_NAME_CHARS) {
    return EFI_BUFFER_TOO_SMALL;
  }

  CopyMem (Copy, Leaf, Length + 1);
  TrimAsciiSpace (Copy);
  return AsciiToChar16 (Destination, LEAF_NAME_CHARS, Copy);
}

UINTN
LineLength (
  IN CONST CHAR8  *Line
  )
{
  UINTN  Length = 0;

  while ((Line[Length] != '\0') && (Line[Length] != '\r') && (Line[Length] != '\n')) {
    Length++;
  }

  return Length;
}

INTN
HexValue (
  IN CHAR8  Character
  )
{
  if ((Character >= '0') && (Character <= '9')) {
    return Character - '0';
  }

  if ((Character >= 'a') && (Character <= 'f')) {
    return Character - 'a' + 10;
  }

  if ((Character >= 'A') && (Character <= 'F')) {
    return Character - 'A' + 10;
  }

  return -1;
}

CONST CHAR8 *
NextLine (
  IN CONST CHAR8  *Position
  )
{
  if (Position == nullptr) {
    return nullptr;
  }

  Position += LineLength (Position);
  while ((*Position == '\r') || (*Position == '\n')) {
    Position++;
  }

  return (*Position == '\0') ? nullptr : Position;
}

CONST CHAR16 *
PathLeafName (
  IN CONST CHAR16  *Path
  )
{
  CONST CHAR16  *Leaf;

  if (Path == nullptr) {
    return L16 (u"");
  }

  Leaf = Path;
  for (CONST CHAR16 *Scan = Path; *Scan != L'\0'; Scan++) {
    if ((*Scan == L'\\') || (*Scan == L'/')) {
      Leaf = Scan + 1;
    }
  }

  return Leaf;
}

BOOLEAN
GroupNamesEqual (
  IN CONST GROUP_STATE  *First,
  IN CONST GROUP_STATE  *Second
  )
{
  if ((First == nullptr) || (Second == nullptr)) {
    return FALSE;
  }

  return (StrCmp (First->Bcd, Second->Bcd) == 0) &&
         (StrCmp (First->Src, Second->Src) == 0) &&
         (StrCmp (First->Efi, Second->Efi) == 0);
}

BOOLEAN
HasTxtSuffix (
  IN CONST CHAR16  *Name
  )
{
  UINTN  Length;

  if (Name == nullptr) {
    return FALSE;
  }

  Length = StrLen (Name);
  return (Length > 4) && (StrCmp (Name + Length - 4, L16 (u".txt")) == 0);
}

EFI_STATUS
TxtNameToAscii (
  OUT CHAR8         *Destination,
  IN  CONST CHAR16  *Name
  )
{
  UINTN  Length;
  UINTN  Index;

  if ((Name == nullptr) || (Destination == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Length = StrLen (Name);
  if ((Length < 5) || (Length > 131)) {
    return EFI_BUFFER_TOO_SMALL;
  }

  for (Index = 0; Index < Length - 4; Index++) {
    if (Name[Index] > 127) {
      return EFI_BUFFER_TOO_SMALL;
    }

    Destination[Index] = static_cast<CHAR8>(Name[Index]);
  }

  Destination[Index] = '\0';
  return EFI_SUCCESS;
}

EFI_STATUS
NarrowToAscii (
  OUT CHAR8         *Destination,
  IN  UINTN         Size,
  IN  CONST CHAR16  *Text
  )
{
  UINTN  Index;

  if ((Size == 0) || (Text == nullptr) || (Destination == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  for (Index = 0; Text[Index] != L'\0'; Index++) {
    if ((Index + 1 >= Size) || (Text[Index] >= 128)) {
      return EFI_BUFFER_TOO_SMALL;
    }

    Destination[Index] = static_cast<CHAR8>(Text[Index]);
  }

  Destination[Index] = '\0';
  return EFI_SUCCESS;
}
