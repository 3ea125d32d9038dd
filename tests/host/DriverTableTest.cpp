// The driver-loading scenarios of tests/e2e/driver_loading.py on the fake firmware: the
// same stick layouts, the same probe (tests/probe/DriverProbe.cpp, included below), its
// console text written to host-driver-<scenario>.log beside the test binary (or in
// $VELMARO_DRIVER_TABLE_DIR), where `make driver-table` reads the same facts out of it as
// out of OVMF's serial console and fails on every one the two answer differently. Here
// each run must end with its final line, no image left loaded and not started, and no
// pool left behind.
#include "Harness.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

// The host build compiles only the *Test.cpp files of this folder: the probe comes in here
// under another entry-point name, the application's own being linked too.
#define _ModuleEntryPoint  DriverProbeEntryPoint
#include "../probe/DriverProbe.cpp"
#undef _ModuleEntryPoint

namespace {

const std::string kDriverPath = "\\efi\\boot\\ntfs_x64.efi";

// A stick layout, as driver_loading.py builds it for OVMF.
struct Scenario {
  const char *name;
  std::string onBoot;     // \efi\boot\ntfs_x64.efi on partition 1: "driver", "text" or none ("")
  int         siblings;   // further FAT32 partitions of the boot stick, from 2 on
  bool        other;      // the driver on a second USB stick's only partition instead
};

std::string OutputPath (const std::string &name) {
  const std::string file = "host-driver-" + name + ".log";
  if (const char *dir = std::getenv ("VELMARO_DRIVER_TABLE_DIR"); dir != nullptr && *dir != '\0') return std::string (dir) + "/" + file;
  std::vector<char> exe (4096);
  const ssize_t     length = readlink ("/proc/self/exe", exe.data (), exe.size () - 1);
  const std::string binary = (length > 0) ? std::string (exe.data (), static_cast<size_t>(length)) : "./x";
  return binary.substr (0, binary.find_last_of ('/') + 1) + file;
}

std::string TextBytes () {
  std::string text;
  for (int i = 0; i < 40; ++i) text += "not an image, only text\r\n";
  return text;
}

TEST (DriverTable, EveryScenarioRunsTheProbeAndIsWrittenForTheComparison) {
  const Scenario scenarios[] = {
    { "sibling", "driver", 1, false },
    { "two-siblings", "driver", 2, false },
    { "missing-driver", "", 1, false },
    { "not-an-image", "text", 0, false },
    { "other-usb", "", 1, true },
  };
  for (const Scenario &s : scenarios) {
    SCOPED_TRACE (s.name);
    const std::string path = OutputPath (s.name);
    std::remove (path.c_str ());   // a log of an earlier run must not outlive this one

    fake::Firmware fw;
    fake::Volume   &boot = fw.AddVolume ();
    fw.StartFrom (boot);
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    // Started from the shell, as on OVMF: the shell's image is the second parent candidate.
    EFI_HANDLE                shell = fw.NewHandle ();
    EFI_LOADED_IMAGE_PROTOCOL shellImage{ EFI_LOADED_IMAGE_PROTOCOL_REVISION };
    fw.Install (shell, gEfiLoadedImageProtocolGuid, &shellImage);
    fw.loadedImage.ParentHandle = shell;
    // The stand-in driver mounts nothing; the FAT32 siblings are the firmware's FAT driver's.
    const std::string driver = fw.DriverFile ({ fake::Fs::Ntfs, -1 });
    if (!s.onBoot.empty ()) boot.Put (kDriverPath, s.onBoot == "driver" ? driver : TextBytes ());
    for (int n = 2; n < 2 + s.siblings; ++n) {
      fw.SetDevicePath (fw.AddVolume ().Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), n, 0x5EED));
    }
    if (s.other) {
      fake::Volume &other = fw.AddVolume ();
      fw.SetDevicePath (other.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (2), 1, 0xD15C));
      other.Put (kDriverPath, driver);
    }

    LogFile             = nullptr;
    AdvancedDiagnostics = FALSE;
    const size_t     pool   = fake::Firmware::LivePool ();
    const EFI_STATUS status = DriverProbeEntryPoint (fw.image, &fw.st);
    const std::string log   = fake::Narrow (fw.console);
    std::ofstream (path, std::ios::binary) << log;
    ASSERT_TRUE (std::ifstream (path).good ()) << "cannot write " << path;

    CHAR16 line[96];
    UnicodeSPrint (line, sizeof (line), W (u"DriverProbe: status %r (0x%lx), partition "), status, status);
    EXPECT_TRUE (Has (log, Str (line)));
    EXPECT_EQ (fw.ImagesLoadedNotStarted (), 0u) << "an attempt left an image loaded";
    EXPECT_EQ (fw.ResidentDrivers (), s.onBoot == "driver" || s.other ? 1u : 0u);
    EXPECT_EQ (fake::Firmware::LivePool (), pool) << "the probe left pool allocated";
    EXPECT_EQ (fw.OpenHandles (), 0);
  }
}

}  // namespace
