/** @file
  Giving the group that carries the active names now its own names back: "\boot\BCD",
  "\sources" and "\efi\microsoft" (or, on an NTFS or exFAT partition, the EFI BCD store)
  return to the names of the current state's group. A piece goes back only when its
  marker-ID files, its recovery record and its digest prove that it is that group's;
  anything else stays where it is.
**/

#ifndef VELMARO_RECOVERY_PHASE_H_
#define VELMARO_RECOVERY_PHASE_H_

#include <Velmaro.h>

/// A group path "\efi\<Efi>" or "\<Src>" built from a current name.
#define RECOVERY_GROUP_PATH_CHARS      144
/// "\efi\microsoft\boot\<Bcd>" for any name of up to 127 characters.
#define RECOVERY_EFI_STORE_PATH_CHARS  168

/**
  Restores the current group on its recorded partition (atomic restore) or, when the
  state names none, on the boot volume and then every mounted sibling partition.
  Pieces already restored stay restored after a failure.

  @retval EFI_SUCCESS            Every step restored its piece or found nothing to restore.
  @retval EFI_INVALID_PARAMETER  No entries text.
  @retval EFI_NOT_FOUND          The recorded partition is neither the boot volume nor a
                                 mounted sibling.
  @retval other                  The first step that failed.
**/
EFI_STATUS
RunRecoveryPhase (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR8         *EntriesText
  );

/**
  The volume whose UUID is SrcPart: the boot volume, or a sibling partition whose root
  is opened here (*Opened TRUE; the caller closes it).

  @retval EFI_SUCCESS    *Handle and *Root are that volume.
  @retval EFI_NOT_FOUND  No such volume.
  @retval other          The handle list or the root could not be had.
**/
EFI_STATUS
FindCurrentPartition (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  CONST CHAR16              *SrcPart,
  OUT EFI_HANDLE                *Handle,
  OUT EFI_FILE_PROTOCOL         **Root,
  OUT BOOLEAN                   *Opened
  );

/** The steps on the boot volume, then on each mounted sibling partition in handle
    order; EFI_NOT_FOUND from a volume is not a failure. **/
EFI_STATUS
RecoverOnVisiblePartitions (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR8         *EntriesText
  );

/** BCD, SRC, then EFI (or the EFI BCD store) on one volume, each logged. **/
EFI_STATUS
RecoverActiveGroup (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR8         *EntriesText
  );

/**
  Gives "\boot\BCD" back to the group the active record names, or copies that group's
  store from its backup when "\boot\BCD" is not its.

  @retval EFI_SUCCESS           The group's store carries its group name.
  @retval EFI_NOT_FOUND         No active record to go by, or it is not this volume's.
  @retval EFI_COMPROMISED_DATA  The group name holds a store with another digest, or a
                                backup or copy does not carry the group's digest.
  @retval other                 A read, lookup, rename or copy failed.
**/
EFI_STATUS
RecoverActiveBcd (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR8         *EntriesText,
  OUT    CHAR16              *BcdName
  );

/**
  Renames ActivePath back to GroupFormat with CurrentName when its marker-ID files name
  the current group. When the group name already holds the same group, ActivePath is
  the duplicate and goes to its ".bak" name.

  @retval EFI_SUCCESS    The rename (or the move aside) was verified.
  @retval EFI_NOT_FOUND  Nothing of the current group to restore, or the group name
                         holds something else; ActivePath stays.
  @retval other          The folder's owner could not be told, or a change failed.
**/
EFI_STATUS
RecoverActiveFolder (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                Volume,
  IN     EFI_FILE_PROTOCOL         *Root,
  IN     CONST CHAR16              *ActivePath,
  IN     CONST CHAR16              *GroupFormat,
  IN     CONST CHAR16              *CurrentName,
  IN     CONST CHAR8               *EntriesText,
  IN     CONST CHAR16              *Label,
  OUT    CHAR16                    *Name
  );

/** One result line: OK, SKIP for EFI_NOT_FOUND, KO with the status otherwise. **/
VOID
LogRecoveryStep (
  IN CONST CHAR16  *Label,
  IN CONST CHAR16  *Name,
  IN EFI_STATUS    Status
  );

#endif
