// Shared fixture: a fake firmware with a boot volume the application was started from.
// Every test ends with no pool buffer and no file handle left behind.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "fake/Firmware.h"

#include <app/DiagnosticLog.h>

class HostTest : public ::testing::Test {
 protected:
  fake::Firmware fw;
  fake::Volume   &boot;
  size_t         poolAtStart;

  HostTest () : boot (fw.AddVolume ()), poolAtStart (fake::Firmware::LivePool ())
  {
    fw.StartFrom (boot);
    LogFile             = nullptr;
    AdvancedDiagnostics = FALSE;
  }

  void TearDown () override
  {
    if (LogFile != nullptr) {
      CloseLog ();
    }

    EXPECT_EQ (fw.OpenHandles (), 0) << "file handles left open";
    EXPECT_EQ (fake::Firmware::LivePool (), poolAtStart) << "pool buffers leaked";
  }

  // The log file decoded from UTF-16LE; fails the test on an odd length or a BOM.
  std::string LogText (fake::Volume &volume)
  {
    std::string bytes = volume.Get ("\\velmaro_log.txt");
    EXPECT_EQ (bytes.size () % 2, 0u);
    std::string text;
    for (size_t i = 0; i + 1 < bytes.size (); i += 2) {
      char16_t c = static_cast<unsigned char>(bytes[i]) | (static_cast<unsigned char>(bytes[i + 1]) << 8);
      EXPECT_NE (c, 0xFEFF) << "byte-order mark in the log";
      text += c < 0x80 ? static_cast<char>(c) : '?';
    }

    return text;
  }

  std::string LogText () { return LogText (boot); }
  std::string Console () const { return fake::Narrow (fw.console); }
};

inline const CHAR16 *W (const char16_t *text)
{
  return reinterpret_cast<const CHAR16 *>(text);
}
