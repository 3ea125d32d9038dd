// The "ntfs-test" run mode, each case on an NTFS partition of its own holding "\sources":
// the answer, what the partition holds afterwards and what the log says.
#include "Harness.h"

#include <ntfstest/NtfsWriteTest.h>

namespace {

using Snapshot = std::map<std::string, std::string>;

const std::string kContent = "Velmaro UEFI write test OK", kTestFile = "\\velmaro_write_test.txt";
const std::string kWarning = "WARNING: Velmaro has read-only access because the USB volume is marked dirty/write-protected.";

// What a run that began with `before` must leave: the test file as given (null: absent)
// and "\sources" under its backup name, if given; nothing else changed.
Snapshot Expected (const Snapshot &before, const char *file, const char *backup) {
  Snapshot out;
  for (const auto &[path, bytes] : before) {
    const bool inSources = path == "\\sources" || path.rfind ("\\sources\\", 0) == 0;
    if (path != kTestFile) out[backup != nullptr && inSources ? std::string ("\\") + backup + path.substr (8) : path] = bytes;
  }
  if (file != nullptr) out[kTestFile] = file;
  return out;
}

// The lines appear in this order, each verbatim; "<handle>" stands for the handle's %p.
::testing::AssertionResult InOrder (const std::string &text, std::vector<std::string> want, EFI_HANDLE handle) {
  CHAR16 pointer[32];
  UnicodeSPrint (pointer, sizeof (pointer), L16 (u"%p"), handle);
  const std::vector<std::string> lines = Lines (text);
  auto                           at    = lines.begin ();
  for (std::string &line : want) {
    if (line.find ("<handle>") != std::string::npos) line.replace (line.find ("<handle>"), 8, Str (pointer));
    at = std::find (at, lines.end (), line);
    if (at == lines.end ()) return ::testing::AssertionFailure () << "\"" << line << "\" not in order in:\n" << text;
  }
  return ::testing::AssertionSuccess ();
}

class NtfsWriteTestTest : public HostTest {
 protected:
  void SetUp () override { OpenBoot (true); }

  // A fresh NTFS partition with the installer's "\sources" and whatever the case adds.
  fake::Volume &Stick (const std::function<void (fake::Volume &)> &prepare = nullptr) {
    fake::Volume &v = fw.AddVolume (fake::Fs::Ntfs);
    v.Put ("\\sources\\install.wim", "image");
    if (prepare) prepare (v);
    return v;
  }
};

TEST_F (NtfsWriteTestTest, RunsWritesRenamesAndLogsEveryStep) {
  const auto old = [](const std::string &bytes) { return [bytes](fake::Volume &v) { v.Put (kTestFile, bytes); }; };
  const auto stale = [](const std::string &bytes) { return [bytes](fake::Volume &v) { v.staleView = true; if (!bytes.empty ()) v.Put (kTestFile, bytes); }; };
  const EFI_STATUS wp = EFI_WRITE_PROTECTED;
  const std::string wpText = "Write Protected (0x8000000000000008)";
  const char *written = kContent.c_str (), *none = nullptr, *sb = "sources_backup";
  // file: the test file afterwards (null: absent); backup: the name "\sources" went to
  const struct { const char *name; std::function<void (fake::Volume &)> prepare; fake::Fault fault; EFI_STATUS result; const char *file, *backup;
                 std::vector<std::string> lines; } rows[] = {
    { "clean stick", nullptr, {}, EFI_SUCCESS, written, sb,
      { "  OpenRoot(target NTFS): Success (0x0)", "  DeleteFileIfExists(\\velmaro_write_test.txt): Success (0x0)",
        "  Root->Open(write test create): Success (0x0)", "  File->Write(write test) bytes=26: Success (0x0)",
        "  Root->Open(write test readback): Success (0x0)", "  File->Read(write test) bytes=26: Success (0x0)", "", "SCRITTURA NTFS OK",
        "  FileExists(\\sources): Success (0x0), exists=1", "  BuildBackupName: Success (0x0), target=\\sources_backup",
        "  Rename method: SetInfo(gEfiFileInfoGuid)", "  Rename Root->Open(\\sources): Success (0x0)", "  Rename initial FileInfoSize=110",
        "  Rename GetInfo: Success (0x0), FileInfoSize=96", "  Rename FileName prima: sources", "  Rename FileInfoSize nuovo=112",
        "  Rename FileName dopo: \\sources_backup", "  Rename SetInfo(gEfiFileInfoGuid): Success (0x0)", "  RenameSources(\\sources_backup): Success (0x0)",
        "  Verify rename OpenRoot(reopen NTFS): Success (0x0)", "  Verify rename Open(\\sources): Not Found (0x800000000000000E)",
        "  Verify rename Open(\\sources_backup): Success (0x0)", "", "SUCCESSO: \\sources rinominata in \\sources_backup" } },
    { "stale test file rewritten", old ("an earlier run's test file, longer than this one"), {}, EFI_SUCCESS, written, sb, { "SCRITTURA NTFS OK" } },
    { "second backup name", [](fake::Volume &v) { v.Mkdir ("\\sources_backup"), v.Mkdir ("\\sources_backup_1"); }, {}, EFI_SUCCESS, written, "sources_backup_2",
      { "  BuildBackupName: Success (0x0), target=\\sources_backup_2", "SUCCESSO: \\sources rinominata in \\sources_backup_2" } },
    { "information asked again", nullptr, { Op::GetInfo, EFI_BUFFER_TOO_SMALL, 1 }, EFI_SUCCESS, written, sb,
      { "  Rename GetInfo: Buffer Too Small (0x8000000000000005), FileInfoSize=702", "  Rename GetInfo(retry): Success (0x0), FileInfoSize=96" } },
    { "diagnostics", [this](fake::Volume &v) { AdvancedDiagnostics = TRUE, fw.SetDevicePath (v.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED)); },
      {}, EFI_SUCCESS, written, sb, { "  Target NTFS SimpleFS handle=<handle> path=PciRoot(0x0)\\Pci(0x14,0x0)\\USB(0x1,0x0)\\HD(2,MBR,0x00005EED,0x1000,0x100000)" } },
    // --- the write test ---
    { "root unavailable", nullptr, { Op::OpenVolume, EFI_NO_MEDIA, 1 }, EFI_NO_MEDIA, none, nullptr, { "  OpenRoot(target NTFS): No Media (0x800000000000000C)" } },
    { "read-only mount", [](fake::Volume &v) { v.writeProtected = true; }, {}, wp, none, nullptr,
      { "  DeleteFileIfExists(\\velmaro_write_test.txt): " + wpText, "", kWarning, "", "Possible cause:",
        "the USB drive was not safely ejected from the operating system.", "",
        "Please reconnect the USB drive to the operating system and safely remove/eject it before booting again." } },
    { "old file unopenable", old ("old"), { Op::Open, EFI_MEDIA_CHANGED, 1, "write_test" }, EFI_MEDIA_CHANGED, "old", nullptr,
      { "  DeleteFileIfExists(\\velmaro_write_test.txt): Media changed (0x800000000000000D)" } },
    { "old file kept", old ("old"), { Op::Delete, EFI_WARN_DELETE_FAILURE }, EFI_DEVICE_ERROR, "old", nullptr,
      { "  DeleteFileIfExists(\\velmaro_write_test.txt): Device Error (0x8000000000000007)" } },
    { "create refused", nullptr, { Op::Open, wp, 2, "write_test" }, wp, none, nullptr, { "  Root->Open(write test create): " + wpText, kWarning } },
    { "write refused", nullptr, { Op::Write, wp, 1, "write_test" }, wp, "", nullptr, { "  File->Write(write test) bytes=26: " + wpText, kWarning } },
    { "short write", nullptr, { Op::Write, EFI_SUCCESS, 1, "write_test", Effect::Short }, EFI_DEVICE_ERROR, "Velmaro UEFI ", nullptr,
      { "  File->Write(write test) bytes=13: Success (0x0)", "  ERRORE: scritti 13 byte, attesi 26" } },
    { "write without effect", nullptr, { Op::Write, EFI_SUCCESS, 1, "write_test", Effect::NoEffect }, EFI_COMPROMISED_DATA, "", nullptr,
      { "  File->Read(write test) bytes=0: Success (0x0)", "  ERRORE: contenuto write test non corrisponde" } },
    { "read fails", nullptr, { Op::Read, EFI_NO_MEDIA }, EFI_NO_MEDIA, written, nullptr, { "  File->Read(write test) bytes=27: No Media (0x800000000000000C)" } },
    { "short read", nullptr, { Op::Read, EFI_SUCCESS, 1, "", Effect::Short }, EFI_COMPROMISED_DATA, written, nullptr,
      { "  File->Read(write test) bytes=13: Success (0x0)", "  ERRORE: contenuto write test non corrisponde" } },
    // A root that keeps showing the volume as it was opened reads back what was there then.
    { "stale root", stale (""), {}, EFI_NOT_FOUND, written, nullptr, { "  Root->Open(write test readback): Not Found (0x800000000000000E)" } },
    { "stale root, one byte off", stale ("Velmaro UEFI write test OX"), {}, EFI_COMPROMISED_DATA, written, nullptr,
      { "  File->Read(write test) bytes=26: Success (0x0)", "  ERRORE: contenuto write test non corrisponde" } },
    { "stale root, one byte more", stale (kContent + "!"), {}, EFI_COMPROMISED_DATA, written, nullptr,
      { "  File->Read(write test) bytes=27: Success (0x0)", "  ERRORE: contenuto write test non corrisponde" } },
    // --- the folder and its backup name ---
    { "no \\sources", [](fake::Volume &v) { v.Remove ("\\sources\\install.wim"), v.Remove ("\\sources"); }, {}, EFI_NOT_FOUND, written, nullptr,
      { "SCRITTURA NTFS OK", "  FileExists(\\sources): Not Found (0x800000000000000E), exists=0" } },
    { "\\sources unopenable", nullptr, { Op::Open, EFI_DEVICE_ERROR, 1, "sources" }, EFI_NOT_FOUND, written, nullptr,
      { "  FileExists(\\sources): Device Error (0x8000000000000007), exists=0" } },
    { "every name taken", [](fake::Volume &v) { v.Mkdir ("\\sources_backup"); for (int n = 1; n < 100; ++n) v.Mkdir ("\\sources_backup_" + std::to_string (n)); },
      {}, EFI_ALREADY_STARTED, written, nullptr, { "  BuildBackupName: Already started (0x8000000000000014), target=\\(n/d)" } },
    // --- the rename ---
    { "folder not opened for writing", nullptr, { Op::Open, wp, 3, "sources" }, wp, written, nullptr,
      { "  Rename method: SetInfo(gEfiFileInfoGuid)", "  Rename Root->Open(\\sources): " + wpText, kWarning, "  RenameSources(\\sources_backup): " + wpText } },
    { "information unreadable", nullptr, { Op::GetInfo, EFI_DEVICE_ERROR, 1 }, EFI_DEVICE_ERROR, written, nullptr,
      { "  Rename GetInfo: Device Error (0x8000000000000007), FileInfoSize=110" } },
    { "information asked again, in vain", nullptr, { Op::GetInfo, EFI_BUFFER_TOO_SMALL }, EFI_BUFFER_TOO_SMALL, written, nullptr,
      { "  Rename GetInfo(retry): Buffer Too Small (0x8000000000000005), FileInfoSize=1324" } },
    // Every console line takes pool of its own: the rename's buffers are the 13th and 17th.
    { "no pool for the information", nullptr, { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 13 }, EFI_OUT_OF_RESOURCES, written, nullptr,
      { "  RenameSources(\\sources_backup): Out of Resources (0x8000000000000009)" } },
    { "no pool for the new name", nullptr, { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 17 }, EFI_OUT_OF_RESOURCES, written, nullptr,
      { "  Rename FileInfoSize nuovo=112", "  RenameSources(\\sources_backup): Out of Resources (0x8000000000000009)" } },
    { "path refused in FileName", [](fake::Volume &v) { v.rejectPathNames = true; }, {}, EFI_INVALID_PARAMETER, written, nullptr,
      { "  Rename FileName dopo: \\sources_backup", "  Rename SetInfo(gEfiFileInfoGuid): Invalid Parameter (0x8000000000000002)",
        "  RenameSources(\\sources_backup): Invalid Parameter (0x8000000000000002)" } },
    { "rename refused", nullptr, { Op::SetInfo, wp }, wp, written, nullptr, { "  Rename SetInfo(gEfiFileInfoGuid): " + wpText, kWarning } },
    { "rename reported, not done", nullptr, { Op::SetInfo, EFI_SUCCESS, 1, "", Effect::NoEffect }, EFI_DEVICE_ERROR, written, nullptr,
      { "  Verify rename Open(\\sources): Success (0x0)", "  Verify rename Open(\\sources_backup): Not Found (0x800000000000000E)", "",
        "ERRORE: rename non verificato" } },
    { "old name still answers", nullptr, { Op::Open, EFI_ACCESS_DENIED, 4, "sources" }, EFI_DEVICE_ERROR, written, sb,
      { "  Verify rename Open(\\sources): Access Denied (0x800000000000000F)", "  Verify rename Open(\\sources_backup): Success (0x0)", "", "ERRORE: rename non verificato" } },
    { "fresh root unavailable", nullptr, { Op::OpenVolume, EFI_NO_MEDIA, 2 }, EFI_NO_MEDIA, written, sb,
      { "  Verify rename OpenRoot(reopen NTFS): No Media (0x800000000000000C)" } },
    { "new name unopenable", nullptr, { Op::Open, EFI_VOLUME_CORRUPTED, 2, "sources_backup" }, EFI_DEVICE_ERROR, written, sb,
      { "  Verify rename Open(\\sources): Not Found (0x800000000000000E)", "  Verify rename Open(\\sources_backup): Volume Corrupt (0x800000000000000A)",
        "", "ERRORE: rename non verificato" } },
  };
  for (const auto &row : rows) {
    AdvancedDiagnostics = FALSE;
    fake::Volume  &v      = Stick (row.prepare);
    const Snapshot before = v.Snapshot ();
    const int      handles = fw.OpenHandles ();
    const size_t   pool    = fake::Firmware::LivePool (), logAt = LogText ().size ();
    fw.faults.Set (row.fault);
    EXPECT_EQ (NtfsWriteTest (v.Handle ()), row.result) << row.name;
    fw.faults.Reset ();
    EXPECT_EQ (v.Snapshot (), Expected (before, row.file, row.backup)) << row.name;
    EXPECT_TRUE (InOrder (LogText ().substr (logAt), row.lines, v.Handle ())) << row.name;
    EXPECT_EQ (fw.OpenHandles (), handles) << row.name;
    EXPECT_EQ (fake::Firmware::LivePool (), pool) << row.name;
  }
}

TEST_F (NtfsWriteTestTest, BackupNameAndRenamePathLimits) {
  fake::Volume &v = Stick ([](fake::Volume &v) { v.Mkdir ("\\sources_backup"); for (int n = 1; n < 99; ++n) v.Mkdir ("\\sources_backup_" + std::to_string (n)); });
  EFI_FILE_PROTOCOL *r = nullptr;
  CHAR16            name[BACKUP_NAME_CHARS];
  ASSERT_EQ (OpenRoot (v.Handle (), &r), EFI_SUCCESS);
  EXPECT_EQ (BuildBackupName (r, name), EFI_SUCCESS);
  EXPECT_EQ (Str (name), "sources_backup_99");
  fw.faults.Set ({ Op::Open, EFI_MEDIA_CHANGED, 1, "sources_backup_1" });
  EXPECT_EQ (BuildBackupName (r, name), EFI_MEDIA_CHANGED);
  fw.faults.Reset ();
  // "\" and the name must fit the rename's path with its NUL; a cut name is never used.
  EXPECT_EQ (RenameSources (r, W (std::u16string (79, u'n').c_str ())), EFI_BUFFER_TOO_SMALL);
  EXPECT_TRUE (v.Exists ("\\sources\\install.wim"));
  EXPECT_EQ (RenameSources (r, W (std::u16string (78, u'n').c_str ())), EFI_SUCCESS);
  EXPECT_EQ (v.Get ("\\" + std::string (78, 'n') + "\\install.wim"), "image");
  r->Close (r);
  EXPECT_EQ (NtfsWriteTest (nullptr), EFI_INVALID_PARAMETER);
}

}  // namespace
