/** @file
  Diagnostics of images and device paths: which image, parent and device a step used,
  for a technician reading the log of a stick that would not switch.
**/

#include <fs/ImageDiagnostics.h>
#include <app/DiagnosticLog.h>
#include <Guards.h>

EFI_STATUS
OpenLoadedImage (
  IN  EFI_HANDLE                 Handle,
  OUT EFI_LOADED_IMAGE_PROTOCOL  **LoadedImage,
  IN  EFI_HANDLE                 Agent,
  IN  CONST CHAR16               *Label
  )
{
  EFI_STATUS  Status;

  if (LoadedImage == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *LoadedImage = nullptr;
  Status       = gBS->OpenProtocol (Handle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(LoadedImage), Agent, nullptr,
                                    EFI_OPEN_PROTOCOL_GET_PROTOCOL);
  if (AdvancedDiagnostics) {
    LogPrint (L16 (u"  OpenProtocol(%s) handle=%p agent=%p: %r (0x%lx)\n"), Label, Handle, Agent, Status, Status);
  }

  return Status;
}

VOID
NormalizePathText (
  IN OUT CHAR16  *Text OPTIONAL
  )
{
  UINTN  Read;
  UINTN  Kept;

  if (Text == nullptr) {
    return;
  }

  for (Read = 0; Text[Read] != L'\0'; Read++) {
    if (Text[Read] == L'/') {
      Text[Read] = L'\\';
    }
  }

  for (Read = 0, Kept = 0; Text[Read] != L'\0'; Read++) {
    if ((Kept == 0) || (Text[Read] != L'\\') || (Text[Kept - 1] != L'\\')) {
      Text[Kept++] = Text[Read];
    }
  }

  Text[Kept] = L'\0';
}

VOID
PrintDevicePathText (
  IN CONST CHAR16                    *Label,
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *DevicePath OPTIONAL
  )
{
  if (!AdvancedDiagnostics) {
    return;
  }

  PoolGuard<CHAR16>  Text (DevicePath == nullptr ? nullptr : ConvertDevicePathToText (DevicePath, FALSE, FALSE));

  LogPrint (L16 (u"  %s raw firmware text: %s\n"), Label, Text ? Text.Get () : L16 (u"(NULL/non convertibile)"));
  if (Text) {
    NormalizePathText (Text.Get ());
    LogPrint (L16 (u"  %s normalized: %s\n"), Label, Text.Get ());
  }
}

VOID
PrintHandleDevicePath (
  IN CONST CHAR16  *Label,
  IN EFI_HANDLE    Handle
  )
{
  EFI_DEVICE_PATH_PROTOCOL  *DevicePath;

  if (!AdvancedDiagnostics) {
    return;
  }

  DevicePath = (Handle == nullptr) ? nullptr : DevicePathFromHandle (Handle);
  PoolGuard<CHAR16>  Text (DevicePath == nullptr ? nullptr : ConvertDevicePathToText (DevicePath, FALSE, FALSE));

  NormalizePathText (Text.Get ());
  LogPrint (L16 (u"  %s handle=%p path=%s\n"), Label, Handle, Text ? Text.Get () : L16 (u"(non disponibile)"));
}

VOID
LogStatusLine (
  IN CONST CHAR16  *Label,
  IN EFI_STATUS    Status
  )
{
  LogPrint (L16 (u"  %-34s: %r (0x%lx)\n"), Label, Status, Status);
}

VOID
DumpLoadedImage (
  IN CONST CHAR16  *Label,
  IN EFI_HANDLE    ImageHandle
  )
{
  EFI_LOADED_IMAGE_PROTOCOL  *Image;
  EFI_STATUS                 Status;

  if (!AdvancedDiagnostics) {
    return;
  }

  Status = OpenLoadedImage (ImageHandle, &Image, ImageHandle, Label);
  LogStatusLine (Label, Status);
  if (EFI_ERROR (Status) || (Image == nullptr)) {
    return;
  }

  LogPrint (L16 (u"    Revision        : 0x%x\n"), Image->Revision);
  LogPrint (L16 (u"    ParentHandle    : %p\n"), Image->ParentHandle);
  LogPrint (L16 (u"    SystemTable     : %p\n"), Image->SystemTable);
  LogPrint (L16 (u"    DeviceHandle    : %p\n"), Image->DeviceHandle);
  LogPrint (L16 (u"    FilePath        : %p\n"), Image->FilePath);
  LogPrint (L16 (u"    ImageBase       : %p\n"), Image->ImageBase);
  LogPrint (L16 (u"    ImageSize       : %lu\n"), Image->ImageSize);
  LogPrint (L16 (u"    ImageCodeType   : %u\n"), Image->ImageCodeType);
  LogPrint (L16 (u"    ImageDataType   : %u\n"), Image->ImageDataType);
  LogPrint (L16 (u"    LoadOptionsSize : %u\n"), Image->LoadOptionsSize);
  PrintDevicePathText (L16 (u"    LoadedImage FilePath text"), Image->FilePath);
  PrintHandleDevicePath (L16 (u"    LoadedImage DeviceHandle"), Image->DeviceHandle);
}
