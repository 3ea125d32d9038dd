/** @file
  BCD stores are opaque; Velmaro knows them only by their MD5 digest. These operations
  decide whether the requested group is already active, repair or move a store by its
  digest, and bring the right EFI BCD store into place on NTFS and exFAT volumes.
  A store is never deleted: it gets a group's name, "\boot\BCD_BAK" or a ".bak" name,
  and an older one in the way moves on to a numbered name ("\boot\BCD_BAK1", ...).
**/

#ifndef VELMARO_BCD_STORES_H_
#define VELMARO_BCD_STORES_H_

#include <Velmaro.h>

#define ACTIVE_BCD_PATH       L16 (u"\\boot\\BCD")
#define ACTIVE_BCD_BAK_PATH   L16 (u"\\boot\\BCD_BAK")
#define ACTIVE_EFI_BCD_PATH   L16 (u"\\efi\\microsoft\\boot\\BCD")
#define BOOT_PATH_CHARS       144
#define BACKUP_PATH_CHARS     160
#define DIGEST_PATH_CHARS     168

// --- EFI boot folder (EfiBootFolder.cpp) -------------------------------------------

/** EFI_SUCCESS when the file's MD5 equals State->BcdEfiMd5 (loaded from the EFI digest
    file when unknown), EFI_COMPROMISED_DATA when it differs, EFI_NOT_FOUND without a
    digest. **/
EFI_STATUS
VerifyEfiBcd (
  IN     EFI_FILE_PROTOCOL  *Root,
  IN     CONST CHAR16       *Path,
  IN OUT GROUP_STATE        *State
  );

/** Gives a stray EFI BCD store the name of the known group (current or requested) whose
    digest it carries, or moves it to its ".bak" name. **/
EFI_STATUS
NormalizeEfiBcdByMd5 (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root,
  IN CONST CHAR16              *Path
  );

///
/// One place an EFI BCD store may be taken from. Stores inside "\efi\microsoft\boot" are
/// renamed (a mismatching one is first given to its owner or ".bak"); the others are
/// copied so that they stay where they are.
///
typedef struct {
  CONST CHAR16    *Folder;          ///< searched for WantedName, in any ASCII case, when Path is missing
  CONST CHAR16    *WantedName;
  CONST CHAR16    *Path;
  BOOLEAN         Copy;
  CONST CHAR16    *WarnOnFailure;   ///< failures other than absence: logged with it and passed over; null: returned
} EFI_BCD_CANDIDATE;

/**
  Brings the store at one candidate place to Target when its digest is the group's.

  @retval EFI_SUCCESS    Target holds the group's store.
  @retval EFI_NOT_FOUND  No coherent store there (a mismatching one may have been moved
                         to its owner's name or ".bak").
  @retval other          A move, copy or digest failed.
**/
EFI_STATUS
TryEfiBcdCandidate (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                Volume,
  IN     EFI_FILE_PROTOCOL         *Root,
  IN OUT GROUP_STATE               *State,
  IN     CONST EFI_BCD_CANDIDATE   *Candidate,
  IN     CONST CHAR16              *Target
  );

/** EFI_SUCCESS when Target holds a store coherent with the group, taken from the first
    of five places that has one; EFI_NOT_FOUND when none has (or no digest is known). **/
EFI_STATUS
PrepareEfiBcd (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                Volume,
  IN     EFI_FILE_PROTOCOL         *Root,
  IN OUT GROUP_STATE               *State,
  IN     CONST CHAR16              *Target
  );

// --- BCD stores (BcdStore.cpp) -------------------------------------------------------

/** EFI_SUCCESS when the requested group is active and atomic on the volume,
    EFI_NOT_FOUND when it is not. Not a pure test: a wrong "\boot\BCD" is replaced from a
    coherent backup, and on NTFS/exFAT the EFI BCD store is brought into place. **/
EFI_STATUS
IsRequestedGroupActive (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root
  );

/**
  Puts a coherent copy of the requested store at "\boot\BCD", keeping the store that
  was there as "\boot\BCD_BAK" (an older "\boot\BCD_BAK" moves on to a numbered name).
  The backup is proved by its digest before anything moves; a copy that fails or does
  not match is undone.

  @retval EFI_SUCCESS           "\boot\BCD" now carries the requested group's digest.
  @retval EFI_NOT_FOUND         No digest is known for the requested group.
  @retval EFI_COMPROMISED_DATA  The backup, or the copy, does not carry that digest.
  @retval EFI_ALREADY_STARTED   Every numbered name for an older BCD_BAK is taken.
  @retval other                 A move, the copy or a digest failed.
**/
EFI_STATUS
RepairActiveBcd (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root
  );

/** Moves the store at Path to the name of the group whose digest it carries, or to its
    ".bak" name. **/
EFI_STATUS
NormalizeBcdByMd5 (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root,
  IN CONST CHAR16              *Path
  );

/** The names, digest and filesystem of the group a recovery record belongs to. **/
EFI_STATUS
ReadActiveRecordState (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_HANDLE                Volume,
  IN  EFI_FILE_PROTOCOL         *Root,
  IN  CONST CHAR16              *RecordPath,
  IN  CONST CHAR8               *EntriesText,
  OUT GROUP_STATE               *State
  );

#endif
