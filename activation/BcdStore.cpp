/** @file
  BCD stores by their digest: the active check, the repair of "\boot\BCD" and the move of
  a store to the name of the group it belongs to.
**/

#include <activation/BcdStores.h>
#include <app/DiagnosticLog.h>
#include <data/EntriesFile.h>
#include <data/RecoveryRecord.h>
#include <data/StateFile.h>
#include <discovery/FsIdentification.h>
#include <discovery/InstallMetadata.h>
#include <fs/FileAccess.h>
#include <Guards.h>
#include <fs/Md5.h>
#include <fs/VerifiedChange.h>

/** Loads BcdMd5 from the group's digest file when the state does not know it yet. **/
STATIC
EFI_STATUS
LoadBackupDigest (
  IN     EFI_FILE_PROTOCOL  *Root,
  IN OUT GROUP_STATE        *State
  )
{
  CHAR16      DigestPath[DIGEST_PATH_CHARS];
  EFI_STATUS  Status;

  if (HasBcdMd5 (State)) {
    return EFI_SUCCESS;
  }

  UnicodeSPrint (DigestPath, sizeof (DigestPath), L16 (u"\\boot\\backup\\%s.md5"), State->Bcd);
  Status = ReadMd5File (Root, DigestPath, State->BcdMd5);
  return (Status == EFI_NOT_FOUND) ? EFI_SUCCESS : Status;
}

/** A mismatch and a missing digest both mean "not this group's store"; anything else is a fault. **/
STATIC
BOOLEAN
IsNegative (
  IN EFI_STATUS  Status
  )
{
  return (Status == EFI_COMPROMISED_DATA) || (Status == EFI_NOT_FOUND);
}

EFI_STATUS
IsRequestedGroupActive (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root
  )
{
  CHAR8       GroupId[VELMARO_NAME_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((Context == nullptr) || (Root == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = NarrowToAscii (GroupId, sizeof (GroupId), Context->GroupId);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ValidateRequestedSourcePath (Context, Volume, Root, L16 (u"\\sources"), GroupId);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (IsExternalSourceFs (&Context->Requested)) {
    Status = PrepareEfiBcd (Context, Volume, Root, &Context->Requested, ACTIVE_EFI_BCD_PATH);
  } else {
    Status = MarkerIdFileExists (Root, L16 (u"\\efi\\microsoft"), GroupId);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = LoadBackupDigest (Root, &Context->Requested);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!HasBcdMd5 (&Context->Requested)) {
    // Without a digest anywhere, an existing store is taken on trust.
    Status = FileExists (Root, ACTIVE_BCD_PATH, &Exists);
    if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
      return Status;
    }

    return Exists ? EFI_SUCCESS : EFI_NOT_FOUND;
  }

  // The digest's own open tells whether the store is there: an absent store answers
  // EFI_NOT_FOUND and is repaired like a wrong one, so the store is opened once.
  Status = FileMatchesBcdMd5 (Root, ACTIVE_BCD_PATH, &Context->Requested);
  if (!IsNegative (Status)) {
    return Status;
  }

  // One repair at most: a second one could displace the store the first kept aside.
  if (EFI_ERROR (RepairActiveBcd (Context, Volume, Root))) {
    return EFI_NOT_FOUND;
  }

  Status = FileMatchesBcdMd5 (Root, ACTIVE_BCD_PATH, &Context->Requested);
  return IsNegative (Status) ? EFI_NOT_FOUND : Status;
}

/**
  Undoes a repair that could not finish: the copy goes to "\boot\BCD.bak" and the store
  that was active comes back from "\boot\BCD_BAK", so a failed repair changes no name.
**/
STATIC
VOID
UndoRepair (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN BOOLEAN            StoreKeptAside
  )
{
  BOOLEAN  Exists;

  if (!EFI_ERROR (FileExists (Root, ACTIVE_BCD_PATH, &Exists))) {
    if (EFI_ERROR (MoveAsideToBak (Volume, Root, ACTIVE_BCD_PATH))) {
      return;
    }
  }

  if (StoreKeptAside) {
    RenameVerified (Volume, Root, ACTIVE_BCD_BAK_PATH, ACTIVE_BCD_PATH);
  }
}

EFI_STATUS
RepairActiveBcd (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root
  )
{
  CHAR16      Backup[BACKUP_PATH_CHARS];
  BOOLEAN     Exists;
  BOOLEAN     StoreKeptAside;
  EFI_STATUS  Status;

  if ((Context == nullptr) || (Root == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (!HasBcdMd5 (&Context->Requested)) {
    return EFI_NOT_FOUND;
  }

  // A backup that does not carry the group's digest cannot repair anything: find that
  // out before the active store is moved.
  UnicodeSPrint (Backup, sizeof (Backup), L16 (u"\\boot\\backup\\%s"), Context->Requested.Bcd);
  Status = FileMatchesBcdMd5 (Root, Backup, &Context->Requested);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  StoreKeptAside = FALSE;
  Status         = FileExists (Root, ACTIVE_BCD_PATH, &Exists);
  if (!EFI_ERROR (Status)) {
    // The store kept aside by an earlier repair may be the only copy of its bytes.
    Status = MakeRoomAt (Volume, Root, ACTIVE_BCD_BAK_PATH);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    LogPrint (L16 (u"BCD atomico: \\boot\\BCD presente ma non coerente, sposto in \\boot\\BCD_BAK\n"));
    Status = RenameVerified (Volume, Root, ACTIVE_BCD_PATH, ACTIVE_BCD_BAK_PATH);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    StoreKeptAside = TRUE;
  } else if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  LogPrint (L16 (u"BCD atomico: recupero BCD coerente da %s\n"), Backup);
  Status = CopyFileVerified (Root, Backup, ACTIVE_BCD_PATH);
  if (Status == EFI_ACCESS_DENIED) {
    // "\boot\BCD" holds a store after all (its test answered wrongly): it is not ours
    // to move, and the copy did not touch it.
    return Status;
  }

  if (!EFI_ERROR (Status)) {
    Status = FileMatchesBcdMd5 (Root, ACTIVE_BCD_PATH, &Context->Requested);
  }

  if (EFI_ERROR (Status)) {
    UndoRepair (Volume, Root, StoreKeptAside);
  }

  return Status;
}

EFI_STATUS
ReadActiveRecordState (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_HANDLE                Volume,
  IN  EFI_FILE_PROTOCOL         *Root,
  IN  CONST CHAR16              *RecordPath,
  IN  CONST CHAR8               *EntriesText,
  OUT GROUP_STATE               *State
  )
{
  PoolGuard<CHAR8>  Text;
  CHAR8             Id[VELMARO_NAME_CHARS];
  EFI_STATUS        Status;

  if ((Context == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  ZeroMem (State, sizeof (*State));
  Status = ReadWholeFile (Root, RecordPath, Text.Out ());
  if (!EFI_ERROR (Status)) {
    Status = RecordMatchesVolume (Volume, Context->BootHandle, Text.Get ());
  }

  if (!EFI_ERROR (Status)) {
    Status = RecordReadId (Text.Get (), Id);
  }

  if (!EFI_ERROR (Status)) {
    Status = LookupGroupInEntries (EntriesText, Id, State);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FindMd5ByKey (State->BcdMd5, Text.Get (), "BCD_MD5|");
  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  Status = RecordReadSrcFs (Text.Get (), State->SrcFs);
  if (Status == EFI_NOT_FOUND) {
    if (EFI_ERROR (DetectFsType (Volume, State->SrcFs, VELMARO_FS_CHARS))) {
      StrCpyS (State->SrcFs, VELMARO_FS_CHARS, L16 (u"FAT32"));
    }

    Status = EFI_SUCCESS;
  }

  return Status;
}

/** Renames Path to Target when Target is free; moves Path aside when the name is taken. **/
STATIC
EFI_STATUS
MoveToGroupName (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR16       *Target
  )
{
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if (StrCmp (Target, Path) == 0) {
    return MoveAsideToBak (Volume, Root, Path);
  }

  Status = FileExists (Root, Target, &Exists);
  if (Status == EFI_NOT_FOUND) {
    return RenameVerified (Volume, Root, Path, Target);
  }

  return EFI_ERROR (Status) ? Status : MoveAsideToBak (Volume, Root, Path);
}

EFI_STATUS
NormalizeBcdByMd5 (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root,
  IN CONST CHAR16              *Path
  )
{
  CHAR16                 Digest[VELMARO_MD5_CHARS];
  CHAR16                 Name[VELMARO_NAME_CHARS];
  CHAR16                 Target[BOOT_PATH_CHARS];
  CHAR16                 DigestPath[DIGEST_PATH_CHARS];
  CHAR16                 Listed[VELMARO_MD5_CHARS];
  GROUP_STATE            Record;
  PoolGuard<ENTRY_NAME>  Names;
  UINTN                  Count;
  CONST CHAR16           *Match;
  BOOLEAN                Ambiguous;
  BOOLEAN                Exists;
  EFI_STATUS             Status;

  if ((Context == nullptr) || (Root == nullptr) || (Path == nullptr) || (Context->EntriesText == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Md5OfFile (Root, Path, Digest);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"BCD %s: calcolo MD5 fallito, nessuna modifica: %r (0x%lx)\n"), Path, Status, Status);
    return Status;
  }

  // 1. The install metadata knows every image's store digest.
  Status = LookupBcdNameByMd5 (Context->BootRoot, Digest, Name);
  if (!EFI_ERROR (Status)) {
    UnicodeSPrint (Target, sizeof (Target), L16 (u"\\boot\\%s"), Name);
    if (StrCmp (Target, Path) != 0) {
      Status = FileExists (Root, Target, &Exists);
      if (Status == EFI_NOT_FOUND) {
        LogPrint (L16 (u"Recovery BCD: MD5 trovato in software.xml, ripristino %s -> %s\n"), Path, Target);
        return RenameVerified (Volume, Root, Path, Target);
      }

      if (EFI_ERROR (Status)) {
        return Status;
      }
    }
  } else if (Status != EFI_NOT_FOUND) {
    LogPrint (L16 (u"WARN: software.xml non usabile per identificare BCD %s: %r (0x%lx)\n"), Path, Status, Status);
  }

  // 2. The record of the group whose source folder is active.
  Status = ReadActiveRecordState (Context, Volume, Root, ACTIVE_RECORD_PATH, Context->EntriesText, &Record);
  if (!EFI_ERROR (Status) && HasBcdMd5 (&Record) && (StrCmp (Record.BcdMd5, Digest) == 0)) {
    UnicodeSPrint (Target, sizeof (Target), L16 (u"\\boot\\%s"), Record.Bcd);
    return MoveToGroupName (Volume, Root, Path, Target);
  }

  // 3. The digest files next to every group's backup; two groups with one digest name none.
  Names.Reset (static_cast<ENTRY_NAME *>(AllocateZeroPool (ENTRY_BCD_NAMES_MAX * sizeof (ENTRY_NAME))));
  if (!Names || EFI_ERROR (ListEntryBcdNames (Context->EntriesText, Names.Get (), &Count))) {
    return MoveAsideToBak (Volume, Root, Path);
  }

  Match     = nullptr;
  Ambiguous = FALSE;
  for (UINTN Index = 0; Index < Count; Index++) {
    UnicodeSPrint (DigestPath, sizeof (DigestPath), L16 (u"\\boot\\backup\\%s.md5"), Names.Get ()[Index]);
    if (EFI_ERROR (ReadMd5File (Root, DigestPath, Listed)) || (StrCmp (Listed, Digest) != 0)) {
      continue;
    }

    if (Match == nullptr) {
      Match = Names.Get ()[Index];
    } else if (StrCmp (Match, Names.Get ()[Index]) != 0) {
      Ambiguous = TRUE;
    }
  }

  if (Match == nullptr) {
    return MoveAsideToBak (Volume, Root, Path);
  }

  if (Ambiguous) {
    LogPrint (L16 (u"BCD %s: stesso MD5 associato a piu nomi, nessun nome scelto per solo MD5\n"), Path);
    return MoveAsideToBak (Volume, Root, Path);
  }

  UnicodeSPrint (Target, sizeof (Target), L16 (u"\\boot\\%s"), Match);
  return MoveToGroupName (Volume, Root, Path, Target);
}
