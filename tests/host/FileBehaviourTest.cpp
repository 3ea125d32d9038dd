// The file-protocol table (tests/probe/FileTable.cpp) run on a volume of the fake
// firmware. Its text goes to host-file-table.txt beside the test binary (or to
// $VELMARO_FILE_TABLE_OUT), where `make file-table` compares it row by row with the
// answers of OVMF's FAT driver. Here the table must run whole, leave the volume as it
// found it and print the same bytes on every run, so that the comparison sees only the
// driver's answers.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fake/Firmware.h"

// The host build compiles only the *Test.cpp files of this folder: the table comes in
// here, the very source the firmware image is built from.
#include "../probe/FileTable.cpp"

namespace {

constexpr size_t kTextBytes = 64 * 1024;

struct TableRun {
  std::string text;
  UINTN       rows;
  int         handlesLeft;
  std::map<std::string, std::string> entriesLeft;
};

TableRun RunOnFreshVolume () {
  fake::Firmware    fw;
  fake::Volume      &volume = fw.AddVolume ();
  std::vector<CHAR8> text (kTextBytes);
  TableRun           run;

  run.rows        = RunFileTable (&volume.sfs, text.data (), text.size ());
  run.text        = text.data ();
  run.handlesLeft = fw.OpenHandles ();
  run.entriesLeft = volume.Snapshot ();
  return run;
}

std::vector<std::string> LinesOf (const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream       in (text);
  for (std::string line; std::getline (in, line);) lines.push_back (line);
  return lines;
}

// Beside the test binary: build/host/host-file-table.txt for `make host-test`.
std::string OutputPath () {
  if (const char *path = std::getenv ("VELMARO_FILE_TABLE_OUT"); path != nullptr && *path != '\0') return path;
  std::vector<char> exe (4096);
  const ssize_t     length = readlink ("/proc/self/exe", exe.data (), exe.size () - 1);
  std::string       dir    = (length > 0) ? std::string (exe.data (), static_cast<size_t>(length)) : std::string ("./x");
  return dir.substr (0, dir.find_last_of ('/') + 1) + "host-file-table.txt";
}

}  // namespace

TEST (FileBehaviour, TableRunsWholeOnTheFakeVolumeAndIsWrittenForTheComparison) {
  // Answers of an earlier run must not outlive this one: the file is replaced before
  // anything is judged here (the comparison checks the text's shape on its own too).
  const std::string path = OutputPath ();
  std::remove (path.c_str ());
  const TableRun run = RunOnFreshVolume ();
  {
    std::ofstream out (path, std::ios::binary | std::ios::trunc);
    out << run.text;
    out.close ();
    ASSERT_TRUE (out.good ()) << "cannot write " << path;
  }

  EXPECT_EQ (run.rows, FileTableRowCount ());
  EXPECT_EQ (run.handlesLeft, 0) << "the table left file handles open";
  EXPECT_TRUE (run.entriesLeft.empty ()) << "the table left " << run.entriesLeft.size () << " entries behind, first "
                                         << (run.entriesLeft.empty () ? "" : run.entriesLeft.begin ()->first);

  // One line per row, in table order, then the end line.
  const std::vector<std::string> lines = LinesOf (run.text);
  ASSERT_EQ (lines.size (), FileTableRowCount () + 1) << run.text;
  for (UINTN i = 0; i < FileTableRowCount (); ++i) {
    const std::string name = reinterpret_cast<const char *>(FileTableRowName (i));
    EXPECT_EQ (lines[i].rfind (name + ": ", 0), 0u) << "line " << i << " is not row " << name << ": " << lines[i];
    // A row that could not make its scratch folder, or left something in the root, would
    // shape the rows after it: the comparison must see each row on its own.
    EXPECT_EQ (lines[i].find (" !scratch="), std::string::npos) << lines[i];
    EXPECT_EQ (lines[i].find (" !leftover="), std::string::npos) << lines[i];

    // Every answer has its own label, so that a difference names the call it is in.
    std::set<std::string> labels;
    std::istringstream    tokens (lines[i].substr (name.size () + 1));
    for (std::string token; tokens >> token;) {
      const std::string label = token.substr (0, token.find ('='));
      EXPECT_TRUE (labels.insert (label).second) << "label " << label << " twice in " << lines[i];
    }
  }
  EXPECT_EQ (lines.back (), "end: rows=" + std::to_string (FileTableRowCount ()));

  // A second fresh volume prints the same bytes: the text holds no clock or address.
  EXPECT_EQ (RunOnFreshVolume ().text, run.text);
}

TEST (FileBehaviour, RowNamesAreUniqueAndTheLastNameIsTheEnd) {
  std::set<std::string> names;
  for (UINTN i = 0; i < FileTableRowCount (); ++i) {
    const std::string name = reinterpret_cast<const char *>(FileTableRowName (i));
    EXPECT_TRUE (names.insert (name).second) << "row " << name << " twice";
    EXPECT_EQ (name.find_first_of (": "), std::string::npos) << name;
    EXPECT_NE (name, "end");
  }
  EXPECT_EQ (FileTableRowName (FileTableRowCount ()), nullptr);
}
