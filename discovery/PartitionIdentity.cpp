/** @file
  A partition's filesystem type and UUID text, read from its boot sector, and whether two
  partitions sit on one disk, told from their device paths.
**/

#include <discovery/FsIdentification.h>
#include <Guards.h>
#include <app/DiagnosticLog.h>

#define FAT_UUID_CHARS   10     // "xxxx-xxxx" and its NUL
#define NTFS_UUID_CHARS  17     // 16 digits and the NUL
#define FS_TYPE_CHARS    6      // "exFAT" and its NUL

/// Boot sectors of every size keep the fields we read in their first 512 bytes.
#define BOOT_SECTOR_BYTES  512

#define BOOT_TEST_FAT32  0x01
#define BOOT_TEST_FAT    0x02
#define BOOT_TEST_NTFS   0x04
#define BOOT_TEST_EXFAT  0x08
#define BOOT_TEST_ANY    (BOOT_TEST_FAT32 | BOOT_TEST_FAT | BOOT_TEST_NTFS | BOOT_TEST_EXFAT)

///
/// One boot sector signature and where that layout keeps its volume serial number.
///
typedef struct {
  UINT8             Test;
  UINTN             SignatureOffset;
  CONST CHAR8       *Signature;
  UINTN             SignatureLength;
  UINTN             SerialOffset;
  UINTN             SerialBytes;
  CONST char16_t    *FsName;
} BOOT_SIGNATURE;

//
// Tried in this order. A FAT32 boot sector may hold "FAT" at 0x36 too (it lies in the
// reserved part of its BPB), so the FAT12/16 test only counts once the FAT32 one failed.
// FAT12/16 volumes are named FAT32: the firmware's one FAT driver serves them all.
//
STATIC CONST BOOT_SIGNATURE  mBootSignatures[] = {
  { BOOT_TEST_FAT32, 0x52, "FAT32   ", 8, 0x43, 4, u"FAT32" },
  { BOOT_TEST_FAT,   0x36, "FAT",      3, 0x27, 4, u"FAT32" },
  { BOOT_TEST_NTFS,  0x03, "NTFS    ", 8, 0x48, 8, u"NTFS"  },
  { BOOT_TEST_EXFAT, 0x03, "EXFAT   ", 8, 0x64, 4, u"exFAT" }
};

/**
  Empties the output when there is room for the NUL, then checks the arguments.
**/
STATIC
EFI_STATUS
StartOutput (
  IN  BOOLEAN  HandleMissing,
  OUT CHAR16   *Text,
  IN  UINTN    Capacity,
  IN  UINTN    Minimum
  )
{
  if ((Text != nullptr) && (Capacity > 0)) {
    Text[0] = L'\0';
  }

  if (HandleMissing || (Text == nullptr) || (Capacity < Minimum)) {
    return EFI_INVALID_PARAMETER;
  }

  return EFI_SUCCESS;
}

/**
  Reads LBA 0 into a pool buffer of one block, which the caller frees. NtfsDiagnostics
  adds the NTFS reader's lines about each firmware call.
**/
STATIC
EFI_STATUS
ReadBootSector (
  IN  EFI_HANDLE  Partition,
  IN  BOOLEAN     NtfsDiagnostics,
  OUT UINT8       **Sector
  )
{
  EFI_BLOCK_IO_PROTOCOL  *BlockIo;
  PoolGuard<UINT8>       Buffer;
  UINT32                 BlockSize;
  EFI_STATUS             Status;

  *Sector = nullptr;
  BlockIo = nullptr;
  Status  = gBS->HandleProtocol (Partition, &gEfiBlockIoProtocolGuid, reinterpret_cast<VOID **>(&BlockIo));
  if (NtfsDiagnostics) {
    LogPrint (L16 (u"NTFS diagnostica: HandleProtocol(BlockIo): %r (0x%lx)\n"), Status, Status);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  if ((BlockIo == nullptr) || (BlockIo->Media == nullptr) || !BlockIo->Media->MediaPresent) {
    return EFI_NOT_READY;
  }

  BlockSize = BlockIo->Media->BlockSize;
  if (BlockSize < BOOT_SECTOR_BYTES) {
    return EFI_BAD_BUFFER_SIZE;
  }

  Buffer.Reset (static_cast<UINT8 *>(AllocateZeroPool (BlockSize)));
  if (!Buffer) {
    return EFI_OUT_OF_RESOURCES;
  }

  Status = BlockIo->ReadBlocks (BlockIo, BlockIo->Media->MediaId, 0, BlockSize, Buffer.Get ());
  if (NtfsDiagnostics) {
    LogPrint (L16 (u"NTFS diagnostica: ReadBlocks(boot sector NTFS): %r (0x%lx)\n"), Status, Status);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  *Sector = Buffer.Release ();
  return EFI_SUCCESS;
}

/**
  Reads the boot sector and returns the first of the Tests whose signature it carries,
  with that layout's serial number.
**/
STATIC
EFI_STATUS
ReadBootSignature (
  IN  EFI_HANDLE            Partition,
  IN  UINT8                 Tests,
  IN  BOOLEAN               NtfsDiagnostics,
  OUT UINT64                *Serial,
  OUT CONST BOOT_SIGNATURE  **Match
  )
{
  PoolGuard<UINT8>      Sector;
  CONST BOOT_SIGNATURE  *Entry;
  UINTN                 Index;
  EFI_STATUS            Status;

  *Serial = 0;
  *Match  = nullptr;
  Status  = ReadBootSector (Partition, NtfsDiagnostics, Sector.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  for (Index = 0; Index < ARRAY_SIZE (mBootSignatures); Index++) {
    Entry = &mBootSignatures[Index];
    if (((Entry->Test & Tests) == 0) ||
        (CompareMem (Sector.Get () + Entry->SignatureOffset, Entry->Signature, Entry->SignatureLength) != 0))
    {
      continue;
    }

    *Serial = (Entry->SerialBytes == sizeof (UINT64))
              ? ReadUnaligned64 (reinterpret_cast<CONST UINT64 *>(Sector.Get () + Entry->SerialOffset))
              : ReadUnaligned32 (reinterpret_cast<CONST UINT32 *>(Sector.Get () + Entry->SerialOffset));
    *Match = Entry;
    return EFI_SUCCESS;
  }

  if (NtfsDiagnostics) {
    LogPrint (L16 (u"NTFS diagnostica: boot sector non contiene firma NTFS\n"));
  }

  return EFI_UNSUPPORTED;
}

/**
  Writes Digits lower-case hexadecimal digits of Value. UUID texts are lower case
  throughout (marker file names carry them), and PrintLib's %x prints upper case.
**/
STATIC
CHAR16 *
PutHex (
  IN UINT64  Value,
  IN UINTN   Digits,
  OUT CHAR16 *Text
  )
{
  STATIC CONST CHAR16  HexDigits[] = {
    L'0', L'1', L'2', L'3', L'4', L'5', L'6', L'7', L'8', L'9', L'a', L'b', L'c', L'd', L'e', L'f'
  };
  UINTN                Index;

  for (Index = 0; Index < Digits; Index++) {
    Text[Index] = HexDigits[(Value >> (4 * (Digits - 1 - Index))) & 0xF];
  }

  return Text + Digits;
}

/**
  The UUID text of a 32-bit serial number: "%04x-%04x" of its halves.
**/
STATIC
EFI_STATUS
SerialText32 (
  IN  UINT32  Serial,
  OUT CHAR16  *Uuid,
  IN  UINTN   Capacity
  )
{
  CHAR16  Text[FAT_UUID_CHARS];
  CHAR16  *End;

  End    = PutHex (Serial >> 16, 4, Text);
  *End++ = L'-';
  End    = PutHex (Serial & 0xFFFF, 4, End);
  *End   = L'\0';
  return StrCpyS (Uuid, Capacity, Text);
}

/** The "%04x-%04x" readers of FAT and exFAT differ only in their signature tests and line. **/
STATIC
EFI_STATUS
ReadSerial32Uuid (
  IN  EFI_HANDLE    Partition,
  OUT CHAR16        *Uuid,
  IN  UINTN         Capacity,
  IN  UINT32        Tests,
  IN  CONST CHAR16  *FoundMessage
  )
{
  CONST BOOT_SIGNATURE  *Match;
  UINT64                Serial;
  EFI_STATUS            Status;

  Status = StartOutput (Partition == nullptr, Uuid, Capacity, FAT_UUID_CHARS);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadBootSignature (Partition, Tests, FALSE, &Serial, &Match);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = SerialText32 (static_cast<UINT32>(Serial), Uuid, Capacity);
  if (EFI_ERROR (Status)) {
    Uuid[0] = L'\0';
    return Status;
  }

  LogPrint (FoundMessage, Uuid);
  return EFI_SUCCESS;
}

EFI_STATUS
ReadFat32Uuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  )
{
  return ReadSerial32Uuid (Partition, Uuid, Capacity, BOOT_TEST_FAT32 | BOOT_TEST_FAT, L16 (u"FAT32 partition found: UUID=%s\n"));
}

EFI_STATUS
ReadExfatUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  )
{
  return ReadSerial32Uuid (Partition, Uuid, Capacity, BOOT_TEST_EXFAT, L16 (u"exFAT partition found: UUID=%s\n"));
}

EFI_STATUS
ReadNtfsUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  )
{
  CONST BOOT_SIGNATURE  *Match;
  UINT64                Serial;
  CHAR16                Text[NTFS_UUID_CHARS];
  EFI_STATUS            Status;

  Status = StartOutput (Partition == nullptr, Uuid, Capacity, NTFS_UUID_CHARS);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // An NTFS partition is known only through this reader (the firmware mounts none);
  // its lines tell a missing Block I/O from an unreadable or foreign boot sector.
  Status = ReadBootSignature (Partition, BOOT_TEST_NTFS, AdvancedDiagnostics, &Serial, &Match);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  *PutHex (Serial, 16, Text) = L'\0';
  Status = StrCpyS (Uuid, Capacity, Text);
  if (EFI_ERROR (Status)) {
    Uuid[0] = L'\0';
    return Status;
  }

  LogPrint (L16 (u"NTFS partition found: UUID=%s\n"), Uuid);
  return EFI_SUCCESS;
}

EFI_STATUS
ReadVolumeUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  )
{
  EFI_STATUS  Status;

  Status = ReadFat32Uuid (Partition, Uuid, Capacity);
  if (!EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadExfatUuid (Partition, Uuid, Capacity);
  if (!EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadNtfsUuid (Partition, Uuid, Capacity);
  if (EFI_ERROR (Status) && (Uuid != nullptr) && (Capacity > 0)) {
    Uuid[0] = L'\0';
  }

  return Status;
}

EFI_STATUS
DetectFsType (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Name,
  IN  UINTN       Capacity
  )
{
  CONST BOOT_SIGNATURE  *Match;
  UINT64                Serial;
  EFI_STATUS            Status;

  // A missing handle is left to HandleProtocol to refuse.
  Status = StartOutput (FALSE, Name, Capacity, FS_TYPE_CHARS);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadBootSignature (Partition, BOOT_TEST_ANY, FALSE, &Serial, &Match);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = StrCpyS (Name, Capacity, L16 (Match->FsName));
  if (EFI_ERROR (Status)) {
    Name[0] = L'\0';
  }

  return Status;
}

// --- Device paths ------------------------------------------------------------------

STATIC
UINTN
PathNodeLength (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Node
  )
{
  return Node->Length[0] | (static_cast<UINTN>(Node->Length[1]) << 8);
}

/** TRUE when a walk along a device path stops at Node: an End node, or a node whose
    Length is too short to step over. **/
STATIC
BOOLEAN
PathWalkEnds (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Node
  )
{
  // A Length below the header's own size would never move the walk on.
  return (Node->Type == END_DEVICE_PATH_TYPE) || (PathNodeLength (Node) < sizeof (EFI_DEVICE_PATH_PROTOCOL));
}

/** The node after Node; only for a Node at which the walk does not end. **/
STATIC
CONST EFI_DEVICE_PATH_PROTOCOL *
NextPathNode (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Node
  )
{
  return reinterpret_cast<CONST EFI_DEVICE_PATH_PROTOCOL *>(reinterpret_cast<CONST UINT8 *>(Node) + PathNodeLength (Node));
}

CONST HARDDRIVE_DEVICE_PATH *
FindHardDriveNode (
  IN  CONST EFI_DEVICE_PATH_PROTOCOL  *Path,
  OUT UINTN                           *PrefixLength OPTIONAL
  )
{
  CONST EFI_DEVICE_PATH_PROTOCOL  *Node;
  UINTN                           Offset;

  Offset = 0;
  if (PrefixLength != nullptr) {
    *PrefixLength = 0;
  }

  if (Path == nullptr) {
    return nullptr;
  }

  for (Node = Path; !PathWalkEnds (Node); Node = NextPathNode (Node)) {
    if ((Node->Type == MEDIA_DEVICE_PATH) && (Node->SubType == MEDIA_HARDDRIVE_DP)) {
      // A shorter node would have its signature read from whatever follows it.
      if (PathNodeLength (Node) < sizeof (HARDDRIVE_DEVICE_PATH)) {
        break;
      }

      if (PrefixLength != nullptr) {
        *PrefixLength = Offset;
      }

      return reinterpret_cast<CONST HARDDRIVE_DEVICE_PATH *>(Node);
    }

    Offset += PathNodeLength (Node);
  }

  if (PrefixLength != nullptr) {
    *PrefixLength = Offset;
  }

  return nullptr;
}

BOOLEAN
SameDiskSignature (
  IN CONST HARDDRIVE_DEVICE_PATH  *First,
  IN CONST HARDDRIVE_DEVICE_PATH  *Second
  )
{
  UINTN  Bytes;

  if ((First == nullptr) || (Second == nullptr) || (First->SignatureType != Second->SignatureType)) {
    return FALSE;
  }

  if (First->SignatureType == SIGNATURE_TYPE_MBR) {
    Bytes = sizeof (UINT32);
  } else if (First->SignatureType == SIGNATURE_TYPE_GUID) {
    Bytes = sizeof (EFI_GUID);
  } else {
    return FALSE;
  }

  return CompareMem (First->Signature, Second->Signature, Bytes) == 0;
}

BOOLEAN
SameDiskPrefix (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *First,
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Second
  )
{
  UINTN  FirstLength;
  UINTN  SecondLength;

  if ((First == nullptr) || (Second == nullptr)) {
    return FALSE;
  }

  FindHardDriveNode (First, &FirstLength);
  FindHardDriveNode (Second, &SecondLength);
  return (FirstLength != 0) && (FirstLength == SecondLength) && (CompareMem (First, Second, FirstLength) == 0);
}

STATIC
CONST EFI_DEVICE_PATH_PROTOCOL *
DevicePathOf (
  IN EFI_HANDLE  Handle
  )
{
  EFI_DEVICE_PATH_PROTOCOL  *Path;
  EFI_STATUS                Status;

  Path   = nullptr;
  Status = gBS->HandleProtocol (Handle, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID **>(&Path));
  return EFI_ERROR (Status) ? nullptr : Path;
}

BOOLEAN
IsSiblingPartition (
  IN EFI_HANDLE  First,
  IN EFI_HANDLE  Second
  )
{
  CONST EFI_DEVICE_PATH_PROTOCOL  *FirstPath;
  CONST EFI_DEVICE_PATH_PROTOCOL  *SecondPath;
  CONST HARDDRIVE_DEVICE_PATH     *FirstPartition;
  CONST HARDDRIVE_DEVICE_PATH     *SecondPartition;

  if ((First == nullptr) || (Second == nullptr) || (First == Second)) {
    return FALSE;
  }

  FirstPath  = DevicePathOf (First);
  SecondPath = DevicePathOf (Second);
  if ((FirstPath == nullptr) || (SecondPath == nullptr)) {
    return FALSE;
  }

  FirstPartition  = FindHardDriveNode (FirstPath, nullptr);
  SecondPartition = FindHardDriveNode (SecondPath, nullptr);
  if ((FirstPartition == nullptr) || (SecondPartition == nullptr)) {
    return FALSE;
  }

  return SameDiskSignature (FirstPartition, SecondPartition) &&
         (FirstPartition->PartitionNumber != SecondPartition->PartitionNumber) &&
         SameDiskPrefix (FirstPath, SecondPath);
}

BOOLEAN
HandleHasUsbNode (
  IN EFI_HANDLE  Handle
  )
{
  CONST EFI_DEVICE_PATH_PROTOCOL  *Node;

  for (Node = DevicePathOf (Handle); (Node != nullptr) && !PathWalkEnds (Node); Node = NextPathNode (Node)) {
    if ((Node->Type == MESSAGING_DEVICE_PATH) && (Node->SubType == MSG_USB_DP)) {
      return TRUE;
    }
  }

  return FALSE;
}
