// Volumes as the application sees them: the FAT driver's own file protocol behind a thin
// layer that injects faults, counts calls and handles, and plays the switches a test sets
// (names that match only in their own case, a driver refusing paths in a rename, stale
// roots). Also the test-side view, through the driver with none of the faults.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace fake {

// A private mount of a copy of a volume's medium behind a stale root; it goes away with
// the last handle opened through it.
struct Frozen {
  Firmware                         &fw;
  EFI_HANDLE                       handle;
  BlockDevice                      *device;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *raw;
  ~Frozen () { fw.DisconnectFat (handle), fw.RemoveDevice (device); }
};

struct Wrapped {
  EFI_FILE_PROTOCOL        proto;   // first: the application's handle is its address
  Volume                   *volume;
  EFI_FILE_PROTOCOL        *inner;
  std::u16string           path;    // from the root, names as stored
  std::shared_ptr<Frozen>  frozen;  // set when inner belongs to a stale root's private mount
};

// --- The driver's own protocol as every part of the fake uses it (Firmware.h) ----------

CHAR16 *C16 (const std::u16string &text) { return const_cast<CHAR16 *>(reinterpret_cast<const CHAR16 *>(text.c_str ())); }

std::vector<uint8_t> InfoOf (EFI_FILE_PROTOCOL *file) {
  UINTN size = 0;
  if (file->GetInfo (file, &gEfiFileInfoGuid, &size, nullptr) != EFI_BUFFER_TOO_SMALL) return {};
  std::vector<uint8_t> buffer (size);
  return EFI_ERROR (file->GetInfo (file, &gEfiFileInfoGuid, &size, buffer.data ())) ? std::vector<uint8_t>() : buffer;
}

const EFI_FILE_INFO *Info (const std::vector<uint8_t> &bytes) { return bytes.empty () ? nullptr : reinterpret_cast<const EFI_FILE_INFO *>(bytes.data ()); }

bool IsDir (EFI_FILE_PROTOCOL *file) {
  std::vector<uint8_t> info = InfoOf (file);
  return !info.empty () && (Info (info)->Attribute & EFI_FILE_DIRECTORY) != 0;
}

Listing Entries (EFI_FILE_PROTOCOL *dir) {
  Listing              entries;
  std::vector<uint8_t> buffer (SIZE_OF_EFI_FILE_INFO + 512 * sizeof (CHAR16));
  dir->SetPosition (dir, 0);
  for (UINTN size = buffer.size (); !EFI_ERROR (dir->Read (dir, &size, buffer.data ())) && size != 0; size = buffer.size ()) {
    std::u16string name = reinterpret_cast<const char16_t *>(Info (buffer)->FileName);
    if (name != u"." && name != u"..") entries.push_back ({ name, (Info (buffer)->Attribute & EFI_FILE_DIRECTORY) != 0 });
  }
  return entries;
}

std::string ReadAll (EFI_FILE_PROTOCOL *file) {
  std::vector<uint8_t> info = InfoOf (file);
  std::string          bytes (info.empty () ? 0 : Info (info)->FileSize, '\0');
  UINTN                size = bytes.size ();
  file->SetPosition (file, 0);
  if (!bytes.empty () && (EFI_ERROR (file->Read (file, &size, bytes.data ())) || size != bytes.size ())) ADD_FAILURE () << "the driver read short";
  return bytes;
}

bool RemoveTree (EFI_FILE_PROTOCOL *file) {
  bool ok = true;
  for (const auto &[name, isDir] : IsDir (file) ? Entries (file) : Listing ()) {
    EFI_FILE_PROTOCOL *kid = nullptr;
    ok = !EFI_ERROR (file->Open (file, &kid, C16 (name), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0)) && RemoveTree (kid) && ok;
  }
  return file->Delete (file) == EFI_SUCCESS && ok;
}

// The names of a path, "." and ".." as FAT takes them.
std::vector<std::u16string> Parts (const std::u16string &path) {
  std::vector<std::u16string> parts;
  for (size_t at = 0, end; at <= path.size (); at = end + 1) {
    end                       = std::min (path.find (u'\\', at), path.size ());
    const std::u16string part = path.substr (at, end - at);
    if (part == u".." && !parts.empty ()) parts.pop_back ();
    else if (!part.empty () && part != u"." && part != u"..") parts.push_back (part);
  }
  return parts;
}

// A firmware path from a folder ("\\" first: from the root), as "\\a\\b" ("\\" for the root).
std::u16string Join (const std::u16string &dir, const std::u16string &name) {
  std::u16string path;
  for (const auto &part : Parts (!name.empty () && name[0] == u'\\' ? name : dir + u"\\" + name)) path += u"\\" + part;
  return path.empty () ? u"\\" : path;
}

std::u16string RootPath (const std::string &text) {
  std::u16string path = U16 (text);
  std::replace (path.begin (), path.end (), u'/', u'\\');
  return Join (u"\\", path);
}

namespace {

std::map<EFI_FILE_PROTOCOL *, std::unique_ptr<Wrapped>> &Handles () {
  static std::map<EFI_FILE_PROTOCOL *, std::unique_ptr<Wrapped>> handles;
  return handles;
}

std::u16string Text (const CHAR16 *text) { return text == nullptr ? u"" : std::u16string (reinterpret_cast<const char16_t *>(text)); }

std::u16string Folded (std::u16string text) {
  for (char16_t &c : text) c = c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 32) : c;
  return text;
}

// A path from the root, every name in it as the driver stored it (as typed where a folder
// on the way cannot be opened). Any handle of the volume starts the walk.
std::u16string StoredPath (EFI_FILE_PROTOCOL *any, const std::u16string &path) {
  RawFile at;
  any->Open (any, &at.file, C16 (u"\\"), EFI_FILE_MODE_READ, 0);
  std::u16string stored;
  for (const auto &part : Parts (path)) {
    RawFile next;
    if (at) at->Open (at.file, &next.file, C16 (part), EFI_FILE_MODE_READ, 0);
    const std::vector<uint8_t> info = next ? InfoOf (next.file) : std::vector<uint8_t>();
    const std::u16string       name = info.empty () ? u"" : Text (Info (info)->FileName);
    stored += u"\\" + (name.empty () ? part : name);
    std::swap (at.file, next.file);
  }
  return stored.empty () ? u"\\" : stored;
}

// On a volume whose names match only in their own case, a path spelled otherwise than
// stored finds nothing (a create there would make a second file, which FAT cannot).
bool Misspelled (const std::u16string &stored, const std::u16string &path, UINT64 mode) {
  if (stored != path && (mode & EFI_FILE_MODE_CREATE) != 0) ADD_FAILURE () << "a name that differs only in case from " << Narrow (stored) << " cannot be made";
  return stored != path;
}

void AskForMore (UINTN *size) { if (size != nullptr) *size += SIZE_OF_EFI_FILE_INFO + 256 * sizeof (CHAR16); }

Wrapped *Lookup (EFI_FILE_PROTOCOL *self) {
  auto it = Handles ().find (self);
  if (it != Handles ().end ()) return it->second.get ();
  ADD_FAILURE () << "file protocol call on a handle that is not open";
  return nullptr;
}

EFI_FILE_PROTOCOL *Wrap (Volume &volume, EFI_FILE_PROTOCOL *inner, std::u16string path, std::shared_ptr<Frozen> frozen);

// Every file call but Close and Delete starts here: the handle, then the fault for this
// call on that path, if one fires (Fail: its status, asking for more room when that is what
// it answers; NoEffect: success, nothing done; Short: Read and Write move half).
#define ENTER(op, matchPath, size)                                                      \
  Wrapped *file = Lookup (self);                                                        \
  if (file == nullptr) return EFI_INVALID_PARAMETER;                                    \
  const Fault *fault = file->volume->fw.faults.Check (op, matchPath);                   \
  if (fault != nullptr && fault->effect == Effect::Fail && fault->status == EFI_BUFFER_TOO_SMALL) AskForMore (size); \
  if (fault != nullptr && fault->effect != Effect::Short) {                             \
    return fault->effect == Effect::Fail ? fault->status : EFI_SUCCESS;                 \
  }                                                                                     \
  const bool shorten = fault != nullptr;                                                \
  (void)shorten

EFI_STATUS EFIAPI FileOpen (EFI_FILE_PROTOCOL *self, EFI_FILE_PROTOCOL **out, CHAR16 *name, UINT64 mode, UINT64 attributes) {
  ENTER (Op::Open, Text (name), nullptr);
  if (name == nullptr || out == nullptr) return EFI_INVALID_PARAMETER;
  if (file->volume->writeProtected && (mode & EFI_FILE_MODE_WRITE) != 0) return EFI_WRITE_PROTECTED;
  const std::u16string path  = Join (file->path, Text (name));
  EFI_FILE_PROTOCOL    *inner = nullptr, *live = nullptr;
  const bool           write = (mode & EFI_FILE_MODE_WRITE) != 0;
  EFI_STATUS           status;
  if (file->frozen && write) {
    // A stale root answers lookups from the volume as it was; changes reach the medium.
    status = file->volume->raw->OpenVolume (file->volume->raw, &live);
    if (!EFI_ERROR (status)) status = live->Open (live, &inner, C16 (path), mode, attributes), live->Close (live);
  } else {
    status = file->inner->Open (file->inner, &inner, name, mode, attributes);
  }
  if (EFI_ERROR (status)) return status;
  std::u16string stored = StoredPath (inner, path);
  if (file->volume->exactNames && Misspelled (stored, path, mode)) return inner->Close (inner), EFI_NOT_FOUND;
  *out = Wrap (*file->volume, inner, std::move (stored), write ? nullptr : file->frozen);
  return EFI_SUCCESS;
}

// Close, and Delete, whose handle is closed whatever it answers; Close cannot fail.
template<bool Delete> EFI_STATUS EFIAPI FileEnd (EFI_FILE_PROTOCOL *self) {
  Wrapped *file = Lookup (self);
  if (file == nullptr) return EFI_INVALID_PARAMETER;
  const Fault     *fault = file->volume->fw.faults.Check (Delete ? Op::Delete : Op::Close, file->path);
  const EFI_STATUS status = Delete && fault == nullptr ? file->inner->Delete (file->inner)
                          : (file->inner->Close (file->inner), !Delete || fault->effect == Effect::NoEffect ? EFI_SUCCESS : fault->status);
  Handles ().erase (self);
  return status;
}

EFI_STATUS EFIAPI FileRead (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer) {
  ENTER (Op::Read, file->path, size);
  std::vector<uint8_t> info = shorten && size != nullptr ? InfoOf (file->inner) : std::vector<uint8_t>();
  if (!info.empty () && (Info (info)->Attribute & EFI_FILE_DIRECTORY) == 0) {
    // Half of what a file read would have moved; a folder's entries come whole.
    UINT64 position = 0;
    if (!EFI_ERROR (file->inner->GetPosition (file->inner, &position))) *size = std::min<UINT64>(*size, Info (info)->FileSize > position ? Info (info)->FileSize - position : 0);
    *size /= 2;
  }
  const EFI_STATUS status = file->inner->Read (file->inner, size, buffer);
  if (std::vector<Faults::Call> *record = file->volume->fw.faults.record; record != nullptr && !EFI_ERROR (status)) record->back ().bytes = *size;
  return status;
}

EFI_STATUS EFIAPI FileWrite (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer) {
  ENTER (Op::Write, file->path, nullptr);
  if (file->volume->writeProtected) return EFI_WRITE_PROTECTED;
  if (shorten && size != nullptr) *size /= 2;
  return file->inner->Write (file->inner, size, buffer);
}

EFI_STATUS EFIAPI FileGetPosition (EFI_FILE_PROTOCOL *self, UINT64 *position) {
  ENTER (Op::GetPosition, file->path, nullptr);
  return file->inner->GetPosition (file->inner, position);
}

EFI_STATUS EFIAPI FileSetPosition (EFI_FILE_PROTOCOL *self, UINT64 position) {
  ENTER (Op::SetPosition, file->path, nullptr);
  return file->inner->SetPosition (file->inner, position);
}

EFI_STATUS EFIAPI FileGetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN *size, VOID *buffer) {
  ENTER (Op::GetInfo, file->path, size);
  return file->inner->GetInfo (file->inner, type, size, buffer);
}

EFI_STATUS EFIAPI FileSetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN size, VOID *buffer) {
  const bool           rename = type != nullptr && CompareGuid (type, &gEfiFileInfoGuid) && size >= SIZE_OF_EFI_FILE_INFO + 2 && buffer != nullptr;
  const std::u16string name   = rename ? Text (static_cast<const EFI_FILE_INFO *>(buffer)->FileName) : u"";
  ENTER (Op::SetInfo, file->path + u"->" + name, nullptr);
  if (file->volume->writeProtected) return EFI_WRITE_PROTECTED;
  if (rename && file->volume->rejectPathNames && name.find_first_of (u"\\/") != std::u16string::npos) return EFI_INVALID_PARAMETER;
  const std::u16string target = Join (file->path + u"\\..", name);   // beside the file
  if (rename && file->volume->exactNames && target != file->path && Folded (target) == Folded (file->path)) {
    // A driver that tells names apart by case renames "bcd" to "BCD"; FAT takes that for
    // the name the file already has, so the file goes by a name of the layer's first.
    std::vector<uint8_t> step (SIZE_OF_EFI_FILE_INFO + (name.size () + 2) * sizeof (CHAR16));
    std::memcpy (step.data (), buffer, SIZE_OF_EFI_FILE_INFO);
    std::memcpy (reinterpret_cast<EFI_FILE_INFO *>(step.data ())->FileName, (name + u"~").c_str (), (name.size () + 2) * sizeof (CHAR16));
    reinterpret_cast<EFI_FILE_INFO *>(step.data ())->Size = step.size ();
    if (EFI_STATUS status = file->inner->SetInfo (file->inner, type, step.size (), step.data ()); EFI_ERROR (status)) return status;
  }
  EFI_STATUS status = file->inner->SetInfo (file->inner, type, size, buffer);
  if (!EFI_ERROR (status) && rename && file->path != u"\\") file->path = StoredPath (file->inner, target);
  return status;
}

EFI_STATUS EFIAPI FileFlush (EFI_FILE_PROTOCOL *self) {
  ENTER (Op::Flush, file->path, nullptr);
  return file->inner->Flush (file->inner);
}

EFI_FILE_PROTOCOL *Wrap (Volume &volume, EFI_FILE_PROTOCOL *inner, std::u16string path, std::shared_ptr<Frozen> frozen) {
  static const EFI_FILE_PROTOCOL kFile = { EFI_FILE_PROTOCOL_REVISION, FileOpen, FileEnd<false>, FileEnd<true>, FileRead, FileWrite,
                                           FileGetPosition, FileSetPosition, FileGetInfo, FileSetInfo, FileFlush,
                                           nullptr, nullptr, nullptr, nullptr };
  auto *file = new Wrapped{ kFile, &volume, inner, std::move (path), std::move (frozen) };
  Handles ()[&file->proto].reset (file);
  return &file->proto;
}

// A stale root mounts the medium as it is now on a handle of its own (open files'
// unflushed changes are not on it, as after a crash).
EFI_STATUS EFIAPI OpenVolume (EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *self, EFI_FILE_PROTOCOL **root) {
  for (const auto &volume : Firmware::Current ().volumes) {
    if (&volume->sfs != self) continue;
    if (const Fault *f = volume->fw.faults.Check (Op::OpenVolume)) return f->status;
    if (root == nullptr) return EFI_INVALID_PARAMETER;
    std::shared_ptr<Frozen> frozen;
    if (volume->staleView) {
      EFI_HANDLE hidden = volume->fw.NewHandle ();
      BlockDevice &copy = volume->fw.AddDisk (hidden, std::make_shared<Disk>(volume->DiskImage ()));
      frozen.reset (new Frozen{ volume->fw, hidden, &copy, volume->fw.ConnectFat (hidden) });
    }
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *raw   = frozen ? frozen->raw : volume->raw;
    EFI_FILE_PROTOCOL               *inner = nullptr;
    EFI_STATUS                      status = raw->OpenVolume (raw, &inner);
    if (EFI_ERROR (status)) return status;
    *root = Wrap (*volume, inner, u"\\", frozen);
    return EFI_SUCCESS;
  }
  ADD_FAILURE () << "OpenVolume on an unknown volume";
  return EFI_INVALID_PARAMETER;
}

// --- Test side ---------------------------------------------------------------------

RawFile RawOpen (const Volume &volume, const std::string &text, UINT64 mode = EFI_FILE_MODE_READ, UINT64 attributes = 0) {
  const std::u16string path = RootPath (text);
  EFI_FILE_PROTOCOL *root = nullptr, *file = nullptr;
  EXPECT_EQ (volume.raw->OpenVolume (volume.raw, &root), EFI_SUCCESS) << "the driver's OpenVolume failed";
  if (root == nullptr || path == u"\\") return RawFile (root);
  RawFile held (root);
  if (EFI_ERROR (root->Open (root, &file, C16 (path), mode, attributes))) return RawFile ();
  if (volume.exactNames && Misspelled (StoredPath (file, path), path, mode)) return file->Close (file), RawFile ();
  return RawFile (file);
}

// Every path below a folder -> its bytes ("<dir>" for a folder); with snapshot off, only
// every folder below it opened once.
void Walk (EFI_FILE_PROTOCOL *dir, const std::u16string &prefix, std::map<std::string, std::string> *snapshot) {
  for (const auto &[name, isDir] : Entries (dir)) {
    RawFile kid;
    if ((isDir || snapshot != nullptr) && EFI_ERROR (dir->Open (dir, &kid.file, C16 (name), EFI_FILE_MODE_READ, 0))) ADD_FAILURE () << "listed but not opened: " << Narrow (name);
    if (kid && snapshot != nullptr) (*snapshot)[Narrow (prefix + u"\\" + name)] = isDir ? std::string ("<dir>") : ReadAll (kid.file);
    if (kid && isDir) Walk (kid.file, prefix + u"\\" + name, snapshot);
  }
}

}  // namespace

Volume::Volume (Firmware &firmware, const Disk &image) : sfs{ EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_REVISION, OpenVolume }, fw (firmware), handle (fw.NewHandle ()) {
  if (image.Size () < 512) ADD_FAILURE () << "no medium to mount";
  device = &fw.AddDisk (handle, std::make_shared<Disk>(image.Size () < 512 ? FormattedFat32 () : image));
  raw    = fw.ConnectFat (handle);
}

Volume::~Volume () {
  for (auto it = Handles ().begin (); it != Handles ().end ();) {
    if (it->second->volume == this) it->second->inner->Close (it->second->inner), it = Handles ().erase (it);
    else ++it;
  }
  // When a file moves to another folder, the FAT driver leaves the folder it left in its
  // cache, off the list it checks for unused entries, until someone opens that folder
  // again; then Stop cannot free the volume. Opening every folder once lets the driver
  // free it all, so that what the drivers' pool check reports is a leak of ours.
  if (raw != nullptr) Walk (RawOpen (*this, "\\").file, u"", nullptr);
  // A volume no driver has mounted yet only hides the file system from the handle
  // database; the FAT driver's Stop finds its volume through it.
  if (raw != nullptr && fw.Find (handle, gEfiSimpleFileSystemProtocolGuid) == nullptr) fw.Install (handle, gEfiSimpleFileSystemProtocolGuid, raw);
  fw.DisconnectFat (handle);
  fw.RemoveDevice (device);
}

void Volume::Mkdir (const std::string &path) {
  std::string at;
  for (const auto &part : Parts (RootPath (path))) {
    at += "\\" + Narrow (part);
    RawFile dir = RawOpen (*this, at, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE, EFI_FILE_DIRECTORY);
    if (!dir || !IsDir (dir.file)) return (void)(ADD_FAILURE () << "could not make the folder " << at);
    dir->Flush (dir.file);
  }
}

void Volume::Put (const std::string &path, const std::string &bytes) {
  std::string folder = path.substr (0, path.find_last_of ("\\/") == std::string::npos ? 0 : path.find_last_of ("\\/"));
  if (!folder.empty ()) Mkdir (folder);
  RawFile file = RawOpen (*this, path, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE);
  if (!file) return (void)(ADD_FAILURE () << "could not create " << path);
  std::vector<uint8_t> info = InfoOf (file.file);
  auto                 *fileInfo = reinterpret_cast<EFI_FILE_INFO *>(info.data ());
  if (!info.empty () && fileInfo->FileSize != 0) {
    // Truncated in place; zero times leave the driver's own times alone.
    fileInfo->FileSize = 0;
    std::memset (&fileInfo->CreateTime, 0, 3 * sizeof (EFI_TIME));
    EXPECT_EQ (file->SetInfo (file.file, &gEfiFileInfoGuid, info.size (), fileInfo), EFI_SUCCESS) << "could not truncate " << path;
  }
  UINTN size = bytes.size ();
  EXPECT_EQ (size == 0 ? EFI_SUCCESS : file->Write (file.file, &size, const_cast<char *>(bytes.data ())), EFI_SUCCESS) << "could not write " << path;
  EXPECT_EQ (size, bytes.size ()) << "short write to " << path;
  EXPECT_EQ (file->Flush (file.file), EFI_SUCCESS) << "could not flush " << path;
}

void Volume::Remove (const std::string &path) {
  RawFile file = RawOpen (*this, path, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE);
  if (file && RootPath (path) != u"\\" && !RemoveTree (file.Take ())) ADD_FAILURE () << "the driver did not delete all of " << path;
}

bool Volume::Exists (const std::string &path) const { return static_cast<bool>(RawOpen (*this, path)); }

std::string Volume::Get (const std::string &path) const {
  RawFile file = RawOpen (*this, path);
  if (file && !IsDir (file.file)) return ReadAll (file.file);
  ADD_FAILURE () << "no file " << path;
  return "";
}

std::vector<std::string> Volume::List (const std::string &dir) const {
  std::vector<std::string> names;
  RawFile folder = RawOpen (*this, dir);
  for (const auto &[name, isDir] : folder && IsDir (folder.file) ? Entries (folder.file) : Listing ()) names.push_back (Narrow (name));
  return names;
}

std::map<std::string, std::string> Volume::Snapshot () const {
  std::map<std::string, std::string> out;
  if (RawFile root = RawOpen (*this, "\\")) Walk (root.file, u"", &out);
  return out;
}

int Firmware::OpenHandles () const { return static_cast<int>(Handles ().size ()); }

int Volume::OpenHandles () const {
  return static_cast<int>(std::count_if (Handles ().begin (), Handles ().end (), [this](const auto &h) { return h.second->volume == this; }));
}

// An NTFS or exFAT volume: the FAT driver on a disk of its own, the application's Block I/O
// on the handle carrying the boot sector that file system's tool writes.
Volume &Firmware::AddVolume (Fs fs) {
  Volume &volume = AddVolume (FormattedFat32 ());
  if (fs != Fs::Fat32) AddBlockIo (volume.Handle (), BootSectorImage (fs == Fs::Ntfs ? "ntfs" : "exfat"));
  return volume;
}

Volume &Firmware::AddVolume (const Disk &image) { return *volumes.emplace_back (std::make_unique<Volume>(*this, image)); }

}  // namespace fake
