// Whole switches on a stick of three groups, started as the firmware starts Velmaro: the
// stick afterwards (which group carries the active names, the state file, every group's
// data), the status, the log and which installer ran. A run stopped at each step leaves
// a stick the next run brings to the requested group.
#include "GroupData.h"

#include <activation/ActivationRun.h>
#include <app/EntryPoint.h>
#include <launch/InstallerLaunch.h>

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (EFI_HANDLE, EFI_SYSTEM_TABLE *);

namespace {

const std::vector<GroupNames> kGroups = { { "bcd_a", "grp_a", "efi_a", "s-win-a" }, { "bcd_b", "grp_b", "efi_b", "s-win-b" },
                                          { "bcd_c", "grp_c", "efi_c", "s-win-c" } };
const std::string             kNoGroup = "velmaro file configuration\r\n";

std::string StateOf (const GroupNames &g, const std::string &uuid) {
  return "BCD:c:\\boot\\" + g.bcd + "\r\nSRC:c:\\" + g.src + "\r\nEFI:c:\\efi\\" + g.efi + "\r\nSRC_PART:" + uuid + "\r\nSRC_FS:FAT32\r\n";
}

// Everything on a volume but the log, which every run writes.
VolumeSnapshot Content (const fake::Volume &v) {
  VolumeSnapshot content = v.Snapshot ();
  content.erase ("\\velmaro_log.txt");
  return content;
}

// The paths whose bytes differ, or that only one side has: what a failure names.
std::vector<std::string> Changed (const VolumeSnapshot &before, const VolumeSnapshot &after) {
  std::vector<std::string> changed;
  for (const auto &[path, bytes] : before) if (after.count (path) == 0 || after.at (path) != bytes) changed.push_back (path);
  for (const auto &[path, bytes] : after) if (before.count (path) == 0) changed.push_back (path + " (new)");
  return changed;
}

// Group a active on the boot volume and recorded in the state file; b and c under their
// own names. Every group's source folder holds a stand-in installer.
class RunTest : public HostTest {
 protected:
  std::string uuid;

  void SetUp () override {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    uuid = Lower (fake::BlkidUuid ("fat32"));
    boot.Put ("\\boot\\NUR_VEL_EFI.COM", EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b",
                                                              "ID:s-win-c BCD:bcd_c SRC:grp_c EFI:efi_c" }));
    boot.Put ("\\boot\\VELMARO.COM", StateOf (kGroups[0], uuid));
    for (const GroupNames &g : kGroups) PutInstaller (boot, g, &g == &kGroups[0], uuid);
  }

  // A group as a stick used before carries it: its record names the partition and file
  // system it lies on (the first switch adds what is missing).
  void PutInstaller (fake::Volume &v, const GroupNames &g, bool active, const std::string &partUuid) {
    PutGroup (v, g, active);
    const std::string src = active ? std::string ("\\sources") : "\\" + g.src;
    v.Put (src + "\\bootx64.efi", fw.ApplicationFile (EFI_SUCCESS));
    v.Put (src + "\\recovery.txt", Record (g) + "SRC_PART|" + partUuid + "\r\nSRC_FS|FAT32\r\n");
  }

  // A copy of the stick as another USB stick, the one Velmaro is started from: table rows
  // then never see each other's changes.
  fake::Volume &StartFromCopy (const fake::Disk &image) {
    fake::Volume &v = fw.AddVolume (image);
    fw.StartFrom (v);
    fw.AddBlockIo (v.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (v.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (2), 1, 0x5EED));
    return v;
  }

  size_t StartedApplications () const {
    return static_cast<size_t>(std::count_if (fw.images.begin (), fw.images.end (), [](const auto &i) { return i->started && i->driver.application; }));
  }

  // The whole application, started with these load options.
  EFI_STATUS Start (const std::u16string &options) {
    fw.SetLoadOptions (options);
    return _ModuleEntryPoint (fw.image, &fw.st);
  }

  // Which group carries the active names (-1: none, 100+n: only some pieces of n), judged
  // by the markers and the store.
  int ActiveGroup (const fake::Volume &v) const {
    for (int i = 0; i < static_cast<int>(kGroups.size ()); ++i) {
      const GroupNames &g      = kGroups[i];
      const int        pieces = v.Exists ("\\sources\\" + g.id + ".txt") + v.Exists ("\\efi\\microsoft\\" + g.id + ".txt") +
                                (v.Exists ("\\boot\\BCD") && v.Get ("\\boot\\BCD") == StoreOf (g));
      if (pieces > 0) return pieces == 3 ? i : 100 + i;
    }
    return -1;
  }

  static std::string StateFile (const fake::Volume &v) { return v.Exists ("\\boot\\VELMARO.COM") ? v.Get ("\\boot\\VELMARO.COM") : "-"; }

  // The installer that ran: its group, by the marker in the folder it was started from.
  std::string InstallerRan () const {
    const fake::Image *image = fw.StartedApplication ();
    if (image == nullptr) return "none";
    for (const auto &v : fw.volumes) {
      if (v->Handle () != image->info.DeviceHandle) continue;
      for (const GroupNames &g : kGroups) {
        if (v->Exists ("\\sources\\" + g.id + ".txt")) return g.id + (v.get () == &boot ? "" : " on partition 2");
      }
    }
    return "unknown";
  }
};

TEST_F (RunTest, SwitchThereAndBackMovesOnlyNamesAndStartsTheRequestedInstaller) {
  const auto before = boot.Snapshot ();
  EXPECT_EQ (Start (u"s-win-b"), EFI_SUCCESS);
  EXPECT_EQ (ActiveGroup (boot), 1);
  EXPECT_EQ (StateFile (boot), StateOf (kGroups[1], uuid));
  EXPECT_EQ (InstallerRan (), "s-win-b");
  EXPECT_EQ (fw.keyWaits, 0u);
  ExpectNoGroupDataLost (before, boot, kGroups);
  const std::vector<std::string> lines = Lines (LogText ());
  CHAR16                         self[32];
  UnicodeSPrint (self, sizeof (self), W (u"%p"), fw.image);
  for (const std::string &line : std::vector<std::string>{
         "ID ricevuto: s-win-b", "VELMARO_APP: started from FAT32 partition 1",
         "Stato corrente: BCD=bcd_a SRC=grp_a EFI=efi_a SRC_PART=" + uuid + " SRC_FS=FAT32",
         "Stato richiesto: BCD=bcd_b SRC=grp_b EFI=efi_b SRC_PART=(assente) SRC_FS=(assente)", "recovery phase",
         "current state: BCD=bcd_a SRC=grp_a EFI=efi_a SRC_PART=" + uuid + " SRC_FS=FAT32", "renewal phase",
         "Fase rinomina: stato locale ricostruito ID=s-win-b BCD=bcd_b SRC=grp_b EFI=efi_b SRC_PART=" + uuid + " SRC_FS=FAT32",
         "SUCCESSO: fase SOURCE FS completata e verificata", "Avvio installer Windows: path=\\sources\\bootx64.efi",
         "Verifica \\sources\\bootx64.efi: Success (0x0), exists=1", "found efi 64", "LoadImage parent usato: ImageHandle " + Str (self),
         "StartImage(\\sources\\bootx64.efi): Success (0x0)", "=== Velmaro log end ===" }) {
    EXPECT_NE (std::find (lines.begin (), lines.end (), line), lines.end ()) << line << "\n" << LogText ();
  }

  EXPECT_EQ (Start (u"s-win-a"), EFI_SUCCESS);
  EXPECT_EQ (ActiveGroup (boot), 0);
  EXPECT_EQ (StateFile (boot), StateOf (kGroups[0], uuid));
  EXPECT_EQ (InstallerRan (), "s-win-a");
  ExpectNoGroupDataLost (before, boot, kGroups);
}

TEST_F (RunTest, RequestedGroupAlreadyActiveWritesNothingButTheLog) {
  const auto before = Content (boot);
  EXPECT_EQ (Start (u"s-win-a"), EFI_SUCCESS);
  EXPECT_EQ (Changed (before, Content (boot)), std::vector<std::string>{});
  EXPECT_EQ (InstallerRan (), "s-win-a");
  const std::string log = LogText ();
  EXPECT_TRUE (Has (log, "] SOURCE_FS: gruppo richiesto gia attivo e atomico; salto restore e rename\r\n"));
  EXPECT_TRUE (Has (log, "] SUCCESSO: fase SOURCE FS completata e verificata\r\n"));
  EXPECT_FALSE (Has (log, "recovery phase"));

  // A record prepared without its partition gets it once, and nothing else is written.
  boot.Put ("\\sources\\recovery.txt", Record (kGroups[0]));
  const auto bare = Content (boot);
  EXPECT_EQ (Start (u"s-win-a"), EFI_SUCCESS);
  EXPECT_EQ (Changed (bare, Content (boot)), std::vector<std::string>{ "\\sources\\recovery.txt" });
  EXPECT_EQ (boot.Get ("\\sources\\recovery.txt"), Record (kGroups[0]) + "SRC_PART|" + uuid + "\r\nSRC_FS|FAT32\r\n");
  const auto completed = Content (boot);
  EXPECT_EQ (Start (u"s-win-a"), EFI_SUCCESS);
  EXPECT_EQ (Changed (completed, Content (boot)), std::vector<std::string>{});
}

// A run that fails stops the way the log says, changes nothing it had no proof for, and
// the status reaches the firmware after the error line and a key wait.
TEST_F (RunTest, RunsThatEndEarlyLeaveTheStickAsItWas) {
  const struct {
    const char        *name;
    std::u16string    options;
    std::string       metadata;    // \ZENTO\software.xml ("" for none)
    fake::Fault       fault;
    EFI_STATUS        status;
    const char        *line;        // the last line before the general error ("" for none)
  } rows[] = {
    { "unknown group", u"s-win-z", "", {}, EFI_NOT_FOUND, "ERRORE: parsing/validazione NUR_VEL_EFI.COM: Not Found (0x800000000000000E)" },
    { "group ID beyond ASCII", u"s-win-\u00e9", "", {}, EFI_BUFFER_TOO_SMALL, "VELMARO_APP: started from FAT32 partition 1" },
    { "entries file unreadable", u"s-win-b", "", { Op::Read, EFI_DEVICE_ERROR, 0, "NUR_VEL_EFI" }, EFI_DEVICE_ERROR, "" },
    { "state file unreadable", u"s-win-b", "", { Op::Read, EFI_DEVICE_ERROR, 0, "VELMARO.COM" }, EFI_DEVICE_ERROR, "" },
    { "boot volume root not opened", u"s-win-b", "", { Op::OpenVolume, EFI_NO_MEDIA, 2 }, EFI_NO_MEDIA, "" },
    // The active check cannot tell: no switch may follow on a guess.
    { "active group's record unreadable", u"s-win-a", "", { Op::Read, EFI_DEVICE_ERROR, 2, "recovery.txt" }, EFI_DEVICE_ERROR, "" },
    { "installer refused by the platform", u"s-win-a", "", { Op::LoadImage, EFI_SECURITY_VIOLATION }, EFI_SECURITY_VIOLATION,
      "LoadImage(\\sources\\bootx64.efi, parent=ImageHandle): Security Violation (0x800000000000001A), Image=" },
    // Metadata put b on an NTFS partition that never appears: no other volume will do.
    { "group's partition missing", u"s-win-b",
      "<software ID=\"s-win-b\" Der=\"Windows 11 velmaro\">\r\n<ISO2ndPartition>True</ISO2ndPartition><FS>NTFS</FS><UUID>0123456789abcdef</UUID>\r\n</software>\r\n",
      {}, EFI_NOT_FOUND, "ERRORE: SOURCE_FS da metadata " },
  };
  const fake::Disk pristine = boot.DiskImage ();
  for (const auto &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Volume &v = StartFromCopy (pristine);
    if (!row.metadata.empty ()) v.Put ("\\ZENTO\\software.xml", row.metadata);
    const auto before = Content (v);
    fw.keyWaits       = 0;
    fw.faults.Set (row.fault);
    EXPECT_EQ (Start (row.options), row.status) << LogText (v);
    fw.faults.Reset ();
    EXPECT_EQ (Changed (before, Content (v)), std::vector<std::string>{});
    EXPECT_EQ (fw.keyWaits, 1u);
    EXPECT_EQ (fw.ImagesLoadedNotStarted (), 0u) << "an installer left loaded";
    EXPECT_EQ (fw.StartedApplication (), nullptr);
    std::vector<std::string> lines = Lines (LogText (v));
    ASSERT_GE (lines.size (), 6u);
    CHAR16 error[96];
    UnicodeSPrint (error, sizeof (error), W (u"ERRORE: esecuzione Velmaro non riuscita: %r (0x%lx)"), row.status, row.status);
    EXPECT_EQ (lines[lines.size () - 4], Str (error));
    if (*row.line != '\0') EXPECT_EQ (lines[lines.size () - 6].substr (0, std::strlen (row.line)), row.line);
  }
}

// Stopped at each step of a switch from a to b, the stick is in the state that step
// leaves; a second run, with nothing failing, always ends with b active and no data lost.
TEST_F (RunTest, RunStoppedAtEachStepLeavesARecoverableStick) {
  const std::string recordA = StateOf (kGroups[0], uuid), recordB = StateOf (kGroups[1], uuid);
  const struct {
    const char   *name;
    fake::Fault  fault;
    EFI_STATUS   status;
    const char   *line;
    int          active;          // the group under the active names afterwards (-1 none, 100+n part of n)
    std::string  stateFile;       // "-": none
    std::string  stateAfterRerun;
  } rows[] = {
    { "recovery stops after the store", { Op::SetInfo, EFI_ACCESS_DENIED, 2 }, EFI_ACCESS_DENIED,
      "ERRORE: ripristino atomico non completato: Access Denied (0x800000000000000F)", 100, recordA, recordB },
    { "the reset is refused", { Op::Delete, EFI_ACCESS_DENIED, 0, "VELMARO.COM" }, EFI_ACCESS_DENIED,
      "ERRORE: reset VELMARO.COM dopo ripristino atomico fallito: Access Denied (0x800000000000000F)", -1, recordA, recordB },
    { "the renewal's source rename is refused", { Op::SetInfo, EFI_ACCESS_DENIED, 0, "grp_b" }, EFI_ACCESS_DENIED,
      "ERRORE: rename SOURCE FS falliti: Access Denied (0x800000000000000F)", -1, kNoGroup, recordB },
    // The renames are proved: the record that cannot be written costs only the next run's
    // certainty, and that run finds b active and writes nothing.
    { "the final record cannot be written", { Op::Write, EFI_DEVICE_ERROR, 2, "VELMARO.COM" }, EFI_SUCCESS,
      "WARN: update VELMARO.COM non verificato dopo rename riusciti; continuo: Device Error (0x8000000000000007)", 1, "", "" },
    { "nothing fails", {}, EFI_SUCCESS, "SUCCESSO: fase SOURCE FS completata e verificata", 1, recordB, recordB },
  };
  const fake::Disk pristine = boot.DiskImage ();
  for (const auto &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Volume &v = StartFromCopy (pristine);
    const auto   before  = v.Snapshot ();
    const size_t started = StartedApplications ();
    fw.faults.Set (row.fault);
    EXPECT_EQ (Start (u"s-win-b"), row.status);
    fw.faults.Reset ();
    EXPECT_EQ (StartedApplications () - started, EFI_ERROR (row.status) ? 0u : 1u);
    EXPECT_EQ (ActiveGroup (v), row.active);
    EXPECT_EQ (StateFile (v), row.stateFile);
    EXPECT_TRUE (Has (LogText (v), std::string ("] ") + row.line + "\r\n"));
    ExpectNoGroupDataLost (before, v, kGroups);

    EXPECT_EQ (Start (u"s-win-b"), EFI_SUCCESS) << LogText (v);
    EXPECT_EQ (ActiveGroup (v), 1);
    EXPECT_EQ (v.Get ("\\boot\\VELMARO.COM"), row.stateAfterRerun);
    ExpectNoGroupDataLost (before, v, kGroups);
  }
}

// What the state file says is only a hint: a missing, empty or unreadable record does
// not stop the switch; the recovery then works from what the volume shows.
TEST_F (RunTest, StateFileThatNamesNoGroupIsNotAnError) {
  const struct { const char *name; std::string stateFile; } rows[] = {
    { "missing", "-" },
    { "no group", kNoGroup },
    { "only a BCD line", "BCD:c:\\boot\\bcd_a\r\n" },
    { "only another group's store", "BCD:c:\\boot\\bcd_c\r\n" },
  };
  const fake::Disk pristine = boot.DiskImage ();
  for (const auto &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Volume &v = StartFromCopy (pristine);
    if (row.stateFile == "-") v.Remove ("\\boot\\VELMARO.COM");
    else v.Put ("\\boot\\VELMARO.COM", row.stateFile);
    const auto before = v.Snapshot ();
    EXPECT_EQ (Start (u"s-win-b"), EFI_SUCCESS) << LogText (v);
    // Half a record is not half trusted: the recovery starts from no group at all.
    EXPECT_TRUE (Has (LogText (v), "] current state: BCD=(missing) SRC=(missing) EFI=(missing) SRC_PART=(missing) SRC_FS=(missing)\r\n"));
    EXPECT_EQ (ActiveGroup (v), 1);
    EXPECT_EQ (v.Get ("\\boot\\VELMARO.COM"), StateOf (kGroups[1], uuid));
    ExpectNoGroupDataLost (before, v, kGroups);
  }
}

// The group on a sibling FAT32 partition: the caller gets that volume's root, and the
// installer starts from there; every root is closed afterwards (the fixture checks).
TEST_F (RunTest, GroupOnASiblingPartitionIsActivatedAndStartedThere) {
  // A partition of the same stick with a volume serial of its own, as every format gives.
  fake::Volume   &sibling = fw.AddVolume ();
  const uint8_t  serial[] = { 0x02, 0x00, 0xED, 0x5E };
  sibling.device->disk->Write (0x43, serial, sizeof (serial));
  fw.SetDevicePath (sibling.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
  boot.Remove ("\\grp_b"), boot.Remove ("\\efi\\efi_b"), boot.Remove ("\\boot\\bcd_b");
  PutInstaller (sibling, kGroups[1], false, "5eed-0002");
  sibling.Put ("\\5eed-0002.uuid", "");
  boot.Put ("\\boot\\s-win-b.txt", "Windows 11\r\ngrp_b\r\n5eed-0002.uuid\r\n");
  const auto bootBefore = boot.Snapshot (), siblingBefore = sibling.Snapshot ();
  // On a FAT32 partition other than the boot volume the EFI folder moves with the shell's mv.
  fw.shell.UseShellProtocol (true);

  // The switch alone, from the boot volume as the entry point opens it. One that fails
  // there hands nothing out and leaves no root of the sibling open.
  OpenBoot (true);
  const VOLUME_REF bootFs = { boot.Handle (), root, 1, {} };
  VOLUME_REF       source;
  BOOLEAN          owned = TRUE;
  fw.faults.Set ({ Op::SetInfo, EFI_ACCESS_DENIED, 0, "grp_b" });
  EXPECT_EQ (RunActivation (fw.image, &bootFs, W (u"s-win-b"), &source, &owned), EFI_ACCESS_DENIED);
  fw.faults.Reset ();
  EXPECT_EQ (source.Root, nullptr);
  EXPECT_FALSE (owned);
  EXPECT_EQ (fw.OpenHandles (), 2) << "only the boot volume's root and the log";

  ASSERT_EQ (RunActivation (fw.image, &bootFs, W (u"s-win-b"), &source, &owned), EFI_SUCCESS) << LogText ();
  EXPECT_EQ (source.Handle, sibling.Handle ());
  EXPECT_EQ (source.PartitionNumber, 0u);
  EXPECT_EQ (Str (source.Label), "SOURCE FS");
  EXPECT_TRUE (owned);
  ASSERT_NE (source.Root, nullptr);
  source.Root->Close (source.Root);
  root->Close (root), root = nullptr;
  CloseLog ();
  EXPECT_EQ (ActiveGroup (boot), -1);
  EXPECT_EQ (ActiveGroup (sibling), 1);
  ExpectNoGroupDataLost (bootBefore, boot, kGroups);
  ExpectNoGroupDataLost (siblingBefore, sibling, kGroups);

  // Back to a on the boot volume, then b again through the whole application.
  EXPECT_EQ (Start (u"s-win-a"), EFI_SUCCESS);
  EXPECT_EQ (InstallerRan (), "s-win-a");
  EXPECT_EQ (Start (u"s-win-b"), EFI_SUCCESS);
  EXPECT_EQ (InstallerRan (), "s-win-b on partition 2");
  EXPECT_EQ (ActiveGroup (boot), -1);
  EXPECT_EQ (ActiveGroup (sibling), 1);
}

TEST_F (RunTest, InstallerLaunchFallsBackToTheParentImageOnlyForARefusedParent) {
  const EFI_HANDLE shell = fw.NewHandle ();
  fw.Install (shell, gEfiLoadedImageProtocolGuid, &fw.loadedImage);
  const struct { const char *name; EFI_HANDLE parent; fake::Fault fault; EFI_STATUS status; size_t loads; const char *line; fake::Fault extra; } rows[] = {
    { "refused parent, shell as parent", shell, { Op::LoadImage, EFI_INVALID_PARAMETER, 1 }, EFI_ABORTED, 2,
      "LoadImage(\\sources\\bootx64.efi, parent=LoadedImage->ParentHandle): Success (0x0), Image=" },
    { "refused parent, no parent image", nullptr, { Op::LoadImage, EFI_INVALID_PARAMETER, 1 }, EFI_INVALID_PARAMETER, 1,
      "LoadedImage->ParentHandle non disponibile per fallback LoadImage" },
    { "refused parent, own handle as parent", fw.image, { Op::LoadImage, EFI_INVALID_PARAMETER, 1 }, EFI_INVALID_PARAMETER, 1,
      "LoadedImage->ParentHandle non disponibile per fallback LoadImage" },
    { "no Loaded Image for the fallback", shell, { Op::LoadImage, EFI_INVALID_PARAMETER, 1 }, EFI_UNSUPPORTED, 1,
      "LoadedImage per ParentHandle: Unsupported (0x8000000000000003)", { Op::HandleProtocol, EFI_UNSUPPORTED, 2 } },
    { "access denied: no fallback", shell, { Op::LoadImage, EFI_ACCESS_DENIED }, EFI_ACCESS_DENIED, 1,
      "LoadImage(\\sources\\bootx64.efi, parent=ImageHandle): Access Denied (0x800000000000000F), Image=" },
    { "the installer returns an error", shell, {}, EFI_ABORTED, 1, "StartImage(\\sources\\bootx64.efi): Aborted (0x8000000000000015)" },
  };
  OpenBoot (true);
  boot.Put ("\\sources\\bootx64.efi", fw.ApplicationFile (EFI_ABORTED));
  const VOLUME_REF bootFs = { boot.Handle (), root, 1, {} };
  for (const auto &row : rows) {
    SCOPED_TRACE (row.name);
    fw.loadedImage.ParentHandle = row.parent;
    fw.loads.clear ();
    fw.faults.Set (row.fault);
    fw.faults.Add (row.extra);
    const size_t mark = Lines (LogText ()).size ();
    EXPECT_EQ (LaunchInstaller (fw.image, &bootFs), row.status);
    fw.faults.Reset ();
    EXPECT_EQ (fw.loads.size (), row.loads);
    EXPECT_EQ (fw.ImagesLoadedNotStarted (), 0u);
    const std::vector<std::string> lines = Lines (LogText ());
    EXPECT_TRUE (std::any_of (lines.begin () + mark, lines.end (), [&](const std::string &l) { return l.rfind (row.line, 0) == 0; })) << row.line;
  }

  boot.Remove ("\\sources\\bootx64.efi");
  fw.loads.clear ();
  EXPECT_EQ (LaunchInstaller (fw.image, &bootFs), EFI_NOT_FOUND);
  EXPECT_TRUE (fw.loads.empty ());
  EXPECT_EQ (Lines (LogText ()).back (), "\\sources\\bootx64.efi not found");
}

}  // namespace
