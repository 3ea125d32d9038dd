// What each firmware call can really answer, one table per call the fake can fail:
// the status codes the UEFI 2.10 standard lists for that call, as FatPkg's FAT driver
// (EnhancedFatDxe) and the DXE core (MdeModulePkg/Core/Dxe) produce them, plus the two
// ways a driver can mislead without an error: success without effect, and a Read or
// Write that moves fewer bytes than asked. The first status of every table is a genuine
// error other than EFI_DEVICE_ERROR, so that a caller that invents EFI_DEVICE_ERROR of
// its own is told apart from one that passes the firmware's answer on.
#pragma once

#include <algorithm>
#include <vector>

#include "fake/Firmware.h"

namespace firmware_statuses {

struct Outcome { EFI_STATUS status; fake::Effect effect = fake::Effect::Fail; };
struct Table { fake::Op op; const char *name; std::vector<Outcome> outcomes; };   // no outcomes: the call cannot fail

using fake::Effect;
using fake::Op;

// Success with fewer bytes than asked (said so in the size), and success claimed for a
// change that never happened.
inline constexpr Outcome kShort = { EFI_SUCCESS, Effect::Short }, kNoEffect = { EFI_SUCCESS, Effect::NoEffect };

inline const std::vector<Table> &Tables () {
  static const std::vector<Table> tables = {
    // Open.c, DirectoryManage.c, Init.c, DiskCache.c: medium gone or swapped, no such name,
    // a broken cluster chain, read-only volume or file, no pool, a full directory.
    { Op::Open, "Open", { { EFI_NO_MEDIA }, { EFI_NOT_FOUND }, { EFI_MEDIA_CHANGED }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED },
                          { EFI_WRITE_PROTECTED }, { EFI_ACCESS_DENIED }, { EFI_OUT_OF_RESOURCES }, { EFI_VOLUME_FULL } } },
    { Op::Close, "Close", {} },   // Flush.c FatClose always answers EFI_SUCCESS
    // Delete.c turns every failure into the warning; a driver may also keep the entry.
    { Op::Delete, "Delete", { { EFI_WARN_DELETE_FAILURE }, kNoEffect } },
    // ReadWrite.c FatIFileAccess, FileSpace.c: medium gone or failing, a chain that ends early.
    { Op::Read, "Read", { { EFI_NO_MEDIA }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED }, kShort } },
    // ReadWrite.c, FileSpace.c FatGrowEof: no free cluster, medium gone or failing, read-only.
    { Op::Write, "Write", { { EFI_VOLUME_FULL }, { EFI_NO_MEDIA }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED }, { EFI_WRITE_PROTECTED },
                            { EFI_ACCESS_DENIED }, kShort, kNoEffect } },
    // ReadWrite.c: a directory handle, or a file deleted under the handle.
    { Op::GetPosition, "GetPosition", { { EFI_UNSUPPORTED }, { EFI_DEVICE_ERROR } } },
    { Op::SetPosition, "SetPosition", { { EFI_UNSUPPORTED }, { EFI_DEVICE_ERROR } } },
    // Info.c FatGetInfo: medium gone, file deleted, entry unreadable, unknown information type.
    { Op::GetInfo, "GetInfo", { { EFI_NO_MEDIA }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED }, { EFI_UNSUPPORTED } } },
    // Info.c FatSetFileInfo: name taken, medium trouble, read-only, no room, bad size or name,
    // no pool, a size beyond 4 GiB; or the rename claimed and the old name kept.
    { Op::SetInfo, "SetInfo", { { EFI_ACCESS_DENIED }, { EFI_NO_MEDIA }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED }, { EFI_WRITE_PROTECTED },
                                { EFI_VOLUME_FULL }, { EFI_BAD_BUFFER_SIZE }, { EFI_INVALID_PARAMETER }, { EFI_OUT_OF_RESOURCES },
                                { EFI_UNSUPPORTED }, kNoEffect } },
    // Flush.c FatFlushEx: medium trouble, read-only volume or handle, a directory that cannot
    // grow; or cached bytes never written.
    { Op::Flush, "Flush", { { EFI_NO_MEDIA }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED }, { EFI_WRITE_PROTECTED }, { EFI_ACCESS_DENIED },
                            { EFI_VOLUME_FULL }, kNoEffect } },
    // OpenVolume.c FatOpenVolume: medium gone or swapped, unreadable root, wrong FAT type, no
    // pool, a file system the driver does not know.
    { Op::OpenVolume, "OpenVolume", { { EFI_NO_MEDIA }, { EFI_MEDIA_CHANGED }, { EFI_DEVICE_ERROR }, { EFI_VOLUME_CORRUPTED },
                                      { EFI_ACCESS_DENIED }, { EFI_OUT_OF_RESOURCES }, { EFI_UNSUPPORTED } } },
    // Hand/Handle.c CoreOpenProtocol: protocol not there, stale handle, no pool; opened
    // exclusively or already by this agent.
    { Op::HandleProtocol, "HandleProtocol", { { EFI_UNSUPPORTED }, { EFI_INVALID_PARAMETER }, { EFI_OUT_OF_RESOURCES } } },
    { Op::OpenProtocol, "OpenProtocol", { { EFI_UNSUPPORTED }, { EFI_INVALID_PARAMETER }, { EFI_ACCESS_DENIED }, { EFI_ALREADY_STARTED },
                                          { EFI_OUT_OF_RESOURCES } } },
    // Hand/Locate.c: no match, no pool, a search the core does not take.
    { Op::LocateHandleBuffer, "LocateHandleBuffer", { { EFI_NOT_FOUND }, { EFI_OUT_OF_RESOURCES }, { EFI_INVALID_PARAMETER } } },
    { Op::LocateProtocol, "LocateProtocol", { { EFI_NOT_FOUND }, { EFI_INVALID_PARAMETER } } },
    { Op::AllocatePool, "AllocatePool", { { EFI_OUT_OF_RESOURCES } } },   // Mem/Pool.c: the pool is exhausted
    // No clock on the platform, or one that cannot be read.
    { Op::GetTime, "GetTime", { { EFI_UNSUPPORTED }, { EFI_DEVICE_ERROR } } },
    // Event/Event.c CoreWaitForEvent: above TPL_APPLICATION, or a notify-signal event.
    { Op::WaitForEvent, "WaitForEvent", { { EFI_UNSUPPORTED }, { EFI_INVALID_PARAMETER } } },
    // No key pressed, a failed keyboard, a console without one.
    { Op::ReadKeyStroke, "ReadKeyStroke", { { EFI_NOT_READY }, { EFI_DEVICE_ERROR }, { EFI_UNSUPPORTED } } },
    // ShellProtocol.c EfiShellExecute: a command line it cannot take, no pool, the nested
    // shell image not started; or a command claimed and never run.
    { Op::ShellExecute, "ShellExecute", { { EFI_INVALID_PARAMETER }, { EFI_OUT_OF_RESOURCES }, { EFI_UNSUPPORTED }, kNoEffect } },
    // The command itself (mv, ls, map): no such file, a move the volume refuses, a full
    // volume, a command that stopped; or one that says it worked and did nothing.
    { Op::ShellCommand, "ShellCommand", { { EFI_NOT_FOUND }, { EFI_ACCESS_DENIED }, { EFI_VOLUME_FULL }, { EFI_ABORTED }, kNoEffect } },
    // Block I/O: no medium, failed device, stale MediaId, partial block, LBA or buffer refused.
    { Op::ReadBlocks, "ReadBlocks", { { EFI_NO_MEDIA }, { EFI_DEVICE_ERROR }, { EFI_MEDIA_CHANGED }, { EFI_BAD_BUFFER_SIZE },
                                      { EFI_INVALID_PARAMETER } } },
    // Image/Image.c CoreLoadImageCommon: refused by the platform (the image then stays loaded
    // with its handle, or none is made), not an image, no pool, a parent that is no image.
    { Op::LoadImage, "LoadImage", { { EFI_SECURITY_VIOLATION }, { EFI_ACCESS_DENIED }, { EFI_LOAD_ERROR }, { EFI_UNSUPPORTED },
                                    { EFI_OUT_OF_RESOURCES }, { EFI_INVALID_PARAMETER } } },
    // CoreStartImage: a machine type it cannot run, a refused load, a stale handle.
    { Op::StartImage, "StartImage", { { EFI_UNSUPPORTED }, { EFI_SECURITY_VIOLATION }, { EFI_INVALID_PARAMETER } } },
    { Op::UnloadImage, "UnloadImage", { { EFI_UNSUPPORTED }, { EFI_INVALID_PARAMETER } } },
    // Hand/DriverSupport.c CoreConnectController: no driver takes the controller, a stale
    // handle, a device that failed to start.
    { Op::ConnectController, "ConnectController", { { EFI_NOT_FOUND }, { EFI_INVALID_PARAMETER }, { EFI_DEVICE_ERROR } } },
  };
  return tables;
}

inline const char *OpName (fake::Op op) {
  auto table = std::find_if (Tables ().begin (), Tables ().end (), [&](const Table &t) { return t.op == op; });
  return table == Tables ().end () ? "None" : table->name;
}

inline const char *EffectName (fake::Effect effect) {
  return effect == Effect::Short ? "Short" : effect == Effect::NoEffect ? "NoEffect" : "Fail";
}

}  // namespace firmware_statuses
