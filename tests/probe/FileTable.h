/** @file
  One table of file-protocol behaviours, run the same way on any volume: by the test
  image on the firmware's own FAT driver, and by the host suite on the fake volumes.
  Comparing the two texts line by line shows where the fake answers differently from
  the driver Velmaro meets on a real stick.

  Each row is a short sequence of EFI_FILE_PROTOCOL calls, made in a scratch folder
  \ft (or on root names beginning with "ft") that is created before the row and
  removed after it. Each row prints one line "<row name>: <label>=<answer> ...", the
  whole table ending with "end: rows=<count>". Times are printed as classes (zero, bad,
  valid) unless they are the table's own, and bytes the medium supplies are only said to
  be zero or stale, so two runs on the same driver and a fresh medium print the same
  bytes.
**/

#ifndef VELMARO_FILE_TABLE_H_
#define VELMARO_FILE_TABLE_H_

extern "C" {
#include <Uefi.h>
#include <Guid/FileInfo.h>
#include <Guid/FileSystemInfo.h>
#include <Protocol/SimpleFileSystem.h>
}

///
/// Runs every row on the volume behind FileSystem and leaves the text, NUL-terminated
/// ASCII with "\n" line ends, in Out. Returns the number of rows run. A text that does
/// not fit is cut at the last whole line and ends with "truncated\n".
///
UINTN
RunFileTable (
  IN  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem,
  OUT CHAR8                            *Out,
  IN  UINTN                            OutSize
  );

///
/// The number of rows and the name of each, in the order they run.
///
UINTN
FileTableRowCount (
  VOID
  );

CONST CHAR8 *
FileTableRowName (
  IN UINTN  Index
  );

#endif
