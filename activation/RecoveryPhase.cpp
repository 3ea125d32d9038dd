/** @file
  The recovery phase: before another group takes the active names, the group that has
  them gets its own names back. The state file only says where to look; the volume
  decides. Nothing here is undone after a failure: a piece back under its own name is
  where it belongs.
**/

#include <activation/RecoveryPhase.h>
#include <activation/BcdStores.h>
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

VOID
LogRecoveryStep (
  IN CONST CHAR16  *Label,
  IN CONST CHAR16  *Name,
  IN EFI_STATUS    Status
  )
{
  CONST CHAR16  *Shown;

  Shown = ((Name == nullptr) || (Name[0] == L'\0')) ? L16 (u"(unknown)") : Name;
  if (Status == EFI_SUCCESS) {
    LogPrint (L16 (u"recovery %s: %s=%s OK\n"), Label, Label, Shown);
  } else if (Status == EFI_NOT_FOUND) {
    LogPrint (L16 (u"recovery %s: %s=%s SKIP (not active)\n"), Label, Label, Shown);
  } else {
    LogPrint (L16 (u"recovery %s: %s=%s KO %r (0x%lx)\n"), Label, Label, Shown, Status, Status);
  }
}

/** Reads the active record again after a change and takes its "BCD_MD5|" digest. **/
STATIC
EFI_STATUS
ReadRecordBcdMd5 (
  IN  EFI_FILE_PROTOCOL  *Root,
  OUT GROUP_STATE        *Group
  )
{
  PoolGuard<CHAR8>  Text;
  EFI_STATUS        Status;

  Status = ReadWholeFile (Root, ACTIVE_RECORD_PATH, Text.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FindMd5ByKey (Group->BcdMd5, Text.Get (), "BCD_MD5|");
  return (Status == EFI_NOT_FOUND) ? EFI_SUCCESS : Status;
}

/**
  Path holds the group's store: any store when no digest is known, else one that
  carries the digest. EFI_COMPROMISED_DATA when the digest differs.
**/
STATIC
EFI_STATUS
StoreIsGroups (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST GROUP_STATE  *Group
  )
{
  return HasBcdMd5 (Group) ? FileMatchesBcdMd5 (Root, Path, Group) : EFI_SUCCESS;
}

/**
  StoreIsGroups of a path that may be absent: EFI_NOT_FOUND when it does not open because
  it is absent. With a digest known the digest's own open tells that, so the store is
  opened once.
**/
STATIC
EFI_STATUS
PresentStoreIsGroups (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST GROUP_STATE  *Group
  )
{
  BOOLEAN  Exists;

  return HasBcdMd5 (Group) ? FileMatchesBcdMd5 (Root, Path, Group) : FileExists (Root, Path, &Exists);
}

/** The group's store comes back from its backup, proved by the digest where one is known. **/
STATIC
EFI_STATUS
RestoreBcdFromBackup (
  IN     EFI_FILE_PROTOCOL  *Root,
  IN     CONST CHAR16       *GroupPath,
  IN OUT GROUP_STATE        *Group
  )
{
  CHAR16      Backup[BACKUP_PATH_CHARS];
  CHAR16      Digest[DIGEST_PATH_CHARS];
  EFI_STATUS  Status;

  UnicodeSPrint (Backup, sizeof (Backup), L16 (u"\\boot\\backup\\%s"), Group->Bcd);
  if (!HasBcdMd5 (Group)) {
    UnicodeSPrint (Digest, sizeof (Digest), L16 (u"\\boot\\backup\\%s.md5"), Group->Bcd);
    Status = ReadMd5File (Root, Digest, Group->BcdMd5);
    if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
      return Status;
    }
  }

  Status = StoreIsGroups (Root, Backup, Group);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = CopyFileVerified (Root, Backup, GroupPath);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return StoreIsGroups (Root, GroupPath, Group);
}

EFI_STATUS
RecoverActiveBcd (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR8         *EntriesText,
  OUT    CHAR16              *BcdName
  )
{
  PoolGuard<CHAR8>  Text;
  CHAR8             Id[VELMARO_NAME_CHARS];
  GROUP_STATE       Group;
  CHAR16            GroupPath[BOOT_PATH_CHARS];
  BOOLEAN           Exists;
  EFI_STATUS        Status;

  if ((Context == nullptr) || (Root == nullptr) || (BcdName == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  BcdName[0] = L'\0';
  Status     = FileExists (Root, ACTIVE_SOURCES_PATH, &Exists);
  if (EFI_ERROR (Status)) {
    return EFI_NOT_FOUND;
  }

  // The active record inside "\sources" says which group the active store is.
  Status = ReadWholeFile (Root, ACTIVE_RECORD_PATH, Text.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  CHAR8  *Refreshed = Text.Release ();

  Status = RefreshActiveRecord (Volume, Root, &Refreshed);
  Text.Reset (Refreshed);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = RecordMatchesVolume (Volume, Context->BootHandle, Text.Get ());
  if (!EFI_ERROR (Status)) {
    Status = ActiveMarkerMatchesRecord (Root, Text.Get ());
  }

  if (!EFI_ERROR (Status)) {
    Status = RecordReadId (Text.Get (), Id);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = LookupGroupInEntries (EntriesText, Id, &Group);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Recovery BCD: ID %a non risolto in NUR, provo software.xml: %r (0x%lx)\n"), Id, Status, Status);
    Status = LookupGroupNames (Context->BootRoot, Id, &Group);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  // Metadata may name a group without a store: "\boot\" is no store to restore.
  if (Group.Bcd[0] == L'\0') {
    return EFI_COMPROMISED_DATA;
  }

  StrCpyS (BcdName, VELMARO_NAME_CHARS, Group.Bcd);
  UnicodeSPrint (GroupPath, sizeof (GroupPath), L16 (u"\\boot\\%s"), Group.Bcd);

  // A record that carries the digest already is not written, and the text in hand is
  // the file: only a record that gets the key now is read again.
  Status = FindMd5ByKey (Group.BcdMd5, Text.Get (), "BCD_MD5|");
  if (Status == EFI_NOT_FOUND) {
    Status = RecordAddBcdMd5 (Root, ACTIVE_RECORD_PATH, Text.Get (), GroupPath);
    if (!EFI_ERROR (Status)) {
      Status = ReadRecordBcdMd5 (Root, &Group);
    }
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  // The group name already holds a store: it is either the group's or not ours to touch.
  Status = PresentStoreIsGroups (Root, GroupPath, &Group);
  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  Status = PresentStoreIsGroups (Root, ACTIVE_BCD_PATH, &Group);
  if (!EFI_ERROR (Status)) {
    return RenameVerified (Volume, Root, ACTIVE_BCD_PATH, GroupPath);
  }

  // "\boot\BCD" is absent or another store: it stays, and the group's comes from its backup.
  if ((Status != EFI_NOT_FOUND) && (Status != EFI_COMPROMISED_DATA)) {
    return Status;
  }

  return RestoreBcdFromBackup (Root, GroupPath, &Group);
}

/**
  The group that the marker-ID files in Folder name. The folder is opened once: a folder
  that does not open answers that status in *Opened and the scan does not run; otherwise
  *Opened is EFI_SUCCESS and the scan's answer is returned.
**/
STATIC
EFI_STATUS
FolderOwner (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_FILE_PROTOCOL         *Root,
  IN  CONST CHAR16              *Folder,
  OUT EFI_STATUS                *Opened,
  OUT GROUP_STATE               *Owner
  )
{
  FileGuard  Dir;
  CHAR8      Id[VELMARO_NAME_CHARS];

  *Opened = Root->Open (Root, Dir.Out (), const_cast<CHAR16 *>(Folder), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (*Opened)) {
    return *Opened;
  }

  return IdentifyOpenFolderByMarker (Context, Dir.Get (), MarkerLookup::Entries, Id, Owner);
}

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
  )
{
  GROUP_STATE  Owner;
  CHAR16       GroupPath[RECOVERY_GROUP_PATH_CHARS];
  EFI_STATUS   Opened;
  EFI_STATUS   Status;

  // The owner of a folder is looked up in the run's entries text, which is EntriesText.
  (VOID)EntriesText;
  if ((Context == nullptr) || (Root == nullptr) || (ActivePath == nullptr) || (GroupFormat == nullptr) || (Name == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Name[0] = L'\0';
  if ((CurrentName == nullptr) || (CurrentName[0] == L'\0')) {
    return EFI_NOT_FOUND;
  }

  // A folder that does not open is not there to restore; one that opens is read as it is.
  Status = FolderOwner (Context, Root, ActivePath, &Opened, &Owner);
  if (EFI_ERROR (Opened)) {
    return Opened;
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Recovery %s: marker ID non risolto in %s: %r (0x%lx)\n"), Label, ActivePath, Status, Status);
    return Status;
  }

  if (!GroupNamesEqual (&Owner, &Context->Current)) {
    LogPrint (L16 (u"Recovery %s: stato marker in %s non coincide con current state\n"), Label, ActivePath);
    return EFI_NOT_FOUND;
  }

  StrCpyS (Name, VELMARO_NAME_CHARS, CurrentName);
  UnicodeSPrint (GroupPath, sizeof (GroupPath), GroupFormat, CurrentName);
  Status = FolderOwner (Context, Root, GroupPath, &Opened, &Owner);
  if (Opened == EFI_NOT_FOUND) {
    return RenameVerified (Volume, Root, ActivePath, GroupPath);
  }

  if (EFI_ERROR (Opened)) {
    return Opened;
  }

  // Both names hold the current group: the group name stays, the active one is the
  // duplicate and is kept aside, never deleted.
  if (!EFI_ERROR (Status) && GroupNamesEqual (&Owner, &Context->Current)) {
    return MoveAsideToBak (Volume, Root, ActivePath);
  }

  LogPrint (L16 (u"Recovery %s: destinazione %s non coincide con current state: %r (0x%lx)\n"), Label, GroupPath, Status, Status);
  return EFI_NOT_FOUND;
}

/** On an NTFS or exFAT partition the EFI BCD store digest comes from the active record. **/
STATIC
EFI_STATUS
TakeEfiBcdDigest (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_FILE_PROTOCOL   *Root
  )
{
  PoolGuard<CHAR8>  Text;
  CHAR16            Digest[VELMARO_MD5_CHARS];
  EFI_STATUS        Status;

  Status = ReadWholeFile (Root, ACTIVE_RECORD_PATH, Text.Out ());
  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  // A record without the key leaves the digest the state file gave.
  Status = FindMd5ByKey (Digest, Text.Get (), "BCD_EFI_MD5|");
  if (!EFI_ERROR (Status)) {
    StrCpyS (Context->Current.BcdEfiMd5, VELMARO_MD5_CHARS, Digest);
  }

  return (Status == EFI_NOT_FOUND) ? EFI_SUCCESS : Status;
}

EFI_STATUS
RecoverActiveGroup (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR8         *EntriesText
  )
{
  GROUP_STATE  *Current;
  CHAR16       Name[VELMARO_NAME_CHARS];
  CHAR16       Target[RECOVERY_EFI_STORE_PATH_CHARS];
  BOOLEAN      SecondPartition;
  EFI_STATUS   Status;

  if ((Context == nullptr) || (Root == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Current         = &Context->Current;
  SecondPartition = IsExternalSourceFs (Current);
  if (SecondPartition) {
    Status = TakeEfiBcdDigest (Context, Root);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  Status = RecoverActiveBcd (Context, Volume, Root, EntriesText, Name);
  LogRecoveryStep (L16 (u"BCD"), Name, Status);
  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  Status = RecoverActiveFolder (Context, Volume, Root, ACTIVE_SOURCES_PATH, L16 (u"\\%s"), Current->Src, EntriesText, L16 (u"SRC"), Name);
  LogRecoveryStep (L16 (u"SRC"), Name, Status);
  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  if (SecondPartition) {
    // There "\efi\microsoft" itself never moves: only the store inside it changes.
    UnicodeSPrint (Target, sizeof (Target), L16 (u"\\efi\\microsoft\\boot\\%s"), Current->Bcd);
    Status = PrepareEfiBcd (Context, Volume, Root, Current, Target);
    LogRecoveryStep (L16 (u"BCD_EFI"), Current->Bcd, Status);
  } else {
    Status = RecoverActiveFolder (Context, Volume, Root, L16 (u"\\efi\\microsoft"), L16 (u"\\efi\\%s"), Current->Efi, EntriesText, L16 (u"EFI"), Name);
    LogRecoveryStep (L16 (u"EFI"), Name, Status);
  }

  return (Status == EFI_NOT_FOUND) ? EFI_SUCCESS : Status;
}

EFI_STATUS
FindCurrentPartition (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  CONST CHAR16              *SrcPart,
  OUT EFI_HANDLE                *Handle,
  OUT EFI_FILE_PROTOCOL         **Root,
  OUT BOOLEAN                   *Opened
  )
{
  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  Count;
  UINTN                  Index;
  CHAR16                 Uuid[UUID_TEXT_CHARS];
  EFI_STATUS             Status;

  if ((Context == nullptr) || (SrcPart == nullptr) || (Handle == nullptr) || (Root == nullptr) || (Opened == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Handle = nullptr;
  *Root   = nullptr;
  *Opened = FALSE;
  Status  = ReadVolumeUuid (Context->BootHandle, Uuid, UUID_TEXT_CHARS);
  if (!EFI_ERROR (Status) && (StrCmp (Uuid, SrcPart) == 0)) {
    *Handle = Context->BootHandle;
    *Root   = Context->BootRoot;
    return EFI_SUCCESS;
  }

  Status = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (Index = 0; Index < Count; Index++) {
    EFI_HANDLE  Candidate = Handles.Get ()[Index];

    if ((Candidate == Context->BootHandle) || !IsSiblingPartition (Context->BootHandle, Candidate)) {
      continue;
    }

    Status = ReadVolumeUuid (Candidate, Uuid, UUID_TEXT_CHARS);
    if (EFI_ERROR (Status) || (StrCmp (Uuid, SrcPart) != 0)) {
      continue;
    }

    Status = OpenRoot (Candidate, Root);
    if (EFI_ERROR (Status)) {
      *Root = nullptr;
      return Status;
    }

    *Handle = Candidate;
    *Opened = TRUE;
    return EFI_SUCCESS;
  }

  return EFI_NOT_FOUND;
}

EFI_STATUS
RecoverOnVisiblePartitions (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR8         *EntriesText
  )
{
  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  Count;
  UINTN                  Index;
  EFI_STATUS             Status;

  if (Context == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Status = RecoverActiveGroup (Context, Context->BootHandle, Context->BootRoot, EntriesText);
  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  Status = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (Index = 0; Index < Count; Index++) {
    EFI_HANDLE  Candidate = Handles.Get ()[Index];
    FileGuard   Root;

    if ((Candidate == Context->BootHandle) || !IsSiblingPartition (Context->BootHandle, Candidate)) {
      continue;
    }

    if (EFI_ERROR (OpenRoot (Candidate, Root.Out ()))) {
      continue;
    }

    Status = RecoverActiveGroup (Context, Candidate, Root.Get (), EntriesText);
    if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
      return Status;
    }
  }

  return EFI_SUCCESS;
}

EFI_STATUS
RunRecoveryPhase (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR8         *EntriesText
  )
{
  EFI_HANDLE         Handle;
  EFI_FILE_PROTOCOL  *Root;
  BOOLEAN            Opened;
  EFI_STATUS         Status;

  if ((Context == nullptr) || (EntriesText == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (Context->Current.SrcPart[0] == L'\0') {
    LogPrint (L16 (u"Ripristino atomico: SRC_PART corrente assente, uso recovery legacy su partizioni visibili\n"));
    return RecoverOnVisiblePartitions (Context, EntriesText);
  }

  LogPrint (
    L16 (u"Ripristino atomico: uso solo partizione corrente SRC_FS=%s SRC_PART=%s\n"),
    (Context->Current.SrcFs[0] == L'\0') ? L16 (u"(unknown)") : Context->Current.SrcFs,
    Context->Current.SrcPart
    );

  Status = FindCurrentPartition (Context, Context->Current.SrcPart, &Handle, &Root, &Opened);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: partizione corrente non aperta per ripristino atomico SRC_PART=%s: %r (0x%lx)\n"), Context->Current.SrcPart, Status, Status);
    return Status;
  }

  // Only a root opened here is closed here; the boot root belongs to the run.
  FileGuard  Owned (Opened ? Root : nullptr);

  return RecoverActiveGroup (Context, Handle, Root, EntriesText);
}
