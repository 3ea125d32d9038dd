/** @file
  Opening volume roots, testing, reading and deleting files, and the text walkers.
**/

#include <fs/FileAccess.h>
#include <Guards.h>
#include <app/DiagnosticLog.h>

EFI_STATUS
OpenRoot (
  IN  EFI_HANDLE         Volume,
  OUT EFI_FILE_PROTOCOL  **Root
  )
{
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem;
  EFI_STATUS                       Status;

  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *Root = nullptr;
  if (Volume == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  FileSystem = nullptr;
  Status     = gBS->HandleProtocol (Volume, &gEfiSimpleFileSystemProtocolGuid, reinterpret_cast<VOID **>(&FileSystem));
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (FileSystem == nullptr) {
    return EFI_UNSUPPORTED;
  }

  Status = FileSystem->OpenVolume (FileSystem, Root);
  if (EFI_ERROR (Status)) {
    *Root = nullptr;
  }

  return Status;
}

EFI_STATUS
FileExists (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT BOOLEAN            *Exists
  )
{
  FileGuard   File;
  EFI_STATUS  Status;

  if (Exists == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *Exists = FALSE;
  if ((Root == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  *Exists = TRUE;
  return EFI_SUCCESS;
}

EFI_STATUS
GetFileInfoAlloc (
  IN  EFI_FILE_PROTOCOL  *File,
  OUT EFI_FILE_INFO      **Info,
  OUT UINTN              *InfoSize OPTIONAL
  )
{
  PoolGuard<EFI_FILE_INFO>  Buffer;
  UINTN                     Size;
  EFI_STATUS                Status;

  *Info = nullptr;
  Size  = FILE_INFO_FIRST_GUESS;
  Buffer.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (Size)));
  if (!Buffer) {
    return EFI_OUT_OF_RESOURCES;
  }

  Status = File->GetInfo (File, &gEfiFileInfoGuid, &Size, Buffer.Get ());
  if (Status == EFI_BUFFER_TOO_SMALL) {
    Buffer.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (Size)));
    if (!Buffer) {
      return EFI_OUT_OF_RESOURCES;
    }

    Status = File->GetInfo (File, &gEfiFileInfoGuid, &Size, Buffer.Get ());
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (InfoSize != nullptr) {
    *InfoSize = Size;
  }

  *Info = Buffer.Release ();
  return EFI_SUCCESS;
}

EFI_STATUS
ReadWholeFile (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR8              **Buffer
  )
{
  FileGuard                 File;
  PoolGuard<EFI_FILE_INFO>  Info;
  PoolGuard<CHAR8>          Data;
  UINT64                    FileSize;
  UINTN                     ReadSize;
  EFI_STATUS                Status;

  if ((Path == nullptr) || (Buffer == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Buffer = nullptr;
  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Read file failed %s: %r (0x%lx)\n"), Path, Status, Status);
    return Status;
  }

  Status = GetFileInfoAlloc (File.Get (), Info.Out (), nullptr);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  FileSize = Info->FileSize;
  Info.Free ();
  if (FileSize == MAX_UINT64) {
    return EFI_BAD_BUFFER_SIZE;
  }

  Data.Reset (static_cast<CHAR8 *>(AllocateZeroPool (static_cast<UINTN>(FileSize) + 1)));
  if (!Data) {
    return EFI_OUT_OF_RESOURCES;
  }

  ReadSize = static_cast<UINTN>(FileSize);
  Status   = File->Read (File.Get (), &ReadSize, Data.Get ());
  File.Close ();
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (ReadSize > FileSize) {
    // A driver that claims more bytes than it was asked for cannot be trusted with
    // our terminator position.
    return EFI_DEVICE_ERROR;
  }

  Data.Get ()[ReadSize] = '\0';
  Trace (L16 (u"TRACE letto %s, bytes=%u\n"), Path, static_cast<UINT32>(ReadSize));
  *Buffer = Data.Release ();
  return EFI_SUCCESS;
}

EFI_STATUS
DeleteFileVerified (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  )
{
  FileGuard   File;
  FileGuard   FreshRoot;
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((Root == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // Delete closes the handle whatever it answers; a warning is not trusted either way,
  // the fresh root decides.
  EFI_FILE_PROTOCOL  *Handle = File.Release ();

  Status = Handle->Delete (Handle);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = OpenRoot (Volume, FreshRoot.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FileExists (FreshRoot.Get (), Path, &Exists);
  FreshRoot.Close ();
  return (Status == EFI_NOT_FOUND) ? EFI_SUCCESS : EFI_DEVICE_ERROR;
}
