// Every public operation that touches a volume, swept with one firmware failure at a
// time (Sweep.h). Each runs on a stick whose boot volume is FAT32; an operation that
// works on a source volume runs on the FAT32 boot volume itself and on NTFS and exFAT
// second partitions. On the source volume group a is active with a wrong "\boot\BCD"
// (so the active check repairs it and a normalisation has a store to place), older side
// names in the way, and the EFI BCD store of group b in the requested group's place;
// group b waits under its own names.
#include "Sweep.h"

#include <activation/BcdStores.h>
#include <data/EntriesFile.h>
#include <data/RecoveryRecord.h>
#include <data/StateFile.h>
#include <discovery/FsIdentification.h>
#include <discovery/InstallMetadata.h>
#include <fs/VerifiedChange.h>

namespace {

using sweep::PassedOn;

enum class Kind { Fat32, Ntfs, Exfat };

struct KindNames { const char *row, *image, *fs; };

KindNames NamesOf (Kind kind) {
  switch (kind) {
    case Kind::Ntfs: return { "Ntfs", "ntfs", "NTFS" };
    case Kind::Exfat: return { "Exfat", "exfat", "exFAT" };
    default: return { "Fat32", "fat32", "FAT32" };
  }
}

const std::vector<Kind> kEvery = { Kind::Fat32, Kind::Ntfs, Kind::Exfat };
// Rows that only read the boot volume's metadata: the stick whose metadata names an NTFS
// second partition for group a, so that every lookup has an answer.
const std::vector<Kind> kBootOnly = { Kind::Ntfs };

const std::vector<GroupNames> kGroups = { { "bcd_a", "grp_a", "efi_a", "s-win-a" }, { "bcd_b", "grp_b", "efi_b", "s-win-b" } };

// Stores and images longer than one 4096-byte chunk, so that copies and digests loop.
std::string Filled (const std::string &seed, size_t size) {
  std::string out;
  while (out.size () < size) out += seed + " " + std::to_string (out.size ()) + "\n";
  return out.substr (0, size);
}

const std::string kStoreA = Filled ("store of group a", 9000), kStoreB = Filled ("store of group b", 9000);
const std::string kStray = "store of nobody", kEfiA = "EFI store of group a", kEfiB = "EFI store of group b";
const std::string kWimA = Filled ("image of group a", 10000), kWimB = Filled ("image of group b", 6000);
const std::string kMd5StoreA = Md5Hex (kStoreA), kMd5StoreB = Md5Hex (kStoreB), kMd5WimA = Md5Hex (kWimA);

struct Stick {
  Kind                kind;
  fake::Volume        *boot = nullptr, *source = nullptr;
  EFI_FILE_PROTOCOL   *bootRoot = nullptr, *root = nullptr;   // root: the source volume's
  ACTIVATION_CONTEXT  context = {};
  std::string         entries, uuid;
  GROUP_STATE         state = {};
  CHAR16              text[DIR_ENTRY_PATH_CHARS] = {};
  CHAR8               id[VELMARO_NAME_CHARS] = {};

  bool External () const { return kind != Kind::Fat32; }
  fake::Volume &Src () const { return *source; }
};

// FAT32: the real FAT driver on a medium mkfs.fat formatted; NTFS and exFAT: the stand-in
// with the boot sector their tools write.
fake::Volume &AddPartition (fake::Firmware &fw, Kind kind, uint32_t number) {
  fake::Volume &volume = fw.AddVolume (kind == Kind::Ntfs ? fake::Fs::Ntfs : kind == Kind::Exfat ? fake::Fs::Exfat : fake::Fs::Fat32);
  fw.SetDevicePath (volume.Handle (), fake::WithMbrPartition (fake::UsbDiskPath (1), number, 0x5EED));
  return volume;
}

std::string Software (const std::string &id, const std::string &bcd, const std::string &src, const std::string &efi, const std::string &digest,
                      const Stick &s) {
  const std::string second = s.External () ? "<ISO2ndPartition>True</ISO2ndPartition>\r\n<FS>" + std::string (NamesOf (s.kind).fs) +
                                                 "</FS><UUID>" + s.uuid + "</UUID>\r\n"
                                           : "";
  return "<software ID=\"" + id + "\" Der=\"Windows 11 velmaro\">\r\n" + second + "<BCD>" + bcd + "</BCD><SRC>" + src + "</SRC><EFI>efi\\" + efi +
         "</EFI>\r\n<BCD_MD5>" + digest + "</BCD_MD5>\r\n</software>\r\n";
}

void Fill (Stick &s) {
  fake::Volume      &boot = *s.boot, &src = s.Src ();
  const std::string fs = NamesOf (s.kind).fs, part = s.External () ? "SRC_PART|" + s.uuid + "\r\n" : "";

  boot.Put ("\\boot\\NUR_VEL_EFI.COM", s.entries);
  boot.Put ("\\boot\\VELMARO.COM", "BCD:c:\\boot\\bcd_a\r\nSRC:c:\\grp_a\r\nEFI:c:\\efi\\efi_a\r\nSRC_PART:" + s.uuid + "\r\nSRC_FS:" + fs + "\r\n");
  boot.Put ("\\ZENTO\\software.xml", Software ("s-win-a", "bcd_a", "grp_a", "efi_a", kMd5StoreA, s) + Software ("s-win-b", "bcd_b", "grp_b", "efi_b", kMd5StoreB, s));
  boot.Put ("\\ZENTO\\FS.txt", "FAT32|" + Lower (fake::BlkidUuid ("fat32")) + "\r\n" + fs + "|" + s.uuid + "\r\n");

  src.Put ("\\velmaro_write_test.txt", "scratch");
  src.Put ("\\boot\\BCD", kStray);
  src.Put ("\\boot\\BCD_BAK", "older kept store");
  src.Put ("\\boot\\BCD.bak", "older store put aside");
  src.Put ("\\boot\\backup\\bcd_a", kStoreA);
  src.Put ("\\boot\\backup\\bcd_a.md5", kMd5StoreA + "\r\n");
  src.Put ("\\boot\\bcd_b", kStoreB);
  src.Put ("\\boot\\backup\\bcd_b", kStoreB);
  src.Put ("\\boot\\backup\\bcd_b.md5", kMd5StoreB + "\r\n");
  src.Put ("\\sources\\s-win-a.txt", "");
  src.Put ("\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n" + part);
  src.Put ("\\sources\\install.wim", kWimA);
  src.Put ("\\efi\\microsoft\\s-win-a.txt", "");
  src.Put ("\\efi\\microsoft\\boot\\BCD", kEfiB);
  src.Put ("\\efi\\microsoft\\boot\\backup\\bcd_a", kEfiA);
  src.Put ("\\efi\\microsoft\\boot\\backup\\bcd_a.md5", Md5Hex (kEfiA) + "\r\n");
  src.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b", kEfiB);
  src.Put ("\\efi\\microsoft\\boot\\backup\\bcd_b.md5", Md5Hex (kEfiB) + "\r\n");
  src.Put ("\\efi\\efi_a\\boot\\BCD", "damaged EFI store");
  src.Put ("\\grp_b\\readme.txt", "notes");
  src.Put ("\\grp_b\\recovery.txt", "ID|s-win-b\r\nSRC|grp_b\r\n" + part);
  src.Put ("\\grp_b\\install.wim", kWimB);
  src.Put ("\\grp_b\\s-win-b.txt", "");
  src.Put ("\\efi\\efi_b\\s-win-b.txt", "");
  src.Put ("\\efi\\efi_b\\boot\\bootmgfw.efi", "boot manager of group b");
}

void Build (fake::Firmware &fw, Stick &s) {
  s.boot   = &AddPartition (fw, Kind::Fat32, 1);
  s.source = s.External () ? &AddPartition (fw, s.kind, 2) : s.boot;
  s.uuid   = Lower (fake::BlkidUuid (NamesOf (s.kind).image));
  s.entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });
  fw.StartFrom (*s.boot);
  Fill (s);
  EXPECT_EQ (OpenRoot (s.boot->Handle (), &s.bootRoot), EFI_SUCCESS);
  EXPECT_EQ (OpenRoot (s.source->Handle (), &s.root), EFI_SUCCESS);

  ACTIVATION_CONTEXT &c = s.context;
  c.BootHandle   = s.boot->Handle ();
  c.BootRoot     = s.bootRoot;
  c.SourceHandle = s.source->Handle ();
  c.SourceRoot   = s.root;
  c.EntriesText  = reinterpret_cast<CHAR8 *>(s.entries.data ());
  c.ImageHandle  = fw.image;
  SetField (c.GroupId, "s-win-a");
  std::strcpy (reinterpret_cast<char *>(c.GroupIdAscii), "s-win-a");
  c.Requested = State ("bcd_a", "grp_a", "efi_a", s.External () ? s.uuid : "", s.External () ? NamesOf (s.kind).fs : "");
  c.Current   = State ("bcd_b", "grp_b", "efi_b");
  SetField (c.Current.BcdEfiMd5, Md5Hex (kEfiB));
}

// One operation on the stick, on the kinds of source volume given.
struct Row {
  const char                                  *name;
  std::vector<Kind>                           kinds;
  std::function<EFI_STATUS (Stick &)>         run;
  EFI_STATUS                                  clean;
  std::vector<EFI_STATUS>                     allowed;
  // More answers on some kinds: a UUID read on a FAT32 or exFAT volume whose own reader
  // fails ends with the NTFS reader's EFI_UNSUPPORTED (the readers are tried in order);
  // the EFI BCD store is renamed, with proof, only on NTFS and exFAT.
  std::map<Kind, std::vector<EFI_STATUS>>     also = {};
  std::function<void (Stick &)>               prepare = nullptr;
  std::vector<std::string>                    notGroupData = {};
  std::map<fake::Op, unsigned>                reach = {};
};

const CHAR16 *P (const char16_t *path) { return W (path); }

std::vector<Row> Rows () {
  const EFI_STATUS ok = EFI_SUCCESS, oor = EFI_OUT_OF_RESOURCES, nf = EFI_NOT_FOUND, dev = EFI_DEVICE_ERROR, bad = EFI_COMPROMISED_DATA;
  // An existence test that wrongly answers "absent" sends a rename onto a taken name,
  // which the driver refuses.
  const EFI_STATUS taken = EFI_ACCESS_DENIED;
  const std::map<Kind, std::vector<EFI_STATUS>> uuidOnFat32AndExfat = { { Kind::Fat32, { EFI_UNSUPPORTED } }, { Kind::Exfat, { EFI_UNSUPPORTED } } };
  const std::map<Kind, std::vector<EFI_STATUS>> uuidOnExfat = { { Kind::Exfat, { EFI_UNSUPPORTED } } };
  const std::map<Kind, std::vector<EFI_STATUS>> efiRenamesAndUuid = { { Kind::Ntfs, { dev } }, { Kind::Exfat, { dev, EFI_UNSUPPORTED } } };

  return {
    // --- File access -----------------------------------------------------------------
    { "OpenRoot", kEvery, [](Stick &s) {
        EFI_FILE_PROTOCOL *r = nullptr;
        const EFI_STATUS  st = OpenRoot (s.source->Handle (), &r);
        EXPECT_EQ (r != nullptr, !EFI_ERROR (st));
        if (r != nullptr) r->Close (r);
        return st;
      }, ok, { PassedOn } },
    { "FileExists", kEvery, [](Stick &s) {
        BOOLEAN          exists = FALSE;
        const EFI_STATUS st     = FileExists (s.root, P (u"\\sources\\install.wim"), &exists);
        EXPECT_EQ (exists != FALSE, !EFI_ERROR (st));
        return st;
      }, ok, { PassedOn } },
    { "ReadWholeFile", kEvery, [](Stick &s) {
        CHAR8            *text = nullptr;
        const EFI_STATUS st    = ReadWholeFile (s.root, P (u"\\sources\\install.wim"), &text);
        EXPECT_EQ (text != nullptr, !EFI_ERROR (st));
        // A read that comes up short is taken as the whole file: only its start is known.
        if (text != nullptr) EXPECT_EQ (kWimA.rfind (Str (text), 0), 0u);
        if (text != nullptr) FreePool (text);
        return st;
      }, ok, { PassedOn, oor } },
    { "DeleteFileVerified", kEvery, [](Stick &s) {
        const EFI_STATUS st = DeleteFileVerified (s.source->Handle (), s.root, P (u"\\velmaro_write_test.txt"));
        if (!EFI_ERROR (st)) EXPECT_FALSE (s.Src ().Exists ("\\velmaro_write_test.txt"));
        return st;
      }, ok, { PassedOn, dev }, {}, nullptr, { "\\velmaro_write_test.txt" } },

    // --- Verified changes --------------------------------------------------------------
    { "RenameVerified", kEvery, [](Stick &s) {
        const EFI_STATUS st = RenameVerified (s.source->Handle (), s.root, P (u"\\sources"), P (u"\\grp_a"));
        if (!EFI_ERROR (st)) EXPECT_TRUE (s.Src ().Exists ("\\grp_a\\s-win-a.txt") && !s.Src ().Exists ("\\sources"));
        return st;
      }, ok, { PassedOn, dev, oor } },
    { "MoveAsideToBak", kEvery, [](Stick &s) {
        const EFI_STATUS st = MoveAsideToBak (s.source->Handle (), s.root, ACTIVE_BCD_PATH);
        if (!EFI_ERROR (st)) EXPECT_EQ (s.Src ().Get ("\\boot\\BCD.bak"), kStray);
        return st;
      }, ok, { PassedOn, dev, oor, taken } },
    { "CopyFileVerified", kEvery, [](Stick &s) {
        const EFI_STATUS st = CopyFileVerified (s.root, P (u"\\boot\\backup\\bcd_a"), P (u"\\boot\\bcd_a"));
        // Not read back: only a write that claims success without effect may leave a wrong
        // copy behind a success (callers find it by its digest).
        if (!EFI_ERROR (st) && !sweep::Injecting (Op::Write, Effect::NoEffect)) EXPECT_TRUE (s.Src ().Get ("\\boot\\bcd_a") == kStoreA) << "a wrong copy";
        return st;
      }, ok, { PassedOn, dev, oor } },
    { "FindDirEntryPath", kEvery, [](Stick &s) {
        const EFI_STATUS st = FindDirEntryPath (s.root, P (u"\\efi\\microsoft\\boot"), P (u"bcd"), s.text);
        EXPECT_EQ (Str (s.text), EFI_ERROR (st) ? "" : "\\efi\\microsoft\\boot\\BCD");
        return st;
      }, ok, { PassedOn, oor } },

    // --- Digests -------------------------------------------------------------------------
    { "Md5OfFile", kEvery, [](Stick &s) {
        CHAR16           digest[VELMARO_MD5_CHARS] = {};
        const EFI_STATUS st = Md5OfFile (s.root, P (u"\\sources\\install.wim"), digest);
        EXPECT_EQ (Str (digest), EFI_ERROR (st) ? "" : kMd5WimA);
        return st;
      }, ok, { PassedOn } },
    { "ReadMd5File", kEvery, [](Stick &s) {
        CHAR16           digest[VELMARO_MD5_CHARS];
        const EFI_STATUS st = ReadMd5File (s.root, P (u"\\boot\\backup\\bcd_a.md5"), digest);
        EXPECT_EQ (Str (digest), EFI_ERROR (st) ? "" : kMd5StoreA);
        return st;
      }, ok, { PassedOn, bad } },
    { "FileMatchesBcdMd5", kEvery, [](Stick &s) {
        GROUP_STATE state = State ("bcd_a");
        SetField (state.BcdMd5, kMd5StoreA);
        return FileMatchesBcdMd5 (s.root, P (u"\\boot\\backup\\bcd_a"), &state);
      }, ok, { PassedOn } },

    // --- State file and entries file (boot volume) --------------------------------------
    { "WriteStateFile", kBootOnly, [](Stick &s) {
        const GROUP_STATE state = State ("bcd_b", "grp_b", "efi_b", s.uuid, "NTFS");
        const EFI_STATUS  st    = WriteStateFile (s.bootRoot, &state);
        if (!EFI_ERROR (st)) {
          EXPECT_EQ (s.boot->Get ("\\boot\\VELMARO.COM"), "BCD:c:\\boot\\bcd_b\r\nSRC:c:\\grp_b\r\nEFI:c:\\efi\\efi_b\r\nSRC_PART:" + s.uuid + "\r\nSRC_FS:NTFS\r\n");
        }
        return st;
      }, ok, { PassedOn, dev, bad, oor }, {}, nullptr, { "\\boot\\VELMARO.COM" } },
    { "ResetStateFile", kBootOnly, [](Stick &s) {
        const EFI_STATUS st = ResetStateFile (s.bootRoot);
        if (!EFI_ERROR (st)) EXPECT_EQ (s.boot->Get ("\\boot\\VELMARO.COM"), STATE_TEXT_NO_GROUP);
        return st;
      }, ok, { PassedOn, dev, bad, oor }, {}, nullptr, { "\\boot\\VELMARO.COM" } },
    { "ReadStateFile", kBootOnly, [](Stick &s) {
        CHAR8      *text = nullptr;
        EFI_STATUS st    = ReadWholeFile (s.bootRoot, STATE_FILE_PATH, &text);
        if (!EFI_ERROR (st)) st = ParseStateFile (text, &s.state);
        if (text != nullptr) FreePool (text);
        if (!EFI_ERROR (st)) EXPECT_EQ (Str (s.state.Src), "grp_a");
        return st;
      }, ok, { PassedOn, oor, bad } },
    { "ReadEntriesFile", kBootOnly, [](Stick &s) {
        CHAR8      *text = nullptr;
        EFI_STATUS st    = ReadWholeFile (s.bootRoot, ENTRIES_FILE_PATH, &text);
        if (!EFI_ERROR (st)) st = LookupGroupInEntries (text, A ("s-win-b"), &s.state);
        if (text != nullptr) FreePool (text);
        if (!EFI_ERROR (st)) EXPECT_EQ (Str (s.state.Efi), "efi_b");
        return st;
      }, ok, { PassedOn, oor, nf } },

    // --- Recovery records ---------------------------------------------------------------
    // The renewal's question: is \grp_b the requested group's folder? Its record gains
    // SRC_PART (on the boot volume), SRC_FS and BCD_MD5 on the way.
    { "ValidateRequestedSourcePath", kEvery, [](Stick &s) {
        return ValidateRequestedSourcePath (&s.context, s.source->Handle (), s.root, P (u"\\grp_b"), A ("s-win-b"));
      }, ok, { PassedOn, nf, bad, oor }, uuidOnExfat,
      [](Stick &s) { s.context.Requested = State ("bcd_b", "grp_b", "efi_b"); SetField (s.context.GroupId, "s-win-b"); } },
    { "IdentifyFolderByMarker_Entries", kEvery, [](Stick &s) {
        const EFI_STATUS st = IdentifyFolderByMarker (&s.context, s.root, P (u"\\grp_b"), MarkerLookup::Entries, s.id, &s.state);
        EXPECT_EQ (Str (s.id), EFI_ERROR (st) ? "" : "s-win-b");
        return st;
      }, ok, { PassedOn, oor } },
    { "IdentifyFolderByMarker_MetadataFirst", kEvery, [](Stick &s) {
        const EFI_STATUS st = IdentifyFolderByMarker (&s.context, s.root, P (u"\\grp_b"), MarkerLookup::MetadataFirst, s.id, &s.state);
        EXPECT_EQ (Str (s.id), EFI_ERROR (st) ? "" : "s-win-b");
        return st;
      }, ok, { PassedOn, oor } },
    // Read, then completed, as the recovery phase does with the active record.
    { "RefreshActiveRecord", kEvery, [](Stick &s) {
        CHAR8      *text = nullptr;
        EFI_STATUS st    = ReadWholeFile (s.root, ACTIVE_RECORD_PATH, &text);
        if (!EFI_ERROR (st)) st = RefreshActiveRecord (s.source->Handle (), s.root, &text);
        if (text != nullptr) FreePool (text);
        return st;
      }, ok, { PassedOn, dev, oor, bad }, { { Kind::Fat32, { EFI_UNSUPPORTED } } } },
    // Any failure to open the marker means "not this group".
    { "MarkerIdFileExists", kEvery, [](Stick &s) { return MarkerIdFileExists (s.root, P (u"\\sources"), A ("s-win-a")); }, ok, { nf } },

    // --- Partition identity -------------------------------------------------------------
    { "DetectFsType", kEvery, [](Stick &s) {
        CHAR16           name[VELMARO_FS_CHARS] = {};
        const EFI_STATUS st = DetectFsType (s.source->Handle (), name, VELMARO_FS_CHARS);
        EXPECT_EQ (Str (name), EFI_ERROR (st) ? "" : NamesOf (s.kind).fs);
        return st;
      }, ok, { PassedOn, oor } },
    { "ReadVolumeUuid", kEvery, [](Stick &s) {
        CHAR16           uuid[UUID_TEXT_CHARS] = {};
        const EFI_STATUS st = ReadVolumeUuid (s.source->Handle (), uuid, UUID_TEXT_CHARS);
        EXPECT_EQ (Str (uuid), EFI_ERROR (st) ? "" : s.uuid);
        return st;
      }, ok, { PassedOn, oor }, uuidOnFat32AndExfat },
    { "ReadOwnKindOfUuid", kEvery, [](Stick &s) {
        CHAR16           uuid[UUID_TEXT_CHARS] = {};
        const auto       read = s.kind == Kind::Ntfs ? ReadNtfsUuid : s.kind == Kind::Exfat ? ReadExfatUuid : ReadFat32Uuid;
        const EFI_STATUS st   = read (s.source->Handle (), uuid, UUID_TEXT_CHARS);
        EXPECT_EQ (Str (uuid), EFI_ERROR (st) ? "" : s.uuid);
        return st;
      }, ok, { PassedOn, oor } },

    // --- Install metadata (boot volume) -------------------------------------------------
    // A metadata file read short is cut: a block without its end is malformed, a block
    // cut off is absent.
    { "LookupSourceMetadata", kBootOnly, [](Stick &s) {
        CHAR16           fs[VELMARO_FS_CHARS], uuid[UUID_TEXT_CHARS];
        const EFI_STATUS st = LookupSourceMetadata (s.bootRoot, A ("s-win-a"), fs, uuid);
        if (!EFI_ERROR (st)) EXPECT_EQ (Str (fs) + " " + Str (uuid), "NTFS " + s.uuid);
        return st;
      }, ok, { PassedOn, oor, nf, bad } },
    { "LookupGroupNames", kBootOnly, [](Stick &s) {
        const EFI_STATUS st = LookupGroupNames (s.bootRoot, A ("s-win-b"), &s.state);
        if (!EFI_ERROR (st)) EXPECT_EQ (Str (s.state.Efi), "efi_b");
        return st;
      }, ok, { PassedOn, oor, nf, bad } },
    { "LookupBcdNameByMd5", kBootOnly, [](Stick &s) {
        const EFI_STATUS st = LookupBcdNameByMd5 (s.bootRoot, P (fake::U16 (kMd5StoreB).c_str ()), s.text);
        EXPECT_EQ (Str (s.text), EFI_ERROR (st) ? "" : "bcd_b");
        return st;
      }, ok, { PassedOn, oor, nf, bad } },
    { "LookupFsTxt", kBootOnly, [](Stick &s) {
        CHAR16           fs[VELMARO_FS_CHARS] = {};
        const EFI_STATUS st = LookupFsTxt (s.bootRoot, P (fake::U16 (s.uuid).c_str ()), fs);
        if (!EFI_ERROR (st)) EXPECT_EQ (Str (fs), "NTFS");
        return st;
      }, ok, { PassedOn, oor, nf } },

    // --- BCD stores -----------------------------------------------------------------------
    // The active check completes the active record, brings the EFI BCD store into place on
    // NTFS and exFAT, and repairs the wrong "\boot\BCD" from the backup. A repair that
    // fails answers "not active".
    { "IsRequestedGroupActive", kEvery, [](Stick &s) {
        const EFI_STATUS st = IsRequestedGroupActive (&s.context, s.source->Handle (), s.root);
        // Without a digest (its file unreadable as absent) any store is taken on trust.
        if (!EFI_ERROR (st) && HasBcdMd5 (&s.context.Requested)) EXPECT_TRUE (s.Src ().Get ("\\boot\\BCD") == kStoreA) << "not group a's store";
        if (!EFI_ERROR (st) && s.External ()) EXPECT_EQ (s.Src ().Get ("\\efi\\microsoft\\boot\\BCD"), kEfiA);
        return st;
      }, ok, { PassedOn, nf, bad, oor }, efiRenamesAndUuid, nullptr, {},
      { { Op::Open, 13 }, { Op::Read, 13 }, { Op::AllocatePool, 13 } } },
    { "RepairActiveBcd", kEvery, [](Stick &s) {
        const EFI_STATUS st = RepairActiveBcd (&s.context, s.source->Handle (), s.root);
        if (!EFI_ERROR (st)) EXPECT_TRUE (s.Src ().Get ("\\boot\\BCD") == kStoreA) << "not group a's store";
        return st;
      }, ok, { PassedOn, dev, bad, oor, taken }, {}, [](Stick &s) { SetField (s.context.Requested.BcdMd5, kMd5StoreA); }, {},
      { { Op::Open, 13 }, { Op::Read, 6 } } },
    // A store that no source names goes to its ".bak" name, past every source.
    { "NormalizeBcdByMd5_Unknown", kEvery, [](Stick &s) {
        const EFI_STATUS st = NormalizeBcdByMd5 (&s.context, s.source->Handle (), s.root, ACTIVE_BCD_PATH);
        if (!EFI_ERROR (st)) EXPECT_FALSE (s.Src ().Exists ("\\boot\\BCD"));
        return st;
      }, ok, { PassedOn, dev, oor, taken }, {}, nullptr, {}, { { Op::Open, 13 } } },
    // Group b's store under the active name goes back to its own name.
    { "NormalizeBcdByMd5_Owned", kEvery, [](Stick &s) {
        const EFI_STATUS st = NormalizeBcdByMd5 (&s.context, s.source->Handle (), s.root, ACTIVE_BCD_PATH);
        if (!EFI_ERROR (st)) EXPECT_FALSE (s.Src ().Exists ("\\boot\\BCD"));
        return st;
      }, ok, { PassedOn, dev, oor }, {}, [](Stick &s) { s.Src ().Put ("\\boot\\BCD", kStoreB), s.Src ().Remove ("\\boot\\bcd_b"); } },
    { "ReadActiveRecordState", kEvery, [](Stick &s) {
        const EFI_STATUS st = ReadActiveRecordState (&s.context, s.source->Handle (), s.root, ACTIVE_RECORD_PATH, s.context.EntriesText, &s.state);
        // A volume whose type cannot be read is taken for FAT32.
        const std::string fs = Str (s.state.SrcFs);
        if (!EFI_ERROR (st)) EXPECT_TRUE (Str (s.state.Bcd) == "bcd_a" && (fs == NamesOf (s.kind).fs || fs == "FAT32")) << Str (s.state.Bcd) << " " << fs;
        return st;
      }, ok, { PassedOn, oor, nf }, uuidOnExfat },
    // The current group's EFI store makes room (renamed to its own name); the requested
    // one is copied from the backup, past a damaged copy in its own EFI folder.
    { "PrepareEfiBcd", kEvery, [](Stick &s) {
        const EFI_STATUS st = PrepareEfiBcd (&s.context, s.source->Handle (), s.root, &s.context.Requested, ACTIVE_EFI_BCD_PATH);
        if (!EFI_ERROR (st)) EXPECT_EQ (s.Src ().Get ("\\efi\\microsoft\\boot\\BCD"), kEfiA);
        return st;
      }, ok, { PassedOn, nf, dev, bad, oor }, {}, nullptr, {}, { { Op::Open, 13 }, { Op::Read, 13 } } },
    { "NormalizeEfiBcdByMd5", kEvery, [](Stick &s) {
        const EFI_STATUS st = NormalizeEfiBcdByMd5 (&s.context, s.source->Handle (), s.root, ACTIVE_EFI_BCD_PATH);
        if (!EFI_ERROR (st)) EXPECT_EQ (s.Src ().Get ("\\efi\\microsoft\\boot\\bcd_b"), kEfiB);
        return st;
      }, ok, { PassedOn, dev, oor } },
    { "VerifyEfiBcd", kEvery, [](Stick &s) {
        GROUP_STATE state = State ("bcd_a", "grp_a", "efi_a");
        return VerifyEfiBcd (s.root, P (u"\\efi\\microsoft\\boot\\backup\\bcd_a"), &state);
      }, ok, { PassedOn, bad } },
  };
}

std::vector<sweep::Scenario> Scenarios () {
  std::vector<sweep::Scenario> scenarios;
  for (const Row &row : Rows ()) {
    for (Kind kind : row.kinds) {
      auto                    stick   = std::make_shared<Stick>();
      std::vector<EFI_STATUS> allowed = row.allowed;
      if (row.also.count (kind) != 0) allowed.insert (allowed.end (), row.also.at (kind).begin (), row.also.at (kind).end ());
      // Rows of the boot volume alone are named for it, whatever stick they run on.
      scenarios.push_back ({ std::string (row.name) + "_" + (row.kinds == kBootOnly ? "BootFat32" : NamesOf (kind).row),
                             [stick, kind, row](fake::Firmware &fw) {
                               *stick = Stick{ kind };
                               Build (fw, *stick);
                               if (row.prepare) row.prepare (*stick);
                               std::vector<sweep::Watched> watched = { { stick->boot, kGroups, row.notGroupData } };
                               if (stick->source != stick->boot) watched.push_back ({ stick->source, kGroups, row.notGroupData });
                               return watched;
                             },
                             [stick, row]() { return row.run (*stick); }, row.clean, allowed, row.reach });
    }
  }
  return scenarios;
}

class SweepTest : public ::testing::TestWithParam<sweep::Scenario> {};

TEST_P (SweepTest, AnySingleFailureLosesNothingAndIsAnsweredAsAllowed) { sweep::Runner (GetParam ()).Sweep (); }

INSTANTIATE_TEST_SUITE_P (Sweep, SweepTest, ::testing::ValuesIn (Scenarios ()), [](const auto &info) { return info.param.name; });

}  // namespace
