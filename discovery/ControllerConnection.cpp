/** @file
  Controller connection and the search for the sibling partition's file system. A driver
  binds late on some firmware, so the search polls; two candidates are an ambiguity the
  run must not settle by picking one.
**/

#include <discovery/ControllerConnection.h>
#include <discovery/FsIdentification.h>
#include <app/DiagnosticLog.h>
#include <fs/ImageDiagnostics.h>
#include <Guards.h>

STATIC
CONST EFI_DEVICE_PATH_PROTOCOL *
PathOf (
  IN EFI_HANDLE  Handle
  )
{
  EFI_DEVICE_PATH_PROTOCOL  *Path;

  Path = nullptr;
  if ((Handle == nullptr) || EFI_ERROR (gBS->HandleProtocol (Handle, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID **>(&Path)))) {
    return nullptr;
  }

  return Path;
}

STATIC
BOOLEAN
InSnapshot (
  IN EFI_HANDLE        Handle,
  IN CONST EFI_HANDLE  *Snapshot OPTIONAL,
  IN UINTN             SnapshotCount
  )
{
  UINTN  Index;

  for (Index = 0; (Snapshot != nullptr) && (Index < SnapshotCount); Index++) {
    if (Snapshot[Index] == Handle) {
      return TRUE;
    }
  }

  return FALSE;
}

/** The device path as normalized text for the log; the caller frees it (null: none). **/
STATIC
CHAR16 *
PathText (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Path
  )
{
  CHAR16  *Text;

  Text = (Path == nullptr) ? nullptr : ConvertDevicePathToText (Path, FALSE, FALSE);
  NormalizePathText (Text);
  return Text;
}

BOOLEAN
IsNewSiblingFs (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Candidate OPTIONAL,
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *BootPath,
  IN CONST HARDDRIVE_DEVICE_PATH     *BootPartition,
  IN CONST EFI_HANDLE                *Snapshot OPTIONAL,
  IN UINTN                           SnapshotCount
  )
{
  PoolGuard<EFI_HANDLE>        Handles;
  UINTN                        Count;
  UINTN                        Index;
  CONST HARDDRIVE_DEVICE_PATH  *CandidatePartition;

  if (EFI_ERROR (gBS->LocateHandleBuffer (ByProtocol, &gEfiBlockIoProtocolGuid, nullptr, &Count, Handles.Out ()))) {
    return FALSE;
  }

  for (Index = 0; Index < Count; Index++) {
    EFI_HANDLE                      Block = Handles.Get ()[Index];
    CONST EFI_DEVICE_PATH_PROTOCOL  *BlockPath;
    CONST HARDDRIVE_DEVICE_PATH     *BlockPartition;
    EFI_BLOCK_IO_PROTOCOL           *BlockIo;

    if (InSnapshot (Block, Snapshot, SnapshotCount)) {
      continue;
    }

    BlockPath      = PathOf (Block);
    BlockPartition = FindHardDriveNode (BlockPath, nullptr);
    if (BlockPartition == nullptr) {
      continue;
    }

    BlockIo = nullptr;
    if (EFI_ERROR (gBS->HandleProtocol (Block, &gEfiBlockIoProtocolGuid, reinterpret_cast<VOID **>(&BlockIo))) || (BlockIo == nullptr) ||
        (BlockIo->Media == nullptr) || !BlockIo->Media->LogicalPartition)
    {
      continue;
    }

    if (!SameDiskSignature (BootPartition, BlockPartition) || (BlockPartition->PartitionNumber == BootPartition->PartitionNumber) ||
        !SameDiskPrefix (BootPath, BlockPath))
    {
      continue;
    }

    CandidatePartition = FindHardDriveNode (Candidate, nullptr);
    if ((CandidatePartition != nullptr) && (CandidatePartition->PartitionNumber == BlockPartition->PartitionNumber) &&
        SameDiskSignature (BlockPartition, CandidatePartition) && SameDiskPrefix (BootPath, Candidate))
    {
      return TRUE;
    }
  }

  return FALSE;
}

EFI_STATUS
FindNewSiblingSimpleFs (
  IN  CONST EFI_HANDLE  *Snapshot OPTIONAL,
  IN  UINTN             SnapshotCount,
  IN  EFI_HANDLE        BootHandle,
  OUT EFI_HANDLE        *Handle
  )
{
  CONST EFI_DEVICE_PATH_PROTOCOL  *BootPath;
  CONST HARDDRIVE_DEVICE_PATH     *BootPartition;
  PoolGuard<EFI_HANDLE>           Handles;
  UINTN                           Count;
  UINTN                           Index;
  UINTN                           PrefixLength;
  VOID                            *Fs;
  EFI_STATUS                      Status;

  if (Handle == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *Handle       = nullptr;
  BootPath      = PathOf (BootHandle);
  BootPartition = FindHardDriveNode (BootPath, &PrefixLength);
  if (BootPartition == nullptr) {
    LogPrint (L16 (u"ERRORE: impossibile leggere nodo HD() dal DeviceHandle FAT32 app\n"));
    PrintHandleDevicePath (L16 (u"App FAT32 device"), BootHandle);
    return EFI_NOT_FOUND;
  }

  Fs = nullptr;
  LogPrint (
    L16 (u"FAT32 app: partition=%u signature_type=%u simplefs=%s prefix_bytes=%u\n"),
    BootPartition->PartitionNumber,
    BootPartition->SignatureType,
    EFI_ERROR (gBS->HandleProtocol (BootHandle, &gEfiSimpleFileSystemProtocolGuid, &Fs)) ? L16 (u"no") : L16 (u"yes"),
    PrefixLength
    );
  PrintHandleDevicePath (L16 (u"App FAT32 device"), BootHandle);

  Count  = 0;
  Status = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ());
  LogPrint (L16 (u"map -r: LocateHandleBuffer(SimpleFS): %r (0x%lx), count=%u\n"), Status, Status, EFI_ERROR (Status) ? 0 : Count);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (Index = 0; Index < Count; Index++) {
    EFI_HANDLE                      Candidate = Handles.Get ()[Index];
    CONST EFI_DEVICE_PATH_PROTOCOL  *Path;
    CONST HARDDRIVE_DEVICE_PATH     *Partition;

    Path = PathOf (Candidate);
    if (InSnapshot (Candidate, Snapshot, SnapshotCount) || !IsNewSiblingFs (Path, BootPath, BootPartition, Snapshot, SnapshotCount)) {
      continue;
    }

    PoolGuard<CHAR16>  Text (PathText (Path));

    Partition = FindHardDriveNode (Path, nullptr);
    LogPrint (
      L16 (u"map -r: nuovo SimpleFS candidato FS[%u] handle=%p partition=%u path=%s\n"),
      Index,
      Candidate,
      (Partition != nullptr) ? Partition->PartitionNumber : 0,
      Text ? Text.Get () : L16 (u"(non disponibile)")
      );
    *Handle = Candidate;
    return EFI_SUCCESS;
  }

  return EFI_NOT_FOUND;
}

EFI_STATUS
FindVisibleSiblingSimpleFs (
  IN  EFI_HANDLE  BootHandle,
  OUT EFI_HANDLE  *Handle,
  IN  BOOLEAN     Verbose
  )
{
  PoolGuard<EFI_HANDLE>           Handles;
  EFI_HANDLE                      First;
  UINTN                           Count;
  UINTN                           Index;
  UINTN                           Siblings;
  EFI_STATUS                      Status;

  if (Handle != nullptr) {
    *Handle = nullptr;
  }

  if ((BootHandle == nullptr) || (Handle == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (FindHardDriveNode (PathOf (BootHandle), nullptr) == nullptr) {
    return EFI_NOT_FOUND;
  }

  Count  = 0;
  Status = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ());
  if (Verbose) {
    LogPrint (L16 (u"Fallback SimpleFS visibili: LocateHandleBuffer(SimpleFS): %r (0x%lx), count=%u\n"), Status, Status, EFI_ERROR (Status) ? 0 : Count);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  First    = nullptr;
  Siblings = 0;
  for (Index = 0; Index < Count; Index++) {
    EFI_HANDLE                      Candidate = Handles.Get ()[Index];
    CONST EFI_DEVICE_PATH_PROTOCOL  *Path;
    CONST HARDDRIVE_DEVICE_PATH     *Partition;

    if (!IsSiblingPartition (BootHandle, Candidate)) {
      continue;
    }

    // Read again for the log: a second look at the handle may fail where the first did not.
    Path      = PathOf (Candidate);
    Partition = Path != nullptr ? FindHardDriveNode (Path, nullptr) : nullptr;

    Siblings++;
    if (First == nullptr) {
      First = Candidate;
    }

    if (Verbose) {
      PoolGuard<CHAR16>  Text (PathText (Path));

      LogPrint (
        L16 (u"Fallback SimpleFS sibling candidato FS[%u] handle=%p partition=%u path=%s\n"),
        Index,
        Candidate,
        Partition != nullptr ? Partition->PartitionNumber : 0,
        Text ? Text.Get () : L16 (u"(non disponibile)")
        );
    }
  }

  if (Siblings == 0) {
    return EFI_NOT_FOUND;
  }

  if (Siblings > 1) {
    if (Verbose) {
      LogPrint (L16 (u"ERRORE: fallback SimpleFS ambiguo: %u partizioni sorelle visibili\n"), Siblings);
    }

    return EFI_ALREADY_STARTED;
  }

  *Handle = First;
  if (Verbose) {
    LogPrint (L16 (u"Fallback SimpleFS sibling selezionato: handle=%p\n"), First);
  }

  return EFI_SUCCESS;
}

/** Connects every controller recursively; failures are counted, never fatal. **/
STATIC
EFI_STATUS
ConnectAllEfi (
  VOID
  )
{
  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  Count;
  UINTN                  Index;
  UINTN                  Connected;
  EFI_STATUS             Kept;
  EFI_STATUS             Status;

  Count  = 0;
  Status = gBS->LocateHandleBuffer (AllHandles, nullptr, nullptr, &Count, Handles.Out ());
  LogPrint (L16 (u"Shell load: LocateHandleBuffer(AllHandles): %r (0x%lx), count=%u\n"), Status, Status, EFI_ERROR (Status) ? 0 : Count);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Connected = 0;
  Kept      = EFI_SUCCESS;
  for (Index = 0; Index < Count; Index++) {
    Status = gBS->ConnectController (Handles.Get ()[Index], nullptr, nullptr, TRUE);
    if (!EFI_ERROR (Status)) {
      Connected++;
    } else if ((Status != EFI_NOT_FOUND) && (Status != EFI_ALREADY_STARTED) && !EFI_ERROR (Kept)) {
      Kept = Status;
    }
  }

  LogPrint (L16 (u"Shell load: ConnectAllEfi connected=%u last_error=%r (0x%lx)\n"), Connected, Kept, Kept);
  return EFI_SUCCESS;
}

EFI_STATUS
ConnectAndFindSourceFs (
  IN  EFI_HANDLE  BootHandle,
  OUT EFI_HANDLE  *Handle
  )
{
  PoolGuard<EFI_HANDLE>  Snapshot;
  UINTN                  SnapshotCount;
  EFI_STATUS             LastVisible;
  EFI_STATUS             Status;
  UINT32                 Attempt;

  if (Handle == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *Handle = nullptr;
  LogPrint (L16 (u"\n=== Shell-style load + map -r ===\n"));
  SnapshotCount = 0;
  Status        = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &SnapshotCount, Snapshot.Out ());
  if (EFI_ERROR (Status)) {
    SnapshotCount = 0;
    Snapshot.Free ();
  }

  LogPrint (L16 (u"Prima Shell ConnectAllEfi: SimpleFS=%u status=%r (0x%lx)\n"), SnapshotCount, Status, Status);
  Status = ConnectAllEfi ();
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // Some controllers and drivers come up late: a few polls before looking further.
  LastVisible = EFI_NOT_FOUND;
  for (Attempt = 0; Attempt < SIBLING_POLLS; Attempt++) {
    Status = FindVisibleSiblingSimpleFs (BootHandle, Handle, (Attempt == 0) || (Attempt == SIBLING_POLLS - 1));
    if (!EFI_ERROR (Status)) {
      LogPrint (L16 (u"map -r: SOURCE FS visibile dopo refresh, tentativo=%u\n"), Attempt);
      return EFI_SUCCESS;
    }

    LastVisible = Status;
    if (Status != EFI_NOT_FOUND) {
      break;
    }

    if (Attempt == SIBLING_POLLS - 1) {
      break;
    }

    if (Attempt == 0) {
      LogPrint (L16 (u"map -r: SOURCE FS non ancora visibile; attendo controller/driver lenti\n"));
    }

    gBS->Stall (SIBLING_POLL_MICROSECONDS);
  }

  if (Status == EFI_NOT_FOUND) {
    LogPrint (L16 (u"map -r: SOURCE FS non trovato tra i SimpleFS visibili; provo verifica nuovo SimpleFS\n"));
    for (Attempt = 0; (Attempt < NEW_SIBLING_TRIES) && (Status == EFI_NOT_FOUND); Attempt++) {
      gBS->Stall (SIBLING_POLL_MICROSECONDS);
      Status = FindNewSiblingSimpleFs (Snapshot.Get (), SnapshotCount, BootHandle, Handle);
    }

    if (Status == EFI_NOT_FOUND) {
      LogPrint (L16 (u"map -r: nessun nuovo SimpleFS target; ultimo fallback su SimpleFS visibili\n"));
      return FindVisibleSiblingSimpleFs (BootHandle, Handle, TRUE);
    }
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"map -r: ricerca SOURCE FS terminata con errore: %r (0x%lx), ultimo visibili=%r (0x%lx)\n"), Status, Status, LastVisible, LastVisible);
  }

  return Status;
}
