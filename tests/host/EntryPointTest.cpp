#include "Harness.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (EFI_HANDLE, EFI_SYSTEM_TABLE *);

namespace {

class EntryPointTest : public HostTest {
 protected:
  EFI_STATUS Run (const std::u16string &options) {
    fw.SetLoadOptions (options);
    EFI_STATUS status = _ModuleEntryPoint (fw.image, &fw.st);
    EXPECT_EQ (LogFile, nullptr) << "the log is closed before returning";
    return status;
  }

  // The last lines of the log, without their stamps.
  std::vector<std::string> Tail (size_t count) {
    std::vector<std::string> lines = Lines (LogText ());
    return std::vector<std::string>(lines.end () - std::min (count, lines.size ()), lines.end ());
  }
};

// A volume that is no prepared stick: the run gets as far as reading the entries file.
TEST_F (EntryPointTest, GroupIdRunLogsBannerModeAndIdThenRunsTheSwitch) {
  EXPECT_EQ (Run (u"s-win-abc"), EFI_NOT_FOUND);
  const std::vector<std::string> lines = Lines (LogText ());
  ASSERT_GE (lines.size (), 11u);
  EXPECT_EQ (std::vector<std::string>(lines.begin () + 5, lines.begin () + 10),
             (std::vector<std::string>{ "Velmaro UEFI", "Target: X64", "Modalita: FAT32 legacy test", "ID ricevuto: s-win-abc",
                                        "VELMARO_APP: started from FAT32 partition 1" }));
  EXPECT_EQ (Tail (5), (std::vector<std::string>{ "", "ERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)", "",
                                                  "Premere un tasto per continuare...", "=== Velmaro log end ===" }));
  EXPECT_EQ (fw.keyWaits, 1u);
}

TEST_F (EntryPointTest, AutoRunsTheNormalMode) {
  EXPECT_EQ (Run (u"auto s-win-abc"), EFI_NOT_FOUND);
  const std::vector<std::string> lines = Lines (LogText ());
  ASSERT_GE (lines.size (), 10u);
  EXPECT_EQ (std::vector<std::string>(lines.begin () + 7, lines.begin () + 10),
             (std::vector<std::string>{ "Modalita: auto futura non ancora implementata, uso FAT32 legacy test", "ID ricevuto: s-win-abc",
                                        "VELMARO_APP: started from FAT32 partition 1" }));
}

TEST_F (EntryPointTest, FailuresEndWithErrorLineKeyWaitAndStatus) {
  const std::string failed = "ERRORE: esecuzione Velmaro non riuscita: ";
  const struct { std::u16string options; EFI_STATUS status; std::string mode, line; } rows[] = {
    { u"", EFI_NOT_FOUND, "Modalita: FAT32 legacy test", failed + "Not Found (0x800000000000000E)" },
    { u"S-WIN-abc", EFI_NOT_FOUND, "Modalita: FAT32 legacy test", failed + "Not Found (0x800000000000000E)" },
    // No driver file anywhere: the test mode stops before touching any volume.
    { u"ntfs-test auto s-win-abc", EFI_NOT_FOUND, "ERRORE: driver NTFS non caricato: Not Found (0x800000000000000E)",
      failed + "Not Found (0x800000000000000E)" },
    { u"s-win-" + std::u16string (122, u'x'), EFI_BUFFER_TOO_SMALL, "Modalita: FAT32 legacy test",
      failed + "Buffer Too Small (0x8000000000000005)" },
  };

  for (const auto &row : rows) {
    fw.keyWaits = 0;
    EXPECT_EQ (Run (row.options), row.status);
    EXPECT_EQ (Tail (6), (std::vector<std::string>{ row.mode, "", row.line, "", "Premere un tasto per continuare...", "=== Velmaro log end ===" }));
    EXPECT_EQ (fw.keyWaits, 1u);
  }
}

TEST_F (EntryPointTest, MissingLoadedImageIsReportedOnce) {
  // InitLog's two protocol look-ups succeed; the entry point's own one fails, or succeeds
  // without handing over an interface.
  const std::pair<EFI_STATUS, EFI_STATUS> rows[] = { { EFI_UNSUPPORTED, EFI_UNSUPPORTED }, { EFI_SUCCESS, EFI_NOT_FOUND } };
  for (const auto &[answer, status] : rows) {
    fw.faults.Set ({ Op::HandleProtocol, answer, 3 }), fw.keyWaits = 0;
    EXPECT_EQ (Run (u"s-win-abc"), status);
    const std::string error = status == EFI_NOT_FOUND ? "Not Found (0x800000000000000E)" : "Unsupported (0x8000000000000003)";
    EXPECT_EQ (Tail (5), (std::vector<std::string>{ "Target: X64", "ERRORE: LoadedImage non disponibile: " + error, "",
                                                    "Premere un tasto per continuare...", "=== Velmaro log end ===" }));
    EXPECT_EQ (fw.keyWaits, 1u);
  }
}

TEST_F (EntryPointTest, RunWithoutLogFileStillEndsProperly) {
  fw.faults.Fail (Op::OpenVolume, EFI_NO_MEDIA);
  EXPECT_EQ (Run (u""), EFI_NOT_FOUND);
  EXPECT_FALSE (boot.Exists ("\\velmaro_log.txt"));
  EXPECT_TRUE (Has (Console (), "[+00000000 ms] \r\nERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)\r\n"));
  EXPECT_EQ (fw.keyWaits, 1u);
}

}  // namespace

namespace {

// The test mode on a stick whose NTFS partition waits for the driver on the boot volume:
// the driver is loaded, the partition found, written and its "\sources" renamed; the
// boot volume keeps all it had but the log.
TEST_F (EntryPointTest, NtfsTestModeWritesAndRenamesOnThePartitionTheDriverMounts) {
  fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
  fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
  fake::Volume &ntfs = fw.AddUnmountedVolume (fake::Fs::Ntfs);
  fw.SetDevicePath (ntfs.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
  ntfs.Put ("\\sources\\install.wim", "image");
  boot.Put ("\\efi\\boot\\ntfs_x64.efi", fw.DriverFile ({ fake::Fs::Ntfs, 0 }));
  boot.Put ("\\sources\\install.wim", "the boot volume's own");

  EXPECT_EQ (Run (u"ntfs-test s-win-abc"), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\velmaro_write_test.txt"), "Velmaro UEFI write test OK");
  EXPECT_EQ (ntfs.Get ("\\sources_backup\\install.wim"), "image");
  EXPECT_FALSE (ntfs.Exists ("\\sources"));
  EXPECT_EQ (boot.Get ("\\sources\\install.wim"), "the boot volume's own");
  EXPECT_FALSE (boot.Exists ("\\velmaro_write_test.txt"));
  EXPECT_EQ (Tail (3), (std::vector<std::string>{ "", "SUCCESSO: \\sources rinominata in \\sources_backup", "=== Velmaro log end ===" }));
  EXPECT_EQ (fw.keyWaits, 0u);

  // Run again, the folder is gone: the test fails after writing, with its own line first.
  EXPECT_EQ (Run (u"ntfs-test"), EFI_NOT_FOUND);
  EXPECT_EQ (Tail (8), (std::vector<std::string>{ "  FileExists(\\sources): Not Found (0x800000000000000E), exists=0", "",
                                                  "ERRORE: test scrittura/rename NTFS non riuscito: Not Found (0x800000000000000E)", "",
                                                  "ERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)", "",
                                                  "Premere un tasto per continuare...", "=== Velmaro log end ===" }));
  EXPECT_EQ (fw.keyWaits, 1u);
}

}  // namespace
