/** @file
  Test-only image: runs the file-protocol table on the volume it was loaded from and
  leaves the answers in \probe_result.txt (ASCII, "\n" line ends) and on the console.
  It never goes on a user's stick; the QEMU scenario in tests/e2e/file_table.py boots
  it and compares its answers with the host suite's.
**/

#include "FileTable.h"

extern "C" {
#include <Protocol/LoadedImage.h>
#include <Library/BaseMemoryLib.h>
#include <Library/UefiApplicationEntryPoint.h>
#include <Library/UefiBootServicesTableLib.h>
}

namespace {

constexpr UINTN  kTextBytes = 64 * 1024;

CHAR8  mText[kTextBytes];   // in .bss: the answers can be longer than a comfortable stack

VOID
Show (
  EFI_SYSTEM_TABLE  *SystemTable,
  CONST CHAR8       *Text
  )
{
  CHAR16  Line[256];
  UINTN   Used = 0;

  // The serial console wants CR LF; long lines go out in pieces.
  for ( ; ; ++Text) {
    const BOOLEAN  End = (*Text == '\0');

    if (End || (*Text == '\n') || (Used + 3 >= sizeof (Line) / sizeof (Line[0]))) {
      if (!End && (*Text == '\n')) {
        Line[Used++] = L'\r';
        Line[Used++] = L'\n';
      }

      Line[Used] = 0;
      SystemTable->ConOut->OutputString (SystemTable->ConOut, Line);
      Used = 0;
      if (End) {
        return;
      }

      if (*Text == '\n') {
        continue;
      }
    }

    Line[Used++] = static_cast<CHAR16>(static_cast<UINT8>(*Text));
  }
}

CHAR16  mResultName[] = { L'\\', L'p', L'r', L'o', L'b', L'e', L'_', L'r', L'e', L's', L'u', L'l', L't', L'.', L't', L'x', L't', 0 };

// The result file is made empty before the table runs, so that its directory entry comes
// before everything the table creates and deletes in the root. On a stick with 512-byte
// clusters the driver grows a folder by one cluster when a 255-character name needs 21
// entries, writes the entries that fit and silently drops the last one: the medium then
// holds a zero entry that ends the root for every later reader, mtools included. The
// long-name row does exactly that, so nothing the harness reads may come after it.
EFI_STATUS
CreateResult (
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem
  )
{
  EFI_FILE_PROTOCOL  *Root = nullptr;
  EFI_FILE_PROTOCOL  *File = nullptr;
  EFI_STATUS         Status;

  Status = FileSystem->OpenVolume (FileSystem, &Root);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // A result from an earlier boot must not survive with a longer tail.
  if (!EFI_ERROR (Root->Open (Root, &File, mResultName, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0))) {
    File->Delete (File);
    File = nullptr;
  }

  Status = Root->Open (Root, &File, mResultName, EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (!EFI_ERROR (Status)) {
    Status = File->Flush (File);
    File->Close (File);
  }

  Root->Close (Root);
  return Status;
}

EFI_STATUS
WriteResult (
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem,
  CONST CHAR8                      *Text,
  UINTN                            Size
  )
{
  EFI_FILE_PROTOCOL  *Root = nullptr;
  EFI_FILE_PROTOCOL  *File = nullptr;
  EFI_STATUS         Status;
  UINTN              Written = Size;

  Status = FileSystem->OpenVolume (FileSystem, &Root);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = Root->Open (Root, &File, mResultName, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (!EFI_ERROR (Status)) {
    Status = File->Write (File, &Written, const_cast<CHAR8 *>(Text));
    if (!EFI_ERROR (Status) && (Written != Size)) {
      Status = EFI_DEVICE_ERROR;
    }

    if (!EFI_ERROR (Status)) {
      Status = File->Flush (File);
    }

    File->Close (File);
  }

  Root->Close (Root);
  return Status;
}

}  // namespace

extern "C"
EFI_STATUS
EFIAPI
_ModuleEntryPoint (
  IN EFI_HANDLE        ImageHandle,
  IN EFI_SYSTEM_TABLE  *SystemTable
  )
{
  EFI_LOADED_IMAGE_PROTOCOL        *LoadedImage = nullptr;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem  = nullptr;
  EFI_STATUS                       Status;
  UINTN                            Size;

  ProcessLibraryConstructorList (ImageHandle, SystemTable);

  Status = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
  if (!EFI_ERROR (Status)) {
    Status = gBS->HandleProtocol (LoadedImage->DeviceHandle, &gEfiSimpleFileSystemProtocolGuid, reinterpret_cast<VOID **>(&FileSystem));
  }

  if (EFI_ERROR (Status)) {
    Show (SystemTable, "file probe: no file system on the boot volume\n");
    return Status;
  }

  Show (SystemTable, "file probe: start\n");
  Status = CreateResult (FileSystem);
  if (EFI_ERROR (Status)) {
    Show (SystemTable, "file probe: creating \\probe_result.txt failed\n");
    return Status;
  }

  RunFileTable (FileSystem, mText, sizeof (mText));
  Show (SystemTable, mText);

  Size = 0;
  while (mText[Size] != '\0') {
    ++Size;
  }

  Status = WriteResult (FileSystem, mText, Size);
  Show (SystemTable, EFI_ERROR (Status) ? "file probe: writing \\probe_result.txt failed\n" : "file probe: done\n");
  return Status;
}
