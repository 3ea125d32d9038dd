#include "GroupData.h"

#include <activation/BcdStores.h>

namespace {

const std::string kStoreA = "store of group a", kStoreB = "store of group b", kStray = "store of nobody";
const std::string kEfiA = "EFI store of group a", kEfiB = "EFI store of group b";
const std::string kEfiBoot = "\\efi\\microsoft\\boot\\", kEfiBcd = kEfiBoot + "BCD", kOwnEfi = "\\efi\\efi_b\\boot\\";

// Group a is active on the FAT32 boot volume; group b waits on the NTFS partition 2.
class BcdTest : public StickTest {
 protected:
  void SetUp () override {
    StickTest::SetUp ();
    boot.Put ("\\sources\\s-win-a.txt", ""), boot.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n"), boot.Put ("\\efi\\microsoft\\s-win-a.txt", "");
    boot.Put ("\\boot\\BCD", kStoreA), boot.Put ("\\boot\\backup\\bcd_a", kStoreA), boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (kStoreA) + "\r\n");
  }

  EFI_STATUS Active () { return IsRequestedGroupActive (&context, boot.Handle (), root); }
  EFI_STATUS Normalize (const CHAR16 *path = ACTIVE_BCD_PATH) { return NormalizeBcdByMd5 (&context, boot.Handle (), root, path); }
};

TEST_F (BcdTest, ActiveGroupIsRecognisedAndItsRecordCompleted) {
  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (Str (context.Requested.BcdMd5), Md5Hex (kStoreA));
  EXPECT_TRUE (Has (boot.Get ("\\sources\\recovery.txt"), "SRC_FS|FAT32\r\n"));
  // Without the group's marker in the source or the EFI folder, another group is active.
  for (const char *marker : { "\\efi\\microsoft\\s-win-a.txt", "\\sources\\s-win-a.txt" }) {
    boot.Remove (marker);
    EXPECT_EQ (Active (), EFI_NOT_FOUND) << marker;
    boot.Put (marker, "");
  }
}

TEST_F (BcdTest, WithoutAnyDigestAnExistingStoreIsTrusted) {
  boot.Remove ("\\boot\\backup\\bcd_a.md5"), boot.Put ("\\boot\\BCD", kStray);
  EXPECT_EQ (Active (), EFI_SUCCESS);
  boot.Remove ("\\boot\\BCD");
  EXPECT_EQ (Active (), EFI_NOT_FOUND);
  boot.Put ("\\boot\\BCD", kStray), fw.faults.Set ({ Op::Open, EFI_DEVICE_ERROR, 1, "\\boot\\BCD" });
  EXPECT_EQ (Active (), EFI_DEVICE_ERROR) << "a store that does not open is not an absent one";
  fw.faults.Reset ();
}

TEST_F (BcdTest, WrongActiveStoreIsRepairedFromBackupAndKeptAside) {
  boot.Put ("\\boot\\BCD", kStray), boot.Put ("\\boot\\BCD_BAK", "older kept store");
  const auto before = boot.Snapshot ();

  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), kStoreA);
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK"), kStray);
  // The store an earlier repair kept aside may be the only copy of its bytes: it moves on.
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK1"), "older kept store");
  // Asked again in the same run, the store kept aside survives.
  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK"), kStray);
  ExpectNoGroupDataLost (before, boot, groups);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] \\boot\\BCD_BAK esistente conservato come \\boot\\BCD_BAK1\r\n"));
  EXPECT_TRUE (Has (log, "] BCD atomico: \\boot\\BCD presente ma non coerente, sposto in \\boot\\BCD_BAK\r\n"));
  EXPECT_TRUE (Has (log, "] BCD atomico: recupero BCD coerente da \\boot\\backup\\bcd_a\r\n"));

  // With every numbered name taken, the repair moves nothing.
  boot.Put ("\\boot\\BCD", kStray + " again");
  for (int n = 1; n <= 99; ++n) boot.Put ("\\boot\\BCD_BAK" + std::to_string (n), "kept " + std::to_string (n));
  const auto full = boot.Snapshot ();
  EXPECT_EQ (RepairActiveBcd (&context, boot.Handle (), root), EFI_ALREADY_STARTED);
  EXPECT_EQ (boot.Snapshot (), full);
}

TEST_F (BcdTest, RepairThatCannotSucceedChangesNoName) {
  // backup: null for none
  const struct { const char *name; const char *backup; fake::Fault fault; } rows[] = {
    { "backup damaged", "damaged backup", {} },
    { "backup missing", nullptr, {} },
    { "copy fails", "store of group a", { Op::Write, EFI_VOLUME_FULL, 1, "\\boot\\BCD" } },
    { "copy written short", "store of group a", { Op::Write, 0, 1, "\\boot\\BCD", Effect::Short } },
    { "copy claimed but not written", "store of group a", { Op::Write, 0, 1, "\\boot\\BCD", Effect::NoEffect } },
  };

  boot.Put ("\\boot\\BCD", kStray);
  // An older ".bak" holds the only copy of its bytes: the undo must keep it.
  boot.Put ("\\boot\\BCD.bak", "only copy of an older store");
  for (const auto &row : rows) {
    boot.Remove ("\\boot\\backup\\bcd_a");
    if (row.backup != nullptr) boot.Put ("\\boot\\backup\\bcd_a", row.backup);
    const auto before = boot.Snapshot ();
    fw.faults.Set (row.fault);
    EXPECT_EQ (Active (), EFI_NOT_FOUND) << row.name;
    // A backup that cannot repair anything is found out before anything moves.
    if (row.fault.op == Op::None) EXPECT_EQ (group_data::Tree (boot.Snapshot (), "\\boot"), group_data::Tree (before, "\\boot")) << row.name;
    EXPECT_EQ (boot.Get ("\\boot\\BCD"), kStray) << row.name;
    EXPECT_FALSE (boot.Exists ("\\boot\\BCD_BAK")) << row.name;
    ExpectNoGroupDataLost (before, boot, groups);
  }
  // The failed copies were kept aside, not deleted, and so was the older one.
  EXPECT_TRUE (boot.Exists ("\\boot\\BCD.bak"));
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak1"), "only copy of an older store");
}

TEST_F (BcdTest, StrayStoreGoesToItsOwnersName) {
  // digestB: the content of \boot\backup\bcd_b.md5
  // taken: \boot\bcd_b already holds another store
  const struct { const char *name; std::string xml, record; std::string digestB; const char *movedTo; bool taken = false; } rows[] = {
    { "install metadata", "<software ID=\"s-win-b\" Der=\"Windows velmaro\"><BCD_MD5>" + Md5Hex (kStoreB) + "</BCD_MD5><BCD>bcd_b</BCD></software>",
      "", "", "\\boot\\bcd_b" },
    { "active record", "", "ID|s-win-b\r\nBCD_MD5|" + Md5Hex (kStoreB) + "\r\n", "", "\\boot\\bcd_b" },
    { "digest files", "", "", Md5Hex (kStoreB), "\\boot\\bcd_b" },
    { "nobody", "", "", Md5Hex (kStoreA), "\\boot\\BCD.bak" },
    { "owner's name taken", "", "ID|s-win-b\r\nBCD_MD5|" + Md5Hex (kStoreB) + "\r\n", "", "\\boot\\BCD.bak", true },
    { "record of another partition", "", "ID|s-win-b\r\nSRC_PART|" + Lower (fake::BlkidUuid ("fat32")).substr (0, 5) + "zzzz\r\nBCD_MD5|" + Md5Hex (kStoreB) + "\r\n",
      "", "\\boot\\BCD.bak" },
    { "install metadata names a taken name", "<software ID=\"s-win-b\" Der=\"Windows velmaro\"><BCD_MD5>" + Md5Hex (kStoreB) + "</BCD_MD5><BCD>bcd_b</BCD></software>",
      "", Md5Hex (kStoreB), "\\boot\\BCD.bak", true },
  };

  for (const auto &row : rows) {
    boot.Remove ("\\ZENTO\\software.xml"), boot.Remove ("\\boot\\bcd_b"), boot.Put ("\\boot\\BCD", kStoreB);
    if (!row.xml.empty ()) boot.Put ("\\ZENTO\\software.xml", row.xml);
    boot.Put ("\\sources\\recovery.txt", row.record.empty () ? "ID|s-win-a\r\n" : row.record), boot.Put ("\\boot\\backup\\bcd_b.md5", row.digestB);
    boot.Put ("\\boot\\BCD.bak", "older bak"), boot.Remove ("\\boot\\BCD.bak1");
    if (row.taken) boot.Put ("\\boot\\bcd_b", "another store of b");
    const auto before = boot.Snapshot ();
    fw.console.clear ();
    EXPECT_EQ (Normalize (), EFI_SUCCESS) << row.name;
    EXPECT_EQ (boot.Get (row.movedTo), kStoreB) << row.name;
    EXPECT_FALSE (boot.Exists ("\\boot\\BCD")) << row.name;
    EXPECT_EQ (boot.Get (row.movedTo == std::string ("\\boot\\BCD.bak") ? "\\boot\\BCD.bak1" : "\\boot\\BCD.bak"), "older bak") << row.name;
    if (row.taken) EXPECT_EQ (boot.Get ("\\boot\\bcd_b"), "another store of b") << row.name;
    EXPECT_EQ (Has (Console (), "] Recovery BCD: MD5 trovato in software.xml, ripristino \\boot\\BCD -> \\boot\\bcd_b\r\n"),
               !row.xml.empty () && !row.taken) << row.name;
    ExpectNoGroupDataLost (before, boot, groups);
  }

  // Install metadata that cannot be read is reported and the other sources decide.
  boot.Put ("\\boot\\BCD", kStoreB), boot.Remove ("\\boot\\bcd_b"), boot.Put ("\\ZENTO\\software.xml", "<software>");
  fw.faults.Set ({ Op::Read, EFI_VOLUME_CORRUPTED, 1, "software.xml" }), fw.console.clear ();
  EXPECT_EQ (Normalize (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\bcd_b"), kStoreB);
  EXPECT_TRUE (Has (Console (), "] WARN: software.xml non usabile per identificare BCD \\boot\\BCD: Volume Corrupt (0x800000000000000A)\r\n"));
}

// What the check does not know for sure it does not act on: a damaged digest file or a
// store that cannot be read is a fault, not a reason to move the active store.
TEST_F (BcdTest, FaultsAreReportedAndMoveNothing) {
  boot.Put ("\\boot\\BCD", kStray), boot.Put ("\\boot\\backup\\bcd_a.md5", "not a digest");
  EXPECT_EQ (Active (), EFI_COMPROMISED_DATA);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), kStray);
  EXPECT_FALSE (boot.Exists ("\\boot\\BCD_BAK"));

  boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (kStoreA));
  const auto before = boot.Snapshot ();
  fw.faults.Set ({ Op::Read, EFI_VOLUME_CORRUPTED, 1, "\\boot\\BCD" });
  EXPECT_EQ (Active (), EFI_VOLUME_CORRUPTED);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), kStray);
  EXPECT_FALSE (boot.Exists ("\\boot\\BCD_BAK"));
  ExpectNoGroupDataLost (before, boot, groups);

  // Without a digest there is nothing to repair towards.
  boot.Remove ("\\boot\\backup\\bcd_a.md5"), SetField (context.Requested.BcdMd5, ""), fw.faults.Reset ();
  EXPECT_EQ (RepairActiveBcd (&context, boot.Handle (), root), EFI_NOT_FOUND);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), kStray);
}

// A store under a group's name whose digest names that very group is still not the one
// expected there: it is kept aside, never left in the way.
TEST_F (BcdTest, StoreAlreadyUnderItsNameIsMovedAside) {
  boot.Put ("\\boot\\bcd_b", kStoreB), boot.Put ("\\boot\\backup\\bcd_b.md5", Md5Hex (kStoreB));
  EXPECT_EQ (Normalize (W (u"\\boot\\bcd_b")), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\bcd_b.bak"), kStoreB);
  EXPECT_FALSE (boot.Exists ("\\boot\\bcd_b"));
}

TEST_F (BcdTest, StoreClaimedByTwoDigestFilesIsNamedByNeither) {
  boot.Put ("\\boot\\BCD", kStoreB), boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (kStoreB));
  boot.Put ("\\boot\\backup\\bcd_b.md5", Md5Hex (kStoreB));
  EXPECT_EQ (Normalize (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak"), kStoreB);

  boot.Put ("\\boot\\BCD", kStoreB), fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1, "\\boot\\BCD"), fw.console.clear ();
  EXPECT_EQ (Normalize (), EFI_DEVICE_ERROR);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), kStoreB);
  EXPECT_TRUE (Has (Console (), "] BCD \\boot\\BCD: calcolo MD5 fallito, nessuna modifica: Device Error (0x8000000000000007)\r\n"));
  EXPECT_TRUE (Has (Log (), "] BCD \\boot\\BCD: stesso MD5 associato a piu nomi, nessun nome scelto per solo MD5\r\n"));
}

// Group b is requested on its NTFS partition, group a's EFI store is the current one.
class EfiBcdTest : public BcdTest {
 protected:
  void SetUp () override {
    BcdTest::SetUp ();
    Request ("s-win-b", "bcd_b", "grp_b", "efi_b");
    SetField (context.Requested.SrcFs, "NTFS");
    context.Current = State ("bcd_a", "", "efi_a");
    SetField (context.Current.BcdEfiMd5, Md5Hex (kEfiA)), ntfs.Put (kEfiBoot + "backup\\bcd_b.md5", Md5Hex (kEfiB));
  }

  EFI_STATUS Prepare () { return PrepareEfiBcd (&context, ntfs.Handle (), ntfsRoot, &context.Requested, ACTIVE_EFI_BCD_PATH); }
};

// One way the partition may hold EFI stores. after: path -> bytes afterwards ("-": absent);
// lines: console lines without their stamps ("!" first: a text that must not be there).
struct EfiRow {
  const char                                       *name;
  std::function<void (fake::Volume &)>             arrange;
  fake::Fault                                      fault;
  EFI_STATUS                                       status;
  std::vector<std::pair<std::string, std::string>> after;
  std::vector<std::string>                         lines;
};

void PrintTo (const EfiRow &row, std::ostream *os) { *os << row.name; }

class EfiBcdRowTest : public EfiBcdTest, public ::testing::WithParamInterface<EfiRow> {};

TEST_P (EfiBcdRowTest, RequestedStoreComesFromTheFirstCoherentSourceAndNothingIsLost) {
  const EfiRow &row = GetParam ();
  row.arrange (ntfs);
  const auto before = ntfs.Snapshot ();
  fw.faults.Set (row.fault);
  EXPECT_EQ (Prepare (), row.status);
  fw.faults.Reset ();
  for (const auto &[path, bytes] : row.after) {
    if (bytes == "-") EXPECT_FALSE (ntfs.Exists (path)) << path;
    else EXPECT_EQ (ntfs.Get (path), bytes) << path;
  }
  for (const std::string &line : row.lines) {
    if (line[0] == '!') EXPECT_FALSE (Has (Console (), line.substr (1)));
    else EXPECT_TRUE (Has (Console (), "] " + line + "\r\n"));
  }
  ExpectNoGroupDataLost (before, ntfs, groups);
  // Asked again, the store in place is kept.
  if (row.status != EFI_SUCCESS) return;
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get (kEfiBcd), kEfiB);
  EXPECT_TRUE (Has (Console (), "] BCD EFI seconda partizione gia coerente: \\efi\\microsoft\\boot\\BCD\r\n"));
}

INSTANTIATE_TEST_SUITE_P (Stores, EfiBcdRowTest, ::testing::Values (
  // The current store makes room under its own name; the wrong store was moved before
  // the candidates were looked at, not found among them.
  EfiRow { "CurrentStoreMakesRoom", [](fake::Volume &v) { v.Put (kEfiBcd, kEfiA), v.Put (kEfiBoot + "bcd_b", kEfiB); }, {}, EFI_SUCCESS,
           { { kEfiBcd, kEfiB }, { kEfiBoot + "bcd_a", kEfiA }, { kEfiBoot + "bcd_b", "-" } },
           { "BCD EFI MD5 caricato da \\efi\\microsoft\\boot\\backup\\bcd_b.md5",
             "BCD EFI identificato da stato/MD5, ripristino \\efi\\microsoft\\boot\\BCD -> \\efi\\microsoft\\boot\\bcd_a",
             "!fallback non valido \\efi\\microsoft\\boot\\BCD" } },
  EfiRow { "NamedInAnotherCaseOnACaseExactDriver", [](fake::Volume &v) { v.MatchNamesExactly (), v.Put (kEfiBoot + "bcd", kEfiB); }, {}, EFI_SUCCESS,
           { { kEfiBcd, kEfiB }, { kEfiBoot + "bcd", "-" } }, {} },
  // Copies are taken from outside the active folder and left in place; a store nobody owns
  // goes aside.
  EfiRow { "CopiesAreLeftInPlace", [](fake::Volume &v) {
             v.Put (kEfiBoot + "bcd_b", kStray), v.Put (kOwnEfi + "BCD", "damaged"), v.Put (kEfiBoot + "backup\\bcd_b", kEfiB);
           }, {}, EFI_SUCCESS,
           { { kEfiBcd, kEfiB }, { kEfiBoot + "backup\\bcd_b", kEfiB }, { kEfiBoot + "bcd_b.bak", kStray }, { kOwnEfi + "BCD", "damaged" } },
           { "BCD EFI \\efi\\microsoft\\boot\\bcd_b non attribuibile agli stati noti, sposto in .bak",
             "BCD EFI fallback non valido \\efi\\efi_b\\boot\\BCD: Compromised Data (0x8000000000000021)" } },
  // A second copy of the current group's store: its owner's name is taken, so it goes to
  // ".bak", never away.
  EfiRow { "DuplicateOfTheCurrentStoreGoesAside", [](fake::Volume &v) {
             v.Put (kEfiBcd, kEfiA), v.Put (kEfiBoot + "bcd_a", kEfiA), v.Put (kEfiBoot + "bcd_b", kEfiB);
           }, {}, EFI_SUCCESS, { { kEfiBcd, kEfiB }, { kEfiBoot + "BCD.bak", kEfiA }, { kEfiBoot + "bcd_a", kEfiA } },
           { "BCD EFI duplicato gia identificato, preservo il nome \\efi\\microsoft\\boot\\bcd_a tramite .bak" } },
  // A copy the driver claims but does not write is caught by its digest; the next source
  // is copied over it.
  EfiRow { "CopyWithoutEffectIsCaught", [](fake::Volume &v) {
             v.Put (kEfiBoot + "bcd_a", kEfiA), v.Put (kOwnEfi + "BCD", kEfiB), v.Put (kEfiBoot + "backup\\bcd_b", kEfiB), v.Put (kOwnEfi + "backup\\bcd_b", kEfiB);
           }, { Op::Write, 0, 1, "microsoft\\boot\\BCD", Effect::NoEffect }, EFI_SUCCESS, { { kEfiBcd, kEfiB } },
           { "WARN: BCD EFI originale cartella EFI fallito, provo backup microsoft: Compromised Data (0x8000000000000021)" } },
  // A copy that fails midway is reported for that source and the next ones are tried.
  EfiRow { "FailedCopyOfTheFoldersStore", [](fake::Volume &v) { v.Put (kOwnEfi + "BCD", kEfiB), v.Put (kOwnEfi + "backup\\bcd_b", kEfiB); },
           { Op::Write, EFI_VOLUME_FULL, 1, "microsoft\\boot\\BCD" }, EFI_SUCCESS, { { kEfiBcd, kEfiB } },
           { "WARN: BCD EFI originale cartella EFI fallito, provo backup microsoft: Device Error (0x8000000000000007)" } },
  EfiRow { "FailedCopyOfTheMicrosoftBackup", [](fake::Volume &v) {
             v.Put (kEfiBoot + "bcd_a", kEfiA), v.Put (kEfiBoot + "backup\\bcd_b", kEfiB), v.Put (kOwnEfi + "backup\\bcd_b", kEfiB);
           }, { Op::Write, EFI_VOLUME_FULL, 1, "microsoft\\boot\\BCD" }, EFI_SUCCESS,
           { { kEfiBcd, kEfiB }, { kEfiBoot + "backup\\bcd_b", kEfiB }, { kOwnEfi + "backup\\bcd_b", kEfiB } },
           { "WARN: fallback BCD EFI backup microsoft fallito, provo backup EFI: Device Error (0x8000000000000007)" } },
  // The microsoft backup comes before the EFI folder's own: a damaged one there does not
  // stop a coherent one here.
  EfiRow { "MicrosoftBackupFirst", [](fake::Volume &v) { v.Put (kEfiBoot + "backup\\bcd_b", kEfiB), v.Put (kOwnEfi + "backup\\bcd_b", "damaged"); }, {},
           EFI_SUCCESS, { { kEfiBcd, kEfiB } }, {} },
  // Stores that cannot be read are a fault or passed over, never moved.
  EfiRow { "UnreadableActiveStore", [](fake::Volume &v) { v.Put (kEfiBcd, kEfiA); }, { Op::Read, EFI_VOLUME_CORRUPTED, 1, "microsoft\\boot\\BCD" },
           EFI_VOLUME_CORRUPTED, { { kEfiBcd, kEfiA } }, {} },
  EfiRow { "UnreadableCandidate", [](fake::Volume &v) { v.Put (kEfiBoot + "bcd_b", kEfiA); }, { Op::Read, EFI_VOLUME_CORRUPTED, 1, "bcd_b" },
           EFI_NOT_FOUND, { { kEfiBoot + "bcd_b", kEfiA }, { kEfiBoot + "bcd_a", "-" } }, {} },
  // Nothing is placed without a digest or a coherent store.
  EfiRow { "NoDigest", [](fake::Volume &v) { v.Remove (kEfiBoot + "backup\\bcd_b.md5"), v.Put (kOwnEfi + "BCD", kEfiB); }, {}, EFI_NOT_FOUND,
           { { kEfiBcd, "-" } }, {} },
  EfiRow { "NoCoherentStore", [](fake::Volume &v) { v.Put (kEfiBoot + "backup\\bcd_b.md5", Md5Hex ("something else")), v.Put (kOwnEfi + "BCD", kEfiB); },
           {}, EFI_NOT_FOUND, { { kEfiBcd, "-" }, { kOwnEfi + "BCD", kEfiB } }, {} }),
  [](const ::testing::TestParamInfo<EfiRow> &info) { return std::string (info.param.name); });

TEST_F (EfiBcdTest, StoreUnderItsOwnersNameStays) {
  ntfs.Put (kEfiBoot + "bcd_a", kEfiA);
  EXPECT_EQ (NormalizeEfiBcdByMd5 (&context, ntfs.Handle (), ntfsRoot, W (u"\\efi\\microsoft\\boot\\bcd_a")), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get (kEfiBoot + "bcd_a"), kEfiA);
}

}  // namespace
