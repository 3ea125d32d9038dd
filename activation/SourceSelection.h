/** @file
  Which volume holds the requested group: the boot volume, or a sibling partition of the
  stick (FAT32, or NTFS/exFAT through a driver loaded here). Evidence comes in a fixed
  order (install metadata, the partition's UUID marker, the group's own files), and a
  volume is never picked out of several that match.
**/

#ifndef VELMARO_SOURCE_SELECTION_H_
#define VELMARO_SOURCE_SELECTION_H_

#include <Velmaro.h>

#define SECOND_PARTITION_ATTEMPTS  10
#define MARKER_PATH_CHARS          130

/**
  Chooses the requested group's volume and stores it in SourceHandle, SourceRoot and
  SourceRootOwned (TRUE: a root opened here, which the holder closes). Every failure
  falls back to the next kind of evidence and finally to the boot volume, except one.

  @retval EFI_SUCCESS  The source volume is set.
  @retval other        Install metadata makes a second partition mandatory and it could
                       not be found; nothing is set.
**/
EFI_STATUS
SelectSourceFs (
  IN OUT ACTIVATION_CONTEXT  *Context
  );

/**
  The one volume, the boot volume or a sibling of it, that carries the marker file or
  whose UUID is the marker's. An empty marker name selects the boot volume. The outputs
  start as the boot volume and change only for a single match.

  @retval EFI_SUCCESS          The outputs name the volume.
  @retval EFI_NOT_FOUND        No volume matches.
  @retval EFI_ALREADY_STARTED  Two or more match.
**/
EFI_STATUS
SelectByMarker (
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR16       *MarkerName OPTIONAL,
  OUT EFI_HANDLE         *Handle,
  OUT EFI_FILE_PROTOCOL  **Root,
  OUT BOOLEAN            *Owned
  );

/**
  Loads the driver for FsType and takes the volume it mounted only when that volume's
  UUID is exactly the marker's. The outputs change only on success.

  @retval EFI_NOT_FOUND  The mounted volume's UUID is not the marker's, or unreadable.
  @retval other          Loading, mounting or opening the volume failed.
**/
EFI_STATUS
SelectByDriverUuid (
  IN  EFI_HANDLE         ImageHandle,
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR16       *FsType OPTIONAL,
  IN  CONST CHAR16       *MarkerName OPTIONAL,
  OUT EFI_HANDLE         *Handle,
  OUT EFI_FILE_PROTOCOL  **Root,
  OUT BOOLEAN            *Owned
  );

/** SelectByDriverUuid, up to SECOND_PARTITION_ATTEMPTS times; the outputs are cleared
    first. Returns the first success or the last failure. **/
EFI_STATUS
WaitForSecondPartition (
  IN  EFI_HANDLE         ImageHandle,
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR16       *FsType OPTIONAL,
  IN  CONST CHAR16       *MarkerName OPTIONAL,
  OUT EFI_HANDLE         *Handle,
  OUT EFI_FILE_PROTOCOL  **Root,
  OUT BOOLEAN            *Owned
  );

/**
  The one volume, the boot volume or a sibling, on which the requested group is already
  active. The outputs change only on success; an owned root they held is closed then.

  @retval EFI_NOT_FOUND        The group is active nowhere.
  @retval EFI_ALREADY_STARTED  It looks active on two or more volumes.
**/
EFI_STATUS
SelectByRequestedFiles (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN OUT EFI_HANDLE          *Handle,
  IN OUT EFI_FILE_PROTOCOL   **Root,
  IN OUT BOOLEAN             *Owned
  );

/** Exists is TRUE when the requested group is active on the volume. "Not active" is a
    success; any other failure of the check is logged and returned. **/
EFI_STATUS
RequestedGroupExistsOnRoot (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  OUT    BOOLEAN             *Exists
  );

/**
  Loads the NTFS or exFAT driver and hands back the volume it mounted.

  @retval EFI_UNSUPPORTED  FsType is FAT32, missing or unknown: no driver to load.
**/
EFI_STATUS
LoadDriverForFs (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *FsType OPTIONAL,
  OUT EFI_HANDLE    *Handle
  );

/** Whether "\<Uuid>.uuid" is in the root: EFI_SUCCESS, EFI_NOT_FOUND, or
    EFI_INVALID_PARAMETER for an empty UUID. **/
EFI_STATUS
VerifyUuidMarker (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Uuid
  );

/** TRUE when a sibling partition of the boot volume carries a file system. **/
BOOLEAN
HasMountedSibling (
  IN EFI_HANDLE  BootHandle
  );

/** TRUE when a sibling partition with its medium present carries no file system. **/
BOOLEAN
HasUnmountedSibling (
  IN EFI_HANDLE  BootHandle
  );

/** TRUE when the boot volume is alone on its disk and its UUID is the marker's, or the
    one the state file recorded. **/
BOOLEAN
BootVolumeMatchesUuid (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN CONST CHAR16              *MarkerName OPTIONAL,
  IN BOOLEAN                   FromStateFile
  );

#endif
