#include "Harness.h"

namespace {

class FileAccessTest : public HostTest {
 protected:
  void SetUp () override { OpenBoot (); }

  // ReadWholeFile's text, or "<none>" when it handed back no buffer.
  std::string Read (const std::string &path, EFI_STATUS expected = EFI_SUCCESS) {
    CHAR8 *text = reinterpret_cast<CHAR8 *>(1);
    EXPECT_EQ (ReadWholeFile (root, W (fake::U16 (path).c_str ()), &text), expected) << path;
    std::string out = text == nullptr ? "<none>" : Str (text);
    FreePool (text);
    return out;
  }
};

TEST_F (FileAccessTest, ReadWholeFileTerminatesAfterBytesRead) {
  boot.Put ("\\boot\\empty", ""), boot.Put ("\\boot\\nul", std::string ("ab\0cd", 5)), boot.Put ("\\boot\\state", "BCD:c:\\boot\\x\r\n");
  EXPECT_EQ (Read ("\\boot\\empty"), "");
  EXPECT_EQ (Read ("\\boot\\nul"), "ab");
  EXPECT_EQ (Read ("boot\\state"), "BCD:c:\\boot\\x\r\n");

  // A driver that delivers fewer bytes than the size it reported.
  boot.Put ("\\short", "0123456789"), fw.faults.Add ({ Op::Read, 0, 1, "", Effect::Short });
  CHAR8 *text = nullptr;
  ASSERT_EQ (ReadWholeFile (root, W (u"\\short"), &text), EFI_SUCCESS);
  EXPECT_EQ (std::memcmp (text, "01234\0\0\0\0\0\0", 11), 0);
  FreePool (text);
}

TEST_F (FileAccessTest, ReadWholeFileFailuresLeaveNothingBehind) {
  // The second GetInfo is the retry at the reported size.
  const fake::Fault rows[] = { { Op::Open, EFI_NOT_FOUND, 1 }, { Op::GetInfo, EFI_DEVICE_ERROR, 1 }, { Op::GetInfo, EFI_DEVICE_ERROR, 2 },
                               { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 1 }, { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 2 },
                               { Op::AllocatePool, EFI_OUT_OF_RESOURCES, 3 }, { Op::Read, EFI_VOLUME_CORRUPTED, 1 } };
  // Information that does not fit the first 592 bytes, as NTFS answers for a name longer
  // than FAT's 255 characters: the driver's answer comes from a fault.
  const std::string longName = "\\" + std::string (255, 'n');
  fake::Volume      &other   = fw.AddVolume (fake::Fs::Ntfs);
  other.Put (longName, "data");
  root->Close (root);
  ASSERT_EQ (OpenRoot (other.Handle (), &root), EFI_SUCCESS);
  for (const auto &row : rows) {
    fw.faults.Set (row), fw.faults.Fail (Op::GetInfo, EFI_BUFFER_TOO_SMALL, 1, longName);
    EXPECT_EQ (Read (longName, row.status), "<none>") << static_cast<int>(row.op) << " #" << row.nth;
    EXPECT_EQ (fw.OpenHandles (), 1) << "only the test's root stays open";
  }
  fw.faults.Set ({ Op::GetInfo, EFI_BUFFER_TOO_SMALL, 1, longName });
  EXPECT_EQ (Read (longName), "data");
  EXPECT_EQ (fw.faults.Calls (Op::GetInfo), 2u);
}

TEST_F (FileAccessTest, ReadWholeFileLogsOnlyAFailedOpen) {
  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  Read ("\\boot\\VELMARO.COM", EFI_NOT_FOUND);
  boot.Put ("\\x", "1"), fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1);
  Read ("\\x", EFI_DEVICE_ERROR);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] Read file failed \\boot\\VELMARO.COM: Not Found (0x800000000000000E)\r\n"));
  EXPECT_FALSE (Has (log, "Read file failed \\x"));
}

TEST_F (FileAccessTest, FileExistsSeesFoldersAndPassesOpenStatus) {
  BOOLEAN exists = TRUE;
  boot.Mkdir ("\\sources");
  EXPECT_EQ (FileExists (root, W (u"sources"), &exists), EFI_SUCCESS);
  EXPECT_TRUE (exists);
  EXPECT_EQ (FileExists (root, W (u"\\SOURCES"), &exists), EFI_SUCCESS);
  boot.writeProtected = true;   // a dirty stick mounted read-only still shows what it holds
  EXPECT_EQ (FileExists (root, W (u"sources"), &exists), EFI_SUCCESS);
  boot.writeProtected = false;
  EXPECT_EQ (FileExists (root, W (u"\\boot\\BCD"), &exists), EFI_NOT_FOUND);
  EXPECT_FALSE (exists);
  fw.faults.Fail (Op::Open, EFI_DEVICE_ERROR, 1);
  EXPECT_EQ (FileExists (root, W (u"sources"), &exists), EFI_DEVICE_ERROR);
  EXPECT_FALSE (exists);
}

TEST_F (FileAccessTest, DeleteFileVerifiedProvesTheFileIsGone) {
  const struct { const char *name; fake::Fault fault; EFI_STATUS result; bool stillThere; } rows[] = {
    { "plain", {}, EFI_SUCCESS, false },
    { "delete error", { Op::Delete, EFI_MEDIA_CHANGED, 1 }, EFI_MEDIA_CHANGED, true },
    { "warning only", { Op::Delete, EFI_WARN_DELETE_FAILURE, 1 }, EFI_DEVICE_ERROR, true },
    { "reported but not done", { Op::Delete, 0, 1, "", Effect::NoEffect }, EFI_DEVICE_ERROR, true },
    { "fresh root fails", { Op::OpenVolume, EFI_NO_MEDIA, 1 }, EFI_NO_MEDIA, false },
    { "proof cannot open", { Op::Open, EFI_DEVICE_ERROR, 2, "BCD_BAK" }, EFI_DEVICE_ERROR, false },
  };

  for (const auto &row : rows) {
    boot.Put ("\\boot\\BCD_BAK", "old"), fw.faults.Set (row.fault);
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

TEST (TextWalkers, TrimAndWiden) {
  for (const auto &[in, out] : std::vector<std::pair<std::string, std::string>>{
         { " \tx y \r\n", "x y" }, { "\r\n", "" }, { "", "" }, { "abc", "abc" }, { "\t a", "a" } }) {
    std::string buffer = in;
    TrimAsciiSpace (reinterpret_cast<CHAR8 *>(buffer.data ()));
    EXPECT_EQ (buffer.c_str (), out);
  }

  CHAR16 wide[4];
  EXPECT_EQ (AsciiToChar16 (wide, 4, A ("abc")), EFI_SUCCESS);
  EXPECT_EQ (Str (wide), "abc");
  EXPECT_EQ (AsciiToChar16 (wide, 3, A ("abc")), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (wide[0], 0) << "a cut copy must not read as a name";
  EXPECT_EQ (AsciiToChar16 (wide, 0, A ("")), EFI_INVALID_PARAMETER);
  EXPECT_EQ (AsciiToChar16 (wide, 4, A ("\xE9")), EFI_SUCCESS);
  EXPECT_EQ (wide[0], 0xE9);   // widened without sign extension
}

TEST (TextWalkers, LeafNames) {
  CHAR16 leaf[LEAF_NAME_CHARS];
  const struct { std::string path; EFI_STATUS status; std::string out; } rows[] = {
    { "\\boot\\ X.txt ", EFI_SUCCESS, "X.txt" }, { "c:/efi/", EFI_SUCCESS, "" }, { "plain", EFI_SUCCESS, "plain" },
    { "\\d\\" + std::string (127, 'a'), EFI_SUCCESS, std::string (127, 'a') },
    { "\\d\\" + std::string (128, 'a'), EFI_BUFFER_TOO_SMALL, "" },
    { "\\d\\" + std::string (126, 'a') + "  ", EFI_BUFFER_TOO_SMALL, "" },   // counted before trimming
  };
  for (const auto &row : rows) {
    leaf[0] = 0;
    EXPECT_EQ (AsciiLeafNameToChar16 (leaf, A (row.path)), row.status) << row.path;
    EXPECT_EQ (Str (leaf), row.out) << row.path;
  }
  for (const auto &[path, expected] : std::vector<std::pair<const char16_t *, std::string>>{
         { u"\\efi\\microsoft", "microsoft" }, { u"sources", "sources" }, { u"\\efi\\", "" }, { u"a/b", "b" } }) {
    EXPECT_EQ (Str (PathLeafName (W (path))), expected);
  }
  EXPECT_EQ (*PathLeafName (nullptr), 0);
}

TEST (TextWalkers, TxtNames) {
  EXPECT_FALSE (HasTxtSuffix (W (u".txt")));
  EXPECT_FALSE (HasTxtSuffix (W (u"A.TXT")));
  EXPECT_FALSE (HasTxtSuffix (W (u"s-win-atxt")));
  EXPECT_FALSE (HasTxtSuffix (nullptr));
  EXPECT_TRUE (HasTxtSuffix (W (u"A.txt")));

  CHAR8                stem[128];
  const std::u16string n131 = std::u16string (127, u'k') + u".txt", n132 = u"k" + n131;
  EXPECT_EQ (TxtNameToAscii (stem, W (u"s-win-7.txt")), EFI_SUCCESS);
  EXPECT_EQ (Str (stem), "s-win-7");
  EXPECT_EQ (TxtNameToAscii (stem, W (n131.c_str ())), EFI_SUCCESS);
  EXPECT_EQ (Str (stem), std::string (127, 'k'));
  EXPECT_EQ (TxtNameToAscii (stem, W (n132.c_str ())), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (TxtNameToAscii (stem, W (u"a.tx")), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (TxtNameToAscii (stem, W (u"\u00e8x.txt")), EFI_BUFFER_TOO_SMALL);
}

TEST (TextWalkers, GroupNamesCompareOnlyTheThreeNames) {
  GROUP_STATE a = State ("bcd1", "", "", "1a2b-3c4d"), b = State ("bcd1");
  EXPECT_TRUE (GroupNamesEqual (&a, &b));
  SetField (b.Efi, "E");
  EXPECT_FALSE (GroupNamesEqual (&a, &b));
  EXPECT_FALSE (GroupNamesEqual (&a, nullptr));
}

}  // namespace
