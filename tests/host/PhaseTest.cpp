// Moving a stick from one active group to another on its FAT32 boot volume: the active
// group gets its names back, the requested one takes the active names, and whatever stands
// in the way is put back with its owner or aside. Judged by the volume afterwards.
#include "GroupData.h"

#include <activation/RecoveryPhase.h>
#include <activation/RenewalPhase.h>
#include <discovery/FsIdentification.h>
#include <fs/VerifiedChange.h>

namespace {

const std::vector<GroupNames> kGroups = { { "bcd_a", "grp_a", "efi_a", "s-win-a" }, { "bcd_b", "grp_b", "efi_b", "s-win-b" },
                                          { "bcd_c", "grp_c", "efi_c", "s-win-c" } };

// The volume's content apart from the log, which every run writes.
VolumeSnapshot Content (const fake::Volume &v) {
  VolumeSnapshot content = v.Snapshot ();
  content.erase ("\\velmaro_log.txt");
  return content;
}

// Group a is active on the boot volume; b and c wait under their own names. The state
// file's record of a names the boot volume's partition.
class PhaseTest : public HostTest {
 protected:
  ACTIVATION_CONTEXT context = {};
  std::string        entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b",
                                                    "ID:s-win-c BCD:bcd_c SRC:grp_c EFI:efi_c" });
  std::string        uuid;

  void SetUp () override {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    uuid = Lower (fake::BlkidUuid ("fat32"));
    for (const GroupNames &g : kGroups) PutGroup (boot, g, &g == &kGroups[0]);
    OpenBoot (true);
    context.BootHandle = boot.Handle (), context.BootRoot = root, context.EntriesText = reinterpret_cast<CHAR8 *>(entries.data ());
    context.ImageHandle = fw.image, context.Current = State ("bcd_a", "grp_a", "efi_a", uuid, "FAT32");
  }

  EFI_STATUS Recover () { return RunRecoveryPhase (&context, context.EntriesText); }

  // Runs one table row on a fresh copy of image mounted as the stick's boot volume (the
  // log stays on the first one), so that rows do not see each other's changes: arrange
  // changes the copy, body acts on it, and no group's data may be lost between the two.
  template <typename F> void OnCopy (const char *row, const fake::Disk &image, const std::function<void (fake::Volume &)> &arrange, F body) {
    SCOPED_TRACE (row);
    fake::Volume &v = fw.AddVolume (image);
    fw.AddBlockIo (v.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (v.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    EFI_FILE_PROTOCOL *r = nullptr;
    ASSERT_EQ (OpenRoot (v.Handle (), &r), EFI_SUCCESS);
    context.BootHandle = v.Handle (), context.BootRoot = r;
    arrange (v);
    const auto before = v.Snapshot ();
    body (v, r);
    ExpectNoGroupDataLost (before, v, kGroups);
    r->Close (r);
    context.BootHandle = boot.Handle (), context.BootRoot = root;
  }

  EFI_STATUS RenewOn (fake::Volume &v, EFI_FILE_PROTOCOL *r, const char *id, const std::vector<fake::Fault> &faults = {}) {
    SetField (context.GroupId, id);
    EFI_STATUS st = RebuildRequestedState (r, context.EntriesText, A (id), &context.Requested);
    if (!EFI_ERROR (st)) st = VerifySourceFsAtomic (v.Handle (), &context.Requested);
    for (const fake::Fault &f : faults) fw.faults.Add (f);
    if (!EFI_ERROR (st)) st = RunRenewalRenames (fw.image, v.Handle (), r, &context, &context.Requested);
    fw.faults.Reset ();
    return st;
  }

  // The renewal as the run makes it: the requested state, the volume, the renames.
  EFI_STATUS Renew (const char *id) { return RenewOn (boot, root, id); }

  // Group g with its store and marked folders under the active names, or under its own.
  void ExpectGroup (const GroupNames &g, bool active) {
    EXPECT_EQ (boot.Get (active ? "\\boot\\BCD" : "\\boot\\" + g.bcd), StoreOf (g));
    EXPECT_TRUE (boot.Exists ((active ? "\\sources" : "\\" + g.src) + "\\" + g.id + ".txt")) << g.id;
    EXPECT_TRUE (boot.Exists ((active ? "\\efi\\microsoft" : "\\efi\\" + g.efi) + "\\" + g.id + ".txt")) << g.id;
  }
};

TEST_F (PhaseTest, SwitchGivesTheActiveGroupItsNamesBackAndTheRequestedOneTheActiveNames) {
  const auto before = boot.Snapshot ();
  ASSERT_EQ (Recover (), EFI_SUCCESS);
  ExpectGroup (kGroups[0], false);
  for (const std::string &line : { "Ripristino atomico: uso solo partizione corrente SRC_FS=FAT32 SRC_PART=" + uuid + "\r\n",
                                  std::string ("recovery BCD: BCD=bcd_a OK\r\n"), std::string ("recovery SRC: SRC=grp_a OK\r\n"),
                                  std::string ("recovery EFI: EFI=efi_a OK\r\n") }) {
    EXPECT_TRUE (Has (LogText (), "] " + line));
  }

  // On a stick already restored every step finds nothing of the group under the active names.
  const auto restored = Content (boot);
  ASSERT_EQ (Recover (), EFI_SUCCESS);
  EXPECT_EQ (Content (boot), restored);
  for (const std::string step : { "BCD", "SRC", "EFI" }) EXPECT_TRUE (Has (LogText (), "] recovery " + step + ": " + step + "=(unknown) SKIP (not active)\r\n"));
  EXPECT_FALSE (Has (LogText (), "marker ID non risolto")) << "an active name that is not there has no marker to resolve";

  ASSERT_EQ (Renew ("s-win-b"), EFI_SUCCESS);
  for (const GroupNames &g : kGroups) ExpectGroup (g, &g == &kGroups[1]);
  ExpectNoGroupDataLost (before, boot, kGroups);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] Fase rinomina: SOURCE_FS atomico verificato SRC_FS=FAT32 SRC_PART=" + uuid + "\r\n"));
  EXPECT_TRUE (Has (log, "] Fase rinomina: eseguiti solo BCD/SRC/EFI su SOURCE_FS\r\n"));
}

// Recovery of group a on one volume, from what is found under the active names.
TEST_F (PhaseTest, RecoveryRestoresOnlyWhatItCanAttribute) {
  // after: path -> bytes ("" only exists, "-" absent)
  const struct { const char *name; std::function<void (fake::Volume &)> arrange; EFI_STATUS status; std::vector<std::pair<std::string, std::string>> after;
                 const char *line; fake::Fault fault = {}; } rows[] = {
    { "duplicate source folder goes aside", [](fake::Volume &v) { v.Put ("\\grp_a\\s-win-a.txt", ""); v.Put ("\\sources.bak\\old", "o"); },
      EFI_SUCCESS, { { "\\sources.bak\\s-win-a.txt", "" }, { "\\sources.bak1\\old", "o" }, { "\\grp_a\\s-win-a.txt", "" } }, nullptr },
    { "group name holds another group", [](fake::Volume &v) { v.Put ("\\grp_a\\s-win-c.txt", ""); },
      EFI_SUCCESS, { { "\\sources\\s-win-a.txt", "" }, { "\\grp_a\\s-win-c.txt", "" } },
      "Recovery SRC: destinazione \\grp_a non coincide con current state: Success (0x0)" },
    { "active folder holds another group", [](fake::Volume &v) { v.Remove ("\\sources\\s-win-a.txt"); v.Put ("\\sources\\s-win-c.txt", ""); },
      EFI_SUCCESS, { { "\\sources\\s-win-c.txt", "" }, { "\\grp_a", "-" } }, "Recovery SRC: stato marker in \\sources non coincide con current state" },
    { "group store name taken by another digest", [](fake::Volume &v) { v.Put ("\\boot\\bcd_a", "store of nobody"); },
      EFI_COMPROMISED_DATA, { { "\\boot\\BCD", "store of s-win-a" }, { "\\sources\\s-win-a.txt", "" } },
      "recovery BCD: BCD=bcd_a KO Compromised Data (0x8000000000000021)" },
    { "wrong active store, good backup", [](fake::Volume &v) { v.Put ("\\boot\\BCD", "store of nobody"); },
      EFI_SUCCESS, { { "\\boot\\BCD", "store of nobody" }, { "\\boot\\bcd_a", "store of s-win-a" } }, "recovery BCD: BCD=bcd_a OK" },
    { "copy from the backup written without effect", [](fake::Volume &v) { v.Put ("\\boot\\BCD", "store of nobody"); },
      EFI_COMPROMISED_DATA, { { "\\boot\\BCD", "store of nobody" } }, "recovery BCD: BCD=bcd_a KO Compromised Data (0x8000000000000021)",
      { Op::Write, EFI_SUCCESS, 0, "bcd_a", Effect::NoEffect } },
    { "EFI folder rename refused", [](fake::Volume &) {}, EFI_ACCESS_DENIED, { { "\\efi\\microsoft\\s-win-a.txt", "" }, { "\\grp_a\\s-win-a.txt", "" } },
      "recovery EFI: EFI=efi_a KO Access Denied (0x800000000000000F)", { Op::SetInfo, EFI_ACCESS_DENIED, 1, "microsoft->" } },
    { "record of another partition", [](fake::Volume &v) { v.Put ("\\sources\\recovery.txt", Record (kGroups[0]) + "SRC_PART|1234-abcd\r\n"); },
      EFI_SUCCESS, { { "\\boot\\BCD", "store of s-win-a" }, { "\\boot\\bcd_a", "-" } }, "recovery BCD: BCD=(unknown) SKIP (not active)" },
    { "record without a digest, group store already under its name", [](fake::Volume &v) {
        v.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n"), v.Put ("\\boot\\bcd_a", "store of s-win-a");
      }, EFI_SUCCESS, { { "\\grp_a\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\nSRC_PART|" + uuid + "\r\nSRC_FS|FAT32\r\nBCD_MD5|" + Md5Hex ("store of s-win-a") + "\r\n" } },
      "recovery BCD: BCD=bcd_a OK" },
    { "no digest anywhere", [](fake::Volume &v) { v.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n"); v.Remove ("\\boot\\backup\\bcd_a.md5"); },
      EFI_SUCCESS, { { "\\boot\\bcd_a", "store of s-win-a" }, { "\\boot\\BCD", "-" } }, "recovery BCD: BCD=bcd_a OK" },
    { "group name held by a folder without a known marker", [](fake::Volume &v) { v.Put ("\\grp_a\\readme.txt", "r"); },
      EFI_SUCCESS, { { "\\sources\\s-win-a.txt", "" }, { "\\grp_a\\readme.txt", "r" } },
      "Recovery SRC: destinazione \\grp_a non coincide con current state: Not Found (0x800000000000000E)" },
    { "group name that cannot be opened", [](fake::Volume &) {}, EFI_DEVICE_ERROR, { { "\\sources\\s-win-a.txt", "" }, { "\\grp_a", "-" } },
      "recovery SRC: SRC=grp_a KO Device Error (0x8000000000000007)", { Op::Open, EFI_DEVICE_ERROR, 1, "grp_a" } },
  };
  const fake::Disk pristine = boot.DiskImage ();
  for (const auto &row : rows) {
    OnCopy (row.name, pristine, row.arrange, [&](fake::Volume &v, EFI_FILE_PROTOCOL *) {
      fw.faults.Set (row.fault);
      EXPECT_EQ (Recover (), row.status);
      fw.faults.Reset ();
      for (const auto &[path, bytes] : row.after) {
        if (bytes == "-") EXPECT_FALSE (v.Exists (path)) << path;
        else if (bytes.empty ()) EXPECT_TRUE (v.Exists (path)) << path;
        else EXPECT_EQ (v.Get (path), bytes) << path;
      }
      if (row.line != nullptr) EXPECT_TRUE (Has (LogText (), std::string ("] ") + row.line + "\r\n"));
    });
  }
}

TEST_F (PhaseTest, EfiStoreDigestOfTheStateFileSurvivesARecordWithoutOne) {
  SetField (context.Current.SrcFs, "NTFS"), SetField (context.Current.BcdEfiMd5, Md5Hex ("EFI store of a"));
  RecoverActiveGroup (&context, boot.Handle (), root, context.EntriesText);
  EXPECT_EQ (Str (context.Current.BcdEfiMd5), Md5Hex ("EFI store of a"));
}

TEST_F (PhaseTest, RecordedPartitionThatIsNowhereChangesNothing) {
  SetField (context.Current.SrcPart, "0000-0000");
  const auto before = Content (boot);
  EXPECT_EQ (Recover (), EFI_NOT_FOUND);
  EXPECT_EQ (Content (boot), before);
  EXPECT_TRUE (Has (Log (), "] ERRORE: partizione corrente non aperta per ripristino atomico SRC_PART=0000-0000: Not Found (0x800000000000000E)\r\n"));
}

TEST_F (PhaseTest, WithoutRecordedPartitionBootVolumeAndEverySiblingAreRestored) {
  // Two more partitions of the same stick, each holding group a's pieces under the
  // active names; a volume of another disk is not touched.
  const auto withGroupA = [&](uint8_t port, uint32_t number, UINT32 signature) {
    fake::Volume &v = fw.AddVolume ();
    fw.SetDevicePath (v.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (port), number, signature));
    PutGroup (v, kGroups[0], true);
    return &v;
  };
  fake::Volume *siblings[] = { withGroupA (1, 2, 0x5EED), withGroupA (1, 3, 0x5EED) }, *other = withGroupA (2, 2, 0x7777);
  SetField (context.Current.SrcPart, "");

  ASSERT_EQ (Recover (), EFI_SUCCESS);
  for (fake::Volume *v : { &boot, siblings[0], siblings[1] }) EXPECT_TRUE (v->Exists ("\\grp_a\\s-win-a.txt"));
  EXPECT_TRUE (other->Exists ("\\sources\\s-win-a.txt"));
  EXPECT_TRUE (Has (Log (), "] Ripristino atomico: SRC_PART corrente assente, uso recovery legacy su partizioni visibili\r\n"));
}

// What stands under an active name the requested group needs.
TEST_F (PhaseTest, RenewalPutsWhatBlocksTheActiveNamesWithItsOwnerOrAside) {
  // where: where the folder that was in the way ends
  const struct { const char *name; std::function<void (fake::Volume &)> arrange; EFI_STATUS status; const char *where; std::string line; } rows[] = {
    { "another valid group", [](fake::Volume &v) { v.Put ("\\sources\\s-win-c.txt", ""); v.Remove ("\\grp_c"); },
      EFI_SUCCESS, "\\grp_c\\s-win-c.txt", "Fase rinomina: destinazione \\sources contiene ID diverso valido s-win-c, normalizzo in \\grp_c" },
    { "nobody's, older side name kept", [](fake::Volume &v) { v.Put ("\\sources\\notes.txt", "n"); v.Put ("\\sources.bak\\old", "o"); },
      EFI_SUCCESS, "\\sources.bak\\notes.txt", "Destinazione \\sources non attribuibile/coerente, sposto in .bak: Not Found (0x800000000000000E)" },
    { "another group whose own name is taken", [](fake::Volume &v) { v.Put ("\\sources\\s-win-c.txt", ""); },
      EFI_ALREADY_STARTED, "\\sources\\s-win-c.txt", "ERRORE: fase rinomina, destinazione originale gia presente per ID s-win-c: \\grp_c" },
    { "another group that belongs to another partition", [](fake::Volume &v) {
        v.Put ("\\sources\\s-win-c.txt", "");
        v.Put ("\\ZENTO\\software.xml", "<software ID=\"s-win-c\" Der=\"Windows 11 velmaro\">\r\n<ISO2ndPartition>True</ISO2ndPartition><FS>FAT32</FS>"
                                          "<UUID>0000-0000</UUID>\r\n<BCD>bcd_c</BCD><SRC>grp_c</SRC><EFI>efi\\efi_c</EFI>\r\n</software>\r\n");
      }, EFI_ACCESS_DENIED, "\\sources\\s-win-c.txt", "Fase rinomina: destinazione con ID s-win-c non atomica: UUID atteso=0000-0000 reale=" + uuid },
    { "the requested group's own folder, already active", [](fake::Volume &v) {
        for (const char *f : { "s-win-b.txt", "recovery.txt", "install.wim" }) v.Put (std::string ("\\sources\\") + f, v.Get (std::string ("\\grp_b\\") + f)), v.Remove (std::string ("\\grp_b\\") + f);
        v.Remove ("\\grp_b");
      }, EFI_SUCCESS, "\\sources\\s-win-b.txt", "Fase rinomina: SRC gia attivo e coerente" },
    { "a source folder without the group's marker", [](fake::Volume &v) { v.Remove ("\\grp_b\\s-win-b.txt"); },
      EFI_NOT_FOUND, "\\grp_b\\install.wim", "ERRORE: fase rinomina, SRC non coerente: \\grp_b: Not Found (0x800000000000000E)" },
    { "an EFI folder without the group's marker", [](fake::Volume &v) { v.Remove ("\\efi\\efi_b\\s-win-b.txt"); },
      EFI_NOT_FOUND, "\\efi\\efi_b\\boot\\bootmgfw.efi", "ERRORE: fase rinomina, EFI non coerente: \\efi\\efi_b: Not Found (0x800000000000000E)" },
    { "a group store of nobody", [](fake::Volume &v) { v.Put ("\\boot\\bcd_b", "store of nobody"); },
      EFI_SUCCESS, "\\boot\\bcd_b.bak", "Fase rinomina: BCD sorgente assente/non coerente, recupero da \\boot\\backup\\bcd_b" },
    { "no group store", [](fake::Volume &v) { v.Remove ("\\boot\\bcd_b"); },
      EFI_SUCCESS, "\\boot\\backup\\bcd_b", "Fase rinomina: BCD sorgente assente/non coerente, recupero da \\boot\\backup\\bcd_b" },
    { "no group store and a damaged backup", [](fake::Volume &v) { v.Remove ("\\boot\\bcd_b"); v.Put ("\\boot\\backup\\bcd_b", "damaged"); },
      EFI_COMPROMISED_DATA, "\\grp_b\\install.wim", "ERRORE: fase rinomina, BCD non coerente: \\boot\\bcd_b: Compromised Data (0x8000000000000021)" },
  };
  // Group a restored first, as the run does; b is requested.
  ASSERT_EQ (Recover (), EFI_SUCCESS);
  const fake::Disk restored = boot.DiskImage ();
  for (const auto &row : rows) {
    OnCopy (row.name, restored, row.arrange, [&](fake::Volume &v, EFI_FILE_PROTOCOL *r) {
      EXPECT_EQ (RenewOn (v, r, "s-win-b"), row.status);
      EXPECT_TRUE (v.Exists (row.where)) << row.where;
      EXPECT_EQ (v.Exists ("\\grp_b\\install.wim"), row.status != EFI_SUCCESS) << "group b moved only on success";
      EXPECT_EQ (v.Exists ("\\boot\\bcd_b"), row.status != EFI_SUCCESS);
      if (row.status == EFI_SUCCESS) EXPECT_TRUE (v.Get ("\\boot\\BCD") == "store of s-win-b" && v.Exists ("\\efi\\microsoft\\s-win-b.txt"));
      EXPECT_TRUE (Has (LogText (), "] " + row.line + "\r\n"));
    });
  }
}

// A rename that fails undoes this run's earlier ones, SRC before BCD; a piece that was
// active before is never touched; a rollback that fails is reported and the next one runs.
TEST_F (PhaseTest, FailedRenameIsRolledBackInReverseOrder) {
  const EFI_STATUS denied = EFI_ACCESS_DENIED;
  // kept: paths that must exist afterwards
  const struct { const char *name; std::vector<fake::Fault> faults; bool storeActiveBefore; std::vector<const char *> kept; const char *line; } rows[] = {
    { "EFI fails", { { Op::SetInfo, denied, 1, "efi_b->" } }, false, { "\\boot\\bcd_b", "\\grp_b\\s-win-b.txt", "\\efi\\efi_b\\s-win-b.txt" },
      "ERRORE: fase rinomina EFI fallita: \\efi\\efi_b -> \\efi\\microsoft: Access Denied (0x800000000000000F)" },
    { "SRC fails", { { Op::SetInfo, denied, 1, "grp_b->" } }, false, { "\\boot\\bcd_b", "\\grp_b\\s-win-b.txt" },
      "ERRORE: fase rinomina SRC fallita: \\grp_b -> \\sources: Access Denied (0x800000000000000F)" },
    { "SRC fails, store active before", { { Op::SetInfo, denied, 1, "grp_b->" } }, true, { "\\boot\\BCD", "\\grp_b\\s-win-b.txt" }, nullptr },
    { "EFI fails and so does the SRC rollback", { { Op::SetInfo, denied, 1, "efi_b->" }, { Op::SetInfo, denied, 1, "\\sources->" } }, false,
      { "\\sources\\s-win-b.txt", "\\boot\\bcd_b" }, "Rollback rinomina fallito: \\sources -> \\grp_b: Access Denied (0x800000000000000F)" },
  };
  ASSERT_EQ (Recover (), EFI_SUCCESS);
  const fake::Disk restored = boot.DiskImage ();
  for (const auto &row : rows) {
    const auto storeActive = [&](fake::Volume &v) { if (row.storeActiveBefore) v.Put ("\\boot\\BCD", v.Get ("\\boot\\bcd_b")), v.Remove ("\\boot\\bcd_b"); };
    OnCopy (row.name, restored, storeActive, [&](fake::Volume &v, EFI_FILE_PROTOCOL *r) {
      EXPECT_EQ (RenewOn (v, r, "s-win-b", row.faults), denied);
      for (const char *path : row.kept) EXPECT_TRUE (v.Exists (path)) << path;
      if (row.storeActiveBefore) EXPECT_FALSE (v.Exists ("\\boot\\bcd_b")) << "a store active before was renamed";
      if (row.line != nullptr) EXPECT_TRUE (Has (LogText (), std::string ("] ") + row.line + "\r\n"));
    });
  }
}

TEST_F (PhaseTest, SourceVolumeOfAnotherTypeOrPartitionIsRefusedBeforeAnyRename) {
  const struct { const char *fs, *part, *line; EFI_STATUS status; } rows[] = {
    { "NTFS", "", "ERRORE: fase rinomina, SOURCE_FS non atomico: atteso FS=NTFS reale FS=FAT32", EFI_NOT_FOUND },
    { "fat32", "0000-0000", nullptr, EFI_NOT_FOUND },
    { "fat32", "", nullptr, EFI_SUCCESS },
  };
  for (const auto &row : rows) {
    GROUP_STATE s = State ("bcd_b", "grp_b", "efi_b", row.part, row.fs);
    EXPECT_EQ (VerifySourceFsAtomic (boot.Handle (), &s), row.status) << row.fs << " " << row.part;
    if (row.status == EFI_SUCCESS) EXPECT_EQ (Str (s.SrcPart), uuid);
    if (row.line != nullptr) EXPECT_TRUE (Has (LogText (), std::string ("] ") + row.line + "\r\n"));
  }
  EXPECT_TRUE (Has (LogText (), "] ERRORE: fase rinomina, SOURCE_FS non atomico: atteso UUID=0000-0000 reale UUID=" + uuid + "\r\n"));

  // The install metadata places a group on a second partition: that is the volume asked for.
  boot.Put ("\\ZENTO\\software.xml", "<software ID=\"s-win-b\" Der=\"Windows 11 velmaro\">\r\n<ISO2ndPartition>True</ISO2ndPartition>"
                                        "<FS>NTFS</FS><UUID>0123456789abcdef</UUID>\r\n</software>\r\n");
  GROUP_STATE rebuilt;
  ASSERT_EQ (RebuildRequestedState (root, context.EntriesText, A ("s-win-b"), &rebuilt), EFI_SUCCESS);
  EXPECT_EQ (Str (rebuilt.Src), "grp_b");
  EXPECT_EQ (Str (rebuilt.SrcFs) + " " + Str (rebuilt.SrcPart), "NTFS 0123456789abcdef");
}

}  // namespace
