/** @file
  The normal mode's flow, reachable from the entry point and from tests.
**/

#ifndef VELMARO_ENTRY_POINT_H_
#define VELMARO_ENTRY_POINT_H_

#include <Velmaro.h>

/**
  Opens the boot volume (the device Velmaro was loaded from, partition 1), switches the
  stick to GroupId and starts the installer from the volume the switch chose. Every root
  opened on the way is closed before returning, whatever happened.
**/
EFI_STATUS
RunFat32Legacy (
  IN EFI_HANDLE    ImageHandle,
  IN CONST CHAR16  *GroupId
  );

#endif
