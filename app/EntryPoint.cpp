/** @file
  Where the firmware enters Velmaro: keeps the firmware's tables, opens the log, picks
  the run mode from the load options and drives it. Every failure ends in one error
  line, a key wait and the failing status returned to the firmware.
**/

#include <app/DiagnosticLog.h>
#include <app/LoadOptions.h>

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
    switch (ChooseRunMode (LoadedImage)) {
      case RunMode::NtfsTest:
        LogPrint (L16 (u"Modalita: NTFS engine test\n"));
        // The NTFS write test needs the driver loader, which this build does not have yet.
        Status = EFI_UNSUPPORTED;
        break;

      case RunMode::Auto:
        LogPrint (L16 (u"Modalita: auto futura non ancora implementata, uso FAT32 legacy test\n"));
        Status = GetGroupIdFromLoadOptions (LoadedImage, GroupId);
        break;

      case RunMode::Fat32Legacy:
      default:
        LogPrint (L16 (u"Modalita: FAT32 legacy test\n"));
        Status = GetGroupIdFromLoadOptions (LoadedImage, GroupId);
        break;
    }

    if (!EFI_ERROR (Status) && (ChooseRunMode (LoadedImage) != RunMode::NtfsTest)) {
      LogPrint (L16 (u"ID ricevuto: %s\n"), GroupId);
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
