// What a switch costs in file-protocol calls on a stick of three groups (group a active on
// the FAT32 boot volume, b and c under their own names): the whole application switching
// to b, the whole application finding a already active, and the active check alone. The
// log file's own opens, writes and flushes are left out; the roots count all OpenVolume
// calls, the log's root included. Each figure must lie between the least the proofs need
// (worked out by hand, see README.md) and the bound measured: a change that costs more
// calls fails here, and so does one that skips a proof. `make bench` prints the table
// (VELMARO_PRINT_CALLS=1).
#include "GroupData.h"

#include <activation/BcdStores.h>
#include <data/EntriesFile.h>

#include <array>
#include <cstdio>
#include <utility>

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (EFI_HANDLE, EFI_SYSTEM_TABLE *);

namespace {

// Roots: every OpenVolume; fresh: those after the run's first.
enum Column { Roots, Fresh, Opens, Reads, Bytes, Writes, Renames, Infos, Deletes, Flushes, kColumns };
using Counts = std::array<uint64_t, kColumns>;
const char *const kNames[kColumns] = { "roots", "fresh", "opens", "reads", "bytes", "writes", "SetInfo", "GetInfo", "Delete", "Flush" };
// The column that counts each call (a Read's bytes and a later root's freshness besides).
const std::map<Op, Column> kColumnOf = { { Op::OpenVolume, Roots }, { Op::Open, Opens }, { Op::Read, Reads }, { Op::Write, Writes },
                                         { Op::SetInfo, Renames }, { Op::GetInfo, Infos }, { Op::Delete, Deletes }, { Op::Flush, Flushes } };

const std::vector<GroupNames> kGroups = { { "bcd_a", "grp_a", "efi_a", "s-win-a" }, { "bcd_b", "grp_b", "efi_b", "s-win-b" },
                                          { "bcd_c", "grp_c", "efi_c", "s-win-c" } };

class CallCountTest : public HostTest {
 protected:
  std::vector<fake::Faults::Call> calls;
  std::string                     entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b",
                                                                 "ID:s-win-c BCD:bcd_c SRC:grp_c EFI:efi_c" });

  void SetUp () override {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    const std::string uuid = Lower (fake::BlkidUuid ("fat32"));
    boot.Put ("\\boot\\NUR_VEL_EFI.COM", entries);
    boot.Put ("\\boot\\VELMARO.COM", "BCD:c:\\boot\\bcd_a\r\nSRC:c:\\grp_a\r\nEFI:c:\\efi\\efi_a\r\nSRC_PART:" + uuid + "\r\nSRC_FS:FAT32\r\n");
    for (const GroupNames &g : kGroups) {
      const bool active = &g == &kGroups[0];
      PutGroup (boot, g, active);
      const std::string src = active ? std::string ("\\sources") : "\\" + g.src;
      boot.Put (src + "\\bootx64.efi", fw.ApplicationFile (EFI_SUCCESS));
      boot.Put (src + "\\recovery.txt", Record (g) + "SRC_PART|" + uuid + "\r\nSRC_FS|FAT32\r\n");
    }
  }

  // A test that fails while recording must not leave the firmware writing into a list that is gone.
  void TearDown () override { fw.faults.record = nullptr, HostTest::TearDown (); }

  void StartRecording () { calls.clear (), fw.faults.record = &calls; }

  Counts Recorded () {
    fw.faults.record = nullptr;
    Counts c{};
    for (const auto &call : calls) {
      if (call.path.find (u"velmaro_log.txt") != std::u16string::npos || kColumnOf.count (call.op) == 0) continue;
      c[Fresh] += call.op == Op::OpenVolume && c[Roots] != 0;
      c[Bytes] += call.op == Op::Read ? call.bytes : 0;
      c[kColumnOf.at (call.op)]++;
    }
    return c;
  }

  EFI_STATUS Start (const std::u16string &options) {
    fw.SetLoadOptions (options);
    StartRecording ();
    return _ModuleEntryPoint (fw.image, &fw.st);
  }

  // The figures of one run against the least its proofs need and its bound; printed as
  // two rows of the table when asked.
  static void Judge (const char *run, const Counts &measured, const Counts &least, const Counts &bound) {
    for (int i = 0; i < kColumns; ++i) {
      EXPECT_GE (measured[i], least[i]) << run << ": " << kNames[i] << " below what the proofs need";
      EXPECT_LE (measured[i], bound[i]) << run << ": " << kNames[i] << " above the bound";
    }
    if (std::getenv ("VELMARO_PRINT_CALLS") == nullptr) return;
    static bool headed = false;
    if (!std::exchange (headed, true)) {
      std::printf ("%-44s", "file-protocol calls (log file not counted)");
      for (const char *name : kNames) std::printf (" %7s", name);
      std::printf ("\n");
    }
    for (const auto &[label, row] : { std::pair{ run, &measured }, std::pair{ "  least the proofs need", &least } }) {
      std::printf ("%-44s", label);
      for (uint64_t value : *row) std::printf (" %7llu", static_cast<unsigned long long>(value));
      std::printf ("\n");
    }
  }
};

// Rows: roots, fresh, opens, reads, bytes, writes, SetInfo, GetInfo, Delete, Flush.
TEST_F (CallCountTest, WholeSwitchToAnotherGroup) {
  EXPECT_EQ (Start (u"s-win-b"), EFI_SUCCESS);
  const Counts measured = Recorded ();
  EXPECT_TRUE (boot.Exists ("\\sources\\s-win-b.txt") && boot.Exists ("\\efi\\microsoft\\s-win-b.txt") && boot.Get ("\\boot\\BCD") == StoreOf (kGroups[1]));
  Judge ("switch a -> b, whole application", measured, { 9, 8, 46, 16, 1254, 2, 6, 12, 2, 2 }, { 9, 8, 51, 17, 1288, 2, 6, 12, 2, 2 });
}

TEST_F (CallCountTest, WholeRunThatFindsTheGroupActive) {
  const auto before = boot.Snapshot ();   // no log yet: the run writes the first
  EXPECT_EQ (Start (u"s-win-a"), EFI_SUCCESS);
  const Counts measured = Recorded ();
  auto after = boot.Snapshot ();
  after.erase ("\\velmaro_log.txt");
  EXPECT_EQ (after, before);
  Judge ("a already active, whole application", measured, { 2, 1, 10, 5, 478, 0, 0, 3, 0, 0 }, { 2, 1, 14, 8, 593, 0, 0, 4, 0, 0 });
}

TEST_F (CallCountTest, ActiveCheckAlone) {
  OpenBoot ();
  ACTIVATION_CONTEXT context = {};
  context.BootHandle = boot.Handle (), context.BootRoot = root, context.EntriesText = reinterpret_cast<CHAR8 *>(entries.data ());
  SetField (context.GroupId, "s-win-a");
  ASSERT_EQ (LookupGroupInEntries (context.EntriesText, A ("s-win-a"), &context.Requested), EFI_SUCCESS);
  StartRecording ();
  EXPECT_EQ (IsRequestedGroupActive (&context, boot.Handle (), root), EFI_SUCCESS);
  const Counts measured = Recorded ();
  EXPECT_EQ (Str (context.Requested.BcdMd5), Md5Hex (StoreOf (kGroups[0])));
  Judge ("active check alone (a active, asked for a)", measured, { 0, 0, 4, 3, 115, 0, 0, 1, 0, 0 }, { 0, 0, 4, 3, 115, 0, 0, 1, 0, 0 });
}

}  // namespace
