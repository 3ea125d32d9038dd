/** @file
  Loading and starting the NTFS or exFAT file-system driver kept on the boot volume (or
  on another USB volume), then finding the file system it mounted on the boot volume's
  sibling partition.
**/

#ifndef VELMARO_DRIVER_LOADING_H_
#define VELMARO_DRIVER_LOADING_H_

#include <Velmaro.h>

#define NTFS_DRIVER_PATH   u"\\efi\\boot\\ntfs_x64.efi"
#define EXFAT_DRIVER_PATH  u"\\efi\\boot\\ExFatDxe_x64.efi"

/**
  Loads and starts the NTFS (or exFAT) driver anew, connects every controller and looks
  for the Simple File System it mounted on a sibling partition of the boot volume. A
  started driver stays resident whatever happens afterwards.

  @param[in]  ImageHandle  The application's image handle.
  @param[out] SourceFs     The handle of the mounted volume; null on failure.

  @retval EFI_SUCCESS    SourceFs holds the sibling partition's file system.
  @retval EFI_NOT_FOUND  No driver could be tried, the boot device is unknown, or no
                         sibling file system appeared.
  @retval other          The last failure of loading, starting or finding.
**/
EFI_STATUS
MountNtfsSource (
  IN  EFI_HANDLE  ImageHandle,
  OUT EFI_HANDLE  *SourceFs OPTIONAL
  );

EFI_STATUS
MountExfatSource (
  IN  EFI_HANDLE  ImageHandle,
  OUT EFI_HANDLE  *SourceFs OPTIONAL
  );

/**
  Tries every parent image on every volume that may hold the driver: first the
  application's own device, then every other USB file system. The first started driver
  wins.

  @retval EFI_SUCCESS    (or a warning) DriverImage holds the started driver.
  @retval EFI_NOT_FOUND  Nothing could be tried.
  @retval other          The last failure of an attempt.
**/
EFI_STATUS
LoadFsDriver (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *DriverPath,
  IN  CONST CHAR16  *Tag OPTIONAL,
  OUT EFI_HANDLE    *DriverImage
  );

/**
  One attempt: loads the driver from DriverVolume with ParentImage as parent, by device
  path, then from a buffer with and without the path, and starts it. An image handle that
  a refused load hands back is unloaded before the next form.
**/
EFI_STATUS
LoadDriverImage (
  IN  EFI_HANDLE    ImageHandle,
  IN  EFI_HANDLE    ParentImage,
  IN  EFI_HANDLE    DriverVolume,
  IN  CONST CHAR16  *DriverPath,
  OUT EFI_HANDLE    *DriverImage
  );

/**
  Reads a driver file whole into a pool buffer of exactly its size; the caller frees it.

  @retval EFI_BAD_BUFFER_SIZE  The file is empty.
**/
EFI_STATUS
ReadDriverFile (
  IN  EFI_HANDLE    Volume,
  IN  CONST CHAR16  *DriverPath,
  OUT VOID          **Buffer,
  OUT UINTN         *Size
  );

#endif
