// The firmware's shell as an application started from it finds it: EFI_SHELL_PROTOCOL as
// ShellPkg's Shell application answers, EFI_SHELL_ENVIRONMENT2 (which ShellPkg no longer
// implements) as its header describes it. Its file calls go to the FAT driver's own
// protocol, never counted or failed as the application's; what it hands over for the
// caller to free comes from the application's pool, where one never freed shows as a leak.
//
// What we assume of the older shell environment
// - GetFsName answers a status and gives the name through its third parameter, as declared:
//   a pool buffer the caller frees (the header says so). A device without a name is
//   EFI_UNSUPPORTED, a null argument EFI_INVALID_PARAMETER.
// - Names as that shell printed them, lower case without the colon ("fs0", "blk1"): with
//   ConsistMapping the consistent one ("hd0b0b"), else the first plain one. Numbering and
//   consistent names are the newer shell's.
// - FileMetaArgNoWildCard appends one SHELL_FILE_ARG and answers EFI_SUCCESS even when
//   nothing is there: that entry has Status EFI_NOT_FOUND, no Handle, no Info (ShellPkg's
//   UefiShellLib skips entries whose Status is not EFI_SUCCESS, needed only if such come
//   back). A '*' or '?' is EFI_INVALID_PARAMETER, nothing appended.
// - FullName is the device's plain name, a colon and the path from the root ("fs0:\efi",
//   "." and ".." resolved), FileName its last name; a relative argument starts at the
//   current directory. The file is open to read and write; Parent, ParentName and
//   ParentDevicePath are null. Entries, their strings and Info are pool buffers;
//   FreeFileList closes Handle (unless the caller zeroed it to keep the file), frees all.
// - Execute runs in the same shell, not a nested one (its "map -u" changes what GetFsName
//   answers), and returns the command's status. It takes ParentImageHandle for the handle
//   itself, as UefiShellLib says that implementation does (it hands the pointer to
//   HandleProtocol): given a pointer to a handle it fails, EFI_INVALID_PARAMETER, running nothing.
// - Installed together, the two protocols are one shell with one set of names.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace fake {
namespace {

using Table   = Shell::Table;
using Devices = std::vector<std::pair<std::string, const uint8_t *>>;   // device path as text, and itself

Firmware &Fw () { return Firmware::Current (); }
std::string Upper (std::string s) { return std::transform (s.begin (), s.end (), s.begin (), [](unsigned char c) { return static_cast<char>(std::toupper (c)); }), s; }
std::string Lower (std::string s) { return std::transform (s.begin (), s.end (), s.begin (), [](unsigned char c) { return static_cast<char>(std::tolower (c)); }), s; }
std::string Text (const CHAR16 *text) { return text == nullptr ? "" : Narrow (reinterpret_cast<const char16_t *>(text)); }
CHAR16 *PoolText (const std::string &text) { return static_cast<CHAR16 *>(AllocateCopyPool ((text.size () + 1) * sizeof (CHAR16), U16 (text).c_str ())); }
bool IsEnd (const uint8_t *node) { return node[0] == END_DEVICE_PATH_TYPE || NodeLength (node) < 4; }
template<typename T> T As (const uint8_t *node) { T t{}; return std::memcpy (&t, node, std::min (sizeof (T), NodeLength (node))), t; }
const uint8_t *PathOf (EFI_HANDLE handle) { return static_cast<const uint8_t *>(Fw ().Find (handle, gEfiDevicePathProtocolGuid)); }
template<typename... A> std::string Format (const char *format, A... args) { char text[64]; return std::snprintf (text, sizeof (text), format, args...), text; }
std::string Hex (const uint8_t *bytes, size_t count) { std::string hex; for (size_t i = 0; i < count; ++i) hex += Format ("%02x", bytes[i]); return hex; }

// ConvertDevicePathToText without shortcuts, upper case: ShellPkg numbers devices in the
// order of that text compared without regard to case (UefiSortLib's DevicePathCompare). A
// node the fake's devices never carry, and a GPT signature, show as bytes. hosts: only the
// nodes ConsistMapping.c takes for a device's host.
std::string PathText (const uint8_t *node, bool hosts = false) {
  std::string text;
  for (; node != nullptr && !IsEnd (node); node += NodeLength (node)) {
    const UINT8 type = node[0], sub = node[1];
    const auto  acpi = As<ACPI_HID_DEVICE_PATH>(node);
    const auto  hd = As<HARDDRIVE_DEVICE_PATH>(node);
    const auto  legacy = EISA_ID_TO_NUM (acpi.HID);
    if (hosts && type != HARDWARE_DEVICE_PATH && (type != ACPI_DEVICE_PATH || legacy == 0x301 || legacy == 0x401 || legacy == 0x501 || legacy == 0x604)) continue;
    std::string piece = Format ("Path(%u,%u,", type, sub) + Hex (node + 4, NodeLength (node) - 4) + ")";
    if (type == ACPI_DEVICE_PATH && sub == ACPI_DP && acpi.HID == EISA_PNP_ID (0x0A03)) piece = Format ("PciRoot(0x%x)", acpi.UID);
    if (type == HARDWARE_DEVICE_PATH && sub == HW_PCI_DP) piece = Format ("Pci(0x%x,0x%x)", node[5], node[4]);
    if (type == MESSAGING_DEVICE_PATH && sub == MSG_USB_DP) piece = Format ("USB(0x%x,0x%x)", node[4], node[5]);
    if (type == MEDIA_DEVICE_PATH && sub == MEDIA_HARDDRIVE_DP) {
      const UINT32 mbr = hd.Signature[0] | hd.Signature[1] << 8 | hd.Signature[2] << 16 | (UINT32)hd.Signature[3] << 24;
      piece = Format ("HD(%u,", hd.PartitionNumber) + (hd.SignatureType == SIGNATURE_TYPE_MBR ? Format ("MBR,0x%08x", mbr) : Format ("%u,", hd.SignatureType) + Hex (hd.Signature, 16)) +
             Format (",0x%llx,0x%llx)", (unsigned long long)hd.PartitionStart, (unsigned long long)hd.PartitionSize);
    }
    text += (text.empty () ? "" : "/") + piece;
  }
  return Upper (text);
}

// ShellCommandConsistMappingGenMappingName: media type, the host's index among every
// device's host, then USB port and interface and partition number, alternately letters
// (base 25 from 'a') and decimal. A USB stick is a hard disk, as OVMF decodes its class.
std::string Letters (uint64_t n) { return (n >= 25 ? Letters (n / 25) : "") + static_cast<char>('a' + n % 25); }
std::string ConsistentName (const uint8_t *path) {
  std::vector<std::string> hosts;
  for (EFI_HANDLE h : Fw ().HandlesWith (&gEfiDevicePathProtocolGuid)) {
    if (Fw ().Find (h, gEfiBlockIoProtocolGuid) != nullptr || Fw ().Find (h, gEfiSimpleFileSystemProtocolGuid) != nullptr) hosts.push_back (PathText (PathOf (h), true));
  }
  std::sort (hosts.begin (), hosts.end ());
  hosts.erase (std::unique (hosts.begin (), hosts.end ()), hosts.end ());
  const auto  host = std::find (hosts.begin (), hosts.end (), PathText (path, true));
  std::string media = "F", serial;
  bool        digits = false;
  auto        add = [&](uint64_t n) { serial += digits ? std::to_string (n) : Letters (n), digits = !digits, media = "HD"; };
  for (const uint8_t *node = path; !IsEnd (node); node += NodeLength (node)) {
    if (node[0] == MESSAGING_DEVICE_PATH && node[1] == MSG_USB_DP) add (node[4]), add (node[5]);
    if (node[0] == MEDIA_DEVICE_PATH && node[1] == MEDIA_HARDDRIVE_DP) add (As<HARDDRIVE_DEVICE_PATH>(node).PartitionNumber);
  }
  return host == hosts.end () ? "" : media + std::to_string (host - hosts.begin ()) + serial + ":";
}

// The handles with a protocol in the shell's order, those without a device path first. The
// private mounts behind stale roots are the fake's own, not devices.
Devices DevicesWith (const EFI_GUID &guid) {
  Devices found;
  for (EFI_HANDLE h : Fw ().HandlesWith (&guid)) {
    const auto &v = Fw ().volumes;
    if (Fw ().Find (h, gEfiSimpleFileSystemProtocolGuid) == nullptr || std::any_of (v.begin (), v.end (), [&](const auto &x) { return x->handle == h; })) found.push_back ({ PathText (PathOf (h)), PathOf (h) });
  }
  std::stable_sort (found.begin (), found.end (), [](const auto &a, const auto &b) { return a.first < b.first; });
  return found;
}

// A file system's "FSn:" and its consistent name, which a device that had it loses. One
// without a device path uses up its number and is named nothing.
void NameFs (Table &table, const std::string &text, const uint8_t *path) {
  const std::string name = "FS" + std::to_string (table.fs++) + ":", consistent = path == nullptr ? "" : ConsistentName (path);
  table.maps.erase (std::remove_if (table.maps.begin (), table.maps.end (), [&](const auto &m) { return m.name == consistent; }), table.maps.end ());
  if (path != nullptr) table.maps.push_back ({ name, text, false });
  if (!consistent.empty ()) table.maps.push_back ({ consistent, text, true });
}

// ShellCommandCreateInitialMappingsAndPaths: every file system, then every Block I/O "BLKn:".
Table Initial () {
  Table table;
  for (const auto &[text, path] : DevicesWith (gEfiSimpleFileSystemProtocolGuid)) NameFs (table, text, path);
  for (const auto &[text, path] : DevicesWith (gEfiBlockIoProtocolGuid)) {
    if (table.blk++, path != nullptr) table.maps.push_back ({ "BLK" + std::to_string (table.blk - 1) + ":", text, false });
  }
  return table;
}

// "map -u" (ShellCommandUpdateMapping): names for file systems that have none, names given
// kept, no Block I/O named. One without a device path ends it (SetMap refuses it).
EFI_STATUS Update (Table &table) {
  for (const auto &[text, path] : DevicesWith (gEfiSimpleFileSystemProtocolGuid)) {
    if (path == nullptr) return table.fs++, EFI_UNSUPPORTED;
    if (std::none_of (table.maps.begin (), table.maps.end (), [&](const auto &m) { return m.path == text; })) NameFs (table, text, path);
  }
  return EFI_SUCCESS;
}

Table &Started () { return Fw ().shell.started ? Fw ().shell.table : (Fw ().shell.Start (), Fw ().shell.table); }

// A path as the shell takes it: "map:\path", "\path" on the current mapping, or from the
// current directory (map stays empty without one). map as written, colon included; path
// from the root; volume null for an unknown mapping or a device without a file system.
struct Where { std::string map; std::u16string path; Volume *volume = nullptr; std::string Full () const { return Upper (map + Narrow (path)); } };

Where Resolve (const Table &table, std::string arg) {
  const std::string &cwd = Fw ().shell.cwd;
  Where              at;
  size_t             colon = arg.find (':');
  if (colon == std::string::npos && (colon = cwd.find (':')) == std::string::npos) return at;
  if (arg.find (':') == std::string::npos) arg = cwd.substr (0, colon + 1) + (!arg.empty () && arg[0] == '\\' ? arg : cwd.substr (colon + 1) + "\\" + arg);
  at.map = arg.substr (0, colon + 1);
  at.path = RootPath (arg.substr (colon + 1));
  for (const auto &m : table.maps) {
    for (const auto &v : Fw ().volumes) at.volume = Upper (m.name) == Upper (at.map) && PathText (PathOf (v->handle)) == m.path ? v.get () : at.volume;
  }
  return at;
}
Where Child (Where at, const std::u16string &name) { return at.path += (at.path == u"\\" ? u"" : u"\\") + name, at; }

constexpr UINT64 kRw = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, kCreate = kRw | EFI_FILE_MODE_CREATE;

EFI_STATUS Open (const Where &at, RawFile &out, UINT64 mode = EFI_FILE_MODE_READ, UINT64 attributes = 0) {
  RawFile    root;
  EFI_STATUS status = at.volume == nullptr ? EFI_NOT_FOUND : at.volume->raw->OpenVolume (at.volume->raw, &root.file);
  if (EFI_ERROR (status) || at.path == u"\\") return out.file = root.Take (), status;
  return root.file->Open (root.file, &out.file, C16 (at.path), mode, attributes);
}
bool IsDir (const std::vector<uint8_t> &info) { return !info.empty () && (Info (info)->Attribute & EFI_FILE_DIRECTORY) != 0; }
bool Exists (const Where &at) { RawFile r; return !EFI_ERROR (Open (at, r)); }
bool IsDirAt (const Where &at) { RawFile r; return !EFI_ERROR (Open (at, r)) && fake::IsDir (r.file); }

// Cp.c's CopySingleFile as mv uses it between file systems, onto a name that is free: a
// folder made and filled, a file written. The copies take the new volume's times.
EFI_STATUS Copy (const Where &from, const Where &to) {
  RawFile                    source, target;
  const std::vector<uint8_t> info = EFI_ERROR (Open (from, source)) ? std::vector<uint8_t>() : InfoOf (source.file);
  if (info.empty () || to.volume == nullptr || to.volume->writeProtected || EFI_ERROR (Open (to, target, kCreate, IsDir (info) ? EFI_FILE_DIRECTORY : 0))) return EFI_ACCESS_DENIED;
  EFI_STATUS status = EFI_SUCCESS;
  for (const auto &[name, isDir] : IsDir (info) ? Entries (source.file) : Listing ()) status = EFI_ERROR (status) ? status : Copy (Child (from, name), Child (to, name));
  std::vector<uint8_t> bytes (IsDir (info) ? 0 : Info (info)->FileSize);
  UINTN                size = bytes.size ();
  if (size != 0 && !EFI_ERROR (status = source.file->Read (source.file, &size, bytes.data ()))) status = target.file->Write (target.file, &size, bytes.data ());
  return status;
}

// Mv.c with one source: GetDestinationLocation, IsValidMove, then a rename within one file
// system or a copy and delete between two, told apart by mapping name rather than volume.
EFI_STATUS Mv (const Table &table, const std::string &sourceArg, const std::string &destArg) {
  const Where from = Resolve (table, sourceArg), to = Resolve (table, destArg);
  const bool  readOnly = from.volume != nullptr && from.volume->writeProtected;
  RawFile     source, existing;
  const std::vector<uint8_t> info = EFI_ERROR (Open (from, source, readOnly ? EFI_FILE_MODE_READ : kRw)) ? std::vector<uint8_t>() : InfoOf (source.file);
  if (info.empty () || to.map.empty ()) return info.empty () ? EFI_NOT_FOUND : EFI_INVALID_PARAMETER;
  // "\..." is taken as written; an existing file or folder named otherwise receives the
  // source inside it; anything else is the new name.
  const bool           into = destArg[0] != '\\' && !EFI_ERROR (Open (to, existing));
  const UINT64         attributes = into ? Info (InfoOf (existing.file))->Attribute : 0;
  const std::u16string name = reinterpret_cast<const char16_t *>(Info (info)->FileName);
  const Where          target = IsDirAt (to) ? Child (to, name) : to;
  const std::string    full = from.Full (), dest = target.Full (), cwd = Upper (Fw ().shell.cwd.substr (0, Fw ().shell.cwd.find_last_not_of ('\\') + 1));
  if (IsDir (info) && !cwd.empty () && (cwd == full || cwd.rfind (full + "\\", 0) == 0)) return EFI_INVALID_PARAMETER;
  if (((Info (info)->Attribute | attributes) & EFI_FILE_READ_ONLY) != 0 || readOnly || dest == full || dest.rfind (full + "\\", 0) == 0) return EFI_INVALID_PARAMETER;
  if (Exists (target)) return (void)(ADD_FAILURE () << "mv would wait at the console for leave to overwrite " << dest), EFI_ABORTED;
  if (Upper (from.map) != Upper (to.map)) {
    const EFI_STATUS status = Copy (from, target);
    if (!EFI_ERROR (status)) RemoveTree (source.Take ());   // CascadeDelete: what the driver answers is not looked at
    return !EFI_ERROR (status) || status == EFI_ACCESS_DENIED ? status : EFI_INVALID_PARAMETER;
  }
  // A rename by a path from the root, the source's name added when going into a folder,
  // with the times GetInfo gave: FAT refuses a date it cannot hold.
  std::u16string path = to.path + (into && to.path != u"\\" ? u"\\" : u"");
  path += path.back () == u'\\' ? name : u"";
  std::vector<uint8_t> rename (SIZE_OF_EFI_FILE_INFO + (path.size () + 1) * sizeof (CHAR16));
  std::memcpy (rename.data (), info.data (), SIZE_OF_EFI_FILE_INFO);
  std::memcpy (rename.data () + SIZE_OF_EFI_FILE_INFO, path.c_str (), (path.size () + 1) * sizeof (CHAR16));
  reinterpret_cast<EFI_FILE_INFO *>(rename.data ())->Size = rename.size ();
  const EFI_STATUS status = from.volume->rejectPathNames ? EFI_INVALID_PARAMETER : source.file->SetInfo (source.file, &gEfiFileInfoGuid, rename.size (), rename.data ());
  const auto kept = { EFI_SUCCESS, EFI_SECURITY_VIOLATION, EFI_WRITE_PROTECTED, EFI_OUT_OF_RESOURCES, EFI_DEVICE_ERROR, EFI_ACCESS_DENIED };
  return std::find (kept.begin (), kept.end (), status) != kept.end () ? status : EFI_INVALID_PARAMETER;
}

// A command line's words; quotes group and go.
std::vector<std::string> Words (const std::string &line) {
  std::vector<std::string> words;
  bool                     quoted = false, open = false;
  for (char c : line) {
    if (c == '"') quoted = !quoted, open || (words.emplace_back (), open = true);
    else if ((c == ' ' || c == '\t') && !quoted) open = false;
    else (open ? words.back () : (words.emplace_back (), open = true, words.back ())) += c;
  }
  return words;
}

// What OVMF's nested shell answered for a drive change, whose status nothing sets.
constexpr EFI_STATUS kNoStatusSet = 0x8000000400030000ull;

// One command line in a shell with these names; the answer is the command's status
// (SHELL_NOT_FOUND for a name that is no command: the shell sets "lasterror" so).
EFI_STATUS Run (Table &table, const std::string &line) {
  Shell &shell = Fw ().shell;
  shell.commands.push_back (line);
  if (const Fault *f = Fw ().faults.Check (Op::ShellCommand, U16 (line))) return f->effect == Effect::NoEffect ? EFI_SUCCESS : f->status;
  const std::vector<std::string> args = Words (line);
  const std::string              command = args.empty () ? "" : Upper (args[0]);
  EFI_STATUS                     status  = args.empty () ? EFI_SUCCESS : EFI_NOT_FOUND;
  // "fsN:" alone: any mapping becomes current, one without a file system too (dropped below).
  // A nested shell sets no status for it: OVMF hands back what was left there, which is
  // not an EFI status at all.
  for (const auto &m : args.size () == 1 ? table.maps : std::vector<Shell::Mapping>()) {
    status = Upper (m.name) == command ? (shell.cwd = m.name + "\\", shell.nested ? kNoStatusSet : EFI_SUCCESS) : status;
  }
  for (const auto &a : command == "MAP" ? args : std::vector<std::string>()) {
    status = Upper (a) == "-R" ? (table = Initial (), EFI_SUCCESS) : Upper (a) == "-U" ? Update (table) : EFI_ERROR (status) && status != EFI_NOT_FOUND ? status : EFI_SUCCESS;
  }
  if (command == "LS") status = Exists (Resolve (table, args.size () > 1 && args.back ()[0] != '-' ? args.back () : "")) ? EFI_SUCCESS : EFI_NOT_FOUND;
  if (command == "MV" && args.size () != 3) ADD_FAILURE () << "only mv of one source to one destination is modelled";
  if (command == "MV") status = args.size () == 3 ? Mv (table, args[1], args[2]) : EFI_INVALID_PARAMETER;
  // After every command the shell forgets a current directory that no longer opens.
  if (!shell.cwd.empty () && !Exists (Resolve (table, shell.cwd))) shell.cwd.clear ();
  return status;
}

// Nested, the command runs in a shell image loaded with *ParentImageHandle as its parent,
// naming the devices afresh at its start; the current directory carries over (the shell
// keeps it in a volatile variable). The call's status is that of starting it. The call's
// own fault (Op::ShellExecute): Fail answers its status and runs nothing, NoEffect claims a run.
EFI_STATUS EFIAPI Execute (EFI_HANDLE *parent, CHAR16 *commandLine, CHAR16 **, EFI_STATUS *statusCode) {
  Shell            &shell = Fw ().shell;
  const std::string line  = Text (commandLine);
  if (const Fault *f = Fw ().faults.Check (Op::ShellExecute, U16 (line))) return f->effect == Effect::NoEffect && statusCode != nullptr ? *statusCode = EFI_SUCCESS : f->effect == Effect::NoEffect ? EFI_SUCCESS : f->status;
  if (shell.nested && parent == nullptr) ADD_FAILURE () << "the shell dereferences ParentImageHandle";
  if (shell.nested && (parent == nullptr || Fw ().Find (*parent, gEfiLoadedImageProtocolGuid) == nullptr)) return EFI_INVALID_PARAMETER;
  Table            own    = shell.nested ? Initial () : Table ();
  const EFI_STATUS status = Run (shell.nested ? own : Started (), line);
  return statusCode != nullptr ? *statusCode = status, EFI_SUCCESS : EFI_SUCCESS;
}

// Every name of the device in the order the shell made them, joined by ';' ("FS0:;HD0b0b:;
// BLK1:"). Whatever the header says, ShellPkg puts the answer on the shell's own list of
// buffers to free (AddBufferToFreeList): freeing it too corrupts the shell's pool, as
// OVMF shows. The answer is the shell's here, and a FreePool of it fails the test. On a
// match *DevicePath is left at its End node.
CONST CHAR16 *EFIAPI GetMapFromDevicePath (EFI_DEVICE_PATH_PROTOCOL **devicePath) {
  if (devicePath == nullptr || *devicePath == nullptr) return nullptr;
  const std::string path = PathText (reinterpret_cast<const uint8_t *>(*devicePath));
  std::string       names;
  for (const auto &m : Started ().maps) names += m.path == path ? (names.empty () ? "" : ";") + m.name : "";
  CHAR16 *answer = names.empty () ? nullptr : C16 (Fw ().shell.answers.emplace_back (U16 (names)));
  for (auto *node = reinterpret_cast<uint8_t *>(*devicePath); answer != nullptr && !IsEnd (node); node += NodeLength (node)) *devicePath = reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL *>(node + NodeLength (node));
  return answer;
}

// The older shell environment, as assumed above.
EFI_STATUS EFIAPI Execute2 (EFI_HANDLE *parent, CHAR16 *commandLine, BOOLEAN) {
  const std::string line = Text (commandLine);
  if (const Fault *f = Fw ().faults.Check (Op::ShellExecute, U16 (line))) return f->effect == Effect::NoEffect ? EFI_SUCCESS : f->status;
  return Fw ().Find (reinterpret_cast<EFI_HANDLE>(parent), gEfiLoadedImageProtocolGuid) == nullptr ? EFI_INVALID_PARAMETER : Run (Started (), line);
}

EFI_STATUS EFIAPI GetFsName (EFI_DEVICE_PATH_PROTOCOL *devicePath, BOOLEAN consistent, CHAR16 **name) {
  if (devicePath == nullptr || name == nullptr) return EFI_INVALID_PARAMETER;
  const std::string path = PathText (reinterpret_cast<const uint8_t *>(devicePath));
  const auto        &maps = Started ().maps;
  auto              m = std::find_if (maps.begin (), maps.end (), [&](const auto &x) { return x.path == path && x.consistent == (consistent != FALSE); });
  *name = m == maps.end () ? nullptr : PoolText (Lower (m->name.substr (0, m->name.size () - 1)));
  return m == maps.end () ? EFI_UNSUPPORTED : *name == nullptr ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

void FreeEntry (SHELL_FILE_ARG *entry) {
  if (entry->Handle != nullptr) entry->Handle->Close (entry->Handle);
  FreePool (entry->FullName), FreePool (entry->FileName), FreePool (entry->Info), FreePool (entry);
}

EFI_STATUS EFIAPI FileMetaArgNoWildCard (CHAR16 *arg, LIST_ENTRY *list) {
  const std::string text = Text (arg);
  if (arg == nullptr || list == nullptr || text.find_first_of ("*?") != std::string::npos) return EFI_INVALID_PARAMETER;
  const auto  &maps = Started ().maps;
  const Where at = Resolve (Started (), text);
  auto        named = std::find_if (maps.begin (), maps.end (), [&](const auto &m) { return Upper (m.name) == Upper (at.map); });
  auto        plain = std::find_if (maps.begin (), maps.end (), [&](const auto &m) { return named != maps.end () && m.path == named->path && !m.consistent; });
  const std::string full  = Lower (plain != maps.end () ? plain->name : at.map) + Narrow (at.path);
  auto              *entry = static_cast<SHELL_FILE_ARG *>(AllocateZeroPool (sizeof (SHELL_FILE_ARG)));
  RawFile           file;
  if (entry == nullptr) return EFI_OUT_OF_RESOURCES;
  entry->Signature = SHELL_FILE_ARG_SIGNATURE;
  entry->FullName  = PoolText (full);
  entry->FileName  = PoolText (full.substr (full.find_last_of ('\\') + 1));
  entry->OpenMode  = kRw;
  entry->Status    = Open (at, file, entry->OpenMode);
  const std::vector<uint8_t> info = EFI_ERROR (entry->Status) ? std::vector<uint8_t>() : InfoOf (file.file);
  entry->Info   = info.empty () ? nullptr : static_cast<EFI_FILE_INFO *>(AllocateCopyPool (info.size (), info.data ()));
  entry->Handle = entry->Info != nullptr ? file.Take () : nullptr;
  if (entry->FullName == nullptr || entry->FileName == nullptr || (!EFI_ERROR (entry->Status) && entry->Info == nullptr)) return FreeEntry (entry), EFI_OUT_OF_RESOURCES;
  return InsertTailList (list, &entry->Link), EFI_SUCCESS;
}

EFI_STATUS EFIAPI FreeFileList (LIST_ENTRY *list) {
  for (SHELL_FILE_ARG *entry; list != nullptr && !IsListEmpty (list); RemoveEntryList (&entry->Link), FreeEntry (entry)) {
    entry = BASE_CR (list->ForwardLink, SHELL_FILE_ARG, Link);
    if (entry->Signature != SHELL_FILE_ARG_SIGNATURE) return (void)(ADD_FAILURE () << "FreeFileList of a list the shell did not fill"), EFI_INVALID_PARAMETER;
  }
  return list == nullptr ? EFI_INVALID_PARAMETER : EFI_SUCCESS;
}

}  // namespace

Shell::Shell () {
  protocol.Execute      = Execute, protocol.GetMapFromDevicePath = GetMapFromDevicePath;
  protocol.MajorVersion = SHELL_MAJOR_VERSION, protocol.MinorVersion = SHELL_MINOR_VERSION;
  environment2.Execute  = Execute2, environment2.GetFsName = GetFsName;
  environment2.FileMetaArgNoWildCard = FileMetaArgNoWildCard, environment2.FreeFileList = FreeFileList;
  environment2.SESGuid  = EFI_SE_EXT_SIGNATURE_GUID;
  environment2.MajorVersion = EFI_SHELL_MAJOR_VER, environment2.MinorVersion = EFI_SHELL_MINOR_VER;
}

void Shell::Start () { table = Initial (), started = true; }

void Shell::Install (const EFI_GUID &guid, void *iface, bool on) {
  handle = handle == nullptr ? Firmware::Current ().NewHandle () : handle;
  Firmware::Current ().Uninstall (handle, guid);
  if (on) Firmware::Current ().Install (handle, guid, iface);
}

}  // namespace fake
