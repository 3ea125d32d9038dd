/* What the firmware build would link into the FAT and English collation drivers besides
   their own sources: the entry-point library's job (setting the service-table globals),
   a memory allocation library and a debug library. Everything here ends up in one
   relocatable object with the drivers and their copies of MdePkg's libraries; only
   VelmaroFatDriverLoad and VelmaroDriverPoolLive stay visible, so the drivers' gBS, pool and helpers never mix with
   the application's. */
#include <Uefi.h>
#include <Library/BaseLib.h>
#include <Library/BaseMemoryLib.h>
#include <Library/DebugLib.h>
#include <Library/MemoryAllocationLib.h>
#include <Library/UefiBootServicesTableLib.h>
#include <Library/UefiRuntimeServicesTableLib.h>
#include <Protocol/DevicePath.h>
#include <Protocol/UnicodeCollation.h>

/* The host's C library: the drivers' pool is not the application's, so that the fake's
   pool accounting and its AllocatePool faults see only the application's calls. */
void *malloc (unsigned long size);
void *calloc (unsigned long count, unsigned long size);
void free (void *p);

/* Reported to the test that runs: a driver assertion is a fault of the fake it talks to. */
void VelmaroDriverAssert (const char *file, unsigned long line, const char *description);

EFI_STATUS EFIAPI FatEntryPoint (EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
EFI_STATUS EFIAPI InitializeUnicodeCollationEng (EFI_HANDLE ImageHandle, EFI_SYSTEM_TABLE *SystemTable);
extern EFI_UNICODE_COLLATION_PROTOCOL *mUnicodeCollationInterface;
extern EFI_HANDLE                     mHandle;   /* where the collation installs its protocols */

/* Loads both drivers into a new firmware: the collation first, as its DXE dispatch
   order would, then the FAT driver, which only installs its driver binding. The
   collation the FAT driver found for an earlier firmware, and the handle the collation
   made there, belong to that firmware's handle database: both start afresh. */
EFI_STATUS VelmaroFatDriverLoad (EFI_HANDLE FatImage, EFI_HANDLE EnglishImage, EFI_SYSTEM_TABLE *SystemTable) {
  EFI_STATUS Status;

  gST                        = SystemTable;
  gBS                        = SystemTable->BootServices;
  gRT                        = SystemTable->RuntimeServices;
  gImageHandle               = EnglishImage;
  mUnicodeCollationInterface = NULL;
  mHandle                    = NULL;
  Status = InitializeUnicodeCollationEng (EnglishImage, SystemTable);
  if (EFI_ERROR (Status)) {
    return Status;
  }
  gImageHandle = FatImage;
  return FatEntryPoint (FatImage, SystemTable);
}

/* --- Memory allocation ------------------------------------------------------- */

/* Buffers the drivers hold: a firmware that is gone must have none left. */
long VelmaroDriverPoolLive = 0;

VOID *EFIAPI AllocatePool (UINTN AllocationSize) {
  VOID *Buffer = malloc (AllocationSize == 0 ? 1 : AllocationSize);
  VelmaroDriverPoolLive += Buffer != NULL;
  return Buffer;
}
VOID *EFIAPI AllocateRuntimePool (UINTN AllocationSize) { return AllocatePool (AllocationSize); }
VOID *EFIAPI AllocateReservedPool (UINTN AllocationSize) { return AllocatePool (AllocationSize); }

/* The disk cache (megabytes, at every mount) comes zeroed from the C library at no cost. */
VOID *EFIAPI AllocateZeroPool (UINTN AllocationSize) {
  VOID *Buffer = calloc (1, AllocationSize == 0 ? 1 : AllocationSize);
  VelmaroDriverPoolLive += Buffer != NULL;
  return Buffer;
}

VOID *EFIAPI AllocateRuntimeZeroPool (UINTN AllocationSize) { return AllocateZeroPool (AllocationSize); }

VOID *EFIAPI AllocateCopyPool (UINTN AllocationSize, CONST VOID *Source) {
  VOID *Buffer = AllocatePool (AllocationSize);
  return Buffer == NULL ? NULL : CopyMem (Buffer, Source, AllocationSize);
}

VOID *EFIAPI ReallocatePool (UINTN OldSize, UINTN NewSize, VOID *OldBuffer) {
  VOID *Buffer = AllocateZeroPool (NewSize);
  if (Buffer != NULL && OldBuffer != NULL) {
    CopyMem (Buffer, OldBuffer, OldSize < NewSize ? OldSize : NewSize);
    FreePool (OldBuffer);
  }
  return Buffer;
}

VOID EFIAPI FreePool (VOID *Buffer) {
  VelmaroDriverPoolLive -= Buffer != NULL;
  free (Buffer);
}

/* --- Debug: assertions are live, messages go nowhere ------------------------- */

VOID EFIAPI DebugPrint (UINTN ErrorLevel, CONST CHAR8 *Format, ...) {}
VOID EFIAPI DebugVPrint (UINTN ErrorLevel, CONST CHAR8 *Format, VA_LIST VaListMarker) {}
VOID EFIAPI DebugBPrint (UINTN ErrorLevel, CONST CHAR8 *Format, BASE_LIST BaseListMarker) {}

VOID EFIAPI DebugAssert (CONST CHAR8 *FileName, UINTN LineNumber, CONST CHAR8 *Description) {
  VelmaroDriverAssert ((const char *)FileName, (unsigned long)LineNumber, (const char *)Description);
}

VOID *EFIAPI DebugClearMemory (VOID *Buffer, UINTN Length) { return Buffer; }
BOOLEAN EFIAPI DebugAssertEnabled (VOID) { return TRUE; }
BOOLEAN EFIAPI DebugPrintEnabled (VOID) { return FALSE; }
BOOLEAN EFIAPI DebugCodeEnabled (VOID) { return FALSE; }
BOOLEAN EFIAPI DebugClearMemoryEnabled (VOID) { return FALSE; }
BOOLEAN EFIAPI DebugPrintLevelEnabled (CONST UINTN ErrorLevel) { return FALSE; }

/* --- Device path helpers UefiLib calls (what DevicePathLib does for them) ------ */

UINT8 EFIAPI DevicePathType (CONST VOID *Node) { return ((CONST EFI_DEVICE_PATH_PROTOCOL *)Node)->Type; }
UINT8 EFIAPI DevicePathSubType (CONST VOID *Node) { return ((CONST EFI_DEVICE_PATH_PROTOCOL *)Node)->SubType; }

UINTN EFIAPI DevicePathNodeLength (CONST VOID *Node) {
  return ReadUnaligned16 ((CONST UINT16 *)&((CONST EFI_DEVICE_PATH_PROTOCOL *)Node)->Length[0]);
}

EFI_DEVICE_PATH_PROTOCOL *EFIAPI NextDevicePathNode (CONST VOID *Node) {
  return (EFI_DEVICE_PATH_PROTOCOL *)((CONST UINT8 *)Node + DevicePathNodeLength (Node));
}

BOOLEAN EFIAPI IsDevicePathEnd (CONST VOID *Node) {
  return DevicePathType (Node) == END_DEVICE_PATH_TYPE && DevicePathSubType (Node) == END_ENTIRE_DEVICE_PATH_SUBTYPE;
}
