/** @file
  What filesystem a partition carries and what its UUID text is (read from its boot
  sector), the spelling of filesystem type names, the UUID in a marker file name, and
  whether two volumes are partitions of one disk.
**/

#ifndef VELMARO_FS_IDENTIFICATION_H_
#define VELMARO_FS_IDENTIFICATION_H_

#include <Velmaro.h>

/// UUID texts live in buffers of this many characters.
#define UUID_TEXT_CHARS  128

// --- Boot sectors (PartitionIdentity.cpp) ----------------------------------------

/**
  "%04x-%04x" of a FAT32 (or FAT12/16) volume serial number, lower case, read from the
  partition's boot sector. Uuid is empty on any failure.

  @retval EFI_SUCCESS            Uuid holds the text, which is logged.
  @retval EFI_INVALID_PARAMETER  Capacity is below 10.
  @retval EFI_UNSUPPORTED        The boot sector carries no FAT signature, or the handle
                                 has no Block I/O.
  @retval EFI_NOT_READY          Block I/O shows no medium.
  @retval EFI_BAD_BUFFER_SIZE    The medium's blocks are smaller than 512 bytes.
  @retval EFI_OUT_OF_RESOURCES   No pool for the boot sector.
  @retval other                  HandleProtocol (Block I/O) or ReadBlocks failed.
**/
EFI_STATUS
ReadFat32Uuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/**
  "%04x-%04x" of an exFAT volume serial number, lower case, read from the partition's
  boot sector. Uuid is empty on any failure.

  @retval EFI_SUCCESS            Uuid holds the text, which is logged.
  @retval EFI_INVALID_PARAMETER  Capacity is below 10.
  @retval EFI_UNSUPPORTED        The boot sector carries no exFAT signature, or the handle
                                 has no Block I/O.
  @retval EFI_NOT_READY          Block I/O shows no medium.
  @retval EFI_BAD_BUFFER_SIZE    The medium's blocks are smaller than 512 bytes.
  @retval EFI_OUT_OF_RESOURCES   No pool for the boot sector.
  @retval other                  HandleProtocol (Block I/O) or ReadBlocks failed.
**/
EFI_STATUS
ReadExfatUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/**
  "%016lx" of an NTFS volume serial number, lower case, read from the partition's boot
  sector. Uuid is empty on any failure. With advanced diagnostics each firmware call's
  answer is logged.

  @retval EFI_SUCCESS            Uuid holds the text, which is logged.
  @retval EFI_INVALID_PARAMETER  Capacity is below 17.
  @retval EFI_UNSUPPORTED        The boot sector carries no NTFS signature, or the handle
                                 has no Block I/O.
  @retval EFI_NOT_READY          Block I/O shows no medium.
  @retval EFI_BAD_BUFFER_SIZE    The medium's blocks are smaller than 512 bytes.
  @retval EFI_OUT_OF_RESOURCES   No pool for the boot sector.
  @retval other                  HandleProtocol (Block I/O) or ReadBlocks failed.
**/
EFI_STATUS
ReadNtfsUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/**
  The first of the FAT32, exFAT and NTFS readers that succeeds. On failure Uuid is
  empty and the status is the NTFS reader's.

  @retval EFI_SUCCESS            Uuid holds the partition's UUID text.
  @retval EFI_INVALID_PARAMETER  Capacity is below 10, or below 17 on a partition that is
                                 neither FAT nor exFAT.
  @retval EFI_UNSUPPORTED        The boot sector carries none of the three signatures, or
                                 the handle has no Block I/O.
  @retval EFI_NOT_READY          Block I/O shows no medium.
  @retval EFI_BAD_BUFFER_SIZE    The medium's blocks are smaller than 512 bytes.
  @retval EFI_OUT_OF_RESOURCES   No pool for the boot sector.
  @retval other                  HandleProtocol (Block I/O) or ReadBlocks failed.
**/
EFI_STATUS
ReadVolumeUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/**
  "FAT32" (also for FAT12/16), "NTFS" or "exFAT", told from the partition's boot sector.
  Name is empty on any failure.

  @retval EFI_SUCCESS            Name holds the type name.
  @retval EFI_INVALID_PARAMETER  Capacity is below 6.
  @retval EFI_UNSUPPORTED        The boot sector carries none of the three signatures, or
                                 the handle has no Block I/O.
  @retval EFI_NOT_READY          Block I/O shows no medium.
  @retval EFI_BAD_BUFFER_SIZE    The medium's blocks are smaller than 512 bytes.
  @retval EFI_OUT_OF_RESOURCES   No pool for the boot sector.
  @retval other                  HandleProtocol (Block I/O) or ReadBlocks failed.
**/
EFI_STATUS
DetectFsType (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Name,
  IN  UINTN       Capacity
  );

/** TRUE when the handles are two different partitions of the same disk. **/
BOOLEAN
IsSiblingPartition (
  IN EFI_HANDLE  First,
  IN EFI_HANDLE  Second
  );

/** TRUE when the handle's device path passes through a USB node. **/
BOOLEAN
HandleHasUsbNode (
  IN EFI_HANDLE  Handle
  );

// --- Device paths (PartitionIdentity.cpp) ---------------------------------------

/** The first Hard Drive media node before the walk ends, or null. PrefixLength gets the
    bytes before that node, or before the end of the walk when there is none. **/
CONST HARDDRIVE_DEVICE_PATH *
FindHardDriveNode (
  IN  CONST EFI_DEVICE_PATH_PROTOCOL  *Path,
  OUT UINTN                           *PrefixLength OPTIONAL
  );

/** TRUE when both nodes carry the same MBR (4-byte) or GPT (16-byte) signature. **/
BOOLEAN
SameDiskSignature (
  IN CONST HARDDRIVE_DEVICE_PATH  *First,
  IN CONST HARDDRIVE_DEVICE_PATH  *Second
  );

/** TRUE when the two paths lead to one disk: the bytes before their Hard Drive nodes (or
    their ends) are as many, more than none, and identical. **/
BOOLEAN
SameDiskPrefix (
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *First,
  IN CONST EFI_DEVICE_PATH_PROTOCOL  *Second
  );

// --- Names (FsNames.cpp) ---------------------------------------------------------

/**
  Rewrites a type name of any letter case to "FAT32", "NTFS" or "exFAT". Name holds
  VELMARO_FS_CHARS characters.

  @retval EFI_SUCCESS            Name is one of the three spellings.
  @retval EFI_UNSUPPORTED        Another name; Name is emptied.
  @retval EFI_INVALID_PARAMETER  Name is empty.
**/
EFI_STATUS
NormalizeFsName (
  IN OUT CHAR16  *Name
  );

/** Equality with a-z folded onto A-Z; FALSE when First is empty or Second missing. **/
BOOLEAN
FsNameEquals (
  IN CONST CHAR16  *First,
  IN CONST CHAR16  *Second
  );

/**
  The UUID before ".uuid" (case-sensitive) in a marker file name, into Uuid
  (UUID_TEXT_CHARS characters).

  @retval EFI_SUCCESS           Uuid holds the UUID, or is empty for any other name.
  @retval EFI_BUFFER_TOO_SMALL  The text before ".uuid" has UUID_TEXT_CHARS characters or
                                more; Uuid is empty.
**/
EFI_STATUS
UuidFromMarkerName (
  OUT CHAR16        *Uuid,
  IN  CONST CHAR16  *MarkerName
  );

/** TRUE when the group's filesystem is named and is not FAT32. **/
BOOLEAN
IsExternalSourceFs (
  IN CONST GROUP_STATE  *State
  );

/** The filesystem whose driver the two states need ("exFAT" before "NTFS", the current
    state before the requested one), or an empty name. **/
VOID
ChooseDriverFs (
  IN  CONST GROUP_STATE  *Current OPTIONAL,
  IN  CONST GROUP_STATE  *Requested OPTIONAL,
  OUT CHAR16             *Name
  );

#endif
