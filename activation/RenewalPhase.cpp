/** @file
  The renewal phase: the requested group takes the active names. Nothing is renamed
  before the volume and all three pieces are proved to be the group's, and a rename
  that fails takes back this run's earlier ones, so the stick is never left with half a
  group under the active names by our own doing.
**/

#include <activation/RenewalPhase.h>
#include <activation/BcdStores.h>
#include <activation/ShellMove.h>
#include <app/DiagnosticLog.h>
#include <data/EntriesFile.h>
#include <data/RecoveryRecord.h>
#include <discovery/FsIdentification.h>
#include <discovery/InstallMetadata.h>
#include <fs/AsciiText.h>
#include <fs/FileAccess.h>
#include <fs/Md5.h>
#include <fs/VerifiedChange.h>
#include <Guards.h>

EFI_STATUS
RebuildRequestedState (
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR8        *EntriesText,
  IN  CONST CHAR8        *GroupIdAscii,
  OUT GROUP_STATE        *State
  )
{
  CHAR16      Fs[VELMARO_FS_CHARS];
  CHAR16      Uuid[UUID_TEXT_CHARS];
  EFI_STATUS  Status;

  if (State == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  ZeroMem (State, sizeof (*State));
  Status = LookupGroupInEntries (EntriesText, GroupIdAscii, State);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // A group the metadata does not place on a second partition lives on FAT32.
  Status = LookupSourceMetadata (BootRoot, GroupIdAscii, Fs, Uuid);
  if (EFI_ERROR (Status)) {
    StrCpyS (State->SrcFs, VELMARO_FS_CHARS, L16 (u"FAT32"));
    return EFI_SUCCESS;
  }

  StrCpyS (State->SrcFs, VELMARO_FS_CHARS, Fs);
  if (Uuid[0] != L'\0') {
    StrCpyS (State->SrcPart, VELMARO_NAME_CHARS, Uuid);
  }

  return EFI_SUCCESS;
}

EFI_STATUS
VerifySourceFsAtomic (
  IN     EFI_HANDLE   SourceHandle,
  IN OUT GROUP_STATE  *State
  )
{
  CHAR16      Uuid[UUID_TEXT_CHARS];
  CHAR16      Fs[VELMARO_FS_CHARS];
  EFI_STATUS  Status;

  if (State == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Status = ReadVolumeUuid (SourceHandle, Uuid, UUID_TEXT_CHARS);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, SRC_PART reale non letto da SOURCE_FS: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  Status = DetectFsType (SourceHandle, Fs, VELMARO_FS_CHARS);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, SRC_FS reale non letto da SOURCE_FS: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  if (State->SrcFs[0] == L'\0') {
    StrCpyS (State->SrcFs, VELMARO_FS_CHARS, L16 (u"FAT32"));
  }

  if (!FsNameEquals (State->SrcFs, Fs)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, SOURCE_FS non atomico: atteso FS=%s reale FS=%s\n"), State->SrcFs, Fs);
    return EFI_NOT_FOUND;
  }

  if ((State->SrcPart[0] != L'\0') && (StrCmp (State->SrcPart, Uuid) != 0)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, SOURCE_FS non atomico: atteso UUID=%s reale UUID=%s\n"), State->SrcPart, Uuid);
    return EFI_NOT_FOUND;
  }

  if (State->SrcPart[0] == L'\0') {
    StrCpyS (State->SrcPart, VELMARO_NAME_CHARS, Uuid);
  }

  LogPrint (L16 (u"Fase rinomina: SOURCE_FS atomico verificato SRC_FS=%s SRC_PART=%s\n"), State->SrcFs, State->SrcPart);
  return EFI_SUCCESS;
}

EFI_STATUS
CheckActiveBcd (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_HANDLE                SourceHandle,
  IN  EFI_FILE_PROTOCOL         *SourceRoot,
  IN  CONST GROUP_STATE         *State,
  OUT BOOLEAN                   *BcdActive
  )
{
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((State == nullptr) || (BcdActive == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *BcdActive = FALSE;
  Status     = FileExists (SourceRoot, ACTIVE_BCD_PATH, &Exists);
  if (EFI_ERROR (Status)) {
    return EFI_SUCCESS;
  }

  if (HasBcdMd5 (State)) {
    Status = FileMatchesBcdMd5 (SourceRoot, ACTIVE_BCD_PATH, State);
    if (!EFI_ERROR (Status)) {
      *BcdActive = TRUE;
      return EFI_SUCCESS;
    }

    if ((Status != EFI_COMPROMISED_DATA) && (Status != EFI_NOT_FOUND)) {
      return Status;
    }
  }

  // A store we cannot prove to be the group's goes to the group it does belong to.
  LogPrint (L16 (u"Fase rinomina: \\boot\\BCD presente ma non coerente, provo normalizzazione atomica via MD5\n"));
  return NormalizeBcdByMd5 (Context, SourceHandle, SourceRoot, ACTIVE_BCD_PATH);
}

EFI_STATUS
VerifyDestinationGroupAtomic (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                SourceHandle,
  IN     CONST CHAR8               *OtherId,
  IN OUT GROUP_STATE               *Other
  )
{
  CHAR16      RealFs[VELMARO_FS_CHARS];
  CHAR16      RealUuid[UUID_TEXT_CHARS];
  CHAR16      Fs[VELMARO_FS_CHARS];
  CHAR16      Uuid[UUID_TEXT_CHARS];
  EFI_STATUS  Status;

  if ((Context == nullptr) || (OtherId == nullptr) || (Other == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = DetectFsType (SourceHandle, RealFs, VELMARO_FS_CHARS);
  if (!EFI_ERROR (Status)) {
    Status = ReadVolumeUuid (SourceHandle, RealUuid, UUID_TEXT_CHARS);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = LookupSourceMetadata (Context->BootRoot, OtherId, Fs, Uuid);
  if (Status == EFI_NOT_FOUND) {
    if (!FsNameEquals (RealFs, L16 (u"FAT32"))) {
      LogPrint (L16 (u"Fase rinomina: destinazione con ID %a senza metadata software.xml su FS non FAT32: %s\n"), OtherId, RealFs);
      return EFI_NOT_FOUND;
    }

    StrCpyS (Other->SrcFs, VELMARO_FS_CHARS, L16 (u"FAT32"));
    StrCpyS (Other->SrcPart, VELMARO_NAME_CHARS, RealUuid);
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!FsNameEquals (Fs, RealFs)) {
    LogPrint (L16 (u"Fase rinomina: destinazione con ID %a non atomica: FS atteso=%s reale=%s\n"), OtherId, Fs, RealFs);
    return EFI_NOT_FOUND;
  }

  if ((Uuid[0] != L'\0') && (StrCmp (Uuid, RealUuid) != 0)) {
    LogPrint (L16 (u"Fase rinomina: destinazione con ID %a non atomica: UUID atteso=%s reale=%s\n"), OtherId, Uuid, RealUuid);
    return EFI_NOT_FOUND;
  }

  StrCpyS (Other->SrcFs, VELMARO_FS_CHARS, Fs);
  StrCpyS (Other->SrcPart, VELMARO_NAME_CHARS, (Uuid[0] != L'\0') ? Uuid : RealUuid);
  return EFI_SUCCESS;
}

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
  )
{
  CHAR8        OwnerId[VELMARO_NAME_CHARS];
  GROUP_STATE  Owner;
  CHAR16       OwnName[GROUP_EFI_PATH_CHARS];
  BOOLEAN      Exists;
  EFI_STATUS   Status;

  (VOID)Label;
  if ((Context == nullptr) || (Destination == nullptr) || (RequestedId == nullptr) || (Active == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Active = FALSE;
  Status  = FileExists (SourceRoot, Destination, &Exists);
  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = MarkerIdFileExists (SourceRoot, Destination, RequestedId);
  if (!EFI_ERROR (Status)) {
    *Active = TRUE;
    return EFI_SUCCESS;
  }

  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  Status = IdentifyFolderByMarker (Context, SourceRoot, Destination, MarkerLookup::MetadataFirst, OwnerId, &Owner);
  if (Status == EFI_NOT_FOUND) {
    LogPrint (L16 (u"Destinazione %s non attribuibile/coerente, sposto in .bak: %r (0x%lx)\n"), Destination, EFI_NOT_FOUND, EFI_NOT_FOUND);
    return MoveAsideToBak (SourceHandle, SourceRoot, Destination);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = VerifyDestinationGroupAtomic (Context, SourceHandle, OwnerId, &Owner);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  UnicodeSPrint (OwnName, sizeof (OwnName), IsSourceFolder ? L16 (u"\\%s") : L16 (u"\\efi\\%s"), IsSourceFolder ? Owner.Src : Owner.Efi);
  if (StrCmp (OwnName, Destination) == 0) {
    LogPrint (L16 (u"Fase rinomina: destinazione %s contiene ID diverso valido %a gia nel nome originale\n"), Destination, OwnerId);
    return EFI_SUCCESS;
  }

  Status = FileExists (SourceRoot, OwnName, &Exists);
  if (!EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, destinazione originale gia presente per ID %a: %s\n"), OwnerId, OwnName);
    return EFI_ALREADY_STARTED;
  }

  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  LogPrint (L16 (u"Fase rinomina: destinazione %s contiene ID diverso valido %a, normalizzo in %s\n"), Destination, OwnerId, OwnName);
  return RenameVerified (SourceHandle, SourceRoot, Destination, OwnName);
}

/** PrepareDestination as the phase runs it: an owner that does not belong here leaves
    the destination as it is; anything else that fails ends the phase. **/
STATIC
EFI_STATUS
ClearDestination (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_HANDLE                SourceHandle,
  IN  EFI_FILE_PROTOCOL         *SourceRoot,
  IN  CONST CHAR16              *Destination,
  IN  CONST CHAR8               *RequestedId,
  IN  CONST CHAR16              *Label,
  IN  BOOLEAN                   IsSourceFolder,
  OUT BOOLEAN                   *Active
  )
{
  EFI_STATUS  Status;

  Status = PrepareDestination (Context, SourceHandle, SourceRoot, Destination, RequestedId, Label, IsSourceFolder, Active);
  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, destinazione %s non recuperabile: %s: %r (0x%lx)\n"), Label, Destination, Status, Status);
  }

  return Status;
}

/** Loads the group's digest from "\boot\backup\<Bcd>.md5" unless one is known. **/
STATIC
EFI_STATUS
LoadBackupDigest (
  IN     EFI_FILE_PROTOCOL  *SourceRoot,
  IN OUT GROUP_STATE        *State
  )
{
  CHAR16      Digest[DIGEST_PATH_CHARS];
  EFI_STATUS  Status;

  if (HasBcdMd5 (State)) {
    return EFI_SUCCESS;
  }

  UnicodeSPrint (Digest, sizeof (Digest), L16 (u"\\boot\\backup\\%s.md5"), State->Bcd);
  Status = ReadMd5File (SourceRoot, Digest, State->BcdMd5);
  return (Status == EFI_NOT_FOUND) ? EFI_SUCCESS : Status;
}

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
  )
{
  CHAR8       Id[VELMARO_NAME_CHARS];
  CHAR16      Backup[BACKUP_PATH_CHARS];
  BOOLEAN     Exists;
  BOOLEAN     Coherent;
  EFI_STATUS  Status;

  if ((Context == nullptr) || (State == nullptr) || (GroupBcd == nullptr) || (GroupSrc == nullptr) || (GroupEfi == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = NarrowToAscii (Id, sizeof (Id), Context->GroupId);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!SrcActive) {
    Status = ValidateRequestedSourcePath (Context, SourceHandle, SourceRoot, GroupSrc, Id);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina, SRC non coerente: %s: %r (0x%lx)\n"), GroupSrc, Status, Status);
      return Status;
    }
  }

  if (!EfiActive) {
    Status = MarkerIdFileExists (SourceRoot, GroupEfi, Id);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina, EFI non coerente: %s: %r (0x%lx)\n"), GroupEfi, Status, Status);
      return Status;
    }
  }

  Status = LoadBackupDigest (SourceRoot, State);
  if (EFI_ERROR (Status) || BcdActive) {
    return Status;
  }

  // With a digest known, the digest's own open tells whether the store is there (absent:
  // EFI_NOT_FOUND), so the store is opened once.
  if (HasBcdMd5 (State)) {
    Status = FileMatchesBcdMd5 (SourceRoot, GroupBcd, State);
    Exists = (Status != EFI_NOT_FOUND);
  } else {
    Status = FileExists (SourceRoot, GroupBcd, &Exists);
  }

  if (EFI_ERROR (Status) && (Status != EFI_COMPROMISED_DATA) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  Coherent = !EFI_ERROR (Status);

  if (!Coherent) {
    // A wrong store under the group's name belongs to someone: it goes to its owner's
    // name or aside before the backup is copied in.
    UnicodeSPrint (Backup, sizeof (Backup), L16 (u"\\boot\\backup\\%s"), State->Bcd);
    LogPrint (L16 (u"Fase rinomina: BCD sorgente assente/non coerente, recupero da %s\n"), Backup);
    if (Exists) {
      Status = NormalizeBcdByMd5 (Context, SourceHandle, SourceRoot, GroupBcd);
      if (EFI_ERROR (Status)) {
        return Status;
      }
    }

    Status = CopyFileVerified (SourceRoot, Backup, GroupBcd);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina, recupero BCD da backup fallito: %s -> %s: %r (0x%lx)\n"), Backup, GroupBcd, Status, Status);
      return Status;
    }
  }

  // A store whose digest was just compared and that nothing has touched since is not
  // read a second time; a store copied from the backup is.
  if (!Coherent && HasBcdMd5 (State)) {
    Status = FileMatchesBcdMd5 (SourceRoot, GroupBcd, State);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina, BCD non coerente: %s: %r (0x%lx)\n"), GroupBcd, Status, Status);
      return Status;
    }
  }

  return EFI_SUCCESS;
}

EFI_STATUS
RollbackRename (
  IN EFI_HANDLE         SourceHandle,
  IN EFI_FILE_PROTOCOL  *SourceRoot,
  IN CONST CHAR16       *GroupPath,
  IN CONST CHAR16       *ActivePath
  )
{
  EFI_STATUS  Status;

  Status = RenameVerified (SourceHandle, SourceRoot, ActivePath, GroupPath);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Rollback rinomina fallito: %s -> %s: %r (0x%lx)\n"), ActivePath, GroupPath, Status, Status);
  }

  return Status;
}

/** Takes back this run's renames, SRC first, then BCD; a rollback that fails is logged
    and the next one still runs. **/
STATIC
VOID
RollBack (
  IN EFI_HANDLE         SourceHandle,
  IN EFI_FILE_PROTOCOL  *SourceRoot,
  IN CONST CHAR16       *GroupBcd,
  IN CONST CHAR16       *GroupSrc,
  IN BOOLEAN            BcdRenamed,
  IN BOOLEAN            SrcRenamed
  )
{
  if (SrcRenamed) {
    RollbackRename (SourceHandle, SourceRoot, GroupSrc, ACTIVE_SOURCES_PATH);
  }

  if (BcdRenamed) {
    RollbackRename (SourceHandle, SourceRoot, GroupBcd, ACTIVE_BCD_PATH);
  }
}

/** Gives the group's EFI folder (or, off FAT32, its EFI BCD store) the active name. **/
STATIC
EFI_STATUS
RenewEfi (
  IN     EFI_HANDLE          ImageHandle,
  IN     EFI_HANDLE          SourceHandle,
  IN     EFI_FILE_PROTOCOL   *SourceRoot,
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN OUT GROUP_STATE         *Requested,
  IN     CONST CHAR16        *GroupEfi,
  IN     BOOLEAN             SecondPartition,
  IN     BOOLEAN             EfiActive
  )
{
  EFI_STATUS  Status;

  if (SecondPartition) {
    Status = PrepareEfiBcd (Context, SourceHandle, SourceRoot, Requested, ACTIVE_EFI_BCD_PATH);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina BCD EFI fallita: %r (0x%lx)\n"), Status, Status);
    }

    return Status;
  }

  if (EfiActive) {
    LogPrint (L16 (u"Fase rinomina: EFI gia attivo e coerente\n"));
    return EFI_SUCCESS;
  }

  // Another volume's folders are moved by the firmware's shell, as a technician would.
  if (SourceHandle == Context->BootHandle) {
    Status = RenameVerified (SourceHandle, SourceRoot, GroupEfi, ACTIVE_EFI_PATH);
  } else {
    Status = ShellMoveEfiFolder (ImageHandle, SourceHandle, SourceRoot, Requested->SrcPart, GroupEfi);
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: fase rinomina EFI fallita: %s -> \\efi\\microsoft: %r (0x%lx)\n"), GroupEfi, Status, Status);
  }

  return Status;
}

EFI_STATUS
RunRenewalRenames (
  IN     EFI_HANDLE          ImageHandle,
  IN     EFI_HANDLE          SourceHandle,
  IN     EFI_FILE_PROTOCOL   *SourceRoot,
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN OUT GROUP_STATE         *Requested
  )
{
  CHAR16      GroupBcd[BOOT_PATH_CHARS];
  CHAR16      GroupSrc[GROUP_SRC_PATH_CHARS];
  CHAR16      GroupEfi[GROUP_EFI_PATH_CHARS];
  CHAR8       Id[VELMARO_NAME_CHARS];
  BOOLEAN     SecondPartition;
  BOOLEAN     BcdActive;
  BOOLEAN     SrcActive;
  BOOLEAN     EfiActive;
  BOOLEAN     BcdRenamed;
  BOOLEAN     SrcRenamed;
  FileGuard   Fresh;
  EFI_STATUS  Status;

  if ((Context == nullptr) || (Requested == nullptr) || (SourceRoot == nullptr) ||
      (Requested->Bcd[0] == L'\0') || (Requested->Src[0] == L'\0') || (Requested->Efi[0] == L'\0'))
  {
    return EFI_INVALID_PARAMETER;
  }

  // The recovery changed the volume through roots of its own, and some drivers keep
  // showing a root's volume as it was when it was opened: the renewal looks through a
  // root opened now.
  Status = OpenRoot (SourceHandle, Fresh.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  SourceRoot = Fresh.Get ();
  UnicodeSPrint (GroupBcd, sizeof (GroupBcd), L16 (u"\\boot\\%s"), Requested->Bcd);
  UnicodeSPrint (GroupSrc, sizeof (GroupSrc), L16 (u"\\%s"), Requested->Src);
  UnicodeSPrint (GroupEfi, sizeof (GroupEfi), L16 (u"\\efi\\%s"), Requested->Efi);
  SecondPartition = IsExternalSourceFs (Requested);
  Status          = NarrowToAscii (Id, sizeof (Id), Context->GroupId);
  if (!EFI_ERROR (Status)) {
    Status = LoadBackupDigest (SourceRoot, Requested);
  }

  if (!EFI_ERROR (Status)) {
    Status = CheckActiveBcd (Context, SourceHandle, SourceRoot, Requested, &BcdActive);
  }

  if (!EFI_ERROR (Status)) {
    Status = ClearDestination (Context, SourceHandle, SourceRoot, ACTIVE_SOURCES_PATH, Id, L16 (u"SRC"), TRUE, &SrcActive);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (SecondPartition) {
    EfiActive = TRUE;
    LogPrint (L16 (u"Fase rinomina seconda partizione: non preparo cartella \\efi\\microsoft\n"));
  } else {
    Status = ClearDestination (Context, SourceHandle, SourceRoot, ACTIVE_EFI_PATH, Id, L16 (u"EFI"), FALSE, &EfiActive);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  Status = VerifyRenewalSources (SourceHandle, SourceRoot, Context, Requested, GroupBcd, GroupSrc, GroupEfi, BcdActive, SrcActive, EfiActive);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // Pieces that already carried their active names are neither renamed nor rolled back.
  BcdRenamed = FALSE;
  SrcRenamed = FALSE;
  if (BcdActive) {
    LogPrint (L16 (u"Fase rinomina: BCD gia attivo e coerente\n"));
  } else {
    Status = RenameVerified (SourceHandle, SourceRoot, GroupBcd, ACTIVE_BCD_PATH);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina BCD fallita: %s -> \\boot\\BCD: %r (0x%lx)\n"), GroupBcd, Status, Status);
      return Status;
    }

    BcdRenamed = TRUE;
  }

  if (SrcActive) {
    LogPrint (L16 (u"Fase rinomina: SRC gia attivo e coerente\n"));
  } else {
    Status = RenameVerified (SourceHandle, SourceRoot, GroupSrc, ACTIVE_SOURCES_PATH);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"ERRORE: fase rinomina SRC fallita: %s -> \\sources: %r (0x%lx)\n"), GroupSrc, Status, Status);
      RollBack (SourceHandle, SourceRoot, GroupBcd, GroupSrc, BcdRenamed, FALSE);
      return Status;
    }

    SrcRenamed = TRUE;
  }

  Status = RenewEfi (ImageHandle, SourceHandle, SourceRoot, Context, Requested, GroupEfi, SecondPartition, EfiActive);
  if (EFI_ERROR (Status)) {
    RollBack (SourceHandle, SourceRoot, GroupBcd, GroupSrc, BcdRenamed, SrcRenamed);
    return Status;
  }

  LogPrint (L16 (u"Fase rinomina: eseguiti solo BCD/SRC/EFI su SOURCE_FS\n"));
  return EFI_SUCCESS;
}
