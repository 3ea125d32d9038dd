#include "Harness.h"

namespace {

using LogTest = HostTest;

TEST_F (LogTest, FreshLogIsStampedUtf16WithCrLf) {
  boot.Put ("\\velmaro_log.txt", std::string ("o\0l\0d\0", 6));
  EXPECT_EQ (InitLog (fw.image), EFI_SUCCESS);
  fw.AdvanceMs (7);
  LogPrint (W (u"Velmaro UEFI\n"));
  EXPECT_EQ (Log (), "[+00000000 ms] \r\n\r\n=== Velmaro log start ===\r\n"
                     "[+00000000 ms] Advanced diagnostics: disabled\r\n"
                     "[+00000000 ms] Data/ora firmware log: 2026-11-23 07:05:09 timezone=2047 daylight=0x0\r\n"
                     "[+00000007 ms] Velmaro UEFI\r\n"
                     "[+00000007 ms] === Velmaro log end ===\r\n");
  EXPECT_FALSE (AdvancedDiagnostics);
  EXPECT_TRUE (Has (Console (), "  InitLog Delete(\\velmaro_log.txt): Success (0x0)\r\n"));
  EXPECT_TRUE (Has (Console (), "[+00000007 ms] Velmaro UEFI\r\n"));
}

TEST_F (LogTest, MarkerFileSwitchesOnDiagnosticsAndMissingOldLogIsSilent) {
  boot.Put ("\\boot\\VELMARO_DEBUG.LOG", "");
  EXPECT_EQ (InitLog (fw.image), EFI_SUCCESS);
  EXPECT_TRUE (AdvancedDiagnostics);
  EXPECT_TRUE (Has (Log (), "] Advanced diagnostics: enabled by \\boot\\VELMARO_DEBUG.LOG\r\n"));
  EXPECT_FALSE (Has (Console (), "InitLog Delete"));
}

// Both directions a counter can run: the local APIC timer counts down, the time-stamp
// counter we ship counts up. A reading past the start point (a reload or a wrap) is 0 ms.
TEST_F (LogTest, StampCountsMillisecondsAndNeverGoesNegative) {
  for (const bool up : { false, true }) {
    fw.frequency = 1000000;   // slow enough for two minutes in the 32-bit counter
    if (up) fw.CountUp (), fw.AdvanceMs (1000);   // the counter ran before the log opened
    fw.console.clear ();
    ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
    fw.AdvanceMs (123456);
    LogPrint (W (u"a\n"));
    fw.counter = up ? 0 : fw.counterStart;   // reloaded or wrapped past the start point
    LogPrint (W (u"b\n"));
    CloseLog ();
    LogPrint (W (u"c\n"));   // after the close: console only, 0 ms

    const std::string log = LogText ();
    EXPECT_TRUE (Has (log, "[+00123456 ms] a\r\n")) << (up ? "up" : "down");
    EXPECT_TRUE (Has (log, "[+00000000 ms] b\r\n")) << (up ? "up" : "down");
    EXPECT_FALSE (Has (log, "] c"));
    EXPECT_TRUE (Has (Console (), "[+00000000 ms] c\r\n"));
  }
}

// The machine may be switched off at any line: what the driver has put on the medium
// must already hold every line logged so far.
TEST_F (LogTest, EveryLineIsOnTheMediumBeforeTheNextStep) {
  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  LogPrint (W (u"first step\n"));
  LogPrint (W (u"second step\n"));
  fake::Volume &afterPowerCut = fw.AddVolume (boot.DiskImage ());
  EXPECT_TRUE (Has (LogText (afterPowerCut), "] first step\r\n[+00000000 ms] second step\r\n"));
}

TEST_F (LogTest, LongMessagesAreCutAndConsoleShowsFirst320Characters) {
  const std::u16string longText (2000, u'x');
  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  fw.console.clear ();
  LogPrint (W (u"%s"), W (longText.c_str ()));

  const std::string expected = "[+00000000 ms] " + std::string (1023, 'x');
  EXPECT_TRUE (Has (Log (), expected + "[+00000000 ms] === Velmaro log end"));
  EXPECT_EQ (Console ().substr (0, 320), expected.substr (0, 320));
  EXPECT_FALSE (Has (Console (), std::string (321 - 15, 'x')));
}

struct InitFailure { const char *name; fake::Fault fault; EFI_STATUS result; bool logCreated; const char *consoleLine; };

class InitLogFailureTest : public LogTest, public ::testing::WithParamInterface<InitFailure> {};

TEST_P (InitLogFailureTest, RunGoesOnWithWhatCouldBeOpened) {
  const InitFailure &c = GetParam ();
  boot.Put ("\\velmaro_log.txt", "");
  fw.faults.Add (c.fault);
  EXPECT_EQ (InitLog (fw.image), c.result);
  EXPECT_TRUE (Has (Console (), c.consoleLine));
  EXPECT_EQ (LogFile != nullptr, c.logCreated);

  fw.AdvanceMs (50);
  LogPrint (W (u"after\n"));
  if (c.logCreated) {
    EXPECT_TRUE (Has (Log (), "[+00000050 ms] after\r\n"));
  } else {
    EXPECT_TRUE (Has (Console (), "[+00000000 ms] after\r\n"));
    EXPECT_EQ (boot.Get ("\\velmaro_log.txt"), "");
  }
}

INSTANTIATE_TEST_SUITE_P (
  Rows, InitLogFailureTest,
  ::testing::Values (
    InitFailure { "NoLoadedImage", { Op::HandleProtocol, EFI_UNSUPPORTED, 1 }, EFI_UNSUPPORTED, false,
                  "  InitLog HandleProtocol(LoadedImage): Unsupported (0x8000000000000003)\r\n" },
    InitFailure { "NoRoot", { Op::OpenVolume, EFI_MEDIA_CHANGED, 1 }, EFI_MEDIA_CHANGED, false,
                  "  InitLog OpenRoot(app device): Media changed (0x800000000000000D)\r\n" },
    InitFailure { "OldLogUnopenable", { Op::Open, EFI_ACCESS_DENIED, 1, "velmaro_log" }, EFI_SUCCESS, true,
                  "  InitLog Delete(\\velmaro_log.txt) skipped: Access Denied (0x800000000000000F)\r\n" },
    InitFailure { "CreateFails", { Op::Open, EFI_VOLUME_FULL, 0, "velmaro_log" }, EFI_VOLUME_FULL, false,
                  "  InitLog Root->Open(\\velmaro_log.txt): Volume Full (0x800000000000000B)\r\n" },
    InitFailure { "SetPositionFails", { Op::SetPosition, EFI_DEVICE_ERROR, 1 }, EFI_DEVICE_ERROR, true,
                  "  InitLog SetPosition(start): Device Error (0x8000000000000007)\r\n" }),
  [](const ::testing::TestParamInfo<InitFailure> &info) { return std::string (info.param.name); });

TEST_F (LogTest, UndeletableOldLogIsOverwrittenFromItsStart) {
  boot.Put ("\\velmaro_log.txt", std::string (4000, 'Z'));
  fw.faults.Fail (Op::Delete, EFI_WARN_DELETE_FAILURE, 1);
  EXPECT_EQ (InitLog (fw.image), EFI_SUCCESS);
  CloseLog ();
  EXPECT_TRUE (Has (Console (), "  InitLog Delete(\\velmaro_log.txt): Warning Delete Failure (0x2)\r\n"));
  const std::string bytes = boot.Get ("\\velmaro_log.txt");
  EXPECT_EQ (bytes.substr (0, 4), std::string ("[\0+\0", 4));
  EXPECT_EQ (bytes.size (), 4000u);
  EXPECT_EQ (bytes.back (), 'Z');
}

TEST_F (LogTest, ClockFailureIsReportedAndLineWritesFailingAreSkipped) {
  fw.faults.Fail (Op::GetTime, EFI_DEVICE_ERROR);
  fw.faults.Fail (Op::Write, EFI_DEVICE_ERROR, 4);
  ASSERT_EQ (InitLog (fw.image), EFI_SUCCESS);
  LogPrint (W (u"lost\n"));
  LogPrint (W (u"kept\n"));

  const std::string log = Log ();
  EXPECT_TRUE (Has (log, "] Data/ora firmware log non disponibile: Device Error (0x8000000000000007)\r\n"));
  EXPECT_FALSE (Has (log, "lost"));
  EXPECT_TRUE (Has (log, "] kept\r\n"));
  EXPECT_TRUE (Has (Console (), "] lost\r\n"));
}

TEST_F (LogTest, ReadOnlyWarningOnlyForWriteProtected) {
  ShowReadOnlyWarning (EFI_ACCESS_DENIED);
  ShowReadOnlyWarning (EFI_SUCCESS);
  EXPECT_TRUE (fw.attributes.empty ());
  EXPECT_TRUE (fw.console.empty ());

  const INT32 before = fw.conOutMode.Attribute;
  ShowReadOnlyWarning (EFI_WRITE_PROTECTED);
  EXPECT_EQ (fw.attributes, (std::vector<UINTN>{ 0x0C, static_cast<UINTN>(before) }));
  EXPECT_TRUE (Has (Console (),
                    "[+00000000 ms] \r\nWARNING: Velmaro has read-only access because the USB volume is marked dirty/write-protected.\r\n\r\n"
                    "Possible cause:\r\nthe USB drive was not safely ejected from the operating system.\r\n\r\n"
                    "Please reconnect the USB drive to the operating system and safely remove/eject it before booting again.\r\n"));
}

}  // namespace
