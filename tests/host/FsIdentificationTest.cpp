#include "Harness.h"

#include <functional>
#include <tuple>

#include <discovery/FsIdentification.h>

namespace {

typedef EFI_STATUS (*TextReader)(EFI_HANDLE, CHAR16 *, UINTN);

// reads: boot sector reads of one call that gets that far each time
struct Entry { const char *name; TextReader call; size_t reads; };

const Entry kEntries[] = {
  { "ReadFat32Uuid", ReadFat32Uuid, 1 }, { "ReadExfatUuid", ReadExfatUuid, 1 }, { "ReadNtfsUuid", ReadNtfsUuid, 1 },
  { "ReadVolumeUuid", ReadVolumeUuid, 3 }, { "DetectFsType", DetectFsType, 1 },
};

const std::string kHandleOk = "NTFS diagnostica: HandleProtocol(BlockIo): Success (0x0)";
const std::string kReadOk   = "NTFS diagnostica: ReadBlocks(boot sector NTFS): Success (0x0)";
const std::string kReadErr  = "NTFS diagnostica: ReadBlocks(boot sector NTFS): Device Error (0x8000000000000007)";
const std::string kNoNtfs   = "NTFS diagnostica: boot sector non contiene firma NTFS";

using Prepare = std::function<void (fake::BlockDevice &)>;
using Texts = std::vector<std::string>;

class FsIdentificationTest : public HostTest {
 protected:
  CHAR16   out[UUID_TEXT_CHARS];
  uint32_t partitions = 0;

  FsIdentificationTest () { Scribble (); }

  // Filled with 'X' so that an output a call forgot to empty shows.
  void Scribble () { std::fill (std::begin (out), std::end (out) - 1, u'X'), out[UUID_TEXT_CHARS - 1] = 0; }

  // A partition handle as the firmware's partition driver makes it: Block I/O and a device
  // path. Bytes: those of a tool-made image of that kind, or the ones given.
  fake::BlockDevice &Partition (const std::string &kind, UINT32 blockSize = 512, std::vector<uint8_t> bytes = {}) {
    if (bytes.empty ()) bytes = fake::BootSectorImage (kind);
    EXPECT_EQ (bytes.size (), 4096u) << kind;
    EFI_HANDLE handle = fw.NewHandle ();
    fw.SetDevicePath (handle, fake::WithMbrPartition (fake::UsbDiskPath (1), ++partitions, 0x5EED1234));
    return fw.AddBlockIo (handle, bytes, blockSize);
  }

  Texts Messages () const { return Lines (Console ()); }
};

// --- Boot sectors written by the real tools ----------------------------------------

TEST_F (FsIdentificationTest, TypeAndLowerCaseUuidAgreeWithBlkid) {
  const struct { const char *kind, *type; TextReader reader; } rows[] = {
    { "fat32", "FAT32", ReadFat32Uuid }, { "fat16", "FAT32", ReadFat32Uuid }, { "ntfs", "NTFS", ReadNtfsUuid }, { "exfat", "exFAT", ReadExfatUuid } };
  for (const auto &row : rows) {
    SCOPED_TRACE (row.kind);
    const std::string uuid   = Lower (fake::BlkidUuid (row.kind));
    EFI_HANDLE        handle = Partition (row.kind).handle;
    fw.console.clear ();
    ASSERT_EQ (DetectFsType (handle, out, 6), EFI_SUCCESS);
    EXPECT_EQ (Str (out), row.type);
    for (TextReader reader : { ReadFat32Uuid, ReadExfatUuid, ReadNtfsUuid }) {
      Scribble ();
      EXPECT_EQ (reader (handle, out, UUID_TEXT_CHARS), reader == row.reader ? EFI_SUCCESS : EFI_UNSUPPORTED);
      EXPECT_EQ (Str (out), reader == row.reader ? uuid : "");
    }
    EXPECT_EQ (ReadVolumeUuid (handle, out, UUID_TEXT_CHARS), EFI_SUCCESS);
    EXPECT_EQ (Str (out), uuid);
    EXPECT_EQ (Messages (), Texts (2, std::string (row.type) + " partition found: UUID=" + uuid));
  }
}

TEST_F (FsIdentificationTest, SerialNumbersBecomeTheirUuidText) {
  const struct { const char *kind; std::vector<std::pair<size_t, std::vector<uint8_t>>> edits; TextReader reader; std::string message; } rows[] = {
    { "fat32", { { 0x43, { 0xCD, 0x00, 0xAB, 0x00 } } }, ReadFat32Uuid, "FAT32 partition found: UUID=00ab-00cd" },
    { "fat16", { { 0x27, { 0x78, 0x56, 0x34, 0x12 } } }, ReadFat32Uuid, "FAT32 partition found: UUID=1234-5678" },
    // "FAT" at 0x36 does not make a FAT32 boot sector's serial come from offset 39.
    { "fat32", { { 0x36, { 'F', 'A', 'T' } }, { 0x27, { 1, 2, 3, 4 } }, { 0x43, { 0xEF, 0xBE, 0xAD, 0xDE } } }, ReadFat32Uuid,
      "FAT32 partition found: UUID=dead-beef" },
    { "exfat", { { 0x64, { 0x0F, 0x00, 0xE0, 0xFF } } }, ReadExfatUuid, "exFAT partition found: UUID=ffe0-000f" },
    { "ntfs", { { 0x48, { 0xCD, 0xAB, 0, 0, 0, 0, 0, 0 } } }, ReadNtfsUuid, "NTFS partition found: UUID=000000000000abcd" },
    { "ntfs", { { 0x48, { 0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01 } } }, ReadNtfsUuid, "NTFS partition found: UUID=0123456789abcdef" },
  };

  for (const auto &row : rows) {
    std::vector<uint8_t> bytes = fake::BootSectorImage (row.kind);
    ASSERT_EQ (bytes.size (), 4096u);
    for (const auto &[offset, with] : row.edits) std::copy (with.begin (), with.end (), bytes.begin () + offset);
    fw.console.clear ();
    EXPECT_EQ (row.reader (Partition (row.kind, 512, bytes).handle, out, UUID_TEXT_CHARS), EFI_SUCCESS) << row.message;
    EXPECT_EQ (Messages (), Texts{ row.message });
    EXPECT_EQ (Str (out), row.message.substr (row.message.find ('=') + 1));
  }
}

TEST_F (FsIdentificationTest, LargeBlockIsReadWholeWithTheCurrentMediaId) {
  fake::BlockDevice &disk = Partition ("ntfs", 4096);
  disk.media.MediaId      = 9;
  ASSERT_EQ (ReadNtfsUuid (disk.handle, out, 17), EFI_SUCCESS);
  EXPECT_EQ (Str (out), Lower (fake::BlkidUuid ("ntfs")));
  EXPECT_EQ (disk.reads, (std::vector<std::pair<EFI_LBA, UINTN>>{ { 0, 4096 } }));
}

// --- Failures, the same for every entry point -------------------------------------------

TEST_F (FsIdentificationTest, FailuresLeaveOutputEmptyAndReturnTheirStatus) {
  const struct { const char *name; Prepare setup; EFI_STATUS status; bool reachesRead; } rows[] = {
    { "NoBlockIo", [&](fake::BlockDevice &d) { fw.Uninstall (d.handle, gEfiBlockIoProtocolGuid); }, EFI_UNSUPPORTED, false },
    { "NoMedia", [](fake::BlockDevice &d) { d.proto.Media = nullptr; }, EFI_NOT_READY, false },
    { "MediaAbsent", [](fake::BlockDevice &d) { d.media.MediaPresent = FALSE; }, EFI_NOT_READY, false },
    { "SmallBlocks", [](fake::BlockDevice &d) { d.media.BlockSize = 256; }, EFI_BAD_BUFFER_SIZE, false },
    { "NoPool", [&](fake::BlockDevice &) { fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES); }, EFI_OUT_OF_RESOURCES, false },
    { "ReadFails", [&](fake::BlockDevice &) { fw.faults.Fail (Op::ReadBlocks, EFI_DEVICE_ERROR); }, EFI_DEVICE_ERROR, true },
    { "ForeignSignature", [](fake::BlockDevice &d) { d.bytes[6] = 'Z'; }, EFI_UNSUPPORTED, true },
  };

  for (const auto &row : rows) {
    for (const Entry &entry : kEntries) {
      fake::BlockDevice &disk = Partition ("ntfs");
      row.setup (disk);
      Scribble ();
      EXPECT_EQ (entry.call (disk.handle, out, UUID_TEXT_CHARS), row.status) << row.name << " " << entry.name;
      EXPECT_EQ (out[0], 0) << row.name << " " << entry.name;
      EXPECT_EQ (disk.reads.size (), row.reachesRead ? entry.reads : 0) << row.name << " " << entry.name;
      fw.faults.Reset ();
    }
  }
  EXPECT_EQ (Console (), "");
}

TEST_F (FsIdentificationTest, ArgumentsAreCheckedBeforeTheFirmwareIsAsked) {
  // type: DetectFsType's answer
  const struct { const char *kind; size_t entry; UINTN smallest; const char *type; } rows[] = {
    { "fat32", 0, 10, nullptr }, { "exfat", 1, 10, nullptr }, { "ntfs", 2, 17, nullptr }, { "fat16", 3, 10, nullptr }, { "exfat", 4, 6, "exFAT" } };

  for (const auto &row : rows) {
    const Entry &entry  = kEntries[row.entry];
    EFI_HANDLE  handle  = Partition (row.kind).handle;
    fw.faults.Reset (), Scribble ();
    EXPECT_EQ (entry.call (handle, out, row.smallest - 1), EFI_INVALID_PARAMETER) << entry.name;
    EXPECT_EQ (out[0], 0) << entry.name;
    EXPECT_EQ (entry.call (handle, nullptr, UUID_TEXT_CHARS), EFI_INVALID_PARAMETER) << entry.name;
    EXPECT_EQ (fw.faults.Calls (Op::HandleProtocol), 0u) << entry.name;
    // The readers refuse a missing handle themselves; DetectFsType leaves it to the firmware.
    EXPECT_EQ (entry.call (nullptr, out, UUID_TEXT_CHARS), EFI_INVALID_PARAMETER) << entry.name;
    EXPECT_EQ (fw.faults.Calls (Op::HandleProtocol), row.type != nullptr ? 1u : 0u) << entry.name;
    ASSERT_EQ (entry.call (handle, out, row.smallest), EFI_SUCCESS) << entry.name;
    EXPECT_EQ (Str (out).size (), row.smallest - 1) << entry.name;
    if (row.type != nullptr) EXPECT_EQ (Str (out), row.type);
  }
}

// --- NTFS diagnostics and the order of ReadVolumeUuid ---------------------------------------

TEST_F (FsIdentificationTest, NtfsReaderTracesItsStepsWhenDiagnosticsAreOn) {
  const std::string found = "NTFS partition found: UUID=" + Lower (fake::BlkidUuid ("ntfs"));
  const Prepare       none = [](fake::BlockDevice &) {}, failRead = [&](fake::BlockDevice &) { fw.faults.Fail (Op::ReadBlocks, EFI_DEVICE_ERROR); };
  const struct { const char *kind; Prepare setup; BOOLEAN advanced; EFI_STATUS status; Texts messages; } rows[] = {
    { "ntfs", none, TRUE, EFI_SUCCESS, { kHandleOk, kReadOk, found } },
    { "ntfs", [&](fake::BlockDevice &d) { fw.Uninstall (d.handle, gEfiBlockIoProtocolGuid); }, TRUE, EFI_UNSUPPORTED,
      { "NTFS diagnostica: HandleProtocol(BlockIo): Unsupported (0x8000000000000003)" } },
    { "ntfs", failRead, TRUE, EFI_DEVICE_ERROR, { kHandleOk, kReadErr } },
    { "ntfs", [](fake::BlockDevice &d) { d.media.MediaPresent = FALSE; }, TRUE, EFI_NOT_READY, { kHandleOk } },
    { "exfat", none, TRUE, EFI_UNSUPPORTED, { kHandleOk, kReadOk, kNoNtfs } },
    { "exfat", failRead, FALSE, EFI_DEVICE_ERROR, {} },
    { "ntfs", none, FALSE, EFI_SUCCESS, { found } },
  };

  for (const auto &row : rows) {
    fake::BlockDevice &disk = Partition (row.kind);
    row.setup (disk);
    AdvancedDiagnostics = row.advanced;
    fw.console.clear ();
    EXPECT_EQ (ReadNtfsUuid (disk.handle, out, UUID_TEXT_CHARS), row.status) << row.kind;
    EXPECT_EQ (Messages (), row.messages) << row.kind;
    fw.faults.Reset ();
  }
}

TEST_F (FsIdentificationTest, VolumeUuidTriesFatThenExfatThenNtfs) {
  const std::string ntfs = Lower (fake::BlkidUuid ("ntfs")), fat = Lower (fake::BlkidUuid ("fat32")), ex = Lower (fake::BlkidUuid ("exfat"));
  // failingRead: the ReadBlocks call that fails, 0 for none
  const struct { const char *kind; unsigned failingRead; bool corrupt; EFI_STATUS status; size_t reads; std::string uuid; Texts messages; } rows[] = {
    { "fat32", 0, false, EFI_SUCCESS, 1, fat, { "FAT32 partition found: UUID=" + fat } },
    { "exfat", 0, false, EFI_SUCCESS, 2, ex, { "exFAT partition found: UUID=" + ex } },
    { "ntfs", 0, false, EFI_SUCCESS, 3, ntfs, { kHandleOk, kReadOk, "NTFS partition found: UUID=" + ntfs } },
    { "ntfs", 1, false, EFI_SUCCESS, 3, ntfs, { kHandleOk, kReadOk, "NTFS partition found: UUID=" + ntfs } },
    // The NTFS attempt's status, not the FAT and exFAT ones'.
    { "ntfs", 3, true, EFI_DEVICE_ERROR, 3, "", { kHandleOk, kReadErr } },
    { "ntfs", 0, true, EFI_UNSUPPORTED, 3, "", { kHandleOk, kReadOk, kNoNtfs } },
  };

  AdvancedDiagnostics = TRUE;
  for (const auto &row : rows) {
    fake::BlockDevice &disk = Partition (row.kind);
    if (row.corrupt) disk.bytes[3] = 'X';
    fw.faults.Set ({ row.failingRead != 0 ? Op::ReadBlocks : Op::None, EFI_DEVICE_ERROR, row.failingRead }), fw.console.clear (), Scribble ();
    EXPECT_EQ (ReadVolumeUuid (disk.handle, out, UUID_TEXT_CHARS), row.status) << row.kind << row.failingRead;
    EXPECT_EQ (Str (out), row.uuid);
    EXPECT_EQ (disk.reads.size (), row.reads);
    EXPECT_EQ (fw.faults.Calls (Op::ReadBlocks), row.reads);
    // Only the NTFS attempt traces, and only when it is made.
    EXPECT_EQ (Messages (), row.messages);
  }
}

// --- Partitions of one disk ------------------------------------------------------------

std::vector<uint8_t> WithByte (std::vector<uint8_t> path, size_t offset, uint8_t value) {
  path[offset] = value;
  return path;
}

TEST_F (FsIdentificationTest, SiblingsShareDiskPathAndSignatureButNotPartitionNumber) {
  // PciRoot (12 bytes), Pci (6) and USB (6) come before the Hard Drive node, whose
  // signature starts 24 bytes in and whose SignatureType is its byte 41.
  const std::vector<uint8_t>    port1 = fake::UsbDiskPath (1), port2 = fake::UsbDiskPath (2);
  const std::array<uint8_t, 16> guid  = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16 };
  std::array<uint8_t, 16>       guidLastByte = guid;
  guidLastByte[15] = 0xFF;
  const std::vector<uint8_t> mbr1 = fake::WithMbrPartition (port1, 1, 0xA1B2C3D4), mbr2 = fake::WithMbrPartition (port1, 2, 0xA1B2C3D4);
  const std::vector<uint8_t> endOnly = { 0x7F, 0xFF, 4, 0 };   // a path of nothing but its End node
  // first, second: device paths, an empty one for none
  const struct { const char *name; std::vector<uint8_t> first, second; BOOLEAN siblings; } rows[] = {
    { "OneMbrDisk", mbr1, mbr2, TRUE },
    { "SamePartitionNumber", mbr1, fake::WithMbrPartition (port1, 1, 0xA1B2C3D4), FALSE },
    { "OtherMbrSignature", mbr1, fake::WithMbrPartition (port1, 2, 0xA1B2C3D5), FALSE },
    { "SameSignatureOtherPort", mbr1, fake::WithMbrPartition (port2, 2, 0xA1B2C3D4), FALSE },
    { "MbrComparesFourBytes", mbr1, WithByte (mbr2, 24 + 24 + 4, 0xEE), TRUE },
    { "GptPartitionGuidsDiffer", fake::WithGptPartition (port1, 1, guid), fake::WithGptPartition (port1, 2, guidLastByte), FALSE },
    { "GptSameGuid", fake::WithGptPartition (port1, 1, guid), fake::WithGptPartition (port1, 2, guid), TRUE },
    { "MbrAgainstGpt", fake::WithMbrPartition (port1, 1, 0x04030201), fake::WithGptPartition (port1, 2, guid), FALSE },
    { "NoSignatureType", WithByte (mbr1, 24 + 41, 0), WithByte (mbr2, 24 + 41, 0), FALSE },
    { "NoHardDriveNode", port1, mbr2, FALSE },
    { "ShortNodeEndsWalk", mbr1, WithByte (mbr2, 18 + 2, 3), FALSE },
    { "NoDiskPrefix", fake::WithMbrPartition (endOnly, 1, 0xA1B2C3D4), fake::WithMbrPartition (endOnly, 2, 0xA1B2C3D4), FALSE },
    { "NoDevicePath", mbr1, {}, FALSE },
  };

  for (const auto &row : rows) {
    EFI_HANDLE first = fw.AddVolume ().Handle (), second = fw.AddVolume ().Handle ();
    fw.SetDevicePath (first, row.first);
    if (!row.second.empty ()) fw.SetDevicePath (second, row.second);
    EXPECT_EQ (IsSiblingPartition (first, second), row.siblings) << row.name;
    EXPECT_EQ (IsSiblingPartition (second, first), row.siblings) << row.name;
  }

  EFI_HANDLE one = fw.NewHandle ();
  fw.SetDevicePath (one, mbr1);
  EXPECT_FALSE (IsSiblingPartition (one, one));
  EXPECT_FALSE (IsSiblingPartition (one, nullptr));
  EXPECT_FALSE (IsSiblingPartition (nullptr, one));
}

// The walk to the Hard Drive node ends at the End node or at a node too short to be one;
// prefix: the bytes before the node where it ended.
TEST_F (FsIdentificationTest, PathWalkStopsAtEndOrShortNode) {
  const std::vector<uint8_t> part = fake::WithMbrPartition (fake::UsbDiskPath (1), 3, 7);
  const struct { std::vector<uint8_t> path; bool found; UINTN prefix; } rows[] = {
    { part, true, 24 }, { WithByte (part, 18 + 2, 2), false, 18 }, { WithByte (part, 24 + 2, 41), false, 24 }, { fake::UsbDiskPath (1), false, 24 } };
  for (const auto &row : rows) {
    UINTN                       prefix = 99;
    const HARDDRIVE_DEVICE_PATH *hd    = FindHardDriveNode (reinterpret_cast<const EFI_DEVICE_PATH_PROTOCOL *>(row.path.data ()), &prefix);
    EXPECT_EQ (hd == nullptr ? 0u : hd->PartitionNumber, row.found ? 3u : 0u);
    EXPECT_EQ (prefix, row.prefix);
  }
}

// --- Filesystem names and marker files -------------------------------------------------

TEST_F (FsIdentificationTest, NamesAreSpelledOneWay) {
  const std::tuple<std::u16string, EFI_STATUS, const char *> rows[] = {
    { u"ntfs", EFI_SUCCESS, "NTFS" }, { u"EXFAT", EFI_SUCCESS, "exFAT" }, { u"Fat32", EFI_SUCCESS, "FAT32" },
    { u"FAT", EFI_UNSUPPORTED, "" }, { u"NTFS ", EFI_UNSUPPORTED, "" }, { u"", EFI_INVALID_PARAMETER, "" },
  };
  for (const auto &[given, status, after] : rows) {
    CHAR16 name[VELMARO_FS_CHARS] = {};
    std::copy (given.begin (), given.end (), name);
    EXPECT_EQ (NormalizeFsName (name), status) << fake::Narrow (given);
    EXPECT_EQ (Str (name), after) << fake::Narrow (given);
  }
  EXPECT_EQ (NormalizeFsName (nullptr), EFI_INVALID_PARAMETER);
}

TEST_F (FsIdentificationTest, MarkerNameCarriesTheUuid) {
  const std::tuple<std::u16string, EFI_STATUS, std::string> rows[] = {
    { u"1a2b-3c4d.uuid", EFI_SUCCESS, "1a2b-3c4d" }, { u"1a2b-3c4d.UUID", EFI_SUCCESS, "" }, { u".uuid", EFI_SUCCESS, "" },
    { u"notes.txt", EFI_SUCCESS, "" }, { std::u16string (127, u'a') + u".uuid", EFI_SUCCESS, std::string (127, 'a') },
    { std::u16string (128, u'a') + u".uuid", EFI_BUFFER_TOO_SMALL, "" },
  };
  for (const auto &[marker, status, uuid] : rows) {
    Scribble ();
    EXPECT_EQ (UuidFromMarkerName (out, W (marker.c_str ())), status) << fake::Narrow (marker);
    EXPECT_EQ (Str (out), uuid) << fake::Narrow (marker);
  }
}

TEST_F (FsIdentificationTest, DriverFollowsTheStatesFilesystems) {
  const GROUP_STATE ntfs = State ("", "", "", "", "NTFS"), exfat = State ("", "", "", "", "exfat"), fat = State ("", "", "", "", "FAT32");
  const GROUP_STATE none = State (""), lowerFat = State ("", "", "", "", "fat32");
  const std::tuple<const GROUP_STATE *, const GROUP_STATE *, const char *> rows[] = {
    { &ntfs, &exfat, "exFAT" }, { &exfat, &ntfs, "exFAT" }, { &ntfs, &fat, "NTFS" }, { &fat, &none, "" },
    { nullptr, &ntfs, "NTFS" }, { &exfat, nullptr, "exFAT" }, { nullptr, nullptr, "" },
  };
  for (const auto &[current, requested, driver] : rows) {
    Scribble ();
    ChooseDriverFs (current, requested, out);
    EXPECT_EQ (Str (out), driver);
  }

  for (const GROUP_STATE *state : { (const GROUP_STATE *)nullptr, &none, &fat, &lowerFat }) EXPECT_FALSE (IsExternalSourceFs (state));
  EXPECT_TRUE (IsExternalSourceFs (&ntfs) && IsExternalSourceFs (&exfat));
}

}  // namespace
