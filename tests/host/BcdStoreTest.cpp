#include "Harness.h"
#include "EntriesEncoder.h"
#include "GroupData.h"

#include <activation/BcdStores.h>
#include <fs/FileAccess.h>
#include <fs/Md5.h>

#include <cstring>

using fake::Op;

namespace {

std::string Md5Hex (const std::string &bytes)
{
  MD5_CTX context;
  UINT8   digest[MD5_DIGEST_SIZE];
  CHAR16  text[VELMARO_MD5_CHARS];

  MD5Init (&context);
  MD5Update (&context, bytes.data (), bytes.size ());
  MD5Final (digest, &context);
  Md5DigestToText (digest, text);
  return fake::Narrow (reinterpret_cast<char16_t *>(text));
}

void SetField (CHAR16 *field, const std::string &value)
{
  for (size_t i = 0; i <= value.size (); ++i) {
    field[i] = i < value.size () ? static_cast<unsigned char>(value[i]) : 0;
  }
}

// Group a is active on the FAT32 boot volume; group b waits on the NTFS partition 2.
class BcdTest : public HostTest {
 protected:
  fake::Volume        &ntfs = fw.AddVolume ();
  EFI_FILE_PROTOCOL   *root = nullptr;
  EFI_FILE_PROTOCOL   *ntfsRoot = nullptr;
  ACTIVATION_CONTEXT  context;
  std::string         entries;
  const std::string   storeA = "store of group a", storeB = "store of group b", stray = "store of nobody";
  const std::string   efiA = "EFI store of group a", efiB = "EFI store of group b";

  void SetUp () override
  {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    fw.AddBlockIo (ntfs.Handle (), fake::BootSectorImage ("ntfs"));
    fw.SetDevicePath (ntfs.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
    ASSERT_EQ (OpenRoot (boot.Handle (), &root), EFI_SUCCESS);
    ASSERT_EQ (OpenRoot (ntfs.Handle (), &ntfsRoot), EFI_SUCCESS);
    ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);

    entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });
    std::memset (&context, 0, sizeof (context));
    context.BootHandle  = boot.Handle ();
    context.BootRoot    = root;
    context.EntriesText = reinterpret_cast<CHAR8 *>(entries.data ());
    Request ("s-win-a", "bcd_a", "grp_a", "efi_a");

    boot.Put ("\\sources\\s-win-a.txt", "");
    boot.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n");
    boot.Put ("\\efi\\microsoft\\s-win-a.txt", "");
    boot.Put ("\\boot\\BCD", storeA);
    boot.Put ("\\boot\\backup\\bcd_a", storeA);
    boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (storeA) + "\r\n");
  }

  void TearDown () override
  {
    root->Close (root);
    ntfsRoot->Close (ntfsRoot);
    HostTest::TearDown ();
  }

  void Request (const char *id, const char *bcd, const char *src, const char *efi)
  {
    std::memset (&context.Requested, 0, sizeof (context.Requested));
    SetField (context.GroupId, id);
    SetField (context.Requested.Bcd, bcd);
    SetField (context.Requested.Src, src);
    SetField (context.Requested.Efi, efi);
  }

  EFI_STATUS Active () { return IsRequestedGroupActive (&context, boot.Handle (), root); }
};

TEST_F (BcdTest, ActiveGroupIsRecognisedAndItsRecordCompleted)
{
  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (fake::Narrow (reinterpret_cast<char16_t *>(context.Requested.BcdMd5)), Md5Hex (storeA));
  EXPECT_NE (boot.Get ("\\sources\\recovery.txt").find ("SRC_FS|FAT32\r\n"), std::string::npos);

  const struct {
    const char  *name;
    const char  *remove;
    EFI_STATUS  status;
  } rows[] = {
    { "EFI folder of another group", "\\efi\\microsoft\\s-win-a.txt", EFI_NOT_FOUND },
    { "source folder of another group", "\\sources\\s-win-a.txt", EFI_NOT_FOUND },
  };
  for (const auto &row : rows) {
    boot.Remove (row.remove);
    EXPECT_EQ (Active (), row.status) << row.name;
    boot.Put (row.remove, "");
  }
}

TEST_F (BcdTest, WithoutAnyDigestAnExistingStoreIsTrusted)
{
  boot.Remove ("\\boot\\backup\\bcd_a.md5");
  boot.Put ("\\boot\\BCD", stray);
  EXPECT_EQ (Active (), EFI_SUCCESS);
  boot.Remove ("\\boot\\BCD");
  EXPECT_EQ (Active (), EFI_NOT_FOUND);
}

TEST_F (BcdTest, WrongActiveStoreIsRepairedFromBackupAndKeptAside)
{
  boot.Put ("\\boot\\BCD", stray);
  boot.Put ("\\boot\\BCD_BAK", "older kept store");
  const auto before = boot.Snapshot ();

  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), storeA);
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK"), stray);
  // Asked again in the same run, the store kept aside survives.
  EXPECT_EQ (Active (), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD_BAK"), stray);
  ExpectNoGroupDataLost (before, boot, { "\\boot\\BCD_BAK" });
  CloseLog ();
  EXPECT_NE (LogText ().find ("] BCD atomico: \\boot\\BCD presente ma non coerente, sposto in \\boot\\BCD_BAK\r\n"), std::string::npos);
  EXPECT_NE (LogText ().find ("] BCD atomico: recupero BCD coerente da \\boot\\backup\\bcd_a\r\n"), std::string::npos);
}

TEST_F (BcdTest, RepairThatCannotSucceedChangesNoName)
{
  boot.Put ("\\boot\\BCD", stray);
  const struct {
    const char  *name;
    const char  *backup;
    Op          op;
    unsigned    nth;
  } rows[] = {
    { "backup damaged", "damaged backup", Op::Close, 0 },
    { "backup missing", nullptr, Op::Close, 0 },
    { "copy fails", "store of group a", Op::Write, 1 },
  };

  for (const auto &row : rows) {
    if (row.backup != nullptr) {
      boot.Put ("\\boot\\backup\\bcd_a", row.backup);
    } else {
      boot.Remove ("\\boot\\backup\\bcd_a");
    }

    const auto before = boot.Snapshot ();
    fw.faults.Reset ();
    if (row.nth != 0) {
      fw.faults.Fail (row.op, EFI_VOLUME_FULL, row.nth, "\\boot\\BCD");
    }

    EXPECT_EQ (Active (), EFI_NOT_FOUND) << row.name;
    EXPECT_EQ (boot.Get ("\\boot\\BCD"), stray) << row.name;
    EXPECT_FALSE (boot.Exists ("\\boot\\BCD_BAK")) << row.name;
    ExpectNoGroupDataLost (before, boot);
  }

  // The failed copy was kept aside, not deleted.
  EXPECT_TRUE (boot.Exists ("\\boot\\BCD.bak"));
}

TEST_F (BcdTest, StrayStoreGoesToItsOwnersName)
{
  const struct {
    const char   *name;
    std::string  xml;
    std::string  record;
    std::string  digestB;   // content of \boot\backup\bcd_b.md5
    const char   *movedTo;
  } rows[] = {
    { "install metadata", "<software ID=\"s-win-b\" Der=\"Windows velmaro\"><BCD_MD5>" + Md5Hex (storeB) + "</BCD_MD5><BCD>bcd_b</BCD></software>", "", "", "\\boot\\bcd_b" },
    { "active record", "", "ID|s-win-b\r\nBCD_MD5|" + Md5Hex (storeB) + "\r\n", "", "\\boot\\bcd_b" },
    { "digest files", "", "", Md5Hex (storeB), "\\boot\\bcd_b" },
    { "nobody", "", "", Md5Hex (storeA), "\\boot\\BCD.bak" },
  };

  for (const auto &row : rows) {
    boot.Remove ("\\ZENTO\\software.xml");
    boot.Remove ("\\boot\\bcd_b");
    boot.Remove ("\\boot\\BCD.bak");
    boot.Put ("\\boot\\BCD", storeB);
    if (!row.xml.empty ()) {
      boot.Put ("\\ZENTO\\software.xml", row.xml);
    }

    boot.Put ("\\sources\\recovery.txt", row.record.empty () ? "ID|s-win-a\r\n" : row.record);
    boot.Put ("\\boot\\backup\\bcd_b.md5", row.digestB);
    boot.Put ("\\boot\\BCD.bak", "older bak");
    const auto before = boot.Snapshot ();
    EXPECT_EQ (NormalizeBcdByMd5 (&context, boot.Handle (), root, ACTIVE_BCD_PATH), EFI_SUCCESS) << row.name;
    EXPECT_EQ (boot.Get (row.movedTo), storeB) << row.name;
    EXPECT_FALSE (boot.Exists ("\\boot\\BCD")) << row.name;
    ExpectNoGroupDataLost (before, boot, { "\\boot\\BCD.bak" });
  }
}

TEST_F (BcdTest, StoreClaimedByTwoDigestFilesIsNamedByNeither)
{
  boot.Put ("\\boot\\BCD", storeB);
  boot.Put ("\\boot\\backup\\bcd_a.md5", Md5Hex (storeB));
  boot.Put ("\\boot\\backup\\bcd_b.md5", Md5Hex (storeB));
  EXPECT_EQ (NormalizeBcdByMd5 (&context, boot.Handle (), root, ACTIVE_BCD_PATH), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\BCD.bak"), storeB);

  boot.Put ("\\boot\\BCD", storeB);
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1, "\\boot\\BCD");
  fw.console.clear ();
  EXPECT_EQ (NormalizeBcdByMd5 (&context, boot.Handle (), root, ACTIVE_BCD_PATH), EFI_DEVICE_ERROR);
  EXPECT_EQ (boot.Get ("\\boot\\BCD"), storeB);
  EXPECT_NE (Console ().find ("] BCD \\boot\\BCD: calcolo MD5 fallito, nessuna modifica: Device Error (0x8000000000000007)\r\n"), std::string::npos);
  CloseLog ();
  EXPECT_NE (LogText ().find ("] BCD \\boot\\BCD: stesso MD5 associato a piu nomi, nessun nome scelto per solo MD5\r\n"), std::string::npos);
}

class EfiBcdTest : public BcdTest {
 protected:
  void SetUp () override
  {
    BcdTest::SetUp ();
    Request ("s-win-b", "bcd_b", "grp_b", "efi_b");
    SetField (context.Requested.SrcFs, "NTFS");
    SetField (context.Current.Bcd, "bcd_a");
    SetField (context.Current.Efi, "efi_a");
    SetField (context.Current.BcdEfiMd5, Md5Hex (efiA));
    ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b.md5", Md5Hex (efiB));
  }

  EFI_STATUS Prepare () { return PrepareEfiBcd (&context, ntfs.Handle (), ntfsRoot, &context.Requested, ACTIVE_EFI_BCD_PATH); }
};

TEST_F (EfiBcdTest, CurrentStoreMakesRoomForTheRequestedOne)
{
  ntfs.Put ("\\efi\\microsoft\\boot\\BCD", efiA);
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_b", efiB);
  const auto before = ntfs.Snapshot ();

  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_a"), efiA);
  EXPECT_FALSE (ntfs.Exists ("\\efi\\microsoft\\boot\\bcd_b"));
  ExpectNoGroupDataLost (before, ntfs);
  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  CloseLog ();
  std::string log = LogText ();
  EXPECT_NE (log.find ("] BCD EFI MD5 caricato da \\efi\\microsoft\\boot\\backup\\bcd_b.md5\r\n"), std::string::npos);
  EXPECT_NE (log.find ("] BCD EFI identificato da stato/MD5, ripristino \\efi\\microsoft\\boot\\BCD -> \\efi\\microsoft\\boot\\bcd_a\r\n"), std::string::npos);
  EXPECT_NE (log.find ("] BCD EFI seconda partizione gia coerente: \\efi\\microsoft\\boot\\BCD\r\n"), std::string::npos);
}

TEST_F (EfiBcdTest, CopiesAreTakenFromOutsideTheActiveFolderAndLeftInPlace)
{
  ntfs.Put ("\\efi\\microsoft\\boot\\bcd_b", stray);
  ntfs.Put ("\\efi\\efi_b\\boot\\BCD", "damaged");
  ntfs.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b", efiB);
  const auto before = ntfs.Snapshot ();

  EXPECT_EQ (Prepare (), EFI_SUCCESS);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\BCD"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\backup\\bcd_b"), efiB);
  EXPECT_EQ (ntfs.Get ("\\efi\\microsoft\\boot\\bcd_b.bak"), stray);
  EXPECT_EQ (ntfs.Get ("\\efi\\efi_b\\boot\\BCD"), "damaged");
  ExpectNoGroupDataLost (before, ntfs);
  CloseLog ();
  EXPECT_NE (LogText ().find ("] BCD EFI \\efi\\microsoft\\boot\\bcd_b non attribuibile agli stati noti, sposto in .bak\r\n"), std::string::npos);
}

TEST_F (EfiBcdTest, NothingIsPlacedWithoutADigestOrACoherentStore)
{
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
  EXPECT_NE (Console ().find ("] WARN: BCD EFI originale cartella EFI fallito, provo backup microsoft: Device Error (0x8000000000000007)\r\n"), std::string::npos);
}

}  // namespace

namespace {

// Whatever single firmware call fails, at whatever point of the check, repair or
// normalisation: no group's data is lost and nothing leaks.
TEST_F (BcdTest, AnySingleFailureLosesNothing)
{
  const Op ops[] = { Op::Open, Op::Read, Op::Write, Op::GetInfo, Op::SetInfo, Op::Delete, Op::Flush,
                     Op::SetPosition, Op::OpenVolume, Op::AllocatePool, Op::ReadBlocks, Op::HandleProtocol };

  for (Op op : ops) {
    for (unsigned nth = 1; nth <= 12; ++nth) {
      boot.Put ("\\boot\\BCD", stray);
      boot.Put ("\\boot\\BCD_BAK", "older kept store");
      boot.Put ("\\boot\\backup\\bcd_b.md5", Md5Hex (stray));
      boot.Put ("\\boot\\bcd_b", storeB);
      boot.Remove ("\\boot\\BCD.bak");
      boot.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n");
      std::memset (context.Requested.BcdMd5, 0, sizeof (context.Requested.BcdMd5));
      const auto before = boot.Snapshot ();
      const int  handles = fw.OpenHandles ();
      const size_t pool  = fake::Firmware::LivePool ();

      fw.faults.Reset ();
      fw.faults.Fail (op, EFI_DEVICE_ERROR, nth);
      Active ();
      NormalizeBcdByMd5 (&context, boot.Handle (), root, L16 (u"\\boot\\bcd_b"));
      ExpectNoGroupDataLost (before, boot, { "\\boot\\BCD_BAK" });
      EXPECT_EQ (fw.OpenHandles (), handles) << static_cast<int>(op) << " #" << nth;
      EXPECT_EQ (fake::Firmware::LivePool (), pool) << static_cast<int>(op) << " #" << nth;
    }
  }
}

}  // namespace
