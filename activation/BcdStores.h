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

/**
  Compares the MD5 of the file at Path with State->BcdEfiMd5, which is loaded from
  "\efi\microsoft\boot\backup\<Bcd>.md5" when unknown.

  @retval EFI_SUCCESS            The file's digest equals State->BcdEfiMd5.
  @retval EFI_COMPROMISED_DATA   It differs, or the digest file holds no well-formed
                                 digest.
  @retval EFI_NOT_FOUND          The digest file is absent, or the file at Path is.
  @retval EFI_INVALID_PARAMETER  No digest is known and State->Bcd is empty.
  @retval EFI_DEVICE_ERROR       A read reported more bytes than were asked for.
  @retval other                  Reading the digest file or the file at Path failed.
**/
EFI_STATUS
VerifyEfiBcd (
  IN     EFI_FILE_PROTOCOL  *Root,
  IN     CONST CHAR16       *Path,
  IN OUT GROUP_STATE        *State
  );

/**
  Gives a stray EFI BCD store the name of the known group (current or requested) whose
  digest it carries, or moves it to its ".bak" name when no group owns it or the
  owner's name is taken.

  @retval EFI_SUCCESS           The store carries its owner's name (it may have had it
                                already) or its ".bak" name.
  @retval EFI_ALREADY_STARTED   An older ".bak" is in the way and every numbered name is
                                taken; nothing changed.
  @retval EFI_BUFFER_TOO_SMALL  Path leaves no room for ".bak"; nothing changed.
  @retval EFI_DEVICE_ERROR      A rename was not confirmed on a fresh root.
  @retval other                 The store's digest (nothing changed), an existence test
                                or a rename failed.
**/
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

  @retval EFI_SUCCESS           Target holds the group's store.
  @retval EFI_NOT_FOUND         No coherent store there: none, its digest or the group's
                                cannot be had, or it does not match (a mismatching one
                                that is renamed, not copied, goes to its owner's name or
                                ".bak" first).
  @retval EFI_ACCESS_DENIED     Target already holds bytes; the copy left it untouched.
  @retval EFI_COMPROMISED_DATA  The copy does not carry the group's digest.
  @retval other                 A move or the copy failed, or the copy's digest could not
                                be taken. A copy that failed or does not match is moved
                                to its ".bak" name when it can be.
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

/**
  Brings a store coherent with the group to Target, taken from the first of five places
  that has one. A mismatching store at Target first goes to its owner's name or ".bak".
  Failures other than absence at the third and fourth places (the EFI folder's own
  store and the Microsoft backup) are logged and passed over; elsewhere they end the
  search.

  @retval EFI_SUCCESS            Target holds a store coherent with the group.
  @retval EFI_NOT_FOUND          None of the places has one, or no digest is known.
  @retval EFI_INVALID_PARAMETER  The group's Bcd or Efi name is empty.
  @retval other                  A test, digest, move or copy at Target or at a place
                                 whose failures end the search failed
                                 (see TryEfiBcdCandidate).
**/
EFI_STATUS
PrepareEfiBcd (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                Volume,
  IN     EFI_FILE_PROTOCOL         *Root,
  IN OUT GROUP_STATE               *State,
  IN     CONST CHAR16              *Target
  );

// --- BCD stores (BcdStore.cpp) -------------------------------------------------------

/**
  Whether the requested group is active and atomic on the volume. Not a pure test: the
  "\sources" record is completed (ValidateRequestedSourcePath), a wrong "\boot\BCD" is
  replaced from a coherent backup (at most one repair, whose failure only means "not
  active"), and on NTFS/exFAT the EFI BCD store is brought into place. Without any
  digest, an existing "\boot\BCD" is taken on trust.

  @retval EFI_SUCCESS            The requested group is active.
  @retval EFI_NOT_FOUND          It is not.
  @retval EFI_COMPROMISED_DATA   The "\sources" record is damaged (see
                                 ValidateRequestedSourcePath), the group's backup digest
                                 file holds no well-formed digest, or on NTFS/exFAT a
                                 copied EFI store does not match.
  @retval EFI_BUFFER_TOO_SMALL   The group ID, or a value in the record, is too long or
                                 not ASCII.
  @retval EFI_INVALID_PARAMETER  On NTFS/exFAT, the group's Bcd or Efi name is empty.
  @retval other                  A read, test, digest or move on the way failed.
**/
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
  @retval EFI_NOT_FOUND         No digest is known for the requested group, or its backup
                                is absent.
  @retval EFI_COMPROMISED_DATA  The backup, or the copy, does not carry that digest.
  @retval EFI_ALREADY_STARTED   Every numbered name for an older BCD_BAK is taken.
  @retval EFI_ACCESS_DENIED     "\boot\BCD" holds bytes after all; the copy left it
                                untouched and nothing is undone.
  @retval other                 A move, the copy or a digest failed.
**/
EFI_STATUS
RepairActiveBcd (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root
  );

/**
  Moves the store at Path to the name of the group whose digest it carries, or to its
  ".bak" name. The owner is sought in the install metadata, then in the active
  "\sources" record, then in the digest files beside the groups' backups (two groups
  with one digest name none). A store whose group's name is taken, or is Path itself,
  goes to its ".bak" name (a taken name from the install metadata only passes the
  search on).

  @retval EFI_SUCCESS           The store carries its group's name or its ".bak" name.
  @retval EFI_ALREADY_STARTED   An older ".bak" is in the way and every numbered name is
                                taken; nothing changed.
  @retval EFI_BUFFER_TOO_SMALL  Path leaves no room for ".bak"; nothing changed.
  @retval EFI_DEVICE_ERROR      A rename was not confirmed on a fresh root.
  @retval other                 The store's digest (nothing changed), an existence test
                                or a rename failed.
**/
EFI_STATUS
NormalizeBcdByMd5 (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root,
  IN CONST CHAR16              *Path
  );

/**
  The names, BCD digest and filesystem of the group a recovery record belongs to: the
  record must belong to Volume, and its ID is looked up in EntriesText. Without SRC_FS
  the filesystem is read from the volume, or taken as FAT32. *State is zeroed first and
  may be partly filled on failure.

  @retval EFI_SUCCESS           *State names the group.
  @retval EFI_NOT_FOUND         The record is absent, belongs to another partition, has
                                no ID, or its ID names no group in EntriesText.
  @retval EFI_COMPROMISED_DATA  The ID holds "\", "/" or ":", the BCD_MD5 line a
                                malformed digest, or EntriesText no line or a first line
                                that is not hexadecimal.
  @retval EFI_BUFFER_TOO_SMALL  A value in the record, or a name in EntriesText, is too
                                long (or, in the record, not ASCII).
  @retval EFI_BAD_BUFFER_SIZE   EntriesText's first line has an odd number of digits, or
                                too many.
  @retval other                 Reading the record or the volume's UUID failed.
**/
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
