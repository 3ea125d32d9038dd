#include "Harness.h"

#include <data/EntriesFile.h>

#include "EntriesEncoder.h"

namespace {

std::string Field (const CHAR16 *text)
{
  return fake::Narrow (reinterpret_cast<const char16_t *>(text));
}

class EntriesTest : public HostTest {
 protected:
  EFI_STATUS Lookup (const std::string &text, const char *id, GROUP_STATE &state)
  {
    std::string copy = text;
    EFI_STATUS  status = LookupGroupInEntries (reinterpret_cast<const CHAR8 *>(copy.c_str ()), reinterpret_cast<const CHAR8 *>(id), &state);
    EXPECT_EQ (copy, text) << "the entries text is never changed";
    return status;
  }

  EFI_STATUS List (const std::string &text, std::vector<std::string> &names)
  {
    static ENTRY_NAME list[ENTRY_BCD_NAMES_MAX];
    UINTN             count = 99;
    std::string       copy  = text;
    EFI_STATUS        status = ListEntryBcdNames (reinterpret_cast<const CHAR8 *>(copy.c_str ()), list, &count);
    EXPECT_EQ (copy, text);
    names.clear ();
    for (UINTN i = 0; i < count; ++i) {
      names.push_back (Field (list[i]));
    }

    return status;
  }
};

TEST_F (EntriesTest, DecodesTheDocumentedExample)
{
  const std::string line = "b6bbc58cd2889691d2cedfbdbcbbc59d9c9bcedfacadbcc58c8d9ccedfbab9b6c59a9996ce";
  CHAR8             out[ENTRY_LINE_BYTES];

  ASSERT_EQ (DecodeEntryLine (reinterpret_cast<const CHAR8 *>(line.c_str ()), line.size (), out), EFI_SUCCESS);
  EXPECT_STREQ (reinterpret_cast<char *>(out), "ID:s-win-1 BCD:bcd1 SRC:src1 EFI:efi1");
  EXPECT_EQ (EncodeEntryLine ("ID:s-win-1 BCD:bcd1 SRC:src1 EFI:efi1"), line);
  ASSERT_EQ (DecodeEntryLine (reinterpret_cast<const CHAR8 *>("B6BBC5"), 6, out), EFI_SUCCESS);
  EXPECT_STREQ (reinterpret_cast<char *>(out), "ID:");

  const std::string longest = EncodeEntryLine (std::string (511, 'a'));
  ASSERT_EQ (DecodeEntryLine (reinterpret_cast<const CHAR8 *>(longest.c_str ()), 1022, out), EFI_SUCCESS);
  EXPECT_EQ (std::string (reinterpret_cast<char *>(out)), std::string (511, 'a'));
  EXPECT_EQ (DecodeEntryLine (reinterpret_cast<const CHAR8 *>((longest + "9e").c_str ()), 1024, out), EFI_BAD_BUFFER_SIZE);
  EXPECT_EQ (DecodeEntryLine (reinterpret_cast<const CHAR8 *>("b6zz"), 4, out), EFI_COMPROMISED_DATA);
}

TEST_F (EntriesTest, LookupFindsTheFirstLineNamingTheGroup)
{
  GROUP_STATE state;
  const std::string file = EncodeEntryLine ("header") + "\n\n\r\n" +
                           EncodeEntryLine ("ID:s-win-2 BCD:b2 SRC:s2 EFI:e2", true) + "\r" +
                           EncodeEntryLine ("x ID:s-win-1  BCD:b1 SRC:s1 EFI:e1 BCD:b1x ID:s-win-2 junk") + "\r\n" +
                           EncodeEntryLine ("ID:s-win-1 BCD:other SRC:other EFI:other");

  ASSERT_EQ (Lookup (file, "s-win-1", state), EFI_SUCCESS);
  EXPECT_EQ (Field (state.Bcd), "b1x");
  EXPECT_EQ (Field (state.Src), "s1");
  EXPECT_EQ (Field (state.Efi), "e1");
  EXPECT_EQ (state.SrcPart[0], 0);
  ASSERT_EQ (Lookup (file, "s-win-2", state), EFI_SUCCESS);
  EXPECT_EQ (Field (state.Bcd), "b2");
  EXPECT_EQ (Lookup (file, "S-WIN-1", state), EFI_NOT_FOUND);
  EXPECT_EQ (Lookup (file, "s-win-", state), EFI_NOT_FOUND);
}

TEST_F (EntriesTest, LookupOutcomes)
{
  const std::string header = EncodeEntryLine ("header") + "\r\n";
  const struct {
    const char   *name;
    std::string  text;
    EFI_STATUS   status;
  } rows[] = {
    { "empty text", "", EFI_COMPROMISED_DATA },
    { "only separators", "\r\n\r\n", EFI_COMPROMISED_DATA },
    { "odd first line", "b6b\r\n" + header + EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e"), EFI_BAD_BUFFER_SIZE },
    { "non-hex first line", "b6zz\r\n" + header + EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e"), EFI_COMPROMISED_DATA },
    { "too long first line", std::string (1024, 'a') + "\r\n" + header, EFI_BAD_BUFFER_SIZE },
    { "BCD before ID", header + EncodeEntryLine ("BCD:b ID:a SRC:s EFI:e"), EFI_NOT_FOUND },
    { "EFI missing", header + EncodeEntryLine ("ID:a BCD:b SRC:s") + "\r\n" + EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e"), EFI_NOT_FOUND },
    { "value of 128", header + EncodeEntryLine ("ID:a BCD:" + std::string (128, 'b') + " SRC:s EFI:e"), EFI_BUFFER_TOO_SMALL },
    { "value of 127", header + EncodeEntryLine ("ID:a BCD:" + std::string (127, 'b') + " SRC:s EFI:e"), EFI_SUCCESS },
    { "corrupt line after header", header + "zz\r\n" + EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e"), EFI_SUCCESS },
  };

  for (const auto &row : rows) {
    GROUP_STATE state;
    EXPECT_EQ (Lookup (row.text, "a", state), row.status) << row.name;
  }
}

TEST_F (EntriesTest, CorruptLinesAfterTheHeaderAreReportedOnce)
{
  const std::string file = EncodeEntryLine ("header") + "\r\nb6b\r\n" + EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e") + "\r\nqq\r\n";
  GROUP_STATE       state;
  std::vector<std::string> names;

  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  EXPECT_EQ (Lookup (file, "a", state), EFI_SUCCESS);
  EXPECT_EQ (List (file, names), EFI_SUCCESS);
  CloseLog ();
  std::string log = LogText ();
  EXPECT_NE (log.find ("] WARN: riga NUR_VEL_EFI.COM non richiesta corrotta, saltata: Bad Buffer Size (0x8000000000000004)\r\n"), std::string::npos);
  EXPECT_NE (log.find ("] WARN: riga NUR_VEL_EFI.COM non richiesta corrotta, saltata: Compromised Data (0x8000000000000021)\r\n"), std::string::npos);
  EXPECT_NE (log.find ("] WARN: riga NUR_VEL_EFI.COM non richiesta corrotta, saltata durante elenco BCD: Bad Buffer Size (0x8000000000000004)\r\n"), std::string::npos);
}

TEST_F (EntriesTest, ListingNamesEveryStoreOnceInOrder)
{
  std::vector<std::string> names;
  const std::string        header = EncodeEntryLine ("header") + "\r\n";

  EXPECT_EQ (List (header + EncodeEntryLine ("ID:a BCD:w10 SRC:s EFI:e BCD:w11") + "\n" + EncodeEntryLine ("BCD:w10 BCD: ID:b"), names), EFI_SUCCESS);
  EXPECT_EQ (names, (std::vector<std::string>{ "w10", "w11", "" }));

  std::string many = header;
  for (int i = 0; i < 64; ++i) {
    many += EncodeEntryLine ("ID:x BCD:n" + std::to_string (i)) + "\r\n";
  }

  EXPECT_EQ (List (many, names), EFI_SUCCESS);
  EXPECT_EQ (names.size (), 64u);
  EXPECT_EQ (List (many + EncodeEntryLine ("BCD:n0 BCD:n64"), names), EFI_BUFFER_TOO_SMALL);
  EXPECT_TRUE (names.empty ());
  EXPECT_EQ (List (header + EncodeEntryLine ("BCD:" + std::string (128, 'b')), names), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (List (header + EncodeEntryLine ("ID:a SRC:s"), names), EFI_NOT_FOUND);
  EXPECT_EQ (List ("", names), EFI_NOT_FOUND);
  EXPECT_EQ (List ("b6b\r\n" + header, names), EFI_BAD_BUFFER_SIZE);
}

TEST (MatchPrefixTest, RestOrNothing)
{
  const CHAR8 *token = reinterpret_cast<const CHAR8 *>("BCD:x");
  EXPECT_STREQ (reinterpret_cast<const char *>(MatchPrefix (token, reinterpret_cast<const CHAR8 *>("BCD:"))), "x");
  EXPECT_EQ (MatchPrefix (token, reinterpret_cast<const CHAR8 *>("bcd:")), nullptr);
  EXPECT_EQ (MatchPrefix (token, reinterpret_cast<const CHAR8 *>(""))[0], 'B');
  EXPECT_EQ (MatchPrefix (reinterpret_cast<const CHAR8 *>("BC"), reinterpret_cast<const CHAR8 *>("BCD:")), nullptr);
}

}  // namespace
