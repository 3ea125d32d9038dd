// The stand-in driver of NTFS and exFAT volumes: an in-memory tree behind
// EFI_SIMPLE_FILE_SYSTEM_PROTOCOL / EFI_FILE_PROTOCOL. Names match without regard to ASCII
// case (or, when asked, only in their own case) and keep their spelling, a FileName
// starting with "\" resolves from the root, SetInfo refuses the root, read-only handles,
// existing names and directories with open children; Delete closes the handle whatever
// it answers. Faults and switches are the volume layer's (Volume.cpp), as for FAT.
#include "Firmware.h"
#include "Internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace fake {

struct Node : std::enable_shared_from_this<Node> {
  Node (const std::u16string &n, bool d, Node *p) : name (n), dir (d), parent (p) {}
  std::u16string                      name;
  bool                                dir;
  std::vector<uint8_t>                data;
  std::vector<std::shared_ptr<Node>>  kids;
  Node                                *parent;
  bool                                gone = false;   // deleted while a handle still held it
  bool                                exactCase = false;   // on a root: names match only in their own case
};

namespace {

struct OpenFile { EFI_FILE_PROTOCOL proto; MemoryFs *volume; std::shared_ptr<Node> node; bool writable; uint64_t position = 0; size_t dirIndex = 0; };

std::vector<MemoryFs *> &FileSystems () {
  static std::vector<MemoryFs *> all;
  return all;
}

std::map<EFI_FILE_PROTOCOL *, std::unique_ptr<OpenFile>> &Handles () {
  static std::map<EFI_FILE_PROTOCOL *, std::unique_ptr<OpenFile>> handles;
  return handles;
}

bool SameName (const std::u16string &a, const std::u16string &b) {
  auto fold = [](char16_t c) { return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c; };
  return a.size () == b.size () && std::equal (a.begin (), a.end (), b.begin (), [&](char16_t x, char16_t y) { return fold (x) == fold (y); });
}

std::shared_ptr<Node> Child (const Node &dir, const std::u16string &name) {
  const Node *root = &dir;
  while (root->parent != nullptr) {
    root = root->parent;
  }

  auto kid = std::find_if (dir.kids.begin (), dir.kids.end (), [&](const auto &k) { return root->exactCase ? k->name == name : SameName (k->name, name); });
  return kid == dir.kids.end () ? nullptr : *kid;
}

std::shared_ptr<Node> AddChild (Node &dir, const std::u16string &name, bool isDir) {
  return dir.kids.emplace_back (std::make_shared<Node>(name, isDir, &dir));
}

void Unlink (const std::shared_ptr<Node> &node) {
  auto &kids = node->parent->kids;
  kids.erase (std::remove (kids.begin (), kids.end (), node), kids.end ());
  node->parent = nullptr;
}

std::vector<std::u16string> Split (const std::u16string &path, bool slashToo) {
  std::vector<std::u16string> parts(1);
  for (char16_t c : path) {
    if (c != u'\\' && !(slashToo && c == u'/')) parts.back () += c;
    else if (!parts.back ().empty ()) parts.emplace_back ();
  }
  if (parts.back ().empty ()) parts.pop_back ();
  return parts;
}

bool IsWithin (const Node *candidate, const Node &ancestor) {
  for (; candidate != nullptr; candidate = candidate->parent) {
    if (candidate == &ancestor) return true;
  }
  return false;
}

bool HasOpenDescendant (const Node &node) {
  for (const auto &[proto, file] : Handles ()) {
    if (IsWithin (file->node->parent, node)) return true;
  }
  return false;
}

// Walks a firmware path from a directory (a file stands for its folder); "\" at the
// start means the root. Gives the folder of the last component and that component.
EFI_STATUS Resolve (MemoryFs &volume, std::shared_ptr<Node> dir, const std::u16string &path, std::shared_ptr<Node> &parent,
                    std::u16string &leaf) {
  if (!path.empty () && path[0] == u'\\') dir = volume.root;
  else if (!dir->dir) dir = dir->parent ? dir->parent->shared_from_this () : volume.root;

  std::vector<std::u16string> parts = Split (path, false);
  leaf.clear ();
  for (size_t i = 0; i < parts.size (); ++i) {
    if (parts[i] == u".") continue;
    if (parts[i] == u"..") {
      if (dir->parent == nullptr) return EFI_NOT_FOUND;
      dir = dir->parent->shared_from_this ();
    } else if (i + 1 == parts.size ()) {
      leaf = parts[i];
    } else if (!(dir = Child (*dir, parts[i])) || !dir->dir) {
      return EFI_NOT_FOUND;
    }
  }
  parent = dir;
  return EFI_SUCCESS;
}


std::u16string Text (const CHAR16 *text) {
  return text == nullptr ? std::u16string () : std::u16string (reinterpret_cast<const char16_t *>(text));
}

EFI_STATUS PutInfo (const Node &node, UINTN *size, VOID *buffer) {
  UINTN need = SIZE_OF_EFI_FILE_INFO + (node.name.size () + 1) * sizeof (CHAR16);
  if (*size < need) {
    *size = need;
    return EFI_BUFFER_TOO_SMALL;
  }
  auto *info = static_cast<EFI_FILE_INFO *>(buffer);
  std::memset (info, 0, need);
  info->Size      = *size = need;
  info->FileSize  = info->PhysicalSize = node.data.size ();
  info->Attribute = node.dir ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
  std::memcpy (info->FileName, node.name.c_str (), (node.name.size () + 1) * sizeof (CHAR16));
  return EFI_SUCCESS;
}

OpenFile *Lookup (EFI_FILE_PROTOCOL *self) {
  auto it = Handles ().find (self);
  if (it != Handles ().end ()) return it->second.get ();
  ADD_FAILURE () << "file protocol call on a handle that is not open";
  return nullptr;
}

bool IsFileInfo (const EFI_GUID *type) { return std::memcmp (type, &gEfiFileInfoGuid, sizeof (EFI_GUID)) == 0; }

EFI_FILE_PROTOCOL *NewHandle (MemoryFs &volume, std::shared_ptr<Node> node, bool writable);

// Every file call but Close and Delete starts here: the open file and its node.
#define ENTER()                                       \
  OpenFile *file = Lookup (self);                     \
  if (file == nullptr) return EFI_INVALID_PARAMETER;  \
  Node &node = *file->node;                           \
  (void)node

// --- EFI_FILE_PROTOCOL -----------------------------------------------------------

EFI_STATUS EFIAPI FileOpen (EFI_FILE_PROTOCOL *self, EFI_FILE_PROTOCOL **out, CHAR16 *name, UINT64 mode, UINT64 attributes) {
  ENTER ();
  const UINT64 rw = EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE;
  if (name == nullptr || out == nullptr || (mode != EFI_FILE_MODE_READ && mode != rw && mode != (rw | EFI_FILE_MODE_CREATE))) {
    return EFI_INVALID_PARAMETER;
  }
  const bool write = (mode & EFI_FILE_MODE_WRITE) != 0;
  if (node.gone) return EFI_NOT_FOUND;

  std::shared_ptr<Node> parent;
  std::u16string        leaf;
  EFI_STATUS            status = Resolve (*file->volume, file->node, Text (name), parent, leaf);
  if (EFI_ERROR (status)) return status;
  std::shared_ptr<Node> target = leaf.empty () ? parent : Child (*parent, leaf);
  if (!target) {
    if ((mode & EFI_FILE_MODE_CREATE) == 0) return EFI_NOT_FOUND;
    target = AddChild (*parent, leaf, (attributes & EFI_FILE_DIRECTORY) != 0);
  }
  *out = NewHandle (*file->volume, target, write);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileClose (EFI_FILE_PROTOCOL *self) {
  OpenFile *file = Lookup (self);
  if (file == nullptr) return EFI_INVALID_PARAMETER;
  Handles ().erase (self);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileDelete (EFI_FILE_PROTOCOL *self) {
  OpenFile *file = Lookup (self);
  if (file == nullptr) return EFI_INVALID_PARAMETER;
  std::shared_ptr<Node> node     = file->node;
  const bool            writable = file->writable;
  Handles ().erase (self);

  if (!writable || node->parent == nullptr || (node->dir && !node->kids.empty ())) return EFI_WARN_DELETE_FAILURE;
  Unlink (node);
  node->gone = true;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileRead (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer) {
  ENTER ();
  if (node.gone) return EFI_DEVICE_ERROR;
  if (node.dir) {
    // Like FAT: "." and ".." in every folder but the root, then the entries.
    const size_t dots = node.parent != nullptr ? 2 : 0;
    if (file->dirIndex >= dots + node.kids.size ()) {
      *size = 0;
      return EFI_SUCCESS;
    }
    Node dot (file->dirIndex == 0 ? u"." : u"..", true, nullptr);
    EFI_STATUS status = PutInfo (file->dirIndex < dots ? dot : *node.kids[file->dirIndex - dots], size, buffer);
    file->dirIndex += EFI_ERROR (status) ? 0 : 1;
    return status;
  }
  if (file->position > node.data.size ()) return EFI_DEVICE_ERROR;
  size_t count = std::min<size_t>(*size, node.data.size () - file->position);
  if (count > 0) std::memcpy (buffer, node.data.data () + file->position, count);
  file->position += count;
  *size           = count;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileWrite (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer) {
  ENTER ();
  if (node.dir) return EFI_UNSUPPORTED;
  if (node.gone) return EFI_DEVICE_ERROR;
  if (!file->writable) return EFI_ACCESS_DENIED;
  size_t count = *size;
  node.data.resize (std::max<size_t>(node.data.size (), file->position + count));
  if (count > 0) std::memcpy (node.data.data () + file->position, buffer, count);
  file->position += count;
  *size           = count;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileGetPosition (EFI_FILE_PROTOCOL *self, UINT64 *position) {
  ENTER ();
  if (node.dir) return EFI_UNSUPPORTED;
  *position = file->position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileSetPosition (EFI_FILE_PROTOCOL *self, UINT64 position) {
  ENTER ();
  if (node.dir) {
    if (position != 0) return EFI_UNSUPPORTED;
    file->dirIndex = 0;
  } else {
    file->position = (position == MAX_UINT64) ? node.data.size () : position;
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileGetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN *size, VOID *buffer) {
  ENTER ();
  return IsFileInfo (type) ? PutInfo (node, size, buffer) : EFI_UNSUPPORTED;
}

std::u16string NameIn (UINTN size, const VOID *buffer) {
  return size >= SIZE_OF_EFI_FILE_INFO + 2 ? Text (static_cast<const EFI_FILE_INFO *>(buffer)->FileName) : u"";
}

EFI_STATUS EFIAPI FileSetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN size, VOID *buffer) {
  const std::u16string name = NameIn (size, buffer);
  ENTER ();
  MemoryFs              &volume = *file->volume;
  std::shared_ptr<Node> moved   = file->node;
  const auto            *info   = static_cast<const EFI_FILE_INFO *>(buffer);

  if (!IsFileInfo (type)) return EFI_UNSUPPORTED;
  if (node.parent == nullptr) return EFI_ACCESS_DENIED;
  if (size < SIZE_OF_EFI_FILE_INFO + 2 || info->Size > size) return EFI_BAD_BUFFER_SIZE;
  if ((info->Attribute & ~EFI_FILE_VALID_ATTR) != 0) return EFI_INVALID_PARAMETER;
  if (((info->Attribute & EFI_FILE_DIRECTORY) != 0) != node.dir) return EFI_ACCESS_DENIED;

  std::shared_ptr<Node> parent;
  std::u16string        leaf;
  EFI_STATUS            status = Resolve (volume, node.parent->shared_from_this (), name, parent, leaf);
  if (EFI_ERROR (status)) return status;
  if (leaf.empty ()) return EFI_ACCESS_DENIED;
  std::shared_ptr<Node> existing = Child (*parent, leaf);
  if (existing && existing != moved) return EFI_ACCESS_DENIED;
  if (!existing) {
    if (HasOpenDescendant (node) || IsWithin (parent.get (), node) || !file->writable) return EFI_ACCESS_DENIED;
    Unlink (moved);
    node.name   = leaf;
    node.parent = parent.get ();
    parent->kids.push_back (moved);
  }
  if (info->FileSize != node.data.size ()) {
    if (node.dir || !file->writable) return EFI_ACCESS_DENIED;
    node.data.resize (info->FileSize);
  }
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileFlush (EFI_FILE_PROTOCOL *self) {
  ENTER ();
  return file->writable ? EFI_SUCCESS : EFI_ACCESS_DENIED;
}

EFI_FILE_PROTOCOL *NewHandle (MemoryFs &volume, std::shared_ptr<Node> node, bool writable) {
  static const EFI_FILE_PROTOCOL kFile = { EFI_FILE_PROTOCOL_REVISION, FileOpen, FileClose, FileDelete, FileRead, FileWrite,
                                           FileGetPosition, FileSetPosition, FileGetInfo, FileSetInfo, FileFlush,
                                           nullptr, nullptr, nullptr, nullptr };
  auto *file = new OpenFile{ kFile, &volume, std::move (node), writable };
  Handles ()[&file->proto].reset (file);
  return &file->proto;
}

EFI_STATUS EFIAPI OpenVolume (EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *self, EFI_FILE_PROTOCOL **root) {
  for (MemoryFs *fs : FileSystems ()) {
    if (&fs->sfs != self) continue;
    if (root == nullptr) return EFI_INVALID_PARAMETER;
    *root = NewHandle (*fs, fs->root, true);
    return EFI_SUCCESS;
  }
  ADD_FAILURE () << "OpenVolume on an unknown stand-in volume";
  return EFI_INVALID_PARAMETER;
}

std::shared_ptr<Node> Copy (const Node &from, Node *parent) {
  auto to  = std::make_shared<Node>(from.name, from.dir, parent);
  to->data = from.data;
  to->exactCase = from.exactCase;
  for (const auto &kid : from.kids) to->kids.push_back (Copy (*kid, to.get ()));
  return to;
}

}  // namespace

MemoryFs::MemoryFs () : sfs{}, root (std::make_shared<Node>(u"", true, nullptr)) {
  sfs.Revision   = EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_REVISION;
  sfs.OpenVolume = OpenVolume;
  FileSystems ().push_back (this);
}

MemoryFs::~MemoryFs () {
  for (auto it = Handles ().begin (); it != Handles ().end ();) {
    it = (it->second->volume == this) ? Handles ().erase (it) : std::next (it);
  }
  auto &all = FileSystems ();
  all.erase (std::remove (all.begin (), all.end (), this), all.end ());
}

std::unique_ptr<MemoryFs> MemoryFs::Clone () const {
  auto copy  = std::make_unique<MemoryFs>();
  copy->root = Copy (*root, nullptr);
  return copy;
}

void SetExactCase (MemoryFs &fs) { fs.root->exactCase = true; }

}  // namespace fake
