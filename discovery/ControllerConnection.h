/** @file
  After a file system driver started: connect every controller, then find the Simple
  File System that came up on a sibling partition of the boot volume, polling for late
  controllers, and refusing to choose between two.
**/

#ifndef VELMARO_CONTROLLER_CONNECTION_H_
#define VELMARO_CONTROLLER_CONNECTION_H_

#include <Velmaro.h>

/// 100 ms between polls; 10 waits while polling and 2 in the new-sibling search.
#define SIBLING_POLL_MICROSECONDS  100000
#define SIBLING_POLLS              11
#define NEW_SIBLING_TRIES          2

/** TRUE when Candidate is the Simple File System of a partition that did not carry one in
    the snapshot, and that partition is a sibling of the boot volume. **/
BOOLEAN
IsNewSiblingFs (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Candidate OPTIONAL,
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *BootPath,
  IN CONST HARDDRIVE_DEVICE_PATH     *BootPartition,
  IN CONST EFI_HANDLE                *Snapshot OPTIONAL,
  IN UINTN                           SnapshotCount
  );

/**
  @retval EFI_SUCCESS    *Handle is the first new sibling file system.
  @retval EFI_NOT_FOUND  None, or the boot volume has no partition node.
  @retval other          The file systems could not be listed.
**/
EFI_STATUS
FindNewSiblingSimpleFs (
  IN  CONST EFI_HANDLE  *Snapshot OPTIONAL,
  IN  UINTN             SnapshotCount,
  IN  EFI_HANDLE        BootHandle,
  OUT EFI_HANDLE        *Handle
  );

/**
  @retval EFI_SUCCESS          Exactly one sibling partition carries a file system: *Handle.
  @retval EFI_NOT_FOUND        None does (or the boot volume has no partition node).
  @retval EFI_ALREADY_STARTED  Two or more do; nothing is chosen.
  @retval other                The file systems could not be listed.
**/
EFI_STATUS
FindVisibleSiblingSimpleFs (
  IN  EFI_HANDLE  BootHandle,
  OUT EFI_HANDLE  *Handle,
  IN  BOOLEAN     Verbose
  );

/**
  Connects every controller, then polls for the sibling file system, then looks for a new
  one, then takes a last look at the visible ones.

  @retval EFI_SUCCESS          *Handle is the source partition's file system.
  @retval EFI_NOT_FOUND        No sibling file system came up.
  @retval EFI_ALREADY_STARTED  More than one sibling carries a file system.
  @retval other                The handles could not be listed.
**/
EFI_STATUS
ConnectAndFindSourceFs (
  IN  EFI_HANDLE  BootHandle,
  OUT EFI_HANDLE  *Handle
  );

#endif
