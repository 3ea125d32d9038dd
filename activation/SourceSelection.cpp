/** @file
  Choosing the requested group's volume. A wrong choice would switch the wrong
  partition's names, so each kind of evidence must name exactly one volume; two matches
  are ambiguity, reported and passed on to the next kind, never settled by taking one.
**/

#include <activation/SourceSelection.h>
#include <activation/BcdStores.h>
#include <data/GroupDescription.h>
#include <discovery/DriverLoading.h>
#include <discovery/FsIdentification.h>
#include <discovery/InstallMetadata.h>
#include <fs/FileAccess.h>
#include <app/DiagnosticLog.h>
#include <Guards.h>

STATIC
CONST CHAR16 *
VolumeLabel (
  IN EFI_HANDLE  Handle,
  IN EFI_HANDLE  BootHandle
  )
{
  if (Handle == nullptr) {
    return L16 (u"UNKNOWN_FS");
  }

  return Handle == BootHandle ? L16 (u"BOOT_FS") : L16 (u"SECOND_FS");
}

STATIC
CONST CHAR16 *
OrPlaceholder (
  IN CONST CHAR16  *Text OPTIONAL,
  IN CONST CHAR16  *Placeholder
  )
{
  return (Text != nullptr) && (Text[0] != L'\0') ? Text : Placeholder;
}

STATIC
BOOLEAN
IsEmpty (
  IN CONST CHAR16  *Text OPTIONAL
  )
{
  return (Text == nullptr) || (Text[0] == L'\0');
}

/** The volume's root: the boot root for the boot volume, otherwise one opened here
    (Owned TRUE), which the caller closes. **/
STATIC
EFI_STATUS
RootOf (
  IN  EFI_HANDLE         Handle,
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  OUT EFI_FILE_PROTOCOL  **Root,
  OUT BOOLEAN            *Owned
  )
{
  *Owned = FALSE;
  if (Handle == BootHandle) {
    *Root = BootRoot;
    return EFI_SUCCESS;
  }

  *Owned = TRUE;
  return OpenRoot (Handle, Root);
}

STATIC
VOID
CloseOwned (
  IN EFI_FILE_PROTOCOL  *Root,
  IN BOOLEAN            Owned
  )
{
  if (Owned && (Root != nullptr)) {
    Root->Close (Root);
  }
}

/** The requested UUID of a marker name; empty when it has none or cannot be taken. **/
STATIC
EFI_STATUS
MarkerUuid (
  IN  CONST CHAR16  *MarkerName OPTIONAL,
  OUT CHAR16        *Uuid
  )
{
  Uuid[0] = L'\0';
  if (IsEmpty (MarkerName)) {
    return EFI_SUCCESS;
  }

  return UuidFromMarkerName (Uuid, MarkerName);
}

EFI_STATUS
VerifyUuidMarker (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Uuid
  )
{
  CHAR16      Path[MARKER_PATH_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if (IsEmpty (Uuid) || (Root == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  UnicodeSPrint (Path, sizeof (Path), L16 (u"\\%s.uuid"), Uuid);
  Status = FileExists (Root, Path, &Exists);
  if (Exists) {
    LogPrint (L16 (u"SOURCE FS diagnostica: marker di verifica %s presente in root\n"), Path);
    return EFI_SUCCESS;
  }

  LogPrint (L16 (u"SOURCE FS diagnostica: marker di verifica %s assente in root, status=%r (0x%lx)\n"), Path, Status, Status);
  return EFI_NOT_FOUND;
}

EFI_STATUS
LoadDriverForFs (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *FsType OPTIONAL,
  OUT EFI_HANDLE    *Handle
  )
{
  if (Handle == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *Handle = nullptr;
  if (FsNameEquals (FsType, L16 (u"exFAT"))) {
    LogPrint (L16 (u"SOURCE FS metadata: FS=exFAT, carico solo driver exFAT\n"));
    return MountExfatSource (ImageHandle, Handle);
  }

  if (FsNameEquals (FsType, L16 (u"NTFS"))) {
    LogPrint (L16 (u"SOURCE FS metadata: FS=NTFS, carico solo driver NTFS\n"));
    return MountNtfsSource (ImageHandle, Handle);
  }

  if (FsNameEquals (FsType, L16 (u"FAT32"))) {
    LogPrint (L16 (u"SOURCE FS metadata: FS=FAT32, nessun driver da caricare\n"));
  } else {
    LogPrint (L16 (u"SOURCE FS metadata assente/non risolto: legacy FAT32, nessun driver da caricare\n"));
  }

  return EFI_UNSUPPORTED;
}

/**
  Visits the boot volume and its sibling partitions, in the firmware's handle order, and
  counts those Matches says hold the evidence. The first match keeps its root (Owned: one
  opened here); every other root opened here is closed again. Matches is also asked about
  a volume whose root would not open (VolumeRoot null, Outcome the failure). With LogList
  the handle list is logged as the marker scan reports it.

  @retval EFI_SUCCESS  *Count, *Chosen, *ChosenRoot and *ChosenOwned are set.
  @retval other        LocateHandleBuffer failed; nothing was visited.
**/
template<typename MATCHES>
STATIC
EFI_STATUS
ScanStickVolumes (
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  MATCHES            Matches,
  IN  BOOLEAN            LogList,
  OUT UINTN              *Count,
  OUT EFI_HANDLE         *Chosen,
  OUT EFI_FILE_PROTOCOL  **ChosenRoot,
  OUT BOOLEAN            *ChosenOwned
  )
{
  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  HandleCount;
  UINTN                  Index;
  EFI_HANDLE             Volume;
  EFI_FILE_PROTOCOL      *VolumeRoot;
  BOOLEAN                VolumeOwned;
  EFI_STATUS             Status;

  *Count       = 0;
  *Chosen      = nullptr;
  *ChosenRoot  = nullptr;
  *ChosenOwned = FALSE;
  HandleCount  = 0;
  Status       = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &HandleCount, Handles.Out ());
  if (LogList) {
    LogPrint (L16 (u"LocateHandleBuffer(SimpleFS) per marker: %r (0x%lx), count=%u\n"), Status, Status, EFI_ERROR (Status) ? 0 : HandleCount);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (Index = 0; Index < HandleCount; Index++) {
    Volume = Handles.Get ()[Index];
    if ((Volume != BootHandle) && !IsSiblingPartition (BootHandle, Volume)) {
      continue;
    }

    Status = RootOf (Volume, BootHandle, BootRoot, &VolumeRoot, &VolumeOwned);
    if (!Matches (Index, Volume, EFI_ERROR (Status) ? nullptr : VolumeRoot, Status)) {
      CloseOwned (VolumeRoot, VolumeOwned && !EFI_ERROR (Status));
      continue;
    }

    if (++*Count == 1) {
      *Chosen      = Volume;
      *ChosenRoot  = VolumeRoot;
      *ChosenOwned = VolumeOwned;
    } else {
      CloseOwned (VolumeRoot, VolumeOwned);
    }
  }

  return EFI_SUCCESS;
}

EFI_STATUS
SelectByMarker (
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR16       *MarkerName OPTIONAL,
  OUT EFI_HANDLE         *Handle,
  OUT EFI_FILE_PROTOCOL  **Root,
  OUT BOOLEAN            *Owned
  )
{
  CHAR16             Path[MARKER_PATH_CHARS];
  CHAR16             Requested[UUID_TEXT_CHARS];
  UINTN              Matches;
  EFI_HANDLE         Chosen;
  EFI_FILE_PROTOCOL  *ChosenRoot;
  BOOLEAN            ChosenOwned;
  EFI_STATUS         Status;

  if ((Handle == nullptr) || (Root == nullptr) || (Owned == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Handle = BootHandle;
  *Root   = BootRoot;
  *Owned  = FALSE;
  if (IsEmpty (MarkerName)) {
    LogPrint (L16 (u"SOURCE FS: nessun marker, uso BOOT FS per retrocompatibilita\n"));
    return EFI_SUCCESS;
  }

  UnicodeSPrint (Path, sizeof (Path), L16 (u"\\%s"), MarkerName);
  Status = MarkerUuid (MarkerName, Requested);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"  UUID richiesto da marker non estraibile: %r (0x%lx)\n"), Status, Status);
    Requested[0] = L'\0';
  }

  LogPrint (L16 (u"Ricerca marker su SimpleFS gia disponibili: %s\n"), Path);
  Status = ScanStickVolumes (
             BootHandle,
             BootRoot,
             [&](UINTN Index, EFI_HANDLE Volume, EFI_FILE_PROTOCOL *VolumeRoot, EFI_STATUS Outcome) {
    CHAR16      VolumeUuid[UUID_TEXT_CHARS];
    BOOLEAN     Exists;
    BOOLEAN     Match;
    EFI_STATUS  OpenStatus;

    if (VolumeRoot == nullptr) {
      LogPrint (L16 (u"  SimpleFS[%u] handle=%p open root: %r (0x%lx)\n"), Index, Volume, Outcome, Outcome);
      return FALSE;
    }

    OpenStatus    = FileExists (VolumeRoot, Path, &Exists);
    VolumeUuid[0] = L'\0';
    if ((Requested[0] != L'\0') && EFI_ERROR (ReadVolumeUuid (Volume, VolumeUuid, UUID_TEXT_CHARS))) {
      VolumeUuid[0] = L'\0';
    }

    Match = Exists || ((VolumeUuid[0] != L'\0') && (StrCmp (VolumeUuid, Requested) == 0));
    LogPrint (
      L16 (u"  SimpleFS[%u] %s handle=%p marker: %r (0x%lx), exists=%u, UUID=%s, match=%u\n"),
      Index,
      VolumeLabel (Volume, BootHandle),
      Volume,
      OpenStatus,
      OpenStatus,
      Exists,
      OrPlaceholder (VolumeUuid, L16 (u"(non letto)")),
      Match
      );
    if (Match) {
      LogPrint (L16 (u"  SOURCE_FS candidato trovato da marker: SimpleFS[%u] %s handle=%p\n"), Index, VolumeLabel (Volume, BootHandle), Volume);
    }

    return Match;
  },
             TRUE,
             &Matches,
             &Chosen,
             &ChosenRoot,
             &ChosenOwned
             );
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (Matches == 1) {
    *Handle = Chosen;
    *Root   = ChosenRoot;
    *Owned  = ChosenOwned;
    LogPrint (L16 (u"SOURCE_FS selezionato: %s handle=%p\n"), VolumeLabel (Chosen, BootHandle), Chosen);
    return EFI_SUCCESS;
  }

  if (Matches > 1) {
    LogPrint (L16 (u"  ERRORE: marker trovato su piu filesystem (%u); stop per evitare ambiguita\n"), Matches);
    CloseOwned (ChosenRoot, ChosenOwned);
    return EFI_ALREADY_STARTED;
  }

  LogPrint (L16 (u"  marker non trovato sui SimpleFS gia disponibili; eventuale driver deciso dai metadata SOURCE FS\n"));
  return EFI_NOT_FOUND;
}

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
  )
{
  CHAR16             Path[MARKER_PATH_CHARS];
  CHAR16             Requested[UUID_TEXT_CHARS];
  CHAR16             VolumeUuid[UUID_TEXT_CHARS];
  EFI_HANDLE         Volume;
  EFI_FILE_PROTOCOL  *VolumeRoot;
  BOOLEAN            VolumeOwned;
  BOOLEAN            Exists;
  EFI_STATUS         Status;

  if ((Handle == nullptr) || (Root == nullptr) || (Owned == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Path[0] = L'\0';
  if (!IsEmpty (MarkerName)) {
    UnicodeSPrint (Path, sizeof (Path), L16 (u"\\%s"), MarkerName);
  }

  LogPrint (L16 (u"SOURCE FS diagnostica: carico/refresh driver richiesto per leggere marker .uuid in root\n"));
  Status = MarkerUuid (MarkerName, Requested);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"SOURCE FS diagnostica: UUID marker ID non estraibile: %r (0x%lx)\n"), Status, Status);
    Requested[0] = L'\0';
  }

  Status = LoadDriverForFs (ImageHandle, FsType, &Volume);
  LogPrint (L16 (u"SOURCE FS diagnostica: load+refresh: %r (0x%lx), handle=%p\n"), Status, Status, Volume);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = RootOf (Volume, BootHandle, BootRoot, &VolumeRoot, &VolumeOwned);
  if (VolumeOwned) {
    LogPrint (L16 (u"SOURCE FS diagnostica: OpenRoot(root driver): %r (0x%lx)\n"), Status, Status);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  // The marker file and the UUID are only reported here; the decision rests on the UUID
  // of the partition itself, which a copied marker file cannot fake.
  Status = ReadVolumeUuid (Volume, VolumeUuid, UUID_TEXT_CHARS);
  if (EFI_ERROR (Status)) {
    VolumeUuid[0] = L'\0';
    LogPrint (L16 (u"SOURCE FS diagnostica: UUID reale partizione non letto: %r (0x%lx)\n"), Status, Status);
  } else {
    Status = VerifyUuidMarker (VolumeRoot, VolumeUuid);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"SOURCE FS diagnostica: verifica marker UUID non riuscita: %r (0x%lx)\n"), Status, Status);
    }
  }

  if (Path[0] != L'\0') {
    Status = FileExists (VolumeRoot, Path, &Exists);
    LogPrint (
      L16 (u"SOURCE FS diagnostica: marker richiesto da ID %s: %s, status=%r (0x%lx)\n"),
      Path,
      Exists ? L16 (u"presente/disponibile") : L16 (u"non presente"),
      Status,
      Status
      );
  }

  if ((VolumeUuid[0] != L'\0') && (Requested[0] != L'\0') && (StrCmp (VolumeUuid, Requested) == 0)) {
    *Handle = Volume;
    *Root   = VolumeRoot;
    *Owned  = VolumeOwned;
    LogPrint (L16 (u"SOURCE_FS selezionato da driver tramite UUID: %s handle=%p\n"), VolumeLabel (Volume, BootHandle), Volume);
    return EFI_SUCCESS;
  }

  LogPrint (
    L16 (u"SOURCE FS diagnostica: UUID non corrisponde a ID: reale=%s, richiesto=%s\n"),
    OrPlaceholder (VolumeUuid, L16 (u"(non letto)")),
    OrPlaceholder (Requested, L16 (u"(assente)"))
    );
  CloseOwned (VolumeRoot, VolumeOwned);
  return EFI_NOT_FOUND;
}

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
  )
{
  UINT32      Attempt;
  EFI_STATUS  Status;

  if ((Handle == nullptr) || (Root == nullptr) || (Owned == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Handle = nullptr;
  *Root   = nullptr;
  *Owned  = FALSE;
  Status  = EFI_NOT_FOUND;
  // Each attempt loads the driver anew and waits for it as a connection does: a USB
  // partition can take seconds to be mounted by a driver loaded from the stick.
  for (Attempt = 1; Attempt <= SECOND_PARTITION_ATTEMPTS; Attempt++) {
    LogPrint (
      L16 (u"SOURCE_FS seconda partizione attesa: tentativo %u/%u, FS=%s marker=%s\n"),
      Attempt,
      SECOND_PARTITION_ATTEMPTS,
      OrPlaceholder (FsType, L16 (u"(assente)")),
      OrPlaceholder (MarkerName, L16 (u"(assente)"))
      );
    Status = SelectByDriverUuid (ImageHandle, BootHandle, BootRoot, FsType, MarkerName, Handle, Root, Owned);
    if (!EFI_ERROR (Status)) {
      return Status;
    }
  }

  LogPrint (L16 (u"ERRORE: SOURCE_FS seconda partizione attesa non disponibile/usabile dopo %u tentativi: %r (0x%lx)\n"), SECOND_PARTITION_ATTEMPTS, Status, Status);
  return Status;
}

EFI_STATUS
RequestedGroupExistsOnRoot (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  OUT    BOOLEAN             *Exists
  )
{
  EFI_STATUS  Status;

  if (Exists == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *Exists = FALSE;
  Status  = IsRequestedGroupActive (Context, Volume, Root);
  if (!EFI_ERROR (Status)) {
    *Exists = TRUE;
    return EFI_SUCCESS;
  }

  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  LogPrint (L16 (u"RequestedGroupExistsOnRoot: gruppo richiesto non validabile su handle=%p: %r (0x%lx)\n"), Volume, Status, Status);
  return Status;
}

EFI_STATUS
SelectByRequestedFiles (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN OUT EFI_HANDLE          *Handle,
  IN OUT EFI_FILE_PROTOCOL   **Root,
  IN OUT BOOLEAN             *Owned
  )
{
  UINTN              Found;
  EFI_HANDLE         Chosen;
  EFI_FILE_PROTOCOL  *ChosenRoot;
  BOOLEAN            ChosenOwned;
  EFI_STATUS         Status;

  if ((Context == nullptr) || (Handle == nullptr) || (Root == nullptr) || (Owned == nullptr) || (Context->BootHandle == nullptr) ||
      (Context->BootRoot == nullptr))
  {
    return EFI_INVALID_PARAMETER;
  }

  Status = ScanStickVolumes (
             Context->BootHandle,
             Context->BootRoot,
             [&](UINTN, EFI_HANDLE Volume, EFI_FILE_PROTOCOL *VolumeRoot, EFI_STATUS) {
    BOOLEAN  Exists;

    // A volume whose root cannot be opened is passed over without a word.
    return (VolumeRoot != nullptr) && !EFI_ERROR (RequestedGroupExistsOnRoot (Context, Volume, VolumeRoot, &Exists)) && Exists;
  },
             FALSE,
             &Found,
             &Chosen,
             &ChosenRoot,
             &ChosenOwned
             );
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (Found == 0) {
    return EFI_NOT_FOUND;
  }

  if (Found > 1) {
    LogPrint (L16 (u"SOURCE FS da files richiesti ambiguo (%u); ignoro fallback files\n"), Found);
    CloseOwned (ChosenRoot, ChosenOwned);
    return EFI_ALREADY_STARTED;
  }

  if (*Root != ChosenRoot) {
    CloseOwned (*Root, *Owned);
  }

  *Handle = Chosen;
  *Root   = ChosenRoot;
  *Owned  = ChosenOwned;
  LogPrint (L16 (u"SOURCE_FS selezionato da files richiesti: %s handle=%p\n"), VolumeLabel (Chosen, Context->BootHandle), Chosen);
  return EFI_SUCCESS;
}

/** Calls Visit for each handle with Protocol other than BootHandle that is a sibling
    partition of it, until Visit says TRUE. **/
template<typename VISIT>
STATIC
BOOLEAN
AnySiblingWith (
  IN EFI_HANDLE  BootHandle,
  IN EFI_GUID    *Protocol,
  IN VISIT       Visit
  )
{
  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  Count;
  UINTN                  Index;

  Count = 0;
  if ((BootHandle == nullptr) || EFI_ERROR (gBS->LocateHandleBuffer (ByProtocol, Protocol, nullptr, &Count, Handles.Out ()))) {
    return FALSE;
  }

  for (Index = 0; Index < Count; Index++) {
    if ((Handles.Get ()[Index] != BootHandle) && IsSiblingPartition (BootHandle, Handles.Get ()[Index]) && Visit (Handles.Get ()[Index])) {
      return TRUE;
    }
  }

  return FALSE;
}

BOOLEAN
HasMountedSibling (
  IN EFI_HANDLE  BootHandle
  )
{
  return AnySiblingWith (BootHandle, &gEfiSimpleFileSystemProtocolGuid, [](EFI_HANDLE) { return TRUE; });
}

BOOLEAN
HasUnmountedSibling (
  IN EFI_HANDLE  BootHandle
  )
{
  EFI_DEVICE_PATH_PROTOCOL  *BootPath;

  BootPath = nullptr;
  if ((BootHandle == nullptr) ||
      EFI_ERROR (gBS->HandleProtocol (BootHandle, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID **>(&BootPath))) ||
      (FindHardDriveNode (BootPath, nullptr) == nullptr))
  {
    return FALSE;
  }

  return AnySiblingWith (
           BootHandle,
           &gEfiBlockIoProtocolGuid,
           [](EFI_HANDLE Partition) {
    EFI_BLOCK_IO_PROTOCOL  *BlockIo;
    VOID                   *FileSystem;

    BlockIo = nullptr;
    if (EFI_ERROR (gBS->HandleProtocol (Partition, &gEfiBlockIoProtocolGuid, reinterpret_cast<VOID **>(&BlockIo))) ||
        (BlockIo == nullptr) || (BlockIo->Media == nullptr) || !BlockIo->Media->MediaPresent || !BlockIo->Media->LogicalPartition)
    {
      return FALSE;
    }

    return EFI_ERROR (gBS->HandleProtocol (Partition, &gEfiSimpleFileSystemProtocolGuid, &FileSystem)) ? TRUE : FALSE;
  }
           );
}

BOOLEAN
BootVolumeMatchesUuid (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN CONST CHAR16              *MarkerName OPTIONAL,
  IN BOOLEAN                   FromStateFile
  )
{
  CHAR16  BootUuid[UUID_TEXT_CHARS];
  CHAR16  Requested[UUID_TEXT_CHARS];

  if ((Context == nullptr) || (Context->BootHandle == nullptr) || HasMountedSibling (Context->BootHandle)) {
    return FALSE;
  }

  if (EFI_ERROR (ReadVolumeUuid (Context->BootHandle, BootUuid, UUID_TEXT_CHARS))) {
    BootUuid[0] = L'\0';
  }

  if (BootUuid[0] == L'\0') {
    return FALSE;
  }

  if (!EFI_ERROR (MarkerUuid (MarkerName, Requested)) && (Requested[0] != L'\0') && (StrCmp (Requested, BootUuid) == 0)) {
    return TRUE;
  }

  return FromStateFile && (StrCmp (Context->Current.SrcPart, BootUuid) == 0);
}

EFI_STATUS
SelectSourceFs (
  IN OUT ACTIVATION_CONTEXT  *Context
  )
{
  CHAR16             Fs[VELMARO_FS_CHARS];
  CHAR16             Uuid[UUID_TEXT_CHARS];
  CHAR16             MarkerName[MARKER_NAME_CHARS];
  CHAR16             DriverFs[VELMARO_FS_CHARS];
  EFI_HANDLE         Handle;
  EFI_HANDLE         Ignored;
  EFI_FILE_PROTOCOL  *Root;
  BOOLEAN            Owned;
  BOOLEAN            Exists;
  BOOLEAN            Chosen;
  EFI_STATUS         Status;

  if ((Context == nullptr) || (Context->BootHandle == nullptr) || (Context->BootRoot == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = LookupSourceMetadata (Context->BootRoot, Context->GroupIdAscii, Fs, Uuid);
  if (!EFI_ERROR (Status)) {
    ApplySourceMetadata (Context, Fs, Uuid, L16 (u"software.xml"));
  } else {
    LogPrint (L16 (u"Metadata SOURCE FS da software.xml non usato: %r (0x%lx)\n"), Status, Status);
  }

  // Both states as the run knows them before any choice is made: a technician reading the
  // log of a failed switch sees where the stick stood and what was asked.
  LogPrint (
    L16 (u"Stato corrente: BCD=%s SRC=%s EFI=%s SRC_PART=%s SRC_FS=%s\n"),
    Context->Current.Bcd,
    Context->Current.Src,
    Context->Current.Efi,
    (Context->Current.SrcPart[0] != L'\0') ? Context->Current.SrcPart : L16 (u"(assente)"),
    (Context->Current.SrcFs[0] != L'\0') ? Context->Current.SrcFs : L16 (u"(assente/FAT32)")
    );
  LogPrint (
    L16 (u"Stato richiesto: BCD=%s SRC=%s EFI=%s SRC_PART=%s SRC_FS=%s\n"),
    Context->Requested.Bcd,
    Context->Requested.Src,
    Context->Requested.Efi,
    (Context->Requested.SrcPart[0] != L'\0') ? Context->Requested.SrcPart : L16 (u"(assente)"),
    (Context->Requested.SrcFs[0] != L'\0') ? Context->Requested.SrcFs : L16 (u"(assente)")
    );

  MarkerName[0] = L'\0';
  if (Context->SourceMetadataApplied && (Context->Requested.SrcPart[0] != L'\0')) {
    UnicodeSPrint (MarkerName, sizeof (MarkerName), L16 (u"%s.uuid"), Context->Requested.SrcPart);
    LogPrint (L16 (u"Marker ID da metadata SOURCE FS: %s; salto lettura ID su BOOT FS\n"), MarkerName);
  } else {
    ReadGroupDescription (Context->BootHandle, Context->BootRoot, Context->GroupId, MarkerName);
  }

  if (!Context->SourceMetadataApplied && (MarkerName[0] != L'\0') && !EFI_ERROR (UuidFromMarkerName (Uuid, MarkerName)) &&
      (Uuid[0] != L'\0'))
  {
    Status = LookupFsTxt (Context->BootRoot, Uuid, Fs);
    if (!EFI_ERROR (Status)) {
      ApplySourceMetadata (Context, Fs, Uuid, L16 (u"FS.txt"));
    } else {
      LogPrint (L16 (u"Metadata SOURCE FS da FS.txt non usato: %r (0x%lx)\n"), Status, Status);
    }
  }

  Handle = Context->BootHandle;
  Root   = Context->BootRoot;
  Owned  = FALSE;
  Chosen = FALSE;
  if (!Context->SourceMetadataApplied) {
    if (Context->Requested.SrcFs[0] == L'\0') {
      StrCpyS (Context->Requested.SrcFs, VELMARO_FS_CHARS, L16 (u"FAT32"));
      LogPrint (L16 (u"Metadata SOURCE FS assente: legacy FAT32, nessun driver esterno previsto\n"));
    }
  } else if (!FsNameEquals (Context->Requested.SrcFs, L16 (u"FAT32")) && (MarkerName[0] != L'\0')) {
    // Metadata put the group on its own NTFS/exFAT partition: any other volume would be
    // the wrong one, so without that partition the run stops here.
    Status = WaitForSecondPartition (
               Context->ImageHandle,
               Context->BootHandle,
               Context->BootRoot,
               Context->Requested.SrcFs,
               MarkerName,
               &Handle,
               &Root,
               &Owned
               );
    if (EFI_ERROR (Status) || (Handle == nullptr)) {
      Status = EFI_ERROR (Status) ? Status : EFI_NOT_FOUND;
      LogPrint (L16 (u"ERRORE: SOURCE_FS da metadata obbligatorio non selezionato: %r (0x%lx)\n"), Status, Status);
      return Status;
    }

    Chosen = TRUE;
  }

  if (!Chosen) {
    Status = SelectByMarker (Context->BootHandle, Context->BootRoot, MarkerName, &Handle, &Root, &Owned);
    if (!EFI_ERROR (Status)) {
      Chosen = TRUE;
    } else if ((Status == EFI_NOT_FOUND) && (MarkerName[0] != L'\0')) {
      Status = SelectByDriverUuid (
                 Context->ImageHandle,
                 Context->BootHandle,
                 Context->BootRoot,
                 Context->Requested.SrcFs,
                 MarkerName,
                 &Handle,
                 &Root,
                 &Owned
                 );
      Chosen = !EFI_ERROR (Status);
    }
  }

  if (!Chosen) {
    LogPrint (L16 (u"SOURCE FS da marker/UUID non selezionato; provo files reali: %r (0x%lx)\n"), Status, Status);
    Handle = Context->BootHandle;
    Root   = Context->BootRoot;
    Owned  = FALSE;
    Status = SelectByRequestedFiles (Context, &Handle, &Root, &Owned);
    if (EFI_ERROR (Status)) {
      LogPrint (L16 (u"SOURCE FS da files reali non selezionato; continuo con BOOT FS: %r (0x%lx)\n"), Status, Status);
    }
  }

  // A boot volume chosen for want of evidence gives way to the one sibling on which the
  // group is already active; a sibling chosen by evidence stays.
  Status = RequestedGroupExistsOnRoot (Context, Handle, Root, &Exists);
  if ((EFI_ERROR (Status) || !Exists) && (Handle == Context->BootHandle)) {
    SelectByRequestedFiles (Context, &Handle, &Root, &Owned);
  }

  Context->SourceHandle    = Handle;
  Context->SourceRoot      = Root;
  Context->SourceRootOwned = Owned;
  LogPrint (L16 (u"BOOT_FS handle=%p, SOURCE_FS=%s handle=%p\n"), Context->BootHandle, VolumeLabel (Handle, Context->BootHandle), Handle);
  DescribeVolume (L16 (u"SOURCE_FS"), Context->BootHandle, Handle);

  // Normalisation later needs the driver of whichever state lives on NTFS/exFAT; a
  // sibling it has not mounted yet gets the driver now. Failures here only warn.
  ChooseDriverFs (&Context->Current, &Context->Requested, DriverFs);
  if ((DriverFs[0] != L'\0') && !FsNameEquals (DriverFs, L16 (u"FAT32"))) {
    if (HasUnmountedSibling (Context->BootHandle)) {
      Status = LoadDriverForFs (Context->ImageHandle, DriverFs, &Ignored);
      if (EFI_ERROR (Status)) {
        LogPrint (L16 (u"WARN: partizione sorella non montata, refresh driver per normalizzazione non riuscito: %r (0x%lx)\n"), Status, Status);
      }
    } else if (BootVolumeMatchesUuid (Context, MarkerName, Context->StateFileParsed)) {
      LogPrint (L16 (u"Metadata SOURCE FS: indizi atomici indicano una partizione sorella attesa; provo refresh driver richiesto prima della normalizzazione\n"));
      Status = LoadDriverForFs (Context->ImageHandle, DriverFs, &Ignored);
      if (EFI_ERROR (Status)) {
        LogPrint (L16 (u"WARN: refresh driver metadata prima della normalizzazione non riuscito: %r (0x%lx)\n"), Status, Status);
      }
    }
  }

  return EFI_SUCCESS;
}
