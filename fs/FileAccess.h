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

/**
  Opens the root directory of the file system on Volume. *Root is null on any failure.

  @retval EFI_SUCCESS      *Root is the volume's root; the caller closes it.
  @retval EFI_UNSUPPORTED  Volume carries no Simple File System.
  @retval other            OpenVolume failed.
**/
EFI_STATUS
OpenRoot (
  IN  EFI_HANDLE         Volume,
  OUT EFI_FILE_PROTOCOL  **Root
  );

/**
  Opens the path for reading and closes it again. Works for directories too.

  @retval EFI_SUCCESS    The path opens; Exists is TRUE.
  @retval EFI_NOT_FOUND  The path is absent; Exists is FALSE.
  @retval other          Open failed in another way; Exists is FALSE, although the entry
                         may be there.
**/
EFI_STATUS
FileExists (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT BOOLEAN            *Exists
  );

/**
  EFI_FILE_INFO of an open file into a new zero-filled pool buffer: 592 bytes first,
  once more at the size the firmware reports. The caller frees *Info; it stays null on
  failure.

  @retval EFI_SUCCESS           *Info (and *InfoSize, when given) are set.
  @retval EFI_OUT_OF_RESOURCES  No pool for the buffer.
  @retval other                 GetInfo failed, the second call included.
**/
EFI_STATUS
GetFileInfoAlloc (
  IN  EFI_FILE_PROTOCOL  *File,
  OUT EFI_FILE_INFO      **Info,
  OUT UINTN              *InfoSize OPTIONAL
  );

/**
  Whole file into a pool buffer one byte longer than the file, NUL after the bytes
  read. The caller frees *Buffer; it stays null on failure. A failing Open is logged.

  @retval EFI_SUCCESS           *Buffer holds the bytes read and a NUL.
  @retval EFI_NOT_FOUND         Path is absent.
  @retval EFI_BAD_BUFFER_SIZE   The file reports a size of MAX_UINT64.
  @retval EFI_OUT_OF_RESOURCES  No pool for the file's information or its bytes.
  @retval EFI_DEVICE_ERROR      The driver reports more bytes read than were asked for.
  @retval other                 Open, GetInfo or Read failed.
**/
EFI_STATUS
ReadWholeFile (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR8              **Buffer
  );

/**
  Deletes Path, then proves on a freshly opened root that it is gone. A delete the
  firmware only warns about is judged by the fresh root too.

  @retval EFI_SUCCESS       The fresh root no longer finds Path.
  @retval EFI_DEVICE_ERROR  The fresh root still opens Path, or cannot tell.
  @retval other             Opening Path for writing (EFI_NOT_FOUND when it is absent),
                            the delete or reopening the root failed.
**/
EFI_STATUS
DeleteFileVerified (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  );

#endif
