#include "Harness.h"
#include "EntriesEncoder.h"

#include <data/EntriesFile.h>

namespace {

const std::string kHeader = EncodeEntryLine ("header") + "\r\n";

class EntriesTest : public HostTest {
 protected:
  GROUP_STATE               state;
  std::vector<std::string>  names;

  EFI_STATUS Lookup (const std::string &text, const char *id) {
    std::string copy   = text;
    EFI_STATUS  status = LookupGroupInEntries (A (copy), A (id), &state);
    EXPECT_EQ (copy, text) << "the entries text is never changed";
    return status;
  }

  // The names listed land in names.
  EFI_STATUS List (const std::string &text) {
    static ENTRY_NAME list[ENTRY_BCD_NAMES_MAX];
    UINTN             count  = 99;
    std::string       copy   = text;
    EFI_STATUS        status = ListEntryBcdNames (A (copy), list, &count);
    EXPECT_EQ (copy, text);
    names.clear ();
    for (UINTN i = 0; i < count; ++i) names.push_back (Str (list[i]));
    return status;
  }
};

TEST_F (EntriesTest, DecodesTheDocumentedExample) {
  const std::string line = "b6bbc58cd2889691d2cedfbdbcbbc59d9c9bcedfacadbcc58c8d9ccedfbab9b6c59a9996ce";
  CHAR8             out[ENTRY_LINE_BYTES];

  ASSERT_EQ (DecodeEntryLine (A (line), line.size (), out), EFI_SUCCESS);
  EXPECT_EQ (Str (out), "ID:s-win-1 BCD:bcd1 SRC:src1 EFI:efi1");
  EXPECT_EQ (EncodeEntryLine ("ID:s-win-1 BCD:bcd1 SRC:src1 EFI:efi1"), line);
  ASSERT_EQ (DecodeEntryLine (A ("B6BBC5"), 6, out), EFI_SUCCESS);
  EXPECT_EQ (Str (out), "ID:");

  const std::string longest = EncodeEntryLine (std::string (511, 'a'));
  ASSERT_EQ (DecodeEntryLine (A (longest), 1022, out), EFI_SUCCESS);
  EXPECT_EQ (Str (out), std::string (511, 'a'));
  EXPECT_EQ (DecodeEntryLine (A (longest + "9e"), 1024, out), EFI_BAD_BUFFER_SIZE);
  EXPECT_EQ (DecodeEntryLine (A ("b6zz"), 4, out), EFI_COMPROMISED_DATA);
}

TEST_F (EntriesTest, LookupFindsTheFirstLineNamingTheGroup) {
  const std::string file = EncodeEntryLine ("header") + "\n\n\r\n" + EncodeEntryLine ("ID:s-win-2 BCD:b2 SRC:s2 EFI:e2", true) + "\r" +
                           EncodeEntryLine ("x ID:s-win-1  BCD:b1 SRC:s1 EFI:e1 BCD:b1x ID:s-win-2 junk") + "\r\n" +
                           EncodeEntryLine ("ID:s-win-1 BCD:other SRC:other EFI:other");

  ASSERT_EQ (Lookup (file, "s-win-1"), EFI_SUCCESS);
  EXPECT_EQ ((std::vector<std::string>{ Str (state.Bcd), Str (state.Src), Str (state.Efi), Str (state.SrcPart) }),
             (std::vector<std::string>{ "b1x", "s1", "e1", "" }));
  ASSERT_EQ (Lookup (file, "s-win-2"), EFI_SUCCESS);
  EXPECT_EQ (Str (state.Bcd), "b2");
  EXPECT_EQ (Lookup (file, "S-WIN-1"), EFI_NOT_FOUND);
  EXPECT_EQ (Lookup (file, "s-win-"), EFI_NOT_FOUND);
}

TEST_F (EntriesTest, LookupOutcomes) {
  const std::string entry = EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e");
  const std::pair<std::string, EFI_STATUS> rows[] = {
    { "", EFI_COMPROMISED_DATA }, { "\r\n\r\n", EFI_COMPROMISED_DATA },
    { "b6b\r\n" + kHeader + entry, EFI_BAD_BUFFER_SIZE },                  // odd first line
    { "b6zz\r\n" + kHeader + entry, EFI_COMPROMISED_DATA },                // non-hex first line
    { std::string (1024, 'a') + "\r\n" + kHeader, EFI_BAD_BUFFER_SIZE },   // first line too long
    { kHeader + EncodeEntryLine ("BCD:b ID:a SRC:s EFI:e"), EFI_NOT_FOUND },
    { kHeader + EncodeEntryLine ("ID:a BCD:b SRC:s") + "\r\n" + entry, EFI_NOT_FOUND },   // EFI missing
    { kHeader + EncodeEntryLine ("ID:a BCD:" + std::string (128, 'b') + " SRC:s EFI:e"), EFI_BUFFER_TOO_SMALL },
    { kHeader + EncodeEntryLine ("ID:a BCD:" + std::string (127, 'b') + " SRC:s EFI:e"), EFI_SUCCESS },
    { kHeader + "zz\r\n" + entry, EFI_SUCCESS },   // a corrupt line after the header is skipped
  };
  for (const auto &[text, status] : rows) EXPECT_EQ (Lookup (text, "a"), status) << text;
}

TEST_F (EntriesTest, CorruptLinesAfterTheHeaderAreReportedOnce) {
  const std::string file = kHeader + "b6b\r\n" + EncodeEntryLine ("ID:a BCD:b SRC:s EFI:e") + "\r\nqq\r\n";
  const std::string warn = "] WARN: riga NUR_VEL_EFI.COM non richiesta corrotta, saltata";

  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  EXPECT_EQ (Lookup (file, "a"), EFI_SUCCESS);
  EXPECT_EQ (List (file), EFI_SUCCESS);
  const std::string log = Log ();
  EXPECT_TRUE (Has (log, warn + ": Bad Buffer Size (0x8000000000000004)\r\n"));
  EXPECT_TRUE (Has (log, warn + ": Compromised Data (0x8000000000000021)\r\n"));
  EXPECT_TRUE (Has (log, warn + " durante elenco BCD: Bad Buffer Size (0x8000000000000004)\r\n"));
}

TEST_F (EntriesTest, ListingNamesEveryStoreOnceInOrder) {
  EXPECT_EQ (List (kHeader + EncodeEntryLine ("ID:a BCD:w10 SRC:s EFI:e BCD:w11") + "\n" + EncodeEntryLine ("BCD:w10 BCD: ID:b")), EFI_SUCCESS);
  EXPECT_EQ (names, (std::vector<std::string>{ "w10", "w11", "" }));

  std::string many = kHeader;
  for (int i = 0; i < 64; ++i) many += EncodeEntryLine ("ID:x BCD:n" + std::to_string (i)) + "\r\n";
  EXPECT_EQ (List (many), EFI_SUCCESS);
  EXPECT_EQ (names.size (), 64u);
  EXPECT_EQ (List (many + EncodeEntryLine ("BCD:n0 BCD:n64")), EFI_BUFFER_TOO_SMALL);
  EXPECT_TRUE (names.empty ());
  EXPECT_EQ (List (kHeader + EncodeEntryLine ("BCD:" + std::string (128, 'b'))), EFI_BUFFER_TOO_SMALL);
  EXPECT_EQ (List (kHeader + EncodeEntryLine ("ID:a SRC:s")), EFI_NOT_FOUND);
  EXPECT_EQ (List (""), EFI_NOT_FOUND);
  EXPECT_EQ (List ("b6b\r\n" + kHeader), EFI_BAD_BUFFER_SIZE);
}

TEST (MatchPrefixTest, RestOrNothing) {
  const std::string token = "BCD:x";
  EXPECT_EQ (Str (MatchPrefix (A (token), A ("BCD:"))), "x");
  EXPECT_EQ (MatchPrefix (A (token), A ("bcd:")), nullptr);
  EXPECT_EQ (MatchPrefix (A (token), A (""))[0], 'B');
  EXPECT_EQ (MatchPrefix (A ("BC"), A ("BCD:")), nullptr);
}

}  // namespace
