/** @file
  Where the firmware enters Velmaro: keeps the firmware's tables, opens the log, picks
  the run mode from the load options and drives it. Every failure ends in one error
  line, a key wait and the failing status returned to the firmware.
**/

#include <app/EntryPoint.h>
#include <app/DiagnosticLog.h>
#include <app/LoadOptions.h>
#include <activation/ActivationRun.h>
#include <discovery/DriverLoading.h>
#include <fs/FileAccess.h>
#include <launch/InstallerLaunch.h>
#include <ntfstest/NtfsWriteTest.h>

EFI_STATUS
RunFat32Legacy (
  IN EFI_HANDLE    ImageHandle,
  IN CONST CHAR16  *GroupId
  )
{
  VOLUME_REF                 BootFs;
  VOLUME_REF                 SourceFs;
  BOOLEAN                    SourceRootOwned;
  EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage;
  EFI_STATUS                 Status;

  ZeroMem (&BootFs, sizeof (BootFs));
  ZeroMem (&SourceFs, sizeof (SourceFs));
  SourceRootOwned = FALSE;

  LoadedImage = nullptr;
  Status      = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
  if (AdvancedDiagnostics) {
    LogPrint (L16 (u"LoadedImage: %r (0x%lx)\n"), Status, Status);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (LoadedImage == nullptr) {
    return EFI_NOT_FOUND;
  }

  LogPrint (L16 (u"VELMARO_APP: started from FAT32 partition 1\n"));
  // Velmaro is only ever put on the stick's first partition, so that is taken as given
  // rather than read back from a disk whose layout may be unusual.
  BootFs.Handle          = LoadedImage->DeviceHandle;
  BootFs.PartitionNumber = 1;
  StrCpyS (BootFs.Label, VELMARO_LABEL_CHARS, L16 (u"FAT32 app"));
  Status = OpenRoot (BootFs.Handle, &BootFs.Root);
  if (EFI_ERROR (Status)) {
    ZeroMem (&BootFs, sizeof (BootFs));
  }

  if (AdvancedDiagnostics) {
    LogPrint (L16 (u"OpenRoot FAT32 app: %r (0x%lx)\n"), Status, Status);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = RunActivation (ImageHandle, &BootFs, GroupId, &SourceFs, &SourceRootOwned);
  if (!EFI_ERROR (Status)) {
    Status = LaunchInstaller (ImageHandle, (SourceFs.Root != nullptr) ? &SourceFs : &BootFs);
  }

  if (SourceRootOwned && (SourceFs.Root != nullptr)) {
    SourceFs.Root->Close (SourceFs.Root);
    SourceFs.Root = nullptr;
  }

  BootFs.Root->Close (BootFs.Root);
  return Status;
}

/**
  The test mode: the stick's NTFS partition through its driver, then the write test on it.
**/
STATIC
EFI_STATUS
RunNtfsTest (
  IN EFI_HANDLE  ImageHandle
  )
{
  EFI_HANDLE  SimpleFs;
  EFI_STATUS  Status;

  SimpleFs = nullptr;
  Status   = MountNtfsSource (ImageHandle, &SimpleFs);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = NtfsWriteTest (SimpleFs);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"\nERRORE: test scrittura/rename NTFS non riuscito: %r (0x%lx)\n"), Status, Status);
  }

  return Status;
}

extern "C"
EFI_STATUS
EFIAPI
_ModuleEntryPoint (
  IN EFI_HANDLE        ImageHandle,
  IN EFI_SYSTEM_TABLE  *SystemTable
  )
{
  EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage;
  CHAR16                     GroupId[GROUP_ID_CHARS];
  RunMode                    Mode;
  EFI_STATUS                 Status;

  ProcessLibraryConstructorList (ImageHandle, SystemTable);
  gImageHandle = ImageHandle;
  gST          = SystemTable;
  gBS          = SystemTable->BootServices;
  gRT          = SystemTable->RuntimeServices;

  // A log that cannot be opened is not a failure of the run: the console still shows all.
  InitLog (ImageHandle);
  LogPrint (L16 (u"Velmaro UEFI\n"));
  LogPrint (L16 (u"Target: %a\n"), "X64");

  LoadedImage = nullptr;
  Status      = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
  if (EFI_ERROR (Status) || (LoadedImage == nullptr)) {
    if (!EFI_ERROR (Status)) {
      Status = EFI_NOT_FOUND;
    }

    LogPrint (L16 (u"ERRORE: LoadedImage non disponibile: %r (0x%lx)\n"), Status, Status);
    WaitForKeyPress ();
  } else {
    Mode = ChooseRunMode (LoadedImage);
    if (Mode == RunMode::NtfsTest) {
      LogPrint (L16 (u"Modalita: NTFS engine test\n"));
      Status = RunNtfsTest (ImageHandle);
    } else {
      if (Mode == RunMode::Auto) {
        LogPrint (L16 (u"Modalita: auto futura non ancora implementata, uso FAT32 legacy test\n"));
      } else {
        LogPrint (L16 (u"Modalita: FAT32 legacy test\n"));
      }

      Status = GetGroupIdFromLoadOptions (LoadedImage, GroupId);
      if (!EFI_ERROR (Status)) {
        LogPrint (L16 (u"ID ricevuto: %s\n"), GroupId);
        Status = RunFat32Legacy (ImageHandle, GroupId);
      }
    }

    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"\nERRORE: esecuzione Velmaro non riuscita: %r (0x%lx)\n"), Status, Status);
      WaitForKeyPress ();
    }
  }

  CloseLog ();
  ProcessLibraryDestructorList (ImageHandle, SystemTable);
  return Status;
}
