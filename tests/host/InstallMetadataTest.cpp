#include "Harness.h"

#include <discovery/InstallMetadata.h>
#include <fs/FileAccess.h>

#include <cstring>
#include <vector>

using fake::Op;

namespace {

const char *const XML = "\\ZENTO\\software.xml";
const CHAR8 *const ID = reinterpret_cast<const CHAR8 *>("s-win-10x64");
const std::string FLAG = "<ISO2ndPartition>True</ISO2ndPartition>";
const std::string NOT_FOUND_TEXT = "Not Found (0x800000000000000E)";

std::string Str (const CHAR16 *text) { return fake::Narrow (reinterpret_cast<const char16_t *>(text)); }

// One software block as the installer writes it.
std::string Sw (const std::string &id, const std::string &der, const std::string &body)
{
  return "<software ID=\"" + id + "\" Der=\"" + der + "\">\r\n" + body + "</software>\r\n";
}

std::string Win (const std::string &id, const std::string &body) { return Sw (id, "velmaro Windows 11", FLAG + body); }

const std::string NTFS_BODY = "<FS> ntfs </FS><UUID>01d9f3a2b4c5d6e7</UUID>";

class InstallMetadataTest : public HostTest {
 protected:
  EFI_FILE_PROTOCOL *root = nullptr;

  void SetUp () override { ASSERT_EQ (OpenRoot (boot.Handle (), &root), EFI_SUCCESS); }

  void TearDown () override
  {
    root->Close (root);
    HostTest::TearDown ();
  }

  // Messages are written with "\n"; the print library puts out CR LF for it.
  bool Printed (std::string line) const
  {
    line.replace (line.size () - 1, 1, "\r\n");
    return Console ().find ("] " + line) != std::string::npos;
  }
  bool PrintedAnyMetadata () const { return Console ().find ("Metadata") != std::string::npos; }
};

struct SourceCase {
  const char   *name;
  std::string  xml;
  EFI_STATUS   status;
  const char   *fs, *uuid;
  const char   *message;   // null: no metadata message at all
};

TEST_F (InstallMetadataTest, SourceMetadataNeedsTheGroupsOwnSecondPartitionWindowsImage)
{
  const std::string legacy = "Metadata SOURCE FS: nessuna ISO Windows/velmaro in seconda partizione; legacy FAT32\n";
  const std::string notIso = "Metadata SOURCE FS: ID=s-win-10x64 non e ISO Windows/velmaro in seconda partizione; legacy FAT32\n";
  const std::string found  = "Metadata SOURCE FS da software.xml: ID=s-win-10x64 FS=NTFS UUID=01d9f3a2b4c5d6e7\n";
  const std::string badFs  = "Metadata SOURCE FS: FS software.xml non riconosciuto per ID s-win-10x64\n";
  const std::string uuid127 (127, 'u');
  const SourceCase rows[] = {
    { "own image qualifies", Win ("s-win-10x64", NTFS_BODY), EFI_SUCCESS, "NTFS", "01d9f3a2b4c5d6e7", found.c_str () },
    { "Der words in any order", Sw ("s-win-10x64", "velmaro Windows", FLAG + NTFS_BODY), EFI_SUCCESS, "NTFS", "01d9f3a2b4c5d6e7", found.c_str () },
    { "only another group qualifies", Sw ("s-win-10x64", "velmaro Windows", NTFS_BODY) + Win ("s-lin", NTFS_BODY), EFI_NOT_FOUND, "", "", notIso.c_str () },
    { "Der without velmaro", Sw ("s-win-10x64", "Windows", FLAG + NTFS_BODY), EFI_NOT_FOUND, "", "", legacy.c_str () },
    { "Der in lower case", Sw ("s-win-10x64", "windows velmaro", FLAG + NTFS_BODY), EFI_NOT_FOUND, "", "", legacy.c_str () },
    { "Der closed outside the block", "<software ID=\"s-win-10x64\" Der=\"velmaro Windows" + FLAG + "</software>\"", EFI_NOT_FOUND, "", "", legacy.c_str () },
    { "longer ID is another group", Win ("s-win-10x64b", NTFS_BODY), EFI_NOT_FOUND, "", "", nullptr },
    { "only the first ID counts", Win ("s-lin", "<Part ID=\"s-win-10x64\"/>" + NTFS_BODY), EFI_NOT_FOUND, "", "", nullptr },
    { "unknown filesystem", Win ("s-win-10x64", "<FS>ReFS</FS><UUID>u</UUID>"), EFI_UNSUPPORTED, "", "", badFs.c_str () },
    { "empty filesystem", Win ("s-win-10x64", "<FS> </FS><UUID>u</UUID>"), EFI_INVALID_PARAMETER, "", "", badFs.c_str () },
    { "filesystem longer than its field", Win ("s-win-10x64", "<FS>" + std::string (16, 'f') + "</FS>"), EFI_BUFFER_TOO_SMALL, "", "", nullptr },
    { "no FS element", Win ("s-win-10x64", "<UUID>u</UUID>"), EFI_NOT_FOUND, "", "", nullptr },
    { "FS never closed in the block", Win ("s-win-10x64", "<FS>NTFS") + "</FS>", EFI_COMPROMISED_DATA, "", "", nullptr },
    { "no UUID keeps the filesystem", Win ("s-win-10x64", "<FS>exfat</FS>"), EFI_NOT_FOUND, "exFAT", "", nullptr },
    { "UUID of 127 bytes", Win ("s-win-10x64", "<FS>FAT32</FS><UUID>" + uuid127 + "</UUID>"), EFI_SUCCESS, "FAT32", uuid127.c_str (), nullptr },
    { "UUID of 128 bytes", Win ("s-win-10x64", "<FS>FAT32</FS><UUID>" + uuid127 + "u</UUID>"), EFI_BUFFER_TOO_SMALL, "FAT32", "", nullptr },
    { "padding counts toward the limit", Win ("s-win-10x64", "<FS>FAT32</FS><UUID>" + std::string (120, 'u') + std::string (8, ' ') + "</UUID>"), EFI_BUFFER_TOO_SMALL, "FAT32", "", nullptr },
    // The outer block ends at the inner one's close; the walk still finds the inner one
    // because it looks again just past the outer "<software".
    { "block inside another", "<software ID=\"outer\" Der=\"Linux\">" + Win ("s-win-10x64", "<FS>EXFAT</FS><UUID>1234-ABCD</UUID>"), EFI_SUCCESS, "exFAT", "1234-ABCD", nullptr },
  };

  for (const auto &row : rows) {
    CHAR16 fs[VELMARO_FS_CHARS]    = { 'x', 0 };
    CHAR16 uuid[UUID_TEXT_CHARS]   = { 'x', 0 };
    fw.console.clear ();
    boot.Put (XML, row.xml);
    EXPECT_EQ (LookupSourceMetadata (root, ID, fs, uuid), row.status) << row.name;
    EXPECT_EQ (Str (fs), row.fs) << row.name;
    EXPECT_EQ (Str (uuid), row.uuid) << row.name;
    if (row.message != nullptr) {
      EXPECT_TRUE (Printed (row.message)) << row.name << "\n" << Console ();
    } else if (row.status != EFI_SUCCESS) {
      EXPECT_FALSE (PrintedAnyMetadata ()) << row.name << "\n" << Console ();
    }
  }
}

TEST_F (InstallMetadataTest, UnclosedSoftwareBlockFailsEveryXmlLookup)
{
  boot.Put (XML, "<software ID=\"s-win-10x64\" Der=\"velmaro Windows\">" + FLAG + "<BCD_MD5>0123</BCD_MD5><BCD>w10</BCD>");
  CHAR16      fs[VELMARO_FS_CHARS], uuid[UUID_TEXT_CHARS], name[VELMARO_NAME_CHARS] = { 'x', 0 };
  GROUP_STATE state;

  EXPECT_EQ (LookupSourceMetadata (root, ID, fs, uuid), EFI_COMPROMISED_DATA);
  EXPECT_EQ (LookupGroupNames (root, ID, &state), EFI_COMPROMISED_DATA);
  EXPECT_EQ (LookupBcdNameByMd5 (root, W (u"0123"), name), EFI_COMPROMISED_DATA);
  EXPECT_EQ (Str (name), "");
}

TEST_F (InstallMetadataTest, UnreadableFilesAreReportedWithTheirStatus)
{
  CHAR16      fs[VELMARO_FS_CHARS], uuid[UUID_TEXT_CHARS], name[VELMARO_NAME_CHARS];
  GROUP_STATE state;

  EXPECT_EQ (LookupSourceMetadata (root, ID, fs, uuid), EFI_NOT_FOUND);
  EXPECT_TRUE (Printed ("Metadata SOURCE FS: software.xml non disponibile: " + NOT_FOUND_TEXT + "\n")) << Console ();
  EXPECT_EQ (LookupFsTxt (root, W (u"01d9f3a2b4c5d6e7"), fs), EFI_NOT_FOUND);
  EXPECT_TRUE (Printed ("Metadata SOURCE FS: FS.txt non disponibile: " + NOT_FOUND_TEXT + "\n")) << Console ();
  EXPECT_EQ (LookupGroupNames (root, ID, &state), EFI_NOT_FOUND);
  EXPECT_EQ (LookupBcdNameByMd5 (root, W (u"0123"), name), EFI_NOT_FOUND);

  boot.Put (XML, Win ("s-win-10x64", NTFS_BODY));
  fw.faults.Fail (Op::Open, EFI_ACCESS_DENIED, 0, "software.xml");
  EXPECT_EQ (LookupSourceMetadata (root, ID, fs, uuid), EFI_ACCESS_DENIED);
  EXPECT_TRUE (Printed ("Metadata SOURCE FS: software.xml non disponibile: Access Denied (0x800000000000000F)\n")) << Console ();
  EXPECT_EQ (LookupGroupNames (root, ID, &state), EFI_ACCESS_DENIED);
  EXPECT_EQ (LookupBcdNameByMd5 (root, W (u"0123"), name), EFI_ACCESS_DENIED);

  EXPECT_EQ (LookupSourceMetadata (root, nullptr, fs, uuid), EFI_INVALID_PARAMETER);
  EXPECT_EQ (LookupGroupNames (root, ID, nullptr), EFI_INVALID_PARAMETER);
  EXPECT_EQ (LookupBcdNameByMd5 (root, nullptr, name), EFI_INVALID_PARAMETER);
  EXPECT_EQ (LookupFsTxt (root, W (u""), fs), EFI_INVALID_PARAMETER);
}

TEST_F (InstallMetadataTest, GroupNamesComeFromTheFirstBlockWithTheId)
{
  const std::string b127 (127, 'b');
  const struct {
    const char   *name;
    std::string  xml;
    EFI_STATUS   status;
    const char   *bcd, *src, *efi;
  } rows[] = {
    { "forward slash prefix", Sw ("s-win-10x64", "Linux", "<BCD>bcd_w10</BCD><SRC>w10</SRC><EFI> efi/w10 </EFI>"), EFI_SUCCESS, "bcd_w10", "w10", "w10" },
    { "backslash prefix", Sw ("s-win-10x64", "", "<BCD>b</BCD><SRC>s</SRC><EFI>efi\\w10</EFI>"), EFI_SUCCESS, "b", "s", "w10" },
    { "upper-case prefix stays", Sw ("s-win-10x64", "", "<BCD>b</BCD><SRC>s</SRC><EFI>EFI\\w10</EFI>"), EFI_SUCCESS, "b", "s", "EFI\\w10" },
    { "first block wins", Sw ("s-win-10x64", "", "<BCD>1</BCD><SRC>1</SRC><EFI>1</EFI>") + Sw ("s-win-10x64", "", "<BCD>2</BCD><SRC>2</SRC><EFI>2</EFI>"), EFI_SUCCESS, "1", "1", "1" },
    { "SRC missing keeps BCD", Sw ("s-win-10x64", "", "<BCD>b</BCD><EFI>e</EFI>"), EFI_NOT_FOUND, "b", "", "" },
    { "BCD of 127 bytes", Sw ("s-win-10x64", "", "<BCD>" + b127 + "</BCD><SRC>s</SRC><EFI>e</EFI>"), EFI_SUCCESS, b127.c_str (), "s", "e" },
    { "BCD of 128 bytes", Sw ("s-win-10x64", "", "<BCD>" + b127 + "b</BCD><SRC>s</SRC><EFI>e</EFI>"), EFI_BUFFER_TOO_SMALL, "", "", "" },
  };

  for (const auto &row : rows) {
    GROUP_STATE state;
    std::memset (&state, 0x41, sizeof (state));
    boot.Put (XML, row.xml);
    EXPECT_EQ (LookupGroupNames (root, ID, &state), row.status) << row.name;
    EXPECT_EQ (Str (state.Bcd), row.bcd) << row.name;
    EXPECT_EQ (Str (state.Src), row.src) << row.name;
    EXPECT_EQ (Str (state.Efi), row.efi) << row.name;
    EXPECT_EQ (Str (state.SrcPart), "") << row.name;
    EXPECT_EQ (Str (state.SrcFs), "") << row.name;
  }

  // Without the group's block the caller's record is left alone.
  GROUP_STATE state;
  std::memset (&state, 0, sizeof (state));
  state.Bcd[0] = 'k';
  boot.Put (XML, Sw ("s-win-10x64b", "", "<BCD>b</BCD><SRC>s</SRC><EFI>e</EFI>"));
  EXPECT_EQ (LookupGroupNames (root, ID, &state), EFI_NOT_FOUND);
  EXPECT_EQ (Str (state.Bcd), "k");
}

TEST_F (InstallMetadataTest, BcdNameByDigestMustBeUnambiguous)
{
  const std::string md5 = "0123456789abcdef0123456789abcdef";
  auto image = [&] (const std::string &der, const std::string &digest, const std::string &bcd) {
    return Sw ("g", der, "<BCD_MD5> " + digest + " </BCD_MD5>" + (bcd.empty () ? "" : "<BCD>" + bcd + "</BCD>"));
  };
  const struct {
    const char   *name;
    std::string  xml;
    const char16_t *digest;
    EFI_STATUS   status;
    const char   *bcd;
  } rows[] = {
    { "one match", image ("Windows velmaro", md5, "w10"), u"0123456789abcdef0123456789abcdef", EFI_SUCCESS, "w10" },
    { "digest in other case", image ("Windows velmaro", md5, "w10"), u"0123456789ABCDEF0123456789ABCDEF", EFI_SUCCESS, "w10" },
    { "two names for one store", image ("Windows velmaro", md5, "w10") + image ("velmaro Windows", md5, "w11"), u"0123456789abcdef0123456789abcdef", EFI_NO_MAPPING, "" },
    { "same name twice", image ("Windows velmaro", md5, "w10") + image ("velmaro Windows", md5, "w10"), u"0123456789abcdef0123456789abcdef", EFI_SUCCESS, "w10" },
    { "names differing in case", image ("Windows velmaro", md5, "w10") + image ("velmaro Windows", md5, "W10"), u"0123456789abcdef0123456789abcdef", EFI_NO_MAPPING, "" },
    { "non-Windows images ignored", image ("Linux", md5, "lin") + image ("Windows velmaro", md5, "w10") + image ("Windows", md5, "w11"), u"0123456789abcdef0123456789abcdef", EFI_SUCCESS, "w10" },
    { "image without digest skipped", Sw ("g", "Windows velmaro", "<BCD>none</BCD>") + image ("Windows velmaro", md5, "w10"), u"0123456789abcdef0123456789abcdef", EFI_SUCCESS, "w10" },
    { "other digests", image ("Windows velmaro", md5, "w10"), u"ffff", EFI_NOT_FOUND, "" },
    { "no software block", "<list/>", u"0123", EFI_NOT_FOUND, "" },
    { "empty digest", image ("Windows velmaro", "", "w10"), u"", EFI_NOT_FOUND, "" },
    { "digest too long", image ("Windows velmaro", md5, "w10"), u"0123456789abcdef0123456789abcdef0", EFI_BUFFER_TOO_SMALL, "" },
    { "stored digest too long", image ("Windows velmaro", md5 + "0", "w10"), u"0123456789abcdef0123456789abcdef", EFI_BUFFER_TOO_SMALL, "" },
    { "match without BCD stops", image ("Windows velmaro", md5, "") + image ("Windows velmaro", md5, "w10"), u"0123456789abcdef0123456789abcdef", EFI_NOT_FOUND, "" },
    { "broken block after a match", image ("Windows velmaro", md5, "w10") + "<software", u"0123456789abcdef0123456789abcdef", EFI_COMPROMISED_DATA, "" },
  };

  for (const auto &row : rows) {
    CHAR16 name[VELMARO_NAME_CHARS] = { 'x', 0 };
    boot.Put (XML, row.xml);
    EXPECT_EQ (LookupBcdNameByMd5 (root, W (row.digest), name), row.status) << row.name;
    EXPECT_EQ (Str (name), row.bcd) << row.name;
  }
}

TEST_F (InstallMetadataTest, FsTxtTakesTheFirstLineForTheUuid)
{
  const struct {
    const char      *name;
    std::string     text;
    const char16_t  *uuid;
    EFI_STATUS      status;
    const char      *fs;
  } rows[] = {
    { "second line", "FAT32|1a2b-3c4d\r\nNTFS|01d9f3a2b4c5d6e7\r\n", u"01d9f3a2b4c5d6e7", EFI_SUCCESS, "NTFS" },
    { "spaces and case", "\r\n\r\n  NTFS | 01D9F3A2B4C5D6E7  \n", u"01d9f3a2b4c5d6e7", EFI_SUCCESS, "NTFS" },
    { "first of two", "exfat|1a2b-3c4d\rNTFS|1A2B-3C4D", u"1a2b-3c4d", EFI_SUCCESS, "exFAT" },
    { "split at the first bar", "junk 1a2b-3c4d\nFAT32|a|b\n", u"a|b", EFI_SUCCESS, "FAT32" },
    { "no such UUID", "NTFS|01d9f3a2b4c5d6e7\n", u"01d9", EFI_NOT_FOUND, "" },
    { "unknown type", "ReFS|01d9\n", u"01d9", EFI_UNSUPPORTED, "" },
    { "empty type", " |01d9\n", u"01d9", EFI_INVALID_PARAMETER, "" },
    { "type longer than its field", std::string (16, 'N') + "|01d9\n", u"01d9", EFI_BUFFER_TOO_SMALL, "" },
  };

  for (const auto &row : rows) {
    CHAR16 fs[VELMARO_FS_CHARS] = { 'x', 0 };
    fw.console.clear ();
    boot.Put ("\\ZENTO\\FS.txt", row.text);
    EXPECT_EQ (LookupFsTxt (root, W (row.uuid), fs), row.status) << row.name;
    EXPECT_EQ (Str (fs), row.fs) << row.name;
    if (row.status == EFI_SUCCESS) {
      EXPECT_TRUE (Printed ("Metadata SOURCE FS da FS.txt: UUID=" + fake::Narrow (row.uuid) + " FS=" + row.fs + "\n")) << row.name << "\n" << Console ();
    } else {
      EXPECT_FALSE (PrintedAnyMetadata ()) << row.name << "\n" << Console ();
    }
  }
}

TEST_F (InstallMetadataTest, AppliedSourceReplacesTheRequestedFilesystem)
{
  ACTIVATION_CONTEXT context;
  std::memset (&context, 0, sizeof (context));

  ApplySourceMetadata (&context, W (u""), W (u"1234-5678"), W (u"FS.txt"));
  EXPECT_FALSE (context.SourceMetadataApplied);
  EXPECT_EQ (Str (context.Requested.SrcPart), "");
  EXPECT_FALSE (PrintedAnyMetadata ());

  ApplySourceMetadata (&context, W (u"NTFS"), W (u""), nullptr);
  EXPECT_TRUE (context.SourceMetadataApplied);
  EXPECT_EQ (Str (context.Requested.SrcFs), "NTFS");
  EXPECT_TRUE (Printed ("Metadata SOURCE FS applicato da (sconosciuto): SRC_FS=NTFS SRC_PART=(assente)\n")) << Console ();

  ApplySourceMetadata (&context, W (u"exFAT"), W (u"1234-5678"), W (u"software.xml"));
  EXPECT_EQ (Str (context.Requested.SrcFs), "exFAT");
  EXPECT_EQ (Str (context.Requested.SrcPart), "1234-5678");
  EXPECT_TRUE (Printed ("Metadata SOURCE FS applicato da software.xml: SRC_FS=exFAT SRC_PART=1234-5678\n")) << Console ();

  // Without a UUID the partition already requested stands.
  ApplySourceMetadata (&context, W (u"NTFS"), nullptr, W (u"FS.txt"));
  EXPECT_EQ (Str (context.Requested.SrcPart), "1234-5678");
  EXPECT_TRUE (Printed ("Metadata SOURCE FS applicato da FS.txt: SRC_FS=NTFS SRC_PART=1234-5678\n")) << Console ();
}

TEST_F (InstallMetadataTest, StateDumpAndVolumeDescription)
{
  GROUP_STATE state;
  std::memset (&state, 0, sizeof (state));
  state.Bcd[0] = 'b';
  state.SrcFs[0] = 'N';
  DumpGroupState (W (u"Corrente"), &state);
  EXPECT_TRUE (Printed ("Corrente: BCD=b SRC=(missing) EFI=(missing) SRC_PART=(missing) SRC_FS=N\n")) << Console ();

  fake::Volume &other = fw.AddVolume ();
  DescribeVolume (W (u"Boot"), boot.Handle (), boot.Handle ());
  EXPECT_TRUE (Printed ("Boot = FAT32 / partition 1 / UUID=(not available)\n")) << Console ();
  DescribeVolume (W (u"Altro"), boot.Handle (), other.Handle ());
  EXPECT_TRUE (Printed ("Altro = (unknown FS) / partition 0 / UUID=(not available)\n")) << Console ();

  // A Hard Drive node names the partition, wherever it sits in the path.
  std::vector<UINT8> path (sizeof (ACPI_HID_DEVICE_PATH) + sizeof (HARDDRIVE_DEVICE_PATH) + sizeof (EFI_DEVICE_PATH_PROTOCOL), 0);
  auto *acpi = reinterpret_cast<ACPI_HID_DEVICE_PATH *>(path.data ());
  acpi->Header.Type = ACPI_DEVICE_PATH;
  acpi->Header.SubType = ACPI_DP;
  acpi->Header.Length[0] = sizeof (ACPI_HID_DEVICE_PATH);
  auto *hd = reinterpret_cast<HARDDRIVE_DEVICE_PATH *>(path.data () + sizeof (ACPI_HID_DEVICE_PATH));
  hd->Header.Type = MEDIA_DEVICE_PATH;
  hd->Header.SubType = MEDIA_HARDDRIVE_DP;
  hd->Header.Length[0] = sizeof (HARDDRIVE_DEVICE_PATH);
  hd->PartitionNumber = 3;
  auto *end = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL *>(path.data () + sizeof (ACPI_HID_DEVICE_PATH) + sizeof (HARDDRIVE_DEVICE_PATH));
  end->Type = END_DEVICE_PATH_TYPE;
  end->SubType = END_ENTIRE_DEVICE_PATH_SUBTYPE;
  end->Length[0] = sizeof (EFI_DEVICE_PATH_PROTOCOL);
  fw.Install (other.Handle (), gEfiDevicePathProtocolGuid, path.data ());
  DescribeVolume (W (u"Altro"), boot.Handle (), other.Handle ());
  EXPECT_TRUE (Printed ("Altro = (unknown FS) / partition 3 / UUID=(not available)\n")) << Console ();
  fw.Uninstall (other.Handle (), gEfiDevicePathProtocolGuid);
}

}  // namespace
