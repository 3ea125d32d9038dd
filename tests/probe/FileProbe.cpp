/** @file
  Test-only image: runs the file-protocol table on the volume it was loaded from and
  leaves the answers in \probe_result.txt (ASCII, "\n" line ends) and on the console.
  It never goes on a user's stick; tests/e2e/file_table.py boots it in QEMU and compares
  its answers with the host suite's.
**/

#include "FileTable.h"

extern "C" {
#include <Protocol/LoadedImage.h>
#include <Library/BaseLib.h>
#include <Library/UefiApplicationEntryPoint.h>
#include <Library/UefiBootServicesTableLib.h>
}

namespace {

CHAR8   mText[64 * 1024];   // in .bss: the answers are longer than a comfortable stack
CHAR16  mResultName[] = { L'\\', L'p', L'r', L'o', L'b', L'e', L'_', L'r', L'e', L's', L'u', L'l', L't', L'.', L't', L'x', L't', 0 };

// The serial console wants CR LF; long lines go out in pieces.
VOID Show (EFI_SYSTEM_TABLE *SystemTable, CONST CHAR8 *Text) {
  CHAR16  Line[130];
  UINTN   Used = 0;
  for ( ; ; ++Text) {
    if (*Text == '\n') Line[Used++] = L'\r';
    if (*Text != '\0') Line[Used++] = static_cast<CHAR16>(static_cast<UINT8>(*Text));
    if ((*Text != '\0') && (Used < 127)) continue;
    Line[Used] = 0;
    SystemTable->ConOut->OutputString (SystemTable->ConOut, Line);
    Used = 0;
    if (*Text == '\0') return;
  }
}

// Writes Text to \probe_result.txt. With Fresh, a result from an earlier boot is deleted
// first: the file is made empty before the table runs, so that its directory entry comes
// before everything the table creates and deletes. On a stick with 512-byte clusters the
// driver grows a folder by one cluster when a 255-character name needs 21 entries, writes
// the entries that fit and silently drops the last one, which ends the folder for every
// later reader, mtools included; the result must never be that last entry.
EFI_STATUS SaveResult (EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *FileSystem, CONST CHAR8 *Text, BOOLEAN Fresh) {
  EFI_FILE_PROTOCOL  *Root = nullptr;
  EFI_FILE_PROTOCOL  *File = nullptr;
  UINTN              Size  = AsciiStrLen (Text), Written = Size;
  EFI_STATUS         Status = FileSystem->OpenVolume (FileSystem, &Root);
  if (EFI_ERROR (Status)) return Status;
  if (Fresh && !EFI_ERROR (Root->Open (Root, &File, mResultName, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0))) File->Delete (File);
  Status = Root->Open (Root, &File, mResultName, EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (!EFI_ERROR (Status)) {
    Status = File->Write (File, &Written, const_cast<CHAR8 *>(Text));
    Status = (!EFI_ERROR (Status) && (Written != Size)) ? EFI_DEVICE_ERROR : Status;
    Status = EFI_ERROR (Status) ? Status : File->Flush (File);
    File->Close (File);
  }
  Root->Close (Root);
  return Status;
}

}  // namespace

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (IN EFI_HANDLE ImageHandle, IN EFI_SYSTEM_TABLE *SystemTable) {
  EFI_LOADED_IMAGE_PROTOCOL        *LoadedImage = nullptr;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem  = nullptr;
  ProcessLibraryConstructorList (ImageHandle, SystemTable);
  EFI_STATUS  Status = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
  if (!EFI_ERROR (Status)) Status = gBS->HandleProtocol (LoadedImage->DeviceHandle, &gEfiSimpleFileSystemProtocolGuid, reinterpret_cast<VOID **>(&FileSystem));
  if (EFI_ERROR (Status) || EFI_ERROR (Status = SaveResult (FileSystem, mText, TRUE))) {
    Show (SystemTable, "file probe: no \\probe_result.txt on the boot volume\n");
    return Status;
  }
  RunFileTable (FileSystem, mText, sizeof (mText));
  Show (SystemTable, mText);
  Status = SaveResult (FileSystem, mText, FALSE);
  Show (SystemTable, EFI_ERROR (Status) ? "file probe: writing \\probe_result.txt failed\n" : "file probe: done\n");
  return Status;
}
