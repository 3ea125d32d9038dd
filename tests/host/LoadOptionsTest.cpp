#include "Harness.h"

#include <app/LoadOptions.h>

using fake::Op;

namespace {

struct GroupIdCase {
  const char16_t  *options;
  EFI_STATUS      status;
  std::string     id;
};

class GroupIdTest : public HostTest, public ::testing::WithParamInterface<GroupIdCase> {};

TEST_P (GroupIdTest, TakesFirstGroupToken)
{
  const GroupIdCase &c = GetParam ();
  CHAR16            id[GROUP_ID_CHARS];

  fw.SetLoadOptions (c.options);
  id[0] = L'?';
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), c.status);
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(id)), c.id);
}

const std::u16string k127 = u"s-win-" + std::u16string (121, u'x');
const std::u16string k128 = u"s-win-" + std::u16string (122, u'x');

INSTANTIATE_TEST_SUITE_P (
  Tokens,
  GroupIdTest,
  ::testing::Values (
    GroupIdCase { u"s-win-abc", EFI_SUCCESS, "s-win-abc" },
    GroupIdCase { u"Velmaro.efi s-win-abc%%", EFI_SUCCESS, "s-win-abc" },
    GroupIdCase { u"\"s-win-abc\"", EFI_SUCCESS, "s-win-abc" },
    GroupIdCase { u"x\ts-win-a s-win-b", EFI_SUCCESS, "s-win-a" },
    GroupIdCase { u"s-win-", EFI_SUCCESS, "s-win-" },
    GroupIdCase { u"S-WIN-abc xs-win-abc s-wi", EFI_NOT_FOUND, "" },
    GroupIdCase { u"", EFI_NOT_FOUND, "" },
    GroupIdCase { k127.c_str (), EFI_SUCCESS, fake::Narrow (k127) },
    GroupIdCase { k128.c_str (), EFI_BUFFER_TOO_SMALL, "" }));

class LoadOptionsTest : public HostTest {};

TEST_F (LoadOptionsTest, OddLengthIsReadUpToLastWholeCharacter)
{
  const char16_t       text[] = u"s-win-ab";
  std::vector<uint8_t> bytes (reinterpret_cast<const uint8_t *>(text), reinterpret_cast<const uint8_t *>(text) + 16);
  CHAR16               id[GROUP_ID_CHARS];

  bytes.push_back ('c');
  fw.SetLoadOptionBytes (bytes);
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), EFI_SUCCESS);
  EXPECT_EQ (fake::Narrow (reinterpret_cast<const char16_t *>(id)), "s-win-ab");

  fw.SetLoadOptionBytes ({ 's' });
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), EFI_NOT_FOUND);
  EXPECT_EQ (ChooseRunMode (&fw.loadedImage), RunMode::Fat32Legacy);
}

TEST_F (LoadOptionsTest, RunModeWordsAreWholeTokens)
{
  const struct {
    const char16_t  *options;
    RunMode         mode;
  } rows[] = {
    { u"auto ntfs-test s-win-a", RunMode::NtfsTest },
    { u"\"auto\" s-win-a", RunMode::Auto },
    { u"ntfs-tests autos AUTO", RunMode::Fat32Legacy },
    { u"", RunMode::Fat32Legacy },
  };

  for (const auto &row : rows) {
    fw.SetLoadOptions (row.options);
    EXPECT_EQ (ChooseRunMode (&fw.loadedImage), row.mode) << fake::Narrow (row.options);
  }

  EXPECT_EQ (ChooseRunMode (nullptr), RunMode::Fat32Legacy);
}

TEST_F (LoadOptionsTest, ArgumentAndMemoryFailures)
{
  CHAR16 id[GROUP_ID_CHARS];

  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, nullptr), EFI_INVALID_PARAMETER);
  fw.SetLoadOptions (u"auto s-win-a");
  fw.faults.Fail (Op::AllocatePool, EFI_OUT_OF_RESOURCES);
  id[0] = L'?';
  EXPECT_EQ (GetGroupIdFromLoadOptions (&fw.loadedImage, id), EFI_OUT_OF_RESOURCES);
  EXPECT_EQ (id[0], L'\0');
  EXPECT_FALSE (HasLoadOptionWord (&fw.loadedImage, W (u"auto")));
}

TEST_F (LoadOptionsTest, KeyWaitPromptsAndReadsOneKey)
{
  fw.faults.Fail (Op::ReadKeyStroke, EFI_NOT_READY);
  WaitForKeyPress ();
  EXPECT_EQ (fw.keyWaits, 1u);
  EXPECT_EQ (fw.keyReads, 1u);
  EXPECT_NE (Console ().find ("[+00000000 ms] \r\nPremere un tasto per continuare...\r\n"), std::string::npos);
}

}  // namespace
