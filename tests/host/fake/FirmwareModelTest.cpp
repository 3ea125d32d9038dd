// The fake's own promises: the FAT driver it runs, its medium, its switches.
#include <gtest/gtest.h>

#include "fake/Firmware.h"

#include <fs/FileAccess.h>

namespace {

TEST (FirmwareModelTest, AVolumeMountsAndUnmountsCleanly) {
  fake::Firmware fw;
  fake::Volume   &volume = fw.AddVolume ();
  EXPECT_TRUE (volume.List ("\\").empty ());
}

TEST (FirmwareModelTest, PutAndGet) {
  fake::Firmware fw;
  fake::Volume   &volume = fw.AddVolume ();
  volume.Put ("\\a\\b.txt", "hello");
  EXPECT_EQ (volume.Get ("/A/B.TXT"), "hello");
}

}  // namespace
