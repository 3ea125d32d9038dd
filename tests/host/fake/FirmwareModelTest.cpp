// The fake's own promises: FAT volumes are the real driver's, seen through the fault
// layer; its switches, its medium and its accounting do what the suites rely on.
#include <gtest/gtest.h>

#include <cstring>

#include "fake/Firmware.h"

#include <fs/FileAccess.h>

namespace {

using fake::Op;

class FirmwareModelTest : public ::testing::Test {
 protected:
  fake::Firmware fw;
  fake::Volume   &volume = fw.AddVolume ();

  EFI_FILE_PROTOCOL *Root () {
    EFI_FILE_PROTOCOL *root = nullptr;
    EXPECT_EQ (volume.sfs.OpenVolume (&volume.sfs, &root), EFI_SUCCESS);
    return root;
  }

  static EFI_STATUS Open (EFI_FILE_PROTOCOL *dir, const char16_t *name, EFI_FILE_PROTOCOL **file, UINT64 mode = EFI_FILE_MODE_READ) {
    return dir->Open (dir, file, reinterpret_cast<CHAR16 *>(const_cast<char16_t *>(name)), mode, 0);
  }

  static std::string ReadAll (EFI_FILE_PROTOCOL *file) {
    char  buffer[256];
    UINTN size = sizeof (buffer);
    EXPECT_EQ (file->Read (file, &size, buffer), EFI_SUCCESS);
    return std::string (buffer, size);
  }

  static EFI_STATUS Rename (EFI_FILE_PROTOCOL *file, const char16_t *name) {
    std::vector<uint8_t> buffer (1024);
    UINTN                size = buffer.size ();
    EFI_STATUS           status = file->GetInfo (file, &gEfiFileInfoGuid, &size, buffer.data ());
    if (EFI_ERROR (status)) return status;
    auto *info = reinterpret_cast<EFI_FILE_INFO *>(buffer.data ());
    std::memset (&info->CreateTime, 0, 3 * sizeof (EFI_TIME));   // zero: leave the times alone
    std::u16string text (name);
    std::memcpy (info->FileName, text.c_str (), (text.size () + 1) * sizeof (CHAR16));
    info->Size = SIZE_OF_EFI_FILE_INFO + (text.size () + 1) * sizeof (CHAR16);
    return file->SetInfo (file, &gEfiFileInfoGuid, info->Size, info);
  }
};

TEST_F (FirmwareModelTest, NamesMatchInAnyCaseAndKeepTheirSpelling) {
  volume.Put ("\\EFI\\Boot\\Bootx64.efi", "image");
  EXPECT_EQ (volume.Get ("/efi/boot/BOOTX64.EFI"), "image");
  EXPECT_EQ (volume.List ("\\efi"), std::vector<std::string>{ "Boot" });
  EXPECT_EQ (volume.Snapshot (), (std::map<std::string, std::string>{ { "\\EFI", "<dir>" }, { "\\EFI\\Boot", "<dir>" },
                                                                       { "\\EFI\\Boot\\Bootx64.efi", "image" } }));
}

TEST_F (FirmwareModelTest, TheVolumeCarriesTheBootSectorMkfsWrote) {
  auto *blockIo = static_cast<EFI_BLOCK_IO_PROTOCOL *>(fw.Find (volume.Handle (), gEfiBlockIoProtocolGuid));
  ASSERT_NE (blockIo, nullptr);
  std::vector<uint8_t> sector (512);
  ASSERT_EQ (blockIo->ReadBlocks (blockIo, blockIo->Media->MediaId, 0, sector.size (), sector.data ()), EFI_SUCCESS);
  const std::vector<uint8_t> image = fake::BootSectorImage ("fat32");
  EXPECT_TRUE (std::equal (sector.begin (), sector.end (), image.begin ()));
  EXPECT_EQ (std::string (reinterpret_cast<char *>(&sector[82]), 5), "FAT32");
  // The same bytes again change nothing: the driver's own medium stays.
  EXPECT_EQ (&fw.AddBlockIo (volume.Handle (), image), volume.Device ());
  EXPECT_EQ (volume.Device ()->reads.size (), 1u);
}

TEST_F (FirmwareModelTest, OnlyTheApplicationsCallsAreCountedAndFaulted) {
  const size_t pool = fake::Firmware::LivePool ();
  fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES);
  fw.faults.Fail (Op::OpenProtocol, EFI_DEVICE_ERROR);
  fw.faults.Fail (Op::GetTime, EFI_DEVICE_ERROR);
  volume.Put ("\\a.txt", "driver work");   // allocations, opens and clock reads of the driver
  EFI_FILE_PROTOCOL *root = Root (), *file = nullptr;
  ASSERT_EQ (Open (root, u"a.txt", &file), EFI_SUCCESS);
  EXPECT_EQ (ReadAll (file), "driver work");
  file->Close (file);
  root->Close (root);
  EXPECT_EQ (fw.faults.Calls (Op::AllocatePool), 0u);
  EXPECT_EQ (fw.faults.Calls (Op::OpenProtocol), 0u);
  EXPECT_EQ (fw.faults.Calls (Op::GetTime), 0u);
  EXPECT_EQ (fw.faults.Calls (Op::Open), 1u);
  EXPECT_EQ (fw.faults.Calls (Op::OpenVolume), 1u);
  EXPECT_EQ (fake::Firmware::LivePool (), pool);
}

TEST_F (FirmwareModelTest, FaultsMatchStoredPathsAndRenameTargets) {
  volume.Put ("\\Boot\\BCD", "store");
  EFI_FILE_PROTOCOL *root = Root (), *file = nullptr;
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 0, "\\Boot\\BCD");
  fw.faults.Fail (Op::SetInfo, EFI_ACCESS_DENIED, 0, "\\Boot\\BCD->bcd_a");
  ASSERT_EQ (Open (root, u"boot\\bcd", &file, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE), EFI_SUCCESS);
  UINTN size = 4;
  char  bytes[4];
  EXPECT_EQ (file->Read (file, &size, bytes), EFI_DEVICE_ERROR);
  EXPECT_EQ (Rename (file, u"bcd_a"), EFI_ACCESS_DENIED);
  EXPECT_EQ (Rename (file, u"bcd_b"), EFI_SUCCESS);
  EXPECT_EQ (fw.OpenHandles (), 2) << "the root counts";
  file->Close (file);
  root->Close (root);
  EXPECT_EQ (volume.Get ("\\boot\\bcd_b"), "store");
  EXPECT_EQ (fw.OpenHandles (), 0);
}

TEST_F (FirmwareModelTest, DeleteClosesTheHandleWhateverItAnswers) {
  volume.Put ("\\d\\x", "1");
  EFI_FILE_PROTOCOL *root = Root (), *dir = nullptr;
  ASSERT_EQ (Open (root, u"\\d", &dir, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE), EFI_SUCCESS);
  EXPECT_EQ (dir->Delete (dir), EFI_WARN_DELETE_FAILURE) << "a folder with a file in it stays";
  EXPECT_EQ (fw.OpenHandles (), 1);
  root->Close (root);
  EXPECT_TRUE (volume.Exists ("\\d\\x"));
}

TEST_F (FirmwareModelTest, AWriteProtectedMountRefusesEveryChange) {
  volume.Put ("\\x", "1");
  volume.writeProtected = true;
  EFI_FILE_PROTOCOL *root = Root (), *file = nullptr;
  EXPECT_EQ (Open (root, u"x", &file, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE), EFI_WRITE_PROTECTED);
  ASSERT_EQ (Open (root, u"x", &file), EFI_SUCCESS);
  UINTN size = 1;
  EXPECT_EQ (file->Write (file, &size, const_cast<char *>("2")), EFI_WRITE_PROTECTED);
  EXPECT_EQ (Rename (file, u"y"), EFI_WRITE_PROTECTED);
  EXPECT_EQ (file->Flush (file), EFI_WRITE_PROTECTED);
  EXPECT_EQ (file->Delete (file), EFI_WARN_DELETE_FAILURE);
  root->Close (root);
  EXPECT_EQ (volume.Get ("\\x"), "1");
}

TEST_F (FirmwareModelTest, ADriverRefusingPathsInARenameTakesLeafNames) {
  volume.Put ("\\a\\x", "1");
  volume.rejectPathNames = true;
  EFI_FILE_PROTOCOL *root = Root (), *file = nullptr;
  ASSERT_EQ (Open (root, u"a\\x", &file, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE), EFI_SUCCESS);
  EXPECT_EQ (Rename (file, u"\\a\\y"), EFI_INVALID_PARAMETER);
  EXPECT_EQ (Rename (file, u"y"), EFI_SUCCESS);
  file->Close (file);
  root->Close (root);
  EXPECT_EQ (volume.List ("\\a"), std::vector<std::string>{ "y" });
}

TEST_F (FirmwareModelTest, AStaleRootShowsTheVolumeAsItWasWhenOpened) {
  volume.Put ("\\old", "before");
  volume.staleView = true;
  EFI_FILE_PROTOCOL *stale = Root (), *file = nullptr;
  volume.Put ("\\new", "after");
  volume.Remove ("\\old");

  ASSERT_EQ (Open (stale, u"old", &file), EFI_SUCCESS) << "lookups from the old root see the old volume";
  EXPECT_EQ (ReadAll (file), "before");
  file->Close (file);
  EXPECT_EQ (Open (stale, u"new", &file), EFI_NOT_FOUND);
  // A change made through the stale root reaches the medium.
  ASSERT_EQ (Open (stale, u"made", &file, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE), EFI_SUCCESS);
  file->Close (file);
  EXPECT_TRUE (volume.Exists ("\\made"));

  EFI_FILE_PROTOCOL *fresh = Root ();
  EXPECT_EQ (Open (fresh, u"old", &file), EFI_NOT_FOUND) << "a fresh root sees the medium";
  ASSERT_EQ (Open (fresh, u"new", &file), EFI_SUCCESS);
  file->Close (file);
  fresh->Close (fresh);
  stale->Close (stale);
  EXPECT_EQ (fw.OpenHandles (), 0);
}

TEST_F (FirmwareModelTest, APowerCutKeepsOnlyWhatReachedTheMedium) {
  volume.Put ("\\kept", "flushed");
  EFI_FILE_PROTOCOL *root = Root (), *file = nullptr;
  ASSERT_EQ (Open (root, u"grown", &file, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE), EFI_SUCCESS);
  UINTN size = 7;
  ASSERT_EQ (file->Write (file, &size, const_cast<char *>("written")), EFI_SUCCESS);
  const fake::Disk beforeFlush = volume.DiskImage ();
  ASSERT_EQ (file->Flush (file), EFI_SUCCESS);
  const fake::Disk afterFlush = volume.DiskImage ();
  file->Close (file);
  root->Close (root);

  fake::Volume &cut = fw.AddVolume (beforeFlush);
  EXPECT_EQ (cut.Get ("\\kept"), "flushed");
  EXPECT_EQ (cut.Get ("\\grown"), "") << "its size was not on the medium yet";
  EXPECT_EQ (fw.AddVolume (afterFlush).Get ("\\grown"), "written");
  EXPECT_EQ (fw.AddVolume (fake::Disk (afterFlush.Bytes ())).Get ("\\grown"), "written");
}

TEST_F (FirmwareModelTest, StandInsKeepTheirOwnRules) {
  fake::Volume &ntfs = fw.AddVolume (fake::Fs::Ntfs);
  ntfs.MatchNamesExactly ();
  ntfs.Put ("\\efi\\BCD", "s");
  EXPECT_TRUE (ntfs.Exists ("\\efi\\BCD"));
  EXPECT_FALSE (ntfs.Exists ("\\efi\\bcd"));
  auto *blockIo = static_cast<EFI_BLOCK_IO_PROTOCOL *>(fw.Find (ntfs.Handle (), gEfiBlockIoProtocolGuid));
  ASSERT_NE (blockIo, nullptr);
  std::vector<uint8_t> sector (blockIo->Media->BlockSize);
  ASSERT_EQ (blockIo->ReadBlocks (blockIo, blockIo->Media->MediaId, 0, sector.size (), sector.data ()), EFI_SUCCESS);
  EXPECT_EQ (std::string (reinterpret_cast<char *>(&sector[3]), 4), "NTFS");
}

}  // namespace
