/* The GUIDs that EDK II's build would generate for the firmware image. */
#include <Uefi.h>
#include <Guid/FileInfo.h>
#include <Guid/FileSystemInfo.h>
#include <Protocol/BlockIo.h>
#include <Protocol/DevicePath.h>
#include <Protocol/DevicePathToText.h>
#include <Protocol/DevicePathFromText.h>
#include <Protocol/DevicePathUtilities.h>
#include <Protocol/GraphicsOutput.h>
#include <Protocol/HiiFont.h>
#include <Protocol/LoadedImage.h>
#include <Protocol/SimpleFileSystem.h>
#include <Protocol/SimpleTextOut.h>
#include <Protocol/UgaDraw.h>
#include <Guid/PcAnsi.h>
#include <Guid/FileSystemVolumeLabelInfo.h>
#include <Guid/GlobalVariable.h>
#include <Protocol/ComponentName.h>
#include <Protocol/ComponentName2.h>
#include <Protocol/DiskIo.h>
#include <Protocol/DiskIo2.h>
#include <Protocol/DriverBinding.h>
#include <Protocol/DriverConfiguration.h>
#include <Protocol/DriverConfiguration2.h>
#include <Protocol/DriverDiagnostics.h>
#include <Protocol/DriverDiagnostics2.h>
#include <Protocol/UnicodeCollation.h>
#include <Protocol/Shell.h>
#include <Protocol/EfiShellInterface.h>
#include <Protocol/EfiShellEnvironment2.h>

EFI_GUID  gEfiFileInfoGuid                        = EFI_FILE_INFO_ID;
EFI_GUID  gEfiFileSystemInfoGuid                  = EFI_FILE_SYSTEM_INFO_ID;
EFI_GUID  gEfiBlockIoProtocolGuid                 = EFI_BLOCK_IO_PROTOCOL_GUID;
EFI_GUID  gEfiDevicePathProtocolGuid              = EFI_DEVICE_PATH_PROTOCOL_GUID;
EFI_GUID  gEfiDevicePathToTextProtocolGuid        = EFI_DEVICE_PATH_TO_TEXT_PROTOCOL_GUID;
EFI_GUID  gEfiDevicePathFromTextProtocolGuid      = EFI_DEVICE_PATH_FROM_TEXT_PROTOCOL_GUID;
EFI_GUID  gEfiDevicePathUtilitiesProtocolGuid     = EFI_DEVICE_PATH_UTILITIES_PROTOCOL_GUID;
EFI_GUID  gEfiGraphicsOutputProtocolGuid          = EFI_GRAPHICS_OUTPUT_PROTOCOL_GUID;
EFI_GUID  gEfiHiiFontProtocolGuid                 = EFI_HII_FONT_PROTOCOL_GUID;
EFI_GUID  gEfiLoadedImageProtocolGuid             = EFI_LOADED_IMAGE_PROTOCOL_GUID;
EFI_GUID  gEfiSimpleFileSystemProtocolGuid        = EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_GUID;
EFI_GUID  gEfiSimpleTextOutProtocolGuid           = EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL_GUID;
EFI_GUID  gEfiUgaDrawProtocolGuid                 = EFI_UGA_DRAW_PROTOCOL_GUID;
EFI_GUID  gEfiVTUTF8Guid                          = EFI_VT_UTF8_GUID;
EFI_GUID  gEfiVT100Guid                           = EFI_VT_100_GUID;
EFI_GUID  gEfiVT100PlusGuid                       = EFI_VT_100_PLUS_GUID;
EFI_GUID  gEfiPcAnsiGuid                          = EFI_PC_ANSI_GUID;
EFI_GUID  gEfiUartDevicePathGuid                  = DEVICE_PATH_MESSAGING_UART_FLOW_CONTROL;
EFI_GUID  gEfiSasDevicePathGuid                   = EFI_SAS_DEVICE_PATH_GUID;
EFI_GUID  gEfiVirtualDiskGuid                     = EFI_VIRTUAL_DISK_GUID;
EFI_GUID  gEfiVirtualCdGuid                       = EFI_VIRTUAL_CD_GUID;
EFI_GUID  gEfiPersistentVirtualDiskGuid           = EFI_PERSISTENT_VIRTUAL_DISK_GUID;
EFI_GUID  gEfiPersistentVirtualCdGuid             = EFI_PERSISTENT_VIRTUAL_CD_GUID;
EFI_GUID  gEfiDebugPortProtocolGuid               = { 0xEBA4E8D2, 0x3858, 0x41EC, { 0xA2, 0x81, 0x26, 0x47, 0xBA, 0x96, 0x60, 0xD0 } };

/* Those of the FAT driver, the English collation and the driver model library. */
EFI_GUID  gEfiComponentNameProtocolGuid           = EFI_COMPONENT_NAME_PROTOCOL_GUID;
EFI_GUID  gEfiComponentName2ProtocolGuid          = EFI_COMPONENT_NAME2_PROTOCOL_GUID;
EFI_GUID  gEfiDiskIoProtocolGuid                  = EFI_DISK_IO_PROTOCOL_GUID;
EFI_GUID  gEfiDiskIo2ProtocolGuid                 = EFI_DISK_IO2_PROTOCOL_GUID;
EFI_GUID  gEfiDriverBindingProtocolGuid           = EFI_DRIVER_BINDING_PROTOCOL_GUID;
EFI_GUID  gEfiDriverConfigurationProtocolGuid     = EFI_DRIVER_CONFIGURATION_PROTOCOL_GUID;
EFI_GUID  gEfiDriverConfiguration2ProtocolGuid    = EFI_DRIVER_CONFIGURATION2_PROTOCOL_GUID;
EFI_GUID  gEfiDriverDiagnosticsProtocolGuid       = EFI_DRIVER_DIAGNOSTICS_PROTOCOL_GUID;
EFI_GUID  gEfiDriverDiagnostics2ProtocolGuid      = EFI_DRIVER_DIAGNOSTICS2_PROTOCOL_GUID;
EFI_GUID  gEfiFileSystemVolumeLabelInfoIdGuid     = EFI_FILE_SYSTEM_VOLUME_LABEL_ID;
EFI_GUID  gEfiGlobalVariableGuid                  = EFI_GLOBAL_VARIABLE;
EFI_GUID  gEfiUnicodeCollationProtocolGuid        = EFI_UNICODE_COLLATION_PROTOCOL_GUID;
EFI_GUID  gEfiUnicodeCollation2ProtocolGuid       = EFI_UNICODE_COLLATION_PROTOCOL2_GUID;
EFI_GUID  gEfiShellProtocolGuid                   = EFI_SHELL_PROTOCOL_GUID;
EFI_GUID  gEfiShellEnvironment2Guid               = SHELL_ENVIRONMENT_PROTOCOL_GUID;
