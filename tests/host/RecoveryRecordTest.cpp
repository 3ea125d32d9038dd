#include "Harness.h"
#include "EntriesEncoder.h"
#include "GroupData.h"

#include <data/RecoveryRecord.h>
#include <fs/FileAccess.h>

#include <algorithm>
#include <cstring>

using fake::Op;

namespace {

std::string Lower (std::string text)
{
  std::transform (text.begin (), text.end (), text.begin (), ::tolower);
  return text;
}

// The boot volume (FAT32, partition 1) and a sibling NTFS partition 2 of the same stick.
class RecordTest : public HostTest {
 protected:
  fake::Volume        &second = fw.AddVolume ();
  EFI_FILE_PROTOCOL   *root   = nullptr;
  EFI_FILE_PROTOCOL   *root2  = nullptr;
  ACTIVATION_CONTEXT  context;
  std::string         entries;
  const std::string   store = "BCD store of group a";
  const std::string   storeMd5 = "c45da0595aff182f5ee48b3f8a4bbd59";

  void SetUp () override
  {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0xCAFE0001));
    fw.AddBlockIo (second.Handle (), fake::BootSectorImage ("ntfs"));
    fw.SetDevicePath (second.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0xCAFE0001));
    ASSERT_EQ (OpenRoot (boot.Handle (), &root), EFI_SUCCESS);
    ASSERT_EQ (OpenRoot (second.Handle (), &root2), EFI_SUCCESS);
    ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);

    entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });
    std::memset (&context, 0, sizeof (context));
    context.BootHandle  = boot.Handle ();
    context.BootRoot    = root;
    context.EntriesText = reinterpret_cast<CHAR8 *>(entries.data ());
    std::memcpy (context.Requested.Bcd, u"bcd_a", 12);
    std::memcpy (context.Requested.Src, u"grp_a", 12);
    std::memcpy (context.Requested.Efi, u"efi_a", 12);

    boot.Put ("\\boot\\bcd_a", store);
    boot.Put ("\\grp_a\\s-win-a.txt", "");
    boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a");
  }

  void TearDown () override
  {
    root->Close (root);
    root2->Close (root2);
    HostTest::TearDown ();
  }

  EFI_STATUS Validate (fake::Volume &volume, EFI_FILE_PROTOCOL *volumeRoot, const char16_t *folder = u"\\grp_a")
  {
    return ValidateRequestedSourcePath (&context, volume.Handle (), volumeRoot, W (folder), reinterpret_cast<const CHAR8 *>("s-win-a"));
  }

  std::string BootUuid () { return Lower (fake::BlkidUuid ("fat32")); }
  std::string Field (const CHAR16 *text) { return fake::Narrow (reinterpret_cast<const char16_t *>(text)); }
};

TEST_F (RecordTest, KeyReadersTakeTheFirstLineAndOneBlankDelimitedValue)
{
  const struct {
    const char   *key;
    std::string  text;
    EFI_STATUS   status;
    std::string  value;
  } rows[] = {
    { "ID|", "X|1\r\nID|  \ts-win-a  trailing\nID|s-win-b", EFI_SUCCESS, "s-win-a" },
    { "ID|", " ID|s-win-a\r\n", EFI_NOT_FOUND, "" },
    { "ID|", "id|s-win-a", EFI_NOT_FOUND, "" },
    { "ID|", "ID|s:win", EFI_COMPROMISED_DATA, "" },
    { "ID|", "ID|" + std::string (127, 'i'), EFI_SUCCESS, std::string (127, 'i') },
    { "ID|", "ID|" + std::string (128, 'i'), EFI_BUFFER_TOO_SMALL, "" },
    { "ID|", "ID|ab\xe9", EFI_BUFFER_TOO_SMALL, "" },
    { "SRC|", "SRC|grp/a", EFI_COMPROMISED_DATA, "" },
    { "SRC|", "SRC|grp\\a", EFI_COMPROMISED_DATA, "" },
    { "SRC|", "SRC|  \t\r\nSRC|grp_a", EFI_NOT_FOUND, "" },
    { "SRC_PART|", "\r\n\r\nSRC_PART|1a2b-3c4d\r\n", EFI_SUCCESS, "1a2b-3c4d" },
    { "SRC_PART|", "SRC_PART|c:/x", EFI_SUCCESS, "c:/x" },
    { "SRC_FS|", "SRC_FS|" + std::string (15, 'f'), EFI_SUCCESS, std::string (15, 'f') },
    { "SRC_FS|", "SRC_FS|" + std::string (16, 'f'), EFI_BUFFER_TOO_SMALL, "" },
  };

  for (const auto &row : rows) {
    const CHAR8 *text = reinterpret_cast<const CHAR8 *>(row.text.c_str ());
    std::string  got;
    EFI_STATUS   status;
    if (std::string (row.key) == "ID|") {
      CHAR8 id[VELMARO_NAME_CHARS];
      status = RecordReadId (text, id);
      got    = reinterpret_cast<char *>(id);
    } else {
      CHAR16 value[VELMARO_NAME_CHARS];
      std::string key = row.key;
      status = key == "SRC|" ? RecordReadSrc (text, value) : key == "SRC_PART|" ? RecordReadSrcPart (text, value) : RecordReadSrcFs (text, value);
      got    = Field (value);
    }

    EXPECT_EQ (status, row.status) << row.key << " in " << row.text;
    EXPECT_EQ (got, row.value) << row.key << " in " << row.text;
  }
}

TEST_F (RecordTest, ValidationCompletesTheRecordOnceAndTakesItsDigest)
{
  const auto before = boot.Snapshot ();

  EXPECT_EQ (Validate (boot, root), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\grp_a\\recovery.txt"),
             "ID|s-win-a\r\nSRC|grp_a\r\nSRC_PART|" + BootUuid () + "\r\nSRC_FS|FAT32\r\nBCD_MD5|" + storeMd5 + "\r\n");
  EXPECT_EQ (Field (context.Requested.BcdMd5), storeMd5);
  ExpectNoGroupDataLost (before, boot);

  // A complete record is not written again: writing it would fail here and warn.
  fw.faults.Fail (Op::Write, EFI_WRITE_PROTECTED, 0, "recovery");
  fw.console.clear ();
  EXPECT_EQ (Validate (boot, root), EFI_SUCCESS);
  EXPECT_EQ (Console ().find ("WARN"), std::string::npos);
}

TEST_F (RecordTest, NewKeysStartLinesOfTheirOwn)
{
  boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r");
  EXPECT_EQ (Validate (boot, root), EFI_SUCCESS);
  std::string record = boot.Get ("\\grp_a\\recovery.txt");
  EXPECT_EQ (record.substr (0, 20), "ID|s-win-a\rSRC_PART|");
  CHAR16 part[VELMARO_NAME_CHARS];
  EXPECT_EQ (RecordReadSrcPart (reinterpret_cast<const CHAR8 *>(record.c_str ()), part), EFI_SUCCESS);
  EXPECT_EQ (Field (part), BootUuid ());
}

TEST_F (RecordTest, ValidationAnswers)
{
  const struct {
    const char   *name;
    std::string  record;   // "-" for none
    bool         marker;
    EFI_STATUS   status;
  } rows[] = {
    { "no marker-ID file", "ID|s-win-a", false, EFI_NOT_FOUND },
    { "marker, no record", "-", true, EFI_SUCCESS },
    { "another group's ID", "ID|s-win-b\r\nSRC|grp_a", true, EFI_NOT_FOUND },
    { "another source name", "ID|s-win-a\r\nSRC|grp_b", true, EFI_NOT_FOUND },
    { "no ID or SRC line", "NOTE|x", true, EFI_SUCCESS },
    { "digest of 31 digits", "ID|s-win-a\r\nBCD_MD5|" + std::string (31, 'a'), true, EFI_COMPROMISED_DATA },
    { "digest then a letter", "ID|s-win-a\r\nBCD_MD5|" + std::string (32, 'a') + "g", true, EFI_COMPROMISED_DATA },
    { "EFI digest malformed", "ID|s-win-a\r\nBCD_EFI_MD5|xyz", true, EFI_COMPROMISED_DATA },
    { "forbidden ID", "ID|s-win/a", true, EFI_COMPROMISED_DATA },
  };

  for (const auto &row : rows) {
    boot.Remove ("\\grp_a\\recovery.txt");
    boot.Remove ("\\grp_a\\s-win-a.txt");
    if (row.record != "-") {
      boot.Put ("\\grp_a\\recovery.txt", row.record);
    }

    if (row.marker) {
      boot.Put ("\\grp_a\\s-win-a.txt", "");
    }

    fw.console.clear ();
    EXPECT_EQ (Validate (boot, root), row.status) << row.name;
    if (row.record == "-") {
      EXPECT_NE (Console ().find ("] ValidateRequestedSourcePath: marker ID presente in \\grp_a ma recovery.txt assente; accetto come sorgente gia attiva/legacy\r\n"),
                 std::string::npos);
    }
  }
}

TEST_F (RecordTest, RecordWithoutPartitionBelongsOnlyToTheBootVolume)
{
  second.Put ("\\grp_a\\s-win-a.txt", "");
  second.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a");
  EXPECT_EQ (Validate (second, root2), EFI_NOT_FOUND);
  EXPECT_EQ (second.Get ("\\grp_a\\recovery.txt"), "ID|s-win-a\r\nSRC|grp_a");

  // With its own partition's UUID recorded it is that partition's.
  const std::string uuid = Lower (fake::BlkidUuid ("ntfs"));
  second.Put ("\\grp_a\\recovery.txt", "SRC_PART|" + uuid + "\r\n");
  EXPECT_EQ (Validate (second, root2), EFI_SUCCESS);
  EXPECT_EQ (second.Get ("\\grp_a\\recovery.txt"), "SRC_PART|" + uuid + "\r\nSRC_FS|NTFS\r\n");
  EXPECT_EQ (RecordMatchesVolume (boot.Handle (), boot.Handle (), reinterpret_cast<const CHAR8 *>(("SRC_PART|" + uuid).c_str ())), EFI_NOT_FOUND);
}

TEST_F (RecordTest, FailuresWhileCompletingOnlyWarnAndLoseNothing)
{
  const struct {
    const char  *name;
    Op          op;
    EFI_STATUS  status;
    unsigned    nth;
    const char  *path;
    EFI_STATUS  result;
    const char  *line;
  } rows[] = {
    { "UUID unreadable", Op::ReadBlocks, EFI_DEVICE_ERROR, 0, "", EFI_SUCCESS,
      "] WARN: recovery valido senza SRC_PART, aggiornamento \\grp_a\\recovery.txt non riuscito: Device Error (0x8000000000000007)\r\n" },
    { "record write fails", Op::Write, EFI_VOLUME_FULL, 1, "recovery", EFI_SUCCESS,
      "] WARN: recovery valido senza SRC_PART, aggiornamento \\grp_a\\recovery.txt non riuscito: Device Error (0x8000000000000007)\r\n" },
    { "store unreadable", Op::Read, EFI_DEVICE_ERROR, 0, "bcd_a", EFI_SUCCESS,
      "] WARN: recovery valido senza BCD_MD5, aggiornamento \\grp_a\\recovery.txt non riuscito: Device Error (0x8000000000000007)\r\n" },
    { "record unreadable", Op::Read, EFI_DEVICE_ERROR, 1, "recovery", EFI_DEVICE_ERROR, nullptr },
    { "re-read fails", Op::Read, EFI_DEVICE_ERROR, 2, "recovery", EFI_DEVICE_ERROR, nullptr },
    { "marker unreadable", Op::Open, EFI_DEVICE_ERROR, 1, "s-win-a.txt", EFI_NOT_FOUND, nullptr },
    { "record too short to place", Op::SetPosition, EFI_DEVICE_ERROR, 1, "recovery", EFI_SUCCESS,
      "] WARN: recovery valido senza SRC_PART, aggiornamento \\grp_a\\recovery.txt non riuscito: Device Error (0x8000000000000007)\r\n" },
  };

  for (const auto &row : rows) {
    boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a");
    const auto before = boot.Snapshot ();
    fw.faults.Reset ();
    fw.faults.Fail (row.op, row.status, row.nth, row.path);
    fw.console.clear ();
    EXPECT_EQ (Validate (boot, root), row.result) << row.name;
    if (row.line != nullptr) {
      EXPECT_NE (Console ().find (row.line), std::string::npos) << row.name << "\n" << Console ();
    }

    EXPECT_EQ (fw.OpenHandles (), 3) << row.name;
    ExpectNoGroupDataLost (before, boot);
  }
}

TEST_F (RecordTest, RefreshAddsPartitionAndFilesystemToTheActiveRecord)
{
  second.Put ("\\sources\\recovery.txt", "ID|s-win-a\n");
  CHAR8 *text = nullptr;
  ASSERT_EQ (ReadWholeFile (root2, ACTIVE_RECORD_PATH, &text), EFI_SUCCESS);
  EXPECT_EQ (RefreshActiveRecord (second.Handle (), root2, &text), EFI_SUCCESS);
  const std::string expected = "ID|s-win-a\nSRC_PART|" + Lower (fake::BlkidUuid ("ntfs")) + "\r\nSRC_FS|NTFS\r\n";
  EXPECT_EQ (std::string (reinterpret_cast<char *>(text)), expected);
  EXPECT_EQ (second.Get ("\\sources\\recovery.txt"), expected);
  FreePool (text);

  second.Put ("\\sources\\s-win-a.txt", "");
  EXPECT_EQ (ActiveMarkerMatchesRecord (root2, reinterpret_cast<const CHAR8 *>("ID|s-win-a")), EFI_SUCCESS);
  EXPECT_EQ (ActiveMarkerMatchesRecord (root2, reinterpret_cast<const CHAR8 *>("ID|s-win-b")), EFI_NOT_FOUND);
  EXPECT_EQ (ActiveMarkerMatchesRecord (root2, reinterpret_cast<const CHAR8 *>("SRC|x")), EFI_NOT_FOUND);
}

TEST_F (RecordTest, FolderOwnerIsTheFirstMarkerThatResolves)
{
  CHAR8       id[VELMARO_NAME_CHARS];
  GROUP_STATE owner;

  boot.Put ("\\sources\\readme.txt", "notes");
  boot.Put ("\\sources\\s-win-b.txt", "");
  boot.Put ("\\sources\\s-win-a.txt", "");
  EXPECT_EQ (IdentifyFolderByMarker (&context, root, W (u"\\sources"), MarkerLookup::Entries, reinterpret_cast<CHAR8 *>(id), &owner), EFI_SUCCESS);
  EXPECT_STREQ (reinterpret_cast<char *>(id), "s-win-b");
  EXPECT_EQ (Field (owner.Src), "grp_b");

  boot.Mkdir ("\\efi\\microsoft\\s-win-a.txt");
  boot.Put ("\\efi\\microsoft\\s-win-b.TXT", "");
  boot.Put ("\\efi\\microsoft\\" + std::string (128, 'x') + ".txt", "");
  EXPECT_EQ (IdentifyFolderByMarker (&context, root, W (u"\\efi\\microsoft"), MarkerLookup::Entries, reinterpret_cast<CHAR8 *>(id), &owner), EFI_NOT_FOUND);
  EXPECT_EQ (IdentifyFolderByMarker (&context, root, W (u"\\nowhere"), MarkerLookup::Entries, reinterpret_cast<CHAR8 *>(id), &owner), EFI_NOT_FOUND);

  // Install metadata names a group the entries file does not know.
  boot.Put ("\\ZENTO\\software.xml", "<software ID=\"s-win-c\"><BCD>bcd_c</BCD><SRC>grp_c</SRC><EFI>efi/efi_c</EFI></software>");
  boot.Put ("\\grp_c\\s-win-c.txt", "");
  EXPECT_EQ (IdentifyFolderByMarker (&context, root, W (u"\\grp_c"), MarkerLookup::Entries, reinterpret_cast<CHAR8 *>(id), &owner), EFI_NOT_FOUND);
  EXPECT_EQ (IdentifyFolderByMarker (&context, root, W (u"\\grp_c"), MarkerLookup::MetadataFirst, reinterpret_cast<CHAR8 *>(id), &owner), EFI_SUCCESS);
  EXPECT_EQ (Field (owner.Efi), "efi_c");
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1, "grp_c");
  EXPECT_EQ (IdentifyFolderByMarker (&context, root, W (u"\\grp_c"), MarkerLookup::MetadataFirst, reinterpret_cast<CHAR8 *>(id), &owner), EFI_DEVICE_ERROR);
}

}  // namespace
