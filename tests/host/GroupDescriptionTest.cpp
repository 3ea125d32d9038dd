// The group description file: which of its lines count, what is logged, and which marker
// name comes back; and where the file is looked for when the boot volume lacks it.
#include "Harness.h"

#include <data/GroupDescription.h>

namespace {

class GroupDescriptionTest : public HostTest {
 protected:
  void SetUp () override {
    fw.SetDevicePath (boot.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 1, 0x5EED));
    OpenBoot (true);
  }

  std::string Marker () {
    CHAR16 name[MARKER_NAME_CHARS] = { u'x' };
    ReadGroupDescription (boot.Handle (), root, W (u"s-win-a"), name);
    return Str (name);
  }
};

TEST_F (GroupDescriptionTest, OnlyAThirdLineEndingInUuidIsAMarker) {
  const std::string longLine (200, 'd');
  const struct { const char *name; std::string text, marker; std::vector<std::string> lines; } rows[] = {
    { "blank lines first", "\r\n\n\r\nWindows 11 x64\r\nsrc-11\r\n1a2b-3c4d.uuid\r\nmore\r\n", "1a2b-3c4d.uuid",
      { "  descrizione: Windows 11 x64", "  SRC file ID: src-11", "  marker ID: 1a2b-3c4d.uuid" } },
    { "two lines", "Windows 10\nsrc-10\n", "", { "  marker ID: nessun .uuid" } },
    { "marker in upper case", "a\rb\r1A2B-3C4D.UUID", "", { "  marker ID: nessun .uuid" } },
    { "a marker that is only the ending", "a\nb\n  .uuid\t\n", ".uuid", { "  marker ID: .uuid" } },
    { "blank second line", "a\n  \t\n1a2b-3c4d.uuid", "1a2b-3c4d.uuid", { "  SRC file ID: (assente)" } },
    { "a description longer than a line", longLine + "\nsrc\n1a2b-3c4d.uuid\n", "1a2b-3c4d.uuid",
      { "  descrizione: " + longLine.substr (0, 127), "  SRC file ID: src" } },
  };
  for (const auto &row : rows) {
    SCOPED_TRACE (row.name);
    boot.Put ("\\boot\\s-win-a.txt", row.text);
    EXPECT_EQ (Marker (), row.marker);
    const std::vector<std::string> lines = Lines (LogText ());
    EXPECT_EQ (std::count (lines.begin (), lines.end (), "File ID \\boot\\s-win-a.txt:"), &row - rows + 1);
    for (const std::string &line : row.lines) EXPECT_NE (std::find (lines.end () - 4, lines.end (), line), lines.end ()) << line;
  }
}

TEST_F (GroupDescriptionTest, AMissingFileIsReadFromASiblingPartitionOnly) {
  fake::Volume &otherDisk = fw.AddVolume (), &sibling = fw.AddVolume ();
  fw.SetDevicePath (otherDisk.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (2), 2, 0x7777));
  fw.SetDevicePath (sibling.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 2, 0x5EED));
  otherDisk.Put ("\\boot\\s-win-a.txt", "other\nother\n9999-9999.uuid\n");
  EXPECT_EQ (Marker (), "");
  EXPECT_TRUE (Has (LogText (), "] File ID \\boot\\s-win-a.txt non letto su BOOT FS: Not Found (0x800000000000000E)\r\n"));
  EXPECT_TRUE (Has (LogText (), "] File ID \\boot\\s-win-a.txt non trovato su BOOT FS o partizioni sorelle\r\n"));

  sibling.Put ("\\boot\\s-win-a.txt", "here\nsrc\n1a2b-3c4d.uuid\n");
  EXPECT_EQ (Marker (), "1a2b-3c4d.uuid");
  EXPECT_TRUE (Has (LogText (), "] File ID \\boot\\s-win-a.txt letto da partizione sorella handle="));

  fw.faults.Fail (Op::LocateHandleBuffer, EFI_OUT_OF_RESOURCES);
  EXPECT_EQ (Marker (), "");
  EXPECT_TRUE (Has (Log (), "] File ID \\boot\\s-win-a.txt: ricerca partizioni sorelle non riuscita: Out of Resources (0x8000000000000009)\r\n"));
}

}  // namespace
