// Shared fixture: a fake firmware with a boot volume the application was started from.
// Every test ends with no pool buffer and no file handle left behind. Also the text
// helpers every suite needs between its std::strings and the application's CHAR16/CHAR8.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fake/Firmware.h"

#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <fs/Md5.h>

using fake::Effect;
using fake::Op;

inline const CHAR16 *W (const char16_t *text) { return reinterpret_cast<const CHAR16 *>(text); }
inline const CHAR8 *A (const std::string &text) { return reinterpret_cast<const CHAR8 *>(text.c_str ()); }
inline std::string Str (const CHAR16 *text) { return fake::Narrow (reinterpret_cast<const char16_t *>(text)); }
inline std::string Str (const CHAR8 *text) { return reinterpret_cast<const char *>(text); }

inline void SetField (CHAR16 *field, const std::string &ascii) {
  for (size_t i = 0; i <= ascii.size (); ++i) field[i] = i < ascii.size () ? static_cast<unsigned char>(ascii[i]) : 0;
}

inline GROUP_STATE State (const std::string &bcd, const std::string &src = "", const std::string &efi = "", const std::string &part = "",
                          const std::string &fs = "") {
  GROUP_STATE s = {};
  SetField (s.Bcd, bcd), SetField (s.Src, src), SetField (s.Efi, efi), SetField (s.SrcPart, part), SetField (s.SrcFs, fs);
  return s;
}

inline std::string Lower (std::string text) {
  std::transform (text.begin (), text.end (), text.begin (), [](unsigned char c) { return static_cast<char>(std::tolower (c)); });
  return text;
}

// Our own digest of some bytes, as text (checked against md5sum in Md5Test).
inline std::string Md5Hex (const std::string &bytes) {
  MD5_CTX context;
  UINT8   digest[MD5_DIGEST_SIZE];
  CHAR16  text[VELMARO_MD5_CHARS];
  MD5Init (&context);
  MD5Update (&context, bytes.data (), bytes.size ());
  MD5Final (digest, &context);
  Md5DigestToText (digest, text);
  return Str (text);
}

// The part is somewhere in the text; a failure shows the whole text.
inline ::testing::AssertionResult Has (const std::string &text, const std::string &part) {
  if (text.find (part) != std::string::npos) return ::testing::AssertionSuccess ();
  return ::testing::AssertionFailure () << "\"" << part << "\" not in:\n" << text;
}

// The CR LF lines of a log or console text, without their "[+00000007 ms] " stamps; an
// unterminated rest comes last, marked as such.
inline std::vector<std::string> Lines (const std::string &text) {
  std::vector<std::string> lines;
  size_t                   at = 0;
  for (size_t end; (end = text.find ("\r\n", at)) != std::string::npos; at = end + 2) {
    std::string line = text.substr (at, end - at);
    lines.push_back (line.rfind ("[+", 0) == 0 && line.find ("] ") != std::string::npos ? line.substr (line.find ("] ") + 2) : line);
  }
  if (at < text.size ()) lines.push_back ("<unterminated> " + text.substr (at));
  return lines;
}

class HostTest : public ::testing::Test {
 protected:
  fake::Firmware    fw;
  fake::Volume      &boot;
  size_t            poolAtStart;
  EFI_FILE_PROTOCOL *root = nullptr;   // the boot volume's root, once OpenBoot opened it

  HostTest () : boot (fw.AddVolume ()), poolAtStart (fake::Firmware::LivePool ()) {
    fw.StartFrom (boot);
    LogFile             = nullptr;
    AdvancedDiagnostics = FALSE;
  }

  // For suites of file-level code: the boot volume's root, and the log when asked.
  void OpenBoot (bool log = false) {
    ASSERT_EQ (OpenRoot (boot.Handle (), &root), EFI_SUCCESS);
    if (log) ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  }

  void TearDown () override {
    if (root != nullptr) root->Close (root);
    if (LogFile != nullptr) CloseLog ();
    EXPECT_EQ (fw.OpenHandles (), 0) << "file handles left open";
    EXPECT_EQ (fake::Firmware::LivePool (), poolAtStart) << "pool buffers leaked";
  }

  // The log file decoded from UTF-16LE; fails the test on an odd length or a BOM.
  std::string LogText (fake::Volume &volume) {
    std::string    bytes = volume.Get ("\\velmaro_log.txt");
    std::u16string text (bytes.size () / 2, u'\0');
    std::memcpy (text.data (), bytes.data (), text.size () * 2);   // the host is little-endian too
    EXPECT_EQ (bytes.size () % 2, 0u);
    EXPECT_EQ (text.find (u'\xFEFF'), std::u16string::npos) << "byte-order mark in the log";
    return fake::Narrow (text);
  }

  std::string LogText () { return LogText (boot); }
  std::string Log () { CloseLog (); return LogText (); }   // the log closed first
  std::string Console () const { return fake::Narrow (fw.console); }
};
