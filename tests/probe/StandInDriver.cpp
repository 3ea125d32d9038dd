/** @file
  Test-only driver image for tests/e2e/driver_loading.py: it stays resident and binds to
  nothing, so whatever file system the application finds afterwards was mounted by the
  firmware's own drivers. Never on a user's stick.
**/

#include <Uefi.h>

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (IN EFI_HANDLE ImageHandle, IN EFI_SYSTEM_TABLE *SystemTable) {
  (void)ImageHandle;
  (void)SystemTable;
  return EFI_SUCCESS;
}
