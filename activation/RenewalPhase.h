/** @file
  Giving the requested group the active names on its source volume: "\boot\<Bcd>"
  becomes "\boot\BCD", "\<Src>" "\sources" and "\efi\<Efi>" "\efi\microsoft" (on an
  NTFS or exFAT partition the EFI BCD store is prepared instead). The volume and each
  piece are proved to be the group's first, the active names are cleared of anything
  else, and renames already made are undone when a later one fails.
**/

#ifndef VELMARO_RENEWAL_PHASE_H_
#define VELMARO_RENEWAL_PHASE_H_

#include <Velmaro.h>

#define GROUP_SRC_PATH_CHARS  132
#define GROUP_EFI_PATH_CHARS  144

/**
  The requested group's names from the entries file and, from the install metadata,
  its filesystem and partition (FAT32 and no partition when the metadata says nothing).

  @retval EFI_SUCCESS  State holds the group.
  @retval other        The group is not in the entries file (or the text is malformed).
**/
EFI_STATUS
RebuildRequestedState (
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR8        *EntriesText,
  IN  CONST CHAR8        *GroupIdAscii,
  OUT GROUP_STATE        *State
  );

/**
  The source volume is the group's: its real filesystem type is the expected one and,
  when a partition UUID is expected, its UUID too. Completes SrcFs and SrcPart.

  @retval EFI_SUCCESS    The volume is the group's.
  @retval EFI_NOT_FOUND  Another type or another partition.
  @retval other          The volume's type or UUID could not be read.
**/
EFI_STATUS
VerifySourceFsAtomic (
  IN     EFI_HANDLE   SourceHandle,
  IN OUT GROUP_STATE  *State
  );

/**
  The renames, BCD, SRC then EFI, after the checks and preparations. A failed rename
  undoes this run's earlier ones, SRC then BCD. Requested is the run's
  Context->Requested: the checks complete its digests there. The work is done through
  a root of SourceHandle opened here, which shows what the recovery changed.

  @retval EFI_SUCCESS            The three pieces carry the active names.
  @retval EFI_INVALID_PARAMETER  A name of the group is empty.
  @retval EFI_ALREADY_STARTED    An active name holds another group whose own name is taken.
  @retval other                  The check, preparation or rename that failed.
**/
EFI_STATUS
RunRenewalRenames (
  IN     EFI_HANDLE          ImageHandle,
  IN     EFI_HANDLE          SourceHandle,
  IN     EFI_FILE_PROTOCOL   *SourceRoot,
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN OUT GROUP_STATE         *Requested
  );

/**
  Whether "\boot\BCD" already is the group's store (*BcdActive). A store that is not is
  moved to its owner's name or aside, by its digest.
**/
EFI_STATUS
CheckActiveBcd (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_HANDLE                SourceHandle,
  IN  EFI_FILE_PROTOCOL         *SourceRoot,
  IN  CONST GROUP_STATE         *State,
  OUT BOOLEAN                   *BcdActive
  );

/**
  Clears Destination ("\sources" or "\efi\microsoft") of anything that is not the
  requested group's: another group's folder goes back to its own name, a folder of no
  group to its ".bak" name. *Active tells that it already holds the requested group.

  @retval EFI_SUCCESS          Destination is free, the group's, or left as it is.
  @retval EFI_NOT_FOUND        Its owner does not belong on this volume; left as it is.
  @retval EFI_ALREADY_STARTED  Its owner's own name is taken.
  @retval other                A test or a change failed.
**/
EFI_STATUS
PrepareDestination (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_HANDLE                SourceHandle,
  IN  EFI_FILE_PROTOCOL         *SourceRoot,
  IN  CONST CHAR16              *Destination,
  IN  CONST CHAR8               *RequestedId,
  IN  CONST CHAR16              *Label,
  IN  BOOLEAN                   IsSourceFolder,
  OUT BOOLEAN                   *Active
  );

/**
  The group OtherId (found in an active name) belongs on the source volume: by its
  install metadata, or as a FAT32 group when it has none. Completes its SrcFs and SrcPart.

  @retval EFI_SUCCESS    It belongs here.
  @retval EFI_NOT_FOUND  Another type or partition, or no metadata off FAT32.
  @retval other          The volume or the metadata could not be read.
**/
EFI_STATUS
VerifyDestinationGroupAtomic (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                SourceHandle,
  IN     CONST CHAR8               *OtherId,
  IN OUT GROUP_STATE               *Other
  );

/**
  The group's source folder, EFI folder and BCD store are the requested group's (those
  not already active); a missing or wrong store is replaced from its backup after the
  wrong one has been moved to its owner's name or aside.
**/
EFI_STATUS
VerifyRenewalSources (
  IN     EFI_HANDLE          SourceHandle,
  IN     EFI_FILE_PROTOCOL   *SourceRoot,
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN OUT GROUP_STATE         *State,
  IN     CONST CHAR16        *GroupBcd,
  IN     CONST CHAR16        *GroupSrc,
  IN     CONST CHAR16        *GroupEfi,
  IN     BOOLEAN             BcdActive,
  IN     BOOLEAN             SrcActive,
  IN     BOOLEAN             EfiActive
  );

/** Renames ActivePath back to GroupPath; a failure is logged and returned. **/
EFI_STATUS
RollbackRename (
  IN EFI_HANDLE         SourceHandle,
  IN EFI_FILE_PROTOCOL  *SourceRoot,
  IN CONST CHAR16       *GroupPath,
  IN CONST CHAR16       *ActivePath
  );

#endif
