/** @file
  With advanced diagnostics on, the Loaded Image protocol of the images a step uses and
  the device paths of its handles, printed in one indented layout; and the one access to
  the Loaded Image protocol they share. With diagnostics off nothing is printed and
  nothing allocated.
**/

#ifndef VELMARO_IMAGE_DIAGNOSTICS_H_
#define VELMARO_IMAGE_DIAGNOSTICS_H_

#include <Velmaro.h>

/** OpenProtocol (GET_PROTOCOL) of the Loaded Image protocol on Handle for Agent;
    *LoadedImage is null first. Logs the status with diagnostics on; returns it. **/
EFI_STATUS
OpenLoadedImage (
  IN  EFI_HANDLE                 Handle,
  OUT EFI_LOADED_IMAGE_PROTOCOL  **LoadedImage,
  IN  EFI_HANDLE                 Agent,
  IN  CONST CHAR16               *Label
  );

/** "/" becomes "\" and runs of "\" become one, in place; the first character stays. **/
VOID
NormalizePathText (
  IN OUT CHAR16  *Text OPTIONAL
  );

VOID
PrintDevicePathText (
  IN CONST CHAR16                    *Label,
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *DevicePath OPTIONAL
  );

VOID
PrintHandleDevicePath (
  IN CONST CHAR16  *Label,
  IN EFI_HANDLE    Handle
  );

/** One step's outcome as the log lines them up: "  <label, 34 wide>: <status> (0x..)". **/
VOID
LogStatusLine (
  IN CONST CHAR16  *Label,
  IN EFI_STATUS    Status
  );

VOID
DumpLoadedImage (
  IN CONST CHAR16  *Label,
  IN EFI_HANDLE    ImageHandle
  );

#endif
