// Media, block devices, device paths and boot sectors of the fake. Block I/O answers as a
// USB mass storage or partition driver (MdeModulePkg's UsbMassStorageDxe, PartitionDxe)
// does, Disk I/O as DiskIoDxe above it; boot sectors come from the real formatting tools,
// so that our reading of them is checked against what those tools write and blkid reads.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fake {

constexpr size_t kChunk = 4096;

void Disk::Read (uint64_t offset, void *buffer, size_t count) const {
  for (uint8_t *out = static_cast<uint8_t *>(buffer); count > 0;) {
    const uint64_t within = offset % kChunk;
    const size_t   n      = std::min<uint64_t>(count, kChunk - within);
    if (auto w = written_.find (offset / kChunk); w != written_.end ()) std::memcpy (out, w->second.data () + within, n);
    else if (offset + n <= Size ()) std::memcpy (out, base_->data () + offset, n);
    else std::memset (out, 0, n);
    out += n, offset += n, count -= n;
  }
}

void Disk::Write (uint64_t offset, const void *buffer, size_t count) {
  for (const uint8_t *in = static_cast<const uint8_t *>(buffer); count > 0;) {
    const uint64_t index = offset / kChunk, within = offset % kChunk;
    const size_t   n     = std::min<uint64_t>(count, kChunk - within);
    auto w = written_.find (index);
    if (w == written_.end ()) {
      std::vector<uint8_t> chunk (kChunk);
      Read (index * kChunk, chunk.data (), kChunk);
      w = written_.emplace (index, std::move (chunk)).first;
    }
    std::memcpy (w->second.data () + within, in, n);
    in += n, offset += n, count -= n;
  }
}

std::vector<uint8_t> Disk::Bytes () const {
  std::vector<uint8_t> bytes (Size ());
  Read (0, bytes.data (), bytes.size ());
  return bytes;
}

namespace {

template<typename T> BlockDevice *DeviceOf (const T *self, T BlockDevice::*member) {
  for (const auto &d : Firmware::Current ().blockDevices) {
    if (&(d.get ()->*member) == self) return d.get ();
  }
  ADD_FAILURE () << "a call on a device protocol the fake never installed";
  return nullptr;
}

// The checks a block driver makes before it moves bytes.
EFI_STATUS CheckRequest (const EFI_BLOCK_IO_MEDIA *media, UINT32 mediaId, EFI_LBA lba, UINTN size, const VOID *buffer) {
  if (buffer == nullptr) return EFI_INVALID_PARAMETER;
  if (media == nullptr || !media->MediaPresent) return EFI_NO_MEDIA;
  if (mediaId != media->MediaId) return EFI_MEDIA_CHANGED;
  if (size == 0) return EFI_SUCCESS;
  if (size % media->BlockSize != 0) return EFI_BAD_BUFFER_SIZE;
  UINT64 blocks = size / media->BlockSize;
  if (lba > media->LastBlock || blocks - 1 > media->LastBlock - lba) return EFI_INVALID_PARAMETER;
  if (media->IoAlign > 1 && reinterpret_cast<uintptr_t>(buffer) % media->IoAlign != 0) return EFI_INVALID_PARAMETER;
  return EFI_SUCCESS;
}

// Only a disk's medium takes writes; a boot-sector-only device is a read-only medium. A
// read's fault returns its status untouched: Fail an error, NoEffect success with nothing read.
template<bool Write> EFI_STATUS EFIAPI BlockAccess (EFI_BLOCK_IO_PROTOCOL *self, UINT32 mediaId, EFI_LBA lba, UINTN size, VOID *buffer) {
  BlockDevice *device = DeviceOf (self, &BlockDevice::proto);
  if (device == nullptr || (Write && (!device->disk || (self->Media != nullptr && self->Media->ReadOnly)))) return Write ? EFI_WRITE_PROTECTED : EFI_DEVICE_ERROR;
  if (!Write) device->reads.push_back ({ lba, size });
  if (const Fault *f = Write ? nullptr : Firmware::Current ().faults.Check (Op::ReadBlocks)) return f->status;
  EFI_STATUS status = CheckRequest (self->Media, mediaId, lba, size, buffer);
  if (EFI_ERROR (status) || size == 0) return status;
  const uint64_t offset = lba * self->Media->BlockSize;
  if (Write) device->disk->Write (offset, buffer, size);
  else if (device->disk) device->disk->Read (offset, buffer, size);
  else std::memset (buffer, 0, size);
  if (!Write && !device->disk && offset < device->bytes.size ()) std::memcpy (buffer, device->bytes.data () + offset, std::min<uint64_t>(size, device->bytes.size () - offset));
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BlockReset (EFI_BLOCK_IO_PROTOCOL *, BOOLEAN) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI BlockFlush (EFI_BLOCK_IO_PROTOCOL *) { return EFI_SUCCESS; }

// Disk I/O: byte offsets, no alignment, over the same medium.
template<bool Write> EFI_STATUS EFIAPI DiskAccess (EFI_DISK_IO_PROTOCOL *self, UINT32 mediaId, UINT64 offset, UINTN size, VOID *buffer) {
  BlockDevice *device = DeviceOf (self, &BlockDevice::diskIo);
  if (device == nullptr) return EFI_DEVICE_ERROR;
  const EFI_BLOCK_IO_MEDIA &media = device->media;
  if (!media.MediaPresent) return EFI_NO_MEDIA;
  if (mediaId != media.MediaId) return EFI_MEDIA_CHANGED;
  if (Write && media.ReadOnly) return EFI_WRITE_PROTECTED;
  if (size == 0) return EFI_SUCCESS;
  const uint64_t end = (media.LastBlock + 1) * media.BlockSize;
  if (buffer == nullptr || offset > end || size > end - offset) return EFI_INVALID_PARAMETER;
  if (Write) device->disk->Write (offset, buffer, size);
  else device->disk->Read (offset, buffer, size);
  return EFI_SUCCESS;
}

template<typename T> void AppendNode (std::vector<uint8_t> &path, T node, UINT8 type, UINT8 subType) {
  node.Header = { type, subType, { static_cast<UINT8>(sizeof (T)), static_cast<UINT8>(sizeof (T) >> 8) } };
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&node);
  path.insert (path.end (), bytes, bytes + sizeof (T));
}

const std::vector<uint8_t> kEnd = { END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0 };

std::vector<uint8_t> WithPartition (const std::vector<uint8_t> &disk, uint32_t number, const void *signature, size_t signatureBytes,
                                    UINT8 mbrType, UINT8 signatureType) {
  if (disk.size () < 4 || !std::equal (kEnd.begin (), kEnd.end (), disk.end () - 4)) ADD_FAILURE () << "the disk path does not end with an End node";
  std::vector<uint8_t>  path (disk.begin (), disk.end () - std::min<size_t>(4, disk.size ()));
  HARDDRIVE_DEVICE_PATH hd{ {}, number, 2048ull * number, 0x100000, {}, mbrType, signatureType };
  std::memcpy (hd.Signature, signature, signatureBytes);
  AppendNode (path, hd, MEDIA_DEVICE_PATH, MEDIA_HARDDRIVE_DP);
  path.insert (path.end (), kEnd.begin (), kEnd.end ());
  return path;
}

// --- Boot sectors by the real tools --------------------------------------------

struct ToolImage { std::vector<uint8_t> firstBytes; std::string uuid; std::vector<uint8_t> whole; };

// Sizes are the smallest each tool accepts for that layout, with room to spare; the
// images are sparse and deleted at once.
struct Recipe { const char *kind, *tool, *package, *size, *options; };
const Recipe kRecipes[] = {
  // Every volume starts as this image: FAT32's least cluster count at one sector per
  // cluster, so that copies stay small.
  { "fat32", "mkfs.fat", "dosfstools", "33M", "-F 32 -s 1" },
  { "fat16", "mkfs.fat", "dosfstools", "16M", "-F 16" },
  { "ntfs", "mkntfs", "ntfs-3g", "8M", "-F -f -Q" },
  { "exfat", "mkfs.exfat", "exfatprogs", "8M", "" },
};

// Standard output of a shell command, without its line end; empty when it fails.
std::string Output (const std::string &command) {
  std::string text;
  if (FILE *pipe = popen (("PATH=\"$PATH:/usr/sbin:/sbin\" " + command).c_str (), "r")) {
    char chunk[256];
    while (std::fgets (chunk, sizeof (chunk), pipe) != nullptr) text += chunk;
    if (pclose (pipe) != 0) text.clear ();
  }
  while (!text.empty () && (text.back () == '\n' || text.back () == '\r')) text.pop_back ();
  return text;
}

// Null (with the test failed) when the tool is missing or refuses.
const ToolImage *MadeByTool (const std::string &kind) {
  static std::map<std::string, ToolImage> made;
  if (made.count (kind) != 0) return &made[kind];
  auto recipe = std::find_if (std::begin (kRecipes), std::end (kRecipes), [&](const Recipe &r) { return kind == r.kind; });
  std::string dir = (std::filesystem::temp_directory_path () / "velmaro-bootsector-XXXXXX").string ();
  if (recipe == std::end (kRecipes) || mkdtemp (dir.data ()) == nullptr) return (void)(ADD_FAILURE () << "no \"" << kind << "\" image made in " << dir), nullptr;
  const std::string image = dir + "/" + kind + ".img";
  ToolImage         result;
  std::string log = Output ("truncate -s " + std::string (recipe->size) + " '" + image + "' && " + recipe->tool + " " + recipe->options +
                            " '" + image + "' 2>&1; echo \" exit=$?\"");
  bool ok = log.size () >= 7 && log.compare (log.size () - 7, 7, " exit=0") == 0;
  if (!ok) ADD_FAILURE () << recipe->tool << " " << recipe->options << " failed (install " << recipe->package << "; scripts/setup.sh does):\n" << log;
  std::ifstream in (image, std::ios::binary | std::ios::ate);
  result.whole.resize (in ? static_cast<size_t>(in.tellg ()) : 0);
  in.seekg (0).read (reinterpret_cast<char *>(result.whole.data ()), result.whole.size ());
  if (ok && !(ok = result.whole.size () >= 4096)) ADD_FAILURE () << recipe->tool << " left an image shorter than 4096 bytes";
  if (ok) result.firstBytes.assign (result.whole.begin (), result.whole.begin () + 4096);
  if (kind != "fat32") result.whole.clear ();
  // -c /dev/null: blkid probes the image itself and leaves the system's cache alone.
  result.uuid = Output ("blkid -c /dev/null -o value -s UUID '" + image + "'");
  if (ok && !(ok = !result.uuid.empty ())) ADD_FAILURE () << "blkid (util-linux) reports no UUID for the " << kind << " image";
  std::error_code ignored;
  std::filesystem::remove_all (dir, ignored);
  return ok ? &(made[kind] = std::move (result)) : nullptr;
}

}  // namespace

// On a volume's handle, bytes that start with its own boot sector change nothing: the
// Block I/O stays that of the disk the driver reads (whose FSInfo sector the driver may
// since have updated). Other bytes give the handle another Block I/O (the driver keeps
// reading its disk through Disk I/O).
BlockDevice &Firmware::AddBlockIo (EFI_HANDLE handle, const std::vector<uint8_t> &firstBlocks, UINT32 blockSize, bool logicalPartition) {
  for (const auto &d : blockDevices) {
    if (d->handle != handle || !d->disk || Find (handle, gEfiBlockIoProtocolGuid) != &d->proto || firstBlocks.size () < 512 ||
        blockSize != d->media.BlockSize || logicalPartition != d->media.LogicalPartition) continue;
    std::vector<uint8_t> start (512);
    d->disk->Read (0, start.data (), start.size ());
    if (std::equal (start.begin (), start.end (), firstBlocks.begin ())) return *d;
  }
  auto device    = std::make_unique<BlockDevice>();
  device->handle = handle;
  device->bytes  = firstBlocks;
  device->media  = { 1, TRUE, TRUE, logicalPartition, FALSE, FALSE, blockSize, 0,
                     blockSize == 0 || firstBlocks.empty () ? 0 : (firstBlocks.size () + blockSize - 1) / blockSize - 1, 0, 0, 0 };
  device->proto  = { EFI_BLOCK_IO_PROTOCOL_REVISION, &device->media, BlockReset, BlockAccess<false>, BlockAccess<true>, BlockFlush };
  Uninstall (handle, gEfiBlockIoProtocolGuid);
  Install (handle, gEfiBlockIoProtocolGuid, &device->proto);
  return *blockDevices.emplace_back (std::move (device));
}

BlockDevice &Firmware::AddDisk (EFI_HANDLE handle, std::shared_ptr<Disk> disk) {
  auto device    = std::make_unique<BlockDevice>();
  device->handle = handle;
  device->disk   = std::move (disk);
  device->media  = { 1, TRUE, TRUE, TRUE, FALSE, FALSE, 512, 0, device->disk->Size () / 512 - 1, 0, 0, 0 };
  device->proto  = { EFI_BLOCK_IO_PROTOCOL_REVISION, &device->media, BlockReset, BlockAccess<false>, BlockAccess<true>, BlockFlush };
  device->diskIo = { EFI_DISK_IO_PROTOCOL_REVISION, DiskAccess<false>, DiskAccess<true> };
  Install (handle, gEfiBlockIoProtocolGuid, &device->proto);
  Install (handle, gEfiDiskIoProtocolGuid, &device->diskIo);
  return *blockDevices.emplace_back (std::move (device));
}

void Firmware::RemoveDevice (BlockDevice *device) {
  Uninstall (device->handle, gEfiDiskIoProtocolGuid);
  if (Find (device->handle, gEfiBlockIoProtocolGuid) == &device->proto) Uninstall (device->handle, gEfiBlockIoProtocolGuid);
  blockDevices.erase (std::find_if (blockDevices.begin (), blockDevices.end (), [&](const auto &d) { return d.get () == device; }));
}

void Firmware::SetDevicePath (EFI_HANDLE handle, std::vector<uint8_t> bytes) {
  Uninstall (handle, gEfiDevicePathProtocolGuid);
  devicePaths_[handle] = std::move (bytes);
  Install (handle, gEfiDevicePathProtocolGuid, devicePaths_[handle].data ());
}

std::vector<uint8_t> UsbDiskPath (uint8_t port) {
  std::vector<uint8_t> path;
  AppendNode (path, ACPI_HID_DEVICE_PATH{ {}, EISA_PNP_ID (0x0A03), 0 }, ACPI_DEVICE_PATH, ACPI_DP);
  AppendNode (path, PCI_DEVICE_PATH{ {}, 0, 0x14 }, HARDWARE_DEVICE_PATH, HW_PCI_DP);
  AppendNode (path, USB_DEVICE_PATH{ {}, port, 0 }, MESSAGING_DEVICE_PATH, MSG_USB_DP);
  path.insert (path.end (), kEnd.begin (), kEnd.end ());
  return path;
}

std::vector<uint8_t> WithMbrPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber, uint32_t signature) {
  return WithPartition (disk, partitionNumber, &signature, 4, MBR_TYPE_PCAT, SIGNATURE_TYPE_MBR);
}

std::vector<uint8_t> WithGptPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber, const std::array<uint8_t, 16> &guid) {
  return WithPartition (disk, partitionNumber, guid.data (), guid.size (), MBR_TYPE_EFI_PARTITION_TABLE_HEADER, SIGNATURE_TYPE_GUID);
}

std::vector<uint8_t> BootSectorImage (const std::string &kind) {
  const ToolImage *image = MadeByTool (kind);
  return image == nullptr ? std::vector<uint8_t>() : image->firstBytes;
}

std::string BlkidUuid (const std::string &kind) {
  const ToolImage *image = MadeByTool (kind);
  return image == nullptr ? std::string () : image->uuid;
}

Disk FormattedFat32 () {
  static const Disk formatted (MadeByTool ("fat32") == nullptr ? std::vector<uint8_t>() : MadeByTool ("fat32")->whole);
  return formatted;
}

}  // namespace fake
