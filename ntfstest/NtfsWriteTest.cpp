/** @file
  The NTFS write test. Whoever runs it is looking at a machine where switching groups on
  the NTFS partition fails, so every firmware answer is logged before it is judged: the
  log alone must show which step failed and how.
**/

#include <ntfstest/NtfsWriteTest.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <fs/ImageDiagnostics.h>
#include <Guards.h>

/// Written without a terminator; read back with room for one byte more, so a file that
/// grew is told apart from one that matches.
STATIC CONST CHAR8  mWriteTestContent[] = "Velmaro UEFI write test OK";

#define WRITE_TEST_BYTES  (sizeof (mWriteTestContent) - 1)

/**
  Removes an earlier test file so that the write below starts from nothing; an absent
  file is what we want already.
**/
STATIC
EFI_STATUS
DeleteFileIfExists (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  )
{
  EFI_FILE_PROTOCOL  *File;
  EFI_STATUS         Status;

  File   = nullptr;
  Status = Root->Open (Root, &File, const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  // Delete closes the handle whatever it answers.
  Status = File->Delete (File);
  if (Status == EFI_WARN_DELETE_FAILURE) {
    return EFI_DEVICE_ERROR;
  }

  return Status;
}

EFI_STATUS
WriteTestFile (
  IN EFI_FILE_PROTOCOL  *Root
  )
{
  FileGuard   File;
  CHAR8       ReadBack[WRITE_TEST_BYTES + 1];
  UINTN       Bytes;
  EFI_STATUS  Status;

  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Status = DeleteFileIfExists (Root, WRITE_TEST_PATH);
  LogPrint (L16 (u"  DeleteFileIfExists(%s): %r (0x%lx)\n"), WRITE_TEST_PATH, Status, Status);
  ShowReadOnlyWarning (Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(WRITE_TEST_PATH), EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  LogPrint (L16 (u"  Root->Open(write test create): %r (0x%lx)\n"), Status, Status);
  ShowReadOnlyWarning (Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Bytes  = WRITE_TEST_BYTES;
  Status = File->Write (File.Get (), &Bytes, const_cast<CHAR8 *>(mWriteTestContent));
  LogPrint (L16 (u"  File->Write(write test) bytes=%u: %r (0x%lx)\n"), static_cast<UINT32>(Bytes), Status, Status);
  ShowReadOnlyWarning (Status);
  File.Close ();
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (Bytes != WRITE_TEST_BYTES) {
    LogPrint (L16 (u"  ERRORE: scritti %u byte, attesi %u\n"), static_cast<UINT32>(Bytes), static_cast<UINT32>(WRITE_TEST_BYTES));
    return EFI_DEVICE_ERROR;
  }

  // A handle of its own for the read: what the driver hands back then comes from the
  // volume, not from the handle the bytes were written through.
  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(WRITE_TEST_PATH), EFI_FILE_MODE_READ, 0);
  LogPrint (L16 (u"  Root->Open(write test readback): %r (0x%lx)\n"), Status, Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  ZeroMem (ReadBack, sizeof (ReadBack));
  Bytes  = sizeof (ReadBack);
  Status = File->Read (File.Get (), &Bytes, ReadBack);
  LogPrint (L16 (u"  File->Read(write test) bytes=%u: %r (0x%lx)\n"), static_cast<UINT32>(Bytes), Status, Status);
  File.Close ();
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if ((Bytes == WRITE_TEST_BYTES) && (CompareMem (ReadBack, mWriteTestContent, WRITE_TEST_BYTES) == 0)) {
    LogPrint (L16 (u"\nSCRITTURA NTFS OK\n"));
    return EFI_SUCCESS;
  }

  LogPrint (L16 (u"  ERRORE: contenuto write test non corrisponde\n"));
  return EFI_COMPROMISED_DATA;
}

EFI_STATUS
BuildBackupName (
  IN  EFI_FILE_PROTOCOL  *Root,
  OUT CHAR16             *Name
  )
{
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((Root == nullptr) || (Name == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  for (UINT32 Number = 0; Number < BACKUP_NAME_COUNT; Number++) {
    if (Number == 0) {
      StrCpyS (Name, BACKUP_NAME_CHARS, BACKUP_NAME_BASE);
    } else {
      UnicodeSPrint (Name, BACKUP_NAME_CHARS * sizeof (CHAR16), L16 (u"%s_%u"), BACKUP_NAME_BASE, Number);
    }

    Status = FileExists (Root, Name, &Exists);
    if ((Status == EFI_NOT_FOUND) || (!EFI_ERROR (Status) && !Exists)) {
      return EFI_SUCCESS;
    }

    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  return EFI_ALREADY_STARTED;
}

/**
  The GetInfo of the rename: first into a buffer sized for the information under the new
  name, then once more at the size the driver asks for, with room for the new name on
  top. *Info and *BufferSize describe the buffer that holds the answer.
**/
STATIC
EFI_STATUS
GetRenameInfo (
  IN     EFI_FILE_PROTOCOL         *Folder,
  IN     UINTN                     NameChars,
  IN OUT PoolGuard<EFI_FILE_INFO>  &Info,
  OUT    UINTN                     *BufferSize
  )
{
  UINTN       InfoSize;
  EFI_STATUS  Status;

  *BufferSize = SIZE_OF_EFI_FILE_INFO + sizeof (CHAR16) + NameChars * sizeof (CHAR16);
  LogPrint (L16 (u"  Rename initial FileInfoSize=%u\n"), static_cast<UINT32>(*BufferSize));
  Info.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (*BufferSize)));
  if (!Info) {
    return EFI_OUT_OF_RESOURCES;
  }

  InfoSize = *BufferSize;
  Status   = Folder->GetInfo (Folder, &gEfiFileInfoGuid, &InfoSize, Info.Get ());
  LogPrint (L16 (u"  Rename GetInfo: %r (0x%lx), FileInfoSize=%u\n"), Status, Status, static_cast<UINT32>(InfoSize));
  if (Status != EFI_BUFFER_TOO_SMALL) {
    return Status;
  }

  Info.Free ();
  *BufferSize = InfoSize + (NameChars + 1) * sizeof (CHAR16);
  Info.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (*BufferSize)));
  if (!Info) {
    return EFI_OUT_OF_RESOURCES;
  }

  InfoSize = *BufferSize;
  Status   = Folder->GetInfo (Folder, &gEfiFileInfoGuid, &InfoSize, Info.Get ());
  LogPrint (L16 (u"  Rename GetInfo(retry): %r (0x%lx), FileInfoSize=%u\n"), Status, Status, static_cast<UINT32>(InfoSize));
  return Status;
}

EFI_STATUS
RenameSources (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *NewName
  )
{
  FileGuard                 Folder;
  PoolGuard<EFI_FILE_INFO>  Info;
  EFI_FILE_INFO             *Resized;
  CHAR16                    NewPath[RENAME_PATH_CHARS];
  UINTN                     BufferSize;
  UINTN                     NewSize;
  EFI_STATUS                Status;

  if ((Root == nullptr) || (NewName == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  // A path cut short by the print library would rename the folder to a name nobody asked for.
  if (StrLen (NewName) + 2 > RENAME_PATH_CHARS) {
    return EFI_BUFFER_TOO_SMALL;
  }

  LogPrint (L16 (u"  Rename method: SetInfo(gEfiFileInfoGuid)\n"));
  Status = Root->Open (Root, Folder.Out (), const_cast<CHAR16 *>(WRITE_TEST_FOLDER), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, EFI_FILE_DIRECTORY);
  LogPrint (L16 (u"  Rename Root->Open(\\%s): %r (0x%lx)\n"), WRITE_TEST_FOLDER, Status, Status);
  ShowReadOnlyWarning (Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = GetRenameInfo (Folder.Get (), StrLen (NewName), Info, &BufferSize);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  LogPrint (L16 (u"  Rename FileName prima: %s\n"), Info->FileName);

  UnicodeSPrint (NewPath, sizeof (NewPath), L16 (u"\\%s"), NewName);
  NewSize = SIZE_OF_EFI_FILE_INFO + sizeof (CHAR16) + StrLen (NewPath) * sizeof (CHAR16);
  LogPrint (L16 (u"  Rename FileInfoSize nuovo=%u\n"), static_cast<UINT32>(NewSize));
  Resized = static_cast<EFI_FILE_INFO *>(ReallocatePool (BufferSize, NewSize, Info.Get ()));
  if (Resized == nullptr) {
    return EFI_OUT_OF_RESOURCES;
  }

  // ReallocatePool has freed the old buffer.
  Info.Release ();
  Info.Reset (Resized);

  // Sizes, times and attributes go back as GetInfo gave them: only the name changes, so
  // the outcome is the driver's answer to the name alone.
  Info->Size = NewSize;
  StrCpyS (Info->FileName, (NewSize - SIZE_OF_EFI_FILE_INFO) / sizeof (CHAR16), NewPath);
  LogPrint (L16 (u"  Rename FileName dopo: %s\n"), Info->FileName);

  Status = Folder->SetInfo (Folder.Get (), &gEfiFileInfoGuid, NewSize, Info.Get ());
  LogPrint (L16 (u"  Rename SetInfo(gEfiFileInfoGuid): %r (0x%lx)\n"), Status, Status);
  ShowReadOnlyWarning (Status);
  return Status;
}

/// Opens Path for reading on Root, logs the answer and closes what opened.
STATIC
EFI_STATUS
ProbeAfterRename (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  )
{
  FileGuard   File;
  EFI_STATUS  Status;

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ, 0);
  LogPrint (L16 (u"  Verify rename Open(\\%s): %r (0x%lx)\n"), Path, Status, Status);
  return Status;
}

EFI_STATUS
VerifyRenameOfSources (
  IN EFI_HANDLE    SimpleFs,
  IN CONST CHAR16  *NewName
  )
{
  FileGuard   FreshRoot;
  EFI_STATUS  OldStatus;
  EFI_STATUS  NewStatus;
  EFI_STATUS  Status;

  if ((SimpleFs == nullptr) || (NewName == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  // A driver may keep showing a root's volume as it was when that root was opened: only
  // a root opened after the rename can prove it.
  Status = OpenRoot (SimpleFs, FreshRoot.Out ());
  LogPrint (L16 (u"  Verify rename OpenRoot(reopen NTFS): %r (0x%lx)\n"), Status, Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  OldStatus = ProbeAfterRename (FreshRoot.Get (), WRITE_TEST_FOLDER);
  NewStatus = ProbeAfterRename (FreshRoot.Get (), NewName);
  FreshRoot.Close ();
  if ((OldStatus == EFI_NOT_FOUND) && !EFI_ERROR (NewStatus)) {
    return EFI_SUCCESS;
  }

  LogPrint (L16 (u"\nERRORE: rename non verificato\n"));
  return EFI_DEVICE_ERROR;
}

EFI_STATUS
NtfsWriteTest (
  IN EFI_HANDLE  SimpleFs
  )
{
  FileGuard   Root;
  CHAR16      BackupName[BACKUP_NAME_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if (SimpleFs == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  PrintHandleDevicePath (L16 (u"Target NTFS SimpleFS"), SimpleFs);

  Status = OpenRoot (SimpleFs, Root.Out ());
  LogPrint (L16 (u"  OpenRoot(target NTFS): %r (0x%lx)\n"), Status, Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = WriteTestFile (Root.Get ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FileExists (Root.Get (), WRITE_TEST_FOLDER, &Exists);
  LogPrint (L16 (u"  FileExists(\\%s): %r (0x%lx), exists=%u\n"), WRITE_TEST_FOLDER, Status, Status, Exists ? 1 : 0);
  // Whatever kept the folder from opening, there is nothing this test can rename.
  if (EFI_ERROR (Status) || !Exists) {
    return EFI_NOT_FOUND;
  }

  Status = BuildBackupName (Root.Get (), BackupName);
  LogPrint (L16 (u"  BuildBackupName: %r (0x%lx), target=\\%s\n"), Status, Status, EFI_ERROR (Status) ? L16 (u"(n/d)") : BackupName);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = RenameSources (Root.Get (), BackupName);
  LogPrint (L16 (u"  RenameSources(\\%s): %r (0x%lx)\n"), BackupName, Status, Status);
  Root.Close ();
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = VerifyRenameOfSources (SimpleFs, BackupName);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  LogPrint (L16 (u"\nSUCCESSO: \\sources rinominata in \\%s\n"), BackupName);
  return EFI_SUCCESS;
}
