#include "Harness.h"

#include <fs/FileAccess.h>

#include <cstring>

using fake::Op;

namespace {

class FileAccessTest : public HostTest {
 protected:
  EFI_FILE_PROTOCOL *root = nullptr;

  void SetUp () override { ASSERT_EQ (OpenRoot (boot.Handle (), &root), EFI_SUCCESS); }

  void TearDown () override
  {
    if (root != nullptr) {
      root->Close (root);
    }

    HostTest::TearDown ();
  }

  std::string Read (const char16_t *path, EFI_STATUS expected = EFI_SUCCESS)
  {
    CHAR8 *text = reinterpret_cast<CHAR8 *>(1);
    EXPECT_EQ (ReadWholeFile (root, W (path), &text), expected);
    if (text == nullptr) {
      return "<none>";
    }

    std::string out (reinterpret_cast<char *>(text));
    FreePool (text);
    return out;
  }
};

TEST_F (FileAccessTest, ReadWholeFileTerminatesAfterBytesRead)
{
  boot.Put ("\\boot\\empty", "");
  boot.Put ("\\boot\\nul", std::string ("ab\0cd", 5));
  boot.Put ("\\boot\\state", "BCD:c:\\boot\\x\r\n");
  EXPECT_EQ (Read (u"\\boot\\empty"), "");
  EXPECT_EQ (Read (u"\\boot\\nul"), "ab");
  EXPECT_EQ (Read (u"boot\\state"), "BCD:c:\\boot\\x\r\n");

  // A driver that delivers fewer bytes than the size it reported.
  boot.Put ("\\short", "0123456789");
  fw.faults.Short (Op::Read, 1);
  CHAR8 *text = nullptr;
  ASSERT_EQ (ReadWholeFile (root, W (u"\\short"), &text), EFI_SUCCESS);
  EXPECT_EQ (std::memcmp (text, "01234\0\0\0\0\0\0", 11), 0);
  FreePool (text);
}

TEST_F (FileAccessTest, ReadWholeFileFailuresLeaveNothingBehind)
{
  const struct {
    Op          op;
    EFI_STATUS  status;
    unsigned    nth;
    EFI_STATUS  result;
  } rows[] = {
    { Op::Open, EFI_NOT_FOUND, 1, EFI_NOT_FOUND },
    { Op::GetInfo, EFI_DEVICE_ERROR, 1, EFI_DEVICE_ERROR },
    { Op::GetInfo, EFI_DEVICE_ERROR, 2, EFI_DEVICE_ERROR },   // the retry at the reported size
    { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 1, EFI_OUT_OF_RESOURCES },
    { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 2, EFI_OUT_OF_RESOURCES },
    { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 3, EFI_OUT_OF_RESOURCES },
    { Op::Read, EFI_VOLUME_CORRUPTED, 1, EFI_VOLUME_CORRUPTED },
  };
  // A name long enough that its information does not fit the first 592 bytes.
  const std::string longName = "\\" + std::string (300, 'n');

  boot.Put (longName, "data");
  for (const auto &row : rows) {
    fw.faults.Reset ();
    fw.faults.Fail (row.op, row.status, row.nth);
    EXPECT_EQ (Read (fake::U16 (longName).c_str (), row.result), "<none>") << static_cast<int>(row.op) << " #" << row.nth;
    EXPECT_EQ (fw.OpenHandles (), 1) << "only the test's root stays open";
  }

  fw.faults.Reset ();
  EXPECT_EQ (Read (fake::U16 (longName).c_str ()), "data");
  EXPECT_EQ (fw.faults.Calls (Op::GetInfo), 2u);
}

TEST_F (FileAccessTest, ReadWholeFileLogsOnlyAFailedOpen)
{
  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  Read (u"\\boot\\VELMARO.COM", EFI_NOT_FOUND);
  boot.Put ("\\x", "1");
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1);
  Read (u"\\x", EFI_DEVICE_ERROR);
  CloseLog ();
  std::string log = LogText ();
  EXPECT_NE (log.find ("] Read file failed \\boot\\VELMARO.COM: Not Found (0x800000000000000E)\r\n"), std::string::npos);
  EXPECT_EQ (log.find ("Read file failed \\x"), std::string::npos);
}

TEST_F (FileAccessTest, FileExistsSeesFoldersAndPassesOpenStatus)
{
  BOOLEAN exists = TRUE;

  boot.Mkdir ("\\sources");
  EXPECT_EQ (FileExists (root, W (u"sources"), &exists), EFI_SUCCESS);
  EXPECT_TRUE (exists);
  EXPECT_EQ (FileExists (root, W (u"\\SOURCES"), &exists), EFI_SUCCESS);
  EXPECT_EQ (FileExists (root, W (u"\\boot\\BCD"), &exists), EFI_NOT_FOUND);
  EXPECT_FALSE (exists);
  fw.faults.Fail (Op::Open, EFI_DEVICE_ERROR, 1);
  EXPECT_EQ (FileExists (root, W (u"sources"), &exists), EFI_DEVICE_ERROR);
  EXPECT_FALSE (exists);
}

TEST_F (FileAccessTest, DeleteFileVerifiedProvesTheFileIsGone)
{
  const struct {
    const char  *name;
    Op          op;
    EFI_STATUS  status;
    bool        noEffect;
    EFI_STATUS  result;
    bool        stillThere;
  } rows[] = {
    { "plain", Op::Close, EFI_SUCCESS, false, EFI_SUCCESS, false },
    { "delete error", Op::Delete, EFI_MEDIA_CHANGED, false, EFI_MEDIA_CHANGED, true },
    { "warning only", Op::Delete, EFI_WARN_DELETE_FAILURE, false, EFI_DEVICE_ERROR, true },
    { "reported but not done", Op::Delete, EFI_SUCCESS, true, EFI_DEVICE_ERROR, true },
    { "fresh root fails", Op::OpenVolume, EFI_NO_MEDIA, false, EFI_NO_MEDIA, false },
    { "proof cannot open", Op::Open, EFI_DEVICE_ERROR, false, EFI_DEVICE_ERROR, false },
  };

  for (const auto &row : rows) {
    boot.Put ("\\boot\\BCD_BAK", "old");
    fw.faults.Reset ();
    if (row.op == Op::Open) {
      fw.faults.Fail (Op::Open, row.status, 2, "BCD_BAK");
    } else if (row.noEffect) {
      fw.faults.NoEffect (row.op, 1);
    } else if (row.status != EFI_SUCCESS) {
      fw.faults.Fail (row.op, row.status, 1);
    }

    EXPECT_EQ (DeleteFileVerified (boot.Handle (), root, W (u"\\boot\\BCD_BAK")), row.result) << row.name;
    EXPECT_EQ (boot.Exists ("\\boot\\BCD_BAK"), row.stillThere) << row.name;
    EXPECT_EQ (fw.OpenHandles (), 1) << row.name;
  }

  fw.faults.Reset ();
  EXPECT_EQ (DeleteFileVerified (boot.Handle (), root, W (u"\\boot\\absent")), EFI_NOT_FOUND);
  boot.Put ("\\full\\x", "1");
  EXPECT_EQ (DeleteFileVerified (boot.Handle (), root, W (u"\\full")), EFI_DEVICE_ERROR);
  EXPECT_TRUE (boot.Exists ("\\full\\x"));
}

TEST (TextWalkers, NextLineSkipsRunsOfLineEnds)
{
  const char *text = "a\r\n\r\nb";
  EXPECT_EQ (NextLine (reinterpret_cast<const CHAR8 *>(text)), reinterpret_cast<const CHAR8 *>(text + 5));
  EXPECT_EQ (NextLine (reinterpret_cast<const CHAR8 *>("a\r\n")), nullptr);
  EXPECT_EQ (NextLine (reinterpret_cast<const CHAR8 *>("")), nullptr);
  EXPECT_EQ (NextLine (nullptr), nullptr);
  const char *lf = "x\ny\rz";
  EXPECT_EQ (NextLine (NextLine (reinterpret_cast<const CHAR8 *>(lf))), reinterpret_cast<const CHAR8 *>(lf + 4));
}

TEST (TextWalkers, TrimAndWiden)
{
  const struct {
    const char  *in;
    const char  *out;
  } trims[] = {
    { " \tx y \r\n", "x y" }, { "\r\n", "" }, { "", "" }, { "abc", "abc" }, { "\t a", "a" },
  };
  for (const auto &row : trims) {
    char buffer[32];
    std::strcpy (buffer, row.in);
    TrimAsciiSpace (reinterpret_cast<CHAR8 *>(buffer));
    EXPECT_STREQ (buffer, row.out);
  }

  CHAR16 wide[4];
  EXPECT_EQ (AsciiToChar16 (wide, 4, reinterpret_cast<const CHAR8 *>("abc")), EFI_SUCCESS);
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(wide)), "abc");
  EXPECT_EQ (AsciiToChar16 (wide, 3, reinterpret_cast<const CHAR8 *>("abc")), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (AsciiToChar16 (wide, 0, reinterpret_cast<const CHAR8 *>("")), EFI_INVALID_PARAMETER);
  EXPECT_EQ (AsciiToChar16 (wide, 4, nullptr), EFI_INVALID_PARAMETER);
  const char high[] = "\xE9";
  EXPECT_EQ (AsciiToChar16 (wide, 4, reinterpret_cast<const CHAR8 *>(high)), EFI_SUCCESS);
  EXPECT_EQ (wide[0], 0xE9);   // widened without sign extension
}

TEST (TextWalkers, LeafNames)
{
  CHAR16 leaf[LEAF_NAME_CHARS];
  const struct {
    std::string  path;
    EFI_STATUS   status;
    std::string  out;
  } rows[] = {
    { "\\boot\\ X.txt ", EFI_SUCCESS, "X.txt" },
    { "c:/efi/", EFI_SUCCESS, "" },
    { "plain", EFI_SUCCESS, "plain" },
    { "\\d\\" + std::string (127, 'a'), EFI_SUCCESS, std::string (127, 'a') },
    { "\\d\\" + std::string (128, 'a'), EFI_BUFFER_TOO_SMALL, "" },
    { "\\d\\" + std::string (126, 'a') + "  ", EFI_BUFFER_TOO_SMALL, "" },   // counted before trimming
  };
  for (const auto &row : rows) {
    leaf[0] = 0;
    EXPECT_EQ (AsciiLeafNameToChar16 (leaf, reinterpret_cast<const CHAR8 *>(row.path.c_str ())), row.status) << row.path;
    if (row.status == EFI_SUCCESS) {
      EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(leaf)), row.out);
    }
  }

  EXPECT_EQ (AsciiLeafNameToChar16 (leaf, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(PathLeafName (W (u"\\efi\\microsoft")))), "microsoft");
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(PathLeafName (W (u"sources")))), "sources");
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(PathLeafName (W (u"\\efi\\")))), "");
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(PathLeafName (W (u"a/b")))), "b");
  EXPECT_EQ (*PathLeafName (nullptr), 0);
}

TEST (TextWalkers, TxtNames)
{
  EXPECT_FALSE (HasTxtSuffix (W (u".txt")));
  EXPECT_FALSE (HasTxtSuffix (W (u"A.TXT")));
  EXPECT_FALSE (HasTxtSuffix (nullptr));
  EXPECT_TRUE (HasTxtSuffix (W (u"A.txt")));

  CHAR8 stem[128];
  EXPECT_EQ (TxtNameToAscii (stem, W (u"s-win-7.txt")), EFI_SUCCESS);
  EXPECT_STREQ (reinterpret_cast<char *>(stem), "s-win-7");
  std::u16string n131 = std::u16string (127, u'k') + u".txt";
  EXPECT_EQ (TxtNameToAscii (stem, W (n131.c_str ())), EFI_SUCCESS);
  EXPECT_EQ (std::strlen (reinterpret_cast<char *>(stem)), 127u);
  std::u16string n132 = u"k" + n131;
  EXPECT_EQ (TxtNameToAscii (stem, W (n132.c_str ())), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (TxtNameToAscii (stem, W (u"a.tx")), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (TxtNameToAscii (stem, W (u"\u00e8x.txt")), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (TxtNameToAscii (stem, nullptr), EFI_INVALID_PARAMETER);
}

TEST (TextWalkers, GroupNamesCompareOnlyTheThreeNames)
{
  GROUP_STATE a, b;
  std::memset (&a, 0, sizeof (a));
  std::memset (&b, 0, sizeof (b));
  std::memcpy (a.Bcd, u"bcd1", 10);
  std::memcpy (b.Bcd, u"bcd1", 10);
  std::memcpy (a.SrcPart, u"1a2b-3c4d", 20);
  EXPECT_TRUE (GroupNamesEqual (&a, &b));
  std::memcpy (b.Efi, u"E", 4);
  EXPECT_FALSE (GroupNamesEqual (&a, &b));
  EXPECT_FALSE (GroupNamesEqual (&a, nullptr));
}

}  // namespace
