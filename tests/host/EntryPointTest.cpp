#include "Harness.h"

using fake::Op;

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (EFI_HANDLE, EFI_SYSTEM_TABLE *);

namespace {

class EntryPointTest : public HostTest {
 protected:
  EFI_STATUS Run (const char16_t *options)
  {
    fw.SetLoadOptions (options);
    EFI_STATUS status = _ModuleEntryPoint (fw.image, &fw.st);
    EXPECT_EQ (LogFile, nullptr) << "the log is closed before returning";
    return status;
  }

  // The log's lines without their stamps.
  std::vector<std::string> Lines ()
  {
    std::vector<std::string> lines;
    std::string              log = LogText ();
    size_t                   at  = 0;
    while (at < log.size ()) {
      size_t end = log.find ("\r\n", at);
      EXPECT_NE (end, std::string::npos) << "unterminated line";
      std::string line = log.substr (at, end - at);
      if (line.rfind ("[+", 0) == 0) {
        line = line.substr (15);
      }

      lines.push_back (line);
      at = end + 2;
    }

    return lines;
  }
};

TEST_F (EntryPointTest, GroupIdRunLogsBannerModeAndId)
{
  EXPECT_EQ (Run (u"s-win-abc"), EFI_SUCCESS);
  std::vector<std::string> lines = Lines ();
  std::vector<std::string> tail (lines.begin () + 5, lines.end ());
  EXPECT_EQ (tail, (std::vector<std::string>{ "Velmaro UEFI", "Target: X64", "Modalita: FAT32 legacy test", "ID ricevuto: s-win-abc", "=== Velmaro log end ===" }));
  EXPECT_EQ (fw.keyWaits, 0u);
}

TEST_F (EntryPointTest, AutoRunsTheNormalMode)
{
  EXPECT_EQ (Run (u"auto s-win-abc"), EFI_SUCCESS);
  std::string log = LogText ();
  EXPECT_NE (log.find ("] Modalita: auto futura non ancora implementata, uso FAT32 legacy test\r\n"), std::string::npos);
  EXPECT_NE (log.find ("] ID ricevuto: s-win-abc\r\n"), std::string::npos);
}

TEST_F (EntryPointTest, FailuresEndWithErrorLineKeyWaitAndStatus)
{
  const struct {
    const char16_t  *options;
    EFI_STATUS      status;
    const char      *line;
  } rows[] = {
    { u"", EFI_NOT_FOUND, "ERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)" },
    { u"S-WIN-abc", EFI_NOT_FOUND, "ERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)" },
    { u"ntfs-test auto s-win-abc", EFI_UNSUPPORTED, "ERRORE: esecuzione Velmaro non riuscita: Unsupported (0x8000000000000003)" },
  };

  for (const auto &row : rows) {
    fw.keyWaits = 0;
    EXPECT_EQ (Run (row.options), row.status);
    std::vector<std::string> lines = Lines ();
    ASSERT_GE (lines.size (), 5u);
    EXPECT_EQ (std::vector<std::string>(lines.end () - 5, lines.end ()),
               (std::vector<std::string>{ "", row.line, "", "Premere un tasto per continuare...", "=== Velmaro log end ===" }));
    EXPECT_EQ (fw.keyWaits, 1u);
    EXPECT_EQ (LogText ().find ("ID ricevuto"), std::string::npos);
  }

  EXPECT_NE (LogText ().find ("] Modalita: NTFS engine test\r\n"), std::string::npos);
}

TEST_F (EntryPointTest, IdTooLongIsRefused)
{
  std::u16string options = u"s-win-" + std::u16string (122, u'x');
  EXPECT_EQ (Run (options.c_str ()), EFI_BUFFER_TOO_SMALL);
  EXPECT_NE (LogText ().find ("] \r\nERRORE: esecuzione Velmaro non riuscita: Buffer Too Small (0x8000000000000005)\r\n"), std::string::npos);
}

TEST_F (EntryPointTest, MissingLoadedImageIsReportedOnce)
{
  // InitLog's two protocol look-ups succeed; the entry point's own one fails.
  fw.faults.Fail (Op::HandleProtocol, EFI_UNSUPPORTED, 3);
  EXPECT_EQ (Run (u"s-win-abc"), EFI_UNSUPPORTED);
  std::string log = LogText ();
  EXPECT_NE (log.find ("] ERRORE: LoadedImage non disponibile: Unsupported (0x8000000000000003)\r\n"), std::string::npos);
  EXPECT_EQ (log.find ("esecuzione Velmaro non riuscita"), std::string::npos);
  EXPECT_EQ (fw.keyWaits, 1u);
}

TEST_F (EntryPointTest, RunWithoutLogFileStillEndsProperly)
{
  fw.faults.Fail (Op::OpenVolume, EFI_NO_MEDIA);
  EXPECT_EQ (Run (u""), EFI_NOT_FOUND);
  EXPECT_FALSE (boot.Exists ("\\velmaro_log.txt"));
  EXPECT_NE (Console ().find ("[+00000000 ms] \r\nERRORE: esecuzione Velmaro non riuscita: Not Found (0x800000000000000E)\r\n"), std::string::npos);
  EXPECT_EQ (fw.keyWaits, 1u);
}

}  // namespace
