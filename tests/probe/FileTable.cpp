/** @file
  The file-protocol table: the rows as one list of steps, and the small interpreter that
  runs them on any volume.

  Each row holds the calls one of Velmaro's renames, copies, deletes or proofs on a fresh
  root relies on, where a driver has room to answer differently. No pool, no library but
  BaseLib and BaseMemoryLib, nothing that needs a constructor: the same source builds into
  the firmware image and into the host suite.
**/

#include "FileTable.h"

extern "C" {
#include <Library/BaseLib.h>
#include <Library/BaseMemoryLib.h>
}

namespace {

enum : UINT8 { kRow, kPut, kOpen, kClose, kVolume, kDelete, kWrite, kRead, kFlush, kInfo, kInfoSized, kSetInfo, kLook };

// What a SetInfo step changes. The times not named go in as zero, "leave them as they are".
enum : UINT8 { kZeroTimes, kOwnTimes, kOurTime, kMonth13, kZeroDate, kSetReadOnly, kClearReadOnly };

// Handle slots: the root, the row's scratch folder \ft, then the row's own handles.
constexpr UINT8   kRoot = 0, kDir = 1, kSlots = 6;
constexpr UINT64  R     = EFI_FILE_MODE_READ, W = EFI_FILE_MODE_WRITE, C = EFI_FILE_MODE_CREATE;
constexpr UINT64  RW    = R | W, CRW = C | R | W;
constexpr UINT64  RO    = EFI_FILE_READ_ONLY, DIR = EFI_FILE_DIRECTORY;

struct Step {
  UINT8             Op, Slot, From;   // the handle acted on (or opened into), the one a path starts from
  const char        *Label;           // for kRow: the row's name
  const char16_t    *Path;            // "%N" stands for a name of N characters
  const char        *Data;
  UINT64            A, B;             // Open: mode, attributes; SetInfo: the change; InfoSized: buffer size
};

constexpr Step Row (const char *Name) { return { kRow, 0, 0, Name, nullptr, nullptr, 0, 0 }; }
// Quiet setup in the scratch folder: a file holding Data, or a folder when there is none.
constexpr Step Put (const char16_t *P, const char *D = nullptr) { return { kPut, 0, kDir, nullptr, P, D, 0, 0 }; }
constexpr Step Open (const char *L, UINT8 S, UINT8 F, const char16_t *P, UINT64 Mode, UINT64 Attr = 0) { return { kOpen, S, F, L, P, nullptr, Mode, Attr }; }
constexpr Step Create (const char *L, const char16_t *P) { return Open (L, 2, kDir, P, CRW); }
// Opens a path for reading and prints its bytes, "dir" for a folder, or why it would not open.
constexpr Step Look (const char *L, const char16_t *P, UINT8 F = kDir) { return { kLook, 0, F, L, P, nullptr, 0, 0 }; }
constexpr Step Set (const char *L, UINT8 S, UINT8 Change, const char16_t *Name = nullptr) { return { kSetInfo, S, 0, L, Name, nullptr, Change, 0 }; }
constexpr Step Do (UINT8 Op, const char *L, UINT8 S, const char *D = nullptr, UINT64 A = 0) { return { Op, S, 0, L, nullptr, D, A, 0 }; }

constexpr Step  kSteps[] = {
  Row ("open-missing"),
  Open ("read", 2, kDir, u"missing.txt", R),
  Open ("read-write", 2, kDir, u"missing.txt", RW),
  Create ("create-in-missing-folder", u"nodir\\new.txt"),
  Look ("created", u"missing.txt"),

  Row ("open-create-existing"),
  Put (u"keep.txt", "hello"), Put (u"d"),
  Create ("create", u"keep.txt"),
  Do (kInfo, "info", 2),
  Look ("content", u"keep.txt"),
  Open ("create-folder-again", 3, kDir, u"d", CRW, DIR),
  Do (kInfo, "folder", 3),

  Row ("open-invalid-modes"),
  Put (u"keep.txt", "k"),
  Open ("write", 2, kDir, u"m.txt", W),
  Open ("create-write", 2, kDir, u"m.txt", C | W),
  Open ("create-read", 2, kDir, u"m.txt", C | R),
  Open ("none", 2, kDir, u"m.txt", 0),
  Open ("write-existing", 2, kDir, u"keep.txt", W),
  Look ("created", u"m.txt"),

  // A leaf-only name stays in the file's folder; a full path moves it, as a fresh root sees.
  Row ("rename-by-path"),
  Put (u"a"), Put (u"b"), Put (u"a\\x", "data"),
  Open ("open", 2, kDir, u"a\\x", RW),
  Set ("leaf", 2, kZeroTimes, u"y"),
  Look ("beside", u"a\\y"), Look ("in-scratch", u"y"),
  Set ("full-path", 2, kZeroTimes, u"\\ft\\b\\z"),
  Do (kInfo, "info", 2),
  Do (kClose, nullptr, 2),
  Look ("old", u"a\\y"),
  Do (kVolume, "fresh-root", 3),
  Look ("on-fresh-root", u"\\ft\\b\\z", 3),

  Row ("rename-onto-existing"),
  Put (u"x", "1"), Put (u"y", "2"), Put (u"d"),
  Open ("open", 2, kDir, u"x", RW),
  Set ("onto-file", 2, kZeroTimes, u"y"),
  Set ("onto-other-case", 2, kZeroTimes, u"Y"),
  Set ("onto-folder", 2, kZeroTimes, u"d"),
  Look ("x", u"x"), Look ("y", u"y"),

  Row ("rename-folder"),
  Put (u"a"), Put (u"a\\x", "x"), Put (u"c"),
  Open ("open-child", 3, kDir, u"a\\x", R),
  Open ("open", 2, kDir, u"a", RW),
  Set ("child-open", 2, kZeroTimes, u"b"),
  Do (kClose, nullptr, 3),
  Set ("child-closed", 2, kZeroTimes, u"b"),
  Look ("old", u"a"), Look ("child", u"b\\x"),
  Set ("move", 2, kZeroTimes, u"\\ft\\c\\a2"),
  Look ("moved-child", u"c\\a2\\x"),

  Row ("read-only-file"),
  Put (u"r.txt", "abc"),
  Open ("open", 2, kDir, u"r.txt", RW),
  Set ("set-read-only", 2, kSetReadOnly),
  Do (kClose, nullptr, 2),
  Open ("open-read-write", 3, kDir, u"r.txt", RW),
  Open ("open-create", 3, kDir, u"r.txt", CRW),
  Open ("open-read", 2, kDir, u"r.txt", R),
  Do (kInfo, "info", 2),
  Set ("rename", 2, kZeroTimes, u"r2.txt"),
  Do (kDelete, "delete", 2),
  Look ("content", u"r.txt"),
  Open ("open-again", 2, kDir, u"r.txt", R),
  Set ("clear-read-only", 2, kClearReadOnly),
  Open ("open-read-write-after", 3, kDir, u"r.txt", RW),

  // Zero times ask the driver to leave the times alone (what it does with the modification
  // time shows in after-zero); a time no calendar has (month 13, or the 1980-00-00 a zero
  // FAT date reads as) is refused, renames included.
  Row ("setinfo-times"),
  Put (u"t.txt", "abc"),
  Open ("open", 2, kDir, u"t.txt", RW),
  Set ("ours", 2, kOurTime),
  Do (kInfo, "after-ours", 2),
  Set ("zero", 2, kZeroTimes),
  Do (kInfo, "after-zero", 2),
  Set ("own", 2, kOwnTimes),
  Set ("month-13", 2, kMonth13), Set ("zero-date", 2, kZeroDate),
  Set ("rename-zero-date", 2, kZeroDate, u"u.txt"),
  Look ("old", u"t.txt"),
  Set ("rename-zero-times", 2, kZeroTimes, u"u.txt"),
  Do (kInfo, "renamed", 2),

  Row ("delete-folder-not-empty"),
  Put (u"d"), Put (u"d\\x", "x"),
  Open ("open", 2, kDir, u"d", RW),
  Do (kDelete, "delete", 2),
  Look ("child", u"d\\x"), Look ("folder", u"d"),

  Row ("delete-open-elsewhere"),
  Put (u"x", "abc"),
  Open ("other", 3, kDir, u"x", R),
  Open ("open", 2, kDir, u"x", RW),
  Do (kDelete, "delete", 2),
  Look ("gone", u"x"),
  Do (kInfo, "other-info", 3),
  Do (kRead, "other-read", 3),
  Do (kWrite, "other-write", 3, "z"),
  Do (kFlush, "other-flush", 3),
  Create ("recreate", u"x"),
  Do (kInfo, "recreated", 2),

  Row ("flush-and-size"),
  Create ("create", u"s.txt"),
  Do (kWrite, "write", 2, "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyz.."),
  Do (kVolume, "fresh-root", 4),
  Open ("open-fresh", 3, 4, u"\\ft\\s.txt", R),
  Do (kInfo, "before-flush", 3),
  Do (kFlush, "flush", 2),
  Do (kInfo, "after-flush", 3),
  Do (kRead, "read", 3),

  Row ("case-insensitive"),
  Put (u"MixedCase.Txt", "abc"), Put (u"bcd", "x"),
  Open ("open-lower", 3, kDir, u"mixedcase.txt", R),
  Do (kInfo, "info", 3),
  Create ("create-upper", u"MIXEDCASE.TXT"),
  Do (kInfo, "created", 2),
  Open ("open", 4, kDir, u"bcd", RW),
  Set ("rename-case-only", 4, kZeroTimes, u"BCD"),
  Do (kInfo, "renamed", 4),

  Row ("info-small-buffer"),
  Put (u"info.txt", "abc"),
  Open ("open", 2, kDir, u"info.txt", R),
  Do (kInfoSized, "zero", 2, nullptr, 0),
  Do (kInfoSized, "one-short", 2, nullptr, SIZE_OF_EFI_FILE_INFO + 17),
  Do (kInfoSized, "exact", 2, nullptr, SIZE_OF_EFI_FILE_INFO + 18),

  Row ("invalid-names"),
  Create ("star", u"a*b"), Create ("question", u"a?b"), Create ("colon", u"a:b"),
  Create ("pipe", u"a|b"), Create ("control", u"a\x01" u"b"),
  Put (u"x", "x"),
  Open ("open", 3, kDir, u"x", RW),
  Set ("rename-star", 3, kZeroTimes, u"y*"), Set ("rename-empty", 3, kZeroTimes, u""),
  Look ("kept", u"x"),

  // Last, and in the scratch folder: a name this long can make the driver drop the last
  // entry of the folder it grows (see FileProbe.cpp), and only \ft may lose one.
  Row ("long-name"),
  Create ("253", u"%253"),
  Look ("253-full-path", u"\\ft\\%253", kRoot),
  Create ("256", u"%256"),
};

constexpr EFI_GUID  kFileInfoId = EFI_FILE_INFO_ID;
constexpr UINTN     kInfoBytes  = 1024;   // any EFI_FILE_INFO a FAT name can need
constexpr UINTN     kPathChars  = 600;

struct Table {
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *Fs;
  EFI_FILE_PROTOCOL                *Slots[kSlots];
  CHAR8                            *Out;
  UINTN                            OutSize, Used, LineStart;
  BOOLEAN                          Full;
  UINT64                           Buf[kInfoBytes / sizeof (UINT64)];
  CHAR16                           Path[kPathChars];
};

EFI_GUID *InfoId () { return const_cast<EFI_GUID *>(&kFileInfoId); }
EFI_FILE_INFO *InfoOf (UINT64 *Buf) { return reinterpret_cast<EFI_FILE_INFO *>(Buf); }

EFI_STATUS GetInfo (EFI_FILE_PROTOCOL *File, UINT64 *Buf) {
  UINTN  Size = kInfoBytes;
  ZeroMem (Buf, kInfoBytes);
  return File->GetInfo (File, InfoId (), &Size, Buf);
}

VOID Emit (Table &T, const char *Text) {
  while ((*Text != '\0') && !(T.Full = T.Full || (T.Used + 1 >= T.OutSize))) T.Out[T.Used++] = *Text++;
  T.Out[T.Used] = '\0';
}

VOID EmitNumber (Table &T, UINT64 Value, UINT64 Base = 10, UINTN Width = 1) {
  char   Digits[24] = { 0 };
  UINTN  At = sizeof (Digits) - 1;
  for ( ; (Value != 0) || (sizeof (Digits) - 1 - At < Width); Value /= Base) Digits[--At] = "0123456789abcdef"[Value % Base];
  Emit (T, Digits + At);
}

// Status names of our own, so that both sides print the same words.
VOID EmitStatus (Table &T, EFI_STATUS Status) {
  static const char *const  kErrors[] = { "0", "LOAD_ERROR", "INVALID_PARAMETER", "UNSUPPORTED", "BAD_BUFFER_SIZE", "BUFFER_TOO_SMALL",
                                          "NOT_READY", "DEVICE_ERROR", "WRITE_PROTECTED", "OUT_OF_RESOURCES", "VOLUME_CORRUPTED",
                                          "VOLUME_FULL", "NO_MEDIA", "MEDIA_CHANGED", "NOT_FOUND", "ACCESS_DENIED" };
  static const char *const  kWarnings[] = { "SUCCESS", "WARN_UNKNOWN_GLYPH", "WARN_DELETE_FAILURE", "WARN_WRITE_FAILURE" };
  const UINT64              Code = static_cast<UINT64>(Status) & ~MAX_BIT;
  if (EFI_ERROR (Status) ? (Code > 0) && (Code < 16) : (Code < 4)) return Emit (T, (EFI_ERROR (Status) ? kErrors : kWarnings)[Code]);
  Emit (T, "0x");
  EmitNumber (T, static_cast<UINT64>(Status), 16);
}

// Between quotes, anything but printable ASCII as \xNN, so that every answer stays one word.
template <typename Char>
VOID EmitQuoted (Table &T, const Char *Text, UINTN Count) {
  Emit (T, "'");
  for (UINTN Index = 0; Index < Count && Text[Index] != 0; ++Index) {
    const char     Plain[2]  = { static_cast<char>(Text[Index]), '\0' };
    const BOOLEAN  Printable = (Text[Index] > 0x20) && (Text[Index] < 0x7F) && (Text[Index] != '\'') && (Text[Index] != '\\');
    Emit (T, Printable ? Plain : "\\x");
    if (!Printable) EmitNumber (T, Text[Index], 16, 2);
  }
  Emit (T, "'");
}

VOID EmitRead (Table &T, EFI_FILE_PROTOCOL *File, UINTN Size) {
  const EFI_STATUS  Status = File->Read (File, &Size, T.Buf);
  if (EFI_ERROR (Status)) return EmitStatus (T, Status);
  EmitQuoted (T, reinterpret_cast<CONST UINT8 *>(T.Buf), Size);
}

// STATUS,size=N,attr=XX,name='...',m=TIME: a folder's size is the driver's own and is left
// out; the modification time is printed whole (YYYYMMDDhhmmss) only when the table set it.
VOID EmitInfo (Table &T, EFI_FILE_PROTOCOL *File) {
  EFI_FILE_INFO     *Info  = InfoOf (T.Buf);
  const EFI_STATUS  Status = GetInfo (File, T.Buf);
  const EFI_TIME    &M     = Info->ModificationTime;
  const BOOLEAN     Valid  = (M.Year >= 1980) && (M.Month - 1u < 12) && (M.Day - 1u < 31) && (M.Hour < 24) && (M.Minute < 60) && (M.Second < 60);
  EmitStatus (T, Status);
  if (EFI_ERROR (Status)) return;
  Emit (T, ((Info->Attribute & DIR) == 0) ? ",size=" : "");
  if ((Info->Attribute & DIR) == 0) EmitNumber (T, Info->FileSize);
  Emit (T, ",attr=");
  EmitNumber (T, Info->Attribute, 16, 2);
  Emit (T, ",name=");
  EmitQuoted (T, Info->FileName, kPathChars);
  Emit (T, ",m=");
  if (M.Year == 2001) return EmitNumber (T, ((((M.Year * 100ull + M.Month) * 100 + M.Day) * 100 + M.Hour) * 100 + M.Minute) * 100 + M.Second);
  Emit (T, IsZeroBuffer (&M, sizeof (M)) ? "zero" : Valid ? "valid" : "bad");
}

EFI_STATUS RunSetInfo (Table &T, const Step &S, EFI_FILE_PROTOCOL *File, CONST CHAR16 *Name) {
  EFI_FILE_INFO     *Info  = InfoOf (T.Buf);
  const EFI_STATUS  Status = GetInfo (File, T.Buf);
  if (EFI_ERROR (Status)) return Status;
  if (Name != nullptr) {
    CopyMem (Info->FileName, Name, StrSize (Name));
    Info->Size = SIZE_OF_EFI_FILE_INFO + StrSize (Name);
  }
  if (S.A != kOwnTimes) ZeroMem (&Info->CreateTime, 3 * sizeof (EFI_TIME));
  const EFI_TIME  Ours = { 2001, static_cast<UINT8>((S.A == kMonth13) ? 13 : 2), 3, 4, 5, 7 };
  if ((S.A == kOurTime) || (S.A == kMonth13)) Info->ModificationTime = Ours;
  Info->ModificationTime.Year = (S.A == kZeroDate) ? 1980 : Info->ModificationTime.Year;
  Info->Attribute |= (S.A == kSetReadOnly) ? RO : 0;
  Info->Attribute &= (S.A == kClearReadOnly) ? ~RO : ~0ull;
  return File->SetInfo (File, InfoId (), static_cast<UINTN>(Info->Size), T.Buf);
}

// The path with every "%N" replaced by a name of N characters.
CHAR16 *Expand (Table &T, const char16_t *From) {
  UINTN  Used = 0;
  while ((*From != 0) && (Used + 1 < kPathChars)) {
    UINTN  Count = 0;
    if (*From != u'%') { T.Path[Used++] = *From++; continue; }
    for (++From; *From >= u'0' && *From <= u'9'; ++From) Count = Count * 10 + static_cast<UINTN>(*From - u'0');
    for (UINTN Index = 0; Index < Count && Used + 1 < kPathChars; ++Index) T.Path[Used++] = static_cast<CHAR16>(L'a' + Index % 26);
  }
  T.Path[Used] = 0;
  return T.Path;
}

VOID CloseSlot (Table &T, UINT8 Slot) {
  if (T.Slots[Slot] != nullptr) T.Slots[Slot]->Close (T.Slots[Slot]);
  T.Slots[Slot] = nullptr;
}

VOID RunStep (Table &T, const Step &S) {
  EFI_FILE_PROTOCOL  *&File = T.Slots[S.Slot];
  EFI_FILE_PROTOCOL  *From  = T.Slots[S.From];
  EFI_FILE_PROTOCOL  *New   = nullptr;
  CHAR16             *Path  = (S.Path != nullptr) ? Expand (T, S.Path) : nullptr;
  EFI_STATUS         Status = EFI_SUCCESS;
  UINTN              Size   = (S.Data != nullptr) ? AsciiStrLen (S.Data) : static_cast<UINTN>(S.A);

  if (S.Op == kClose) return CloseSlot (T, S.Slot);
  if (S.Op == kPut) {   // prints only a failure
    Status = (From == nullptr) ? EFI_NOT_READY : From->Open (From, &New, Path, CRW, (S.Data == nullptr) ? DIR : 0);
    if (!EFI_ERROR (Status) && (S.Data != nullptr)) Status = New->Write (New, &Size, const_cast<char *>(S.Data));
    if (New != nullptr) New->Close (New);
    if (EFI_ERROR (Status)) { Emit (T, " put="); EmitStatus (T, Status); }
    return;
  }

  Emit (T, " ");
  Emit (T, S.Label);
  Emit (T, "=");
  if ((((S.Op == kOpen) || (S.Op == kLook)) ? From : (S.Op == kVolume) ? T.Slots[kRoot] : File) == nullptr) return Emit (T, "no-handle");
  switch (S.Op) {
    case kOpen:
    case kVolume:
      CloseSlot (T, S.Slot);
      Status = (S.Op == kOpen) ? From->Open (From, &New, Path, S.A, S.B) : T.Fs->OpenVolume (T.Fs, &New);
      File   = EFI_ERROR (Status) ? nullptr : New;
      break;
    case kDelete:
      Status = File->Delete (File);
      File   = nullptr;   // the handle is gone whatever Delete answers
      break;
    case kWrite:
      Status = File->Write (File, &Size, const_cast<char *>(S.Data));
      break;
    case kFlush:
      Status = File->Flush (File);
      break;
    case kSetInfo:
      Status = RunSetInfo (T, S, File, Path);
      break;
    case kInfo:
      return EmitInfo (T, File);
    case kInfoSized:
      EmitStatus (T, File->GetInfo (File, InfoId (), &Size, (Size == 0) ? nullptr : T.Buf));
      Emit (T, ",need=");
      return EmitNumber (T, Size);
    case kRead:
      return EmitRead (T, File, 16);
    case kLook:
      Status = From->Open (From, &New, Path, R, 0);
      if (EFI_ERROR (Status)) break;
      if (!EFI_ERROR (GetInfo (New, T.Buf)) && ((InfoOf (T.Buf)->Attribute & DIR) != 0)) Emit (T, "dir");
      else EmitRead (T, New, kInfoBytes);
      return (void)New->Close (New);
  }
  EmitStatus (T, Status);
}

// Deletes Name under Parent, a folder after its entries. TRUE when it is gone.
BOOLEAN Remove (EFI_FILE_PROTOCOL *Parent, CHAR16 *Name, UINTN Depth) {
  UINT64             Buf[kInfoBytes / sizeof (UINT64)];
  CONST CHAR16       *Entry = InfoOf (Buf)->FileName;
  EFI_FILE_PROTOCOL  *File  = nullptr;
  if (EFI_ERROR (Parent->Open (Parent, &File, Name, RW, 0))) return FALSE;
  // Each pass reads the folder from its start and removes the first entry left; one that
  // will not go ends the passes, and the folder stays for the leftover check to report.
  for (UINTN Pass = 0; Pass < 64 && Depth < 8 && !EFI_ERROR (GetInfo (File, Buf)) && (InfoOf (Buf)->Attribute & DIR) != 0; ++Pass) {
    UINTN  Size = 0;
    File->SetPosition (File, 0);
    do {
      Size = kInfoBytes;
      Size = EFI_ERROR (File->Read (File, &Size, Buf)) ? 0 : Size;
    } while ((Size != 0) && (Entry[0] == L'.') && ((Entry[1] == 0) || ((Entry[1] == L'.') && (Entry[2] == 0))));
    if ((Size == 0) || !Remove (File, const_cast<CHAR16 *>(Entry), Depth + 1)) break;
  }
  return File->Delete (File) == EFI_SUCCESS;
}

VOID StartRow (Table &T, const char *Name) {
  Emit (T, Name);
  Emit (T, ":");
  const EFI_STATUS  Status = T.Slots[kRoot]->Open (T.Slots[kRoot], &T.Slots[kDir], Expand (T, u"ft"), CRW, DIR);
  if (EFI_ERROR (Status)) { T.Slots[kDir] = nullptr; Emit (T, " !scratch="); EmitStatus (T, Status); }
}

// A row ends with its handles closed and its scratch folder gone. 1 when its line fits.
UINTN EndRow (Table &T) {
  EFI_FILE_PROTOCOL  *Left = nullptr;
  for (UINT8 Slot = kSlots - 1; Slot > kRoot; --Slot) CloseSlot (T, Slot);
  if (!Remove (T.Slots[kRoot], Expand (T, u"ft"), 0) && !EFI_ERROR (T.Slots[kRoot]->Open (T.Slots[kRoot], &Left, T.Path, R, 0))) {
    Left->Close (Left);
    Emit (T, " !leftover");
  }
  Emit (T, "\n");
  T.LineStart = T.Full ? T.LineStart : T.Used;
  return T.Full ? 0 : 1;
}

}  // namespace

CONST CHAR8 *FileTableRowName (IN UINTN Index) {
  for (const Step &S : kSteps) {
    if ((S.Op == kRow) && (Index-- == 0)) return S.Label;
  }
  return nullptr;
}

UINTN RunFileTable (IN EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *FileSystem, OUT CHAR8 *Out, IN UINTN OutSize) {
  static Table  T;   // a few KiB: kept off the firmware's stack
  const UINTN   Count = sizeof (kSteps) / sizeof (kSteps[0]);
  UINTN         Rows  = 0;
  if ((FileSystem == nullptr) || (Out == nullptr) || (OutSize < 32)) return 0;
  ZeroMem (&T, sizeof (T));
  T.Fs      = FileSystem;
  T.Out     = Out;
  T.OutSize = OutSize;
  const EFI_STATUS  Status = FileSystem->OpenVolume (FileSystem, &T.Slots[kRoot]);
  if (EFI_ERROR (Status)) {
    Emit (T, "table: OpenVolume=");
    EmitStatus (T, Status);
    Emit (T, "\n");
    return 0;
  }

  // What an interrupted earlier run left behind must not shape this one.
  Remove (T.Slots[kRoot], Expand (T, u"ft"), 0);
  for (UINTN Index = 0; Index <= Count && !T.Full; ++Index) {
    if ((Index < Count) && (kSteps[Index].Op != kRow)) RunStep (T, kSteps[Index]);
    else if (Index > 0) Rows += EndRow (T);
    if ((Index < Count) && (kSteps[Index].Op == kRow)) StartRow (T, kSteps[Index].Label);
  }
  if (T.Full) {   // a text cut short ends at its last whole line, and says so
    EndRow (T);   // prints nothing now: closes what the cut row left open, removes \ft
    T.Used = T.LineStart;
    T.Full = FALSE;
    Emit (T, "truncated\n");
  } else {
    Emit (T, "end: rows=");
    EmitNumber (T, Rows);
    Emit (T, "\n");
  }
  CloseSlot (T, kRoot);
  return Rows;
}
