// md5_bench: how fast our MD5 runs next to OpenSSL's over the same bytes, and what
// reading a file through the firmware's file protocol adds. Not a test: it prints figures
// and fails only when the digests disagree. Run with `make bench`.
#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "fake/Firmware.h"

#include <fs/Md5.h>

namespace {

constexpr size_t kBufferBytes = 64u << 20;   // hashed kPasses times: 256 MiB a run
constexpr int    kPasses      = 4;
constexpr int    kRuns        = 5;
constexpr size_t kFileBytes   = 1u << 20;
constexpr int    kFileRuns    = 50;

// The best time of some runs of work.
template<typename F>
double Best (int runs, F &&work) {
  double best = 1e9;
  for (int run = 0; run < runs; run++) {
    auto start = std::chrono::steady_clock::now ();
    work ();
    best = std::min (best, std::chrono::duration<double>(std::chrono::steady_clock::now () - start).count ());
  }
  return best;
}

std::string Hex (const unsigned char *digest) {
  std::string text;
  for (int i = 0; i < 16; i++) text += { "0123456789abcdef"[digest[i] >> 4], "0123456789abcdef"[digest[i] & 15] };
  return text;
}

std::string Ours (const std::vector<uint8_t> &bytes, size_t length, int passes) {
  MD5_CTX context;
  UINT8   digest[MD5_DIGEST_SIZE];
  MD5Init (&context);
  for (int i = 0; i < passes; i++) MD5Update (&context, bytes.data (), length);
  MD5Final (digest, &context);
  return Hex (digest);
}

std::string OpenSsl (const std::vector<uint8_t> &bytes, size_t length, int passes) {
  EVP_MD_CTX    *context = EVP_MD_CTX_new ();
  unsigned char digest[EVP_MAX_MD_SIZE];
  EVP_DigestInit_ex (context, EVP_md5 (), nullptr);
  for (int i = 0; i < passes; i++) EVP_DigestUpdate (context, bytes.data (), length);
  EVP_DigestFinal_ex (context, digest, nullptr);
  EVP_MD_CTX_free (context);
  return Hex (digest);
}

double MBps (double bytes, double seconds) { return bytes / seconds / 1e6; }

}  // namespace

int main () {
  std::vector<uint8_t> bytes (kBufferBytes);
  uint32_t             x = 0x12345678u;
  for (uint8_t &b : bytes) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    b  = static_cast<uint8_t>(x);
  }

  // Interleaved runs, best of each, so that a busy moment on the machine hurts both alike.
  std::string ours, theirs;
  double      bestOurs = 1e9, bestTheirs = 1e9;
  for (int run = 0; run < kRuns; run++) {
    bestOurs   = std::min (bestOurs, Best (1, [&] { ours = Ours (bytes, kBufferBytes, kPasses); }));
    bestTheirs = std::min (bestTheirs, Best (1, [&] { theirs = OpenSsl (bytes, kBufferBytes, kPasses); }));
  }

  const double total = static_cast<double>(kBufferBytes) * kPasses;
  std::printf ("MD5 over %zu MiB in memory, best of %d runs\n", static_cast<size_t>(total) >> 20, kRuns);
  std::printf ("  ours     %8.1f MB/s  %s\n", MBps (total, bestOurs), ours.c_str ());
  std::printf ("  OpenSSL  %8.1f MB/s  %s\n", MBps (total, bestTheirs), theirs.c_str ());
  std::printf ("  ours/OpenSSL %.3f (target 0.85 or more: %s)\n", bestTheirs / bestOurs, bestTheirs / bestOurs >= 0.85 ? "met" : "NOT met");
  if (ours != theirs) {
    std::printf ("digests disagree\n");
    return 1;
  }

  // The same MiB as a file on a fake volume, read in MD5_READ_CHUNK pieces.
  fake::Firmware    fw;
  fake::Volume      &volume = fw.AddVolume ();
  EFI_FILE_PROTOCOL *root   = nullptr;
  CHAR16            text[VELMARO_MD5_CHARS];
  const CHAR16      *path = reinterpret_cast<const CHAR16 *>(u"\\big.bin");

  volume.Put ("\\big.bin", std::string (bytes.begin (), bytes.begin () + kFileBytes));
  if (volume.sfs.OpenVolume (&volume.sfs, &root) != EFI_SUCCESS) {
    std::printf ("cannot open the fake volume\n");
    return 1;
  }
  fw.faults.Reset ();
  EFI_STATUS        status   = Md5OfFile (root, path, text);
  unsigned          reads    = fw.faults.Calls (fake::Op::Read);
  const std::string fromFile = fake::Narrow (reinterpret_cast<const char16_t *>(text)), raw = Ours (bytes, kFileBytes, 1);
  const double      bestFile = Best (kFileRuns, [&] { Md5OfFile (root, path, text); });
  const double      bestRaw  = Best (kFileRuns, [&] { Ours (bytes, kFileBytes, 1); });
  root->Close (root);

  std::printf ("Md5OfFile on a 1 MiB file through the fake firmware, best of %d runs\n", kFileRuns);
  std::printf ("  reads    %u (257 expected)\n", reads);
  std::printf ("  file     %8.3f ms  %8.1f MB/s  %s\n", bestFile * 1e3, MBps (kFileBytes, bestFile), fromFile.c_str ());
  std::printf ("  raw      %8.3f ms  %8.1f MB/s  %s\n", bestRaw * 1e3, MBps (kFileBytes, bestRaw), raw.c_str ());
  std::printf ("  file/raw time %.3f\n", bestFile / bestRaw);
  if ((status != EFI_SUCCESS) || (fromFile != raw) || (reads != 257)) {
    std::printf ("Md5OfFile disagrees: status 0x%llx\n", static_cast<unsigned long long>(status));
    return 1;
  }
  return 0;
}
