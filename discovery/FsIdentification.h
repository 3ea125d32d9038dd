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

/** "%04x-%04x" of a FAT32 (or FAT12/16) volume serial number; Capacity at least 10. **/
EFI_STATUS
ReadFat32Uuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/** "%04x-%04x" of an exFAT volume serial number; Capacity at least 10. **/
EFI_STATUS
ReadExfatUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/** "%016lx" of an NTFS volume serial number; Capacity at least 17. **/
EFI_STATUS
ReadNtfsUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/** The first of the FAT32, exFAT and NTFS readers that succeeds. **/
EFI_STATUS
ReadVolumeUuid (
  IN  EFI_HANDLE  Partition,
  OUT CHAR16      *Uuid,
  IN  UINTN       Capacity
  );

/** "FAT32" (also for FAT12/16), "NTFS" or "exFAT"; Capacity at least 6. **/
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

/** Rewrites a type name of any letter case to "FAT32", "NTFS" or "exFAT";
    another name is emptied with EFI_UNSUPPORTED. **/
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

/** The UUID before ".uuid" in a marker file name; empty (with success) for any other name. **/
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
