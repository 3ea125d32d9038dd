// The EFI folder of a group on a sibling FAT32 partition is moved by the firmware shell's
// mv, then proved on a fresh root; and a whole switch to such a group. The shell is the
// fake's model of ShellPkg as OVMF runs it (a nested shell for every command).
#include "Sweep.h"

#include <activation/RecoveryPhase.h>
#include <activation/RenewalPhase.h>
#include <activation/ShellMove.h>

namespace {

const GroupNames kA = { "bcd_a", "grp_a", "efi_a", "s-win-a" }, kB = { "bcd_b", "grp_b", "efi_b", "s-win-b" };

// Boot volume: partition 1 of a USB stick, holding a decoy "\efi\efi_b" without marker.
// Partition 2: FAT32 with serial 1234-abcd, its uuid marker and group b's EFI folder.
class ShellMoveTest : public HostTest {
 protected:
  fake::Volume      &sibling = fw.AddVolume ();
  EFI_FILE_PROTOCOL *siblingRoot = nullptr;
  const std::string uuid = "1234-abcd";

  void SetUp () override {
    fw.AddBlockIo (boot.Handle (), fake::BootSectorImage ("fat32"));
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    std::vector<uint8_t> sector = fake::BootSectorImage ("fat32");
    const uint8_t        serial[] = { 0xcd, 0xab, 0x34, 0x12 };   // FAT32 keeps it at 0x43, little-endian
    std::copy (serial, serial + 4, sector.begin () + 0x43);
    fw.AddBlockIo (sibling.Handle (), sector);
    fw.SetDevicePath (sibling.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
    boot.Put ("\\efi\\efi_b\\s-win-a.txt", ""), sibling.Put ("\\" + uuid + ".uuid", ""), sibling.Put ("\\efi\\efi_b\\s-win-b.txt", "");
    sibling.Put ("\\efi\\efi_b\\boot\\bootmgfw.efi", "boot manager of s-win-b");
    OpenBoot (true);
    ASSERT_EQ (OpenRoot (sibling.Handle (), &siblingRoot), EFI_SUCCESS);
    fw.shell.UseShellProtocol (true);
  }

  void TearDown () override {
    siblingRoot->Close (siblingRoot);
    HostTest::TearDown ();
  }

  EFI_STATUS Move (const char *withUuid) {
    return ShellMoveEfiFolder (fw.image, sibling.Handle (), siblingRoot, withUuid == nullptr ? nullptr : W (fake::U16 (withUuid).c_str ()),
                               W (u"\\efi\\efi_b"));
  }

  bool Moved () const {
    const char *loader = "\\efi\\microsoft\\boot\\bootmgfw.efi";
    return sibling.Exists (loader) && sibling.Get (loader) == "boot manager of s-win-b" && !sibling.Exists ("\\efi\\efi_b");
  }

  bool Ran (const std::string &start) const {
    return std::any_of (fw.shell.commands.begin (), fw.shell.commands.end (), [&](const std::string &c) { return c.rfind (start, 0) == 0; });
  }
};

TEST_F (ShellMoveTest, FolderIsMovedOnTheVolumeTheShellNamesAndProvedOnTheVolume) {
  // line: a log line, without its stamp
  const struct { const char *name, *uuid; std::function<void (fake::Firmware &)> arrange; EFI_STATUS status; const char *line; } rows[] = {
    { "by uuid marker on a block device", "1234-abcd", nullptr, EFI_SUCCESS, "Shell blk mv verified: blk1: mv \"blk1:\\efi\\efi_b\" \"blk1:\\efi\\microsoft\"" },
    { "by the shell's own mapping", nullptr, nullptr, EFI_SUCCESS, "Shell mv: SOURCE_FS mappata via EFI_SHELL_PROTOCOL come FS1:" },
    { "by the older environment's marker probe", "1234-abcd", [](fake::Firmware &f) {
        f.shell.UseShellProtocol (false), f.shell.UseEnvironment2 (true), f.faults.Add ({ Op::ShellCommand, EFI_NOT_FOUND, 0, "ls blk" });
      },
      EFI_SUCCESS, "Shell mv: SOURCE_FS mappata via marker UUID come fs1: (fs1:\\1234-abcd.uuid)" },
    { "by the older environment's name", nullptr, [](fake::Firmware &f) { f.shell.UseShellProtocol (false), f.shell.UseEnvironment2 (true); },
      EFI_SUCCESS, "Shell mv: SOURCE_FS mappata via EFI_SHELL_ENVIRONMENT2 come hd0b0c:" },
    { "a failed command is run again by the older environment", nullptr,
      [](fake::Firmware &f) { f.shell.UseEnvironment2 (true), f.faults.Add ({ Op::ShellCommand, EFI_DEVICE_ERROR, 1, "mv" }); }, EFI_SUCCESS,
      "Shell Execute: EFI_SHELL_PROTOCOL fallito status=Success (0x0) shell_status=Device Error (0x8000000000000007), provo EFI_SHELL_ENVIRONMENT2" },
    { "a failed command, no older environment", nullptr, [](fake::Firmware &f) { f.faults.Add ({ Op::ShellCommand, EFI_DEVICE_ERROR, 1, "mv" }); },
      EFI_DEVICE_ERROR, "Shell Execute(mv): status=Success (0x0) shell_status=Device Error (0x8000000000000007)" },
    { "no shell at all", "1234-abcd", [](fake::Firmware &f) { f.shell.UseShellProtocol (false); }, EFI_UNSUPPORTED,
      "Shell mv: EFI_SHELL_ENVIRONMENT2 non disponibile: Not Found (0x800000000000000E)" },
    { "success the volume does not show", nullptr, [](fake::Firmware &f) { f.faults.Add ({ Op::ShellCommand, EFI_SUCCESS, 1, "mv", Effect::NoEffect }); },
      EFI_DEVICE_ERROR, "Shell mv verified: source still present after mv \\efi\\efi_b status=Success (0x0) exists=1" },
  };
  for (const auto &row : rows) {
    SCOPED_TRACE (row.name);
    if (row.arrange) row.arrange (fw);
    const auto before = sibling.Snapshot ();
    EXPECT_EQ (Move (row.uuid), row.status);
    EXPECT_EQ (Moved (), row.status == EFI_SUCCESS);
    EXPECT_TRUE (boot.Exists ("\\efi\\efi_b\\s-win-a.txt")) << "the boot volume's folder of the same name moved";
    EXPECT_TRUE (Has (LogText (), std::string ("] ") + row.line + "\r\n"));
    ExpectNoGroupDataLost (before, sibling, { kB });
    // The next row starts on the stick as it was, with the shell as OVMF has it.
    fw.faults.Reset (), fw.shell.UseEnvironment2 (false), fw.shell.UseShellProtocol (true), fw.shell.commands.clear ();
    if (sibling.Exists ("\\efi\\microsoft")) {
      sibling.Remove ("\\efi\\microsoft"), sibling.Put ("\\efi\\efi_b\\s-win-b.txt", ""), sibling.Put ("\\efi\\efi_b\\boot\\bootmgfw.efi", "boot manager of s-win-b");
    }
  }
}

TEST_F (ShellMoveTest, NothingRunsWhereMvWouldNestTheFolderOrCannotKeepItsDate) {
  // An active folder already there: mv would move the group's folder inside it.
  sibling.Put ("\\efi\\microsoft\\s-win-c.txt", "");
  EXPECT_EQ (Move (uuid.c_str ()), EFI_ALREADY_STARTED);
  EXPECT_FALSE (Ran ("mv")) << "mv ran";
  EXPECT_TRUE (sibling.Exists ("\\efi\\efi_b\\s-win-b.txt") && !sibling.Exists ("\\efi\\microsoft\\efi_b"));
  sibling.Remove ("\\efi\\microsoft\\s-win-c.txt"), sibling.Remove ("\\efi\\microsoft");

  // A folder dated zero: mv hands GetInfo's times back and the driver refuses them.
  const EFI_TIME now = std::exchange (fw.now, EFI_TIME{});
  sibling.Put ("\\efi\\efi_z\\s-win-z.txt", "");
  fw.now = now;
  EXPECT_EQ (ShellMoveEfiFolder (fw.image, sibling.Handle (), siblingRoot, W (u"1234-abcd"), W (u"\\efi\\efi_z")), EFI_INVALID_PARAMETER);
  EXPECT_TRUE (sibling.Exists ("\\efi\\efi_z\\s-win-z.txt") && !sibling.Exists ("\\efi\\microsoft"));
}

TEST_F (ShellMoveTest, ACommandThatDoesNotFitIsNeverRunCutShort) {
  // A group EFI name as long as a name may be: "ls blkN:\efi\<name>" is over 128 characters.
  const std::string name (120, 'e'), path = "\\efi\\" + name;
  sibling.Put (path + "\\s-win-b.txt", "");
  EXPECT_EQ (ShellMoveEfiFolder (fw.image, sibling.Handle (), siblingRoot, W (u"1234-abcd"), W (fake::U16 (path).c_str ())), EFI_UNSUPPORTED);
  for (const std::string &command : fw.shell.commands) EXPECT_EQ (command.find ("\\efi\\"), std::string::npos) << "ran: " << command;
  EXPECT_TRUE (sibling.Exists (path + "\\s-win-b.txt"));

  // One that fills its buffer to the last character still runs, whole.
  const std::string fits = "\\efi\\" + std::string (114, 'f');   // "ls blk0:" and it: 127 characters
  fw.shell.commands.clear ();
  ShellMoveEfiFolder (fw.image, sibling.Handle (), siblingRoot, W (u"1234-abcd"), W (fake::U16 (fits).c_str ()));
  EXPECT_TRUE (Ran ("ls blk0:" + fits));
}

TEST_F (ShellMoveTest, MappingNamesGetTheirColonWithinSixteenCharacters) {
  const struct { const char16_t *in, *out; EFI_STATUS status; } rows[] = {
    { u"FS1", u"FS1:", EFI_SUCCESS }, { u"blk3:", u"blk3:", EFI_SUCCESS }, { u"ABCDEFGHIJKLMN", u"ABCDEFGHIJKLMN:", EFI_SUCCESS },
    { u"ABCDEFGHIJKLMNO", u"ABCDEFGHIJKLMNO", EFI_BUFFER_TOO_SMALL }, { u"", u"", EFI_INVALID_PARAMETER },
  };
  for (const auto &row : rows) {
    CHAR16 name[SHELL_MAP_NAME_CHARS] = {};
    std::copy (row.in, row.in + std::char_traits<char16_t>::length (row.in), name);
    EXPECT_EQ (EnsureColonSuffix (name), row.status) << Str (W (row.in));
    EXPECT_EQ (Str (name), Str (W (row.out)));
  }
}

// A whole switch from group a on the boot volume to group b on the sibling partition, and
// one whose EFI move fails: the renames of that run are taken back.
TEST_F (ShellMoveTest, SwitchToASiblingGroupAndBackOutOfAFailedMove) {
  const std::string entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });
  boot.Remove ("\\efi\\efi_b\\s-win-a.txt"), boot.Remove ("\\efi\\efi_b");
  PutGroup (boot, kA, true), PutGroup (sibling, kB, false);
  sibling.Put ("\\grp_b\\recovery.txt", "ID|s-win-b\r\nSRC|grp_b\r\nSRC_PART|1234-abcd\r\n");

  ACTIVATION_CONTEXT context = {};
  context.BootHandle = boot.Handle (), context.BootRoot = root, context.ImageHandle = fw.image;
  context.EntriesText = reinterpret_cast<CHAR8 *>(const_cast<char *>(entries.data ()));
  context.Current     = State ("bcd_a", "grp_a", "efi_a", Lower (fake::BlkidUuid ("fat32")), "FAT32");
  SetField (context.GroupId, "s-win-b");
  const auto renew = [&] {
    EFI_STATUS st = RebuildRequestedState (root, context.EntriesText, A ("s-win-b"), &context.Requested);
    SetField (context.Requested.SrcPart, uuid);   // as the source selection finds it
    if (!EFI_ERROR (st)) st = VerifySourceFsAtomic (sibling.Handle (), &context.Requested);
    return EFI_ERROR (st) ? st : RunRenewalRenames (fw.image, sibling.Handle (), siblingRoot, &context, &context.Requested);
  };
  ASSERT_EQ (RunRecoveryPhase (&context, context.EntriesText), EFI_SUCCESS);
  const auto before = sibling.Snapshot ();

  fw.faults.Add ({ Op::ShellCommand, EFI_ACCESS_DENIED, 1, "mv" });
  EXPECT_EQ (renew (), EFI_ACCESS_DENIED);
  fw.faults.Reset ();
  EXPECT_TRUE (sibling.Get ("\\boot\\bcd_b") == StoreOf (kB) && sibling.Exists ("\\grp_b\\s-win-b.txt") && sibling.Exists ("\\efi\\efi_b\\s-win-b.txt"));
  EXPECT_FALSE (sibling.Exists ("\\boot\\BCD") || sibling.Exists ("\\sources"));
  ExpectNoGroupDataLost (before, sibling, { kA, kB });

  ASSERT_EQ (renew (), EFI_SUCCESS);
  EXPECT_TRUE (Ran ("mv \"blk1:\\efi\\efi_b\"")) << "the sibling's EFI folder was not moved by the shell";
  EXPECT_EQ (sibling.Get ("\\boot\\BCD"), StoreOf (kB));
  EXPECT_TRUE (sibling.Exists ("\\sources\\s-win-b.txt") && Moved ());
  EXPECT_TRUE (boot.Exists ("\\grp_a\\s-win-a.txt") && boot.Exists ("\\efi\\efi_a\\s-win-a.txt") && boot.Get ("\\boot\\bcd_a") == StoreOf (kA));
  ExpectNoGroupDataLost (before, sibling, { kA, kB });
}

// Any single failure of a firmware call, a shell call or a shell command, through the
// move by uuid marker: nothing lost on either volume, nothing left open or allocated.
TEST (ShellMoveSweep, AnySingleFailureLosesNothing) {
  fake::Volume      *sibling = nullptr;
  EFI_FILE_PROTOCOL *root    = nullptr;
  EFI_HANDLE        image    = nullptr;
  const sweep::Scenario scenario{ "ShellMoveEfiFolder",
    [&](fake::Firmware &fw) {
      fake::Volume &boot = fw.AddVolume ();
      sibling = &fw.AddVolume (), image = fw.image;
      fw.StartFrom (boot);
      fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
      fw.SetDevicePath (sibling->Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
      boot.Put ("\\efi\\efi_b\\notes.txt", "not group b's"), sibling->Put ("\\1234-abcd.uuid", ""), sibling->Put ("\\efi\\efi_b\\s-win-b.txt", "");
      sibling->Put ("\\efi\\efi_b\\boot\\bootmgfw.efi", "boot manager of s-win-b");
      fw.shell.UseShellProtocol (true), fw.shell.UseEnvironment2 (true);
      EXPECT_EQ (OpenRoot (sibling->Handle (), &root), EFI_SUCCESS);
      return std::vector<sweep::Watched>{ { sibling, { kB } }, { &boot, { kB } } };
    },
    [&] {
      const EFI_STATUS st = ShellMoveEfiFolder (image, sibling->Handle (), root, W (u"1234-abcd"), W (u"\\efi\\efi_b"));
      if (!EFI_ERROR (st)) EXPECT_TRUE (sibling->Exists ("\\efi\\microsoft\\s-win-b.txt") && !sibling->Exists ("\\efi\\efi_b"));
      return st;
    },
    { sweep::PassedOn, EFI_DEVICE_ERROR, EFI_UNSUPPORTED, EFI_NOT_FOUND, EFI_INVALID_PARAMETER } };
  sweep::Runner (scenario).Sweep ();
}

}  // namespace
