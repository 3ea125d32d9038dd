// One firmware failure at a time, at every call an operation makes. A scenario builds a
// stick on a fresh fake firmware and runs one public operation; the sweep runs it once
// without a fault and counts the calls it makes to every firmware operation, then runs
// it again for each call number of each operation with exactly that call failing, as
// FirmwareStatuses.h says it can. After every run no pool buffer and no file handle may
// be left behind, no group's data may be lost, and the answer must be one the scenario
// allows for a single failure.
//
// VELMARO_SWEEP=full tries every status at every call; otherwise a fixed sample tries the
// first status of the call's table at every call, and every status at the first and the
// last call.
#pragma once

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "FirmwareStatuses.h"
#include "GroupData.h"

namespace sweep {

// In a scenario's allowed answers: the status the failing call itself returned, passed on.
constexpr EFI_STATUS PassedOn = MAX_BIT - 1;

// A volume whose groups must survive every run. Paths in notGroupData (the state file, a
// scratch file) are left out of the comparison: the operation may remove them by design.
struct Watched { const fake::Volume *volume; std::vector<GroupNames> groups; std::vector<std::string> notGroupData = {}; };

// Every scenario answers EFI_SUCCESS without a fault.
struct Scenario {
  std::string                                          name;      // letters, digits and '_' only
  std::function<std::vector<Watched> (fake::Firmware &)> setup;   // builds the stick, opens what the run needs
  std::function<EFI_STATUS ()>                         run;       // one public operation; frees what it hands back
  std::vector<EFI_STATUS>                              allowed;   // its possible answers with one
  std::map<fake::Op, unsigned>                         reach = {};   // the clean run makes at least this many calls
};

// The fault of the run under way ({} in the clean run): for checks that hold except under
// one particular lie of the firmware.
inline fake::Fault injecting;


inline bool Full () { return std::getenv ("VELMARO_SWEEP") != nullptr && std::string (std::getenv ("VELMARO_SWEEP")) == "full"; }

inline void PrintTo (const Scenario &scenario, std::ostream *out) { *out << scenario.name; }

inline std::string StatusText (EFI_STATUS status) {
  if (status == PassedOn) return "the injected status";
  CHAR16 text[80];
  UnicodeSPrint (text, sizeof (text), L16 (u"%r (0x%lx)"), status, status);
  return fake::Narrow (reinterpret_cast<const char16_t *>(text));
}

inline std::string FaultText (const fake::Fault &fault, unsigned calls) {
  if (fault.op == fake::Op::None) return "no fault";
  std::ostringstream text;
  text << firmware_statuses::OpName (fault.op) << " call " << fault.nth << " of " << calls << " -> " << StatusText (fault.status)
       << ", effect " << firmware_statuses::EffectName (fault.effect);
  return text.str ();
}

// The faults one sweep injects, given the clean run's call counts.
inline std::vector<fake::Fault> Plan (std::map<fake::Op, unsigned> calls, bool full) {
  std::vector<fake::Fault> plan;
  for (const auto &table : firmware_statuses::Tables ()) {
    for (unsigned n = 1; n <= calls[table.op]; ++n) {
      for (size_t i = 0; i < table.outcomes.size (); ++i) {
        if (full || i == 0 || n == 1 || n == calls[table.op]) plan.push_back ({ table.op, table.outcomes[i].status, n, "", table.outcomes[i].effect });
      }
    }
  }
  return plan;
}

class Runner {
 public:
  explicit Runner (const Scenario &scenario) : scenario_ (scenario) {}

  // Sweeps the scenario and prints how many runs it took, the clean one included.
  void Sweep () {
    std::map<fake::Op, unsigned> calls;
    if (!Once ({}, &calls)) return;
    for (const auto &[op, least] : scenario_.reach) {
      EXPECT_GE (calls[op], least) << scenario_.name << ": the clean run no longer reaches " << firmware_statuses::OpName (op) << " call " << least;
    }
    const std::vector<fake::Fault> plan   = Plan (calls, Full ());
    unsigned                       failed = 0;
    for (const fake::Fault &fault : plan) failed += Once (fault, nullptr, calls[fault.op], failed < kReported) ? 0 : 1;
    if (failed > kReported) ADD_FAILURE () << scenario_.name << ": " << failed - kReported << " more failing runs not shown";

    std::ostringstream counts;
    for (const auto &table : firmware_statuses::Tables ()) counts << (calls[table.op] != 0 ? std::string (" ") + table.name + " " + std::to_string (calls[table.op]) : "");
    std::cout << "[ sweep    ] " << scenario_.name << ": " << plan.size () + 1 << " runs (" << (Full () ? "full" : "sample")
              << "); clean calls:" << counts.str () << std::endl;
  }

 private:
  static constexpr unsigned kReported = 10;   // failing runs shown in full per scenario

  // The clean answer stands too: the failing call may be one the operation rightly passes
  // over (a console line, a Flush); the run's own checks catch a false success.
  bool Allowed (EFI_STATUS status, EFI_STATUS injected) const {
    const auto &allowed = scenario_.allowed;
    const auto  has     = [&](EFI_STATUS s) { return std::find (allowed.begin (), allowed.end (), s) != allowed.end (); };
    return (status == injected && has (PassedOn)) || status == EFI_SUCCESS || has (status);
  }

  // One run with at most one fault; the clean run (calls given) must succeed, a faulted one
  // answer as allowed. Failures inside the run are collected and reported as one, naming
  // the fault; false when the run failed.
  bool Once (const fake::Fault &fault, std::map<fake::Op, unsigned> *calls, unsigned callsOfOp = 0, bool report = true) {
    ::testing::TestPartResultArray problems;
    EFI_STATUS                     status = EFI_SUCCESS;
    {
      ::testing::ScopedFakeTestPartResultReporter collect (::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD,
                                                           &problems);
      auto fw             = std::make_unique<fake::Firmware>();
      LogFile             = nullptr;
      AdvancedDiagnostics = FALSE;

      const std::vector<Watched>  watched = scenario_.setup (*fw);
      std::vector<VolumeSnapshot> before;
      for (const Watched &w : watched) {
        before.push_back (w.volume->Snapshot ());
        for (const std::string &path : w.notGroupData) before.back ().erase (path);
      }
      const int    handles = fw->OpenHandles ();
      const size_t pool    = fake::Firmware::LivePool ();

      fw->faults.Set (fault);
      injecting = fault;
      status    = scenario_.run ();
      injecting = {};
      if (calls != nullptr) for (const auto &table : firmware_statuses::Tables ()) (*calls)[table.op] = fw->faults.Calls (table.op);
      fw->faults.Reset ();

      EXPECT_EQ (fw->OpenHandles (), handles) << "file handles left open";
      EXPECT_EQ (fake::Firmware::LivePool (), pool) << "pool buffers leaked";
      for (size_t i = 0; i < watched.size (); ++i) ExpectNoGroupDataLost (before[i], *watched[i].volume, watched[i].groups);
      fw.reset ();   // what the firmware finds left over when it goes belongs to this run
    }

    std::ostringstream why;
    if (calls != nullptr && status != EFI_SUCCESS) {
      why << "\n  answered " << StatusText (status) << ", expected " << StatusText (EFI_SUCCESS);
    } else if (calls == nullptr && !Allowed (status, fault.status)) {
      why << "\n  answered " << StatusText (status) << ", allowed:";
      for (EFI_STATUS a : scenario_.allowed) why << " " << StatusText (a) << ";";
    }
    for (int i = 0; i < problems.size (); ++i) {
      const auto &p = problems.GetTestPartResult (i);
      why << "\n  " << (p.file_name () != nullptr ? p.file_name () : "") << ":" << p.line_number () << ": " << p.message ();
    }
    if (!why.str ().empty () && report) ADD_FAILURE () << scenario_.name << ", " << FaultText (fault, callsOfOp) << ":" << why.str ();
    return why.str ().empty ();
  }

  const Scenario &scenario_;
};

}  // namespace sweep
