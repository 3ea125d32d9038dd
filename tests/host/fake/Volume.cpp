// Volumes as the application sees them: the driver's own file protocol (the FAT driver's,
// or the stand-in's) behind a thin layer that injects faults, counts calls and handles,
// and plays the switches a test sets (a read-only mount, a driver refusing paths in a
// rename, stale roots). Also the test-side view, through the driver with none of that.
#include "Firmware.h"
#include "Internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace fake {
namespace {

struct Wrapped {
  EFI_FILE_PROTOCOL            proto;   // first: the application's handle is its address
  Volume                       *volume;
  EFI_FILE_PROTOCOL            *inner;
  std::u16string               path;    // from the root, names as stored
  bool                         writable;
  std::shared_ptr<FrozenView>  frozen;  // set when inner belongs to a stale root's private mount
};

std::map<EFI_FILE_PROTOCOL *, std::unique_ptr<Wrapped>> &Handles () {
  static std::map<EFI_FILE_PROTOCOL *, std::unique_ptr<Wrapped>> handles;
  return handles;
}

Wrapped *Lookup (EFI_FILE_PROTOCOL *self) {
  auto it = Handles ().find (self);
  if (it != Handles ().end ()) return it->second.get ();
  ADD_FAILURE () << "file protocol call on a handle that is not open";
  return nullptr;
}

std::u16string Text (const CHAR16 *text) {
  return text == nullptr ? std::u16string () : std::u16string (reinterpret_cast<const char16_t *>(text));
}

const CHAR16 *C16 (const std::u16string &text) { return reinterpret_cast<const CHAR16 *>(text.c_str ()); }

bool IsFileInfo (const EFI_GUID *type) { return type != nullptr && std::memcmp (type, &gEfiFileInfoGuid, sizeof (EFI_GUID)) == 0; }

std::u16string Parent (const std::u16string &path) {
  size_t cut = path.find_last_of (u'\\');
  return cut == 0 || cut == std::u16string::npos ? u"\\" : path.substr (0, cut);
}

// A firmware path from a folder: "\\" first means from the root; "." and ".." as FAT
// takes them. Gives "\\a\\b" ("\\" for the root).
std::u16string Join (const std::u16string &dir, const std::u16string &name) {
  std::vector<std::u16string> parts;
  auto add = [&](const std::u16string &text) {
    std::u16string part;
    for (size_t i = 0; i <= text.size (); ++i) {
      if (i < text.size () && text[i] != u'\\') {
        part += text[i];
        continue;
      }
      if (part == u"..") {
        if (!parts.empty ()) parts.pop_back ();
      } else if (!part.empty () && part != u".") {
        parts.push_back (part);
      }
      part.clear ();
    }
  };
  if (name.empty () || name[0] != u'\\') add (dir);
  add (name);
  std::u16string path;
  for (const auto &part : parts) path += u"\\" + part;
  return path.empty () ? u"\\" : path;
}

std::vector<uint8_t> InfoOf (EFI_FILE_PROTOCOL *file) {
  UINTN size = 0;
  if (file->GetInfo (file, &gEfiFileInfoGuid, &size, nullptr) != EFI_BUFFER_TOO_SMALL) return {};
  std::vector<uint8_t> buffer (size);
  return EFI_ERROR (file->GetInfo (file, &gEfiFileInfoGuid, &size, buffer.data ())) ? std::vector<uint8_t>() : buffer;
}

// The name the driver stored for what a handle opened.
std::u16string StoredName (EFI_FILE_PROTOCOL *file) {
  UINTN size = 0;
  if (file->GetInfo (file, &gEfiFileInfoGuid, &size, nullptr) != EFI_BUFFER_TOO_SMALL) return u"";
  std::vector<uint8_t> buffer (size);
  if (EFI_ERROR (file->GetInfo (file, &gEfiFileInfoGuid, &size, buffer.data ()))) return u"";
  return Text (reinterpret_cast<EFI_FILE_INFO *>(buffer.data ())->FileName);
}

// A path from the root, every name in it as the driver stored it (as typed where a
// folder on the way cannot be opened). Any handle of the volume starts the walk.
std::u16string StoredPath (EFI_FILE_PROTOCOL *any, const std::u16string &path) {
  EFI_FILE_PROTOCOL *at = nullptr;
  if (path == u"\\" || EFI_ERROR (any->Open (any, &at, const_cast<CHAR16 *>(reinterpret_cast<const CHAR16 *>(u"\\")), EFI_FILE_MODE_READ, 0))) {
    return path;
  }
  std::u16string stored, rest = path.substr (1);
  while (!rest.empty ()) {
    const size_t       cut  = rest.find (u'\\');
    const std::u16string part = rest.substr (0, cut);
    rest = cut == std::u16string::npos ? u"" : rest.substr (cut + 1);
    EFI_FILE_PROTOCOL *next = nullptr;
    if (at == nullptr || EFI_ERROR (at->Open (at, &next, const_cast<CHAR16 *>(reinterpret_cast<const CHAR16 *>(part.c_str ())), EFI_FILE_MODE_READ, 0))) {
      next = nullptr;
    }
    const std::u16string name = next != nullptr ? StoredName (next) : u"";
    stored += u"\\" + (name.empty () ? part : name);
    if (at != nullptr) at->Close (at);
    at = next;
  }
  if (at != nullptr) at->Close (at);
  return stored;
}

EFI_FILE_PROTOCOL *Wrap (Volume &volume, EFI_FILE_PROTOCOL *inner, std::u16string path, bool writable, std::shared_ptr<FrozenView> frozen);

// Every file call but Close and Delete starts here: the handle, then the fault for this
// call on that path, if one fires (Fail: its status; NoEffect: success, nothing done;
// Short: Read and Write move half).
#define ENTER(op, matchPath)                                                            \
  Wrapped *file = Lookup (self);                                                        \
  if (file == nullptr) return EFI_INVALID_PARAMETER;                                    \
  const Fault *fault = file->volume->fw.faults.Check (op, matchPath);                   \
  if (fault != nullptr && fault->effect != Effect::Short) {                             \
    return fault->effect == Effect::Fail ? fault->status : EFI_SUCCESS;                 \
  }                                                                                     \
  const bool shorten = fault != nullptr;                                                \
  (void)shorten

EFI_STATUS EFIAPI FileOpen (EFI_FILE_PROTOCOL *self, EFI_FILE_PROTOCOL **out, CHAR16 *name, UINT64 mode, UINT64 attributes) {
  ENTER (Op::Open, Text (name));
  const UINT64 rw = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
  if (name == nullptr || out == nullptr || (mode != EFI_FILE_MODE_READ && mode != rw && mode != (rw | EFI_FILE_MODE_CREATE))) {
    return EFI_INVALID_PARAMETER;
  }
  const bool write = (mode & EFI_FILE_MODE_WRITE) != 0;
  if (file->volume->writeProtected && write) return EFI_WRITE_PROTECTED;
  const std::u16string path = Join (file->path, Text (name));

  EFI_FILE_PROTOCOL *inner = nullptr;
  EFI_STATUS         status;
  std::shared_ptr<FrozenView> frozen;
  if (file->frozen && !write) {
    // A stale root answers lookups from the volume as it was.
    status = file->inner->Open (file->inner, &inner, name, mode, attributes);
    frozen = file->frozen;
  } else if (file->frozen) {
    // Changes reach the medium.
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *raw  = file->volume->Raw ();
    EFI_FILE_PROTOCOL               *live = nullptr;
    status = raw->OpenVolume (raw, &live);
    if (!EFI_ERROR (status)) {
      status = live->Open (live, &inner, const_cast<CHAR16 *>(C16 (path)), mode, attributes);
      live->Close (live);
    }
  } else {
    status = file->inner->Open (file->inner, &inner, name, mode, attributes);
  }
  if (EFI_ERROR (status)) return status;
  *out = Wrap (*file->volume, inner, StoredPath (inner, path), write, frozen);
  return status;
}

EFI_STATUS EFIAPI FileClose (EFI_FILE_PROTOCOL *self) {
  Wrapped *file = Lookup (self);
  if (file == nullptr) return EFI_INVALID_PARAMETER;
  file->volume->fw.faults.Check (Op::Close, file->path);
  file->inner->Close (file->inner);
  Handles ().erase (self);
  return EFI_SUCCESS;
}

// The handle is closed whatever Delete answers.
EFI_STATUS EFIAPI FileDelete (EFI_FILE_PROTOCOL *self) {
  Wrapped *file = Lookup (self);
  if (file == nullptr) return EFI_INVALID_PARAMETER;
  const Fault *fault = file->volume->fw.faults.Check (Op::Delete, file->path);
  EFI_STATUS  status;
  if (fault != nullptr || file->volume->writeProtected) {
    file->inner->Close (file->inner);
    // A read-only FAT driver answers a Delete with the warning, as for any failed delete.
    status = fault == nullptr ? EFI_WARN_DELETE_FAILURE : fault->effect == Effect::NoEffect ? EFI_SUCCESS : fault->status;
  } else {
    status = file->inner->Delete (file->inner);
  }
  Handles ().erase (self);
  return status;
}

EFI_STATUS EFIAPI FileRead (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer) {
  ENTER (Op::Read, file->path);
  if (shorten && size != nullptr) {
    // Half of what a file read would have moved; a folder's entries come whole.
    UINT64               position = 0;
    std::vector<uint8_t> info     = InfoOf (file->inner);
    const auto           *fileInfo = reinterpret_cast<const EFI_FILE_INFO *>(info.data ());
    if (info.empty () || (fileInfo->Attribute & EFI_FILE_DIRECTORY) == 0) {
      if (!info.empty () && !EFI_ERROR (file->inner->GetPosition (file->inner, &position))) {
        *size = std::min<UINT64>(*size, fileInfo->FileSize > position ? fileInfo->FileSize - position : 0);
      }
      *size /= 2;
    }
  }
  return file->inner->Read (file->inner, size, buffer);
}

EFI_STATUS EFIAPI FileWrite (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer) {
  ENTER (Op::Write, file->path);
  if (file->volume->writeProtected) return EFI_WRITE_PROTECTED;
  if (shorten && size != nullptr) *size /= 2;
  return file->inner->Write (file->inner, size, buffer);
}

EFI_STATUS EFIAPI FileGetPosition (EFI_FILE_PROTOCOL *self, UINT64 *position) {
  ENTER (Op::GetPosition, file->path);
  return file->inner->GetPosition (file->inner, position);
}

EFI_STATUS EFIAPI FileSetPosition (EFI_FILE_PROTOCOL *self, UINT64 position) {
  ENTER (Op::SetPosition, file->path);
  return file->inner->SetPosition (file->inner, position);
}

EFI_STATUS EFIAPI FileGetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN *size, VOID *buffer) {
  ENTER (Op::GetInfo, file->path);
  return file->inner->GetInfo (file->inner, type, size, buffer);
}

std::u16string NameIn (UINTN size, const VOID *buffer) {
  return size >= SIZE_OF_EFI_FILE_INFO + 2 && buffer != nullptr ? Text (static_cast<const EFI_FILE_INFO *>(buffer)->FileName) : u"";
}

EFI_STATUS EFIAPI FileSetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN size, VOID *buffer) {
  const std::u16string name = IsFileInfo (type) ? NameIn (size, buffer) : u"";
  ENTER (Op::SetInfo, file->path + u"->" + name);
  Volume &volume = *file->volume;
  if (volume.writeProtected) return EFI_WRITE_PROTECTED;
  if (IsFileInfo (type) && volume.rejectPathNames && name.find_first_of (u"\\/") != std::u16string::npos) return EFI_INVALID_PARAMETER;
  EFI_STATUS status = file->inner->SetInfo (file->inner, type, size, buffer);
  if (!EFI_ERROR (status) && IsFileInfo (type) && file->path != u"\\") file->path = StoredPath (file->inner, Join (Parent (file->path), name));
  return status;
}

EFI_STATUS EFIAPI FileFlush (EFI_FILE_PROTOCOL *self) {
  ENTER (Op::Flush, file->path);
  if (file->volume->writeProtected) return EFI_WRITE_PROTECTED;
  return file->inner->Flush (file->inner);
}

EFI_FILE_PROTOCOL *Wrap (Volume &volume, EFI_FILE_PROTOCOL *inner, std::u16string path, bool writable, std::shared_ptr<FrozenView> frozen) {
  static const EFI_FILE_PROTOCOL kFile = { EFI_FILE_PROTOCOL_REVISION, FileOpen, FileClose, FileDelete, FileRead, FileWrite,
                                           FileGetPosition, FileSetPosition, FileGetInfo, FileSetInfo, FileFlush,
                                           nullptr, nullptr, nullptr, nullptr };
  auto *file = new Wrapped{ kFile, &volume, inner, std::move (path), writable, std::move (frozen) };
  Handles ()[&file->proto].reset (file);
  return &file->proto;
}

EFI_STATUS EFIAPI OpenVolume (EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *self, EFI_FILE_PROTOCOL **root) {
  for (const auto &volume : Firmware::Current ().volumes) {
    if (&volume->sfs != self) continue;
    if (const Fault *f = volume->fw.faults.Check (Op::OpenVolume)) return f->status;
    if (root == nullptr) return EFI_INVALID_PARAMETER;
    std::shared_ptr<FrozenView> frozen = volume->staleView ? volume->Freeze () : nullptr;
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *raw = frozen ? frozen->raw : volume->Raw ();
    EFI_FILE_PROTOCOL               *inner = nullptr;
    EFI_STATUS                      status = raw->OpenVolume (raw, &inner);
    if (EFI_ERROR (status)) return status;
    *root = Wrap (*volume, inner, u"\\", !volume->writeProtected, frozen);
    return EFI_SUCCESS;
  }
  ADD_FAILURE () << "OpenVolume on an unknown volume";
  return EFI_INVALID_PARAMETER;
}

// --- Test side ---------------------------------------------------------------------

std::u16string TestPath (const std::string &path) {
  std::u16string out = U16 (path);
  std::replace (out.begin (), out.end (), u'/', u'\\');
  return Join (u"\\", out);
}

// A handle on the driver's own protocol, closed when it goes.
class RawFile {
 public:
  RawFile () = default;
  explicit RawFile (EFI_FILE_PROTOCOL *file) : file_ (file) {}
  RawFile (RawFile &&other) noexcept : file_ (other.file_) { other.file_ = nullptr; }
  ~RawFile () { if (file_ != nullptr) file_->Close (file_); }
  EFI_FILE_PROTOCOL *get () const { return file_; }
  EFI_FILE_PROTOCOL *operator-> () const { return file_; }
  explicit operator bool () const { return file_ != nullptr; }
  EFI_FILE_PROTOCOL *release () { EFI_FILE_PROTOCOL *f = file_; file_ = nullptr; return f; }

 private:
  EFI_FILE_PROTOCOL *file_ = nullptr;
};

RawFile RawRoot (const Volume &volume) {
  EFI_FILE_PROTOCOL *root = nullptr;
  EFI_STATUS        status = volume.Raw ()->OpenVolume (volume.Raw (), &root);
  EXPECT_EQ (status, EFI_SUCCESS) << "the driver's OpenVolume failed";
  return RawFile (EFI_ERROR (status) ? nullptr : root);
}

RawFile RawOpen (const Volume &volume, const std::u16string &path, UINT64 mode, UINT64 attributes = 0) {
  RawFile root = RawRoot (volume);
  if (!root || path == u"\\") return mode == EFI_FILE_MODE_READ || !root ? std::move (root) : std::move (root);
  EFI_FILE_PROTOCOL *file = nullptr;
  return RawFile (EFI_ERROR (root->Open (root.get (), &file, const_cast<CHAR16 *>(C16 (path)), mode, attributes)) ? nullptr : file);
}

std::vector<uint8_t> Info (EFI_FILE_PROTOCOL *file) {
  UINTN size = 0;
  if (file->GetInfo (file, &gEfiFileInfoGuid, &size, nullptr) != EFI_BUFFER_TOO_SMALL) return {};
  std::vector<uint8_t> buffer (size);
  return EFI_ERROR (file->GetInfo (file, &gEfiFileInfoGuid, &size, buffer.data ())) ? std::vector<uint8_t>() : buffer;
}

bool IsDir (EFI_FILE_PROTOCOL *file) {
  std::vector<uint8_t> info = Info (file);
  return !info.empty () && (reinterpret_cast<EFI_FILE_INFO *>(info.data ())->Attribute & EFI_FILE_DIRECTORY) != 0;
}

// The entries of a folder, "." and ".." left out: name, folder or not.
std::vector<std::pair<std::u16string, bool>> Entries (EFI_FILE_PROTOCOL *dir) {
  std::vector<std::pair<std::u16string, bool>> entries;
  dir->SetPosition (dir, 0);
  std::vector<uint8_t> buffer (SIZE_OF_EFI_FILE_INFO + 512 * sizeof (CHAR16));
  for (;;) {
    UINTN size = buffer.size ();
    if (EFI_ERROR (dir->Read (dir, &size, buffer.data ())) || size == 0) break;
    const auto *info = reinterpret_cast<EFI_FILE_INFO *>(buffer.data ());
    std::u16string name = Text (info->FileName);
    if (name != u"." && name != u"..") entries.push_back ({ name, (info->Attribute & EFI_FILE_DIRECTORY) != 0 });
  }
  return entries;
}

std::string ReadAll (EFI_FILE_PROTOCOL *file) {
  std::vector<uint8_t> info = Info (file);
  if (info.empty ()) return "";
  std::string bytes (reinterpret_cast<EFI_FILE_INFO *>(info.data ())->FileSize, '\0');
  UINTN size = bytes.size ();
  file->SetPosition (file, 0);
  if (!bytes.empty () && (EFI_ERROR (file->Read (file, &size, bytes.data ())) || size != bytes.size ())) ADD_FAILURE () << "the driver read short";
  return bytes;
}

void RemoveTree (EFI_FILE_PROTOCOL *file) {
  if (IsDir (file)) {
    for (const auto &[name, dir] : Entries (file)) {
      EFI_FILE_PROTOCOL *kid = nullptr;
      if (!EFI_ERROR (file->Open (file, &kid, const_cast<CHAR16 *>(C16 (name)), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0))) RemoveTree (kid);
    }
  }
  EXPECT_EQ (file->Delete (file), EFI_SUCCESS) << "the driver did not delete " << Narrow (StoredName (file));
}

void Collect (EFI_FILE_PROTOCOL *dir, const std::u16string &prefix, std::map<std::string, std::string> &out) {
  for (const auto &[name, isDir] : Entries (dir)) {
    EFI_FILE_PROTOCOL *kid = nullptr;
    if (EFI_ERROR (dir->Open (dir, &kid, const_cast<CHAR16 *>(C16 (name)), EFI_FILE_MODE_READ, 0))) {
      ADD_FAILURE () << "listed but not opened: " << Narrow (prefix + u"\\" + name);
      continue;
    }
    RawFile        held (kid);
    std::u16string path = prefix + u"\\" + name;
    out[Narrow (path)] = isDir ? std::string ("<dir>") : ReadAll (kid);
    if (isDir) Collect (kid, path, out);
  }
}

// Opens and closes every folder below one.
void VisitFolders (EFI_FILE_PROTOCOL *dir) {
  for (const auto &[name, isDir] : Entries (dir)) {
    EFI_FILE_PROTOCOL *kid = nullptr;
    if (isDir && !EFI_ERROR (dir->Open (dir, &kid, const_cast<CHAR16 *>(C16 (name)), EFI_FILE_MODE_READ, 0))) {
      RawFile held (kid);
      VisitFolders (kid);
    }
  }
}

}  // namespace

// --- Volume --------------------------------------------------------------------------

Volume::Volume (Firmware &firmware, EFI_HANDLE handle, Fs fs) : sfs{}, fw (firmware), handle_ (handle), fs_ (fs) {
  sfs.Revision   = EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_REVISION;
  sfs.OpenVolume = OpenVolume;
  if (fs == Fs::Fat32) return;   // Mount gives it a medium
  memory_ = std::make_unique<MemoryFs>();
  raw_    = &memory_->sfs;
  fw.Install (handle, gEfiSimpleFileSystemProtocolGuid, raw_);
  fw.ShowAs (raw_, &sfs);
}

void Volume::Mount (std::shared_ptr<Disk> disk) {
  device_ = &AddDiskDevice (fw, handle_, std::move (disk));
  EFI_STATUS status = fw.ConnectFat (handle_);
  EXPECT_EQ (status, EFI_SUCCESS) << "the FAT driver did not start on the medium";
  raw_ = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *>(fw.FindRaw (handle_, gEfiSimpleFileSystemProtocolGuid));
  if (raw_ != nullptr) fw.ShowAs (raw_, &sfs);
}

Volume::~Volume () {
  for (auto it = Handles ().begin (); it != Handles ().end ();) {
    if (it->second->volume != this) {
      ++it;
      continue;
    }
    it->second->inner->Close (it->second->inner);
    it = Handles ().erase (it);
  }
  if (device_ != nullptr) {
    // When a file moves to another folder, the FAT driver leaves the folder it left in its
    // cache, off the list it checks for unused entries, until someone opens that folder
    // again; then Stop cannot free the volume. Opening every folder once lets the driver
    // free it all, so that what the drivers' pool check reports is a leak of ours.
    if (raw_ != nullptr) {
      if (RawFile root = RawRoot (*this)) VisitFolders (root.get ());
      fw.ShowAs (raw_, nullptr);
    }
    EXPECT_EQ (fw.DisconnectFat (handle_), EFI_SUCCESS) << "the FAT driver did not stop";
    RemoveDevice (fw, device_);
  } else if (memory_) {
    fw.ShowAs (raw_, nullptr);
    fw.Uninstall (handle_, gEfiSimpleFileSystemProtocolGuid);
  }
}

// The medium as it is now, mounted again privately: a FAT volume's on a hidden handle
// (its open files' unflushed changes are not on it, as after a crash), a stand-in's copied.
std::shared_ptr<FrozenView> Volume::Freeze () {
  auto view = std::make_shared<FrozenView>();
  if (memory_) {
    view->memory = memory_->Clone ();
    view->raw    = &view->memory->sfs;
    return view;
  }
  EFI_HANDLE  hidden = fw.NewHandle (true);
  BlockDevice *copy  = &AddDiskDevice (fw, hidden, std::make_shared<Disk>(*device_->disk));
  EXPECT_EQ (fw.ConnectFat (hidden), EFI_SUCCESS) << "the FAT driver did not start on a copy of the medium";
  view->raw = static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *>(fw.FindRaw (hidden, gEfiSimpleFileSystemProtocolGuid));
  Firmware *firmware = &fw;
  view->release      = [firmware, hidden, copy] {
    firmware->DisconnectFat (hidden);
    RemoveDevice (*firmware, copy);
  };
  return view;
}

Disk Volume::DiskImage () const {
  if (device_ == nullptr) {
    ADD_FAILURE () << "only FAT volumes have a disk image";
    return Disk ();
  }
  return *device_->disk;
}

void Volume::MatchNamesExactly () {
  if (memory_) SetExactCase (*memory_);
  else ADD_FAILURE () << "the FAT driver matches names in any case; only the stand-ins match them exactly";
}

void Volume::Mkdir (const std::string &path) {
  std::u16string full = TestPath (path), at;
  for (size_t i = 1; i <= full.size (); ++i) {
    if (i < full.size () && full[i] != u'\\') continue;
    at = full.substr (0, i);
    RawFile dir = RawOpen (*this, at, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE, EFI_FILE_DIRECTORY);
    if (!dir || !IsDir (dir.get ())) {
      ADD_FAILURE () << "could not make the folder " << Narrow (at);
      return;
    }
    dir->Flush (dir.get ());
  }
}

void Volume::Put (const std::string &path, const std::string &bytes) {
  std::u16string full = TestPath (path);
  if (Parent (full) != u"\\") Mkdir (Narrow (Parent (full)));
  RawFile file = RawOpen (*this, full, EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE, 0);
  if (!file) {
    ADD_FAILURE () << "could not create " << path;
    return;
  }
  std::vector<uint8_t> info = Info (file.get ());
  auto                 *fileInfo = reinterpret_cast<EFI_FILE_INFO *>(info.data ());
  if (!info.empty () && fileInfo->FileSize != 0) {
    // Truncated in place; zero times leave the driver's own times alone.
    fileInfo->FileSize = 0;
    std::memset (&fileInfo->CreateTime, 0, 3 * sizeof (EFI_TIME));
    EXPECT_EQ (file->SetInfo (file.get (), &gEfiFileInfoGuid, info.size (), fileInfo), EFI_SUCCESS) << "could not truncate " << path;
  }
  UINTN size = bytes.size ();
  if (size > 0) {
    EXPECT_EQ (file->Write (file.get (), &size, const_cast<char *>(bytes.data ())), EFI_SUCCESS) << "could not write " << path;
    EXPECT_EQ (size, bytes.size ()) << "short write to " << path;
  }
  EXPECT_EQ (file->Flush (file.get ()), EFI_SUCCESS) << "could not flush " << path;
}

void Volume::Remove (const std::string &path) {
  RawFile file = RawOpen (*this, TestPath (path), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE);
  if (file && TestPath (path) != u"\\") RemoveTree (file.release ());
}

bool Volume::Exists (const std::string &path) const { return static_cast<bool>(RawOpen (*this, TestPath (path), EFI_FILE_MODE_READ)); }

std::string Volume::Get (const std::string &path) const {
  RawFile file = RawOpen (*this, TestPath (path), EFI_FILE_MODE_READ);
  if (file && !IsDir (file.get ())) return ReadAll (file.get ());
  ADD_FAILURE () << "no file " << path;
  return "";
}

std::vector<std::string> Volume::List (const std::string &dir) const {
  std::vector<std::string> names;
  RawFile folder = RawOpen (*this, TestPath (dir), EFI_FILE_MODE_READ);
  if (folder && IsDir (folder.get ())) {
    for (const auto &entry : Entries (folder.get ())) names.push_back (Narrow (entry.first));
  }
  return names;
}

std::map<std::string, std::string> Volume::Snapshot () const {
  std::map<std::string, std::string> out;
  if (RawFile root = RawRoot (*this)) Collect (root.get (), u"", out);
  return out;
}

int Volume::OpenHandles () const {
  return static_cast<int>(std::count_if (Handles ().begin (), Handles ().end (), [this](const auto &h) { return h.second->volume == this; }));
}

// --- Firmware's volumes --------------------------------------------------------------

Volume &Firmware::AddVolume (Fs fs) {
  if (fs == Fs::Fat32) return AddVolume (FormattedFat32 ());
  EFI_HANDLE handle = NewHandle ();
  volumes.push_back (std::make_unique<Volume>(*this, handle, fs));
  AddBlockIo (handle, BootSectorImage (fs == Fs::Ntfs ? "ntfs" : "exfat"));
  return *volumes.back ();
}

Volume &Firmware::AddVolume (const Disk &image) {
  EFI_HANDLE handle = NewHandle ();
  volumes.push_back (std::make_unique<Volume>(*this, handle, Fs::Fat32));
  if (image.Size () >= 512) volumes.back ()->Mount (std::make_shared<Disk>(image));
  else ADD_FAILURE () << "no medium to mount";
  return *volumes.back ();
}

}  // namespace fake
