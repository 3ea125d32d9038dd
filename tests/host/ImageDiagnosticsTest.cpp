// Image and device-path diagnostics: silent and allocation-free unless asked for, and in
// their fixed layout when asked.
#include "Harness.h"

#include <fs/ImageDiagnostics.h>

namespace {

class ImageDiagnosticsTest : public HostTest {
 protected:
  void SetUp () override {
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    OpenBoot (true);
  }

  void PrintAll () {
    PrintHandleDevicePath (W (u"boot"), boot.Handle ());
    PrintHandleDevicePath (W (u"image"), fw.image);   // the image's handle carries no device path
    PrintDevicePathText (W (u"none"), nullptr);
    DumpLoadedImage (W (u"LoadedImage"), fw.image);
  }
};

TEST_F (ImageDiagnosticsTest, PathTextsUseOneBackslashBetweenNodes) {
  const struct { const char16_t *in, *out; } rows[] = {
    { u"PciRoot(0x0)/Pci(0x14,0x0)/USB(0x1,0x0)", u"PciRoot(0x0)\\Pci(0x14,0x0)\\USB(0x1,0x0)" },
    { u"\\\\efi//boot", u"\\efi\\boot" }, { u"/", u"\\" }, { u"a", u"a" }, { u"", u"" },
  };
  for (const auto &row : rows) {
    std::u16string text = row.in;
    NormalizePathText (reinterpret_cast<CHAR16 *>(text.data ()));
    EXPECT_EQ (Str (reinterpret_cast<CHAR16 *>(text.data ())), Str (W (row.out)));
  }
  NormalizePathText (nullptr);
}

TEST_F (ImageDiagnosticsTest, NothingIsPrintedOrAllocatedWithoutDiagnostics) {
  const std::string before = LogText ();
  const size_t      pool   = fake::Firmware::LivePool ();
  fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES);   // any allocation would show
  PrintAll ();
  fw.faults.Reset ();
  EFI_LOADED_IMAGE_PROTOCOL *image = nullptr;
  EXPECT_EQ (OpenLoadedImage (fw.image, &image, fw.image, W (u"x")), EFI_SUCCESS);
  EXPECT_EQ (image, &fw.loadedImage);
  EXPECT_EQ (fw.faults.Calls (Op::AllocatePool), 0u);
  EXPECT_EQ (fake::Firmware::LivePool (), pool);
  EXPECT_EQ (LogText (), before);
}

TEST_F (ImageDiagnosticsTest, DiagnosticsShowImageAndPathsInTheirLayout) {
  AdvancedDiagnostics = TRUE;
  fw.loadedImage.Revision = EFI_LOADED_IMAGE_PROTOCOL_REVISION, fw.loadedImage.ImageSize = 4096, fw.loadedImage.LoadOptionsSize = 14;
  PrintAll ();
  std::vector<std::string> lines = Lines (Log ());
  AdvancedDiagnostics = FALSE;
  const std::vector<std::string> want = {
    "  boot handle=", "  image handle=", "  none raw firmware text: (NULL/non convertibile)", "  OpenProtocol(LoadedImage) handle=",
    "  LoadedImage                       : Success (0x0)", "    Revision        : 0x1000", "    ParentHandle    : ", "    SystemTable     : ",
    "    DeviceHandle    : ", "    FilePath        : ", "    ImageBase       : ", "    ImageSize       : 4096", "    ImageCodeType   : 0",
    "    ImageDataType   : 0", "    LoadOptionsSize : 14", "      LoadedImage FilePath text raw firmware text: (NULL/non convertibile)",
    "      LoadedImage DeviceHandle handle=",
  };
  auto at = lines.begin ();
  for (const std::string &w : want) {
    at = std::find_if (at, lines.end (), [&](const std::string &l) { return l.rfind (w, 0) == 0; });
    ASSERT_NE (at, lines.end ()) << "missing, or out of order: " << w;
  }
  for (const std::string &l : lines) {
    if (l.rfind ("  boot handle=", 0) == 0 || l.rfind ("      LoadedImage DeviceHandle handle=", 0) == 0) {
      EXPECT_TRUE (Has (l, " path=PciRoot(0x0)\\Pci(0x14,0x0)\\USB(0x1,0x0)\\HD(1,MBR,")) << l;
    }
    if (l.rfind ("  image handle=", 0) == 0) EXPECT_TRUE (Has (l, " path=(non disponibile)")) << l;
  }
}

}  // namespace
