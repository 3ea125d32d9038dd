/** @file
  The diagnostic log: every message goes to the console and, once InitLog has opened it,
  to \velmaro_log.txt on the boot volume (UTF-16LE, no BOM, CR LF, each message stamped
  with the milliseconds since the log was opened).
**/

#ifndef VELMARO_DIAGNOSTIC_LOG_H_
#define VELMARO_DIAGNOSTIC_LOG_H_

#include <Velmaro.h>

/// Characters of a formatted message (the print library cuts longer output).
#define LOG_MESSAGE_CHARS  1024
/// Characters of a stamped line.
#define LOG_LINE_CHARS     1152

/// The open log file, or null before InitLog and after CloseLog.
extern EFI_FILE_PROTOCOL  *LogFile;
/// Set by InitLog when \boot\VELMARO_DEBUG.LOG exists on the boot volume.
extern BOOLEAN            AdvancedDiagnostics;

EFI_STATUS
InitLog (
  IN EFI_HANDLE  ImageHandle
  );

VOID
EFIAPI
LogPrint (
  IN CONST CHAR16  *Format,
  ...
  );

EFI_STATUS
LogWriteLine (
  IN CONST CHAR16  *Message
  );

/// Takes LogPrint's arguments and prints nothing: trace points stay in the code for
/// the developer who needs them, without reaching users' logs.
VOID
EFIAPI
Trace (
  IN CONST CHAR16  *Format,
  ...
  );

VOID
ShowReadOnlyWarning (
  IN EFI_STATUS  Status
  );

/// Logs the end line, flushes and closes the log file; stamps read 0 ms afterwards.
VOID
CloseLog (
  VOID
  );

#endif
