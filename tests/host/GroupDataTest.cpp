// The data-loss check must fail on every way a stick can lose or hide a group's data,
// and pass on a proper switch; otherwise every suite that relies on it proves nothing.
#include <gtest/gtest-spi.h>

#include <functional>

#include "GroupData.h"

namespace {

class GroupDataTest : public StickTest {
 protected:
  void SetUp () override {
    StickTest::SetUp ();
    // Group a active, group b under its own names, one store kept aside earlier.
    boot.Put ("\\boot\\BCD", "store a");
    boot.Put ("\\boot\\backup\\bcd_a", "store a");
    boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex ("store a"));
    boot.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\n");
    boot.Put ("\\sources\\s-win-a.txt", "");
    boot.Mkdir ("\\sources\\empty");
    boot.Put ("\\efi\\microsoft\\s-win-a.txt", "");
    boot.Put ("\\efi\\microsoft\\boot\\bootmgfw.efi", "loader a");
    boot.Put ("\\boot\\bcd_b", "store b");
    boot.Put ("\\grp_b\\s-win-b.txt", "");
    boot.Put ("\\grp_b\\install.wim", "image b");
    boot.Put ("\\efi\\efi_b\\s-win-b.txt", "");
    boot.Put ("\\boot\\BCD_BAK", "kept store");
    boot.Put ("\\grp_b.bak\\notes.txt", "notes put aside");   // sorts between \grp_b and its entries
    before = boot.Snapshot ();
  }

  void Move (const std::string &from, const std::string &to) {
    for (const auto &[path, bytes] : boot.Snapshot ()) {
      if (path.rfind (from, 0) != 0 || (path.size () > from.size () && path[from.size ()] != '\\')) continue;
      if (bytes == "<dir>") boot.Mkdir (to + path.substr (from.size ()));
      else boot.Put (to + path.substr (from.size ()), bytes);
    }
    boot.Remove (from);
  }

  // Puts the stick back as it was before (the open log stays).
  void Restore () {
    for (const std::string &name : boot.List ("\\")) {
      if (Lower (name) != "velmaro_log.txt") boot.Remove ("\\" + name);
    }
    for (const auto &[path, bytes] : before) {
      if (Lower (path) == "\\velmaro_log.txt") continue;
      if (bytes == "<dir>") boot.Mkdir (path);
      else boot.Put (path, bytes);
    }
  }

  // How many failures the check reports, without failing this test.
  int Failures () {
    ::testing::TestPartResultArray reported;
    {
      ::testing::ScopedFakeTestPartResultReporter spy (::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &reported);
      ExpectNoGroupDataLost (before, boot, groups);
    }
    return reported.size ();
  }

  VolumeSnapshot before;
};

TEST_F (GroupDataTest, AProperSwitchPasses) {
  Move ("\\boot\\BCD", "\\boot\\bcd_a");
  Move ("\\sources", "\\grp_a");
  Move ("\\efi\\microsoft", "\\efi\\efi_a");
  Move ("\\boot\\BCD_BAK", "\\boot\\BCD_BAK1");
  Move ("\\boot\\bcd_b", "\\boot\\BCD");
  Move ("\\grp_b", "\\sources");
  Move ("\\efi\\efi_b", "\\efi\\microsoft");
  boot.Put ("\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC_FS|FAT32\r\n");   // a record grows
  boot.Put ("\\boot\\bcd_a.bak", "store a");                             // a copy under a side name
  ExpectNoGroupDataLost (before, boot, groups);
}

// Each row changes the stick in one way that loses or misplaces data; the check must fail.
TEST_F (GroupDataTest, EveryWayOfLosingDataFailsTheCheck) {
  const struct { const char *name; std::function<void (fake::Volume &)> change; } rows[] = {
    { "store lost while another file starts with its bytes",
      [](fake::Volume &v) { v.Remove ("\\boot\\bcd_b"); v.Put ("\\boot\\other", "store b and more"); } },
    { "empty marker lost while another has its name",
      [](fake::Volume &v) { v.Remove ("\\grp_b\\s-win-b.txt"); v.Put ("\\boot\\s-win-b.txt", ""); } },
    { "marker lost from a folder with a side name", [](fake::Volume &v) { v.Remove ("\\grp_b\\s-win-b.txt"); } },
    { "empty folder of a source folder lost", [](fake::Volume &v) { v.Remove ("\\sources\\empty"); } },
    { "store under a name that is no group's", [](fake::Volume &v) { v.Put ("\\boot\\bcd_x", "store b"); v.Remove ("\\boot\\bcd_b"); } },
    { "kept store deleted", [](fake::Volume &v) { v.Remove ("\\boot\\BCD_BAK"); } },
    { "file of a source folder changed", [](fake::Volume &v) { v.Put ("\\grp_b\\install.wim", "image"); } },
    { "backup digest changed", [](fake::Volume &v) { v.Put ("\\boot\\backup\\bcd_a.md5", "0"); } },
    { "EFI folder split", [](fake::Volume &v) { v.Put ("\\efi\\efi_b\\boot\\x", "loader a"); v.Remove ("\\efi\\microsoft\\boot"); } },
    { "active store replaced by its backup's twin only", [](fake::Volume &v) { v.Put ("\\boot\\BCD", "store b"); } },
  };

  for (const auto &row : rows) {
    Restore ();
    ASSERT_EQ (Failures (), 0) << "restored before " << row.name;
    row.change (boot);
    EXPECT_GT (Failures (), 0) << row.name;
  }
}

}  // namespace
