// The fake's shell against the FAT driver's volumes: names in device-path order and an
// update that keeps them, all of a device's names in one answer, mv as the shell's own
// (into a folder, its refusals, entries without a date, between volumes), and the call's
// status apart from the command's.
#include <gtest/gtest.h>

#include <map>

#include "fake/Firmware.h"

namespace {

std::vector<uint8_t> Usb (uint8_t port, uint32_t partition) { return fake::WithMbrPartition (fake::UsbDiskPath (port), partition, 0x1234); }
auto *PathOf (fake::Firmware &fw, fake::Volume &v) { return static_cast<EFI_DEVICE_PATH_PROTOCOL *>(fw.Find (v.Handle (), gEfiDevicePathProtocolGuid)); }

// GetMapFromDevicePath's answer ("" for none); it stays the shell's.
std::string MapOf (fake::Firmware &fw, fake::Volume &volume) {
  EFI_DEVICE_PATH_PROTOCOL *walk  = PathOf (fw, volume);
  const CHAR16             *names = fw.shell.protocol.GetMapFromDevicePath (&walk);
  const std::string        text   = names == nullptr ? "" : fake::Narrow (reinterpret_cast<const char16_t *>(names));
  if (names != nullptr) EXPECT_EQ (walk->Type, END_DEVICE_PATH_TYPE) << "left at the End node";
  return text;
}

EFI_STATUS Execute (fake::Firmware &fw, const char16_t *line, EFI_STATUS *code) {
  EFI_HANDLE parent = fw.image;
  return fw.shell.protocol.Execute (&parent, fake::C16 (line), nullptr, code);
}

TEST (ShellModelTest, NamesFollowDevicePathTextAndAnUpdateKeepsThem) {
  fake::Firmware fw;
  fake::Volume   &a = fw.AddVolume (), &b = fw.AddVolume (), &c = fw.AddVolume ();
  fw.SetDevicePath (a.Handle (), Usb (2, 2));
  fw.SetDevicePath (b.Handle (), Usb (2, 10));   // "HD(10," comes before "HD(2,"
  fw.SetDevicePath (c.Handle (), Usb (16, 1));   // "USB(0x10," before "USB(0x2,"
  fw.shell.UseShellProtocol (true);
  const size_t pool = fake::Firmware::LivePool ();
  EXPECT_EQ (MapOf (fw, c), "FS0:;HD0q0b:;BLK0:");
  EXPECT_EQ (MapOf (fw, b), "FS1:;HD0c0k:;BLK1:");
  EXPECT_EQ (MapOf (fw, a), "FS2:;HD0c0c:;BLK2:");
  EXPECT_EQ (fake::Firmware::LivePool (), pool);
  fake::Volume &d = fw.AddVolume ();
  fw.SetDevicePath (d.Handle (), Usb (1, 1));
  EFI_STATUS code = EFI_ABORTED;
  EXPECT_EQ (Execute (fw, u"map -u", &code), EFI_SUCCESS);
  EXPECT_EQ (code, EFI_SUCCESS);
  EXPECT_EQ (MapOf (fw, d), "") << "a nested shell's update goes with it";
  fw.shell.nested = false;
  EXPECT_EQ (Execute (fw, u"MAP -u", &code), EFI_SUCCESS);
  EXPECT_EQ (MapOf (fw, d), "FS3:;HD0b0b:") << "no block device is named by an update";
  EXPECT_EQ (MapOf (fw, c), "FS0:;HD0q0b:;BLK0:");
  EXPECT_EQ (Execute (fw, u"fs3:", &code), EFI_SUCCESS);
  EXPECT_EQ (fw.shell.cwd, "FS3:\\");
  fw.shell.Start ();
  EXPECT_EQ (MapOf (fw, d), "FS0:;HD0b0b:;BLK0:");
}

// after: "<volume><path>" -> its bytes, "<dir>", or "" for gone
struct MvRow { const char *name, *cwd; const char16_t *line; EFI_STATUS status; std::map<std::string, std::string> after; };

TEST (ShellModelTest, MvMovesAsTheShellDoes) {
  const MvRow rows[] = {
    { "into an existing folder", "", u"mv fs0:\\efi fs0:\\old", EFI_SUCCESS, { { "0\\old\\efi\\boot\\x", "x" }, { "0\\efi", "" } } },
    { "renamed, quoted, any case", "", u"mv \"FS0:\\efi\" \"fs0:\\new\"", EFI_SUCCESS, { { "0\\new\\boot\\x", "x" }, { "0\\efi", "" } } },
    { "relative to the current folder", "FS0:\\", u"mv efi new", EFI_SUCCESS, { { "0\\new\\boot\\x", "x" }, { "0\\efi", "" } } },
    { "\\ names the folder itself", "FS0:\\", u"mv efi \\old", EFI_ACCESS_DENIED, {} },
    { "entry without a date", "", u"mv fs0:\\zero fs0:\\new", EFI_INVALID_PARAMETER, {} },
    { "holds the current folder", "FS0:\\efi\\boot", u"mv fs0:\\efi fs0:\\new", EFI_INVALID_PARAMETER, {} },
    { "into itself", "", u"mv fs0:\\efi fs0:\\efi\\boot", EFI_INVALID_PARAMETER, {} },
    { "between volumes", "", u"mv fs0:\\efi fs1:\\efi", EFI_SUCCESS, { { "1\\efi\\boot\\x", "x" }, { "0\\efi", "" } } },
    { "without a date, between volumes", "", u"mv fs0:\\zero fs1:\\zero", EFI_SUCCESS, { { "1\\zero\\z", "z" }, { "0\\zero", "" } } },
    { "missing source", "", u"mv fs0:\\nope fs0:\\new", EFI_NOT_FOUND, {} },
    { "ls of a file", "", u"ls fs0:\\efi\\boot\\x", EFI_SUCCESS, {} },
    { "ls of nothing", "", u"ls fs1:\\efi", EFI_NOT_FOUND, {} },
    { "unknown mapping", "", u"fs9:", EFI_NOT_FOUND, {} },
    { "unknown command", "", u"frobnicate", EFI_NOT_FOUND, {} },
  };
  for (const MvRow &row : rows) {
    SCOPED_TRACE (row.name);
    fake::Firmware fw;
    fake::Volume   *volumes[] = { &fw.AddVolume (), &fw.AddVolume () };
    fw.SetDevicePath (volumes[0]->Handle (), Usb (1, 1));
    fw.SetDevicePath (volumes[1]->Handle (), Usb (2, 1));
    volumes[0]->Put ("\\efi\\boot\\x", "x");
    volumes[0]->Mkdir ("\\old");
    const EFI_TIME now = std::exchange (fw.now, EFI_TIME{});   // the driver's clock reads zero: entries get no valid date
    volumes[0]->Put ("\\zero\\z", "z");
    fw.now = now;
    fw.shell.UseShellProtocol (true);
    fw.shell.cwd = row.cwd;
    const auto before = std::make_pair (volumes[0]->Snapshot (), volumes[1]->Snapshot ());
    EFI_STATUS code   = EFI_ABORTED;
    EXPECT_EQ (Execute (fw, row.line, &code), EFI_SUCCESS);
    EXPECT_EQ (code, row.status);
    EXPECT_EQ (fw.shell.commands, std::vector<std::string>{ fake::Narrow (row.line) });
    for (const auto &[where, bytes] : row.after) {
      const auto shown = volumes[where[0] - '0']->Snapshot ();
      EXPECT_EQ (shown.count (where.substr (1)) != 0 ? shown.at (where.substr (1)) : "", bytes) << where;
    }
    if (row.status != EFI_SUCCESS) EXPECT_EQ (std::make_pair (volumes[0]->Snapshot (), volumes[1]->Snapshot ()), before) << "changed by a failed command";
  }
}

TEST (ShellModelTest, CallAndCommandStatusesStayApartAndTheOlderShellAnswersAsAssumed) {
  fake::Firmware fw;
  fake::Volume   &volume = fw.AddVolume ();
  fw.SetDevicePath (volume.Handle (), Usb (1, 1));
  volume.Put ("\\efi\\x", "x");
  fw.shell.UseShellProtocol (true), fw.shell.UseEnvironment2 (true);
  fw.faults.Fail (fake::Op::ShellExecute, EFI_OUT_OF_RESOURCES, 1);
  fw.faults.Fail (fake::Op::ShellCommand, EFI_ACCESS_DENIED, 0, "mv");
  EFI_STATUS code = EFI_ABORTED;
  EXPECT_EQ (Execute (fw, u"mv fs0:\\efi fs0:\\new", &code), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ (code, EFI_ABORTED) << "a call that failed reports no command status";
  EXPECT_EQ (Execute (fw, u"mv fs0:\\efi fs0:\\new", &code), EFI_SUCCESS);
  EXPECT_EQ (code, EFI_ACCESS_DENIED);
  EXPECT_EQ (fw.shell.commands, std::vector<std::string>{ "mv fs0:\\efi fs0:\\new" });
  EFI_HANDLE parent = fw.image;
  EXPECT_EQ (fw.shell.environment2.Execute (&parent, fake::C16 (u"mv fs0:\\efi fs0:\\new"), FALSE), EFI_INVALID_PARAMETER) << "it takes the handle itself";
  EXPECT_EQ (fw.shell.environment2.Execute (static_cast<EFI_HANDLE *>(parent), fake::C16 (u"mv fs0:\\efi fs0:\\new"), FALSE), EFI_ACCESS_DENIED);
  EXPECT_TRUE (volume.Exists ("\\efi\\x"));
  fw.faults.Reset ();
  EXPECT_EQ (fw.shell.environment2.Execute (static_cast<EFI_HANDLE *>(parent), fake::C16 (u"mv fs0:\\efi fs0:\\new"), FALSE), EFI_SUCCESS);
  EXPECT_EQ (volume.Get ("\\new\\x"), "x");

  const size_t pool = fake::Firmware::LivePool ();
  for (const auto &[consistent, expected] : { std::make_pair (TRUE, "hd0b0b"), std::make_pair (FALSE, "fs0") }) {
    CHAR16 *name = nullptr;
    ASSERT_EQ (fw.shell.environment2.GetFsName (PathOf (fw, volume), static_cast<BOOLEAN>(consistent), &name), EFI_SUCCESS);
    EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(name)), expected);
    FreePool (name);
  }
  LIST_ENTRY list;
  InitializeListHead (&list);
  EXPECT_EQ (fw.shell.environment2.FileMetaArgNoWildCard (fake::C16 (u"FS0:\\new\\.\\x"), &list), EFI_SUCCESS);
  EXPECT_EQ (fw.shell.environment2.FileMetaArgNoWildCard (fake::C16 (u"fs0:\\efi"), &list), EFI_SUCCESS);
  const auto *there = BASE_CR (list.ForwardLink, SHELL_FILE_ARG, Link), *gone = BASE_CR (list.BackLink, SHELL_FILE_ARG, Link);
  EXPECT_EQ (there->Status, EFI_SUCCESS);
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(there->FullName)), "fs0:\\new\\x");
  EXPECT_EQ (there->Info->FileSize, 1u);
  EXPECT_EQ (gone->Status, EFI_NOT_FOUND);
  EXPECT_EQ (gone->Handle, nullptr);
  EXPECT_EQ (fw.shell.environment2.FreeFileList (&list), EFI_SUCCESS);
  EXPECT_TRUE (IsListEmpty (&list));
  EXPECT_EQ (fake::Firmware::LivePool (), pool);
}

}  // namespace
