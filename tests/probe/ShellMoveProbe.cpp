/** @file
  Test-only image: runs the application's own ShellMoveEfiFolder on partition 2 of the
  stick it was started from, moving "\efi\efi_b" to "\efi\microsoft" through the
  firmware shell, and leaves the outcome in \shellmove_result.txt on the boot volume
  (ASCII, "\n" line ends) next to the application's \velmaro_log.txt.

  Load options: "uuid=<serial>" makes the move look for the volume by its marker
  file; without it the move asks the shell for the volume's mapping.

  It never goes on a user's stick; tests/e2e/shell_move.py boots it in QEMU and reads the
  stick back afterwards.
**/

#include <activation/ShellMove.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <Guards.h>

namespace {

constexpr UINT8  kSourcePartition = 2;
constexpr UINTN  kUuidChars       = 64;
constexpr UINTN  kMapChars        = 256;

CHAR8  mResult[2048];

/** The word after "uuid=" in the load options into Uuid; empty when there is none. **/
VOID UuidFromLoadOptions (CONST EFI_LOADED_IMAGE_PROTOCOL *LoadedImage, CHAR16 *Uuid) {
  Uuid[0] = L'\0';
  if ((LoadedImage->LoadOptions == nullptr) || (LoadedImage->LoadOptionsSize < sizeof (CHAR16))) {
    return;
  }

  CONST CHAR16  *Text  = static_cast<CONST CHAR16 *>(LoadedImage->LoadOptions);
  UINTN         Chars  = LoadedImage->LoadOptionsSize / sizeof (CHAR16);
  CONST CHAR16  Key[]  = { L'u', L'u', L'i', L'd', L'=' };
  for (UINTN At = 0; At + 5 <= Chars; At++) {
    // Only a whole word counts: "uuid=" right after a space or at the start.
    if ((At > 0) && (Text[At - 1] != L' ')) {
      continue;
    }

    if (CompareMem (Text + At, Key, sizeof (Key)) != 0) {
      continue;
    }

    UINTN  Used = 0;
    for (At += 5; (At < Chars) && (Text[At] != L'\0') && (Text[At] != L' ') && (Used + 1 < kUuidChars); At++) {
      Uuid[Used++] = Text[At];
    }

    Uuid[Used] = L'\0';
    return;
  }
}

/** The hard-drive node of a device path, or null, and how many bytes come before it. **/
HARDDRIVE_DEVICE_PATH *HardDriveNode (EFI_DEVICE_PATH_PROTOCOL *Path, UINTN *PrefixBytes) {
  for (EFI_DEVICE_PATH_PROTOCOL *Node = Path; !IsDevicePathEnd (Node); Node = NextDevicePathNode (Node)) {
    if ((DevicePathType (Node) == MEDIA_DEVICE_PATH) && (DevicePathSubType (Node) == MEDIA_HARDDRIVE_DP)) {
      *PrefixBytes = reinterpret_cast<UINT8 *>(Node) - reinterpret_cast<UINT8 *>(Path);
      return reinterpret_cast<HARDDRIVE_DEVICE_PATH *>(Node);
    }
  }

  return nullptr;
}

/**
  The file-system handle of partition Number on the disk BootHandle lives on: same
  device path up to the hard-drive node, that node naming partition Number.
**/
EFI_STATUS FindSiblingVolume (EFI_HANDLE BootHandle, UINT32 Number, EFI_HANDLE *Found) {
  EFI_DEVICE_PATH_PROTOCOL  *BootPath = DevicePathFromHandle (BootHandle);
  UINTN                     BootPrefix = 0;
  if ((BootPath == nullptr) || (HardDriveNode (BootPath, &BootPrefix) == nullptr)) {
    return EFI_NOT_FOUND;
  }

  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  Count  = 0;
  EFI_STATUS             Status = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (UINTN Index = 0; Index < Count; Index++) {
    EFI_HANDLE                Handle = Handles.Get ()[Index];
    EFI_DEVICE_PATH_PROTOCOL  *Path  = DevicePathFromHandle (Handle);
    UINTN                     Prefix = 0;
    HARDDRIVE_DEVICE_PATH     *Hd    = (Path == nullptr) ? nullptr : HardDriveNode (Path, &Prefix);
    if ((Hd != nullptr) && (Handle != BootHandle) && (Hd->PartitionNumber == Number) &&
        (Prefix == BootPrefix) && (CompareMem (Path, BootPath, Prefix) == 0))
    {
      *Found = Handle;
      return EFI_SUCCESS;
    }
  }

  return EFI_NOT_FOUND;
}

/** The shell's whole answer for the volume's device path, before anything cuts it. **/
VOID RawShellMap (EFI_HANDLE Volume, CHAR16 *Answer) {
  EFI_SHELL_PROTOCOL  *Shell = nullptr;
  Answer[0] = L'\0';
  if (EFI_ERROR (gBS->LocateProtocol (&gEfiShellProtocolGuid, nullptr, reinterpret_cast<VOID **>(&Shell))) || (Shell == nullptr)) {
    StrCpyS (Answer, kMapChars, L16 (u"<no shell protocol>"));
    return;
  }

  EFI_DEVICE_PATH_PROTOCOL  *Path = DevicePathFromHandle (Volume);
  if (Path == nullptr) {
    StrCpyS (Answer, kMapChars, L16 (u"<no device path>"));
    return;
  }

  // The shell moves the pointer it is given to the path's end: it gets a copy.
  PoolGuard<EFI_DEVICE_PATH_PROTOCOL>  Copy;
  Copy.Reset (DuplicateDevicePath (Path));
  EFI_DEVICE_PATH_PROTOCOL  *Walk = Copy.Get ();
  CONST CHAR16              *Raw  = (Walk == nullptr) ? nullptr : Shell->GetMapFromDevicePath (&Walk);
  if (Raw == nullptr) {
    StrCpyS (Answer, kMapChars, L16 (u"<null>"));
    return;
  }

  // Not ours to free: the shell keeps its answers on its own list of buffers and frees
  // them itself once the image has returned; freed here as well, the shell faulted then.
  StrnCpyS (Answer, kMapChars, Raw, kMapChars - 1);
}

/** Replaces \Name on the volume with Text. **/
EFI_STATUS SaveText (EFI_HANDLE Volume, CONST CHAR16 *Name, CONST CHAR8 *Text) {
  FileGuard   Root;
  FileGuard   File;
  EFI_STATUS  Status = OpenRoot (Volume, Root.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!EFI_ERROR (Root->Open (Root.Get (), File.Out (), const_cast<CHAR16 *>(Name), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0))) {
    EFI_FILE_PROTOCOL  *Old = File.Release ();
    Old->Delete (Old);
  }

  Status = Root->Open (Root.Get (), File.Out (), const_cast<CHAR16 *>(Name), EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  UINTN  Size    = AsciiStrLen (Text);
  UINTN  Written = Size;
  Status = File->Write (File.Get (), &Written, const_cast<CHAR8 *>(Text));
  if (!EFI_ERROR (Status) && (Written != Size)) {
    Status = EFI_DEVICE_ERROR;
  }

  return EFI_ERROR (Status) ? Status : File->Flush (File.Get ());
}

}  // namespace

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (IN EFI_HANDLE ImageHandle, IN EFI_SYSTEM_TABLE *SystemTable) {
  EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage = nullptr;
  EFI_HANDLE                 Source       = nullptr;
  CHAR16                     Uuid[kUuidChars];
  CHAR16                     SourceMap[kMapChars];
  CHAR16                     BootMap[kMapChars];
  FileGuard                  SourceRoot;
  EFI_STATUS                 Status;
  EFI_STATUS                 MoveStatus = EFI_NOT_STARTED;

  ProcessLibraryConstructorList (ImageHandle, SystemTable);
  Status = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
  if (EFI_ERROR (Status) || (LoadedImage == nullptr)) {
    Print (L16 (u"shell move probe: no loaded image: %r\n"), Status);
    return EFI_ERROR (Status) ? Status : EFI_NOT_FOUND;
  }

  InitLog (ImageHandle);
  UuidFromLoadOptions (LoadedImage, Uuid);
  SourceMap[0] = L'\0';
  BootMap[0]   = L'\0';
  Status       = FindSiblingVolume (LoadedImage->DeviceHandle, kSourcePartition, &Source);
  LogPrint (L16 (u"Probe: partition %u of the boot disk: %r, uuid \"%s\"\n"), kSourcePartition, Status, Uuid);
  if (!EFI_ERROR (Status)) {
    RawShellMap (Source, SourceMap);
    RawShellMap (LoadedImage->DeviceHandle, BootMap);
    LogPrint (L16 (u"Probe: GetMapFromDevicePath source \"%s\" boot \"%s\"\n"), SourceMap, BootMap);
    Status = OpenRoot (Source, SourceRoot.Out ());
  }

  if (!EFI_ERROR (Status)) {
    MoveStatus = ShellMoveEfiFolder (ImageHandle, Source, SourceRoot.Get (), (Uuid[0] == L'\0') ? nullptr : Uuid, L16 (u"\\efi\\efi_b"));
    LogPrint (L16 (u"Probe: ShellMoveEfiFolder: %r (0x%lx)\n"), MoveStatus, MoveStatus);
  } else {
    MoveStatus = Status;
  }

  SourceRoot.Close ();
  CloseLog ();

  AsciiSPrint (
    mResult,
    sizeof (mResult),
    "status=%r 0x%lx\nuuid=%s\nsource_map=%s\nboot_map=%s\n",
    MoveStatus,
    MoveStatus,
    Uuid,
    SourceMap,
    BootMap
    );
  Status = SaveText (LoadedImage->DeviceHandle, L16 (u"\\shellmove_result.txt"), mResult);
  Print (L16 (u"shell move probe: %r, result file %r\n"), MoveStatus, Status);
  ProcessLibraryDestructorList (ImageHandle, SystemTable);
  return Status;
}
