/** @file
  Records shared by every part of Velmaro: the opened volume, one group's names and
  identity, and the record of one activation run. Also the one way we write UEFI text
  literals in C++.
**/

#ifndef VELMARO_H_
#define VELMARO_H_

//
// EDK II's headers declare C functions and GUIDs without linkage blocks of their own;
// every C++ file reaches them through this one include.
//
extern "C" {
#include <Uefi.h>
#include <Guid/FileInfo.h>
#include <Protocol/LoadedImage.h>
#include <Protocol/SimpleFileSystem.h>
#include <Protocol/BlockIo.h>
#include <Protocol/DevicePath.h>
#include <Library/BaseLib.h>
#include <Library/BaseMemoryLib.h>
#include <Library/DevicePathLib.h>
#include <Library/MemoryAllocationLib.h>
#include <Library/PrintLib.h>
#include <Library/TimerLib.h>
#include <Library/UefiApplicationEntryPoint.h>
#include <Library/UefiBootServicesTableLib.h>
#include <Library/UefiLib.h>
#include <Library/UefiRuntimeServicesTableLib.h>
}

//
// UEFI text is CHAR16 (unsigned short); C++ spells UTF-16 literals as char16_t.
// Every literal goes through this one cast so the two never mix elsewhere.
//
inline CONST CHAR16 *
L16 (
  const char16_t  *Text
  )
{
  return reinterpret_cast<CONST CHAR16 *>(Text);
}

inline CHAR16 *
L16 (
  char16_t  *Text
  )
{
  return reinterpret_cast<CHAR16 *>(Text);
}

#define VELMARO_NAME_CHARS   128
#define VELMARO_FS_CHARS     16
#define VELMARO_MD5_CHARS    33
#define VELMARO_LABEL_CHARS  32

///
/// One opened Simple File System volume. A null Root stands for a volume that is not
/// open; whoever opened Root closes it.
///
typedef struct {
  EFI_HANDLE           Handle;
  EFI_FILE_PROTOCOL    *Root;
  UINT32               PartitionNumber;
  CHAR16               Label[VELMARO_LABEL_CHARS];
} VOLUME_REF;

///
/// One group's names and identity. Bcd, Src and Efi are bare names; SrcPart is the
/// partition's UUID text; SrcFs "FAT32", "NTFS" or "exFAT" (empty: FAT32); the digests
/// count only with exactly 32 hexadecimal digits.
///
typedef struct {
  CHAR16    Bcd[VELMARO_NAME_CHARS];
  CHAR16    Src[VELMARO_NAME_CHARS];
  CHAR16    Efi[VELMARO_NAME_CHARS];
  CHAR16    SrcPart[VELMARO_NAME_CHARS];
  CHAR16    SrcFs[VELMARO_FS_CHARS];
  CHAR16    BcdMd5[VELMARO_MD5_CHARS];
  CHAR16    BcdEfiMd5[VELMARO_MD5_CHARS];
} GROUP_STATE;

///
/// The record of one activation run, handed to the source selection and the phases.
///
typedef struct {
  EFI_HANDLE           BootHandle;
  EFI_FILE_PROTOCOL    *BootRoot;
  EFI_HANDLE           SourceHandle;
  EFI_FILE_PROTOCOL    *SourceRoot;
  BOOLEAN              SourceRootOwned;
  CHAR16               GroupId[VELMARO_NAME_CHARS];
  CHAR8                *EntriesText;
  GROUP_STATE          Current;
  GROUP_STATE          Requested;
  BOOLEAN              SourceMetadataApplied;
  EFI_HANDLE           ImageHandle;
  CHAR8                GroupIdAscii[VELMARO_NAME_CHARS];
  BOOLEAN              StateFileParsed;
} ACTIVATION_CONTEXT;

#endif
