#include "Harness.h"

#include <discovery/InstallMetadata.h>

namespace {

const char *const  XML       = "\\ZENTO\\software.xml";
const std::string  ID        = "s-win-10x64";
const std::string  FLAG      = "<ISO2ndPartition>True</ISO2ndPartition>";
const std::string  NTFS_BODY = "<FS> ntfs </FS><UUID>01d9f3a2b4c5d6e7</UUID>";

// One software block as the installer writes it.
std::string Sw (const std::string &id, const std::string &der, const std::string &body) {
  return "<software ID=\"" + id + "\" Der=\"" + der + "\">\r\n" + body + "</software>\r\n";
}

std::string Win (const std::string &id, const std::string &body) { return Sw (id, "velmaro Windows 11", FLAG + body); }

class InstallMetadataTest : public HostTest {
 protected:
  CHAR16       fs[VELMARO_FS_CHARS], uuid[UUID_TEXT_CHARS], name[VELMARO_NAME_CHARS];
  GROUP_STATE  state;

  void SetUp () override { OpenBoot (); }

  EFI_STATUS Source () { return LookupSourceMetadata (root, A (ID), fs, uuid); }
  EFI_STATUS Names () { return LookupGroupNames (root, A (ID), &state); }
  EFI_STATUS BcdName (const char16_t *digest) { return LookupBcdNameByMd5 (root, W (digest), name); }
  bool PrintedAnyMetadata () const { return Has (Console (), "Metadata"); }
};

TEST_F (InstallMetadataTest, SourceMetadataNeedsTheGroupsOwnSecondPartitionWindowsImage) {
  const std::string legacy = "] Metadata SOURCE FS: nessuna ISO Windows/velmaro in seconda partizione; legacy FAT32\r\n";
  const std::string notIso = "] Metadata SOURCE FS: ID=s-win-10x64 non e ISO Windows/velmaro in seconda partizione; legacy FAT32\r\n";
  const std::string found  = "] Metadata SOURCE FS da software.xml: ID=s-win-10x64 FS=NTFS UUID=01d9f3a2b4c5d6e7\r\n";
  const std::string badFs  = "] Metadata SOURCE FS: FS software.xml non riconosciuto per ID s-win-10x64\r\n";
  const std::string u127 (127, 'u');
  // message: empty when a failed lookup prints no metadata message at all
  const struct { const char *name; std::string xml; EFI_STATUS status; std::string fs, uuid; std::string message; } rows[] = {
    { "own image qualifies", Win (ID, NTFS_BODY), EFI_SUCCESS, "NTFS", "01d9f3a2b4c5d6e7", found },
    { "Der words in any order", Sw (ID, "velmaro Windows", FLAG + NTFS_BODY), EFI_SUCCESS, "NTFS", "01d9f3a2b4c5d6e7", found },
    { "only another group qualifies", Sw (ID, "velmaro Windows", NTFS_BODY) + Win ("s-lin", NTFS_BODY), EFI_NOT_FOUND, "", "", notIso },
    { "Der without velmaro", Sw (ID, "Windows", FLAG + NTFS_BODY), EFI_NOT_FOUND, "", "", legacy },
    { "Der words outside its quotes", Sw (ID, "velmaro", FLAG + "Windows" + NTFS_BODY), EFI_NOT_FOUND, "", "", legacy },
    { "Der in lower case", Sw (ID, "windows velmaro", FLAG + NTFS_BODY), EFI_NOT_FOUND, "", "", legacy },
    { "Der closed outside the block", "<software ID=\"" + ID + "\" Der=\"velmaro Windows" + FLAG + "</software>\"", EFI_NOT_FOUND, "", "", legacy },
    { "longer ID is another group", Win (ID + "b", NTFS_BODY), EFI_NOT_FOUND, "", "", "" },
    { "only the first ID counts", Win ("s-lin", "<Part ID=\"s-win-10x64\"/>" + NTFS_BODY), EFI_NOT_FOUND, "", "", "" },
    { "unknown filesystem", Win (ID, "<FS>ReFS</FS><UUID>u</UUID>"), EFI_UNSUPPORTED, "", "", badFs },
    { "empty filesystem", Win (ID, "<FS> </FS><UUID>u</UUID>"), EFI_INVALID_PARAMETER, "", "", badFs },
    { "filesystem longer than its field", Win (ID, "<FS>" + std::string (16, 'f') + "</FS>"), EFI_BUFFER_TOO_SMALL, "", "", "" },
    { "no FS element", Win (ID, "<UUID>u</UUID>"), EFI_NOT_FOUND, "", "", "" },
    { "FS never closed in the block", Win (ID, "<FS>NTFS") + "</FS>", EFI_COMPROMISED_DATA, "", "", "" },
    { "no UUID keeps the filesystem", Win (ID, "<FS>exfat</FS>"), EFI_NOT_FOUND, "exFAT", "", "" },
    { "UUID of 127 bytes", Win (ID, "<FS>FAT32</FS><UUID>" + u127 + "</UUID>"), EFI_SUCCESS, "FAT32", u127, "" },
    { "UUID of 128 bytes", Win (ID, "<FS>FAT32</FS><UUID>" + u127 + "u</UUID>"), EFI_BUFFER_TOO_SMALL, "FAT32", "", "" },
    { "padding counts toward the limit", Win (ID, "<FS>FAT32</FS><UUID>" + std::string (120, 'u') + std::string (8, ' ') + "</UUID>"),
      EFI_BUFFER_TOO_SMALL, "FAT32", "", "" },
    // The outer block ends at the inner one's close; the walk still finds the inner one
    // because it looks again just past the outer "<software".
    { "block inside another", "<software ID=\"outer\" Der=\"Linux\">" + Win (ID, "<FS>EXFAT</FS><UUID>1234-ABCD</UUID>"), EFI_SUCCESS,
      "exFAT", "1234-ABCD", "" },
  };

  for (const auto &row : rows) {
    SetField (fs, "x"), SetField (uuid, "x"), fw.console.clear (), boot.Put (XML, row.xml);
    EXPECT_EQ (Source (), row.status) << row.name;
    EXPECT_EQ (Str (fs), row.fs) << row.name;
    EXPECT_EQ (Str (uuid), row.uuid) << row.name;
    if (!row.message.empty ()) {
      EXPECT_TRUE (Has (Console (), row.message)) << row.name;
    } else if (row.status != EFI_SUCCESS) {
      EXPECT_FALSE (PrintedAnyMetadata ()) << row.name << "\n" << Console ();
    }
  }
}

TEST_F (InstallMetadataTest, UnreadableOrBrokenFilesFailEveryLookupWithTheirStatus) {
  const std::string unavailable = "] Metadata SOURCE FS: software.xml non disponibile: ";
  // xml: empty for no file; message: empty for none checked
  const struct { const char *name; std::string xml; fake::Fault fault; EFI_STATUS status; std::string message; } rows[] = {
    { "no file", "", {}, EFI_NOT_FOUND, unavailable + "Not Found (0x800000000000000E)\r\n" },
    { "unopenable", Win (ID, NTFS_BODY), { Op::Open, EFI_ACCESS_DENIED, 0, "software.xml" }, EFI_ACCESS_DENIED,
      unavailable + "Access Denied (0x800000000000000F)\r\n" },
    { "block never closed", "<software ID=\"s-win-10x64\" Der=\"velmaro Windows\">" + FLAG + "<BCD_MD5>0123</BCD_MD5><BCD>w10</BCD>", {},
      EFI_COMPROMISED_DATA, "" },
  };

  for (const auto &row : rows) {
    boot.Remove (XML);
    if (!row.xml.empty ()) boot.Put (XML, row.xml);
    fw.faults.Set (row.fault), SetField (name, "x");
    EXPECT_EQ (Source (), row.status) << row.name;
    if (!row.message.empty ()) EXPECT_TRUE (Has (Console (), row.message)) << row.name;
    EXPECT_EQ (Names (), row.status) << row.name;
    EXPECT_EQ (BcdName (u"0123"), row.status) << row.name;
    EXPECT_EQ (Str (name), "") << row.name;
  }

  EXPECT_EQ (LookupFsTxt (root, W (u"01d9f3a2b4c5d6e7"), fs), EFI_NOT_FOUND);
  EXPECT_TRUE (Has (Console (), "] Metadata SOURCE FS: FS.txt non disponibile: Not Found (0x800000000000000E)\r\n"));
  EXPECT_EQ (LookupFsTxt (root, W (u""), fs), EFI_INVALID_PARAMETER);
}

TEST_F (InstallMetadataTest, GroupNamesComeFromTheFirstBlockWithTheId) {
  const std::string b127 (127, 'b');
  const struct { const char *name; std::string xml; EFI_STATUS status; std::string bcd, src, efi; } rows[] = {
    { "forward slash prefix", Sw (ID, "Linux", "<BCD>bcd_w10</BCD><SRC>w10</SRC><EFI> efi/w10 </EFI>"), EFI_SUCCESS, "bcd_w10", "w10", "w10" },
    { "backslash prefix", Sw (ID, "", "<BCD>b</BCD><SRC>s</SRC><EFI>efi\\w10</EFI>"), EFI_SUCCESS, "b", "s", "w10" },
    { "upper-case prefix stays", Sw (ID, "", "<BCD>b</BCD><SRC>s</SRC><EFI>EFI\\w10</EFI>"), EFI_SUCCESS, "b", "s", "EFI\\w10" },
    { "first block wins", Sw (ID, "", "<BCD>1</BCD><SRC>1</SRC><EFI>1</EFI>") + Sw (ID, "", "<BCD>2</BCD><SRC>2</SRC><EFI>2</EFI>"),
      EFI_SUCCESS, "1", "1", "1" },
    { "SRC missing keeps BCD", Sw (ID, "", "<BCD>b</BCD><EFI>e</EFI>"), EFI_NOT_FOUND, "b", "", "" },
    { "BCD of 127 bytes", Sw (ID, "", "<BCD>" + b127 + "</BCD><SRC>s</SRC><EFI>e</EFI>"), EFI_SUCCESS, b127, "s", "e" },
    { "BCD of 128 bytes", Sw (ID, "", "<BCD>" + b127 + "b</BCD><SRC>s</SRC><EFI>e</EFI>"), EFI_BUFFER_TOO_SMALL, "", "", "" },
  };

  for (const auto &row : rows) {
    std::memset (&state, 0x41, sizeof (state));
    boot.Put (XML, row.xml);
    EXPECT_EQ (Names (), row.status) << row.name;
    EXPECT_EQ ((std::vector<std::string>{ Str (state.Bcd), Str (state.Src), Str (state.Efi), Str (state.SrcPart), Str (state.SrcFs) }),
               (std::vector<std::string>{ row.bcd, row.src, row.efi, "", "" })) << row.name;
  }

  // Without the group's block the caller's record is left alone.
  state = State ("k");
  boot.Put (XML, Sw (ID + "b", "", "<BCD>b</BCD><SRC>s</SRC><EFI>e</EFI>"));
  EXPECT_EQ (Names (), EFI_NOT_FOUND);
  EXPECT_EQ (Str (state.Bcd), "k");
}

TEST_F (InstallMetadataTest, BcdNameByDigestMustBeUnambiguous) {
  const std::string    md5  = "0123456789abcdef0123456789abcdef";
  const char16_t *const wide = u"0123456789abcdef0123456789abcdef";
  auto image = [&](const std::string &der, const std::string &bcd, const std::string &digest = "0123456789abcdef0123456789abcdef") {
    return Sw ("g", der, "<BCD_MD5> " + digest + " </BCD_MD5>" + (bcd.empty () ? "" : "<BCD>" + bcd + "</BCD>"));
  };
  const struct { const char *name; std::string xml; const char16_t *digest; EFI_STATUS status; const char *bcd; } rows[] = {
    { "one match", image ("Windows velmaro", "w10"), wide, EFI_SUCCESS, "w10" },
    { "digest in other case", image ("Windows velmaro", "w10"), u"0123456789ABCDEF0123456789ABCDEF", EFI_SUCCESS, "w10" },
    { "two names for one store", image ("Windows velmaro", "w10") + image ("velmaro Windows", "w11"), wide, EFI_NO_MAPPING, "" },
    { "same name twice", image ("Windows velmaro", "w10") + image ("velmaro Windows", "w10"), wide, EFI_SUCCESS, "w10" },
    { "names differing in case", image ("Windows velmaro", "w10") + image ("velmaro Windows", "W10"), wide, EFI_NO_MAPPING, "" },
    { "non-Windows images ignored", image ("Linux", "lin") + image ("Windows velmaro", "w10") + image ("Windows", "w11"), wide, EFI_SUCCESS, "w10" },
    { "image without digest skipped", Sw ("g", "Windows velmaro", "<BCD>none</BCD>") + image ("Windows velmaro", "w10"), wide, EFI_SUCCESS, "w10" },
    { "other digests", image ("Windows velmaro", "w10"), u"ffff", EFI_NOT_FOUND, "" },
    { "no software block", "<list/>", u"0123", EFI_NOT_FOUND, "" },
    { "empty digest", image ("Windows velmaro", "w10", ""), u"", EFI_NOT_FOUND, "" },
    { "digest too long", image ("Windows velmaro", "w10"), u"0123456789abcdef0123456789abcdef0", EFI_BUFFER_TOO_SMALL, "" },
    { "stored digest too long", image ("Windows velmaro", "w10", md5 + "0"), wide, EFI_BUFFER_TOO_SMALL, "" },
    { "match without BCD stops", image ("Windows velmaro", "") + image ("Windows velmaro", "w10"), wide, EFI_NOT_FOUND, "" },
    { "broken block after a match", image ("Windows velmaro", "w10") + "<software", wide, EFI_COMPROMISED_DATA, "" },
  };

  for (const auto &row : rows) {
    SetField (name, "x"), boot.Put (XML, row.xml);
    EXPECT_EQ (BcdName (row.digest), row.status) << row.name;
    EXPECT_EQ (Str (name), row.bcd) << row.name;
  }
}

TEST_F (InstallMetadataTest, FsTxtTakesTheFirstLineForTheUuid) {
  const struct { std::string text; const char16_t *uuid; EFI_STATUS status; std::string fs; } rows[] = {
    { "FAT32|1a2b-3c4d\r\nNTFS|01d9f3a2b4c5d6e7\r\n", u"01d9f3a2b4c5d6e7", EFI_SUCCESS, "NTFS" },    // second line
    { "\r\n\r\n  NTFS | 01D9F3A2B4C5D6E7  \n", u"01d9f3a2b4c5d6e7", EFI_SUCCESS, "NTFS" },            // spaces and case
    { "exfat|1a2b-3c4d\rNTFS|1A2B-3C4D", u"1a2b-3c4d", EFI_SUCCESS, "exFAT" },                       // first of two
    { "junk 1a2b-3c4d\nFAT32|a|b\n", u"a|b", EFI_SUCCESS, "FAT32" },                                // split at the first bar
    { "NTFS|01d9f3a2b4c5d6e7\n", u"01d9", EFI_NOT_FOUND, "" }, { "ReFS|01d9\n", u"01d9", EFI_UNSUPPORTED, "" },
    { " |01d9\n", u"01d9", EFI_INVALID_PARAMETER, "" }, { std::string (16, 'N') + "|01d9\n", u"01d9", EFI_BUFFER_TOO_SMALL, "" },
  };

  for (const auto &row : rows) {
    SetField (fs, "x"), fw.console.clear (), boot.Put ("\\ZENTO\\FS.txt", row.text);
    EXPECT_EQ (LookupFsTxt (root, W (row.uuid), fs), row.status) << row.text;
    EXPECT_EQ (Str (fs), row.fs) << row.text;
    if (row.status == EFI_SUCCESS) {
      EXPECT_TRUE (Has (Console (), "] Metadata SOURCE FS da FS.txt: UUID=" + fake::Narrow (row.uuid) + " FS=" + row.fs + "\r\n"));
    } else {
      EXPECT_FALSE (PrintedAnyMetadata ()) << row.text << "\n" << Console ();
    }
  }
}

TEST_F (InstallMetadataTest, AppliedSourceReplacesTheRequestedFilesystem) {
  ACTIVATION_CONTEXT context = {};
  // In turn on one context; line: empty when nothing may be printed. Without a UUID the
  // partition already requested stands.
  const struct { const char16_t *fs, *uuid, *from; bool applied; std::string srcFs, part, line; } rows[] = {
    { u"", u"1234-5678", u"FS.txt", false, "", "", "" },
    { u"NTFS", u"", nullptr, true, "NTFS", "", "(sconosciuto): SRC_FS=NTFS SRC_PART=(assente)" },
    { u"exFAT", u"1234-5678", u"software.xml", true, "exFAT", "1234-5678", "software.xml: SRC_FS=exFAT SRC_PART=1234-5678" },
    { u"NTFS", nullptr, u"FS.txt", true, "NTFS", "1234-5678", "FS.txt: SRC_FS=NTFS SRC_PART=1234-5678" },
  };
  for (const auto &row : rows) {
    fw.console.clear ();
    ApplySourceMetadata (&context, W (row.fs), W (row.uuid), W (row.from));
    EXPECT_EQ (context.SourceMetadataApplied != FALSE, row.applied);
    EXPECT_EQ (Str (context.Requested.SrcFs) + " " + Str (context.Requested.SrcPart), row.srcFs + " " + row.part);
    if (row.line.empty ()) EXPECT_FALSE (PrintedAnyMetadata ());
    else EXPECT_TRUE (Has (Console (), "] Metadata SOURCE FS applicato da " + row.line + "\r\n"));
  }
}

TEST_F (InstallMetadataTest, StateDumpAndVolumeDescription) {
  GROUP_STATE dumped = State ("b", "", "", "", "N");
  DumpGroupState (W (u"Corrente"), &dumped);
  EXPECT_TRUE (Has (Console (), "] Corrente: BCD=b SRC=(missing) EFI=(missing) SRC_PART=(missing) SRC_FS=N\r\n"));

  fake::Volume &other = fw.AddVolume ();
  // Neither handle offers Block I/O: no type and no UUID can be read from them.
  fw.Uninstall (boot.Handle (), gEfiBlockIoProtocolGuid), fw.Uninstall (other.Handle (), gEfiBlockIoProtocolGuid);
  DescribeVolume (W (u"Boot"), boot.Handle (), boot.Handle ());
  EXPECT_TRUE (Has (Console (), "] Boot = FAT32 / partition 1 / UUID=(not available)\r\n"));
  DescribeVolume (W (u"Altro"), boot.Handle (), other.Handle ());
  EXPECT_TRUE (Has (Console (), "] Altro = (unknown FS) / partition 0 / UUID=(not available)\r\n"));
  // A Hard Drive node names the partition, wherever it sits in the path.
  fw.SetDevicePath (other.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), 3, 0));
  DescribeVolume (W (u"Altro"), boot.Handle (), other.Handle ());
  EXPECT_TRUE (Has (Console (), "] Altro = (unknown FS) / partition 3 / UUID=(not available)\r\n"));
}

}  // namespace
