// The fake's image services and file-system drivers against what the DXE core does: each
// LoadImage form's answers, a security refusal that still hands over an image, starting and
// unloading, and a started driver mounting only its own kind, at once, later or never.
#include <gtest/gtest.h>

#include "fake/Firmware.h"

namespace {

using fake::Fault;
using fake::Op;

const std::string kDriver = "\\efi\\boot\\ntfs_x64.efi";
const EFI_HANDLE  kStale  = reinterpret_cast<EFI_HANDLE>(0x1);

enum class Parent { App, NotImage, None };
enum class Out { Untouched, Null, Image };
enum class Where { Nothing, FileNode, WholePath };   // the loaded image's DeviceHandle (boot volume or none) and FilePath

struct LoadRow {
  const char  *name;
  Parent      parent;
  std::string file;          // on the boot volume ("disk2:" first: on a disk no handle has); empty: no path
  const char  *buffer;       // "driver", "failing" (its entry point fails), "junk", "empty"; null: none
  Fault       fault;
  EFI_STATUS  status;
  Out         out;
  Where       where = Where::Nothing;
};

TEST (ImageModelTest, LoadImageAnswersEachFormAsTheCoreDoes) {
  const LoadRow rows[] = {
    { "parent not an image", Parent::NotImage, kDriver, nullptr, {}, EFI_INVALID_PARAMETER, Out::Untouched },
    { "no parent", Parent::None, kDriver, nullptr, {}, EFI_INVALID_PARAMETER, Out::Untouched },
    { "neither buffer nor path", Parent::App, "", nullptr, {}, EFI_INVALID_PARAMETER, Out::Untouched },
    { "empty buffer", Parent::App, kDriver, "empty", {}, EFI_LOAD_ERROR, Out::Untouched },
    { "missing file", Parent::App, "\\efi\\boot\\none.efi", nullptr, {}, EFI_NOT_FOUND, Out::Untouched },
    { "folder", Parent::App, "\\efi\\boot", nullptr, {}, EFI_NOT_FOUND, Out::Untouched },
    { "path on no file system", Parent::App, "disk2:" + kDriver, nullptr, {}, EFI_NOT_FOUND, Out::Untouched },
    { "not an image by path", Parent::App, "\\efi\\boot\\junk.efi", nullptr, {}, EFI_UNSUPPORTED, Out::Untouched },
    { "empty file by path", Parent::App, "\\efi\\boot\\empty.efi", nullptr, {}, EFI_UNSUPPORTED, Out::Untouched },
    { "not an image in a buffer", Parent::App, "", "junk", {}, EFI_UNSUPPORTED, Out::Untouched },
    { "by path", Parent::App, kDriver, nullptr, {}, EFI_SUCCESS, Out::Image, Where::FileNode },
    { "buffer and path", Parent::App, kDriver, "driver", {}, EFI_SUCCESS, Out::Image, Where::FileNode },
    { "buffer and a path on no device", Parent::App, "disk2:" + kDriver, "driver", {}, EFI_SUCCESS, Out::Image, Where::WholePath },
    { "buffer alone", Parent::App, "", "driver", {}, EFI_SUCCESS, Out::Image, Where::Nothing },
    { "entry point fails", Parent::App, "", "failing", {}, EFI_SUCCESS, Out::Image, Where::Nothing },
    { "security violation", Parent::App, kDriver, nullptr, { Op::LoadImage, EFI_SECURITY_VIOLATION, 0, "[path]" }, EFI_SECURITY_VIOLATION, Out::Image, Where::FileNode },
    { "violation on bytes that are no image", Parent::App, "", "junk", { Op::LoadImage, EFI_SECURITY_VIOLATION }, EFI_UNSUPPORTED, Out::Untouched },
    { "access denied", Parent::App, "", "driver", { Op::LoadImage, EFI_ACCESS_DENIED, 0, "[buffer]" }, EFI_ACCESS_DENIED, Out::Null },
    { "other refusal", Parent::App, kDriver, nullptr, { Op::LoadImage, EFI_DEVICE_ERROR, 0, "ntfs_x64" }, EFI_DEVICE_ERROR, Out::Untouched },
    { "refusal of another form", Parent::App, kDriver, "driver", { Op::LoadImage, EFI_ACCESS_DENIED, 0, "[path]" }, EFI_SUCCESS, Out::Image, Where::FileNode },
  };
  for (const LoadRow &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Firmware fw;
    fake::Volume   &boot = fw.AddVolume ();
    const auto     disk  = fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED);
    fw.SetDevicePath (boot.Handle (), disk);
    const std::string driver = fw.DriverFile ({ fake::Fs::Ntfs }), failing = fw.DriverFile ({ fake::Fs::Ntfs, 0, false, EFI_DEVICE_ERROR });
    boot.Put (kDriver, driver);
    boot.Put ("\\efi\\boot\\junk.efi", "MZ but no image");
    boot.Put ("\\efi\\boot\\empty.efi", "");
    fw.faults.Add (row.fault);
    const bool           other = row.file.rfind ("disk2:", 0) == 0;
    std::vector<uint8_t> path  = fake::WithFilePath (other ? fake::UsbDiskPath (2) : disk, other ? row.file.substr (6) : row.file);
    const std::string    kind  = row.buffer == nullptr ? "" : row.buffer;
    std::string          bytes = kind == "driver" ? driver : kind == "failing" ? failing : kind == "junk" ? "junk" : "";
    EFI_HANDLE parent = row.parent == Parent::App ? fw.image : row.parent == Parent::NotImage ? boot.Handle () : nullptr, image = kStale;
    const size_t pool = fake::Firmware::LivePool ();
    EXPECT_EQ (fw.bs.LoadImage (FALSE, parent, row.file.empty () ? nullptr : reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL *>(path.data ()),
                                row.buffer == nullptr ? nullptr : bytes.data (), bytes.size (), &image), row.status);
    EXPECT_EQ (fake::Firmware::LivePool (), pool);
    ASSERT_EQ (fw.loads.size (), 1u);
    EXPECT_EQ (fw.loads[0].form, row.buffer == nullptr ? "path" : row.file.empty () ? "buffer" : "buffer+path");
    EXPECT_EQ (fw.loads[0].parent, parent);
    EXPECT_EQ (fw.loads[0].image, row.out == Out::Image ? image : nullptr);
    EXPECT_EQ (fw.ImagesLoadedNotStarted (), row.out == Out::Image ? 1u : 0u);
    if (row.out != Out::Image) {
      EXPECT_EQ (image, row.out == Out::Null ? nullptr : kStale);
      continue;
    }
    EFI_LOADED_IMAGE_PROTOCOL *info = nullptr;
    ASSERT_EQ (fw.bs.HandleProtocol (image, &gEfiLoadedImageProtocolGuid, (VOID **)&info), EFI_SUCCESS);
    EXPECT_EQ (info->ParentHandle, fw.image);
    EXPECT_EQ (info->SystemTable, &fw.driverSt);
    EXPECT_EQ (info->DeviceHandle, row.where == Where::FileNode ? boot.Handle () : nullptr);
    const std::vector<uint8_t> want = row.where == Where::WholePath ? path : row.where == Where::FileNode ? fake::WithFilePath ({ 0x7F, 0xFF, 4, 0 }, kDriver) : std::vector<uint8_t>();
    EXPECT_EQ (info->FilePath == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>((uint8_t *)info->FilePath, (uint8_t *)info->FilePath + want.size ()), want);
    // A refused image cannot start and unloading it frees it; one whose entry point fails is
    // unloaded by the core; a started driver without an Unload function stays. None starts twice.
    const bool refused = row.status == EFI_SECURITY_VIOLATION, fails = kind == "failing";
    EXPECT_EQ (fw.bs.StartImage (image, nullptr, nullptr), refused ? EFI_SECURITY_VIOLATION : fails ? EFI_DEVICE_ERROR : EFI_SUCCESS);
    EXPECT_EQ (fw.bs.UnloadImage (image), refused ? EFI_SUCCESS : fails ? EFI_INVALID_PARAMETER : EFI_UNSUPPORTED);
    EXPECT_EQ (fw.bs.StartImage (image, nullptr, nullptr), EFI_INVALID_PARAMETER);
    EXPECT_EQ (fw.ImagesLoadedNotStarted (), 0u);
    EXPECT_EQ (fw.ResidentDrivers (), refused || fails ? 0u : 1u);
    EXPECT_EQ (fw.IsHandle (image), !refused && !fails);
  }
}

struct MountRow {
  const char                                   *name;
  fake::DriverImage                            driver;
  bool                                         start;
  std::array<EFI_STATUS, 3>                    connect;   // NTFS, exFAT, FAT32 partitions
  std::vector<std::pair<unsigned, unsigned>>   steps;     // ms stalled, then the partitions mounted (bits in that order)
};

TEST (ImageModelTest, DriverMountsOnlyItsOwnKindWhenItsTimeComes) {
  const MountRow rows[] = {
    { "NTFS at once", { fake::Fs::Ntfs }, true, { EFI_SUCCESS, EFI_NOT_FOUND, EFI_NOT_FOUND }, { { 0, 1 } } },
    { "NTFS read-only", { fake::Fs::Ntfs, 0, true }, true, { EFI_SUCCESS, EFI_NOT_FOUND, EFI_NOT_FOUND }, { { 0, 1 } } },
    { "exFAT after 300 ms", { fake::Fs::Exfat, 300 }, true, { EFI_NOT_FOUND, EFI_SUCCESS, EFI_NOT_FOUND }, { { 0, 0 }, { 299, 0 }, { 1, 2 } } },
    { "never", { fake::Fs::Ntfs, -1 }, true, { EFI_SUCCESS, EFI_NOT_FOUND, EFI_NOT_FOUND }, { { 0, 0 }, { 10000, 0 } } },
    { "loaded, not started", { fake::Fs::Ntfs }, false, { EFI_NOT_FOUND, EFI_NOT_FOUND, EFI_NOT_FOUND }, { { 0, 0 } } },
  };
  for (const MountRow &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Firmware fw;
    fake::Volume  *parts[3] = { &fw.AddUnmountedVolume (fake::Fs::Ntfs), &fw.AddUnmountedVolume (fake::Fs::Exfat), &fw.AddUnmountedVolume (fake::Fs::Fat32) };
    const std::string bytes = fw.DriverFile (row.driver);
    EFI_HANDLE        image = nullptr;
    ASSERT_EQ (fw.bs.LoadImage (FALSE, fw.image, nullptr, (VOID *)bytes.data (), bytes.size (), &image), EFI_SUCCESS);
    if (row.start) ASSERT_EQ (fw.bs.StartImage (image, nullptr, nullptr), EFI_SUCCESS);
    const size_t pool = fake::Firmware::LivePool ();
    for (int i = 0; i < 3; ++i) EXPECT_EQ (fw.bs.ConnectController (parts[i]->Handle (), nullptr, nullptr, TRUE), row.connect[i]) << i;
    for (const auto &[ms, mounted] : row.steps) {
      fw.bs.Stall (ms * 1000);
      for (int i = 0; i < 3; ++i) EXPECT_EQ (fw.Find (parts[i]->Handle (), gEfiSimpleFileSystemProtocolGuid) != nullptr, (mounted >> i & 1) != 0) << i << " after " << ms << " ms more";
    }
    // What is mounted or mounting is not started on again; a read-only driver's volume refuses changes.
    EXPECT_EQ (fw.bs.ConnectController (parts[0]->Handle (), nullptr, nullptr, TRUE), EFI_NOT_FOUND);
    EXPECT_EQ (fake::Firmware::LivePool (), pool);
    EXPECT_EQ (parts[0]->writeProtected, row.driver.readOnly && row.steps.back ().second == 1);
  }
}

}  // namespace
