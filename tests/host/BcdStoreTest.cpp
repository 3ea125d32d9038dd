#include "GroupData.h"

#include <activation/BcdStores.h>

namespace {

// Group a is active on the FAT32 boot volume; group b waits on the NTFS partition 2.
class BcdTest : public StickTest {
 protected:
  const std::string storeA = "store of group a", storeB = "store of group b", stray = "store of nobody";
  const std::string efiA = "EFI store of group a", efiB = "EFI store of group b";

  void SetUp () override {
    StickTest::SetUp ();
    boot.Put ("\\sources\\s-win-a.txt", "");
    boot.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n");
    boot.Put ("\\efi\\microsoft\\s-win-a.txt", "");
    boot.Put ("\\boot\\BCD", storeA);
    boot.Put ("\\boot\\backup\\bcd_a", storeA);
    boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (storeA) + "\r\n");
  }

  EFI_STATUS Active () { return IsRequestedGroupActive (&context, boot.Handle (), root); }
  EFI_STATUS Normalize (const CHAR16 *path = ACTIVE_BCD_PATH) { return NormalizeBcdByMd5 (&context, boot.Handle (), root, path); }
};

TEST_F (BcdTest, ActiveGroupIsRecognisedAndItsRecordCompleted) {
  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (Str (context.Requested.BcdMd5), Md5Hex (storeA));
  EXPECT_TRUE (Has (boot.Get ("\\sources\\recovery.txt"), "SRC_FS|FAT32\r\n"));
  // Without the group's marker in the source or the EFI folder, another group is active.
  for (const char *marker : { "\\efi\\microsoft\\s-win-a.txt", "\\sources\\s-win-a.txt" }) {
    boot.Remove (marker);
    EXPECT_EQ (Active (), EFI_NOT_FOUND) << marker;
    boot.Put (marker, "");
  }
}

TEST_F (BcdTest, WithoutAnyDigestAnExistingStoreIsTrusted) {
  boot.Remove ("\\boot\\backup\\bcd_a.md5");
  boot.Put ("\\boot\\BCD", stray);
  EXPECT_EQ (Active (), EFI_SUCCESS);
  boot.Remove ("\\boot\\BCD");
  EXPECT_EQ (Active (), EFI_NOT_FOUND);
  boot.Put ("\\boot\\BCD", stray);
  fw.faults.Set ({ Op::Open, EFI_DEVICE_ERROR, 1, "\\boot\\BCD" });
  EXPECT_EQ (Active (), EFI_DEVICE_ERROR) << "a store that does not open is not an absent one";
  fw.faults.Reset ();
}

TEST_F (BcdTest, WrongActiveStoreIsRepairedFromBackupAndKeptAside) {
  boot.Put ("\\boot\\BCD", stray);
  boot.Put ("\\boot\\BCD_BAK", "older kept store");
  const auto before = boot.Snapshot ();

  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), storeA);
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK"), stray);
  // The store an earlier repair kept aside may be the only copy of its bytes: it moves on.
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK1"), "older kept store");
  // Asked again in the same run, the store kept aside survives.
  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK"), stray);
  ExpectNoGroupDataLost (before, boot, groups);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] \\boot\\BCD_BAK esistente conservato come \\boot\\BCD_BAK1\r\n"));
  EXPECT_TRUE (Has (log, "] BCD atomico: \\boot\\BCD presente ma non coerente, sposto in \\boot\\BCD_BAK\r\n"));
  EXPECT_TRUE (Has (log, "] BCD atomico: recupero BCD coerente da \\boot\\backup\\bcd_a\r\n"));

  // With every numbered name taken, the repair moves nothing.
  boot.Put ("\\boot\\BCD", stray + " again");
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

  boot.Put ("\\boot\\BCD", stray);
  // An older ".bak" holds the only copy of its bytes: the undo must keep it.
  boot.Put ("\\boot\\BCD.bak", "only copy of an older store");
  for (const auto &row : rows) {
    boot.Remove ("\\boot\\backup\\bcd_a");
    if (row.backup != nullptr) boot.Put ("\\boot\\backup\\bcd_a", row.backup);
    const auto before = boot.Snapshot ();
    fw.faults.Set (row.fault);
    EXPECT_EQ (Active (), EFI_NOT_FOUND) << row.name;
    if (row.fault.op == Op::None) {
      // A backup that cannot repair anything is found out before anything moves.
      const auto bootFolder = [](const std::map<std::string, std::string> &all) {
        std::map<std::string, std::string> boot;
        for (const auto &entry : all) {
          if (entry.first.rfind ("\\boot", 0) == 0) boot.insert (entry);
        }
        return boot;
      };
      EXPECT_EQ (bootFolder (boot.Snapshot ()), bootFolder (before)) << row.name;
    }
    EXPECT_EQ (boot.Get ("\\boot\\BCD"), stray) << row.name;
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
    { "install metadata", "<software ID=\"s-win-b\" Der=\"Windows velmaro\"><BCD_MD5>" + Md5Hex (storeB) + "</BCD_MD5><BCD>bcd_b</BCD></software>",
      "", "", "\\boot\\bcd_b" },
    { "active record", "", "ID|s-win-b\r\nBCD_MD5|" + Md5Hex (storeB) + "\r\n", "", "\\boot\\bcd_b" },
    { "digest files", "", "", Md5Hex (storeB), "\\boot\\bcd_b" },
    { "nobody", "", "", Md5Hex (storeA), "\\boot\\BCD.bak" },
    { "owner's name taken", "", "ID|s-win-b\r\nBCD_MD5|" + Md5Hex (storeB) + "\r\n", "", "\\boot\\BCD.bak", true },
    { "record of another partition", "", "ID|s-win-b\r\nSRC_PART|" + Lower (fake::BlkidUuid ("fat32")).substr (0, 5) + "zzzz\r\nBCD_MD5|" + Md5Hex (storeB) + "\r\n",
      "", "\\boot\\BCD.bak" },
    { "install metadata names a taken name", "<software ID=\"s-win-b\" Der=\"Windows velmaro\"><BCD_MD5>" + Md5Hex (storeB) + "</BCD_MD5><BCD>bcd_b</BCD></software>",
      "", Md5Hex (storeB), "\\boot\\BCD.bak", true },
  };

  for (const auto &row : rows) {
    boot.Remove ("\\ZENTO\\software.xml");
    boot.Remove ("\\boot\\bcd_b");
    boot.Put ("\\boot\\BCD", storeB);
    if (!row.xml.empty ()) boot.Put ("\\ZENTO\\software.xml", row.xml);
    boot.Put ("\\sources\\recovery.txt", row.record.empty () ? "ID|s-win-a\r\n" : row.record);
    boot.Put ("\\boot\\backup\\bcd_b.md5", row.digestB);
    boot.Put ("\\boot\\BCD.bak", "older bak");
    boot.Remove ("\\boot\\BCD.bak1");
    if (row.taken) boot.Put ("\\boot\\bcd_b", "another store of b");
    const auto before = boot.Snapshot ();
    fw.console.clear ();
    EXPECT_EQ (Normalize (), EFI_SUCCESS) << row.name;
    EXPECT_EQ (boot.Get (row.movedTo), storeB) << row.name;
    EXPECT_FALSE (boot.Exists ("\\boot\\BCD")) << row.name;
    EXPECT_EQ (boot.Get (row.movedTo == std::string ("\\boot\\BCD.bak") ? "\\boot\\BCD.bak1" : "\\boot\\BCD.bak"), "older bak") << row.name;
    if (row.taken) EXPECT_EQ (boot.Get ("\\boot\\bcd_b"), "another store of b") << row.name;
    EXPECT_EQ (Has (Console (), "] Recovery BCD: MD5 trovato in software.xml, ripristino \\boot\\BCD -> \\boot\\bcd_b\r\n"),
               !row.xml.empty () && !row.taken) << row.name;
    ExpectNoGroupDataLost (before, boot, groups);
  }

  // Install metadata that cannot be read is reported and the other sources decide.
  boot.Put ("\\boot\\BCD", storeB);
  boot.Remove ("\\boot\\bcd_b");
  boot.Put ("\\ZENTO\\software.xml", "<software>");
  fw.faults.Set ({ Op::Read, EFI_VOLUME_CORRUPTED, 1, "software.xml" });
  fw.console.clear ();
  EXPECT_EQ (Normalize (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\bcd_b"), storeB);
  EXPECT_TRUE (Has (Console (), "] WARN: software.xml non usabile per identificare BCD \\boot\\BCD: Volume Corrupt (0x800000000000000A)\r\n"));
}

// What the check does not know for sure it does not act on: a damaged digest file or a
// store that cannot be read is a fault, not a reason to move the active store.
TEST_F (BcdTest, FaultsAreReportedAndMoveNothing) {
  boot.Put ("\\boot\\BCD", stray);
  boot.Put ("\\boot\\backup\\bcd_a.md5", "not a digest");
  EXPECT_EQ (Active (), EFI_COMPROMISED_DATA);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), stray);
  EXPECT_FALSE (boot.Exists ("\\boot\\BCD_BAK"));

  boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (storeA));
  const auto before = boot.Snapshot ();
  fw.faults.Set ({ Op::Read, EFI_VOLUME_CORRUPTED, 1, "\\boot\\BCD" });
  EXPECT_EQ (Active (), EFI_VOLUME_CORRUPTED);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), stray);
  EXPECT_FALSE (boot.Exists ("\\boot\\BCD_BAK"));
  ExpectNoGroupDataLost (before, boot, groups);

  // Without a digest there is nothing to repair towards.
  boot.Remove ("\\boot\\backup\\bcd_a.md5");
  SetField (context.Requested.BcdMd5, "");
  fw.faults.Reset ();
  EXPECT_EQ (RepairActiveBcd (&context, boot.Handle (), root), EFI_NOT_FOUND);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), stray);
}

// A store under a group's name whose digest names that very group is still not the one
// expected there: it is kept aside, never left in the way.
TEST_F (BcdTest, StoreAlreadyUnderItsNameIsMovedAside) {
  boot.Put ("\\boot\\bcd_b", storeB);
  boot.Put ("\\boot\\backup\\bcd_b.md5", Md5Hex (storeB));
  EXPECT_EQ (Normalize (W (u"\\boot\\bcd_b")), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\bcd_b.bak"), storeB);
  EXPECT_FALSE (boot.Exists ("\\boot\\bcd_b"));
}

TEST_F (BcdTest, StoreClaimedByTwoDigestFilesIsNamedByNeither) {
  boot.Put ("\\boot\\BCD", storeB);
  boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (storeB));
  boot.Put ("\\boot\\backup\\bcd_b.md5", Md5Hex (storeB));
  EXPECT_EQ (Normalize (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak"), storeB);

  boot.Put ("\\boot\\BCD", storeB);
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1, "\\boot\\BCD");
  fw.console.clear ();
  EXPECT_EQ (Normalize (), EFI_DEVICE_ERROR);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), storeB);
  EXPECT_TRUE (Has (Console (), "] BCD \\boot\\BCD: calcolo MD5 fallito, nessuna modifica: Device Error (0x8000000000000007)\r\n"));
  EXPECT_TRUE (Has (Log (), "] BCD \\boot\\BCD: stesso MD5 associato a piu nomi, nessun nome scelto per solo MD5\r\n"));
}

class EfiBcdTest : public BcdTest {
 protected:
  void SetUp () override {
    BcdTest::SetUp ();
    Request ("s-win-b", "bcd_b", "grp_b", "efi_b");
    SetField (context.Requested.SrcFs, "NTFS");
    context.Current = State ("bcd_a", "", "efi_a");
    SetField (context.Current.BcdEfiMd5, Md5Hex (efiA));
    ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b.md5", Md5Hex (efiB));
  }

  EFI_STATUS Prepare () { return PrepareEfiBcd (&context, ntfs.Handle (), ntfsRoot, &context.Requested, ACTIVE_EFI_BCD_PATH); }
};

TEST_F (EfiBcdTest, CurrentStoreMakesRoomForTheRequestedOne) {
  ntfs.Put ("\\efi\\microsoft\\boot\\BCD", efiA);
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_b", efiB);
  const auto before = ntfs.Snapshot ();

  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_a"), efiA);
  EXPECT_FALSE (ntfs.Exists ("\\efi\\microsoft\\boot\\bcd_b"));
  ExpectNoGroupDataLost (before, ntfs, groups);
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] BCD EFI MD5 caricato da \\efi\\microsoft\\boot\\backup\\bcd_b.md5\r\n"));
  EXPECT_TRUE (Has (log, "] BCD EFI identificato da stato/MD5, ripristino \\efi\\microsoft\\boot\\BCD -> \\efi\\microsoft\\boot\\bcd_a\r\n"));
  EXPECT_TRUE (Has (log, "] BCD EFI seconda partizione gia coerente: \\efi\\microsoft\\boot\\BCD\r\n"));
  // The wrong store was moved before the candidates were looked at, not found among them.
  EXPECT_FALSE (Has (log, "fallback non valido \\efi\\microsoft\\boot\\BCD"));
}

TEST_F (EfiBcdTest, StoreNamedInAnotherCaseIsFoundOnACaseExactDriver) {
  ntfs.MatchNamesExactly ();
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd", efiB);
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_FALSE (ntfs.Exists ("\\efi\\microsoft\\boot\\bcd"));
}

TEST_F (EfiBcdTest, CopiesAreTakenFromOutsideTheActiveFolderAndLeftInPlace) {
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_b", stray);
  ntfs.Put ("\\efi\\efi_b\\boot\\BCD", "damaged");
  ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b", efiB);
  const auto before = ntfs.Snapshot ();

  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\backup\\bcd_b"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_b.bak"), stray);
  EXPECT_EQ (ntfs.Get ("\\efi\\efi_b\\boot\\BCD"), "damaged");
  ExpectNoGroupDataLost (before, ntfs, groups);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] BCD EFI \\efi\\microsoft\\boot\\bcd_b non attribuibile agli stati noti, sposto in .bak\r\n"));
  EXPECT_TRUE (Has (log, "] BCD EFI fallback non valido \\efi\\efi_b\\boot\\BCD: Compromised Data (0x8000000000000021)\r\n"));
}

TEST_F (EfiBcdTest, DuplicatesAndFailedCopiesAreKeptAsideAndTheNextSourceTried) {
  // A second copy of the current group's store: its owner's name is taken, so it goes
  // to ".bak", never away.
  ntfs.Put ("\\efi\\microsoft\\boot\\BCD", efiA);
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_a", efiA);
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_b", efiB);
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD.bak"), efiA);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_a"), efiA);
  EXPECT_TRUE (Has (Console (), "] BCD EFI duplicato gia identificato, preservo il nome \\efi\\microsoft\\boot\\bcd_a tramite .bak\r\n"));

  // A copy the driver claims but does not write is caught by its digest; the next
  // source is copied over it.
  ntfs.Remove ("\\efi\\microsoft\\boot\\BCD");
  ntfs.Put ("\\efi\\efi_b\\boot\\BCD", efiB);
  ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b", efiB);
  ntfs.Put ("\\efi\\efi_b\\boot\\backup\\bcd_b", efiB);
  fw.faults.Set ({ Op::Write, 0, 1, "microsoft\\boot\\BCD", Effect::NoEffect });
  fw.console.clear ();
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_TRUE (Has (Console (), "] WARN: BCD EFI originale cartella EFI fallito, provo backup microsoft: Compromised Data (0x8000000000000021)\r\n"));

  // A copy of the microsoft backup that fails is reported and the group's own backup used.
  ntfs.Remove ("\\efi\\microsoft\\boot\\BCD");
  ntfs.Remove ("\\efi\\efi_b\\boot\\BCD");
  fw.faults.Set ({ Op::Write, EFI_VOLUME_FULL, 1, "microsoft\\boot\\BCD" });
  fw.console.clear ();
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_TRUE (Has (Console (), "] WARN: fallback BCD EFI backup microsoft fallito, provo backup EFI: Device Error (0x8000000000000007)\r\n"));
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\backup\\bcd_b"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\efi_b\\boot\\backup\\bcd_b"), efiB);
}

TEST_F (EfiBcdTest, StoresThatCannotBeCheckedStayWhereTheyAre) {
  // The active name's store cannot be read: a fault, and the store keeps its name.
  ntfs.Put ("\\efi\\microsoft\\boot\\BCD", efiA);
  fw.faults.Set ({ Op::Read, EFI_VOLUME_CORRUPTED, 1, "microsoft\\boot\\BCD" });
  EXPECT_EQ (Prepare (), EFI_VOLUME_CORRUPTED);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiA);

  // A candidate that cannot be read is passed over, not moved.
  ntfs.Remove ("\\efi\\microsoft\\boot\\BCD");
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_b", efiA);
  fw.faults.Set ({ Op::Read, EFI_VOLUME_CORRUPTED, 1, "bcd_b" });
  EXPECT_EQ (Prepare (), EFI_NOT_FOUND);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_b"), efiA);
  EXPECT_FALSE (ntfs.Exists ("\\efi\\microsoft\\boot\\bcd_a"));

  // A store already under its owner's name stays there.
  fw.faults.Reset ();
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_a", efiA);
  EXPECT_EQ (NormalizeEfiBcdByMd5 (&context, ntfs.Handle (), ntfsRoot, W (u"\\efi\\microsoft\\boot\\bcd_a")), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_a"), efiA);
}

// The microsoft backup comes before the EFI folder's own: a damaged one there does not
// stop a coherent one here.
TEST_F (EfiBcdTest, MicrosoftBackupIsTriedBeforeTheFoldersOwn) {
  ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b", efiB);
  ntfs.Put ("\\efi\\efi_b\\boot\\backup\\bcd_b", "damaged");
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
}

TEST_F (EfiBcdTest, NothingIsPlacedWithoutADigestOrACoherentStore) {
  ntfs.Remove ("\\efi\\microsoft\\boot\\backup\\bcd_b.md5");
  ntfs.Put ("\\efi\\efi_b\\boot\\BCD", efiB);
  EXPECT_EQ (Prepare (), EFI_NOT_FOUND);
  EXPECT_FALSE (ntfs.Exists ("\\efi\\microsoft\\boot\\BCD"));

  ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b.md5", Md5Hex ("something else"));
  EXPECT_EQ (Prepare (), EFI_NOT_FOUND);
  EXPECT_FALSE (ntfs.Exists ("\\efi\\microsoft\\boot\\BCD"));
  EXPECT_EQ (ntfs.Get ("\\efi\\efi_b\\boot\\BCD"), efiB);

  // A copy that fails midway is reported for that source and the next ones are tried.
  ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b.md5", Md5Hex (efiB));
  ntfs.Put ("\\efi\\efi_b\\boot\\backup\\bcd_b", efiB);
  context.Requested.BcdEfiMd5[0] = 0;
  fw.faults.Fail (Op::Write, EFI_VOLUME_FULL, 1, "microsoft\\boot\\BCD");
  fw.console.clear ();
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_TRUE (Has (Console (), "] WARN: BCD EFI originale cartella EFI fallito, provo backup microsoft: Device Error (0x8000000000000007)\r\n"));
}

}  // namespace
