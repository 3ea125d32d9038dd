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

/**
  Opens a fresh \velmaro_log.txt on the volume the image was loaded from (an old log is
  deleted first, or written over from its start when it cannot be), starts the
  millisecond stamps and sets AdvancedDiagnostics. Each firmware answer is printed.

  @retval EFI_SUCCESS    The log is open.
  @retval EFI_NOT_FOUND  The image's Loaded Image protocol gave no interface.
  @retval other          Loaded Image, the volume's file system, its root or the log
                         file could not be opened; LogFile stays null. Or SetPosition on
                         the log failed; the log is then open and in use all the same.
**/
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

/**
  Stamps Message with the milliseconds since InitLog, prints it on the console and,
  while the log is open, appends it to the log and flushes.

  @retval EFI_SUCCESS  The line was printed and, with an open log, flushed.
  @retval other        The flush failed. A failed or short write is not reported.
**/
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
