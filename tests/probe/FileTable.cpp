/** @file
  The file-protocol table: rows as data, and the small interpreter that runs them.

  The rows are the calls Velmaro's renames, copies, deletes and proofs on a fresh root
  depend on, chosen where a driver has room to answer differently: open modes and
  attributes, names the FAT driver trims or refuses, renames across folders and onto
  existing names, read-only files and folders, the times SetInfo accepts, what a second
  handle sees after a delete, sizes before a flush, directory reads and GetInfo sizes.

  Everything here is plain data and calls through the protocol: no pool, no library
  beyond BaseMemoryLib, nothing that needs a constructor, so the same source builds
  into the firmware image and into the host suite.
**/

#include "FileTable.h"

extern "C" {
#include <Library/BaseMemoryLib.h>
}

namespace {

// --- The step language -------------------------------------------------------------

enum : UINT8 {
  kOpen, kClose, kDelete, kWrite, kRead, kGetPos, kSetPos, kInfo, kInfoSized, kSetInfo,
  kFlush, kVolume, kList, kExists, kContent, kPut, kFsInfo
};

// Handle slots: the root every row starts from, the scratch folder, then the row's own.
constexpr UINT8  kRoot  = 0;
constexpr UINT8  kDir   = 1;
constexpr UINT8  kSlots = 8;

constexpr UINT64  R   = EFI_FILE_MODE_READ;
constexpr UINT64  W   = EFI_FILE_MODE_WRITE;
constexpr UINT64  C   = EFI_FILE_MODE_CREATE;
constexpr UINT64  RW  = R | W;
constexpr UINT64  CRW = C | R | W;

// Info fields to print.
constexpr UINT32  kFSize      = 1u << 0;    // size=N
constexpr UINT32  kFAttr      = 1u << 1;    // attr=XX
constexpr UINT32  kFName      = 1u << 2;    // name='...'
constexpr UINT32  kFPhys      = 1u << 3;    // phys=size / phys>size / phys<size
constexpr UINT32  kFTimes     = 1u << 4;    // the class of each time and the time zone
constexpr UINT32  kFSameMC    = 1u << 11;   // m=c / m!=c: only where no clock tick can come between
constexpr UINT32  kFMtime     = 1u << 5;    // the modification time when it is ours, else its class
constexpr UINT32  kFNameLen   = 1u << 6;    // namelen=N
constexpr UINT32  kFDirSize   = 1u << 7;    // size=zero / size=nonzero (a folder's size is the driver's own)
constexpr UINT32  kFSave      = 1u << 8;    // remember the create time
constexpr UINT32  kFSameC     = 1u << 9;    // c=same / c=changed against the remembered one
constexpr UINT32  kFOtherGuid = 1u << 10;   // ask for an information type no driver knows

// SetInfo changes; the three times go in as zero ("leave them") unless asked otherwise.
constexpr UINT32  kSName       = 1u << 0;    // FileName from the step's path
constexpr UINT32  kSSize       = 1u << 1;    // FileSize = A
constexpr UINT32  kSAttrOr     = 1u << 2;    // Attribute |= B
constexpr UINT32  kSAttrAndNot = 1u << 3;    // Attribute &= ~B
constexpr UINT32  kSAttrXor    = 1u << 4;    // Attribute ^= B
constexpr UINT32  kSOwnTimes   = 1u << 5;    // the times as GetInfo gave them
constexpr UINT32  kSMtime13    = 1u << 6;    // modification time in month 13
constexpr UINT32  kSCtime13    = 1u << 7;    // create time in month 13
constexpr UINT32  kSAtime13    = 1u << 8;    // last access time in month 13
constexpr UINT32  kSZeroDate   = 1u << 9;    // modification 1980-00-00, what a zero FAT date reads as
constexpr UINT32  kSNanoBad    = 1u << 10;   // modification time with a nanosecond field of 10^9
constexpr UINT32  kSMtimeOurs  = 1u << 11;   // modification 2001-02-03 04:05:07
constexpr UINT32  kSShortBuf   = 1u << 12;   // BufferSize one byte short of a name's first character
constexpr UINT32  kSSizeBig    = 1u << 13;   // Info->Size larger than BufferSize
constexpr UINT32  kSOtherGuid  = 1u << 14;   // an information type no driver knows

// Read and List.
constexpr UINT32  kShow   = 1u << 0;    // print what was read
constexpr UINT32  kLSizes = 1u << 1;    // sizes of the files in a listing
constexpr UINT32  kLDots  = 1u << 2;    // only how many "." and ".." entries there are
constexpr UINT32  kLFirst = 1u << 3;    // only the first entry

struct Step {
  UINT8             Op;
  UINT8             Slot;   // the handle acted on, or the slot a new handle goes to
  UINT8             From;   // the handle a path is opened from
  UINT32            Flags;
  const char16_t    *Path;  // "%N" anywhere stands for a generated name of N characters
  const char        *Data;
  UINT64            A;
  UINT64            B;
  const char        *Label;
};

constexpr Step Open (const char *L, UINT8 S, UINT8 F, const char16_t *P, UINT64 Mode, UINT64 Attr = 0) { return { kOpen, S, F, 0, P, nullptr, Mode, Attr, L }; }
constexpr Step Create (const char *L, UINT8 S, UINT8 F, const char16_t *P, UINT64 Attr = 0) { return Open (L, S, F, P, CRW, Attr); }
constexpr Step Close (UINT8 S, const char *L = nullptr) { return { kClose, S, 0, 0, nullptr, nullptr, 0, 0, L }; }
constexpr Step Delete (const char *L, UINT8 S) { return { kDelete, S, 0, 0, nullptr, nullptr, 0, 0, L }; }
constexpr Step Write (const char *L, UINT8 S, const char *D) { return { kWrite, S, 0, 0, nullptr, D, 0, 0, L }; }
constexpr Step Read (const char *L, UINT8 S, UINT64 Size, UINT32 Flags = 0, UINT64 Gap = 0) { return { kRead, S, 0, Flags, nullptr, nullptr, Size, Gap, L }; }
// A byte range [Start, End) of what Read shows that is only said to be zero or not.
constexpr UINT64 GapOf (UINT32 Start, UINT32 End) { return (static_cast<UINT64>(Start) << 32) | End; }
constexpr Step GetPos (const char *L, UINT8 S) { return { kGetPos, S, 0, 0, nullptr, nullptr, 0, 0, L }; }
constexpr Step SetPos (const char *L, UINT8 S, UINT64 Pos) { return { kSetPos, S, 0, 0, nullptr, nullptr, Pos, 0, L }; }
constexpr Step Info (const char *L, UINT8 S, UINT32 Fields) { return { kInfo, S, 0, Fields, nullptr, nullptr, 0, 0, L }; }
constexpr Step InfoSized (const char *L, UINT8 S, UINT64 Size) { return { kInfoSized, S, 0, 0, nullptr, nullptr, Size, 0, L }; }
constexpr Step SetInfo (const char *L, UINT8 S, const char16_t *Name, UINT32 Flags, UINT64 Size = 0, UINT64 Attr = 0) { return { kSetInfo, S, 0, Flags | (Name ? kSName : 0), Name, nullptr, Size, Attr, L }; }
constexpr Step Flush (const char *L, UINT8 S) { return { kFlush, S, 0, 0, nullptr, nullptr, 0, 0, L }; }
constexpr Step Volume (const char *L, UINT8 S) { return { kVolume, S, 0, 0, nullptr, nullptr, 0, 0, L }; }
constexpr Step List (const char *L, UINT8 S, UINT32 Flags = 0) { return { kList, S, 0, Flags, nullptr, nullptr, 0, 0, L }; }
constexpr Step Exists (const char *L, UINT8 F, const char16_t *P) { return { kExists, 0, F, 0, P, nullptr, 0, 0, L }; }
constexpr Step Content (const char *L, UINT8 F, const char16_t *P) { return { kContent, 0, F, 0, P, nullptr, 0, 0, L }; }
constexpr Step FsInfo (const char *L, UINT8 S) { return { kFsInfo, S, 0, 0, nullptr, nullptr, 0, 0, L }; }
// Setup that prints nothing when it works: a file with these bytes, or a folder (no bytes).
constexpr Step Put (UINT8 F, const char16_t *P, const char *D = nullptr) { return { kPut, 0, F, 0, P, D, 0, 0, nullptr }; }

struct Row {
  const char  *Name;
  const Step  *Steps;
  UINTN       Count;
};

#define ROW(name, steps)  { name, steps, sizeof (steps) / sizeof (steps[0]) }

constexpr UINT64  RO   = EFI_FILE_READ_ONLY;
constexpr UINT64  DIR  = EFI_FILE_DIRECTORY;
constexpr UINT64  ARC  = EFI_FILE_ARCHIVE;
constexpr UINT64  HS   = EFI_FILE_HIDDEN | EFI_FILE_SYSTEM;

constexpr const char *kHundred =
  "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyz..";

// --- Open modes and attributes --------------------------------------------------------

constexpr Step kOpenReadMissing[] = {
  Open ("read", 2, kDir, u"missing.txt", R),
  Open ("read-in-missing-folder", 2, kDir, u"nodir\\missing.txt", R),
  Create ("create-in-missing-folder", 2, kDir, u"nodir\\new.txt"),
};

constexpr Step kOpenRwMissing[] = {
  Open ("read-write", 2, kDir, u"missing.txt", RW),
  Exists ("created", kDir, u"missing.txt"),
};

constexpr Step kOpenCreateExisting[] = {
  Put (kDir, u"keep.txt", "hello"),
  Put (kDir, u"d"),
  Create ("create", 2, kDir, u"keep.txt"),
  Info ("info", 2, kFSize | kFAttr),
  Read ("read", 2, 64, kShow),
  Create ("create-folder-again", 3, kDir, u"d", DIR),
  Info ("folder", 3, kFAttr),
  Create ("create-folder-on-file", 4, kDir, u"keep.txt", DIR),
  Info ("file", 4, kFAttr | kFSize),
  Create ("create-file-on-folder", 5, kDir, u"d"),
  Info ("folder-again", 5, kFAttr),
};

constexpr Step kOpenReadOnlyHandle[] = {
  Put (kDir, u"ro.txt", "abc"),
  Open ("open", 2, kDir, u"ro.txt", R),
  Write ("write", 2, "x"),
  Flush ("flush", 2),
  SetInfo ("truncate", 2, nullptr, kSSize, 0),
  SetInfo ("rename", 2, u"r2.txt", 0),
  SetInfo ("set-hidden", 2, nullptr, kSAttrOr, 0, EFI_FILE_HIDDEN),
  Info ("attr", 2, kFAttr),
  Delete ("delete", 2),
  Content ("content", kDir, u"ro.txt"),
};

constexpr Step kOpenInvalidModes[] = {
  Put (kDir, u"keep.txt", "k"),
  Open ("write", 2, kDir, u"m.txt", W),
  Open ("create", 2, kDir, u"m.txt", C),
  Open ("create-write", 2, kDir, u"m.txt", C | W),
  Open ("create-read", 2, kDir, u"m.txt", C | R),
  Open ("none", 2, kDir, u"m.txt", 0),
  Open ("unknown-bit", 2, kDir, u"m.txt", CRW | 0x10),
  Open ("write-existing", 2, kDir, u"keep.txt", W),
  Open ("read-odd-attr", 2, kDir, u"keep.txt", R, 0x40),
  Exists ("created", kDir, u"m.txt"),
};

constexpr Step kCreateAttributes[] = {
  Create ("read-only", 2, kDir, u"c.txt", RO),
  Exists ("read-only-exists", kDir, u"c.txt"),
  Create ("undefined-bit", 2, kDir, u"b.txt", 0x40),
  Create ("hidden-system", 2, kDir, u"h.txt", HS),
  Info ("hidden-system-attr", 2, kFAttr),
  Create ("archive", 3, kDir, u"a.txt", ARC),
  Info ("archive-attr", 3, kFAttr),
  Create ("plain", 4, kDir, u"p.txt"),
  Info ("plain-attr", 4, kFAttr),
  Write ("write", 4, "x"),
  Flush ("flush", 4),
  Info ("written-attr", 4, kFAttr),
};

constexpr Step kOpenPaths[] = {
  Put (kDir, u"d"),
  Put (kDir, u"f", "x"),
  Open ("empty", 2, kDir, u"", R),
  Open ("dot", 2, kDir, u".", R),
  Open ("root-dotdot", 2, kRoot, u"..", R),
  Open ("dotdot", 2, kDir, u"..", R),
  Info ("dotdot-info", 2, kFName | kFAttr),
  Open ("backslash", 2, kDir, u"\\", R),
  Open ("double-separator", 2, kDir, u"d\\\\..\\f", R),
  Open ("folder-slash", 2, kDir, u"d\\", R),
  Open ("file-slash", 2, kDir, u"f\\", R),
  Create ("create-slash", 2, kDir, u"n\\"),
  Create ("mkdir-slash", 2, kDir, u"m\\", DIR),
  Info ("mkdir-slash-info", 2, kFName | kFAttr),
  Open ("through-file", 2, kDir, u"f\\x", R),
  Open ("file", 4, kDir, u"f", R),
  Open ("relative-to-file", 2, 4, u"d", R),
  Open ("absolute-from-file", 2, 4, u"\\ft\\d", R),
};

// --- Renames --------------------------------------------------------------------------

constexpr Step kRenameFullPath[] = {
  Put (kDir, u"a"),
  Put (kDir, u"b"),
  Put (kDir, u"a\\x", "data"),
  Open ("open", 2, kRoot, u"\\ft\\a\\x", RW),
  SetInfo ("rename", 2, u"\\ft\\b\\y", 0),
  Info ("name", 2, kFName | kFSize),
  Close (2),
  Exists ("old", kDir, u"a\\x"),
  Volume ("fresh-root", 3),
  Content ("new-on-fresh-root", 3, u"\\ft\\b\\y"),
  Open ("folder", 4, kDir, u"b", R),
  List ("listing", 4),
};

constexpr Step kRenameLeafOnly[] = {
  Put (kDir, u"a"),
  Put (kDir, u"a\\x", "data"),
  Open ("open", 2, kDir, u"a\\x", RW),
  SetInfo ("rename", 2, u"y", 0),
  Exists ("beside", kDir, u"a\\y"),
  Exists ("in-scratch", kDir, u"y"),
  Exists ("old", kDir, u"a\\x"),
};

constexpr Step kRenameDotDot[] = {
  Put (kDir, u"a"),
  Put (kDir, u"b"),
  Put (kDir, u"a\\x", "data"),
  Open ("open", 2, kDir, u"a\\x", RW),
  SetInfo ("rename", 2, u"..\\b\\y", 0),
  Exists ("new", kDir, u"b\\y"),
  Exists ("old", kDir, u"a\\x"),
};

constexpr Step kRenameOntoExisting[] = {
  Put (kDir, u"x", "1"),
  Put (kDir, u"y", "2"),
  Put (kDir, u"d"),
  Open ("open", 2, kDir, u"x", RW),
  SetInfo ("onto-file", 2, u"y", 0),
  SetInfo ("onto-other-case", 2, u"Y", 0),
  SetInfo ("onto-folder", 2, u"d", 0),
  SetInfo ("onto-full-path", 2, u"\\ft\\y", 0),
  SetInfo ("onto-root", 2, u"\\", 0),
  Content ("x", kDir, u"x"),
  Content ("y", kDir, u"y"),
};

constexpr Step kRenameCaseOnly[] = {
  Put (kDir, u"bcd", "x"),
  Open ("open", 2, kDir, u"bcd", RW),
  SetInfo ("rename", 2, u"BCD", 0),
  Info ("name", 2, kFName),
  Close (2),
  Open ("dir", 3, kDir, u".", R),
  List ("listing", 3),
};

constexpr Step kRenameFolder[] = {
  Put (kDir, u"a"),
  Put (kDir, u"a\\x", "x"),
  Put (kDir, u"c"),
  Open ("open", 2, kDir, u"a", RW),
  SetInfo ("rename", 2, u"b", 0),
  Exists ("old", kDir, u"a"),
  Exists ("child", kDir, u"b\\x"),
  SetInfo ("move", 2, u"\\ft\\c\\a2", 0),
  Info ("name", 2, kFName | kFAttr),
  Open ("moved", 3, kDir, u"c\\a2", R),
  List ("listing", 3),
  Open ("moved-dotdot", 4, kDir, u"c\\a2\\..", R),
  Info ("dotdot-name", 4, kFName),
};

constexpr Step kRenameFolderOpenChild[] = {
  Put (kDir, u"a"),
  Put (kDir, u"a\\x", "x"),
  Open ("child", 3, kDir, u"a\\x", R),
  Open ("open", 2, kDir, u"a", RW),
  SetInfo ("rename-child-open", 2, u"b", 0),
  Close (3),
  SetInfo ("rename-child-closed", 2, u"b", 0),
  Exists ("child-moved", kDir, u"b\\x"),
};

constexpr Step kRenameIntoItself[] = {
  Put (kDir, u"a"),
  Put (kDir, u"a\\s"),
  Open ("open", 2, kDir, u"a", RW),
  SetInfo ("into-child", 2, u"\\ft\\a\\s\\a2", 0),
  SetInfo ("into-missing-folder", 2, u"\\ft\\nofolder\\a2", 0),
  Exists ("still", kDir, u"a\\s"),
};

constexpr Step kRenameNames[] = {
  Put (kDir, u"x", "x"),
  Open ("open", 2, kDir, u"x", RW),
  SetInfo ("star", 2, u"y*", 0),
  SetInfo ("colon", 2, u"y:z", 0),
  SetInfo ("empty", 2, u"", 0),
  SetInfo ("trailing-dot", 2, u"z.", 0),
  Info ("after-dot", 2, kFName),
  SetInfo ("trailing-space", 2, u"w ", 0),
  Info ("after-space", 2, kFName),
  Close (2),
  Open ("dir", 3, kDir, u".", R),
  List ("listing", 3),
};

constexpr Step kRenameSharedHandle[] = {
  Put (kDir, u"x", "abc"),
  Open ("other", 3, kDir, u"x", R),
  Open ("open", 2, kDir, u"x", RW),
  SetInfo ("rename", 2, u"y", 0),
  Info ("other-name", 3, kFName | kFSize),
  Read ("other-read", 3, 16, kShow),
};

constexpr Step kRenameBadTime[] = {
  Put (kDir, u"x", "x"),
  Open ("open", 2, kDir, u"x", RW),
  SetInfo ("rename-month-13", 2, u"y", kSMtime13),
  Exists ("old", kDir, u"x"),
  Exists ("new", kDir, u"y"),
  SetInfo ("rename-own-times", 2, u"z", kSOwnTimes),
  Exists ("renamed", kDir, u"z"),
};

// --- Read-only files and folders --------------------------------------------------------

constexpr Step kReadOnlyFile[] = {
  Put (kDir, u"r.txt", "abc"),
  Open ("open", 2, kDir, u"r.txt", RW),
  SetInfo ("set-read-only", 2, nullptr, kSAttrOr, 0, RO),
  Info ("attr", 2, kFAttr),
  Write ("write-same-handle", 2, "d"),
  Close (2),
  Open ("open-read-write", 3, kDir, u"r.txt", RW),
  Open ("open-create", 3, kDir, u"r.txt", CRW),
  Open ("open-read", 2, kDir, u"r.txt", R),
  SetInfo ("rename", 2, u"r2.txt", 0),
  Delete ("delete", 2),
  Content ("content", kDir, u"r.txt"),
  Open ("open-read-again", 2, kDir, u"r.txt", R),
  SetInfo ("clear-read-only", 2, nullptr, kSAttrAndNot, 0, RO),
  Info ("attr-cleared", 2, kFAttr),
  Close (2),
  Open ("open-read-write-after", 3, kDir, u"r.txt", RW),
};

constexpr Step kReadOnlyFolder[] = {
  Put (kDir, u"d"),
  Open ("open", 2, kDir, u"d", RW),
  SetInfo ("set-read-only", 2, nullptr, kSAttrOr, 0, RO),
  Info ("attr", 2, kFAttr),
  Open ("open-read-write", 3, kDir, u"d", RW),
  Create ("create-inside", 4, kDir, u"d\\x"),
  Close (4),
  SetInfo ("rename", 2, u"e", 0),
  SetInfo ("rename-clearing", 2, u"e", kSAttrAndNot, 0, RO),
  Info ("attr-after", 2, kFAttr | kFName),
  SetInfo ("rename-again", 2, u"f", 0),
  Exists ("child", kDir, u"f\\x"),
};

constexpr Step kDeleteAfterReadOnly[] = {
  Put (kDir, u"x", "x"),
  Open ("open", 2, kDir, u"x", RW),
  SetInfo ("set-read-only", 2, nullptr, kSAttrOr, 0, RO),
  Delete ("delete", 2),
  Exists ("exists", kDir, u"x"),
};

// --- Times ----------------------------------------------------------------------------

constexpr Step kTimesFreshFile[] = {
  Create ("create", 2, kDir, u"t.txt"),
  Info ("fresh", 2, kFTimes | kFSameMC),
  Write ("write", 2, "x"),
  Flush ("flush", 2),
  Info ("written", 2, kFTimes),
  Put (kDir, u"d"),
  Open ("folder", 3, kDir, u"d", R),
  Info ("folder-times", 3, kFTimes),
};

constexpr Step kSetInfoTimes[] = {
  Put (kDir, u"t.txt", "abc"),
  Open ("open", 2, kDir, u"t.txt", RW),
  Info ("before", 2, kFSave),
  SetInfo ("zero-times", 2, nullptr, 0),
  Info ("after-zero", 2, kFSameC),
  SetInfo ("own-times", 2, nullptr, kSOwnTimes),
  Info ("after-own", 2, kFSameC),
  SetInfo ("mtime-month-13", 2, nullptr, kSMtime13),
  SetInfo ("ctime-month-13", 2, nullptr, kSCtime13),
  SetInfo ("atime-month-13", 2, nullptr, kSAtime13),
  SetInfo ("zero-date", 2, nullptr, kSZeroDate),
  SetInfo ("nanosecond", 2, nullptr, kSNanoBad),
  SetInfo ("ours", 2, nullptr, kSMtimeOurs),
  Info ("read-back", 2, kFMtime),
  Close (2),
  Open ("reopen", 2, kDir, u"t.txt", RW),
  Info ("reopened", 2, kFMtime),
  Write ("write", 2, "d"),
  Close (2),
  Open ("after-write", 3, kDir, u"t.txt", R),
  Info ("written", 3, kFMtime),
};

// --- Names ----------------------------------------------------------------------------

constexpr Step kLongNameRoot[] = {
  Create ("255", 2, kRoot, u"%255"),
  Info ("info", 2, kFNameLen),
  Delete ("delete", 2),
  Create ("256", 2, kRoot, u"%256"),
  Exists ("256-exists", kRoot, u"%256"),
};

constexpr Step kLongNameFolder[] = {
  Create ("253", 2, kDir, u"%253"),
  Create ("254", 3, kDir, u"%254"),
  Open ("253-full-path", 4, kRoot, u"\\ft\\%253", R),
  Open ("254-full-path", 5, kRoot, u"\\ft\\%254", R),
};

constexpr Step kInvalidNames[] = {
  Create ("star", 2, kDir, u"a*b"),
  Create ("question", 2, kDir, u"a?b"),
  Create ("quote", 2, kDir, u"a\"b"),
  Create ("less", 2, kDir, u"a<b"),
  Create ("greater", 2, kDir, u"a>b"),
  Create ("pipe", 2, kDir, u"a|b"),
  Create ("colon", 2, kDir, u"a:b"),
  Create ("slash", 2, kDir, u"a/b"),
  Create ("control", 2, kDir, u"a\x01" u"b"),
  Create ("plus-comma", 2, kDir, u"a+b,c;d=e[f]"),
  Info ("plus-comma-name", 2, kFName),
};

constexpr Step kTrailingDotSpace[] = {
  Create ("dot", 2, kDir, u"dot."),
  Info ("dot-name", 2, kFName),
  Create ("space", 2, kDir, u"sp "),
  Info ("space-name", 2, kFName),
  Create ("leading-space", 2, kDir, u" lead"),
  Info ("leading-name", 2, kFName),
  Create ("dots-only", 2, kDir, u"..."),
  Exists ("without-dot", kDir, u"dot"),
  Exists ("with-dots", kDir, u"sp.."),
  Close (2),
  Open ("dir", 3, kDir, u".", R),
  List ("listing", 3),
};

constexpr Step kCaseInsensitive[] = {
  Put (kDir, u"MixedCase.Txt", "abc"),
  Open ("open-lower", 2, kDir, u"mixedcase.txt", R),
  Info ("name", 2, kFName),
  Create ("create-upper", 3, kDir, u"MIXEDCASE.TXT"),
  Info ("created", 3, kFName | kFSize),
  Put (kDir, u"lower.txt", "l"),
  Put (kDir, u"UPPER.TXT", "u"),
  Put (kDir, u"Folder"),
  Open ("folder-other-case", 4, kDir, u"FOLDER", R),
  Info ("folder-name", 4, kFName),
  Open ("dir", 5, kDir, u".", R),
  List ("listing", 5),
};

constexpr Step kNonAsciiCase[] = {
  Put (kDir, u"caf\u00e9.txt", "x"),
  Exists ("same", kDir, u"caf\u00e9.txt"),
  Exists ("upper", kDir, u"CAF\u00c9.TXT"),
  Open ("dir", 3, kDir, u".", R),
  List ("listing", 3),
};

// --- Deletes --------------------------------------------------------------------------

constexpr Step kDeleteFolderNotEmpty[] = {
  Put (kDir, u"d"),
  Put (kDir, u"d\\x", "x"),
  Open ("open", 2, kDir, u"d", RW),
  Delete ("delete", 2),
  Exists ("child", kDir, u"d\\x"),
  Open ("open-child", 3, kDir, u"d\\x", RW),
  Delete ("delete-child", 3),
  Open ("open-again", 2, kDir, u"d", RW),
  Delete ("delete-empty", 2),
  Exists ("folder", kDir, u"d"),
};

constexpr Step kDeleteOpenElsewhere[] = {
  Put (kDir, u"x", "abc"),
  Open ("other", 3, kDir, u"x", R),
  Open ("open", 2, kDir, u"x", RW),
  Delete ("delete", 2),
  Exists ("exists", kDir, u"x"),
  Info ("other-info", 3, kFSize),
  Read ("other-read", 3, 16),
  GetPos ("other-getpos", 3),
  SetPos ("other-setpos", 3, 0),
  Write ("other-write", 3, "z"),
  Flush ("other-flush", 3),
  Close (3, "other-close"),
  Create ("recreate", 2, kDir, u"x"),
  Info ("recreated", 2, kFSize),
};

constexpr Step kDeleteFolderOpenElsewhere[] = {
  Put (kDir, u"d"),
  Open ("other", 3, kDir, u"d", R),
  Open ("open", 2, kDir, u"d", RW),
  Delete ("delete", 2),
  Read ("other-read", 3, 1024),
  Create ("create-inside", 4, 3, u"x"),
  Exists ("exists", kDir, u"d"),
};

constexpr Step kDeleteRoot[] = {
  Volume ("volume", 2),
  Delete ("delete", 2),
  Volume ("volume-again", 2),
  Exists ("scratch-folder", 2, u"\\ft"),
};

// --- Sizes, positions, flush ------------------------------------------------------------

constexpr Step kFlushAndSize[] = {
  Create ("create", 2, kDir, u"s.txt"),
  Write ("write", 2, kHundred),
  Info ("same-handle", 2, kFSize),
  GetPos ("position", 2),
  Volume ("fresh-root", 4),
  Open ("open-fresh", 3, 4, u"\\ft\\s.txt", R),
  Info ("fresh-before-flush", 3, kFSize),
  Open ("fresh-folder", 5, 4, u"\\ft", R),
  List ("fresh-listing", 5, kLSizes),
  Flush ("flush", 2),
  Info ("fresh-after-flush", 3, kFSize),
  Close (2),
  Info ("fresh-after-close", 3, kFSize),
  Read ("fresh-read", 3, 512),
};

constexpr Step kSetPositionBeyondEnd[] = {
  Put (kDir, u"p.txt", "abc"),
  Open ("open", 2, kDir, u"p.txt", RW),
  SetPos ("setpos-10", 2, 10),
  GetPos ("getpos", 2),
  Read ("read-beyond", 2, 4),
  SetPos ("setpos-end", 2, 3),
  Read ("read-at-end", 2, 4),
  SetPos ("setpos-10-again", 2, 10),
  Write ("write-beyond", 2, "z"),
  Info ("size", 2, kFSize),
  SetPos ("rewind", 2, 0),
  // The bytes between the old end and the write: zero, or whatever the medium held.
  Read ("read-all", 2, 64, kShow, GapOf (3, 10)),
  SetPos ("setpos-max", 2, MAX_UINT64),
  GetPos ("getpos-max", 2),
};

constexpr Step kSetInfoSize[] = {
  Put (kDir, u"g.txt", "abc"),
  Open ("open", 2, kDir, u"g.txt", RW),
  SetInfo ("grow", 2, nullptr, kSSize, 6),
  Content ("grown", kDir, u"g.txt"),
  SetInfo ("shrink", 2, nullptr, kSSize, 1),
  Content ("shrunk", kDir, u"g.txt"),
  GetPos ("position", 2),
  Put (kDir, u"d"),
  Open ("folder", 3, kDir, u"d", RW),
  SetInfo ("folder-size", 3, nullptr, kSSize, 4096),
};

constexpr Step kSetInfoBuffer[] = {
  Put (kDir, u"x", "x"),
  Open ("open", 2, kDir, u"x", RW),
  SetInfo ("short-buffer", 2, nullptr, kSShortBuf),
  SetInfo ("size-beyond-buffer", 2, nullptr, kSSizeBig),
  SetInfo ("other-type", 2, nullptr, kSOtherGuid),
  SetInfo ("directory-bit", 2, nullptr, kSAttrXor, 0, DIR),
  SetInfo ("undefined-attr", 2, nullptr, kSAttrOr, 0, 0x40),
  Info ("attr", 2, kFAttr),
};

constexpr Step kTwoHandles[] = {
  Put (kDir, u"x"),
  Create ("create", 2, kDir, u"y"),
  Open ("second", 3, kDir, u"y", RW),
  Write ("write-first", 2, "abc"),
  Read ("read-second", 3, 16, kShow),
  Write ("write-second", 3, "Z"),
  Content ("content", kDir, u"y"),
};

// --- Directories and GetInfo ------------------------------------------------------------

constexpr Step kReadFolder[] = {
  Put (kDir, u"d"),
  Put (kDir, u"d\\f", "x"),
  Create ("create-empty", 4, kDir, u"d\\e"),
  Close (4),
  Put (kDir, u"d\\s"),
  Open ("open", 2, kDir, u"d", R),
  Read ("small", 2, 10),
  List ("listing", 2),
  Read ("past-end", 2, 1024),
  SetPos ("rewind", 2, 0),
  List ("first", 2, kLFirst),
  SetPos ("setpos-1", 2, 1),
  GetPos ("getpos", 2),
  Write ("write", 2, "x"),
};

constexpr Step kReadRoot[] = {
  List ("root", kRoot, kLDots),
};

constexpr Step kInfoRoot[] = {
  Info ("info", kRoot, kFName | kFAttr | kFDirSize),
  InfoSized ("need", kRoot, 0),
  SetInfo ("setinfo", kRoot, nullptr, 0),
  SetInfo ("rename", kRoot, u"x", 0),
  Volume ("volume", 2),
  SetInfo ("setinfo-fresh", 2, nullptr, kSOwnTimes),
  Flush ("flush", 2),
};

constexpr Step kInfoSmallBuffer[] = {
  Put (kDir, u"info.txt", "abc"),
  Open ("open", 2, kDir, u"info.txt", R),
  InfoSized ("zero", 2, 0),
  InfoSized ("one-short", 2, SIZE_OF_EFI_FILE_INFO + 17),
  InfoSized ("exact", 2, SIZE_OF_EFI_FILE_INFO + 18),
  Info ("other-type", 2, kFOtherGuid),
};

constexpr Step kInfoFolder[] = {
  Put (kDir, u"d"),
  Put (kDir, u"f", "abc"),
  Open ("folder", 2, kDir, u"d", R),
  Info ("folder-info", 2, kFDirSize | kFPhys | kFAttr),
  Open ("file", 3, kDir, u"f", R),
  Info ("file-info", 3, kFSize | kFPhys | kFAttr),
  Create ("empty", 4, kDir, u"e"),
  Info ("empty-info", 4, kFSize | kFPhys),
};

constexpr Step kFsInfoRows[] = {
  FsInfo ("root", kRoot),
  Put (kDir, u"f", "abc"),
  Open ("file", 2, kDir, u"f", R),
  FsInfo ("file-handle", 2),
};

constexpr Row kRows[] = {
  ROW ("open-read-missing", kOpenReadMissing),
  ROW ("open-rw-missing", kOpenRwMissing),
  ROW ("open-create-existing", kOpenCreateExisting),
  ROW ("open-read-only-handle", kOpenReadOnlyHandle),
  ROW ("open-invalid-modes", kOpenInvalidModes),
  ROW ("create-attributes", kCreateAttributes),
  ROW ("open-paths", kOpenPaths),
  ROW ("rename-full-path", kRenameFullPath),
  ROW ("rename-leaf-only", kRenameLeafOnly),
  ROW ("rename-dotdot", kRenameDotDot),
  ROW ("rename-onto-existing", kRenameOntoExisting),
  ROW ("rename-case-only", kRenameCaseOnly),
  ROW ("rename-folder", kRenameFolder),
  ROW ("rename-folder-open-child", kRenameFolderOpenChild),
  ROW ("rename-into-itself", kRenameIntoItself),
  ROW ("rename-names", kRenameNames),
  ROW ("rename-shared-handle", kRenameSharedHandle),
  ROW ("rename-bad-time", kRenameBadTime),
  ROW ("read-only-file", kReadOnlyFile),
  ROW ("read-only-folder", kReadOnlyFolder),
  ROW ("delete-after-read-only", kDeleteAfterReadOnly),
  ROW ("times-fresh-file", kTimesFreshFile),
  ROW ("setinfo-times", kSetInfoTimes),
  ROW ("long-name-root", kLongNameRoot),
  ROW ("long-name-folder", kLongNameFolder),
  ROW ("invalid-names", kInvalidNames),
  ROW ("trailing-dot-space", kTrailingDotSpace),
  ROW ("case-insensitive", kCaseInsensitive),
  ROW ("non-ascii-case", kNonAsciiCase),
  ROW ("delete-folder-not-empty", kDeleteFolderNotEmpty),
  ROW ("delete-open-elsewhere", kDeleteOpenElsewhere),
  ROW ("delete-folder-open-elsewhere", kDeleteFolderOpenElsewhere),
  ROW ("delete-root", kDeleteRoot),
  ROW ("flush-and-size", kFlushAndSize),
  ROW ("setposition-beyond-end", kSetPositionBeyondEnd),
  ROW ("setinfo-size", kSetInfoSize),
  ROW ("setinfo-buffer", kSetInfoBuffer),
  ROW ("two-handles", kTwoHandles),
  ROW ("read-folder", kReadFolder),
  ROW ("read-root", kReadRoot),
  ROW ("info-root", kInfoRoot),
  ROW ("info-small-buffer", kInfoSmallBuffer),
  ROW ("info-folder", kInfoFolder),
  ROW ("fs-info", kFsInfoRows),
};

constexpr UINTN  kRowCount = sizeof (kRows) / sizeof (kRows[0]);

// Information types, as values: the drivers compare them by content.
constexpr EFI_GUID  kFileInfoId    = EFI_FILE_INFO_ID;
constexpr EFI_GUID  kFsInfoId      = { 0x09576e93, 0x6d3f, 0x11d2, { 0x8e, 0x39, 0x00, 0xa0, 0xc9, 0x69, 0x72, 0x3b } };
constexpr EFI_GUID  kFsLabelId     = { 0xdb47d7d3, 0xfe81, 0x11d3, { 0x9a, 0x35, 0x00, 0x90, 0x27, 0x3f, 0xc1, 0x4d } };
constexpr EFI_GUID  kUnknownInfoId = { 0x5e1f0c2a, 0x7d44, 0x4b93, { 0xa1, 0x6e, 0x3c, 0x88, 0x02, 0xd7, 0x4f, 0x19 } };

// The TimeZone value of a time that carries no zone, as FAT's times come back.
constexpr INT16  kNoTimeZone = 0x07FF;

// Room for any EFI_FILE_INFO a FAT name can need (255 characters), 8-byte aligned.
constexpr UINTN  kInfoBytes = 1024;
constexpr UINTN  kPathChars = 600;

// --- The interpreter ------------------------------------------------------------------

struct Table {
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *Fs;
  EFI_FILE_PROTOCOL                *Slots[kSlots];
  CHAR8                            *Out;
  UINTN                            OutSize;
  UINTN                            Used;
  UINTN                            LineStart;
  BOOLEAN                          Full;
  EFI_TIME                         SavedCreate;
  UINT64                           Info[kInfoBytes / sizeof (UINT64)];
  CHAR16                           Path[kPathChars];
};

EFI_GUID *
Guid (
  CONST EFI_GUID  &Value
  )
{
  return const_cast<EFI_GUID *>(&Value);
}

EFI_FILE_INFO *
InfoOf (
  Table  &T
  )
{
  return reinterpret_cast<EFI_FILE_INFO *>(T.Info);
}

VOID
Emit (
  Table       &T,
  const char  *Text
  )
{
  for ( ; *Text != '\0'; ++Text) {
    if (T.Used + 1 >= T.OutSize) {
      T.Full = TRUE;
      return;
    }

    T.Out[T.Used++] = static_cast<CHAR8>(*Text);
  }

  T.Out[T.Used] = '\0';
}

VOID
EmitChar (
  Table  &T,
  char   Character
  )
{
  const char  Text[2] = { Character, '\0' };

  Emit (T, Text);
}

VOID
EmitNumber (
  Table   &T,
  UINT64  Value
  )
{
  char   Digits[24];
  UINTN  Index = sizeof (Digits) - 1;

  Digits[Index] = '\0';
  do {
    Digits[--Index] = static_cast<char>('0' + (Value % 10));
    Value          /= 10;
  } while (Value != 0);

  Emit (T, Digits + Index);
}

VOID
EmitHex (
  Table   &T,
  UINT64  Value,
  UINTN   Width
  )
{
  static const char  kHex[] = "0123456789abcdef";
  char               Digits[20];
  UINTN              Index = sizeof (Digits) - 1;

  Digits[Index] = '\0';
  do {
    Digits[--Index] = kHex[Value & 0xF];
    Value         >>= 4;
    Width           = (Width > 0) ? Width - 1 : 0;
  } while ((Value != 0 || Width > 0) && Index > 0);

  Emit (T, Digits + Index);
}

// Status names of our own, so that both sides print the same words.
VOID
EmitStatus (
  Table       &T,
  EFI_STATUS  Status
  )
{
  static const char *const  kErrors[] = {
    "SUCCESS",          "LOAD_ERROR",      "INVALID_PARAMETER", "UNSUPPORTED",       "BAD_BUFFER_SIZE",
    "BUFFER_TOO_SMALL", "NOT_READY",       "DEVICE_ERROR",      "WRITE_PROTECTED",   "OUT_OF_RESOURCES",
    "VOLUME_CORRUPTED", "VOLUME_FULL",     "NO_MEDIA",          "MEDIA_CHANGED",     "NOT_FOUND",
    "ACCESS_DENIED",    "NO_RESPONSE",     "NO_MAPPING",        "TIMEOUT",           "NOT_STARTED",
    "ALREADY_STARTED",  "ABORTED",         "ICMP_ERROR",        "TFTP_ERROR",        "PROTOCOL_ERROR",
    "INCOMPATIBLE_VERSION", "SECURITY_VIOLATION", "CRC_ERROR",  "END_OF_MEDIA",      "29",
    "30",               "END_OF_FILE",     "INVALID_LANGUAGE",  "COMPROMISED_DATA"
  };
  static const char *const  kWarnings[] = {
    "SUCCESS", "WARN_UNKNOWN_GLYPH", "WARN_DELETE_FAILURE", "WARN_WRITE_FAILURE", "WARN_BUFFER_TOO_SMALL",
    "WARN_STALE_DATA", "WARN_FILE_SYSTEM"
  };
  const UINT64  Code = static_cast<UINT64>(Status) & ~MAX_BIT;

  if (EFI_ERROR (Status) && (Code < sizeof (kErrors) / sizeof (kErrors[0]))) {
    Emit (T, kErrors[Code]);
  } else if (!EFI_ERROR (Status) && (Code < sizeof (kWarnings) / sizeof (kWarnings[0]))) {
    Emit (T, kWarnings[Code]);
  } else {
    Emit (T, "0x");
    EmitHex (T, static_cast<UINT64>(Status), 1);
  }
}

// A name or bytes between quotes; anything but printable ASCII as \xNN or \uNNNN, and
// spaces too, so that every answer stays one word of its line.
VOID
EmitQuotedChar (
  Table   &T,
  UINT32  Character
  )
{
  if ((Character > 0x20) && (Character < 0x7F) && (Character != '\'') && (Character != '\\')) {
    EmitChar (T, static_cast<char>(Character));
  } else if (Character < 0x100) {
    Emit (T, "\\x");
    EmitHex (T, Character, 2);
  } else {
    Emit (T, "\\u");
    EmitHex (T, Character, 4);
  }
}

VOID
EmitName (
  Table         &T,
  CONST CHAR16  *Name
  )
{
  EmitChar (T, '\'');
  for ( ; *Name != 0; ++Name) {
    EmitQuotedChar (T, *Name);
  }

  EmitChar (T, '\'');
}

VOID
EmitBytes (
  Table        &T,
  CONST UINT8  *Bytes,
  UINTN        Count
  )
{
  EmitChar (T, '\'');
  for (UINTN Index = 0; Index < Count; ++Index) {
    EmitQuotedChar (T, Bytes[Index]);
  }

  EmitChar (T, '\'');
}

UINTN
NameLength (
  CONST CHAR16  *Name
  )
{
  UINTN  Length = 0;

  while (Name[Length] != 0) {
    ++Length;
  }

  return Length;
}

UINTN
TextLength (
  const char  *Text
  )
{
  UINTN  Length = 0;

  while (Text[Length] != '\0') {
    ++Length;
  }

  return Length;
}

// The step's path in T.Path, with every "%N" replaced by a name of N characters that
// starts with "ft" (so that names made in the root are cleaned up with the scratch).
CHAR16 *
ExpandPath (
  Table           &T,
  const char16_t  *Template
  )
{
  UINTN  Used = 0;

  for (const char16_t *At = Template; *At != 0 && Used + 1 < kPathChars; ) {
    if (*At != u'%') {
      T.Path[Used++] = static_cast<CHAR16>(*At++);
      continue;
    }

    UINTN  Count = 0;
    for (++At; *At >= u'0' && *At <= u'9'; ++At) {
      Count = Count * 10 + static_cast<UINTN>(*At - u'0');
    }

    for (UINTN Index = 0; Index < Count && Used + 1 < kPathChars; ++Index) {
      T.Path[Used++] = (Index == 0) ? L'f' : (Index == 1) ? L't' : static_cast<CHAR16>(L'a' + (Index - 2) % 26);
    }
  }

  T.Path[Used] = 0;
  return T.Path;
}

VOID
CloseSlot (
  Table  &T,
  UINT8  Slot
  )
{
  if (T.Slots[Slot] != nullptr) {
    T.Slots[Slot]->Close (T.Slots[Slot]);
    T.Slots[Slot] = nullptr;
  }
}

EFI_STATUS
GetFileInfo (
  EFI_FILE_PROTOCOL  *File,
  VOID               *Buffer,
  UINTN              Size = kInfoBytes
  )
{
  ZeroMem (Buffer, Size);
  return File->GetInfo (File, Guid (kFileInfoId), &Size, Buffer);
}

BOOLEAN
IsZeroTime (
  CONST EFI_TIME  &Time
  )
{
  return IsZeroBuffer (&Time, sizeof (Time));
}

BOOLEAN
SameTime (
  CONST EFI_TIME  &A,
  CONST EFI_TIME  &B
  )
{
  return (A.Year == B.Year) && (A.Month == B.Month) && (A.Day == B.Day) && (A.Hour == B.Hour) &&
         (A.Minute == B.Minute) && (A.Second == B.Second) && (A.Nanosecond == B.Nanosecond);
}

// zero, bad (a date no calendar has) or valid; with DayOnly, "date" for a valid day
// whose time of day is 00:00:00, as FAT keeps the last access.
const char *
TimeClass (
  CONST EFI_TIME  &Time,
  BOOLEAN         DayOnly = FALSE
  )
{
  if (IsZeroTime (Time)) {
    return "zero";
  }

  if ((Time.Year < 1980) || (Time.Month < 1) || (Time.Month > 12) || (Time.Day < 1) || (Time.Day > 31) ||
      (Time.Hour > 23) || (Time.Minute > 59) || (Time.Second > 59) || (Time.Nanosecond > 999999999))
  {
    return "bad";
  }

  return (DayOnly && (Time.Hour == 0) && (Time.Minute == 0) && (Time.Second == 0)) ? "date" : "valid";
}

VOID
SetOurTime (
  EFI_TIME  &Time,
  UINT8     Month
  )
{
  ZeroMem (&Time, sizeof (Time));
  Time.Year   = 2001;
  Time.Month  = Month;
  Time.Day    = 3;
  Time.Hour   = 4;
  Time.Minute = 5;
  Time.Second = 7;
}

VOID
EmitInfoFields (
  Table          &T,
  EFI_FILE_INFO  *Info,
  UINT32         Fields
  )
{
  if ((Fields & kFSize) != 0) {
    Emit (T, ",size=");
    EmitNumber (T, Info->FileSize);
  }

  if ((Fields & kFDirSize) != 0) {
    Emit (T, (Info->FileSize == 0) ? ",size=zero" : ",size=nonzero");
  }

  if ((Fields & kFPhys) != 0) {
    Emit (T, (Info->PhysicalSize == Info->FileSize) ? ",phys=size" : (Info->PhysicalSize > Info->FileSize) ? ",phys>size" : ",phys<size");
  }

  if ((Fields & kFAttr) != 0) {
    Emit (T, ",attr=");
    EmitHex (T, Info->Attribute, 2);
  }

  if ((Fields & kFName) != 0) {
    Emit (T, ",name=");
    EmitName (T, Info->FileName);
  }

  if ((Fields & kFNameLen) != 0) {
    Emit (T, ",namelen=");
    EmitNumber (T, NameLength (Info->FileName));
  }

  if ((Fields & kFTimes) != 0) {
    Emit (T, ",c=");
    Emit (T, TimeClass (Info->CreateTime));
    Emit (T, ",m=");
    Emit (T, TimeClass (Info->ModificationTime));
    Emit (T, ",a=");
    Emit (T, TimeClass (Info->LastAccessTime, TRUE));
    Emit (T, ",tz=");
    if (Info->ModificationTime.TimeZone == kNoTimeZone) {
      Emit (T, "none");
    } else {
      EmitNumber (T, static_cast<UINT16>(Info->ModificationTime.TimeZone));
    }
  }

  if ((Fields & kFSameMC) != 0) {
    Emit (T, SameTime (Info->CreateTime, Info->ModificationTime) ? ",m=c" : ",m!=c");
  }

  if ((Fields & kFMtime) != 0) {
    CONST EFI_TIME  &M = Info->ModificationTime;
    Emit (T, ",m=");
    if (M.Year == 2001) {
      // Ours: print it whole, to show what the driver kept of it.
      EmitNumber (T, M.Year);
      EmitChar (T, '-');
      EmitNumber (T, M.Month);
      EmitChar (T, '-');
      EmitNumber (T, M.Day);
      EmitChar (T, 'T');
      EmitNumber (T, M.Hour);
      EmitChar (T, ':');
      EmitNumber (T, M.Minute);
      EmitChar (T, ':');
      EmitNumber (T, M.Second);
    } else {
      Emit (T, TimeClass (M));
    }
  }

  if ((Fields & kFSave) != 0) {
    CopyMem (&T.SavedCreate, &Info->CreateTime, sizeof (EFI_TIME));
  }

  if ((Fields & kFSameC) != 0) {
    Emit (T, SameTime (T.SavedCreate, Info->CreateTime) ? ",c=same" : ",c=changed");
  }
}

BOOLEAN
IsDot (
  CONST CHAR16  *Name
  )
{
  return (Name[0] == L'.') && ((Name[1] == 0) || ((Name[1] == L'.') && (Name[2] == 0)));
}

VOID
RunList (
  Table              &T,
  EFI_FILE_PROTOCOL  *Dir,
  UINT32             Flags
  )
{
  EFI_FILE_INFO  *Info  = InfoOf (T);
  UINTN          Dots   = 0;
  UINTN          Others = 0;

  if ((Flags & kLDots) == 0) {
    Emit (T, "[");
  }

  for (UINTN Entry = 0; Entry < 64; ++Entry) {
    UINTN       Size   = kInfoBytes;
    EFI_STATUS  Status;

    ZeroMem (T.Info, sizeof (T.Info));
    Status = Dir->Read (Dir, &Size, T.Info);
    if (EFI_ERROR (Status)) {
      Emit (T, (Entry == 0) ? "" : ",");
      EmitStatus (T, Status);
      break;
    }

    if (Size == 0) {
      break;
    }

    if (IsDot (Info->FileName)) {
      ++Dots;
    } else {
      ++Others;
    }

    if ((Flags & kLDots) != 0) {
      continue;
    }

    if (Entry > 0) {
      Emit (T, ",");
    }

    EmitName (T, Info->FileName);
    Emit (T, ":");
    EmitHex (T, Info->Attribute, 2);
    if (((Flags & kLSizes) != 0) && ((Info->Attribute & EFI_FILE_DIRECTORY) == 0)) {
      Emit (T, ":");
      EmitNumber (T, Info->FileSize);
    }

    if ((Flags & kLFirst) != 0) {
      break;
    }
  }

  if ((Flags & kLDots) != 0) {
    Emit (T, "dots=");
    EmitNumber (T, Dots);
    Emit (T, (Others > 0) ? ",entries" : ",empty");
  } else {
    Emit (T, "]");
  }
}

VOID
RunSetInfo (
  Table       &T,
  const Step  &S,
  EFI_FILE_PROTOCOL  *File
  )
{
  EFI_FILE_INFO  *Info = InfoOf (T);
  EFI_STATUS     Status;
  UINTN          Size;
  EFI_TIME       Own[3];

  Status = GetFileInfo (File, T.Info);
  if (EFI_ERROR (Status)) {
    Emit (T, "getinfo:");
    EmitStatus (T, Status);
    return;
  }

  if ((S.Flags & kSName) != 0) {
    CONST CHAR16  *Name   = ExpandPath (T, S.Path);
    UINTN         Length  = NameLength (Name);

    CopyMem (Info->FileName, Name, (Length + 1) * sizeof (CHAR16));
    Info->Size = SIZE_OF_EFI_FILE_INFO + (Length + 1) * sizeof (CHAR16);
  }

  if ((S.Flags & kSSize) != 0) {
    Info->FileSize = S.A;
  }

  if ((S.Flags & kSAttrOr) != 0) {
    Info->Attribute |= S.B;
  }

  if ((S.Flags & kSAttrAndNot) != 0) {
    Info->Attribute &= ~S.B;
  }

  if ((S.Flags & kSAttrXor) != 0) {
    Info->Attribute ^= S.B;
  }

  CopyMem (&Own[0], &Info->CreateTime, sizeof (EFI_TIME));
  CopyMem (&Own[1], &Info->LastAccessTime, sizeof (EFI_TIME));
  CopyMem (&Own[2], &Info->ModificationTime, sizeof (EFI_TIME));
  if ((S.Flags & kSOwnTimes) == 0) {
    ZeroMem (&Info->CreateTime, sizeof (EFI_TIME));
    ZeroMem (&Info->LastAccessTime, sizeof (EFI_TIME));
    ZeroMem (&Info->ModificationTime, sizeof (EFI_TIME));
  }

  if ((S.Flags & kSMtime13) != 0) {
    SetOurTime (Info->ModificationTime, 13);
  }

  if ((S.Flags & kSCtime13) != 0) {
    SetOurTime (Info->CreateTime, 13);
  }

  if ((S.Flags & kSAtime13) != 0) {
    SetOurTime (Info->LastAccessTime, 13);
  }

  if ((S.Flags & kSZeroDate) != 0) {
    ZeroMem (&Info->ModificationTime, sizeof (EFI_TIME));
    Info->ModificationTime.Year = 1980;
  }

  if ((S.Flags & kSNanoBad) != 0) {
    SetOurTime (Info->ModificationTime, 2);
    Info->ModificationTime.Nanosecond = 1000000000;
  }

  if ((S.Flags & kSMtimeOurs) != 0) {
    SetOurTime (Info->ModificationTime, 2);
  }

  Size = static_cast<UINTN>(Info->Size);
  if ((S.Flags & kSShortBuf) != 0) {
    Size = SIZE_OF_EFI_FILE_INFO + 1;
  }

  if ((S.Flags & kSSizeBig) != 0) {
    Info->Size = Size + 2;
  }

  Status = File->SetInfo (File, Guid ((S.Flags & kSOtherGuid) != 0 ? kUnknownInfoId : kFileInfoId), Size, T.Info);
  EmitStatus (T, Status);
}

VOID
RunFsInfo (
  Table              &T,
  EFI_FILE_PROTOCOL  *File
  )
{
  UINTN                 Size = kInfoBytes;
  EFI_STATUS            Status;
  EFI_FILE_SYSTEM_INFO  *Info = reinterpret_cast<EFI_FILE_SYSTEM_INFO *>(T.Info);

  ZeroMem (T.Info, sizeof (T.Info));
  Status = File->GetInfo (File, Guid (kFsInfoId), &Size, T.Info);
  EmitStatus (T, Status);
  if (!EFI_ERROR (Status)) {
    Emit (T, Info->ReadOnly ? ",read-only" : ",writable");
    Emit (T, (Info->BlockSize != 0) ? ",block=nonzero" : ",block=zero");
    Emit (T, (Info->VolumeSize >= Info->FreeSpace && Info->VolumeSize != 0) ? ",space=plausible" : ",space=odd");
  }

  Size = kInfoBytes;
  Status = File->GetInfo (File, Guid (kFsLabelId), &Size, T.Info);
  Emit (T, ",label-info=");
  EmitStatus (T, Status);
}

// Quiet setup: a folder (no data) or a file holding Data; prints only a failure.
VOID
RunPut (
  Table       &T,
  const Step  &S,
  EFI_FILE_PROTOCOL  *From
  )
{
  EFI_FILE_PROTOCOL  *File = nullptr;
  EFI_STATUS         Status;
  UINTN              Size;

  Status = From->Open (From, &File, ExpandPath (T, S.Path), CRW, (S.Data == nullptr) ? EFI_FILE_DIRECTORY : 0);
  if (!EFI_ERROR (Status) && (S.Data != nullptr)) {
    Size   = TextLength (S.Data);
    Status = File->Write (File, &Size, const_cast<char *>(S.Data));
  }

  if (File != nullptr) {
    File->Close (File);
  }

  if (EFI_ERROR (Status)) {
    Emit (T, " put:");
    EmitName (T, T.Path);
    Emit (T, "=");
    EmitStatus (T, Status);
  }
}

VOID
RunStep (
  Table       &T,
  const Step  &S
  )
{
  EFI_FILE_PROTOCOL  *File = T.Slots[S.Slot];
  EFI_FILE_PROTOCOL  *From = T.Slots[S.From];
  EFI_FILE_PROTOCOL  *New  = nullptr;
  EFI_STATUS         Status;
  UINTN              Size;
  UINT64             Position;

  if (S.Op == kPut) {
    if (From == nullptr) {
      Emit (T, " put:no-handle");
    } else {
      RunPut (T, S, From);
    }

    return;
  }

  if (S.Op == kClose) {
    Status = EFI_SUCCESS;
    if (File != nullptr) {
      Status        = File->Close (File);
      T.Slots[S.Slot] = nullptr;
    }

    if ((S.Label != nullptr) || EFI_ERROR (Status)) {
      Emit (T, " ");
      Emit (T, (S.Label != nullptr) ? S.Label : "close");
      Emit (T, "=");
      EmitStatus (T, Status);
    }

    return;
  }

  Emit (T, " ");
  Emit (T, S.Label);
  Emit (T, "=");

  // Steps that open something need the handle they open from; the others the one they act on.
  const BOOLEAN  Opens = (S.Op == kOpen) || (S.Op == kExists) || (S.Op == kContent);
  if ((Opens && (From == nullptr)) || (!Opens && (S.Op != kVolume) && (File == nullptr))) {
    Emit (T, "no-handle");
    return;
  }

  switch (S.Op) {
    case kOpen:
      CloseSlot (T, S.Slot);
      Status = From->Open (From, &New, ExpandPath (T, S.Path), S.A, S.B);
      if (!EFI_ERROR (Status)) {
        T.Slots[S.Slot] = New;
      }

      EmitStatus (T, Status);
      break;

    case kVolume:
      CloseSlot (T, S.Slot);
      Status = T.Fs->OpenVolume (T.Fs, &New);
      if (!EFI_ERROR (Status)) {
        T.Slots[S.Slot] = New;
      }

      EmitStatus (T, Status);
      break;

    case kDelete:
      // The handle is gone whatever Delete answers.
      T.Slots[S.Slot] = nullptr;
      EmitStatus (T, File->Delete (File));
      break;

    case kWrite:
      Size   = TextLength (S.Data);
      Status = File->Write (File, &Size, const_cast<char *>(S.Data));
      EmitStatus (T, Status);
      Emit (T, "/");
      EmitNumber (T, Size);
      break;

    case kRead:
      Size = static_cast<UINTN>(S.A);
      ZeroMem (T.Info, sizeof (T.Info));
      Status = File->Read (File, &Size, T.Info);
      EmitStatus (T, Status);
      Emit (T, "/");
      EmitNumber (T, Size);
      if (((S.Flags & kShow) != 0) && !EFI_ERROR (Status)) {
        CONST UINT8  *Bytes = reinterpret_cast<CONST UINT8 *>(T.Info);
        const UINTN  Shown  = (Size < kInfoBytes) ? Size : kInfoBytes;
        const UINTN  Start  = static_cast<UINTN>(S.B >> 32);
        const UINTN  End    = static_cast<UINTN>(S.B & MAX_UINT32);

        Emit (T, ",");
        if ((S.B == 0) || (End > Shown) || (Start >= End)) {
          EmitBytes (T, Bytes, Shown);
        } else {
          EmitBytes (T, Bytes, Start);
          Emit (T, IsZeroBuffer (Bytes + Start, End - Start) ? "+zeros+" : "+stale+");
          EmitBytes (T, Bytes + End, Shown - End);
        }
      }

      break;

    case kGetPos:
      Position = 0;
      Status   = File->GetPosition (File, &Position);
      EmitStatus (T, Status);
      if (!EFI_ERROR (Status)) {
        Emit (T, "/");
        if (Position == MAX_UINT64) {
          Emit (T, "max");
        } else {
          EmitNumber (T, Position);
        }
      }

      break;

    case kSetPos:
      EmitStatus (T, File->SetPosition (File, S.A));
      break;

    case kInfo:
      if ((S.Flags & kFOtherGuid) != 0) {
        Size = kInfoBytes;
        EmitStatus (T, File->GetInfo (File, Guid (kUnknownInfoId), &Size, T.Info));
        break;
      }

      Status = GetFileInfo (File, T.Info);
      EmitStatus (T, Status);
      if (!EFI_ERROR (Status)) {
        EmitInfoFields (T, InfoOf (T), S.Flags);
      }

      break;

    case kInfoSized:
      ZeroMem (T.Info, sizeof (T.Info));
      Size   = static_cast<UINTN>(S.A);
      Status = File->GetInfo (File, Guid (kFileInfoId), &Size, (S.A == 0) ? nullptr : T.Info);
      EmitStatus (T, Status);
      Emit (T, ",need=");
      EmitNumber (T, Size);
      if (!EFI_ERROR (Status)) {
        Emit (T, ",size=");
        EmitNumber (T, InfoOf (T)->Size);
      }

      break;

    case kSetInfo:
      RunSetInfo (T, S, File);
      break;

    case kFlush:
      EmitStatus (T, File->Flush (File));
      break;

    case kList:
      RunList (T, File, S.Flags);
      break;

    case kExists:
      Status = From->Open (From, &New, ExpandPath (T, S.Path), R, 0);
      if (!EFI_ERROR (Status)) {
        New->Close (New);
      }

      EmitStatus (T, Status);
      break;

    case kContent:
      Status = From->Open (From, &New, ExpandPath (T, S.Path), R, 0);
      if (EFI_ERROR (Status)) {
        EmitStatus (T, Status);
        break;
      }

      Size = kInfoBytes;
      ZeroMem (T.Info, sizeof (T.Info));
      Status = New->Read (New, &Size, T.Info);
      New->Close (New);
      if (EFI_ERROR (Status)) {
        EmitStatus (T, Status);
      } else {
        EmitBytes (T, reinterpret_cast<CONST UINT8 *>(T.Info), Size);
      }

      break;

    case kFsInfo:
      RunFsInfo (T, File);
      break;

    default:
      Emit (T, "unknown-step");
      break;
  }
}

BOOLEAN
IsScratchName (
  CONST CHAR16  *Name
  )
{
  return ((Name[0] | 0x20) == L'f') && ((Name[1] | 0x20) == L't');
}

// Removes Name under Dir, emptying folders first and clearing a read-only attribute that
// would keep a file from opening for writing. TRUE when it is gone.
BOOLEAN RemoveEntries (EFI_FILE_PROTOCOL *Dir, BOOLEAN ScratchOnly, UINTN Depth);

BOOLEAN
RemoveEntry (
  EFI_FILE_PROTOCOL  *Dir,
  CHAR16             *Name,
  UINTN              Depth
  )
{
  UINT64             Buffer[kInfoBytes / sizeof (UINT64)];
  EFI_FILE_INFO      *Info = reinterpret_cast<EFI_FILE_INFO *>(Buffer);
  EFI_FILE_PROTOCOL  *File = nullptr;
  EFI_STATUS         Status;

  Status = Dir->Open (Dir, &File, Name, RW, 0);
  if (Status == EFI_ACCESS_DENIED) {
    if (EFI_ERROR (Dir->Open (Dir, &File, Name, R, 0))) {
      return FALSE;
    }

    if (!EFI_ERROR (GetFileInfo (File, Buffer))) {
      Info->Attribute &= ~EFI_FILE_READ_ONLY;
      ZeroMem (&Info->CreateTime, 3 * sizeof (EFI_TIME));
      File->SetInfo (File, Guid (kFileInfoId), static_cast<UINTN>(Info->Size), Buffer);
    }

    File->Close (File);
    File   = nullptr;
    Status = Dir->Open (Dir, &File, Name, RW, 0);
  }

  if (EFI_ERROR (Status)) {
    return FALSE;
  }

  if (!EFI_ERROR (GetFileInfo (File, Buffer)) && ((Info->Attribute & EFI_FILE_DIRECTORY) != 0) && (Depth < 8)) {
    RemoveEntries (File, FALSE, Depth + 1);
  }

  return File->Delete (File) == EFI_SUCCESS;
}

// Removes every entry of Dir (in the root: only the scratch names). TRUE when all went.
BOOLEAN
RemoveEntries (
  EFI_FILE_PROTOCOL  *Dir,
  BOOLEAN            ScratchOnly,
  UINTN              Depth
  )
{
  UINT64         Buffer[kInfoBytes / sizeof (UINT64)];
  EFI_FILE_INFO  *Info  = reinterpret_cast<EFI_FILE_INFO *>(Buffer);
  UINTN          Failed = 0;

  // Each pass reads from the start and removes the first entry not yet given up on.
  for (UINTN Pass = 0; Pass < 256; ++Pass) {
    UINTN    Skip  = Failed;
    BOOLEAN  Found = FALSE;

    if (EFI_ERROR (Dir->SetPosition (Dir, 0))) {
      return FALSE;
    }

    for ( ; ; ) {
      UINTN  Size = kInfoBytes;

      ZeroMem (Buffer, sizeof (Buffer));
      if (EFI_ERROR (Dir->Read (Dir, &Size, Buffer)) || (Size == 0)) {
        break;
      }

      if (IsDot (Info->FileName) || (ScratchOnly && !IsScratchName (Info->FileName))) {
        continue;
      }

      if (Skip > 0) {
        --Skip;
        continue;
      }

      Found = TRUE;
      break;
    }

    if (!Found) {
      return Failed == 0;
    }

    if (!RemoveEntry (Dir, Info->FileName, Depth)) {
      ++Failed;
    }
  }

  return FALSE;
}

UINTN
CountScratch (
  EFI_FILE_PROTOCOL  *Root
  )
{
  UINT64         Buffer[kInfoBytes / sizeof (UINT64)];
  EFI_FILE_INFO  *Info = reinterpret_cast<EFI_FILE_INFO *>(Buffer);
  UINTN          Count = 0;

  if (EFI_ERROR (Root->SetPosition (Root, 0))) {
    return 1;
  }

  for ( ; ; ) {
    UINTN  Size = kInfoBytes;

    if (EFI_ERROR (Root->Read (Root, &Size, Buffer)) || (Size == 0)) {
      break;
    }

    Count += IsScratchName (Info->FileName) ? 1 : 0;
  }

  return Count;
}

VOID
EndLine (
  Table  &T
  )
{
  Emit (T, "\n");
  if (!T.Full) {
    T.LineStart = T.Used;
  }
}

}  // namespace

UINTN
FileTableRowCount (
  VOID
  )
{
  return kRowCount;
}

CONST CHAR8 *
FileTableRowName (
  IN UINTN  Index
  )
{
  return (Index < kRowCount) ? reinterpret_cast<CONST CHAR8 *>(kRows[Index].Name) : nullptr;
}

UINTN
RunFileTable (
  IN  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *FileSystem,
  OUT CHAR8                            *Out,
  IN  UINTN                            OutSize
  )
{
  static Table  T;   // about 2 KiB: kept off the firmware's stack
  EFI_STATUS    Status;
  UINTN         Rows = 0;

  if ((FileSystem == nullptr) || (Out == nullptr) || (OutSize < 32)) {
    return 0;
  }

  ZeroMem (&T, sizeof (T));
  T.Fs      = FileSystem;
  T.Out     = Out;
  T.OutSize = OutSize;
  Out[0]    = '\0';

  Status = FileSystem->OpenVolume (FileSystem, &T.Slots[kRoot]);
  if (EFI_ERROR (Status)) {
    Emit (T, "table: OpenVolume=");
    EmitStatus (T, Status);
    EndLine (T);
    return 0;
  }

  // What an interrupted earlier run left behind must not shape this one.
  RemoveEntries (T.Slots[kRoot], TRUE, 0);

  for (UINTN Index = 0; Index < kRowCount && !T.Full; ++Index) {
    const Row  &Current = kRows[Index];

    Emit (T, Current.Name);
    Emit (T, ":");
    CHAR16  Scratch[] = { L'f', L't', 0 };

    Status = T.Slots[kRoot]->Open (T.Slots[kRoot], &T.Slots[kDir], Scratch, CRW, EFI_FILE_DIRECTORY);
    if (EFI_ERROR (Status)) {
      T.Slots[kDir] = nullptr;
      Emit (T, " !scratch=");
      EmitStatus (T, Status);
    }

    for (UINTN StepIndex = 0; StepIndex < Current.Count; ++StepIndex) {
      RunStep (T, Current.Steps[StepIndex]);
    }

    for (UINT8 Slot = kDir; Slot < kSlots; ++Slot) {
      CloseSlot (T, Slot);
    }

    // A root handle a row deleted is opened again for the next one.
    if (T.Slots[kRoot] == nullptr) {
      if (EFI_ERROR (FileSystem->OpenVolume (FileSystem, &T.Slots[kRoot]))) {
        Emit (T, " !root=lost");
        EndLine (T);
        break;
      }
    }

    if (!RemoveEntries (T.Slots[kRoot], TRUE, 0) || (CountScratch (T.Slots[kRoot]) != 0)) {
      Emit (T, " !leftover=");
      EmitNumber (T, CountScratch (T.Slots[kRoot]));
    }

    EndLine (T);
    ++Rows;
  }

  CloseSlot (T, kRoot);
  if (T.Full) {
    // Cut at the last whole line and say so.
    T.Used = T.LineStart;
    T.Out[T.Used] = '\0';
    T.Full = FALSE;
    Emit (T, "truncated\n");
  } else {
    Emit (T, "end: rows=");
    EmitNumber (T, Rows);
    EndLine (T);
  }

  return Rows;
}
