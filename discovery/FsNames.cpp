/** @file
  Filesystem type names, marker file names and the choice of a filesystem driver.
**/

#include <discovery/FsIdentification.h>

STATIC
CHAR16
FoldLetter (
  IN CHAR16  Character
  )
{
  return ((Character >= L'a') && (Character <= L'z')) ? static_cast<CHAR16>(Character - (L'a' - L'A')) : Character;
}

BOOLEAN
FsNameEquals (
  IN CONST CHAR16  *First,
  IN CONST CHAR16  *Second
  )
{
  UINTN  Index;

  if ((First == nullptr) || (First[0] == L'\0') || (Second == nullptr)) {
    return FALSE;
  }

  for (Index = 0; First[Index] != L'\0'; Index++) {
    if (FoldLetter (First[Index]) != FoldLetter (Second[Index])) {
      return FALSE;
    }
  }

  return Second[Index] == L'\0';
}

EFI_STATUS
NormalizeFsName (
  IN OUT CHAR16  *Name
  )
{
  STATIC CONST char16_t  *CONST  Canonical[] = { u"FAT32", u"NTFS", u"exFAT" };

  if ((Name == nullptr) || (Name[0] == L'\0')) {
    return EFI_INVALID_PARAMETER;
  }

  for (CONST char16_t *Spelling : Canonical) {
    if (FsNameEquals (Name, L16 (Spelling))) {
      return StrCpyS (Name, VELMARO_FS_CHARS, L16 (Spelling));
    }
  }

  Name[0] = L'\0';
  return EFI_UNSUPPORTED;
}

EFI_STATUS
UuidFromMarkerName (
  OUT CHAR16        *Uuid,
  IN  CONST CHAR16  *MarkerName
  )
{
  UINTN  Length;

  if (Uuid == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Uuid[0] = L'\0';
  if (MarkerName == nullptr) {
    return EFI_SUCCESS;
  }

  Length = StrLen (MarkerName);
  if ((Length <= 5) || (StrCmp (MarkerName + Length - 5, L16 (u".uuid")) != 0)) {
    return EFI_SUCCESS;
  }

  if (Length - 5 >= UUID_TEXT_CHARS) {
    return EFI_BUFFER_TOO_SMALL;
  }

  CopyMem (Uuid, MarkerName, (Length - 5) * sizeof (CHAR16));
  Uuid[Length - 5] = L'\0';
  return EFI_SUCCESS;
}

BOOLEAN
IsExternalSourceFs (
  IN CONST GROUP_STATE  *State
  )
{
  return (State != nullptr) && (State->SrcFs[0] != L'\0') && !FsNameEquals (State->SrcFs, L16 (u"FAT32"));
}

VOID
ChooseDriverFs (
  IN  CONST GROUP_STATE  *Current OPTIONAL,
  IN  CONST GROUP_STATE  *Requested OPTIONAL,
  OUT CHAR16             *Name
  )
{
  STATIC CONST char16_t  *CONST  Preference[] = { u"exFAT", u"NTFS" };

  if (Name == nullptr) {
    return;
  }

  Name[0] = L'\0';
  for (CONST char16_t *Fs : Preference) {
    if (((Current != nullptr) && FsNameEquals (Current->SrcFs, L16 (Fs))) ||
        ((Requested != nullptr) && FsNameEquals (Requested->SrcFs, L16 (Fs))))
    {
      StrCpyS (Name, VELMARO_FS_CHARS, L16 (Fs));
      return;
    }
  }
}
