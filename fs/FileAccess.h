/** @file
  Opening volume roots, testing, reading and deleting files, and the small text walkers
  with which the data-file readers move through ASCII text.
**/

#ifndef VELMARO_FILE_ACCESS_H_
#define VELMARO_FILE_ACCESS_H_

#include <Velmaro.h>
#include <fs/AsciiText.h>

/// First guess for an EFI_FILE_INFO: the fixed part and 256 name characters.
#define FILE_INFO_FIRST_GUESS  592

EFI_STATUS
OpenRoot (
  IN  EFI_HANDLE         Volume,
  OUT EFI_FILE_PROTOCOL  **Root
  );

/** Open the path for reading. EFI_SUCCESS with Exists set, or the Open status with
    Exists FALSE (EFI_NOT_FOUND means absent). Works for directories too. **/
EFI_STATUS
FileExists (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT BOOLEAN            *Exists
  );

/** EFI_FILE_INFO of an open file into a new zero-filled pool buffer: 592 bytes first,
    once more at the size the firmware reports. The caller frees *Info. **/
EFI_STATUS
GetFileInfoAlloc (
  IN  EFI_FILE_PROTOCOL  *File,
  OUT EFI_FILE_INFO      **Info,
  OUT UINTN              *InfoSize OPTIONAL
  );

/** Whole file into a pool buffer one byte longer than the file, NUL after the bytes
    read. The caller frees *Buffer; it stays null on failure. **/
EFI_STATUS
ReadWholeFile (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR8              **Buffer
  );

/** Delete, then prove on a freshly opened root that the path is gone. **/
EFI_STATUS
DeleteFileVerified (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  );

#endif
