#include "Harness.h"

#include <data/StateFile.h>

namespace {

TEST (ParseState, ReadsKeysLineByLine) {
  const struct { std::string text; EFI_STATUS status; std::string bcd, src, efi, part, fs; } rows[] = {
    { "BCD:c:\\boot\\bcd1\r\nSRC:c:\\src1\r\nEFI:c:\\efi\\efi1\r\n", EFI_SUCCESS, "bcd1", "src1", "efi1", "", "" },
    { "BCD:c:/boot/bcd1\nSRC:c:/src1\rEFI:c:/efi/efi1", EFI_SUCCESS, "bcd1", "src1", "efi1", "", "" },
    { "BCD:NotFound\r\nSRC:NotFound\r\nEFI:NotFound\r\n", EFI_NOT_FOUND, "", "", "", "", "" },
    { "velmaro file configuration\r\n", EFI_NOT_FOUND, "", "", "", "", "" }, { "", EFI_NOT_FOUND, "", "", "", "", "" },
    { "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\n", EFI_COMPROMISED_DATA, "b", "s", "", "", "" },
    { "EFI:c:\\efi\\e\r\n", EFI_COMPROMISED_DATA, "", "", "e", "", "" },
    { "BCD:c:\\boot\\b  \r\nSRC:s\r\nEFI:\te\r\nSRC_PART:1a2b-3c4d  \r\nSRC_FS:NTFS\r\n", EFI_SUCCESS, "b", "s", "e", "1a2b-3c4d  ", "NTFS" },
    { "BCD:x\r\nBCD:y\r\nSRC:s\r\nEFI:e\r\n bcd:z\r\nbcd:z\r\nBCD :z\r\nno colon\r\n", EFI_SUCCESS, "y", "s", "e", "", "" },
    { "BCD:b\r\nSRC:s\r\nEFI:e\r\nSRC_PART:" + std::string (128, 'p') + "\r\nSRC_FS:" + std::string (16, 'f') + "\r\n", EFI_SUCCESS, "b", "s", "e", "", "" },
    { "BCD:b\r\nSRC:s\r\nEFI:e\r\nSRC_PART:" + std::string (127, 'p') + "\r\nSRC_FS:" + std::string (15, 'f') + "\r\n", EFI_SUCCESS, "b", "s", "e",
      std::string (127, 'p'), std::string (15, 'f') },
    { "BCD:c:\\boot\\" + std::string (128, 'b') + "\r\nSRC:s\r\nEFI:e\r\n", EFI_BUFFER_TOO_SMALL, "", "", "", "", "" },
  };
  for (const auto &row : rows) {
    std::string text  = row.text;
    GROUP_STATE state = State ("junk", "junk", "junk", "junk", "junk");
    EXPECT_EQ (ParseStateFile (A (text), &state), row.status) << row.text;
    EXPECT_EQ (text, row.text) << "the text is left as it was";
    if (row.status == EFI_BUFFER_TOO_SMALL) continue;
    EXPECT_EQ ((std::vector<std::string>{ Str (state.Bcd), Str (state.Src), Str (state.Efi), Str (state.SrcPart), Str (state.SrcFs) }),
               (std::vector<std::string>{ row.bcd, row.src, row.efi, row.part, row.fs })) << row.text;
  }
}

TEST (FormatState, FourWrittenForms) {
  CHAR8 text[STATE_TEXT_BYTES];
  const std::string names = "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\nEFI:c:\\efi\\e\r\n";
  const std::pair<GROUP_STATE, std::string> rows[] = {
    { State ("b", "s", "e", "1a2b-3c4d", "NTFS"), names + "SRC_PART:1a2b-3c4d\r\nSRC_FS:NTFS\r\n" },
    { State ("b", "s", "e", "1a2b-3c4d"), names + "SRC_PART:1a2b-3c4d\r\n" },
    { State ("b", "s", "e", "", "exFAT"), names + "SRC_FS:exFAT\r\n" },
    { State ("b", "s", "e"), names },
  };
  for (const auto &[state, expected] : rows) {
    ASSERT_EQ (FormatStateFile (&state, text), EFI_SUCCESS);
    EXPECT_EQ (Str (text), expected);
    GROUP_STATE back;
    EXPECT_EQ (ParseStateFile (text, &back), EFI_SUCCESS);
    EXPECT_EQ (std::memcmp (&back, &state, sizeof (back)), 0) << "round trip of " << expected;
  }

  GROUP_STATE accented = State ("b", "s", "e");
  accented.Src[0] = 0xE8;
  EXPECT_EQ (FormatStateFile (&accented, text), EFI_BUFFER_TOO_SMALL);
  CHAR8 narrow[4];
  EXPECT_EQ (NarrowToAscii (narrow, 4, W (u"abcd")), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (NarrowToAscii (narrow, 4, W (u"abc")), EFI_SUCCESS);
  EXPECT_EQ (NarrowToAscii (narrow, 0, W (u"")), EFI_INVALID_PARAMETER);
}

class StateFileTest : public HostTest {
 protected:
  void SetUp () override { OpenBoot (true); }
};

TEST_F (StateFileTest, WriteReplacesAndVerifiesThenResetLeavesNoGroup) {
  GROUP_STATE state = State ("bcd_w10", "w10", "efi_w10", "", "FAT32");

  boot.Put ("\\boot\\VELMARO.COM", std::string (600, 'x'));
  EXPECT_EQ (WriteStateFile (root, &state), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), "BCD:c:\\boot\\bcd_w10\r\nSRC:c:\\w10\r\nEFI:c:\\efi\\efi_w10\r\nSRC_FS:FAT32\r\n");
  EXPECT_EQ (ResetStateFile (root), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), "velmaro file configuration\r\n");
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] Verifica VELMARO.COM: Success (0x0)\r\n"));
  EXPECT_TRUE (Has (log, "] Ripristino atomico: VELMARO.COM reset verificato: Success (0x0)\r\n"));
}

TEST_F (StateFileTest, FailuresGiveTheirStatusAndKeepWhatTheySay) {
  const std::string old = "BCD:c:\\boot\\previous_group_bcd\r\nSRC:c:\\previous\r\nEFI:c:\\efi\\previous\r\n";
  const std::string reset = "velmaro file configuration\r\n";
  // left: the state file afterwards, "<absent>" for none
  const struct { const char *name; fake::Fault fault; EFI_STATUS result; std::string left; } rows[] = {
    { "old file unopenable", { Op::Open, EFI_ACCESS_DENIED, 1, "VELMARO.COM" }, EFI_ACCESS_DENIED, old },
    { "delete error", { Op::Delete, EFI_MEDIA_CHANGED, 1 }, EFI_MEDIA_CHANGED, old },
    // Warned but kept: the new text over the old one's start, the old tail behind it.
    { "delete only warns", { Op::Delete, EFI_WARN_DELETE_FAILURE, 1 }, EFI_COMPROMISED_DATA, reset + old.substr (reset.size ()) },
    { "create fails", { Op::Open, EFI_VOLUME_FULL, 2, "VELMARO.COM" }, EFI_VOLUME_FULL, "<absent>" },
    { "write fails", { Op::Write, EFI_VOLUME_FULL, 1 }, EFI_DEVICE_ERROR, "" },
    { "short write", { Op::Write, 0, 1, "", Effect::Short }, EFI_DEVICE_ERROR, "velmaro file c" },
    { "write without effect", { Op::Write, 0, 1, "", Effect::NoEffect }, EFI_COMPROMISED_DATA, "" },
    { "read back fails", { Op::Read, EFI_DEVICE_ERROR, 1 }, EFI_DEVICE_ERROR, reset },
  };

  for (const auto &row : rows) {
    boot.Put ("\\boot\\VELMARO.COM", old);
    fw.faults.Set (row.fault);
    EXPECT_EQ (ResetStateFile (root), row.result) << row.name;
    EXPECT_EQ (boot.Exists ("\\boot\\VELMARO.COM") ? boot.Get ("\\boot\\VELMARO.COM") : "<absent>", row.left) << row.name;
    EXPECT_EQ (fw.OpenHandles (), 2) << row.name << ": only the root and the log stay open";
  }
  EXPECT_TRUE (Has (Log (), "] Ripristino atomico: VELMARO.COM reset verificato: Compromised Data (0x8000000000000021)\r\n"));
}

// A record that cannot be written whole is not written at all: a cut SRC_PART would
// name no partition for good.
TEST_F (StateFileTest, UnwritableStateLeavesTheFileUntouched) {
  const std::string name (127, 'n');
  GROUP_STATE       fits = State (name, name, name, std::string (70, 'u'), "NTFS"), over = fits, wide = State ("b", "s", "e");
  SetField (over.SrcPart, std::string (71, 'u'));
  wide.Efi[0] = 0x100;

  CHAR8 text[STATE_TEXT_BYTES];
  ASSERT_EQ (FormatStateFile (&fits, text), EFI_SUCCESS);
  EXPECT_EQ (Str (text).size (), STATE_TEXT_BYTES - 1u);
  EXPECT_EQ (Str (text).substr (Str (text).size () - 15), "\r\nSRC_FS:NTFS\r\n");
  for (const GROUP_STATE &state : { over, wide }) {
    boot.Put ("\\boot\\VELMARO.COM", "keep");
    fw.faults.Reset ();
    EXPECT_EQ (WriteStateFile (root, &state), EFI_BUFFER_TOO_SMALL);
    EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), "keep");
    EXPECT_EQ (fw.faults.Calls (Op::Open), 0u);
  }
}

}  // namespace
