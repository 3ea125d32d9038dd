// Loading the file-system driver a stick carries: which LoadImage forms, parents and
// volumes are tried, in which order, and what is left behind when firmware refuses some.
#include "Harness.h"

#include <discovery/DriverLoading.h>

namespace {

using fake::Fs;

const std::string kNtfsPath = "\\efi\\boot\\ntfs_x64.efi";

// fw.loads as "form@parent=status ..." (parent: app, or shell for the image that started us).
std::string Attempts (const fake::Firmware &fw, EFI_HANDLE shell) {
  std::string out;
  for (const fake::LoadCall &call : fw.loads) {
    const char *status = call.status == EFI_SUCCESS ? "ok" : call.status == EFI_SECURITY_VIOLATION ? "security"
                       : call.status == EFI_ACCESS_DENIED ? "denied" : call.status == EFI_UNSUPPORTED ? "unsupported"
                       : call.status == EFI_NOT_FOUND ? "not-found" : "other";
    out += (out.empty () ? "" : " ") + call.form + "@" + (call.parent == shell ? "shell" : "app") + "=" + status;
  }
  return out;
}

// The boot volume is partition 1 of a USB stick; the application was started by a shell.
struct Stick {
  fake::Firmware            fw;
  fake::Volume              &boot = fw.AddVolume ();
  EFI_HANDLE                shell = fw.NewHandle ();
  EFI_LOADED_IMAGE_PROTOCOL shellImage{ EFI_LOADED_IMAGE_PROTOCOL_REVISION };

  Stick () {
    fw.StartFrom (boot);
    LogFile             = nullptr;
    AdvancedDiagnostics = FALSE;
    fw.Install (shell, gEfiLoadedImageProtocolGuid, &shellImage);
    fw.loadedImage.ParentHandle = shell;
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
  }

  // A second USB stick's volume.
  fake::Volume &Other () {
    fake::Volume &other = fw.AddVolume ();
    fw.SetDevicePath (other.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (3), 1, 0xD15C));
    return other;
  }
};

TEST (DriverLoadingTest, EveryFormParentAndVolumeIsTriedUntilOneStarts) {
  const fake::DriverImage driver{ Fs::Ntfs, -1 };
  struct Row {
    const char               *name;
    std::string              onBoot, onOther;   // driver file bytes ("-": no file, and no other stick; "none": a stick without it); "driver": a real one
    std::vector<fake::Fault> faults;
    bool                     parentIsSelf;      // the app's ParentHandle is its own handle
    EFI_STATUS               status;
    std::string              attempts;
    bool                     fromOther;         // the image came from the other stick
    bool                     otherOnUsb = true;  // the other volume's device path passes through USB
  };
  const fake::Fault denied{ Op::LoadImage, EFI_ACCESS_DENIED, 1 };   // each copy refuses one more call
  const Row rows[] = {
    { "by device path", "driver", "-", {}, false, EFI_SUCCESS, "path@app=ok", false },
    { "refused by path, taken from a buffer", "driver", "-", { { Op::LoadImage, EFI_SECURITY_VIOLATION, 0, "[path]" } }, false, EFI_SUCCESS,
      "path@app=security buffer+path@app=ok", false },
    { "only the bare buffer", "driver", "-", { { Op::LoadImage, EFI_ACCESS_DENIED, 0, "path]" } }, false, EFI_SUCCESS,
      "path@app=denied buffer+path@app=denied buffer@app=ok", false },
    { "the shell as parent", "driver", "-", { denied, denied, denied }, false, EFI_SUCCESS,
      "path@app=denied buffer+path@app=denied buffer@app=denied path@shell=ok", false },
    { "own handle as parent: one candidate", "driver", "-", { denied, denied, denied }, true, EFI_ACCESS_DENIED,
      "path@app=denied buffer+path@app=denied buffer@app=denied", false },
    { "empty file, then the other stick", "", "driver", {}, false, EFI_SUCCESS, "path@app=unsupported path@shell=unsupported path@app=ok", true },
    { "not an image anywhere", "not an image", "text", {}, false, EFI_UNSUPPORTED,
      "path@app=unsupported buffer+path@app=unsupported buffer@app=unsupported path@shell=unsupported buffer+path@shell=unsupported buffer@shell=unsupported "
      "path@app=unsupported buffer+path@app=unsupported buffer@app=unsupported path@shell=unsupported buffer+path@shell=unsupported buffer@shell=unsupported",
      false },
    { "missing on the boot volume, no other stick", "-", "-", {}, false, EFI_NOT_FOUND, "path@app=not-found path@shell=not-found", false },
    // The last failure is reported, even when an earlier volume said more.
    { "no image on the boot volume, no file on the other stick", "not an image", "none", {}, false, EFI_NOT_FOUND,
      "path@app=unsupported buffer+path@app=unsupported buffer@app=unsupported path@shell=unsupported buffer+path@shell=unsupported buffer@shell=unsupported "
      "path@app=not-found path@shell=not-found", false },
    { "driver only on a disk that is not USB", "-", "driver", {}, false, EFI_NOT_FOUND, "path@app=not-found path@shell=not-found", false, false },
  };
  for (const Row &row : rows) {
    SCOPED_TRACE (row.name);
    Stick         s;
    fake::Volume *other = row.onOther == "-" ? nullptr : &s.Other ();
    if (row.onBoot != "-") s.boot.Put (kNtfsPath, row.onBoot == "driver" ? s.fw.DriverFile (driver) : row.onBoot);
    if (other != nullptr && row.onOther != "none") other->Put (kNtfsPath, row.onOther == "driver" ? s.fw.DriverFile (driver) : row.onOther);
    if (other != nullptr && !row.otherOnUsb) s.fw.SetDevicePath (other->Handle (), { 0x7F, 0xFF, 4, 0 });
    s.fw.loadedImage.ParentHandle = row.parentIsSelf ? s.fw.image : s.shell;
    for (const fake::Fault &f : row.faults) s.fw.faults.Add (f);
    const size_t pool  = fake::Firmware::LivePool ();
    EFI_HANDLE   image = reinterpret_cast<EFI_HANDLE>(1);
    EXPECT_EQ (LoadFsDriver (s.fw.image, W (u"\\efi\\boot\\ntfs_x64.efi"), W (u"NTFS"), &image), row.status);
    EXPECT_EQ (Attempts (s.fw, s.shell), row.attempts);
    EXPECT_EQ (s.fw.ImagesLoadedNotStarted (), 0u) << "a refused or failed attempt left an image loaded";
    // Only images a refusal handed over are unloaded: never a handle left from elsewhere.
    EXPECT_EQ (s.fw.faults.Calls (Op::UnloadImage),
               std::count_if (s.fw.loads.begin (), s.fw.loads.end (), [](const fake::LoadCall &c) { return EFI_ERROR (c.status) && c.image != nullptr; }));
    EXPECT_EQ (fake::Firmware::LivePool (), pool) << "a driver buffer or device path left allocated";
    EXPECT_EQ (s.fw.OpenHandles (), 0);
    EXPECT_EQ (image == nullptr, EFI_ERROR (row.status) != 0);
    if (!EFI_ERROR (row.status)) {
      auto *info = static_cast<EFI_LOADED_IMAGE_PROTOCOL *>(s.fw.Find (image, gEfiLoadedImageProtocolGuid));
      ASSERT_NE (info, nullptr);
      EXPECT_EQ (info->ParentHandle, s.fw.loads.back ().parent);
      if (s.fw.loads.back ().form != "buffer") EXPECT_EQ (info->DeviceHandle, row.fromOther ? other->Handle () : s.boot.Handle ());
    }
  }
}

TEST (DriverLoadingTest, StartFailuresAndWhatTheLogShows) {
  Stick          s;
  fake::Firmware &fw = s.fw;
  fake::Volume   &boot = s.boot;
  boot.Put (kNtfsPath, fw.DriverFile ({ Fs::Ntfs, -1, false, EFI_ALREADY_STARTED }));
  AdvancedDiagnostics = TRUE;
  fw.faults.Add ({ Op::LoadImage, EFI_SECURITY_VIOLATION, 0, "[path]" });
  EFI_HANDLE image = nullptr;
  // A driver that finds itself already running is there all the same.
  EXPECT_EQ (LoadFsDriver (fw.image, W (u"\\efi\\boot\\ntfs_x64.efi"), nullptr, &image), EFI_SUCCESS);
  EXPECT_NE (image, nullptr);
  CloseLog ();
  const std::string log = fake::Narrow (fw.console);
  EXPECT_TRUE (Has (log, "FS_DRIVER: loaded from FAT32 \\efi\\boot\\ntfs_x64.efi\r\n"));
  EXPECT_TRUE (Has (log, "  LoadImage(path)                   : Security Violation (0x800000000000001A)\r\n"));
  EXPECT_TRUE (Has (log, "  LoadImage(buffer+path)            : Success (0x0)\r\n"));
  EXPECT_TRUE (Has (log, "  StartImage(driver)                : Already started (0x8000000000000014)\r\n"));
  EXPECT_TRUE (Has (log, "  Driver size                         : "));
  EXPECT_EQ (fw.ImagesLoadedNotStarted (), 0u);

  // An entry point that fails: the firmware unloads the image; every candidate is tried.
  fw.faults.Reset ();
  fw.loads.clear ();
  boot.Put (kNtfsPath, fw.DriverFile ({ Fs::Ntfs, -1, false, EFI_UNSUPPORTED }));
  EXPECT_EQ (MountNtfsSource (fw.image, &image), EFI_UNSUPPORTED);
  EXPECT_EQ (image, nullptr);
  EXPECT_EQ (Attempts (fw, s.shell), "path@app=ok path@shell=ok");
  // Both entry points returned an error status, so the firmware unloaded both images.
  EXPECT_EQ (fw.ResidentDrivers (), 0u);
  // Without the boot device the driver still loads from another stick; the search cannot run.
  s.Other ().Put (kNtfsPath, fw.DriverFile ({ Fs::Ntfs, -1 }));
  fw.loadedImage.DeviceHandle = nullptr;
  EXPECT_EQ (MountNtfsSource (fw.image, &image), EFI_NOT_FOUND);
  EXPECT_EQ (fw.connects, 0u);
  EXPECT_TRUE (Has (fake::Narrow (fw.console), "ERRORE: DeviceHandle FAT32 app non disponibile\r\n"));
  EXPECT_TRUE (Has (fake::Narrow (fw.console), "ERRORE: driver NTFS non caricato: Unsupported (0x8000000000000003)\r\n"));
}

}  // namespace
