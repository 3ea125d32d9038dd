// The fake's own promises the suites rely on and no suite shows by itself: faults match
// paths as stored and rename targets, the drivers' calls are neither counted nor faulted,
// and a volume that matches names exactly finds nothing spelled otherwise.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "fake/Firmware.h"

namespace {

using fake::Op;

TEST (FirmwareModelTest, FaultsMatchStoredPathsAndRenameTargetsAndSpareTheDriver) {
  fake::Firmware fw;
  fake::Volume   &volume = fw.AddVolume (fake::Fs::Ntfs);
  volume.Put ("\\Boot\\BCD", "store");
  fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES);
  fw.faults.Fail (Op::OpenProtocol, EFI_DEVICE_ERROR);
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 2, "\\Boot\\BCD");
  fw.faults.Fail (Op::SetInfo, EFI_ACCESS_DENIED, 0, "\\Boot\\BCD->bcd_a");
  EFI_FILE_PROTOCOL *root = nullptr, *file = nullptr;
  ASSERT_EQ (volume.sfs.OpenVolume (&volume.sfs, &root), EFI_SUCCESS);
  ASSERT_EQ (root->Open (root, &file, (CHAR16 *)L"boot\\bcd", EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0), EFI_SUCCESS);
  char  bytes[8];
  UINTN size = 1;
  EXPECT_EQ (file->Read (file, &size, bytes), EFI_SUCCESS);
  EXPECT_EQ (file->Read (file, &size, bytes), EFI_DEVICE_ERROR);
  std::vector<uint8_t> buffer (SIZE_OF_EFI_FILE_INFO + 64);
  auto                 *info = reinterpret_cast<EFI_FILE_INFO *>(buffer.data ());
  size = buffer.size ();
  ASSERT_EQ (file->GetInfo (file, &gEfiFileInfoGuid, &size, info), EFI_SUCCESS);
  std::memset (&info->CreateTime, 0, 3 * sizeof (EFI_TIME));
  std::memcpy (info->FileName, L"bcd_a", 12);
  EXPECT_EQ (file->SetInfo (file, &gEfiFileInfoGuid, size, info), EFI_ACCESS_DENIED);
  std::memcpy (info->FileName, L"bcd_b", 12);
  EXPECT_EQ (file->SetInfo (file, &gEfiFileInfoGuid, size, info), EFI_SUCCESS);
  file->Close (file);
  root->Close (root);
  EXPECT_EQ (volume.Get ("\\boot\\bcd_b"), "store");
  EXPECT_EQ (fw.faults.Calls (Op::AllocatePool), 0u);
  EXPECT_EQ (fw.faults.Calls (Op::OpenProtocol), 0u);

  volume.MatchNamesExactly ();
  EXPECT_TRUE (volume.Exists ("\\Boot\\bcd_b"));
  EXPECT_FALSE (volume.Exists ("\\boot\\bcd_b"));
}

}  // namespace
