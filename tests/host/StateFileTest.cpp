#include "Harness.h"

#include <data/StateFile.h>
#include <fs/FileAccess.h>

#include <cstring>

using fake::Op;

namespace {

std::string Field (const CHAR16 *text)
{
  return fake::Narrow (reinterpret_cast<const char16_t *>(text));
}

void SetField (CHAR16 *field, const std::string &value)
{
  for (size_t i = 0; i <= value.size (); ++i) {
    field[i] = i < value.size () ? static_cast<unsigned char>(value[i]) : 0;
  }
}

GROUP_STATE State (const std::string &bcd, const std::string &src, const std::string &efi, const std::string &part = "", const std::string &fs = "")
{
  GROUP_STATE s;
  std::memset (&s, 0, sizeof (s));
  SetField (s.Bcd, bcd);
  SetField (s.Src, src);
  SetField (s.Efi, efi);
  SetField (s.SrcPart, part);
  SetField (s.SrcFs, fs);
  return s;
}

struct ParseCase {
  std::string  text;
  EFI_STATUS   status;
  std::string  bcd, src, efi, part, fs;
};

class ParseStateTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P (ParseStateTest, ReadsKeysLineByLine)
{
  const ParseCase &c    = GetParam ();
  std::string     text  = c.text;
  GROUP_STATE     state = State ("junk", "junk", "junk", "junk", "junk");

  EXPECT_EQ (ParseStateFile (reinterpret_cast<const CHAR8 *>(text.c_str ()), &state), c.status);
  EXPECT_EQ (text, c.text) << "the text is left as it was";
  if (c.status != EFI_BUFFER_TOO_SMALL) {
    EXPECT_EQ (Field (state.Bcd), c.bcd);
    EXPECT_EQ (Field (state.Src), c.src);
    EXPECT_EQ (Field (state.Efi), c.efi);
    EXPECT_EQ (Field (state.SrcPart), c.part);
    EXPECT_EQ (Field (state.SrcFs), c.fs);
  }
}

INSTANTIATE_TEST_SUITE_P (
  Texts,
  ParseStateTest,
  ::testing::Values (
    ParseCase { "BCD:c:\\boot\\bcd1\r\nSRC:c:\\src1\r\nEFI:c:\\efi\\efi1\r\n", EFI_SUCCESS, "bcd1", "src1", "efi1", "", "" },
    ParseCase { "BCD:c:/boot/bcd1\nSRC:c:/src1\rEFI:c:/efi/efi1", EFI_SUCCESS, "bcd1", "src1", "efi1", "", "" },
    ParseCase { "BCD:NotFound\r\nSRC:NotFound\r\nEFI:NotFound\r\n", EFI_NOT_FOUND, "", "", "", "", "" },
    ParseCase { "velmaro file configuration\r\n", EFI_NOT_FOUND, "", "", "", "", "" },
    ParseCase { "", EFI_NOT_FOUND, "", "", "", "", "" },
    ParseCase { "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\n", EFI_COMPROMISED_DATA, "b", "s", "", "", "" },
    ParseCase { "EFI:c:\\efi\\e\r\n", EFI_COMPROMISED_DATA, "", "", "e", "", "" },
    ParseCase { "BCD:c:\\boot\\b  \r\nSRC:s\r\nEFI:\te\r\nSRC_PART:1a2b-3c4d  \r\nSRC_FS:NTFS\r\n", EFI_SUCCESS, "b", "s", "e", "1a2b-3c4d  ", "NTFS" },
    ParseCase { "BCD:x\r\nBCD:y\r\nSRC:s\r\nEFI:e\r\n bcd:z\r\nbcd:z\r\nBCD :z\r\nno colon\r\n", EFI_SUCCESS, "y", "s", "e", "", "" },
    ParseCase { "BCD:b\r\nSRC:s\r\nEFI:e\r\nSRC_PART:" + std::string (128, 'p') + "\r\nSRC_FS:" + std::string (16, 'f') + "\r\n", EFI_SUCCESS, "b", "s", "e", "", "" },
    ParseCase { "BCD:b\r\nSRC:s\r\nEFI:e\r\nSRC_PART:" + std::string (127, 'p') + "\r\nSRC_FS:" + std::string (15, 'f') + "\r\n", EFI_SUCCESS, "b", "s", "e", std::string (127, 'p'), std::string (15, 'f') },
    ParseCase { "BCD:c:\\boot\\" + std::string (128, 'b') + "\r\nSRC:s\r\nEFI:e\r\n", EFI_BUFFER_TOO_SMALL, "", "", "", "", "" }));

TEST (FormatState, FourWrittenForms)
{
  CHAR8 text[STATE_TEXT_BYTES];
  const struct {
    GROUP_STATE  state;
    const char   *text;
  } rows[] = {
    { State ("b", "s", "e", "1a2b-3c4d", "NTFS"), "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\nEFI:c:\\efi\\e\r\nSRC_PART:1a2b-3c4d\r\nSRC_FS:NTFS\r\n" },
    { State ("b", "s", "e", "1a2b-3c4d"), "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\nEFI:c:\\efi\\e\r\nSRC_PART:1a2b-3c4d\r\n" },
    { State ("b", "s", "e", "", "exFAT"), "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\nEFI:c:\\efi\\e\r\nSRC_FS:exFAT\r\n" },
    { State ("b", "s", "e"), "BCD:c:\\boot\\b\r\nSRC:c:\\s\r\nEFI:c:\\efi\\e\r\n" },
  };

  for (const auto &row : rows) {
    ASSERT_EQ (FormatStateFile (&row.state, text), EFI_SUCCESS);
    EXPECT_STREQ (reinterpret_cast<char *>(text), row.text);
    GROUP_STATE back;
    EXPECT_EQ (ParseStateFile (text, &back), EFI_SUCCESS);
    EXPECT_EQ (std::memcmp (&back, &row.state, sizeof (back)), 0) << "round trip of " << row.text;
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
  EFI_FILE_PROTOCOL *root = nullptr;
  void SetUp () override
  {
    ASSERT_EQ (OpenRoot (boot.Handle (), &root), EFI_SUCCESS);
    ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  }

  void TearDown () override
  {
    root->Close (root);
    HostTest::TearDown ();
  }
};

TEST_F (StateFileTest, WriteReplacesAndVerifiesThenResetLeavesNoGroup)
{
  GROUP_STATE state = State ("bcd_w10", "w10", "efi_w10", "", "FAT32");

  boot.Put ("\\boot\\VELMARO.COM", std::string (600, 'x'));
  EXPECT_EQ (WriteStateFile (root, &state), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), "BCD:c:\\boot\\bcd_w10\r\nSRC:c:\\w10\r\nEFI:c:\\efi\\efi_w10\r\nSRC_FS:FAT32\r\n");
  EXPECT_EQ (ResetStateFile (root), EFI_SUCCESS);
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), "velmaro file configuration\r\n");
  CloseLog ();
  EXPECT_NE (LogText ().find ("] Verifica VELMARO.COM: Success (0x0)\r\n"), std::string::npos);
  EXPECT_NE (LogText ().find ("] Ripristino atomico: VELMARO.COM reset verificato: Success (0x0)\r\n"), std::string::npos);
}

TEST_F (StateFileTest, FailuresGiveTheirStatusAndKeepWhatTheySay)
{
  const std::string old = "BCD:c:\\boot\\previous_group_bcd\r\nSRC:c:\\previous\r\nEFI:c:\\efi\\previous\r\n";
  const struct {
    const char  *name;
    Op          op;
    EFI_STATUS  status;
    unsigned    nth;
    fake::Effect effect;
    EFI_STATUS  result;
    const char  *left;   // the state file afterwards; null: absent
  } rows[] = {
    { "old file unopenable", Op::Open, EFI_ACCESS_DENIED, 1, fake::Effect::Fail, EFI_ACCESS_DENIED, nullptr },
    { "delete error", Op::Delete, EFI_MEDIA_CHANGED, 1, fake::Effect::Fail, EFI_MEDIA_CHANGED, nullptr },
    { "delete only warns", Op::Delete, EFI_WARN_DELETE_FAILURE, 1, fake::Effect::Fail, EFI_COMPROMISED_DATA, "" },
    { "create fails", Op::Open, EFI_VOLUME_FULL, 2, fake::Effect::Fail, EFI_VOLUME_FULL, "<absent>" },
    { "write fails", Op::Write, EFI_VOLUME_FULL, 1, fake::Effect::Fail, EFI_DEVICE_ERROR, "" },
    { "short write", Op::Write, EFI_SUCCESS, 1, fake::Effect::Short, EFI_DEVICE_ERROR, "velmaro file c" },
    { "write without effect", Op::Write, EFI_SUCCESS, 1, fake::Effect::NoEffect, EFI_COMPROMISED_DATA, "" },
    { "read back fails", Op::Read, EFI_DEVICE_ERROR, 1, fake::Effect::Fail, EFI_DEVICE_ERROR, "velmaro file configuration\r\n" },
  };

  for (const auto &row : rows) {
    boot.Put ("\\boot\\VELMARO.COM", old);
    fw.faults.Reset ();
    if (row.effect == fake::Effect::Short) {
      fw.faults.Short (row.op, row.nth);
    } else if (row.effect == fake::Effect::NoEffect) {
      fw.faults.NoEffect (row.op, row.nth);
    } else {
      fw.faults.Fail (row.op, row.status, row.nth, row.op == Op::Open ? "VELMARO.COM" : "");
    }

    EXPECT_EQ (ResetStateFile (root), row.result) << row.name;
    if (row.left == nullptr) {
      EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), old) << row.name;
    } else if (std::string (row.left) == "<absent>") {
      EXPECT_FALSE (boot.Exists ("\\boot\\VELMARO.COM")) << row.name;
    } else if (*row.left != '\0') {
      EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), row.left) << row.name;
    }

    EXPECT_EQ (fw.OpenHandles (), 2) << row.name << ": only the root and the log stay open";
  }

  // The warned-but-kept old text shows behind the new one.
  fw.faults.Reset ();
  boot.Put ("\\boot\\VELMARO.COM", old);
  fw.faults.Fail (Op::Delete, EFI_WARN_DELETE_FAILURE, 1);
  EXPECT_EQ (ResetStateFile (root), EFI_COMPROMISED_DATA);
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM").substr (0, 28), "velmaro file configuration\r\n");
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM").size (), old.size ());
  CloseLog ();
  EXPECT_NE (LogText ().find ("] Ripristino atomico: VELMARO.COM reset verificato: Compromised Data (0x8000000000000021)\r\n"), std::string::npos);
}

TEST_F (StateFileTest, UnwritableNameLeavesTheFileUntouched)
{
  GROUP_STATE state = State ("b", "s", "e");
  state.Efi[0]      = 0x100;
  boot.Put ("\\boot\\VELMARO.COM", "keep");
  fw.faults.Reset ();
  EXPECT_EQ (WriteStateFile (root, &state), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (boot.Get ("\\boot\\VELMARO.COM"), "keep");
  EXPECT_EQ (fw.faults.Calls (Op::Open), 0u);
}

}  // namespace
