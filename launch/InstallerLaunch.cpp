/** @file
  The installer's boot program is started as our child: when it returns (or cannot
  start), control comes back here and the run ends normally, with the log closed.
**/

#include <launch/InstallerLaunch.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <Guards.h>

EFI_STATUS
LoadInstallerImage (
  IN  EFI_HANDLE                ParentImage,
  IN  EFI_DEVICE_PATH_PROTOCOL  *DevicePath,
  IN  CONST CHAR16              *Path,
  IN  CONST CHAR16              *Label,
  OUT EFI_HANDLE                *Image
  )
{
  EFI_STATUS  Status;

  if ((DevicePath == nullptr) || (Image == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Image = nullptr;
  LogPrint (L16 (u"LoadImage parent usato: %s %p\n"), Label, ParentImage);
  Status = gBS->LoadImage (FALSE, ParentImage, DevicePath, nullptr, 0, Image);
  LogPrint (L16 (u"LoadImage(%s, parent=%s): %r (0x%lx), Image=%p\n"), Path, Label, Status, Status, *Image);
  return Status;
}

EFI_STATUS
LaunchInstaller (
  IN EFI_HANDLE        ImageHandle,
  IN CONST VOLUME_REF  *Volume
  )
{
  CONST CHAR16                        *Path;
  BOOLEAN                             Exists;
  PoolGuard<EFI_DEVICE_PATH_PROTOCOL> DevicePath;
  EFI_LOADED_IMAGE_PROTOCOL           *LoadedImage;
  EFI_HANDLE                          Installer;
  EFI_STATUS                          Status;

  if ((ImageHandle == nullptr) || (Volume == nullptr) || (Volume->Handle == nullptr) || (Volume->Root == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Path = L16 (INSTALLER_PATH);
  LogPrint (L16 (u"Avvio installer Windows: path=%s\n"), Path);
  Exists = FALSE;
  Status = FileExists (Volume->Root, Path, &Exists);
  LogPrint (L16 (u"Verifica %s: %r (0x%lx), exists=%u\n"), Path, Status, Status, Exists ? 1U : 0U);
  if (EFI_ERROR (Status) || !Exists) {
    LogPrint (L16 (u"%s not found\n"), Path);
    return EFI_NOT_FOUND;
  }

  LogPrint (L16 (u"found efi 64\n"));
  LogPrint (L16 (u"starting installer windows - system can seem frozen\n"));
  LogPrint (L16 (u"if it doesn't work, please disable secure boot\n"));

  DevicePath.Reset (FileDevicePath (Volume->Handle, Path));
  LogPrint (L16 (u"FileDevicePath(%s): %p\n"), Path, DevicePath.Get ());
  if (!DevicePath) {
    return EFI_OUT_OF_RESOURCES;
  }

  {
    PoolGuard<CHAR16>  Text (ConvertDevicePathToText (DevicePath.Get (), FALSE, FALSE));

    LogPrint (L16 (u"DevicePathToText(%s): %s\n"), Path, Text ? Text.Get () : L16 (u"(non disponibile)"));
  }

  Status = LoadInstallerImage (ImageHandle, DevicePath.Get (), Path, L16 (u"ImageHandle"), &Installer);
  if (Status == EFI_INVALID_PARAMETER) {
    // Some firmware will not take an application's own handle as parent; the image that
    // started us is the next best parent.
    LoadedImage = nullptr;
    Status      = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
    LogPrint (L16 (u"LoadedImage per ParentHandle: %r (0x%lx)\n"), Status, Status);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if ((LoadedImage != nullptr) && (LoadedImage->ParentHandle != nullptr) && (LoadedImage->ParentHandle != ImageHandle)) {
      Status = LoadInstallerImage (LoadedImage->ParentHandle, DevicePath.Get (), Path, L16 (u"LoadedImage->ParentHandle"), &Installer);
    } else {
      Status = EFI_INVALID_PARAMETER;
      LogPrint (L16 (u"LoadedImage->ParentHandle non disponibile per fallback LoadImage\n"));
    }
  }

  if (EFI_ERROR (Status)) {
    // A Secure Boot refusal still hands back an image, which must never run: it is
    // unloaded and the refusal is what the technician sees.
    if (Installer != nullptr) {
      gBS->UnloadImage (Installer);
    }

    return Status;
  }

  Status = gBS->StartImage (Installer, nullptr, nullptr);
  LogPrint (L16 (u"StartImage(%s): %r (0x%lx)\n"), Path, Status, Status);
  return Status;
}
