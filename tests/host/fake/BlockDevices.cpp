// Block devices, device paths and boot sectors of the fake. Block I/O answers as a USB
// mass storage or partition driver (MdeModulePkg's UsbMassStorageDxe, PartitionDxe) does;
// boot sectors come from the real formatting tools, so that our reading of them is checked
// against what those tools write and what blkid reads back.
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
namespace {

EFI_STATUS EFIAPI BlockRead (EFI_BLOCK_IO_PROTOCOL *self, UINT32 mediaId, EFI_LBA lba, UINTN size, VOID *buffer) {
  auto &devices = Firmware::Current ().blockDevices;
  auto it       = std::find_if (devices.begin (), devices.end (), [&](const auto &d) { return &d->proto == self; });
  if (it == devices.end ()) {
    ADD_FAILURE () << "Block I/O call on a protocol the fake never installed";
    return EFI_DEVICE_ERROR;
  }
  BlockDevice &device = **it;
  device.reads.push_back ({ lba, size });
  // A fault returns its status untouched: Fail an error, NoEffect success with nothing read.
  if (const Fault *f = Firmware::Current ().faults.Check (Op::ReadBlocks)) return f->status;

  const EFI_BLOCK_IO_MEDIA *media = self->Media;
  if (buffer == nullptr) return EFI_INVALID_PARAMETER;
  if (media == nullptr || !media->MediaPresent) return EFI_NO_MEDIA;
  if (mediaId != media->MediaId) return EFI_MEDIA_CHANGED;
  if (size == 0) return EFI_SUCCESS;
  if (size % media->BlockSize != 0) return EFI_BAD_BUFFER_SIZE;
  UINT64 blocks = size / media->BlockSize;
  if (lba > media->LastBlock || blocks - 1 > media->LastBlock - lba) return EFI_INVALID_PARAMETER;
  if (media->IoAlign > 1 && reinterpret_cast<uintptr_t>(buffer) % media->IoAlign != 0) return EFI_INVALID_PARAMETER;

  uint64_t offset = lba * media->BlockSize;
  std::memset (buffer, 0, size);
  if (offset < device.bytes.size ()) {
    std::memcpy (buffer, device.bytes.data () + offset, std::min<uint64_t>(size, device.bytes.size () - offset));
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BlockReset (EFI_BLOCK_IO_PROTOCOL *, BOOLEAN) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI BlockWrite (EFI_BLOCK_IO_PROTOCOL *, UINT32, EFI_LBA, UINTN, VOID *) { return EFI_WRITE_PROTECTED; }
EFI_STATUS EFIAPI BlockFlush (EFI_BLOCK_IO_PROTOCOL *) { return EFI_SUCCESS; }

// --- Device paths --------------------------------------------------------------

template<typename T>
void AppendNode (std::vector<uint8_t> &path, T node, UINT8 type, UINT8 subType) {
  node.Header = { type, subType, { static_cast<UINT8>(sizeof (T)), static_cast<UINT8>(sizeof (T) >> 8) } };
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&node);
  path.insert (path.end (), bytes, bytes + sizeof (T));
}

const std::vector<uint8_t> kEnd = { END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0 };

std::vector<uint8_t> WithPartition (const std::vector<uint8_t> &disk, uint32_t number, const uint8_t *signature, size_t signatureBytes,
                                    UINT8 mbrType, UINT8 signatureType) {
  if (disk.size () < 4 || !std::equal (kEnd.begin (), kEnd.end (), disk.end () - 4)) ADD_FAILURE () << "the disk path does not end with an End node";
  std::vector<uint8_t>  path (disk.begin (), disk.end () - std::min<size_t>(4, disk.size ()));
  HARDDRIVE_DEVICE_PATH hd{};
  hd.PartitionNumber = number;
  hd.PartitionStart  = 2048ull * number;
  hd.PartitionSize   = 0x100000;
  std::memcpy (hd.Signature, signature, signatureBytes);
  hd.MBRType       = mbrType;
  hd.SignatureType = signatureType;
  AppendNode (path, hd, MEDIA_DEVICE_PATH, MEDIA_HARDDRIVE_DP);
  path.insert (path.end (), kEnd.begin (), kEnd.end ());
  return path;
}

// --- Boot sectors by the real tools --------------------------------------------

struct ToolImage { std::vector<uint8_t> firstBytes; std::string uuid; };

// Sizes are the smallest each tool accepts for that layout, with room to spare; the
// images are sparse and deleted at once.
struct Recipe { const char *kind, *tool, *package, *size, *options; };
const Recipe kRecipes[] = {
  { "fat32", "mkfs.fat", "dosfstools", "64M", "-F 32" },
  { "fat16", "mkfs.fat", "dosfstools", "16M", "-F 16" },
  { "ntfs", "mkntfs", "ntfs-3g", "8M", "-F -f -Q" },
  { "exfat", "mkfs.exfat", "exfatprogs", "8M", "" },
};

const std::string kToolPath = "PATH=\"$PATH:/usr/sbin:/sbin\" ";

// Standard output of a shell command, without its line end; empty when it fails.
std::string Output (const std::string &command) {
  std::string text;
  if (FILE *pipe = popen ((kToolPath + command).c_str (), "r")) {
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
  if (recipe == std::end (kRecipes)) {
    ADD_FAILURE () << "no recipe for a \"" << kind << "\" boot sector";
    return nullptr;
  }
  for (const char *tool : { recipe->tool, "blkid" }) {
    if (std::system ((kToolPath + "command -v " + tool + " >/dev/null 2>&1").c_str ()) != 0) {
      ADD_FAILURE () << tool << " not found: install " << (tool == recipe->tool ? recipe->package : "util-linux") << " (scripts/setup.sh does)";
      return nullptr;
    }
  }

  std::string dir = (std::filesystem::temp_directory_path () / "velmaro-bootsector-XXXXXX").string ();
  if (mkdtemp (dir.data ()) == nullptr) {
    ADD_FAILURE () << "mkdtemp failed for " << dir;
    return nullptr;
  }
  const std::string image = dir + "/" + kind + ".img";
  ToolImage         result;
  result.firstBytes.resize (4096);
  std::string log = Output ("truncate -s " + std::string (recipe->size) + " '" + image + "' && " + recipe->tool + " " + recipe->options +
                            " '" + image + "' 2>&1; echo \" exit=$?\"");
  bool ok = log.size () >= 7 && log.compare (log.size () - 7, 7, " exit=0") == 0;
  if (!ok) ADD_FAILURE () << recipe->tool << " " << recipe->options << " failed:\n" << log;
  if (ok) {
    std::ifstream in (image, std::ios::binary);
    in.read (reinterpret_cast<char *>(result.firstBytes.data ()), 4096);
    if (!(ok = in.gcount () == 4096)) ADD_FAILURE () << recipe->tool << " left an image shorter than 4096 bytes";
    // -c /dev/null: blkid probes the image itself and leaves the system's cache alone.
    result.uuid = Output ("blkid -c /dev/null -o value -s UUID '" + image + "'");
    if (ok && result.uuid.empty ()) {
      ADD_FAILURE () << "blkid reports no UUID for the " << kind << " image";
      ok = false;
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all (dir, ignored);
  return ok ? &(made[kind] = result) : nullptr;
}

}  // namespace

BlockDevice &Firmware::AddBlockIo (EFI_HANDLE handle, const std::vector<uint8_t> &firstBlocks, UINT32 blockSize, bool logicalPartition) {
  auto device    = std::make_unique<BlockDevice>();
  device->handle = handle;
  device->bytes  = firstBlocks;
  device->media  = { 1, TRUE, TRUE, logicalPartition, FALSE, FALSE, blockSize, 0,
                     blockSize == 0 || firstBlocks.empty () ? 0 : (firstBlocks.size () + blockSize - 1) / blockSize - 1 };
  device->proto  = { EFI_BLOCK_IO_PROTOCOL_REVISION, &device->media, BlockReset, BlockRead, BlockWrite, BlockFlush };
  Uninstall (handle, gEfiBlockIoProtocolGuid);
  blockDevices.push_back (std::move (device));
  Install (handle, gEfiBlockIoProtocolGuid, &blockDevices.back ()->proto);
  return *blockDevices.back ();
}

void Firmware::SetDevicePath (EFI_HANDLE handle, std::vector<uint8_t> bytes) {
  Uninstall (handle, gEfiDevicePathProtocolGuid);
  devicePaths_[handle] = std::move (bytes);
  Install (handle, gEfiDevicePathProtocolGuid, devicePaths_[handle].data ());
}

std::vector<uint8_t> UsbDiskPath (uint8_t port) {
  std::vector<uint8_t> path;
  ACPI_HID_DEVICE_PATH root{};
  PCI_DEVICE_PATH      pci{};
  USB_DEVICE_PATH      usb{};
  root.HID             = EISA_PNP_ID (0x0A03);
  pci.Device           = 0x14;
  usb.ParentPortNumber = port;
  AppendNode (path, root, ACPI_DEVICE_PATH, ACPI_DP);
  AppendNode (path, pci, HARDWARE_DEVICE_PATH, HW_PCI_DP);
  AppendNode (path, usb, MESSAGING_DEVICE_PATH, MSG_USB_DP);
  path.insert (path.end (), kEnd.begin (), kEnd.end ());
  return path;
}

std::vector<uint8_t> WithMbrPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber, uint32_t signature) {
  return WithPartition (disk, partitionNumber, reinterpret_cast<const uint8_t *>(&signature), 4, MBR_TYPE_PCAT, SIGNATURE_TYPE_MBR);
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

}  // namespace fake
