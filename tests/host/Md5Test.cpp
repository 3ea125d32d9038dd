#include "Harness.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace {

const std::string kEmpty = "d41d8cd98f00b204e9800998ecf8427e";
const std::string kAbc   = "900150983cd24fb0d6963f7d28e17f72";

// Fed in uneven pieces, empty ones included, so that every path through the block
// buffer is taken.
std::string DigestInPieces (const std::string &bytes) {
  static const size_t pieces[] = { 1, 63, 0, 64, 7, 130, 4096, 3, 65 };
  MD5_CTX             context;
  UINT8               digest[MD5_DIGEST_SIZE];
  CHAR16              text[VELMARO_MD5_CHARS];

  MD5Init (&context);
  for (size_t at = 0, i = 0; at < bytes.size (); i++) {
    size_t take = std::min (pieces[i % 9], bytes.size () - at);
    MD5Update (&context, bytes.data () + at, take);
    at += take;
  }
  MD5Final (digest, &context);
  Md5DigestToText (digest, text);
  return Str (text);
}

std::string PseudoRandom (size_t length) {
  std::string bytes (length, '\0');
  uint32_t    x = 0x9e3779b9u ^ static_cast<uint32_t>(length);
  for (char &b : bytes) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    b  = static_cast<char>(x >> 24);
  }
  return bytes;
}

// coreutils' md5sum over the same bytes: an implementation that is not ours.
std::string SystemMd5 (const std::string &bytes) {
  const std::string path = "/tmp/velmaro-md5-" + std::to_string (getpid ());
  std::ofstream (path, std::ios::binary) << bytes;
  char  line[128] = {};
  FILE *pipe      = popen (("md5sum " + path).c_str (), "r");
  EXPECT_TRUE (pipe != nullptr && fgets (line, sizeof (line), pipe) != nullptr) << "no answer from md5sum";
  if (pipe != nullptr) EXPECT_EQ (pclose (pipe), 0) << "md5sum failed";
  unlink (path.c_str ());
  return std::string (line).substr (0, 32);
}

class Md5Test : public HostTest {
 protected:
  void SetUp () override { OpenBoot (); }

  using Result = std::pair<EFI_STATUS, std::string>;

  // A digest reader run on an output holding "stale": its status and what it left there.
  template<typename F>
  static Result Into (F &&reader) {
    CHAR16 digest[VELMARO_MD5_CHARS];
    SetField (digest, "stale");
    EFI_STATUS status = reader (digest);
    return { status, Str (digest) };
  }

  Result OfFile (const char16_t *path) { return Into ([&](CHAR16 *d) { return Md5OfFile (root, W (path), d); }); }
};

// Random bytes of lengths around the block and chunk edges, and the classic test texts.
TEST_F (Md5Test, AgreesWithMd5sumAroundBlockAndChunkEdges) {
  std::vector<std::string> inputs = { "", "a", "abc", "message digest", "abcdefghijklmnopqrstuvwxyz",
                                      "12345678901234567890123456789012345678901234567890123456789012345678901234567890" };
  for (size_t length : { 0, 1, 55, 56, 57, 63, 64, 65, 119, 120, 127, 128, 129, 4095, 4096, 4097, 8192, 100000, 1 << 20 }) inputs.push_back (PseudoRandom (length));

  for (const std::string &bytes : inputs) {
    const std::string expected = SystemMd5 (bytes);
    ASSERT_EQ (expected.size (), 32u) << "no digest from md5sum (coreutils) for " << bytes.size () << " bytes";
    boot.Put ("\\boot\\data.bin", bytes), fw.faults.Reset ();
    EXPECT_EQ (OfFile (u"\\boot\\data.bin"), Result (EFI_SUCCESS, expected)) << bytes.size ();
    EXPECT_EQ (DigestInPieces (bytes), expected) << bytes.size ();
    // Whole chunks, the remainder, then the empty read that ends the file.
    EXPECT_EQ (fw.faults.Calls (Op::Read), (bytes.size () + MD5_READ_CHUNK - 1) / MD5_READ_CHUNK + 1) << bytes.size ();
  }
  EXPECT_EQ (Md5Hex (""), kEmpty);
  EXPECT_EQ (Md5Hex ("abc"), kAbc);
}

TEST_F (Md5Test, Md5OfFileFailuresLeaveOutputUntouched) {
  // The fourth read is the empty one at the end.
  const fake::Fault rows[] = { { Op::Open, EFI_ACCESS_DENIED, 1, "data.bin" }, { Op::Read, EFI_DEVICE_ERROR, 1, "data.bin" },
                               { Op::Read, EFI_VOLUME_CORRUPTED, 3, "data.bin" }, { Op::Read, EFI_DEVICE_ERROR, 4, "data.bin" } };

  boot.Put ("\\boot\\data.bin", PseudoRandom (2 * MD5_READ_CHUNK + 1));
  for (const auto &row : rows) {
    fw.faults.Set (row);
    EXPECT_EQ (OfFile (u"\\boot\\data.bin"), Result (row.status, "stale")) << static_cast<int>(row.op) << " #" << row.nth;
    EXPECT_EQ (fw.OpenHandles (), 1) << "only the test's root stays open";
  }
  EXPECT_EQ (OfFile (u"\\boot\\none.bin"), Result (EFI_NOT_FOUND, "stale"));
}

TEST_F (Md5Test, ParseMd5TextTakesExactlyThirtyTwoDigits) {
  const std::string digits = "0123456789abcdef0123456789ABCDEF";
  const std::string lower  = "0123456789abcdef0123456789abcdef";
  const struct { std::string text; EFI_STATUS status; std::string digest; } rows[] = {
    { "D41D8CD98F00B204E9800998ECF8427E", EFI_SUCCESS, kEmpty }, { digits, EFI_SUCCESS, lower },
    { "\t  \t" + digits, EFI_SUCCESS, lower }, { digits + "\r\n", EFI_SUCCESS, lower }, { digits + "\tx", EFI_SUCCESS, lower },
    { digits + "  \\boot\\BCD", EFI_SUCCESS, lower }, { digits.substr (0, 31), EFI_COMPROMISED_DATA, "" },
    { digits + "0", EFI_COMPROMISED_DATA, "" }, { digits + "|", EFI_COMPROMISED_DATA, "" }, { "\n" + digits, EFI_COMPROMISED_DATA, "" },
    { "0123456789abcdeg0123456789abcdef", EFI_COMPROMISED_DATA, "" }, { "", EFI_COMPROMISED_DATA, "" },
  };
  for (const auto &row : rows) {
    EXPECT_EQ (Into ([&](CHAR16 *d) { return ParseMd5Text (d, A (row.text)); }), Result (row.status, row.digest)) << row.text;
  }
}

TEST_F (Md5Test, FindMd5ByKeyUsesTheFirstLineStartingWithKey) {
  const std::string one = "11111111111111111111111111111111", two = "2222222222222222222222222222222a";
  const std::string both = "\r\nA|1\r\nBCD_EFI_MD5|" + two + "\r\nBCD_MD5|" + one + "\r\n";
  const struct { std::string text; const char *key; EFI_STATUS status; std::string digest; } rows[] = {
    { "BCD:x\nBCD_MD5|" + one + "\n", "BCD_MD5|", EFI_SUCCESS, one }, { both, "BCD_MD5|", EFI_SUCCESS, one },
    { both, "BCD_EFI_MD5|", EFI_SUCCESS, two }, { "BCD_MD5|" + one, "BCD_MD5|", EFI_SUCCESS, one },
    { "BCD_EFI_MD5|" + two + "\n", "BCD_MD5|", EFI_NOT_FOUND, "" },
    { "x BCD_MD5|" + one + "\n bcd_md5|" + one + "\nbcd_md5|" + one, "BCD_MD5|", EFI_NOT_FOUND, "" },
    { "\r\n\r\nBCD_MD5", "BCD_MD5|", EFI_NOT_FOUND, "" }, { "", "BCD_MD5|", EFI_NOT_FOUND, "" },
    { "BCD_MD5|" + one.substr (1) + "\nBCD_MD5|" + one + "\n", "BCD_MD5|", EFI_COMPROMISED_DATA, "" },
    { "BCD_MD5|", "BCD_MD5|", EFI_COMPROMISED_DATA, "" }, { "BCD_MD5|" + one, "", EFI_INVALID_PARAMETER, "" },
  };
  for (const auto &row : rows) {
    EXPECT_EQ (Into ([&](CHAR16 *d) { return FindMd5ByKey (d, A (row.text), A (row.key)); }), Result (row.status, row.digest))
      << row.text << " / " << row.key;
  }
}

TEST_F (Md5Test, ReadMd5FileLooksAtTheFirstSixtyThreeBytesOnly) {
  const std::pair<std::string, Result> rows[] = {
    { kAbc + "\r\n", { EFI_SUCCESS, kAbc } }, { kAbc + "  \\boot\\BCD\n", { EFI_SUCCESS, kAbc } },
    { std::string (31, ' ') + kAbc, { EFI_SUCCESS, kAbc } },            // 63 bytes: all of it read
    { std::string (32, ' ') + kAbc, { EFI_COMPROMISED_DATA, "" } },     // the last digit is not
    { std::string (40, ' ') + kAbc, { EFI_COMPROMISED_DATA, "" } }, { kAbc + "|", { EFI_COMPROMISED_DATA, "" } },
  };
  auto read = [&](const char16_t *path) { return Into ([&](CHAR16 *d) { return ReadMd5File (root, W (path), d); }); };

  for (const auto &[content, result] : rows) {
    boot.Put ("\\boot\\BCD.md5", content);
    EXPECT_EQ (read (u"\\boot\\BCD.md5"), result) << content;
  }
  EXPECT_EQ (read (u"\\boot\\none.md5"), Result (EFI_NOT_FOUND, ""));
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1);
  EXPECT_EQ (read (u"\\boot\\BCD.md5"), Result (EFI_DEVICE_ERROR, ""));
}

TEST_F (Md5Test, StateDigestsCountWithExactlyThirtyTwoCharacters) {
  EXPECT_FALSE (HasBcdMd5 (nullptr) || HasBcdEfiMd5 (nullptr));
  for (const std::string &digest : { std::string (), kAbc.substr (1), kAbc }) {
    GROUP_STATE store = {}, efi = {};
    SetField (store.BcdMd5, digest), SetField (efi.BcdEfiMd5, digest);
    EXPECT_EQ (HasBcdMd5 (&store) != FALSE, digest.size () == 32) << digest;
    EXPECT_EQ (HasBcdEfiMd5 (&efi) != FALSE, digest.size () == 32) << digest;
    EXPECT_FALSE (HasBcdEfiMd5 (&store) || HasBcdMd5 (&efi)) << "each digest counts only in its own field";
  }
}

TEST_F (Md5Test, FileMatchesBcdMd5ComparesTheWholeDigest) {
  GROUP_STATE state = {};
  auto        match = [&](const char16_t *path) { return FileMatchesBcdMd5 (root, W (path), &state); };

  boot.Put ("\\boot\\BCD", "abc");
  EXPECT_EQ (match (u"\\boot\\BCD"), EFI_NOT_FOUND);
  EXPECT_EQ (fw.faults.Calls (Op::Open), 0u) << "nothing to compare with, nothing to read";
  SetField (state.BcdMd5, kAbc);
  EXPECT_EQ (match (u"\\boot\\BCD"), EFI_SUCCESS);
  SetField (state.BcdMd5, kAbc.substr (0, 31) + "3");
  EXPECT_EQ (match (u"\\boot\\BCD"), EFI_COMPROMISED_DATA);
  fw.faults.Fail (Op::Read, EFI_DEVICE_ERROR, 1);
  EXPECT_EQ (match (u"\\boot\\BCD"), EFI_DEVICE_ERROR);
  EXPECT_EQ (match (u"\\boot\\none"), EFI_NOT_FOUND);
}

}  // namespace
