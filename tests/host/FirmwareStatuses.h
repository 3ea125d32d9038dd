// What each firmware call can really answer, one table per call the fake can fail:
// the status codes the UEFI 2.10 standard lists for that call, as FatPkg's FAT driver
// (EnhancedFatDxe) and the DXE core (MdeModulePkg/Core/Dxe) produce them, plus the two
// ways a driver can mislead without an error: success without effect, and a Read or
// Write that moves fewer bytes than asked. The first status of every table is a genuine
// error other than EFI_DEVICE_ERROR, so that a caller that invents EFI_DEVICE_ERROR of
// its own is told apart from one that passes the firmware's answer on.
#pragma once

#include <string>
#include <vector>

#include "fake/Firmware.h"

namespace firmware_statuses {

struct Outcome {
  EFI_STATUS    status;
  fake::Effect  effect = fake::Effect::Fail;
};

struct Table {
  fake::Op              op;
  const char            *name;
  std::vector<Outcome>  outcomes;   // empty: the call cannot fail
};

using fake::Effect;
using fake::Op;

inline const std::vector<Table> &Tables () {
  static const std::vector<Table> tables = {
    { Op::Open, "Open", {
      { EFI_NO_MEDIA },           // Init.c: the stick pulled out since the mount, passed on by FatCleanupVolume
      { EFI_NOT_FOUND },          // Open.c FatOFileOpen: no such name and no EFI_FILE_MODE_CREATE
      { EFI_MEDIA_CHANGED },      // Init.c, DiskCache.c: another medium in the device since the mount
      { EFI_DEVICE_ERROR },       // the medium failed to read a directory cluster
      { EFI_VOLUME_CORRUPTED },   // Misc.c FatDiskIo, FileSpace.c: a directory cluster chain that makes no sense
      { EFI_WRITE_PROTECTED },    // Open.c: write mode on a volume mounted read-only
      { EFI_ACCESS_DENIED },      // Open.c: a read-only file opened for writing
      { EFI_OUT_OF_RESOURCES },   // Open.c FatAllocateIFile: no pool for the new handle
      { EFI_VOLUME_FULL },        // DirectoryManage.c: the directory cannot hold another entry
    } },
    { Op::Close, "Close", {} },   // EFI_FILE_PROTOCOL.Close always answers EFI_SUCCESS (Flush.c FatClose)
    { Op::Delete, "Delete", {
      { EFI_WARN_DELETE_FAILURE },               // Delete.c: every failure is turned into this warning
      { EFI_SUCCESS, Effect::NoEffect },         // a driver that claims the delete and keeps the entry
    } },
    { Op::Read, "Read", {
      { EFI_NO_MEDIA },           // ReadWrite.c FatIFileAccess through FatCleanupVolume
      { EFI_DEVICE_ERROR },       // the medium failed, or the file was deleted under the handle
      { EFI_VOLUME_CORRUPTED },   // FileSpace.c: a cluster chain that ends early
      { EFI_SUCCESS, Effect::Short },            // fewer bytes than asked, said so in the size
    } },
    { Op::Write, "Write", {
      { EFI_VOLUME_FULL },        // FileSpace.c FatGrowEof: no free cluster left
      { EFI_NO_MEDIA },           // ReadWrite.c FatIFileAccess through FatCleanupVolume
      { EFI_DEVICE_ERROR },       // the medium refused the write
      { EFI_VOLUME_CORRUPTED },   // a cluster chain that makes no sense
      { EFI_WRITE_PROTECTED },    // ReadWrite.c: the volume is read-only
      { EFI_ACCESS_DENIED },      // ReadWrite.c: the handle or the file is read-only
      { EFI_SUCCESS, Effect::Short },            // fewer bytes than asked, said so in the size
      { EFI_SUCCESS, Effect::NoEffect },         // success claimed for bytes that never reached the medium
    } },
    { Op::GetPosition, "GetPosition", {
      { EFI_UNSUPPORTED },        // ReadWrite.c FatGetPosition: the handle is a directory
      { EFI_DEVICE_ERROR },       // ReadWrite.c: the file was deleted under the handle
    } },
    { Op::SetPosition, "SetPosition", {
      { EFI_UNSUPPORTED },        // ReadWrite.c FatSetPosition: a directory set anywhere but 0
      { EFI_DEVICE_ERROR },       // ReadWrite.c: the file was deleted under the handle
    } },
    { Op::GetInfo, "GetInfo", {
      { EFI_NO_MEDIA },           // Info.c FatGetInfo through FatCleanupVolume
      { EFI_DEVICE_ERROR },       // Info.c: the file was deleted under the handle
      { EFI_VOLUME_CORRUPTED },   // the directory entry cannot be read back
      { EFI_UNSUPPORTED },        // Info.c: an information type the driver does not know
    } },
    { Op::SetInfo, "SetInfo", {
      { EFI_ACCESS_DENIED },      // Info.c FatSetFileInfo: the new name exists, or the root is renamed
      { EFI_NO_MEDIA },           // through FatCleanupVolume
      { EFI_DEVICE_ERROR },       // the medium refused the directory update
      { EFI_VOLUME_CORRUPTED },   // Info.c: a directory entry that cannot be moved
      { EFI_WRITE_PROTECTED },    // Info.c: the volume is read-only
      { EFI_VOLUME_FULL },        // Info.c: no room for the entry under its new name
      { EFI_BAD_BUFFER_SIZE },    // Info.c: a size that does not match the information given
      { EFI_INVALID_PARAMETER },  // Info.c: a name or attributes the driver will not take
      { EFI_OUT_OF_RESOURCES },   // Info.c: no pool for the new name
      { EFI_UNSUPPORTED },        // Info.c: a file size beyond 4 GiB
      { EFI_SUCCESS, Effect::NoEffect },         // a driver that claims the rename and keeps the old name
    } },
    { Op::Flush, "Flush", {
      { EFI_NO_MEDIA },           // Flush.c FatFlushEx through FatCleanupVolume
      { EFI_DEVICE_ERROR },       // the medium refused the write-back
      { EFI_VOLUME_CORRUPTED },   // a cluster chain that makes no sense
      { EFI_WRITE_PROTECTED },    // Flush.c: the volume is read-only
      { EFI_ACCESS_DENIED },      // Flush.c: the handle is read-only
      { EFI_VOLUME_FULL },        // growing the directory on write-back
      { EFI_SUCCESS, Effect::NoEffect },         // success claimed, cached bytes never written
    } },
    { Op::OpenVolume, "OpenVolume", {
      { EFI_NO_MEDIA },           // OpenVolume.c FatOpenVolume through FatCleanupVolume
      { EFI_MEDIA_CHANGED },      // a stick swapped since the volume was mounted
      { EFI_DEVICE_ERROR },       // the medium failed to read the root directory
      { EFI_VOLUME_CORRUPTED },   // OpenVolume.c: the FAT type is wrong
      { EFI_ACCESS_DENIED },      // a volume the driver will not open
      { EFI_OUT_OF_RESOURCES },   // OpenVolume.c FatAllocateIFile
      { EFI_UNSUPPORTED },        // the volume's file system is not one the driver knows
    } },
    { Op::HandleProtocol, "HandleProtocol", {
      { EFI_UNSUPPORTED },        // Hand/Handle.c CoreOpenProtocol: the handle does not carry the protocol
      { EFI_INVALID_PARAMETER },  // Hand/Handle.c: a handle that is no longer in the database
      { EFI_OUT_OF_RESOURCES },   // Hand/Handle.c: no pool for the open-protocol entry
    } },
    { Op::OpenProtocol, "OpenProtocol", {
      { EFI_UNSUPPORTED },        // Hand/Handle.c CoreOpenProtocol: the handle does not carry the protocol
      { EFI_INVALID_PARAMETER },  // Hand/Handle.c: a handle that is no longer in the database
      { EFI_ACCESS_DENIED },      // Hand/Handle.c: opened exclusively by a driver
      { EFI_ALREADY_STARTED },    // Hand/Handle.c: already opened by this agent
      { EFI_OUT_OF_RESOURCES },   // Hand/Handle.c: no pool for the open-protocol entry
    } },
    { Op::LocateHandleBuffer, "LocateHandleBuffer", {
      { EFI_NOT_FOUND },          // Hand/Locate.c CoreLocateHandleBuffer: no handle matches
      { EFI_OUT_OF_RESOURCES },   // Hand/Locate.c: no pool for the buffer
      { EFI_INVALID_PARAMETER },  // Hand/Locate.c: a search the core does not take
    } },
    { Op::LocateProtocol, "LocateProtocol", {
      { EFI_NOT_FOUND },          // Hand/Locate.c CoreLocateProtocol: no handle carries it
      { EFI_INVALID_PARAMETER },  // Hand/Locate.c: no interface pointer
    } },
    { Op::AllocatePool, "AllocatePool", {
      { EFI_OUT_OF_RESOURCES },   // Mem/Pool.c CoreAllocatePool: the pool is exhausted
    } },
    { Op::GetTime, "GetTime", {
      { EFI_UNSUPPORTED },        // a platform whose runtime services offer no clock
      { EFI_DEVICE_ERROR },       // the real-time clock cannot be read
    } },
    { Op::WaitForEvent, "WaitForEvent", {
      { EFI_UNSUPPORTED },        // Event/Event.c CoreWaitForEvent: called above TPL_APPLICATION
      { EFI_INVALID_PARAMETER },  // Event/Event.c: an event of the notify-signal kind
    } },
    { Op::ReadKeyStroke, "ReadKeyStroke", {
      { EFI_NOT_READY },          // no key pressed
      { EFI_DEVICE_ERROR },       // the keyboard failed
      { EFI_UNSUPPORTED },        // a console whose keyboard cannot be read
    } },
    { Op::ReadBlocks, "ReadBlocks", {
      { EFI_NO_MEDIA },           // EFI_BLOCK_IO_PROTOCOL.ReadBlocks: no medium in the device
      { EFI_DEVICE_ERROR },       // the device failed the read
      { EFI_MEDIA_CHANGED },      // the MediaId given is not the current one
      { EFI_BAD_BUFFER_SIZE },    // a size that is not a whole number of blocks
      { EFI_INVALID_PARAMETER },  // an LBA past the end, or a misaligned buffer
    } },
  };
  return tables;
}

inline const char *OpName (fake::Op op) {
  for (const Table &table : Tables ()) {
    if (table.op == op) return table.name;
  }
  return "None";
}

inline const char *EffectName (fake::Effect effect) {
  return effect == Effect::Short ? "Short" : effect == Effect::NoEffect ? "NoEffect" : "Fail";
}

}  // namespace firmware_statuses
