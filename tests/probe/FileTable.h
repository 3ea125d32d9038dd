/** @file
  One table of file-protocol behaviours, run the same way on any volume: by the test
  image on the firmware's own FAT driver, and by the host suite on its volumes. Comparing
  the two texts row by row shows where the host answers differently from the driver
  Velmaro meets on a real stick.

  Each row runs in a scratch folder \ft made before it and removed after it, and prints
  one line "<row>: <label>=<answer> ...". The text ends with "end: rows=<count>". Nothing
  in it depends on the clock or on bytes the medium held before, so two runs on the same
  driver print the same bytes.
**/

#ifndef VELMARO_FILE_TABLE_H_
#define VELMARO_FILE_TABLE_H_

extern "C" {
#include <Uefi.h>
#include <Guid/FileInfo.h>
#include <Protocol/SimpleFileSystem.h>
}

// Runs every row on FileSystem and leaves the text, NUL-terminated ASCII with "\n" line
// ends, in Out. Returns the number of rows run. A text that does not fit is cut at the
// last whole line and ends with "truncated\n".
UINTN RunFileTable (IN EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *FileSystem, OUT CHAR8 *Out, IN UINTN OutSize);

// The name of row Index in the order the rows run, or NULL past the last.
CONST CHAR8 *FileTableRowName (IN UINTN Index);

#endif
