// The promise Velmaro makes about a stick: no group's data is ever lost. Take a
// snapshot before a change and check it afterwards: every file is still on the volume
// under some name (its bytes, or at least its bytes at the start of a record that grew),
// every empty marker file still exists by its name. Only the names listed in mayGo
// (an older BCD_BAK or ".bak") may vanish. Also the stick those suites work on.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "EntriesEncoder.h"
#include "Harness.h"

inline std::string LeafOf (const std::string &path) { return Lower (path.substr (path.find_last_of ("\\/") + 1)); }

inline void ExpectNoGroupDataLost (const std::map<std::string, std::string> &before, const fake::Volume &volume,
                                   const std::set<std::string> &mayGo = {}) {
  const std::map<std::string, std::string> after = volume.Snapshot ();
  for (const auto &[path, bytes] : before) {
    if (bytes == "<dir>" || mayGo.count (path) != 0 || LeafOf (path) == "velmaro_log.txt" || LeafOf (path) == "velmaro.com") continue;
    bool kept = false;
    for (const auto &[afterPath, afterBytes] : after) {
      if (afterBytes == "<dir>") continue;
      kept = bytes.empty () ? LeafOf (afterPath) == LeafOf (path) : afterBytes.compare (0, bytes.size (), bytes) == 0;
      if (kept) break;
    }
    EXPECT_TRUE (kept) << path << " (" << bytes.size () << " bytes) is no longer on the volume under any name";
  }
}

// A stick: the boot volume (FAT32, partition 1) and a sibling NTFS partition 2, both
// roots and the log open; the entries file knows groups a and b, and the run asks for a.
class StickTest : public HostTest {
 protected:
  fake::Volume        &ntfs    = fw.AddVolume ();
  EFI_FILE_PROTOCOL   *ntfsRoot = nullptr;
  ACTIVATION_CONTEXT  context  = {};
  std::string         entries  = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });

  void SetUp () override {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    fw.AddBlockIo (ntfs.Handle (), fake::BootSectorImage ("ntfs"));
    fw.SetDevicePath (ntfs.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
    OpenBoot (true);
    ASSERT_EQ (OpenRoot (ntfs.Handle (), &ntfsRoot), EFI_SUCCESS);
    context.BootHandle  = boot.Handle ();
    context.BootRoot    = root;
    context.EntriesText = reinterpret_cast<CHAR8 *>(entries.data ());
    Request ("s-win-a", "bcd_a", "grp_a", "efi_a");
  }

  void TearDown () override {
    if (ntfsRoot != nullptr) ntfsRoot->Close (ntfsRoot);
    HostTest::TearDown ();
  }

  void Request (const char *id, const char *bcd, const char *src, const char *efi) {
    SetField (context.GroupId, id);
    context.Requested = State (bcd, src, efi);
  }
};
