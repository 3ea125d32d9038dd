/** @file
  Test-only image for tests/e2e/shell_move.py: runs the application's ShellMoveEfiFolder
  on partition 2 of the stick it was started from, moving "\efi\efi_b" to "\efi\microsoft",
  and logs the outcome in the application's \velmaro_log.txt on the boot volume.

  "uuid=<serial>" in the load options makes the move look for the volume by its marker
  file; without it the move asks the shell for the volume's mapping. Never on a user's stick.
**/

#include <activation/ShellMove.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <Guards.h>

namespace {

/** The hard-drive node of Path, or null; *PrefixBytes is how many bytes come before it. **/
HARDDRIVE_DEVICE_PATH *HardDriveNode (EFI_DEVICE_PATH_PROTOCOL *Path, UINTN *PrefixBytes) {
  for (EFI_DEVICE_PATH_PROTOCOL *Node = Path; (Node != nullptr) && !IsDevicePathEnd (Node); Node = NextDevicePathNode (Node)) {
    if ((DevicePathType (Node) == MEDIA_DEVICE_PATH) && (DevicePathSubType (Node) == MEDIA_HARDDRIVE_DP)) {
      *PrefixBytes = reinterpret_cast<UINT8 *>(Node) - reinterpret_cast<UINT8 *>(Path);
      return reinterpret_cast<HARDDRIVE_DEVICE_PATH *>(Node);
    }
  }

  return nullptr;
}

/** The file-system handle of partition 2 on the disk BootHandle lives on. **/
EFI_STATUS FindSourceVolume (EFI_HANDLE BootHandle, EFI_HANDLE *Found) {
  EFI_DEVICE_PATH_PROTOCOL  *BootPath  = DevicePathFromHandle (BootHandle);
  UINTN                     BootPrefix = 0;
  PoolGuard<EFI_HANDLE>     Handles;
  UINTN                     Count = 0;
  if ((HardDriveNode (BootPath, &BootPrefix) == nullptr) ||
      EFI_ERROR (gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ())))
  {
    return EFI_NOT_FOUND;
  }

  for (UINTN Index = 0; Index < Count; Index++) {
    EFI_DEVICE_PATH_PROTOCOL  *Path  = DevicePathFromHandle (Handles.Get ()[Index]);
    UINTN                     Prefix = 0;
    HARDDRIVE_DEVICE_PATH     *Hd    = HardDriveNode (Path, &Prefix);
    if ((Hd != nullptr) && (Hd->PartitionNumber == 2) && (Prefix == BootPrefix) && (CompareMem (Path, BootPath, Prefix) == 0)) {
      *Found = Handles.Get ()[Index];
      return EFI_SUCCESS;
    }
  }

  return EFI_NOT_FOUND;
}

}  // namespace

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (IN EFI_HANDLE ImageHandle, IN EFI_SYSTEM_TABLE *SystemTable) {
  EFI_LOADED_IMAGE_PROTOCOL  *Image  = nullptr;
  EFI_HANDLE                 Source  = nullptr;
  CHAR16                     Options[160];
  CHAR16                     Uuid[64];
  FileGuard                  SourceRoot;

  ProcessLibraryConstructorList (ImageHandle, SystemTable);
  EFI_STATUS  Status = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&Image));
  if (EFI_ERROR (Status)) {
    return Status;
  }

  InitLog (ImageHandle);
  // The shell passes the command line; a leading blank lets " uuid=" match at its start too.
  UINTN  Size = MIN (Image->LoadOptionsSize, sizeof (Options) - 2 * sizeof (CHAR16));
  Options[0] = L' ';
  CopyMem (Options + 1, Image->LoadOptions, Size);
  Options[1 + Size / sizeof (CHAR16)] = L'\0';
  CONST CHAR16  *At  = StrStr (Options, L16 (u" uuid="));
  UINTN         Used = 0;
  for ( ; (At != nullptr) && (At[6 + Used] > L' ') && (Used + 1 < ARRAY_SIZE (Uuid)); Used++) {
    Uuid[Used] = At[6 + Used];
  }

  Uuid[Used] = L'\0';
  Status     = FindSourceVolume (Image->DeviceHandle, &Source);
  if (!EFI_ERROR (Status)) {
    Status = OpenRoot (Source, SourceRoot.Out ());
  }

  if (!EFI_ERROR (Status)) {
    Status = ShellMoveEfiFolder (ImageHandle, Source, SourceRoot.Get (), (Used == 0) ? nullptr : Uuid, L16 (u"\\efi\\efi_b"));
  }

  LogPrint (L16 (u"Probe: uuid \"%s\", status %r (0x%lx)\n"), Uuid, Status, Status);
  SourceRoot.Close ();
  CloseLog ();
  ProcessLibraryDestructorList (ImageHandle, SystemTable);
  return Status;
}
