#include "Harness.h"

#include <fs/VerifiedChange.h>

namespace {

class VerifiedChangeTest : public HostTest {
 protected:
  void SetUp () override {
    OpenBoot (true);
    boot.Put ("\\boot\\bcd_w10", "store"), boot.Put ("\\w10\\recovery.txt", "ID|s-win-10"), boot.Mkdir ("\\efi\\efi_w10\\boot");
  }

  EFI_STATUS Rename (const char16_t *from, const char16_t *to) { return RenameVerified (boot.Handle (), root, W (from), W (to)); }
  EFI_STATUS MoveAside (const std::u16string &path) { return MoveAsideToBak (boot.Handle (), root, W (path.c_str ())); }
  EFI_STATUS Copy () { return CopyFileVerified (root, W (u"\\boot\\backup\\bcd_w10"), W (u"\\boot\\copy")); }
};

TEST_F (VerifiedChangeTest, RenamesAcrossFoldersAndProvesIt) {
  for (const auto &[from, to] : std::vector<std::pair<const char16_t *, const char16_t *>>{
         { u"\\boot\\bcd_w10", u"\\boot\\BCD" }, { u"\\w10", u"\\sources" }, { u"\\efi\\efi_w10", u"\\efi\\microsoft" }, { u"\\sources\\recovery.txt", u"\\boot\\moved.txt" } })
    EXPECT_EQ (Rename (from, to), EFI_SUCCESS) << Str (W (from));
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), "store");
  std::vector<std::string> top = boot.List ("\\");
  std::sort (top.begin (), top.end ());
  EXPECT_EQ (top, (std::vector<std::string>{ "boot", "efi", "sources", "velmaro_log.txt" }));
  EXPECT_TRUE (boot.Exists ("\\efi\\microsoft\\boot"));
  EXPECT_EQ (boot.Get ("\\boot\\moved.txt"), "ID|s-win-10");
  EXPECT_TRUE (Has (Log (), "] rename verified: \\boot\\bcd_w10 -> \\boot\\BCD\r\n"
                            "[+00000000 ms] rename verified: SetInfo OK \\boot\\bcd_w10 -> \\boot\\BCD\r\n"
                            "[+00000000 ms] rename verified: OK \\boot\\bcd_w10 -> \\boot\\BCD\r\n"));
}

TEST_F (VerifiedChangeTest, DriverRefusingPathsGetsTheLeafName) {
  boot.rejectPathNames = true;
  EXPECT_EQ (Rename (u"\\boot\\bcd_w10", u"\\boot\\BCD"), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), "store");
  // Across folders such a driver can only rename in place: not proven, not undone.
  EXPECT_EQ (Rename (u"\\w10\\recovery.txt", u"\\boot\\r.txt"), EFI_DEVICE_ERROR);
  EXPECT_TRUE (boot.Exists ("\\w10\\r.txt"));
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] rename verified: SetInfo full-path rejected, retry leaf-name BCD\r\n"));
  EXPECT_TRUE (Has (log, "] rename verified: destination missing after rename \\boot\\r.txt status=Not Found (0x800000000000000E) exists=0\r\n"));
}

// A driver whose roots keep showing the volume as it was: only a root opened after the
// change can prove it.
TEST_F (VerifiedChangeTest, ProofsLookAtAFreshlyOpenedRoot) {
  root->Close (root);
  boot.staleView = true;
  OpenBoot ();
  EXPECT_EQ (Rename (u"\\boot\\bcd_w10", u"\\boot\\BCD"), EFI_SUCCESS);
  EXPECT_EQ (Rename (u"\\w10", u"\\sources"), EFI_SUCCESS);
  EXPECT_EQ (DeleteFileVerified (boot.Handle (), root, W (u"\\sources\\recovery.txt")), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), "store");
  EXPECT_FALSE (boot.Exists ("\\sources\\recovery.txt"));
}

// A driver that mounts the stick read-only (a dirty volume): its status is passed on and
// nothing on the stick changes.
TEST_F (VerifiedChangeTest, ReadOnlyMountIsReportedAndChangesNothing) {
  boot.writeProtected = true;
  EXPECT_EQ (Rename (u"\\boot\\bcd_w10", u"\\boot\\BCD"), EFI_WRITE_PROTECTED);
  EXPECT_EQ (MoveAside (u"\\w10"), EFI_WRITE_PROTECTED);
  boot.Put ("\\boot\\backup\\bcd_w10", "backup");
  const auto withBackup = boot.Snapshot ();
  EXPECT_EQ (Copy (), EFI_WRITE_PROTECTED);
  EXPECT_EQ (boot.Snapshot (), withBackup);
  EXPECT_TRUE (boot.Exists ("\\boot\\bcd_w10") && boot.Exists ("\\w10") && !boot.Exists ("\\boot\\BCD"));
}

// FAT turns a zero date on the medium into a time its own SetInfo refuses: an entry
// written by a tool that leaves dates at zero must still be renamed.
TEST_F (VerifiedChangeTest, EntriesWithAZeroDateAreRenamed) {
  boot.Put ("\\zero.bin", "store"), boot.Mkdir ("\\zdir\\boot");
  std::vector<uint8_t> bytes = boot.DiskImage ().Bytes ();
  for (const std::string shortName : { "ZERO    BIN", "ZDIR       " }) {
    auto at = std::search (bytes.begin (), bytes.end (), shortName.begin (), shortName.end ());
    ASSERT_NE (at, bytes.end ()) << shortName;
    std::fill (at + 13, at + 20, 0);   // creation time and date, last access date
    std::fill (at + 22, at + 26, 0);   // modification time and date
  }
  fake::Volume      &old     = fw.AddVolume (fake::Disk (bytes));
  EFI_FILE_PROTOCOL *oldRoot = nullptr;
  ASSERT_EQ (OpenRoot (old.Handle (), &oldRoot), EFI_SUCCESS);
  EXPECT_EQ (RenameVerified (old.Handle (), oldRoot, W (u"\\zero.bin"), W (u"\\boot\\BCD")), EFI_SUCCESS);
  EXPECT_EQ (RenameVerified (old.Handle (), oldRoot, W (u"\\zdir"), W (u"\\sources")), EFI_SUCCESS);
  oldRoot->Close (oldRoot);
  EXPECT_EQ (old.Get ("\\boot\\BCD"), "store");
  EXPECT_TRUE (old.Exists ("\\sources\\boot"));
}

TEST_F (VerifiedChangeTest, RenameFailuresAreReportedAndNotUndone) {
  // line: null when no SetInfo failure may be reported
  const struct { const char *name; const char16_t *from, *to; fake::Fault fault; EFI_STATUS result; bool moved; const char *line; } rows[] = {
    { "source absent", u"\\boot\\none", u"\\boot\\BCD", {}, EFI_NOT_FOUND, false,
      "] rename verified: open source failed \\boot\\none: Not Found (0x800000000000000E)\r\n" },
    { "name taken", u"\\boot\\bcd_w10", u"\\W10", {}, EFI_ACCESS_DENIED, false,
      "] rename verified: SetInfo failed \\boot\\bcd_w10 -> \\W10: Access Denied (0x800000000000000F)\r\n" },
    { "reported, not done", u"\\boot\\bcd_w10", u"\\boot\\BCD", { Op::SetInfo, 0, 1, "", Effect::NoEffect }, EFI_DEVICE_ERROR, false,
      "] rename verified: source still present after rename \\boot\\bcd_w10 status=Success (0x0) exists=1\r\n" },
    { "fresh root unavailable", u"\\boot\\bcd_w10", u"\\boot\\BCD", { Op::OpenVolume, EFI_NO_MEDIA, 1 }, EFI_NO_MEDIA, true,
      "] rename verified: reopen root failed after rename: No Media (0x800000000000000C)\r\n" },
    { "source test fails", u"\\boot\\bcd_w10", u"\\boot\\BCD", { Op::Open, EFI_DEVICE_ERROR, 2, "bcd_w10" }, EFI_DEVICE_ERROR, true,
      "] rename verified: source still present after rename \\boot\\bcd_w10 status=Device Error (0x8000000000000007) exists=0\r\n" },
    { "destination unopenable", u"\\boot\\bcd_w10", u"\\boot\\BCD", { Op::Open, EFI_VOLUME_CORRUPTED, 1, "\\boot\\BCD" }, EFI_DEVICE_ERROR, true,
      "] rename verified: destination missing after rename \\boot\\BCD status=Volume Corrupt (0x800000000000000A) exists=0\r\n" },
    { "information unreadable", u"\\boot\\bcd_w10", u"\\boot\\BCD", { Op::GetInfo, EFI_DEVICE_ERROR, 1 }, EFI_DEVICE_ERROR, false, nullptr },
    { "no memory", u"\\boot\\bcd_w10", u"\\boot\\BCD", { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 2 }, EFI_OUT_OF_RESOURCES, false, nullptr },
  };

  for (const auto &row : rows) {
    boot.Put ("\\boot\\bcd_w10", "store"), boot.Remove ("\\boot\\BCD"), fw.faults.Set (row.fault), fw.console.clear ();
    EXPECT_EQ (Rename (row.from, row.to), row.result) << row.name;
    EXPECT_EQ (boot.Exists ("\\boot\\BCD"), row.moved) << row.name;
    EXPECT_EQ (fw.OpenHandles (), 2) << row.name;
    EXPECT_TRUE (row.line ? Has (Console (), row.line) : !Has (Console (), "SetInfo failed")) << row.name;
  }
}

TEST_F (VerifiedChangeTest, MoveAsideKeepsAnOlderBakUnderTheFirstFreeNumber) {
  const std::u16string p187 = u"\\" + std::u16string (186, u'p'), p188 = u"\\" + std::u16string (187, u'p');

  boot.Put ("\\boot\\BCD", "wrong"), boot.Put ("\\boot\\BCD.bak", "older"), boot.Put ("\\boot\\BCD.bak1", "oldest");
  EXPECT_EQ (MoveAside (u"\\boot\\BCD"), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak"), "wrong");
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak1"), "oldest");
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak2"), "older");
  EXPECT_FALSE (boot.Exists ("\\boot\\BCD"));
  EXPECT_TRUE (Has (Console (), "] \\boot\\BCD.bak esistente conservato come \\boot\\BCD.bak2\r\n"));

  // A folder that already holds files is kept as a whole, so the next move aside works.
  boot.Put ("\\sources.bak\\keep.txt", "k"), boot.Put ("\\sources\\new.txt", "n");
  EXPECT_EQ (MoveAside (u"\\sources"), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\sources.bak1\\keep.txt"), "k");
  EXPECT_EQ (boot.Get ("\\sources.bak\\new.txt"), "n");

  // The last free number is used; with every numbered name taken, nothing moves.
  for (int n = 1; n <= 98; ++n) boot.Mkdir ("\\sources.bak" + std::to_string (n));
  boot.Put ("\\sources\\last.txt", "l");
  EXPECT_EQ (MoveAside (u"\\sources"), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\sources.bak99\\new.txt"), "n");
  boot.Put ("\\sources\\newer.txt", "n2");
  const auto before = boot.Snapshot ();
  EXPECT_EQ (MoveAside (u"\\sources"), EFI_ALREADY_STARTED);
  EXPECT_EQ (boot.Snapshot (), before);

  boot.Put (fake::Narrow (p187), "x");
  EXPECT_EQ (MoveAside (p187), EFI_SUCCESS);
  EXPECT_TRUE (boot.Exists (fake::Narrow (p187) + ".bak"));
  boot.Put (fake::Narrow (p187), "y");
  EXPECT_EQ (MoveAside (p187), EFI_SUCCESS);
  EXPECT_EQ (boot.Get (fake::Narrow (p187) + ".bak1"), "x");
  EXPECT_EQ (MoveAside (p188), EFI_BUFFER_TOO_SMALL);

  // A test of the older name that fails other than by absence stops before any rename.
  fw.faults.Fail (Op::Open, EFI_MEDIA_CHANGED, 1, ".bak");
  EXPECT_EQ (MoveAside (u"\\sources"), EFI_MEDIA_CHANGED);
  fw.faults.Set ({ Op::Open, EFI_MEDIA_CHANGED, 1, ".bak1" }), boot.Remove ("\\sources.bak1");
  EXPECT_EQ (MoveAside (u"\\sources"), EFI_MEDIA_CHANGED);
  EXPECT_TRUE (boot.Exists ("\\sources\\newer.txt"));
}

TEST_F (VerifiedChangeTest, CopyGoesChunkByChunk) {
  for (const auto &[size, reads] : std::vector<std::pair<size_t, unsigned>>{ { 0, 1 }, { 4096, 2 }, { 3 * 4096, 4 }, { 4097, 3 } }) {
    std::string data (size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + size);
    boot.Put ("\\boot\\backup\\bcd_w10", data), boot.Remove ("\\boot\\copy"), fw.faults.Reset ();
    EXPECT_EQ (Copy (), EFI_SUCCESS);
    EXPECT_TRUE (boot.Get ("\\boot\\copy") == data) << "copy of " << size << " bytes differs";
    EXPECT_EQ (fw.faults.Calls (Op::Read), reads) << size;
    EXPECT_TRUE (boot.Exists ("\\boot\\backup\\bcd_w10"));
  }
  // A destination that holds bytes (its test may have answered "absent" wrongly) is never
  // written over; an empty one is taken.
  EXPECT_EQ (Copy (), EFI_ACCESS_DENIED);
  EXPECT_EQ (boot.Get ("\\boot\\copy").size (), 4097u);
  EXPECT_TRUE (Has (Console (), "] copy verified: open destination failed \\boot\\copy: Access Denied (0x800000000000000F)\r\n"));
  boot.Put ("\\boot\\copy", "");
  EXPECT_EQ (Copy (), EFI_SUCCESS);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] copy verified: \\boot\\backup\\bcd_w10 -> \\boot\\copy\r\n"));
  EXPECT_TRUE (Has (log, "] copy verified OK: \\boot\\backup\\bcd_w10 -> \\boot\\copy\r\n"));
}

TEST_F (VerifiedChangeTest, CopyFailuresLeaveAPartialDestination) {
  // left: bytes in the destination afterwards, SIZE_MAX when absent; line: null when only
  // the absence of the OK line is checked
  const struct { const char *name; fake::Fault fault; EFI_STATUS result; size_t left; const char *line; } rows[] = {
    { "source absent", { Op::Open, EFI_NOT_FOUND, 1, "backup" }, EFI_NOT_FOUND, SIZE_MAX,
      "] copy verified: open source failed \\boot\\backup\\bcd_w10: Not Found (0x800000000000000E)\r\n" },
    { "destination refused", { Op::Open, EFI_WRITE_PROTECTED, 1, "copy" }, EFI_WRITE_PROTECTED, SIZE_MAX,
      "] copy verified: open destination failed \\boot\\copy: Write Protected (0x8000000000000008)\r\n" },
    { "read fails", { Op::Read, EFI_DEVICE_ERROR, 2 }, EFI_DEVICE_ERROR, 4096, nullptr },
    { "write fails", { Op::Write, EFI_VOLUME_FULL, 3, "copy" }, EFI_DEVICE_ERROR, 8192, nullptr },
    { "short write", { Op::Write, 0, 2, "copy", Effect::Short }, EFI_DEVICE_ERROR, 4096 + 2048, nullptr },
  };

  boot.Put ("\\boot\\backup\\bcd_w10", std::string (3 * 4096, 'd'));
  for (const auto &row : rows) {
    fw.faults.Set (row.fault), fw.console.clear ();
    EXPECT_EQ (Copy (), row.result) << row.name;
    EXPECT_EQ (boot.Exists ("\\boot\\copy") ? boot.Get ("\\boot\\copy").size () : SIZE_MAX, row.left) << row.name;
    EXPECT_EQ (fw.OpenHandles (), 2) << row.name;
    EXPECT_FALSE (Has (Console (), "copy verified OK")) << row.name;
    if (row.line != nullptr) EXPECT_TRUE (Has (Console (), row.line)) << row.name;
    if (boot.Exists ("\\boot\\copy")) EXPECT_EQ (DeleteFileVerified (boot.Handle (), root, W (u"\\boot\\copy")), EFI_SUCCESS);
  }
}

TEST_F (VerifiedChangeTest, FindsEntriesWithoutRegardToAsciiCase) {
  CHAR16 path[DIR_ENTRY_PATH_CHARS];
  auto   find = [&](const char16_t *dir, const char16_t *name) { return FindDirEntryPath (root, W (dir), W (name), path); };

  boot.Put ("\\efi\\microsoft\\boot\\BCD", "s"), boot.Put ("\\efi\\microsoft\\boot\\\xc3\xa8", "s"), boot.Put ("\\efi\\microsoft\\boot\\Zeta", "s");
  ASSERT_EQ (find (u"\\efi\\microsoft\\boot", u"zETA"), EFI_SUCCESS);
  EXPECT_EQ (Str (path), "\\efi\\microsoft\\boot\\Zeta");
  ASSERT_EQ (find (u"\\efi\\microsoft\\boot", u"bcd"), EFI_SUCCESS);
  EXPECT_EQ (Str (path), "\\efi\\microsoft\\boot\\BCD");
  EXPECT_EQ (find (u"\\efi\\microsoft\\boot", u".."), EFI_SUCCESS);
  EXPECT_EQ (find (u"\\efi\\microsoft\\boot", u"\u00c8"), EFI_NOT_FOUND);
  EXPECT_EQ (path[0], 0);
  EXPECT_EQ (find (u"\\efi\\nothing", u"BCD"), EFI_NOT_FOUND);

  const std::u16string deep = u"\\" + std::u16string (220, u'd');
  boot.Put (fake::Narrow (deep) + "\\BCD", "s");
  EXPECT_EQ (find (deep.c_str (), u"bcd"), EFI_BUFFER_TOO_SMALL);
  // FAT keeps names to 255 characters: the entry the buffer cannot hold is answered as NTFS would.
  fake::Volume      &other      = fw.AddVolume (fake::Fs::Ntfs);
  EFI_FILE_PROTOCOL *otherRoot  = nullptr;
  other.Put ("\\long\\" + std::string (250, 'n'), "s"), fw.faults.Fail (Op::Read, EFI_BUFFER_TOO_SMALL, 3, "\\long");
  ASSERT_EQ (OpenRoot (other.Handle (), &otherRoot), EFI_SUCCESS);
  EXPECT_EQ (FindDirEntryPath (otherRoot, W (u"\\long"), W (u"x"), path), EFI_BUFFER_TOO_SMALL);
  otherRoot->Close (otherRoot);
  fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES, 1);
  EXPECT_EQ (find (u"\\efi", u"x"), EFI_OUT_OF_RESOURCES);
}

}  // namespace
