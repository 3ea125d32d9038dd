// The promise Velmaro makes about a stick: no group's data is ever lost. Take a
// snapshot before a change and check the volume afterwards against what each group is:
// - its BCD store, its source folder and its EFI folder (whole trees, empty markers and
//   folders included) are each still there whole, under the group's own name or the
//   active one ("\boot\BCD", "\sources", "\efi\microsoft"); a recovery record may have
//   grown at its end;
// - its backups and digest files are unchanged where they were;
// - a copy of anything that existed before appears elsewhere only under a side name:
//   ".bak", "\boot\BCD_BAK", their numbered successors ("<name>1"...), or inside them;
// - a file whose bytes existed only once before still exists somewhere, byte for byte.
// Only the log and the state file may change freely.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include "EntriesEncoder.h"
#include "Harness.h"

// A group by its names; id (its "s-win-" ID) tells whose the active folders are.
struct GroupNames { std::string bcd, src, efi, id; };

using VolumeSnapshot = std::map<std::string, std::string>;

namespace group_data {

// FAT matches names without regard to case: so does the checker.
inline VolumeSnapshot Folded (const VolumeSnapshot &snapshot) {
  VolumeSnapshot out;
  for (const auto &[path, bytes] : snapshot) out[Lower (path)] = bytes;
  return out;
}

inline std::string LeafOf (const std::string &path) { return Lower (path.substr (path.find_last_of ("\\/") + 1)); }

// The active folder is this group's when it holds the group's marker-ID file or a
// recovery record with its ID.
inline bool HasMarkerOf (const VolumeSnapshot &snapshot, const std::string &folder, const GroupNames &g) {
  if (g.id.empty ()) return false;
  auto record = snapshot.find (folder + "\\recovery.txt");
  return snapshot.count (folder + "\\" + Lower (g.id) + ".txt") != 0 ||
         (record != snapshot.end () && std::regex_search (record->second, std::regex ("(^|\n)ID\\|" + g.id + "\r?(\n|$)")));
}

inline bool IsFreeToChange (const std::string &path) { return path == "\\velmaro_log.txt" || path == "\\boot\\velmaro.com"; }

// A side name: the last component, or a folder above it, ends in ".bak" or is BCD_BAK,
// either followed by a number.
inline bool IsSideName (const std::string &path) {
  static const std::regex side (R"((\.bak|^bcd_bak)[0-9]*$)");
  for (size_t at = 1; at <= path.size ();) {
    size_t      end  = std::min (path.find ('\\', at), path.size ());
    std::string part = path.substr (at, end - at);
    if (std::regex_search (part, side)) return true;
    at = end + 1;
  }
  return false;
}

inline bool Holds (const VolumeSnapshot &snapshot, const std::string &path, const std::string &bytes) {
  return snapshot.count (path) != 0 && snapshot.at (path) == bytes;
}

inline bool IsBackupPath (const std::string &path) { return path.find ("\\boot\\backup\\") != std::string::npos; }

// The entries of a tree rooted at folder, by their path below it.
inline VolumeSnapshot Tree (const VolumeSnapshot &snapshot, const std::string &folder) {
  VolumeSnapshot tree;
  auto           it = snapshot.find (folder);
  if (it == snapshot.end () || it->second != "<dir>") return tree;
  tree[""] = "<dir>";
  // Entries below the folder sort together, but after siblings such as "<folder>.bak".
  for (it = snapshot.lower_bound (folder + "\\"); it != snapshot.end () && it->first.rfind (folder + "\\", 0) == 0; ++it) tree[it->first.substr (folder.size ())] = it->second;
  return tree;
}

// Every entry of the old tree is in the new one with its bytes (a record may have grown).
inline bool HoldsWhole (const VolumeSnapshot &now, const VolumeSnapshot &old) {
  if (old.empty () || now.empty ()) return old.empty ();
  for (const auto &[path, bytes] : old) {
    auto it = now.find (path);
    if (it == now.end ()) return false;
    const bool grown = LeafOf (path) == "recovery.txt" && it->second.compare (0, bytes.size (), bytes) == 0;
    if (it->second != bytes && !grown) return false;
  }
  return true;
}

}  // namespace group_data

inline void ExpectNoGroupDataLost (const VolumeSnapshot &beforeAsStored, const fake::Volume &volume, const std::vector<GroupNames> &groups) {
  using namespace group_data;
  const VolumeSnapshot before = Folded (beforeAsStored), after = Folded (volume.Snapshot ());
  std::vector<std::string> allowed = { "\\boot\\bcd", "\\sources", "\\efi\\microsoft", "\\efi\\microsoft\\boot\\bcd" };

  for (const GroupNames &g : groups) {
    const std::string bcd = Lower (g.bcd), store = "\\boot\\" + bcd, src = "\\" + Lower (g.src), efi = "\\efi\\" + Lower (g.efi);
    allowed.insert (allowed.end (), { store, src, efi, "\\efi\\microsoft\\boot\\" + bcd });

    // The store: the file under the group's own name, or the active store while the group
    // is the active one, when it carries the group's identity (its digest file, or else
    // its backup's bytes).
    const auto  backup = before.find ("\\boot\\backup\\" + bcd), digest = before.find ("\\boot\\backup\\" + bcd + ".md5");
    const auto  isOwn  = [&](const std::string &path) {
      if (before.count (path) == 0) return false;
      return digest != before.end () ? digest->second.rfind (Md5Hex (before.at (path)), 0) == 0 : backup == before.end () || backup->second == before.at (path);
    };
    const std::string storeBytes = isOwn (store) ? before.at (store) : HasMarkerOf (before, "\\sources", g) && isOwn ("\\boot\\bcd") ? before.at ("\\boot\\bcd") : "";
    EXPECT_TRUE (storeBytes.empty () || Holds (after, store, storeBytes) || Holds (after, "\\boot\\bcd", storeBytes))
      << "the BCD store of " << g.bcd << " is under neither " << store << " nor \\boot\\BCD";

    // The folders, whole, under either name; a tree that was under neither is not asked for.
    for (const auto &[own, active] : { std::pair{ src, std::string ("\\sources") }, std::pair{ efi, std::string ("\\efi\\microsoft") } }) {
      VolumeSnapshot old = Tree (before, own);
      if (old.empty () && HasMarkerOf (before, active, g)) old = Tree (before, active);
      EXPECT_TRUE (HoldsWhole (Tree (after, own), old) || HoldsWhole (Tree (after, active), old))
        << "the folder " << own << " is not whole under " << own << " or " << active;
    }

    for (const std::string &kept : { "\\boot\\backup\\" + bcd, "\\boot\\backup\\" + bcd + ".md5", "\\efi\\microsoft\\boot\\backup\\" + bcd,
                                     "\\efi\\microsoft\\boot\\backup\\" + bcd + ".md5", efi + "\\boot\\backup\\" + bcd }) {
      EXPECT_TRUE (before.count (kept) == 0 || Holds (after, kept, before.at (kept))) << kept << " changed or moved";
    }
  }

  std::map<std::string, int> copies;
  for (const auto &[path, bytes] : before) if (bytes != "<dir>" && !IsFreeToChange (path)) copies[bytes]++;
  for (const auto &[path, bytes] : after) {
    if (bytes == "<dir>" || bytes.empty () || before.count (path) != 0 || IsFreeToChange (path) || copies.count (bytes) == 0) continue;
    const bool named = IsSideName (path) || IsBackupPath (path) ||
                       std::any_of (allowed.begin (), allowed.end (), [&](const std::string &a) { return path == a || path.rfind (a + "\\", 0) == 0; });
    EXPECT_TRUE (named) << "bytes that were on the volume before now also lie under " << path << ", neither a group's name nor a side name";
  }
  for (const auto &[path, bytes] : before) {
    if (bytes == "<dir>" || bytes.empty () || copies[bytes] != 1 || IsFreeToChange (path)) continue;
    const bool kept = std::any_of (after.begin (), after.end (), [&](const auto &entry) {
      return entry.second == bytes || (LeafOf (path) == "recovery.txt" && LeafOf (entry.first) == "recovery.txt" && entry.second.rfind (bytes, 0) == 0);
    });
    EXPECT_TRUE (kept) << path << " (" << bytes.size () << " bytes, the only copy) is no longer on the volume under any name";
  }
}

// What a prepared stick holds for group g, on volume v, under the active names or its own:
// its store (bytes "store of <id>") with backup and digest, its source folder with marker
// and record, its EFI folder with marker and boot manager.
inline std::string StoreOf (const GroupNames &g) { return "store of " + g.id; }

inline std::string Record (const GroupNames &g) { return "ID|" + g.id + "\r\nSRC|" + g.src + "\r\nBCD_MD5|" + Md5Hex (StoreOf (g)) + "\r\n"; }

inline void PutGroup (fake::Volume &v, const GroupNames &g, bool active) {
  const std::string store = active ? "\\boot\\BCD" : "\\boot\\" + g.bcd, src = active ? "\\sources" : "\\" + g.src;
  const std::string efi   = active ? "\\efi\\microsoft" : "\\efi\\" + g.efi;
  v.Put (store, StoreOf (g)), v.Put ("\\boot\\backup\\" + g.bcd, StoreOf (g)), v.Put ("\\boot\\backup\\" + g.bcd + ".md5", Md5Hex (StoreOf (g)) + "\r\n");
  v.Put (src + "\\" + g.id + ".txt", ""), v.Put (src + "\\recovery.txt", Record (g)), v.Put (src + "\\install.wim", "image of " + g.id);
  v.Put (efi + "\\" + g.id + ".txt", ""), v.Put (efi + "\\boot\\bootmgfw.efi", "boot manager of " + g.id);
}

// A stick: the boot volume (FAT32, partition 1) and a sibling NTFS partition 2, both
// roots and the log open; the entries file knows groups a and b, and the run asks for a.
class StickTest : public HostTest {
 protected:
  fake::Volume        &ntfs    = fw.AddVolume (fake::Fs::Ntfs);
  EFI_FILE_PROTOCOL   *ntfsRoot = nullptr;
  ACTIVATION_CONTEXT  context  = {};
  std::string         entries  = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });
  const std::vector<GroupNames> groups = { { "bcd_a", "grp_a", "efi_a", "s-win-a" }, { "bcd_b", "grp_b", "efi_b", "s-win-b" } };

  void SetUp () override {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    fw.AddBlockIo (ntfs.Handle (), fake::BootSectorImage ("ntfs"));
    fw.SetDevicePath (ntfs.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
    OpenBoot (true);
    ASSERT_EQ (OpenRoot (ntfs.Handle (), &ntfsRoot), EFI_SUCCESS);
    context.BootHandle = boot.Handle (), context.BootRoot = root, context.EntriesText = reinterpret_cast<CHAR8 *>(entries.data ());
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
