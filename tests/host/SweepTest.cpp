// Every public operation that touches a volume, swept with one firmware failure at a
// time (Sweep.h). Each runs on a stick whose boot volume is FAT32; an operation that
// works on a source volume runs on the FAT32 boot volume itself and on NTFS and exFAT
// second partitions. On the source volume group a is active with a wrong "\boot\BCD"
// (so the active check repairs it and a normalisation has a store to place), older side
// names in the way, and the EFI BCD store of group b in the requested group's place;
// group b waits under its own names.
#include "Sweep.h"

#include <activation/ActivationRun.h>
#include <activation/BcdStores.h>
#include <activation/RecoveryPhase.h>
#include <activation/RenewalPhase.h>
#include <activation/SourceSelection.h>
#include <data/EntriesFile.h>
#include <data/RecoveryRecord.h>
#include <data/StateFile.h>
#include <discovery/FsIdentification.h>
#include <discovery/InstallMetadata.h>
#include <fs/VerifiedChange.h>
#include <ntfstest/NtfsWriteTest.h>

namespace {

using sweep::PassedOn;

enum class Kind { Fat32, Ntfs, Exfat };

struct KindNames { const char *row, *image, *fs; };

const KindNames kNames[] = { { "Fat32", "fat32", "FAT32" }, { "Ntfs", "ntfs", "NTFS" }, { "Exfat", "exfat", "exFAT" } };
KindNames NamesOf (Kind kind) { return kNames[static_cast<int>(kind)]; }

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

void Build (fake::Firmware &fw, Stick &s) {
  s.boot   = &AddPartition (fw, Kind::Fat32, 1);
  s.source = s.External () ? &AddPartition (fw, s.kind, 2) : s.boot;
  s.uuid   = Lower (fake::BlkidUuid (NamesOf (s.kind).image));
  s.entries = EncodeEntriesFile ({ "ID:s-win-a BCD:bcd_a SRC:grp_a EFI:efi_a", "ID:s-win-b BCD:bcd_b SRC:grp_b EFI:efi_b" });
  fw.StartFrom (*s.boot);
  fake::Volume      &boot = *s.boot, &src = *s.source;
  const std::string fs = NamesOf (s.kind).fs, part = s.External () ? "SRC_PART|" + s.uuid + "\r\n" : "";

  boot.Put ("\\boot\\NUR_VEL_EFI.COM", s.entries);
  boot.Put ("\\boot\\VELMARO.COM", "BCD:c:\\boot\\bcd_a\r\nSRC:c:\\grp_a\r\nEFI:c:\\efi\\efi_a\r\nSRC_PART:" + s.uuid + "\r\nSRC_FS:" + fs + "\r\n");
  boot.Put ("\\ZENTO\\software.xml", Software ("s-win-a", "bcd_a", "grp_a", "efi_a", kMd5StoreA, s) + Software ("s-win-b", "bcd_b", "grp_b", "efi_b", kMd5StoreB, s));
  boot.Put ("\\ZENTO\\FS.txt", "FAT32|" + Lower (fake::BlkidUuid ("fat32")) + "\r\n" + fs + "|" + s.uuid + "\r\n");

  const std::pair<const char *, std::string> files[] = {
    { "\\velmaro_write_test.txt", "scratch" }, { "\\boot\\BCD", kStray }, { "\\boot\\BCD_BAK", "older kept store" },
    { "\\boot\\BCD.bak", "older store put aside" }, { "\\boot\\backup\\bcd_a", kStoreA }, { "\\boot\\backup\\bcd_a.md5", kMd5StoreA + "\r\n" },
    { "\\boot\\bcd_b", kStoreB }, { "\\boot\\backup\\bcd_b", kStoreB }, { "\\boot\\backup\\bcd_b.md5", kMd5StoreB + "\r\n" },
    { "\\sources\\s-win-a.txt", "" }, { "\\sources\\recovery.txt", "ID|s-win-a\r\nSRC|grp_a\r\n" + part }, { "\\sources\\install.wim", kWimA },
    { "\\efi\\microsoft\\s-win-a.txt", "" }, { "\\efi\\microsoft\\boot\\BCD", kEfiB }, { "\\efi\\microsoft\\boot\\backup\\bcd_a", kEfiA },
    { "\\efi\\microsoft\\boot\\backup\\bcd_a.md5", Md5Hex (kEfiA) + "\r\n" }, { "\\efi\\microsoft\\boot\\backup\\bcd_b", kEfiB },
    { "\\efi\\microsoft\\boot\\backup\\bcd_b.md5", Md5Hex (kEfiB) + "\r\n" }, { "\\efi\\efi_a\\boot\\BCD", "damaged EFI store" },
    { "\\grp_b\\readme.txt", "notes" }, { "\\grp_b\\recovery.txt", "ID|s-win-b\r\nSRC|grp_b\r\n" + part }, { "\\grp_b\\install.wim", kWimB },
    { "\\grp_b\\s-win-b.txt", "" }, { "\\efi\\efi_b\\s-win-b.txt", "" }, { "\\efi\\efi_b\\boot\\bootmgfw.efi", "boot manager of group b" },
  };
  for (const auto &[path, text] : files) src.Put (path, text);
  EXPECT_EQ (OpenRoot (boot.Handle (), &s.bootRoot), EFI_SUCCESS);
  EXPECT_EQ (OpenRoot (src.Handle (), &s.root), EFI_SUCCESS);

  ACTIVATION_CONTEXT &c = s.context;
  c.BootHandle = s.boot->Handle (), c.BootRoot = s.bootRoot, c.SourceHandle = s.source->Handle (), c.SourceRoot = s.root;
  c.EntriesText = reinterpret_cast<CHAR8 *>(s.entries.data ()), c.ImageHandle = fw.image;
  SetField (c.GroupId, "s-win-a");
  std::strcpy (reinterpret_cast<char *>(c.GroupIdAscii), "s-win-a");
  c.Requested = State ("bcd_a", "grp_a", "efi_a", s.External () ? s.uuid : "", s.External () ? fs : "");
  c.Current   = State ("bcd_b", "grp_b", "efi_b");
  SetField (c.Current.BcdEfiMd5, Md5Hex (kEfiB));
}

// One operation on the stick, on the kinds of source volume given; without a fault it
// answers EFI_SUCCESS.
struct Row {
  const char                               *name;
  std::vector<Kind>                        kinds;
  std::function<EFI_STATUS (Stick &)>      run;
  std::vector<EFI_STATUS>                  allowed;
  // More answers on some kinds: a UUID read on a FAT32 or exFAT volume whose own reader
  // fails ends with the NTFS reader's EFI_UNSUPPORTED (the readers are tried in order);
  // the EFI BCD store is renamed, with proof, only on NTFS and exFAT.
  std::map<Kind, std::vector<EFI_STATUS>>  also = {};
  std::function<void (Stick &)>            prepare = nullptr;
  std::vector<std::string>                 notGroupData = {};
  std::map<fake::Op, unsigned>             reach = {};
};

// The text an operation hands back: empty when it fails, want when it succeeds.
template <typename T> EFI_STATUS Yields (EFI_STATUS st, const T *out, const std::string &want) {
  EXPECT_EQ (Str (out), EFI_ERROR (st) ? "" : want);
  return st;
}

// Checks what must hold once the operation succeeded.
EFI_STATUS Then (EFI_STATUS st, const std::function<void ()> &check) {
  if (!EFI_ERROR (st)) check ();
  return st;
}

// Reads a file whole, a text exactly when the read succeeded, and hands it to use, which
// may replace it; frees it after.
EFI_STATUS WithText (EFI_FILE_PROTOCOL *root, const CHAR16 *path, const std::function<EFI_STATUS (CHAR8 *&)> &use) {
  CHAR8      *text = nullptr;
  EFI_STATUS st    = ReadWholeFile (root, path, &text);
  EXPECT_EQ (text != nullptr, !EFI_ERROR (st));
  if (!EFI_ERROR (st)) st = use (text);
  if (text != nullptr) FreePool (text);
  return st;
}

EFI_STATUS NormalizeActive (Stick &s) {
  return Then (NormalizeBcdByMd5 (&s.context, s.source->Handle (), s.root, ACTIVE_BCD_PATH), [&] { EXPECT_FALSE (s.source->Exists ("\\boot\\BCD")); });
}

EFI_STATUS IdentifyGroupB (Stick &s, MarkerLookup lookup) {
  return Yields (IdentifyFolderByMarker (&s.context, s.root, W (u"\\grp_b"), lookup, s.id, &s.state), s.id, "s-win-b");
}

// Group a is the current group, recorded on the source volume with its store's digest;
// group b is requested. On FAT32 "\efi\microsoft" is a group's own folder: the EFI stores
// of NTFS and exFAT are not there, and group a's own EFI name is free.
void SwitchToB (Stick &s) {
  fake::Volume &v = *s.source;
  if (!s.External ()) {
    v.Remove ("\\efi\\efi_a\\boot\\BCD"), v.Remove ("\\efi\\efi_a\\boot"), v.Remove ("\\efi\\efi_a");
    for (const char *path : { "\\efi\\microsoft\\boot\\backup\\bcd_a", "\\efi\\microsoft\\boot\\backup\\bcd_a.md5", "\\efi\\microsoft\\boot\\backup\\bcd_b",
                              "\\efi\\microsoft\\boot\\backup\\bcd_b.md5", "\\efi\\microsoft\\boot\\BCD" }) v.Remove (path);
  }
  v.Put ("\\sources\\recovery.txt", v.Get ("\\sources\\recovery.txt") + "BCD_MD5|" + kMd5StoreA + "\r\n");
  s.context.Current = State ("bcd_a", "grp_a", "efi_a", s.uuid, NamesOf (s.kind).fs);
  SetField (s.context.GroupId, "s-win-b");
  std::strcpy (reinterpret_cast<char *>(s.context.GroupIdAscii), "s-win-b");
}

// The driver of the second partition's file system, where the boot volume ships it (the
// NTFS one on a FAT32 stick).
void PutDriver (Stick &s) {
  const bool exfat = s.kind == Kind::Exfat;
  s.boot->Put (exfat ? "\\efi\\boot\\ExFatDxe_x64.efi" : "\\efi\\boot\\ntfs_x64.efi", fake::Firmware::Current ().DriverFile ({ exfat ? fake::Fs::Exfat : fake::Fs::Ntfs }));
}

// The whole switch as the run makes it, on the source volume.
EFI_STATUS Switch (Stick &s) {
  ACTIVATION_CONTEXT &c  = s.context;
  EFI_STATUS         st = RunRecoveryPhase (&c, c.EntriesText);
  if (!EFI_ERROR (st)) st = RebuildRequestedState (s.bootRoot, c.EntriesText, c.GroupIdAscii, &c.Requested);
  if (!EFI_ERROR (st)) st = VerifySourceFsAtomic (s.source->Handle (), &c.Requested);
  if (!EFI_ERROR (st)) st = RunRenewalRenames (c.ImageHandle, s.source->Handle (), s.root, &c, &c.Requested);
  // Under a fault a step may rightly find nothing to do; the clean run does it all.
  if (sweep::injecting.op != Op::None) return st;
  return Then (st, [&] {
    EXPECT_TRUE (s.source->Get ("\\boot\\BCD") == kStoreB) << "not group b's store";
    EXPECT_TRUE (s.source->Exists ("\\sources\\s-win-b.txt") && s.source->Exists ("\\grp_a\\s-win-a.txt"));
    EXPECT_TRUE (s.source->Get ("\\boot\\bcd_a") == kStoreA) << "not group a's store";
    EXPECT_TRUE (s.External () ? s.source->Get ("\\efi\\microsoft\\boot\\BCD") == kEfiB : s.source->Exists ("\\efi\\microsoft\\s-win-b.txt"));
  });
}

std::vector<Row> Rows () {
  const EFI_STATUS oor = EFI_OUT_OF_RESOURCES, nf = EFI_NOT_FOUND, dev = EFI_DEVICE_ERROR, bad = EFI_COMPROMISED_DATA;
  // An existence test that wrongly answers "absent" sends a rename onto a taken name,
  // which the driver refuses.
  const EFI_STATUS              taken = EFI_ACCESS_DENIED;
  const std::vector<EFI_STATUS> kOor = { PassedOn, oor }, kDevOor = { PassedOn, dev, oor }, kRename = { PassedOn, dev, oor, taken };
  const std::vector<EFI_STATUS> kWrite = { PassedOn, dev, bad, oor }, kLookup = { PassedOn, oor, nf, bad }, kAbsent = { PassedOn, oor, nf };
  const std::vector<EFI_STATUS> kDigest = { PassedOn, bad };
  const std::map<Kind, std::vector<EFI_STATUS>> uuidOnFat32AndExfat = { { Kind::Fat32, { EFI_UNSUPPORTED } }, { Kind::Exfat, { EFI_UNSUPPORTED } } };
  const std::map<Kind, std::vector<EFI_STATUS>> uuidOnExfat = { { Kind::Exfat, { EFI_UNSUPPORTED } } };
  const std::map<Kind, std::vector<EFI_STATUS>> efiRenamesAndUuid = { { Kind::Ntfs, { dev } }, { Kind::Exfat, { dev, EFI_UNSUPPORTED } } };
  const std::vector<std::string> stateFile = { "\\boot\\VELMARO.COM" };

  return {
    // --- File access -----------------------------------------------------------------
    { "ReadWholeFile", kEvery, [](Stick &s) {
        // A read that comes up short is taken as the whole file: only its start is known.
        return WithText (s.root, W (u"\\sources\\install.wim"), [](CHAR8 *&text) { EXPECT_EQ (kWimA.rfind (Str (text), 0), 0u); return EFI_SUCCESS; });
      }, kOor },
    { "DeleteFileVerified", kEvery, [](Stick &s) {
        return Then (DeleteFileVerified (s.source->Handle (), s.root, W (u"\\velmaro_write_test.txt")),
                     [&] { EXPECT_FALSE (s.source->Exists ("\\velmaro_write_test.txt")); });
      }, { PassedOn, dev }, {}, nullptr, { "\\velmaro_write_test.txt" } },

    // --- Verified changes --------------------------------------------------------------
    { "RenameVerified", kEvery, [](Stick &s) {
        return Then (RenameVerified (s.source->Handle (), s.root, W (u"\\sources"), W (u"\\grp_a")),
                     [&] { EXPECT_TRUE (s.source->Exists ("\\grp_a\\s-win-a.txt") && !s.source->Exists ("\\sources")); });
      }, kDevOor },
    { "MoveAsideToBak", kEvery, [](Stick &s) {
        return Then (MoveAsideToBak (s.source->Handle (), s.root, ACTIVE_BCD_PATH), [&] { EXPECT_EQ (s.source->Get ("\\boot\\BCD.bak"), kStray); });
      }, kRename },
    { "CopyFileVerified", kEvery, [](Stick &s) {
        // Not read back: only a write that claims success without effect may leave a wrong
        // copy behind a success (callers find it by its digest).
        return Then (CopyFileVerified (s.root, W (u"\\boot\\backup\\bcd_a"), W (u"\\boot\\bcd_a")), [&] {
          if (sweep::injecting.op != Op::Write || sweep::injecting.effect != Effect::NoEffect) EXPECT_TRUE (s.source->Get ("\\boot\\bcd_a") == kStoreA) << "a wrong copy";
        });
      }, kDevOor },
    { "FindDirEntryPath", kEvery, [](Stick &s) {
        return Yields (FindDirEntryPath (s.root, W (u"\\efi\\microsoft\\boot"), W (u"bcd"), s.text), s.text, "\\efi\\microsoft\\boot\\BCD");
      }, kOor },

    // --- Digests -------------------------------------------------------------------------
    { "Md5OfFile", kEvery, [](Stick &s) { return Yields (Md5OfFile (s.root, W (u"\\sources\\install.wim"), s.text), s.text, kMd5WimA); }, { PassedOn } },
    { "ReadMd5File", kEvery, [](Stick &s) {
        CHAR16 digest[VELMARO_MD5_CHARS];
        return Yields (ReadMd5File (s.root, W (u"\\boot\\backup\\bcd_a.md5"), digest), digest, kMd5StoreA);
      }, kDigest },
    { "FileMatchesBcdMd5", kEvery, [](Stick &s) {
        GROUP_STATE state = State ("bcd_a");
        SetField (state.BcdMd5, kMd5StoreA);
        return FileMatchesBcdMd5 (s.root, W (u"\\boot\\backup\\bcd_a"), &state);
      }, { PassedOn } },

    // --- State file and entries file (boot volume) --------------------------------------
    { "WriteStateFile", kBootOnly, [](Stick &s) {
        const GROUP_STATE state = State ("bcd_b", "grp_b", "efi_b", s.uuid, "NTFS");
        return Then (WriteStateFile (s.bootRoot, &state), [&] {
          EXPECT_EQ (s.boot->Get ("\\boot\\VELMARO.COM"), "BCD:c:\\boot\\bcd_b\r\nSRC:c:\\grp_b\r\nEFI:c:\\efi\\efi_b\r\nSRC_PART:" + s.uuid + "\r\nSRC_FS:NTFS\r\n");
        });
      }, kWrite, {}, nullptr, stateFile },
    { "ResetStateFile", kBootOnly, [](Stick &s) {
        return Then (ResetStateFile (s.bootRoot), [&] { EXPECT_EQ (s.boot->Get ("\\boot\\VELMARO.COM"), STATE_TEXT_NO_GROUP); });
      }, kWrite, {}, nullptr, stateFile },
    { "ReadStateFile", kBootOnly, [](Stick &s) {
        return Then (WithText (s.bootRoot, STATE_FILE_PATH, [&](CHAR8 *&text) { return ParseStateFile (text, &s.state); }),
                     [&] { EXPECT_EQ (Str (s.state.Src), "grp_a"); });
      }, { PassedOn, oor, bad } },
    { "ReadEntriesFile", kBootOnly, [](Stick &s) {
        return Then (WithText (s.bootRoot, ENTRIES_FILE_PATH, [&](CHAR8 *&text) { return LookupGroupInEntries (text, A ("s-win-b"), &s.state); }),
                     [&] { EXPECT_EQ (Str (s.state.Efi), "efi_b"); });
      }, kAbsent },

    // --- Recovery records ---------------------------------------------------------------
    // The renewal's question: is \grp_b the requested group's folder? Its record gains
    // SRC_PART (on the boot volume), SRC_FS and BCD_MD5 on the way.
    { "ValidateRequestedSourcePath", kEvery, [](Stick &s) {
        return ValidateRequestedSourcePath (&s.context, s.source->Handle (), s.root, W (u"\\grp_b"), A ("s-win-b"));
      }, kLookup, uuidOnExfat,
      [](Stick &s) { s.context.Requested = State ("bcd_b", "grp_b", "efi_b"); SetField (s.context.GroupId, "s-win-b"); } },
    { "IdentifyFolderByMarker_Entries", kEvery, [](Stick &s) { return IdentifyGroupB (s, MarkerLookup::Entries); }, kOor },
    { "IdentifyFolderByMarker_MetadataFirst", kEvery, [](Stick &s) { return IdentifyGroupB (s, MarkerLookup::MetadataFirst); }, kOor },
    // Read, then completed, as the recovery phase does with the active record.
    { "RefreshActiveRecord", kEvery, [](Stick &s) {
        return WithText (s.root, ACTIVE_RECORD_PATH, [&](CHAR8 *&text) { return RefreshActiveRecord (s.source->Handle (), s.root, &text); });
      }, kWrite, { { Kind::Fat32, { EFI_UNSUPPORTED } } } },
    // Any failure to open the marker means "not this group".
    { "MarkerIdFileExists", kEvery, [](Stick &s) { return MarkerIdFileExists (s.root, W (u"\\sources"), A ("s-win-a")); }, { nf } },

    // --- Partition identity -------------------------------------------------------------
    { "DetectFsType", kEvery, [](Stick &s) { return Yields (DetectFsType (s.source->Handle (), s.text, VELMARO_FS_CHARS), s.text, NamesOf (s.kind).fs); }, kOor },
    { "ReadVolumeUuid", kEvery, [](Stick &s) { return Yields (ReadVolumeUuid (s.source->Handle (), s.text, UUID_TEXT_CHARS), s.text, s.uuid); }, kOor,
      uuidOnFat32AndExfat },

    // --- Install metadata (boot volume) -------------------------------------------------
    // A metadata file read short is cut: a block without its end is malformed, a block
    // cut off is absent.
    { "LookupSourceMetadata", kBootOnly, [](Stick &s) {
        CHAR16 fs[VELMARO_FS_CHARS], uuid[UUID_TEXT_CHARS];
        return Then (LookupSourceMetadata (s.bootRoot, A ("s-win-a"), fs, uuid), [&] { EXPECT_EQ (Str (fs) + " " + Str (uuid), "NTFS " + s.uuid); });
      }, kLookup },
    { "LookupGroupNames", kBootOnly, [](Stick &s) {
        return Then (LookupGroupNames (s.bootRoot, A ("s-win-b"), &s.state), [&] { EXPECT_EQ (Str (s.state.Efi), "efi_b"); });
      }, kLookup },
    { "LookupBcdNameByMd5", kBootOnly, [](Stick &s) {
        return Yields (LookupBcdNameByMd5 (s.bootRoot, W (fake::U16 (kMd5StoreB).c_str ()), s.text), s.text, "bcd_b");
      }, kLookup },
    { "LookupFsTxt", kBootOnly, [](Stick &s) {
        return Then (LookupFsTxt (s.bootRoot, W (fake::U16 (s.uuid).c_str ()), s.text), [&] { EXPECT_EQ (Str (s.text), "NTFS"); });
      }, kAbsent },

    // --- BCD stores -----------------------------------------------------------------------
    // The active check completes the active record, brings the EFI BCD store into place on
    // NTFS and exFAT, and repairs the wrong "\boot\BCD" from the backup. A repair that
    // fails answers "not active".
    { "IsRequestedGroupActive", kEvery, [](Stick &s) {
        return Then (IsRequestedGroupActive (&s.context, s.source->Handle (), s.root), [&] {
          // Without a digest (its file unreadable as absent) any store is taken on trust.
          if (HasBcdMd5 (&s.context.Requested)) EXPECT_TRUE (s.source->Get ("\\boot\\BCD") == kStoreA) << "not group a's store";
          if (s.External ()) EXPECT_EQ (s.source->Get ("\\efi\\microsoft\\boot\\BCD"), kEfiA);
        });
      }, kLookup, efiRenamesAndUuid, nullptr, {}, { { Op::Open, 13 }, { Op::Read, 13 }, { Op::AllocatePool, 13 } } },
    { "RepairActiveBcd", kEvery, [](Stick &s) {
        return Then (RepairActiveBcd (&s.context, s.source->Handle (), s.root),
                     [&] { EXPECT_TRUE (s.source->Get ("\\boot\\BCD") == kStoreA) << "not group a's store"; });
      }, { PassedOn, dev, bad, oor, taken }, {}, [](Stick &s) { SetField (s.context.Requested.BcdMd5, kMd5StoreA); }, {},
      { { Op::Open, 13 }, { Op::Read, 6 } } },
    // A store that no source names goes to its ".bak" name, past every source.
    { "NormalizeBcdByMd5_Unknown", kEvery, NormalizeActive, kRename, {}, nullptr, {}, { { Op::Open, 13 } } },
    // Group b's store under the active name goes back to its own name.
    { "NormalizeBcdByMd5_Owned", kEvery, NormalizeActive, kDevOor, {},
      [](Stick &s) { s.source->Put ("\\boot\\BCD", kStoreB), s.source->Remove ("\\boot\\bcd_b"); } },
    { "ReadActiveRecordState", kEvery, [](Stick &s) {
        return Then (ReadActiveRecordState (&s.context, s.source->Handle (), s.root, ACTIVE_RECORD_PATH, s.context.EntriesText, &s.state), [&] {
          // A volume whose type cannot be read is taken for FAT32.
          const std::string fs = Str (s.state.SrcFs);
          EXPECT_TRUE (Str (s.state.Bcd) == "bcd_a" && (fs == NamesOf (s.kind).fs || fs == "FAT32")) << Str (s.state.Bcd) << " " << fs;
        });
      }, kAbsent, uuidOnExfat },
    // The current group's EFI store makes room (renamed to its own name); the requested
    // one is copied from the backup, past a damaged copy in its own EFI folder.
    { "PrepareEfiBcd", kEvery, [](Stick &s) {
        return Then (PrepareEfiBcd (&s.context, s.source->Handle (), s.root, &s.context.Requested, ACTIVE_EFI_BCD_PATH),
                     [&] { EXPECT_EQ (s.source->Get ("\\efi\\microsoft\\boot\\BCD"), kEfiA); });
      }, { PassedOn, nf, dev, bad, oor }, {}, nullptr, {}, { { Op::Open, 13 }, { Op::Read, 13 } } },
    { "NormalizeEfiBcdByMd5", kEvery, [](Stick &s) {
        return Then (NormalizeEfiBcdByMd5 (&s.context, s.source->Handle (), s.root, ACTIVE_EFI_BCD_PATH),
                     [&] { EXPECT_EQ (s.source->Get ("\\efi\\microsoft\\boot\\bcd_b"), kEfiB); });
      }, kDevOor },
    // --- Phases ---------------------------------------------------------------------------
    { "Switch", kEvery, Switch, { PassedOn, nf, dev, bad, oor, taken }, uuidOnFat32AndExfat, SwitchToB, stateFile },
    // A driver whose roots keep showing the volume as it was when they were opened: the
    // source root the renewal is given predates the recovery's renames.
    { "SwitchStaleView", { Kind::Ntfs, Kind::Exfat }, Switch, { PassedOn, nf, dev, bad, oor, taken }, uuidOnExfat, [](Stick &s) {
        SwitchToB (s);
        s.source->staleView = true;
        s.root->Close (s.root);
        EXPECT_EQ (OpenRoot (s.source->Handle (), &s.root), EFI_SUCCESS);
        s.context.SourceRoot = s.root;
      }, stateFile },
    // The whole run from the boot volume: reading the files, the choice of volume, the
    // active check, both phases and both writes of the state file. Whatever fails, the
    // roots it opened are closed and nothing it loaded is left waiting.
    { "RunActivation", kEvery, [](Stick &s) {
        const VOLUME_REF boot   = { s.boot->Handle (), s.bootRoot, 1, {} };
        VOLUME_REF       source = {};
        BOOLEAN          owned  = FALSE;
        const EFI_STATUS st     = RunActivation (fake::Firmware::Current ().image, &boot, W (u"s-win-b"), &source, &owned);
        EXPECT_EQ (source.Handle, EFI_ERROR (st) ? nullptr : s.source->Handle ());
        if (owned) source.Root->Close (source.Root);
        EXPECT_EQ (fake::Firmware::Current ().ImagesLoadedNotStarted (), sweep::injecting.op == Op::StartImage ? 1u : 0u);
        return st;
      }, { PassedOn, nf, dev, bad, oor, taken }, uuidOnFat32AndExfat, [](Stick &s) { SwitchToB (s); if (s.External ()) PutDriver (s); }, stateFile },
    // --- Source selection ------------------------------------------------------------------
    // Metadata put group a on the second partition: on NTFS and exFAT the driver is loaded
    // and the partition found by its UUID; on FAT32 the boot volume stays. Whatever fails,
    // no other volume is ever taken.
    { "SelectSourceFs", kEvery, [](Stick &s) {
        ACTIVATION_CONTEXT &c = s.context;
        c.SourceHandle = nullptr, c.SourceRoot = nullptr, c.SourceRootOwned = FALSE;
        const EFI_STATUS st = SelectSourceFs (&c);
        if (c.SourceRootOwned) c.SourceRoot->Close (c.SourceRoot);
        // A refused load leaves nothing; an image whose start the firmware refused before
        // running it stays loaded, as the loading leaves it.
        EXPECT_EQ (fake::Firmware::Current ().ImagesLoadedNotStarted (), sweep::injecting.op == Op::StartImage ? 1u : 0u);
        EXPECT_EQ (c.SourceHandle, EFI_ERROR (st) ? nullptr : s.source->Handle ());
        return st;
      }, { PassedOn, nf }, {}, PutDriver },
    { "VerifyEfiBcd", kEvery, [](Stick &s) {
        GROUP_STATE state = State ("bcd_a", "grp_a", "efi_a");
        return VerifyEfiBcd (s.root, W (u"\\efi\\microsoft\\boot\\backup\\bcd_a"), &state);
      }, kDigest },
    // --- The NTFS write test -------------------------------------------------------------
    // It moves "\sources" to a backup name for good and writes its test file over the old
    // one: by design, so neither counts as group data here.
    { "NtfsWriteTest", kEvery, [](Stick &s) {
        return Then (NtfsWriteTest (s.source->Handle ()), [&] {
          EXPECT_TRUE (s.source->Get ("\\sources_backup\\install.wim") == kWimA && !s.source->Exists ("\\sources"));
          EXPECT_EQ (s.source->Get ("\\velmaro_write_test.txt"), "Velmaro UEFI write test OK");
        });
      }, { PassedOn, nf, dev, bad, oor }, {}, nullptr,
      { "\\velmaro_write_test.txt", "\\sources", "\\sources\\s-win-a.txt", "\\sources\\recovery.txt", "\\sources\\install.wim" } },
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
                             [stick, row]() { return row.run (*stick); }, allowed, row.reach });
    }
  }
  return scenarios;
}

class SweepTest : public ::testing::TestWithParam<sweep::Scenario> {};

TEST_P (SweepTest, AnySingleFailureLosesNothingAndIsAnsweredAsAllowed) { sweep::Runner (GetParam ()).Sweep (); }

INSTANTIATE_TEST_SUITE_P (Sweep, SweepTest, ::testing::ValuesIn (Scenarios ()), [](const auto &info) { return info.param.name; });

}  // namespace
