// The file-protocol table (tests/probe/FileTable.cpp) run on a host volume. Its text goes
// to host-file-table.txt beside the test binary (or to $VELMARO_FILE_TABLE_OUT), where
// `make file-table` compares it row by row with the answers of OVMF's FAT driver. Here the
// table must run whole, leave the volume as it found it and print the same bytes on every
// run, so that the comparison sees only the driver's answers.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fake/Firmware.h"

// The host build compiles only the *Test.cpp files of this folder: the table comes in
// here, the very source the firmware image is built from.
#include "../probe/FileTable.cpp"

namespace {

struct TableRun { std::string text; UINTN rows; int handlesLeft; size_t entriesLeft; };

TableRun RunOnFreshVolume () {
  fake::Firmware     fw;
  fake::Volume       &volume = fw.AddVolume ();
  std::vector<CHAR8> text (64 * 1024);
  const UINTN        rows = RunFileTable (&volume.sfs, text.data (), text.size ());
  return { text.data (), rows, fw.OpenHandles (), volume.Snapshot ().size () };
}

std::string OutputPath () {
  if (const char *path = std::getenv ("VELMARO_FILE_TABLE_OUT"); path != nullptr && *path != '\0') return path;
  std::vector<char> exe (4096);
  const ssize_t     length = readlink ("/proc/self/exe", exe.data (), exe.size () - 1);
  const std::string binary = (length > 0) ? std::string (exe.data (), static_cast<size_t>(length)) : "./x";
  return binary.substr (0, binary.find_last_of ('/') + 1) + "host-file-table.txt";
}

}  // namespace

TEST (FileBehaviour, TableRunsWholeAndIsWrittenForTheComparison) {
  // Answers of an earlier run must not outlive this one.
  const std::string path = OutputPath ();
  std::remove (path.c_str ());
  const TableRun run = RunOnFreshVolume ();
  std::ofstream (path, std::ios::binary) << run.text;
  ASSERT_TRUE (std::ifstream (path).good ()) << "cannot write " << path;

  std::vector<std::string> names;
  for (UINTN i = 0; FileTableRowName (i) != nullptr; ++i) names.push_back (FileTableRowName (i));
  EXPECT_EQ (std::set<std::string> (names.begin (), names.end ()).size (), names.size ()) << "a row name twice";
  EXPECT_EQ (run.rows, names.size ());
  EXPECT_EQ (run.handlesLeft, 0) << "the table left file handles open";
  EXPECT_EQ (run.entriesLeft, 0u) << "the table left entries behind";

  // One line per row in table order, each label once so that a difference names its call,
  // no row without its scratch folder or leaving one behind; then the end line.
  std::istringstream in (run.text);
  std::string        line;
  for (const std::string &name : names) {
    ASSERT_TRUE (std::getline (in, line)) << run.text;
    EXPECT_EQ (line.rfind (name + ": ", 0), 0u) << "not row " << name << ": " << line;
    EXPECT_EQ (line.find ('!'), std::string::npos) << line;
    std::set<std::string> labels;
    std::istringstream    tokens (line.substr (name.size () + 1));
    for (std::string token; tokens >> token;) EXPECT_TRUE (labels.insert (token.substr (0, token.find ('='))).second) << token << " in " << line;
  }
  ASSERT_TRUE (std::getline (in, line));
  EXPECT_EQ (line, "end: rows=" + std::to_string (names.size ()));
  EXPECT_FALSE (std::getline (in, line)) << line;

  // A second fresh volume prints the same bytes: the text holds no clock or address.
  EXPECT_EQ (RunOnFreshVolume ().text, run.text);
}
