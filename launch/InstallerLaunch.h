/** @file
  Starting the installer's boot program from the volume the switch prepared, as a child
  image of Velmaro.
**/

#ifndef VELMARO_INSTALLER_LAUNCH_H_
#define VELMARO_INSTALLER_LAUNCH_H_

#include <Velmaro.h>

#define INSTALLER_PATH  u"\\sources\\bootx64.efi"

/**
  Loads and starts "\sources\bootx64.efi" from Volume (Handle and Root are used).

  @retval EFI_NOT_FOUND          The file is not there (LoadImage is never asked).
  @retval EFI_OUT_OF_RESOURCES   No device path could be built for it.
  @return                        What StartImage returned once the installer came back, or
                                 the failing LoadImage status (an image handed back with a
                                 failure is unloaded, never started).
**/
EFI_STATUS
LaunchInstaller (
  IN EFI_HANDLE        ImageHandle,
  IN CONST VOLUME_REF  *Volume
  );

/**
  One LoadImage of the installer by its device path with ParentImage as parent; Label
  names the parent in the log. *Image is cleared first and set only by the firmware.
**/
EFI_STATUS
LoadInstallerImage (
  IN  EFI_HANDLE                ParentImage,
  IN  EFI_DEVICE_PATH_PROTOCOL  *DevicePath,
  IN  CONST CHAR16              *Path,
  IN  CONST CHAR16              *Label,
  OUT EFI_HANDLE                *Image
  );

#endif
