/** @file
  Test-only image for tests/e2e/driver_loading.py: runs the application's MountNtfsSource
  with advanced diagnostics on, then prints one line the script reads:

    DriverProbe: status <text> (0x<hex>), partition <number>|none

  the partition being the Hard Drive node's number of the file system chosen. The host
  suite runs this same file on the fake firmware (DriverTableTest.cpp), so both logs come
  from one source. Never on a user's stick.
**/

#include <discovery/DriverLoading.h>
#include <discovery/FsIdentification.h>
#include <app/DiagnosticLog.h>

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (IN EFI_HANDLE ImageHandle, IN EFI_SYSTEM_TABLE *SystemTable) {
  EFI_HANDLE                Source = nullptr;
  EFI_DEVICE_PATH_PROTOCOL  *Path  = nullptr;

  ProcessLibraryConstructorList (ImageHandle, SystemTable);
  InitLog (ImageHandle);
  // Every step of the loading logs its status only with advanced diagnostics; the stick
  // carries no marker file for it.
  AdvancedDiagnostics = TRUE;
  EFI_STATUS  Status = MountNtfsSource (ImageHandle, &Source);
  if (Source != nullptr) {
    gBS->HandleProtocol (Source, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID **>(&Path));
  }

  CONST HARDDRIVE_DEVICE_PATH  *Partition = (Path != nullptr) ? FindHardDriveNode (Path, nullptr) : nullptr;
  if (Partition != nullptr) {
    LogPrint (L16 (u"DriverProbe: status %r (0x%lx), partition %u\n"), Status, Status, Partition->PartitionNumber);
  } else {
    LogPrint (L16 (u"DriverProbe: status %r (0x%lx), partition none\n"), Status, Status);
  }

  CloseLog ();
  ProcessLibraryDestructorList (ImageHandle, SystemTable);
  return Status;
}
