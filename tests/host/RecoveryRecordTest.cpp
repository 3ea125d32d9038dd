#include "GroupData.h"

#include <data/RecoveryRecord.h>

namespace {

class RecordTest : public StickTest {
 protected:
  const std::string store = "BCD store of group a", storeMd5 = "c45da0595aff182f5ee48b3f8a4bbd59";
  const std::string warn  = "] WARN: recovery valido senza SRC_PART, aggiornamento \\grp_a\\recovery.txt non riuscito: Device Error (0x8000000000000007)\r\n";
  CHAR8             id[VELMARO_NAME_CHARS];
  GROUP_STATE       owner;

  void SetUp () override {
    StickTest::SetUp ();
    boot.Put ("\\boot\\bcd_a", store), boot.Put ("\\grp_a\\s-win-a.txt", ""), boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a");
  }

  EFI_STATUS Validate (fake::Volume &volume, EFI_FILE_PROTOCOL *volumeRoot) {
    return ValidateRequestedSourcePath (&context, volume.Handle (), volumeRoot, W (u"\\grp_a"), A ("s-win-a"));
  }

  EFI_STATUS Owner (const char16_t *folder, MarkerLookup lookup = MarkerLookup::Entries) {
    return IdentifyFolderByMarker (&context, root, W (folder), lookup, id, &owner);
  }
};

TEST_F (RecordTest, KeyReadersTakeTheFirstLineAndOneBlankDelimitedValue) {
  const struct { const char *key; std::string text; EFI_STATUS status; std::string value; } rows[] = {
    { "ID|", "X|1\r\nID|  \ts-win-a  trailing\nID|s-win-b", EFI_SUCCESS, "s-win-a" }, { "ID|", " ID|s-win-a\r\n", EFI_NOT_FOUND, "" },
    { "ID|", "id|s-win-a", EFI_NOT_FOUND, "" }, { "ID|", "ID|s:win", EFI_COMPROMISED_DATA, "" },
    { "ID|", "ID|" + std::string (127, 'i'), EFI_SUCCESS, std::string (127, 'i') },
    { "ID|", "ID|" + std::string (128, 'i'), EFI_BUFFER_TOO_SMALL, "" }, { "ID|", "ID|ab\xe9", EFI_BUFFER_TOO_SMALL, "" },
    { "SRC|", "SRC|grp/a", EFI_COMPROMISED_DATA, "" }, { "SRC|", "SRC|grp\\a", EFI_COMPROMISED_DATA, "" },
    { "SRC|", "SRC|  \t\r\nSRC|grp_a", EFI_NOT_FOUND, "" },
    { "SRC_PART|", "\r\n\r\nSRC_PART|1a2b-3c4d\r\n", EFI_SUCCESS, "1a2b-3c4d" }, { "SRC_PART|", "SRC_PART|c:/x", EFI_SUCCESS, "c:/x" },
    { "SRC_FS|", "SRC_FS|" + std::string (15, 'f'), EFI_SUCCESS, std::string (15, 'f') },
    { "SRC_FS|", "SRC_FS|" + std::string (16, 'f'), EFI_BUFFER_TOO_SMALL, "" },
  };
  const std::map<std::string, EFI_STATUS (*)(const CHAR8 *, CHAR16 *)> wide = {
    { "SRC|", RecordReadSrc }, { "SRC_PART|", RecordReadSrcPart }, { "SRC_FS|", RecordReadSrcFs } };

  for (const auto &row : rows) {
    CHAR16     value[VELMARO_NAME_CHARS];
    EFI_STATUS status = row.key == std::string ("ID|") ? RecordReadId (A (row.text), id) : wide.at (row.key) (A (row.text), value);
    EXPECT_EQ (status, row.status) << row.key << " in " << row.text;
    EXPECT_EQ (row.key == std::string ("ID|") ? Str (id) : Str (value), row.value) << row.key << " in " << row.text;
  }
}

TEST_F (RecordTest, ValidationCompletesTheRecordOnceAndTakesItsDigest) {
  const auto before = boot.Snapshot ();
  EXPECT_EQ (Validate (boot, root), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\grp_a\\recovery.txt"),
             "ID|s-win-a\r\nSRC|grp_a\r\nSRC_PART|" + Lower (fake::BlkidUuid ("fat32")) + "\r\nSRC_FS|FAT32\r\nBCD_MD5|" + storeMd5 + "\r\n");
  EXPECT_EQ (Str (context.Requested.BcdMd5), storeMd5);
  ExpectNoGroupDataLost (before, boot, groups);

  // A complete record is not written again: writing it would fail here and warn.
  fw.faults.Fail (Op::Write, EFI_WRITE_PROTECTED, 0, "recovery"), fw.console.clear ();
  EXPECT_EQ (Validate (boot, root), EFI_SUCCESS);
  EXPECT_FALSE (Has (Console (), "WARN"));
}

TEST_F (RecordTest, NewKeysStartLinesOfTheirOwn) {
  boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r");
  EXPECT_EQ (Validate (boot, root), EFI_SUCCESS);
  const std::string record = boot.Get ("\\grp_a\\recovery.txt");
  EXPECT_EQ (record.substr (0, 20), "ID|s-win-a\rSRC_PART|");
  CHAR16 part[VELMARO_NAME_CHARS];
  EXPECT_EQ (RecordReadSrcPart (A (record), part), EFI_SUCCESS);
  EXPECT_EQ (Str (part), Lower (fake::BlkidUuid ("fat32")));
}

TEST_F (RecordTest, ValidationAnswers) {
  // record: "-" for none
  const struct { const char *name; std::string record; bool marker; EFI_STATUS status; } rows[] = {
    { "no marker-ID file", "ID|s-win-a", false, EFI_NOT_FOUND }, { "marker, no record", "-", true, EFI_SUCCESS },
    { "another group's ID", "ID|s-win-b\r\nSRC|grp_a", true, EFI_NOT_FOUND },
    { "another source name", "ID|s-win-a\r\nSRC|grp_b", true, EFI_NOT_FOUND }, { "no ID or SRC line", "NOTE|x", true, EFI_SUCCESS },
    { "digest of 31 digits", "ID|s-win-a\r\nBCD_MD5|" + std::string (31, 'a'), true, EFI_COMPROMISED_DATA },
    { "digest then a letter", "ID|s-win-a\r\nBCD_MD5|" + std::string (32, 'a') + "g", true, EFI_COMPROMISED_DATA },
    { "EFI digest malformed", "ID|s-win-a\r\nBCD_EFI_MD5|xyz", true, EFI_COMPROMISED_DATA },
    { "forbidden ID", "ID|s-win/a", true, EFI_COMPROMISED_DATA },
  };

  for (const auto &row : rows) {
    boot.Remove ("\\grp_a\\recovery.txt"), boot.Remove ("\\grp_a\\s-win-a.txt");
    if (row.record != "-") boot.Put ("\\grp_a\\recovery.txt", row.record);
    if (row.marker) boot.Put ("\\grp_a\\s-win-a.txt", "");
    fw.console.clear ();
    EXPECT_EQ (Validate (boot, root), row.status) << row.name;
    EXPECT_EQ (Has (Console (), "] ValidateRequestedSourcePath: marker ID presente in \\grp_a ma recovery.txt assente; "
                                "accetto come sorgente gia attiva/legacy\r\n"), row.record == "-") << row.name;
  }
}

TEST_F (RecordTest, RecordWithoutPartitionBelongsOnlyToTheBootVolume) {
  ntfs.Put ("\\grp_a\\s-win-a.txt", ""), ntfs.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a");
  EXPECT_EQ (Validate (ntfs, ntfsRoot), EFI_NOT_FOUND);
  EXPECT_EQ (ntfs.Get ("\\grp_a\\recovery.txt"), "ID|s-win-a\r\nSRC|grp_a");

  // With its own partition's UUID recorded it is that partition's.
  const std::string uuid = Lower (fake::BlkidUuid ("ntfs"));
  ntfs.Put ("\\grp_a\\recovery.txt", "SRC_PART|" + uuid + "\r\n");
  EXPECT_EQ (Validate (ntfs, ntfsRoot), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\grp_a\\recovery.txt"), "SRC_PART|" + uuid + "\r\nSRC_FS|NTFS\r\n");
  EXPECT_EQ (RecordMatchesVolume (boot.Handle (), boot.Handle (), A ("SRC_PART|" + uuid)), EFI_NOT_FOUND);
}

TEST_F (RecordTest, FailuresWhileCompletingOnlyWarnAndLoseNothing) {
  // line: empty for none checked
  const struct { const char *name; fake::Fault fault; EFI_STATUS result; std::string line; } rows[] = {
    { "UUID unreadable", { Op::ReadBlocks, EFI_DEVICE_ERROR }, EFI_SUCCESS, warn },
    { "record write fails", { Op::Write, EFI_VOLUME_FULL, 1, "recovery" }, EFI_SUCCESS, warn },
    { "record written short", { Op::Write, 0, 1, "recovery", Effect::Short }, EFI_SUCCESS, warn },
    { "store unreadable", { Op::Read, EFI_DEVICE_ERROR, 0, "bcd_a" }, EFI_SUCCESS,
      "] WARN: recovery valido senza BCD_MD5, aggiornamento \\grp_a\\recovery.txt non riuscito: Device Error (0x8000000000000007)\r\n" },
    { "record unreadable", { Op::Read, EFI_DEVICE_ERROR, 1, "recovery" }, EFI_DEVICE_ERROR, "" },
    { "re-read fails", { Op::Read, EFI_DEVICE_ERROR, 2, "recovery" }, EFI_DEVICE_ERROR, "" },
    { "marker unreadable", { Op::Open, EFI_DEVICE_ERROR, 1, "s-win-a.txt" }, EFI_NOT_FOUND, "" },
    { "record too short to place", { Op::SetPosition, EFI_DEVICE_ERROR, 1, "recovery" }, EFI_SUCCESS, warn },
  };

  for (const auto &row : rows) {
    boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a");
    const auto before = boot.Snapshot ();
    fw.faults.Set (row.fault), fw.console.clear ();
    EXPECT_EQ (Validate (boot, root), row.result) << row.name;
    if (!row.line.empty ()) EXPECT_TRUE (Has (Console (), row.line)) << row.name;
    EXPECT_EQ (fw.OpenHandles (), 3) << row.name;
    ExpectNoGroupDataLost (before, boot, groups);
  }
}

TEST_F (RecordTest, RefreshAddsPartitionAndFilesystemToTheActiveRecord) {
  ntfs.Put ("\\sources\\recovery.txt", "ID|s-win-a\n");
  CHAR8 *text = nullptr;
  ASSERT_EQ (ReadWholeFile (ntfsRoot, ACTIVE_RECORD_PATH, &text), EFI_SUCCESS);
  EXPECT_EQ (RefreshActiveRecord (ntfs.Handle (), ntfsRoot, &text), EFI_SUCCESS);
  const std::string expected = "ID|s-win-a\nSRC_PART|" + Lower (fake::BlkidUuid ("ntfs")) + "\r\nSRC_FS|NTFS\r\n";
  EXPECT_EQ (Str (text), expected);
  EXPECT_EQ (ntfs.Get ("\\sources\\recovery.txt"), expected);
  FreePool (text);

  ntfs.Put ("\\sources\\s-win-a.txt", "");
  EXPECT_EQ (ActiveMarkerMatchesRecord (ntfsRoot, A ("ID|s-win-a")), EFI_SUCCESS);
  EXPECT_EQ (ActiveMarkerMatchesRecord (ntfsRoot, A ("ID|s-win-b")), EFI_NOT_FOUND);
  EXPECT_EQ (ActiveMarkerMatchesRecord (ntfsRoot, A ("SRC|x")), EFI_NOT_FOUND);
}

TEST_F (RecordTest, FolderOwnerIsTheFirstMarkerThatResolves) {
  boot.Put ("\\sources\\readme.txt", "notes"), boot.Put ("\\sources\\s-win-b.txt", ""), boot.Put ("\\sources\\s-win-a.txt", "");
  EXPECT_EQ (Owner (u"\\sources"), EFI_SUCCESS);
  EXPECT_EQ (Str (id), "s-win-b");
  EXPECT_EQ (Str (owner.Src), "grp_b");

  boot.Mkdir ("\\efi\\microsoft\\s-win-a.txt"), boot.Put ("\\efi\\microsoft\\s-win-b.TXT", "");
  boot.Put ("\\efi\\microsoft\\" + std::string (128, 'x') + ".txt", "");
  EXPECT_EQ (Owner (u"\\efi\\microsoft"), EFI_NOT_FOUND);
  EXPECT_EQ (Owner (u"\\nowhere"), EFI_NOT_FOUND);

  // Install metadata names a group the entries file does not know.
  boot.Put ("\\ZENTO\\software.xml", "<software ID=\"s-win-c\"><BCD>bcd_c</BCD><SRC>grp_c</SRC><EFI>efi/efi_c</EFI></software>");
  boot.Put ("\\grp_c\\s-win-c.txt", "");
  EXPECT_EQ (Owner (u"\\grp_c"), EFI_NOT_FOUND);
  EXPECT_EQ (Owner (u"\\grp_c", MarkerLookup::MetadataFirst), EFI_SUCCESS);
  EXPECT_EQ (Str (owner.Efi), "efi_c");
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1, "grp_c");
  EXPECT_EQ (Owner (u"\\grp_c", MarkerLookup::MetadataFirst), EFI_DEVICE_ERROR);
}

}  // namespace
