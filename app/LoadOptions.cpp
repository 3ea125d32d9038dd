/** @file
  The load options: run mode and requested group ID; the key wait.
**/

#include <app/LoadOptions.h>
#include <app/DiagnosticLog.h>
#include <Guards.h>

/**
  A NUL-terminated CHAR16 copy of the load options, read up to the last whole
  character. EFI_NOT_FOUND without options, EFI_OUT_OF_RESOURCES when no copy can be made.
**/
STATIC
EFI_STATUS
CopyLoadOptions (
  IN  CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage,
  OUT CHAR16                           **Text
  )
{
  UINTN   Even;
  CHAR16  *Copy;

  *Text = nullptr;
  if ((LoadedImage == nullptr) || (LoadedImage->LoadOptions == nullptr) || (LoadedImage->LoadOptionsSize < 2)) {
    return EFI_NOT_FOUND;
  }

  Even = LoadedImage->LoadOptionsSize & ~static_cast<UINTN>(1);
  Copy = static_cast<CHAR16 *>(AllocatePool (Even + 2));
  if (Copy == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }

  CopyMem (Copy, LoadedImage->LoadOptions, LoadedImage->LoadOptionsSize);
  Copy[Even / sizeof (CHAR16)] = L'\0';
  Trace (L16 (u"TRACE LoadOptions: %s\n"), Copy);
  *Text = Copy;
  return EFI_SUCCESS;
}

STATIC
BOOLEAN
IsSeparator (
  IN CHAR16  Character
  )
{
  return (Character == L'\t') || (Character == L' ') || (Character == L'"');
}

/**
  Finds the next token at or after Position. Returns FALSE at the end of the text.
**/
STATIC
BOOLEAN
NextToken (
  IN OUT CONST CHAR16  **Position,
  OUT    CONST CHAR16  **Start,
  OUT    UINTN         *Length
  )
{
  CONST CHAR16  *Scan = *Position;

  while ((*Scan != L'\0') && IsSeparator (*Scan)) {
    Scan++;
  }

  if (*Scan == L'\0') {
    *Position = Scan;
    return FALSE;
  }

  *Start = Scan;
  while ((*Scan != L'\0') && !IsSeparator (*Scan)) {
    Scan++;
  }

  *Length   = static_cast<UINTN>(Scan - *Start);
  *Position = Scan;
  return TRUE;
}

BOOLEAN
HasLoadOptionWord (
  IN CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage,
  IN CONST CHAR16                     *Word
  )
{
  PoolGuard<CHAR16>  Options;
  CONST CHAR16       *Position;
  CONST CHAR16       *Start;
  UINTN              Length;
  UINTN              WordLength;

  if ((Word == nullptr) || EFI_ERROR (CopyLoadOptions (LoadedImage, Options.Out ()))) {
    return FALSE;
  }

  WordLength = StrLen (Word);
  Position   = Options.Get ();
  while (NextToken (&Position, &Start, &Length)) {
    if ((Length == WordLength) && (CompareMem (Start, Word, Length * sizeof (CHAR16)) == 0)) {
      return TRUE;
    }
  }

  return FALSE;
}

EFI_STATUS
GetGroupIdFromLoadOptions (
  IN  CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage,
  OUT CHAR16                           *GroupId
  )
{
  STATIC CONST UINTN  PrefixLength = 6;
  PoolGuard<CHAR16>   Options;
  CONST CHAR16        *Position;
  CONST CHAR16        *Start;
  UINTN               Length;
  EFI_STATUS          Status;

  if (GroupId == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  GroupId[0] = L'\0';
  Status     = CopyLoadOptions (LoadedImage, Options.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Position = Options.Get ();
  while (NextToken (&Position, &Start, &Length)) {
    if ((Length < PrefixLength) || (CompareMem (Start, L16 (u"s-win-"), PrefixLength * sizeof (CHAR16)) != 0)) {
      continue;
    }

    // Some boot managers append '%' placeholders to the option text.
    while ((Length > 0) && (Start[Length - 1] == L'%')) {
      Length--;
    }

    if (Length + 1 > GROUP_ID_CHARS) {
      return EFI_BUFFER_TOO_SMALL;
    }

    CopyMem (GroupId, Start, Length * sizeof (CHAR16));
    GroupId[Length] = L'\0';
    return EFI_SUCCESS;
  }

  return EFI_NOT_FOUND;
}

RunMode
ChooseRunMode (
  IN CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage
  )
{
  if (HasLoadOptionWord (LoadedImage, L16 (u"ntfs-test"))) {
    return RunMode::NtfsTest;
  }

  if (HasLoadOptionWord (LoadedImage, L16 (u"auto"))) {
    return RunMode::Auto;
  }

  return RunMode::Fat32Legacy;
}

VOID
WaitForKeyPress (
  VOID
  )
{
  EFI_INPUT_KEY  Key;
  UINTN          Index;

  LogPrint (L16 (u"\nPremere un tasto per continuare...\n"));
  if ((gST == nullptr) || (gST->ConIn == nullptr)) {
    return;
  }

  gBS->WaitForEvent (1, &gST->ConIn->WaitForKey, &Index);
  gST->ConIn->ReadKeyStroke (gST->ConIn, &Key);
}
