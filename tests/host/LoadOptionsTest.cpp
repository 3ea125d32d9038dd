#include "Harness.h"

#include <app/LoadOptions.h>

#include <tuple>

namespace {

using LoadOptionsTest = HostTest;

TEST_F (LoadOptionsTest, GroupIdIsTheFirstGroupToken) {
  const std::tuple<std::u16string, EFI_STATUS, std::string> rows[] = {
    { u"s-win-abc", EFI_SUCCESS, "s-win-abc" }, { u"Velmaro.efi s-win-abc%%", EFI_SUCCESS, "s-win-abc" },
    { u"\"s-win-abc\"", EFI_SUCCESS, "s-win-abc" }, { u"x\ts-win-a s-win-b", EFI_SUCCESS, "s-win-a" }, { u"s-win-", EFI_SUCCESS, "s-win-" },
    { u"S-WIN-abc xs-win-abc s-winabc s-wi", EFI_NOT_FOUND, "" }, { u"", EFI_NOT_FOUND, "" },
    { u"s-win-" + std::u16string (121, u'x'), EFI_SUCCESS, "s-win-" + std::string (121, 'x') },
    { u"s-win-" + std::u16string (122, u'x'), EFI_BUFFER_TOO_SMALL, "" },
  };
  for (const auto &[options, status, id] : rows) {
    CHAR16 out[GROUP_ID_CHARS] = { L'?' };
    fw.SetLoadOptions (options);
    EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, out), status) << fake::Narrow (options);
    EXPECT_EQ (Str (out), id) << fake::Narrow (options);
  }
}

TEST_F (LoadOptionsTest, OddLengthIsReadUpToLastWholeCharacter) {
  const char16_t text[] = u"s-win-abc";
  CHAR16         id[GROUP_ID_CHARS];

  fw.SetLoadOptionBytes (std::vector<uint8_t>(reinterpret_cast<const uint8_t *>(text), reinterpret_cast<const uint8_t *>(text) + 17));
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), EFI_SUCCESS);
  EXPECT_EQ (Str (id), "s-win-ab");
  fw.SetLoadOptionBytes ({ 's' });
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), EFI_NOT_FOUND);
  EXPECT_EQ (ChooseRunMode (&fw.loadedImage), RunMode::Fat32Legacy);
}

TEST_F (LoadOptionsTest, RunModeWordsAreWholeTokens) {
  const std::pair<const char16_t *, RunMode> rows[] = {
    { u"auto ntfs-test s-win-a", RunMode::NtfsTest }, { u"\"auto\" s-win-a", RunMode::Auto },
    { u"ntfs-tests autos AUTO", RunMode::Fat32Legacy }, { u"", RunMode::Fat32Legacy },
  };
  for (const auto &[options, mode] : rows) {
    fw.SetLoadOptions (options);
    EXPECT_EQ (ChooseRunMode (&fw.loadedImage), mode) << fake::Narrow (options);
  }
  EXPECT_EQ (ChooseRunMode (nullptr), RunMode::Fat32Legacy);
}

TEST_F (LoadOptionsTest, ArgumentAndMemoryFailures) {
  CHAR16 id[GROUP_ID_CHARS] = { L'?' };
  fw.SetLoadOptions (u"auto s-win-a");
  fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES);
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ (id[0], L'\0');
  EXPECT_FALSE (HasLoadOptionWord (&fw.loadedImage, W (u"auto")));
}

TEST_F (LoadOptionsTest, KeyWaitPromptsAndReadsOneKey) {
  fw.faults.Fail (Op::ReadKeyStroke, EFI_NOT_READY);
  WaitForKeyPress ();
  EXPECT_EQ (fw.keyWaits, 1u);
  EXPECT_EQ (fw.keyReads, 1u);
  EXPECT_TRUE (Has (Console (), "[+00000000 ms] \r\nPremere un tasto per continuare...\r\n"));
}

}  // namespace
