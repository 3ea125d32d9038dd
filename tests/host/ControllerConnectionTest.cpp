// Finding the file system of the boot volume's sibling partition after connecting every
// controller: by stick layout, the handle found, the status, the time spent waiting.
#include "Harness.h"

#include <discovery/ControllerConnection.h>

namespace {

const std::array<uint8_t, 16> kGuidA = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16 }, kGuidB = { 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1 };

struct Layout {
  const char                          *name;
  std::vector<uint8_t>                bootPath;
  std::vector<std::vector<uint8_t>>   others;     // further volumes; the first is the one looked for
  bool                                late;       // the first other volume mounts only when connected
  EFI_STATUS                          status;
  uint64_t                            waitedMs;
  std::vector<std::string>            lines;
};

TEST (ControllerConnectionTest, SiblingFileSystemIsFoundOnlyWhenItIsTheOneSibling) {
  const std::vector<uint8_t> kPort1 = fake::UsbDiskPath (1);
  // An MBR partition of the stick in that port.
  const auto mbr = [](uint32_t number, uint8_t port = 1) { return fake::WithMbrPartition (fake::UsbDiskPath (port), number, 0x5EED); };
  const Layout rows[] = {
    { "sibling mounted before", mbr (1), { mbr (2) }, false, EFI_SUCCESS, 0,
      { "map -r: SOURCE FS visibile dopo refresh, tentativo=0", "Fallback SimpleFS sibling selezionato: handle=" } },
    { "sibling mounted when connected", mbr (1), { mbr (2) }, true, EFI_SUCCESS, 0,
      { "Prima Shell ConnectAllEfi: SimpleFS=1 status=Success (0x0)", "map -r: SOURCE FS visibile dopo refresh, tentativo=0" } },
    { "two siblings", mbr (1), { mbr (2), mbr (3) }, false, EFI_ALREADY_STARTED, 0,
      { "ERRORE: fallback SimpleFS ambiguo: 2 partizioni sorelle visibili",
        "map -r: ricerca SOURCE FS terminata con errore: Already started (0x8000000000000014), ultimo visibili=Already started (0x8000000000000014)" } },
    { "GPT: every partition its own signature", fake::WithGptPartition (kPort1, 1, kGuidA), { fake::WithGptPartition (kPort1, 2, kGuidB) }, false, EFI_NOT_FOUND, 1200,
      { "map -r: SOURCE FS non ancora visibile; attendo controller/driver lenti", "map -r: nessun nuovo SimpleFS target; ultimo fallback su SimpleFS visibili" } },
    { "same layout on another disk", mbr (1), { mbr (2, 2) }, false, EFI_NOT_FOUND, 1200, {} },
    { "boot volume without a partition node", kPort1, { mbr (2) }, false, EFI_NOT_FOUND, 1200, { "ERRORE: impossibile leggere nodo HD() dal DeviceHandle FAT32 app" } },
  };
  for (const Layout &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Firmware fw;
    fake::Volume  &boot = fw.AddVolume ();
    fw.StartFrom (boot);
    LogFile = nullptr;
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), row.bootPath);
    std::vector<fake::Volume *> others;
    for (const auto &path : row.others) {
      others.push_back (&fw.AddVolume ());
      fw.AddBlockIo (others.back ()->Handle (), fake::BootSectorImage ("fat32"));
      fw.SetDevicePath (others.back ()->Handle (), path);
    }
    if (row.late) {
      fake::Volume &late = *others[0];
      fw.Uninstall (late.Handle (), gEfiSimpleFileSystemProtocolGuid);
      fw.connect = [&](EFI_HANDLE h) { return h == late.Handle () ? (fw.Install (h, gEfiSimpleFileSystemProtocolGuid, late.raw), EFI_SUCCESS) : EFI_NOT_FOUND; };
    }
    ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
    const size_t pool   = fake::Firmware::LivePool ();
    EFI_HANDLE   found  = reinterpret_cast<EFI_HANDLE>(1);
    EXPECT_EQ (ConnectAndFindSourceFs (boot.Handle (), &found), row.status);
    EXPECT_EQ (found, row.status == EFI_SUCCESS ? others[0]->Handle () : nullptr);
    EXPECT_EQ (fw.stalledUs / 1000, row.waitedMs);
    EXPECT_GT (fw.connects, 0u);
    EXPECT_EQ (fake::Firmware::LivePool (), pool) << "handle lists or path texts left allocated";
    CloseLog ();
    const std::vector<std::string> lines = Lines (fake::Narrow (fw.console));
    for (const std::string &want : row.lines) {
      EXPECT_TRUE (std::any_of (lines.begin (), lines.end (), [&](const std::string &l) { return l.rfind (want, 0) == 0; })) << want;
    }
  }
}

}  // namespace
