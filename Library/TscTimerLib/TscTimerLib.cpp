/** @file
  TimerLib on the time-stamp counter: a 64-bit counter that counts up from 0 and does
  not wrap within any run, at a frequency measured once against the firmware's Stall.
**/

extern "C" {
#include <Uefi.h>
#include <Library/BaseLib.h>
#include <Library/TimerLib.h>
#include <Library/UefiBootServicesTableLib.h>
}

/// One window of the calibration, and how many are measured.
#define CALIBRATION_MICROSECONDS  1000
#define CALIBRATION_WINDOWS       5

STATIC UINT64  mFrequency;

/**
  A Stall only ever lasts longer than asked (a busy host may pause the machine in the
  middle of one), and a longer window makes the counter look faster and every stamp too
  small. The shortest of several windows is the one least disturbed.
**/
STATIC
UINT64
CounterFrequency (
  VOID
  )
{
  UINT64  Start;
  UINT64  Ticks;
  UINT64  Fewest;
  UINTN   Window;

  if (mFrequency == 0) {
    Fewest = MAX_UINT64;
    for (Window = 0; Window < CALIBRATION_WINDOWS; Window++) {
      Start = AsmReadTsc ();
      gBS->Stall (CALIBRATION_MICROSECONDS);
      Ticks = AsmReadTsc () - Start;
      if (Ticks < Fewest) {
        Fewest = Ticks;
      }
    }

    mFrequency = MultU64x32 (Fewest, 1000000 / CALIBRATION_MICROSECONDS);
    if (mFrequency == 0) {
      mFrequency = 1;
    }
  }

  return mFrequency;
}

extern "C" {

UINTN
EFIAPI
MicroSecondDelay (
  IN UINTN  MicroSeconds
  )
{
  gBS->Stall (MicroSeconds);
  return MicroSeconds;
}

UINTN
EFIAPI
NanoSecondDelay (
  IN UINTN  NanoSeconds
  )
{
  gBS->Stall ((NanoSeconds + 999) / 1000);
  return NanoSeconds;
}

UINT64
EFIAPI
GetPerformanceCounter (
  VOID
  )
{
  return AsmReadTsc ();
}

UINT64
EFIAPI
GetPerformanceCounterProperties (
  OUT UINT64  *StartValue OPTIONAL,
  OUT UINT64  *EndValue OPTIONAL
  )
{
  if (StartValue != nullptr) {
    *StartValue = 0;
  }

  if (EndValue != nullptr) {
    *EndValue = MAX_UINT64;
  }

  return CounterFrequency ();
}

UINT64
EFIAPI
GetTimeInNanoSecond (
  IN UINT64  Ticks
  )
{
  UINT64  Frequency = CounterFrequency ();
  UINT64  Remainder;
  UINT64  Seconds;

  // Whole seconds first, so that Ticks * 10^9 cannot overflow.
  Seconds = DivU64x64Remainder (Ticks, Frequency, &Remainder);
  return MultU64x32 (Seconds, 1000000000u) + DivU64x64Remainder (MultU64x32 (Remainder, 1000000000u), Frequency, nullptr);
}

}  // extern "C"
