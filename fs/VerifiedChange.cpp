/** @file
  Verified rename, move aside, copy, and case-insensitive entry lookup.
**/

#include <fs/VerifiedChange.h>
#include <fs/FileAccess.h>
#include <Guards.h>
#include <app/DiagnosticLog.h>

/**
  Clears the three times of a FILE_INFO before SetInfo: zero leaves the times to the
  driver (FAT keeps the creation time and stamps the modification time). Passing
  GetInfo's own times back fails on FAT, whose driver turns a zero date on the medium
  into a time that its own SetInfo then refuses as invalid.
**/
STATIC
VOID
KeepTimes (
  IN OUT EFI_FILE_INFO  *Info
  )
{
  ZeroMem (&Info->CreateTime, sizeof (Info->CreateTime));
  ZeroMem (&Info->LastAccessTime, sizeof (Info->LastAccessTime));
  ZeroMem (&Info->ModificationTime, sizeof (Info->ModificationTime));
}

/**
  SetInfo with the file's own information under a new name: sizes and attributes are
  kept as GetInfo gave them, the times are left to the driver, and only Size and
  FileName change.
**/
STATIC
EFI_STATUS
SetFileName (
  IN EFI_FILE_PROTOCOL    *File,
  IN CONST EFI_FILE_INFO  *Info,
  IN UINTN                InfoSize,
  IN CONST CHAR16         *NewName
  )
{
  PoolGuard<EFI_FILE_INFO>  NewInfo;
  UINTN                     NewSize;

  NewSize = SIZE_OF_EFI_FILE_INFO + StrSize (NewName);
  NewInfo.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (NewSize)));
  if (!NewInfo) {
    return EFI_OUT_OF_RESOURCES;
  }

  CopyMem (NewInfo.Get (), Info, MIN (InfoSize, NewSize));
  NewInfo->Size = NewSize;
  KeepTimes (NewInfo.Get ());
  CopyMem (NewInfo->FileName, NewName, StrSize (NewName));
  return File->SetInfo (File, &gEfiFileInfoGuid, NewSize, NewInfo.Get ());
}

EFI_STATUS
RenameVerified (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Source,
  IN CONST CHAR16       *Destination
  )
{
  FileGuard                 File;
  FileGuard                 FreshRoot;
  PoolGuard<EFI_FILE_INFO>  Info;
  UINTN                     InfoSize;
  BOOLEAN                   Exists;
  EFI_STATUS                Status;

  if ((Root == nullptr) || (Source == nullptr) || (Destination == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  LogPrint (L16 (u"rename verified: %s -> %s\n"), Source, Destination);
  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Source), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"rename verified: open source failed %s: %r (0x%lx)\n"), Source, Status, Status);
    return Status;
  }

  Status = GetFileInfoAlloc (File.Get (), Info.Out (), &InfoSize);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = SetFileName (File.Get (), Info.Get (), InfoSize, Destination);
  if (Status == EFI_INVALID_PARAMETER) {
    // Drivers other than FAT may take only a bare name: rename within the folder.
    CONST CHAR16  *Leaf = PathLeafName (Destination);

    LogPrint (L16 (u"rename verified: SetInfo full-path rejected, retry leaf-name %s\n"), Leaf);
    Status = GetFileInfoAlloc (File.Get (), Info.Out (), &InfoSize);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    Status = SetFileName (File.Get (), Info.Get (), InfoSize, Leaf);
  }

  Info.Free ();
  File.Close ();
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"rename verified: SetInfo failed %s -> %s: %r (0x%lx)\n"), Source, Destination, Status, Status);
    return Status;
  }

  LogPrint (L16 (u"rename verified: SetInfo OK %s -> %s\n"), Source, Destination);

  // The firmware's word is not proof: look again on a root opened afresh.
  Status = OpenRoot (Volume, FreshRoot.Out ());
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"rename verified: reopen root failed after rename: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  Status = FileExists (FreshRoot.Get (), Source, &Exists);
  if (Status != EFI_NOT_FOUND) {
    FreshRoot.Close ();
    LogPrint (
      L16 (u"rename verified: source still present after rename %s status=%r (0x%lx) exists=%u\n"),
      Source,
      Status,
      Status,
      Exists ? 1 : 0
      );
    return EFI_DEVICE_ERROR;
  }

  Status = FileExists (FreshRoot.Get (), Destination, &Exists);
  FreshRoot.Close ();
  if (!EFI_ERROR (Status) && Exists) {
    LogPrint (L16 (u"rename verified: OK %s -> %s\n"), Source, Destination);
    return EFI_SUCCESS;
  }

  LogPrint (
    L16 (u"rename verified: destination missing after rename %s status=%r (0x%lx) exists=%u\n"),
    Destination,
    Status,
    Status,
    Exists ? 1 : 0
    );
  return EFI_DEVICE_ERROR;
}

EFI_STATUS
MakeRoomAt (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  )
{
  CHAR16      Kept[KEPT_PATH_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((Volume == nullptr) || (Root == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (StrLen (Path) + 2 >= KEPT_PATH_CHARS) {
    return EFI_BUFFER_TOO_SMALL;
  }

  Status = FileExists (Root, Path, &Exists);
  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (UINTN Number = 1; Number <= KEPT_NAME_MAX_NUMBER; Number++) {
    UnicodeSPrint (Kept, sizeof (Kept), L16 (u"%s%u"), Path, static_cast<UINT32>(Number));
    Status = FileExists (Root, Kept, &Exists);
    if (Status == EFI_NOT_FOUND) {
      LogPrint (L16 (u"%s esistente conservato come %s\n"), Path, Kept);
      return RenameVerified (Volume, Root, Path, Kept);
    }

    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  return EFI_ALREADY_STARTED;
}

EFI_STATUS
MoveAsideToBak (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  )
{
  CHAR16      BakPath[BAK_PATH_CHARS];
  EFI_STATUS  Status;

  if ((Volume == nullptr) || (Root == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (StrLen (Path) > BAK_PATH_MAX_CHARS) {
    return EFI_BUFFER_TOO_SMALL;
  }

  UnicodeSPrint (BakPath, sizeof (BakPath), L16 (u"%s.bak"), Path);

  // An older ".bak" may hold the only copy of some bytes (and FAT would refuse to
  // delete it as soon as it is a folder with files): it moves on to a numbered name.
  Status = MakeRoomAt (Volume, Root, BakPath);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return RenameVerified (Volume, Root, Path, BakPath);
}

/**
  A destination that already holds bytes is not ours to write over: an existence test
  that answered "absent" wrongly must not cost a store its only copy. A file that the
  create-open has just made (or an empty one) is taken.
**/
STATIC
EFI_STATUS
RefuseFilledDestination (
  IN EFI_FILE_PROTOCOL  *File
  )
{
  PoolGuard<EFI_FILE_INFO>  Info;
  UINTN                     InfoSize;
  EFI_STATUS                Status;

  Status = GetFileInfoAlloc (File, Info.Out (), &InfoSize);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return (Info->FileSize == 0) ? EFI_SUCCESS : EFI_ACCESS_DENIED;
}

EFI_STATUS
CopyFileVerified (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Source,
  IN CONST CHAR16       *Destination
  )
{
  FileGuard   From;
  FileGuard   To;
  UINT8       Chunk[COPY_CHUNK_BYTES];
  EFI_STATUS  Status;

  if ((Root == nullptr) || (Source == nullptr) || (Destination == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  LogPrint (L16 (u"copy verified: %s -> %s\n"), Source, Destination);
  Status = Root->Open (Root, From.Out (), const_cast<CHAR16 *>(Source), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"copy verified: open source failed %s: %r (0x%lx)\n"), Source, Status, Status);
    return Status;
  }

  Status = Root->Open (
                   Root,
                   To.Out (),
                   const_cast<CHAR16 *>(Destination),
                   EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE,
                   0
                   );
  if (EFI_ERROR (Status)) {
    From.Close ();
    LogPrint (L16 (u"copy verified: open destination failed %s: %r (0x%lx)\n"), Destination, Status, Status);
    return Status;
  }

  Status = RefuseFilledDestination (To.Get ());
  if (EFI_ERROR (Status)) {
    To.Close ();
    From.Close ();
    LogPrint (L16 (u"copy verified: open destination failed %s: %r (0x%lx)\n"), Destination, Status, Status);
    return Status;
  }

  for ( ; ;) {
    UINTN  ReadSize = sizeof (Chunk);
    UINTN  Written;

    Status = From->Read (From.Get (), &ReadSize, Chunk);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (ReadSize == 0) {
      break;
    }

    Written = ReadSize;
    Status  = To->Write (To.Get (), &Written, Chunk);
    if (EFI_ERROR (Status) || (Written != ReadSize)) {
      return EFI_DEVICE_ERROR;
    }
  }

  To->Flush (To.Get ());
  To.Close ();
  From.Close ();
  LogPrint (L16 (u"copy verified OK: %s -> %s\n"), Source, Destination);
  return EFI_SUCCESS;
}

STATIC
CHAR16
FoldAscii (
  IN CHAR16  Character
  )
{
  return ((Character >= L'a') && (Character <= L'z')) ? static_cast<CHAR16>(Character - (L'a' - L'A')) : Character;
}

EFI_STATUS
FindDirEntryPath (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Directory,
  IN  CONST CHAR16       *Name,
  OUT CHAR16             *Path
  )
{
  FileGuard                 Dir;
  PoolGuard<EFI_FILE_INFO>  Entry;
  EFI_STATUS                Status;

  if ((Root == nullptr) || (Directory == nullptr) || (Name == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Path[0] = L'\0';
  Status  = Root->Open (Root, Dir.Out (), const_cast<CHAR16 *>(Directory), EFI_FILE_MODE_READ, EFI_FILE_DIRECTORY);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Entry.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (FILE_INFO_FIRST_GUESS)));
  if (!Entry) {
    return EFI_OUT_OF_RESOURCES;
  }

  for ( ; ;) {
    UINTN  Size = FILE_INFO_FIRST_GUESS;
    UINTN  Index;

    Status = Dir->Read (Dir.Get (), &Size, Entry.Get ());
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (Size == 0) {
      return EFI_NOT_FOUND;
    }

    CONST CHAR16  *Stored = Entry->FileName;

    if (Stored[0] == L'\0') {
      continue;
    }

    for (Index = 0; (FoldAscii (Stored[Index]) == FoldAscii (Name[Index])) && (Name[Index] != L'\0'); Index++) {
    }

    if ((Stored[Index] != L'\0') || (Name[Index] != L'\0')) {
      continue;
    }

    if (StrLen (Directory) + 2 + StrLen (Stored) > DIR_ENTRY_PATH_CHARS) {
      return EFI_BUFFER_TOO_SMALL;
    }

    UnicodeSPrint (Path, DIR_ENTRY_PATH_CHARS * sizeof (CHAR16), L16 (u"%s\\%s"), Directory, Stored);
    return EFI_SUCCESS;
  }
}
