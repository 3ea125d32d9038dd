/** @file
  The diagnostic log.
**/

#include <app/DiagnosticLog.h>
#include <Guards.h>

EFI_FILE_PROTOCOL  *LogFile;
BOOLEAN            AdvancedDiagnostics;

STATIC BOOLEAN  mTimerStarted;
STATIC UINT64   mCounterStart;
STATIC UINT64   mCounterEnd;
STATIC UINT64   mStartPoint;

#define LOG_PATH    L16 (u"\\velmaro_log.txt")
#define DEBUG_PATH  L16 (u"\\boot\\VELMARO_DEBUG.LOG")

/**
  The boot volume's root, opened here rather than through the file helpers: every other
  part logs, so the log must stand on nothing but the firmware.
**/
STATIC
EFI_STATUS
OpenLogVolume (
  IN  EFI_HANDLE         Device,
  OUT EFI_FILE_PROTOCOL  **Root
  )
{
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem;
  EFI_STATUS                       Status;

  FileSystem = nullptr;
  Status     = gBS->HandleProtocol (Device, &gEfiSimpleFileSystemProtocolGuid, reinterpret_cast<VOID **>(&FileSystem));
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return FileSystem->OpenVolume (FileSystem, Root);
}

EFI_STATUS
InitLog (
  IN EFI_HANDLE  ImageHandle
  )
{
  EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage;
  FileGuard                  Root;
  FileGuard                  File;
  EFI_STATUS                 Status;
  EFI_TIME                   Time;

  LoadedImage = nullptr;
  Status      = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&LoadedImage));
  Print (L16 (u"  InitLog HandleProtocol(LoadedImage): %r (0x%lx)\n"), Status, Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (LoadedImage == nullptr) {
    return EFI_NOT_FOUND;
  }

  Status = OpenLogVolume (LoadedImage->DeviceHandle, Root.Out ());
  Print (L16 (u"  InitLog OpenRoot(app device): %r (0x%lx)\n"), Status, Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // The marker only switches diagnostics on; its content is never read.
  AdvancedDiagnostics = FALSE;
  if (!EFI_ERROR (Root->Open (Root.Get (), File.Out (), const_cast<CHAR16 *>(DEBUG_PATH), EFI_FILE_MODE_READ, 0)) && File) {
    AdvancedDiagnostics = TRUE;
  }

  File.Close ();

  // Each start writes a fresh log, so an old run's lines never mix with this one's.
  Status = Root->Open (Root.Get (), File.Out (), const_cast<CHAR16 *>(LOG_PATH), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (!EFI_ERROR (Status)) {
    EFI_FILE_PROTOCOL  *Old = File.Release ();

    Status = Old->Delete (Old);
    Print (L16 (u"  InitLog Delete(\\velmaro_log.txt): %r (0x%lx)\n"), Status, Status);
  } else if (Status != EFI_NOT_FOUND) {
    Print (L16 (u"  InitLog Delete(\\velmaro_log.txt) skipped: %r (0x%lx)\n"), Status, Status);
  }

  Status = Root->Open (
                   Root.Get (),
                   File.Out (),
                   const_cast<CHAR16 *>(LOG_PATH),
                   EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE,
                   0
                   );
  Print (L16 (u"  InitLog Root->Open(\\velmaro_log.txt): %r (0x%lx)\n"), Status, Status);
  Root.Close ();
  if (EFI_ERROR (Status)) {
    File.Release ();
    LogFile = nullptr;
    return Status;
  }

  LogFile = File.Release ();

  // If the old log could not be deleted, the create-open reopened it: write from its
  // start so at least the beginning of the file is this run's.
  Status = LogFile->SetPosition (LogFile, 0);
  Print (L16 (u"  InitLog SetPosition(start): %r (0x%lx)\n"), Status, Status);

  GetPerformanceCounterProperties (&mCounterStart, &mCounterEnd);
  mStartPoint   = GetPerformanceCounter ();
  mTimerStarted = TRUE;

  LogPrint (L16 (u"\n\n=== Velmaro log start ===\n"));
  LogPrint (
    L16 (u"Advanced diagnostics: %s\n"),
    AdvancedDiagnostics ? L16 (u"enabled by \\boot\\VELMARO_DEBUG.LOG") : L16 (u"disabled")
    );

  EFI_STATUS  TimeStatus = gRT->GetTime (&Time, nullptr);

  if (!EFI_ERROR (TimeStatus)) {
    LogPrint (
      L16 (u"Data/ora firmware log: %04u-%02u-%02u %02u:%02u:%02u timezone=%d daylight=0x%x\n"),
      static_cast<UINT32>(Time.Year),
      static_cast<UINT32>(Time.Month),
      static_cast<UINT32>(Time.Day),
      static_cast<UINT32>(Time.Hour),
      static_cast<UINT32>(Time.Minute),
      static_cast<UINT32>(Time.Second),
      static_cast<INT32>(Time.TimeZone),
      static_cast<UINT32>(Time.Daylight)
      );
  } else {
    LogPrint (L16 (u"Data/ora firmware log non disponibile: %r (0x%lx)\n"), TimeStatus, TimeStatus);
  }

  return Status;
}

/** Milliseconds since InitLog started the timer; never negative. **/
STATIC
UINT64
ElapsedMilliseconds (
  VOID
  )
{
  UINT64  Reading;
  UINT64  Ticks;

  if (!mTimerStarted) {
    return 0;
  }

  Reading = GetPerformanceCounter ();
  if (mCounterStart >= mCounterEnd) {
    // Counting down: a reading above the start point means the counter was reloaded.
    Ticks = (Reading <= mStartPoint) ? mStartPoint - Reading : 0;
  } else {
    Ticks = (Reading >= mStartPoint) ? Reading - mStartPoint : 0;
  }

  return GetTimeInNanoSecond (Ticks) / 1000000;
}

EFI_STATUS
LogWriteLine (
  IN CONST CHAR16  *Message
  )
{
  CHAR16      Line[LOG_LINE_CHARS];
  UINTN       Length;
  UINTN       Bytes;
  EFI_STATUS  Status;

  UnicodeSPrint (Line, sizeof (Line), L16 (u"[+%08lu ms] %s"), ElapsedMilliseconds (), Message);
  Print (L16 (u"%s"), Line);

  if (LogFile == nullptr) {
    return EFI_SUCCESS;
  }

  Length = StrLen (Line);
  Bytes  = Length * sizeof (CHAR16);
  LogFile->Write (LogFile, &Bytes, Line);
  Status = LogFile->Flush (LogFile);
  return Status;
}

VOID
EFIAPI
LogPrint (
  IN CONST CHAR16  *Format,
  ...
  )
{
  CHAR16   Message[LOG_MESSAGE_CHARS];
  VA_LIST  Marker;

  VA_START (Marker, Format);
  UnicodeVSPrint (Message, sizeof (Message), Format, Marker);
  VA_END (Marker);
  LogWriteLine (Message);
}

VOID
EFIAPI
Trace (
  IN CONST CHAR16  *Format,
  ...
  )
{
  // Trace points stay in the code as documentation of the flow; they print nothing.
  (VOID)Format;
}

VOID
ShowReadOnlyWarning (
  IN EFI_STATUS  Status
  )
{
  BOOLEAN  Remembered;
  INT32    Attribute;

  if (Status != EFI_WRITE_PROTECTED) {
    return;
  }

  Remembered = FALSE;
  Attribute  = 0;
  if ((gST != nullptr) && (gST->ConOut != nullptr) && (gST->ConOut->Mode != nullptr)) {
    Attribute  = gST->ConOut->Mode->Attribute;
    Remembered = TRUE;
    gST->ConOut->SetAttribute (gST->ConOut, EFI_LIGHTRED | EFI_BACKGROUND_BLACK);
  }

  LogPrint (
    L16 (
      u"\nWARNING: Velmaro has read-only access because the USB volume is marked dirty/write-protected.\n\nPossible cause:\nthe USB drive was not safely ejected from the operating system.\n\nPlease reconnect the USB drive to the operating system and safely remove/eject it before booting again.\n"
      )
    );

  if (Remembered) {
    gST->ConOut->SetAttribute (gST->ConOut, static_cast<UINTN>(Attribute));
  }
}

VOID
CloseLog (
  VOID
  )
{
  if (LogFile != nullptr) {
    LogPrint (L16 (u"=== Velmaro log end ===\n"));
    LogFile->Flush (LogFile);
    LogFile->Close (LogFile);
    LogFile = nullptr;
  }

  mTimerStarted = FALSE;
}
