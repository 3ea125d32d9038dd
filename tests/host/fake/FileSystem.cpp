// In-memory volumes behind EFI_SIMPLE_FILE_SYSTEM_PROTOCOL / EFI_FILE_PROTOCOL,
// answering as the firmware's FAT driver does (FatPkg/EnhancedFatDxe): names match
// without regard to ASCII case and keep their spelling, a FileName starting with "\"
// resolves from the root, SetInfo refuses the root, read-only handles, existing names
// and directories with open children.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace fake {

struct Node {
  std::u16string                      name;
  bool                                dir = false;
  std::vector<uint8_t>                data;
  std::vector<std::shared_ptr<Node>>  kids;
  Node                                *parent = nullptr;
  bool                                gone = false;   // deleted while a handle still held it
};

namespace {

struct OpenFile {
  EFI_FILE_PROTOCOL      proto;
  Volume                 *volume;
  std::shared_ptr<Node>  node;
  uint64_t               position = 0;
  bool                   writable = false;
  size_t                 dirIndex = 0;
};

std::map<EFI_FILE_PROTOCOL *, OpenFile *> &Handles ()
{
  static std::map<EFI_FILE_PROTOCOL *, OpenFile *> handles;
  return handles;
}

OpenFile *Lookup (EFI_FILE_PROTOCOL *self)
{
  auto it = Handles ().find (self);
  if (it == Handles ().end ()) {
    ADD_FAILURE () << "file protocol call on a handle that is not open";
    return nullptr;
  }

  return it->second;
}

char16_t Fold (char16_t c)
{
  return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
}

bool SameName (const std::u16string &a, const std::u16string &b)
{
  return a.size () == b.size () && std::equal (a.begin (), a.end (), b.begin (), [](char16_t x, char16_t y) { return Fold (x) == Fold (y); });
}

std::shared_ptr<Node> Child (const Node &dir, const std::u16string &name)
{
  for (const auto &kid : dir.kids) {
    if (SameName (kid->name, name)) {
      return kid;
    }
  }

  return nullptr;
}

std::vector<std::u16string> Split (const std::u16string &path, bool slashToo)
{
  std::vector<std::u16string> parts;
  std::u16string              part;

  for (char16_t c : path) {
    if (c == u'\\' || (slashToo && c == u'/')) {
      if (!part.empty ()) {
        parts.push_back (part);
      }

      part.clear ();
    } else {
      part += c;
    }
  }

  if (!part.empty ()) {
    parts.push_back (part);
  }

  return parts;
}

std::shared_ptr<Node> SharedOf (Node *node)
{
  if (node->parent == nullptr) {
    return nullptr;
  }

  for (const auto &kid : node->parent->kids) {
    if (kid.get () == node) {
      return kid;
    }
  }

  return nullptr;
}

// Walks a firmware path from a directory; "\" at the start means the root.
// Returns the parent directory of the last component and that component's name.
EFI_STATUS Resolve (Volume &volume, std::shared_ptr<Node> from, const std::u16string &path, std::shared_ptr<Node> &parent, std::u16string &leaf)
{
  std::shared_ptr<Node> dir = (!path.empty () && path[0] == u'\\') ? volume.root : from;

  if (!dir->dir) {
    dir = dir->parent ? SharedOf (dir->parent) : volume.root;
    if (!dir) {
      dir = volume.root;
    }
  }

  std::vector<std::u16string> parts = Split (path, false);
  leaf.clear ();
  for (size_t i = 0; i < parts.size (); ++i) {
    const std::u16string &part = parts[i];
    bool                  last = (i + 1 == parts.size ());

    if (part == u".") {
      continue;
    }

    if (part == u"..") {
      if (dir->parent == nullptr) {
        return EFI_NOT_FOUND;
      }

      std::shared_ptr<Node> up = SharedOf (dir->parent);
      dir = up ? up : volume.root;
      continue;
    }

    if (last) {
      leaf = part;
      break;
    }

    std::shared_ptr<Node> next = Child (*dir, part);
    if (!next || !next->dir) {
      return EFI_NOT_FOUND;
    }

    dir = next;
  }

  parent = dir;
  return EFI_SUCCESS;
}

bool HasOpenDescendant (const Node &node)
{
  for (const auto &[proto, file] : Handles ()) {
    for (Node *up = file->node->parent; up != nullptr; up = up->parent) {
      if (up == &node) {
        return true;
      }
    }
  }

  return false;
}

bool IsWithin (const Node *candidate, const Node &ancestor)
{
  for (; candidate != nullptr; candidate = candidate->parent) {
    if (candidate == &ancestor) {
      return true;
    }
  }

  return false;
}

EFI_FILE_PROTOCOL *NewHandle (Volume &volume, std::shared_ptr<Node> node, bool writable);

std::u16string PathText (const CHAR16 *text)
{
  return text == nullptr ? std::u16string () : std::u16string (reinterpret_cast<const char16_t *>(text));
}

std::u16string NodePath (const Node &node)
{
  std::u16string path;
  for (const Node *n = &node; n->parent != nullptr; n = n->parent) {
    path = u"\\" + n->name + path;
  }

  return path.empty () ? u"\\" : path;
}

// --- EFI_FILE_PROTOCOL -----------------------------------------------------------

EFI_STATUS EFIAPI FileOpen (EFI_FILE_PROTOCOL *self, EFI_FILE_PROTOCOL **out, CHAR16 *name, UINT64 mode, UINT64 attributes)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Volume         &volume = *file->volume;
  std::u16string path    = PathText (name);

  if (const FaultRule *f = volume.fw.faults.Check (Op::Open, path)) {
    return f->status;
  }

  if (name == nullptr || out == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  if (mode != EFI_FILE_MODE_READ && mode != (EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE) &&
      mode != (EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE | EFI_FILE_MODE_CREATE))
  {
    return EFI_INVALID_PARAMETER;
  }

  bool write = (mode & EFI_FILE_MODE_WRITE) != 0;
  if (volume.writeProtected && write) {
    return EFI_WRITE_PROTECTED;
  }

  if (file->node->gone) {
    return EFI_NOT_FOUND;
  }

  std::shared_ptr<Node> parent;
  std::u16string        leaf;
  EFI_STATUS            status = Resolve (volume, file->node, path, parent, leaf);
  if (EFI_ERROR (status)) {
    return status;
  }

  std::shared_ptr<Node> target = leaf.empty () ? parent : Child (*parent, leaf);
  if (!target) {
    if ((mode & EFI_FILE_MODE_CREATE) == 0) {
      return EFI_NOT_FOUND;
    }

    target         = std::make_shared<Node>();
    target->name   = leaf;
    target->dir    = (attributes & EFI_FILE_DIRECTORY) != 0;
    target->parent = parent.get ();
    parent->kids.push_back (target);
  }

  *out = NewHandle (volume, target, write);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileClose (EFI_FILE_PROTOCOL *self)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  file->volume->fw.faults.Check (Op::Close, NodePath (*file->node));
  Handles ().erase (self);
  delete file;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileDelete (EFI_FILE_PROTOCOL *self)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  std::shared_ptr<Node> node   = file->node;
  bool                  writable = file->writable;
  const FaultRule       *fault = file->volume->fw.faults.Check (Op::Delete, NodePath (*node));

  // Delete closes the handle whatever happens.
  Handles ().erase (self);
  delete file;

  if (fault != nullptr) {
    return fault->effect == Effect::NoEffect ? EFI_SUCCESS : fault->status;
  }

  if (!writable || node->parent == nullptr || (node->dir && !node->kids.empty ())) {
    return EFI_WARN_DELETE_FAILURE;
  }

  auto &kids = node->parent->kids;
  kids.erase (std::remove (kids.begin (), kids.end (), node), kids.end ());
  node->parent = nullptr;
  node->gone   = true;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileRead (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Node            &node  = *file->node;
  const FaultRule *fault = file->volume->fw.faults.Check (Op::Read, NodePath (node));

  if (fault != nullptr && fault->effect == Effect::Fail) {
    return fault->status;
  }

  if (node.gone) {
    return EFI_DEVICE_ERROR;
  }

  if (node.dir) {
    // Like FAT: "." and ".." in every folder but the root, then the entries.
    std::vector<std::shared_ptr<Node>> entries;
    if (node.parent != nullptr) {
      auto dot = std::make_shared<Node>();
      dot->name = u".";
      dot->dir  = true;
      auto dotdot = std::make_shared<Node>();
      dotdot->name = u"..";
      dotdot->dir  = true;
      entries.push_back (dot);
      entries.push_back (dotdot);
    }

    entries.insert (entries.end (), node.kids.begin (), node.kids.end ());
    if (file->dirIndex >= entries.size ()) {
      *size = 0;
      return EFI_SUCCESS;
    }

    const Node &entry = *entries[file->dirIndex];
    UINTN      need   = SIZE_OF_EFI_FILE_INFO + (entry.name.size () + 1) * sizeof (CHAR16);
    if (*size < need) {
      *size = need;
      return EFI_BUFFER_TOO_SMALL;
    }

    auto *info = static_cast<EFI_FILE_INFO *>(buffer);
    std::memset (info, 0, need);
    info->Size         = need;
    info->FileSize     = entry.data.size ();
    info->PhysicalSize = entry.data.size ();
    info->Attribute    = entry.dir ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
    std::memcpy (info->FileName, entry.name.c_str (), (entry.name.size () + 1) * sizeof (CHAR16));
    *size = need;
    file->dirIndex++;
    return EFI_SUCCESS;
  }

  if (file->position > node.data.size ()) {
    return EFI_DEVICE_ERROR;
  }

  size_t available = node.data.size () - file->position;
  size_t count     = std::min<size_t>(*size, available);
  if (fault != nullptr && fault->effect == Effect::Short) {
    count /= 2;
  }

  std::memcpy (buffer, node.data.data () + file->position, count);
  file->position += count;
  *size           = count;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileWrite (EFI_FILE_PROTOCOL *self, UINTN *size, VOID *buffer)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Node            &node  = *file->node;
  const FaultRule *fault = file->volume->fw.faults.Check (Op::Write, NodePath (node));

  if (fault != nullptr && fault->effect == Effect::Fail) {
    return fault->status;
  }

  if (node.dir) {
    return EFI_UNSUPPORTED;
  }

  if (node.gone) {
    return EFI_DEVICE_ERROR;
  }

  if (file->volume->writeProtected) {
    return EFI_WRITE_PROTECTED;
  }

  if (!file->writable) {
    return EFI_ACCESS_DENIED;
  }

  if (fault != nullptr && fault->effect == Effect::NoEffect) {
    return EFI_SUCCESS;
  }

  size_t count = *size;
  if (fault != nullptr && fault->effect == Effect::Short) {
    count /= 2;
  }

  if (node.data.size () < file->position + count) {
    node.data.resize (file->position + count);
  }

  std::memcpy (node.data.data () + file->position, buffer, count);
  file->position += count;
  *size           = count;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileGetPosition (EFI_FILE_PROTOCOL *self, UINT64 *position)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  if (const FaultRule *f = file->volume->fw.faults.Check (Op::GetPosition, NodePath (*file->node))) {
    return f->status;
  }

  if (file->node->dir) {
    return EFI_UNSUPPORTED;
  }

  *position = file->position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileSetPosition (EFI_FILE_PROTOCOL *self, UINT64 position)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  if (const FaultRule *f = file->volume->fw.faults.Check (Op::SetPosition, NodePath (*file->node))) {
    return f->status;
  }

  if (file->node->dir) {
    if (position != 0) {
      return EFI_UNSUPPORTED;
    }

    file->dirIndex = 0;
    return EFI_SUCCESS;
  }

  file->position = (position == MAX_UINT64) ? file->node->data.size () : position;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileGetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN *size, VOID *buffer)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Node &node = *file->node;
  if (const FaultRule *f = file->volume->fw.faults.Check (Op::GetInfo, NodePath (node))) {
    return f->status;
  }

  if (std::memcmp (type, &gEfiFileInfoGuid, sizeof (EFI_GUID)) != 0) {
    return EFI_UNSUPPORTED;
  }

  UINTN need = SIZE_OF_EFI_FILE_INFO + (node.name.size () + 1) * sizeof (CHAR16);
  if (*size < need) {
    *size = need;
    return EFI_BUFFER_TOO_SMALL;
  }

  auto *info = static_cast<EFI_FILE_INFO *>(buffer);
  std::memset (info, 0, need);
  info->Size         = need;
  info->FileSize     = node.data.size ();
  info->PhysicalSize = node.data.size ();
  info->Attribute    = node.dir ? EFI_FILE_DIRECTORY : EFI_FILE_ARCHIVE;
  std::memcpy (info->FileName, node.name.c_str (), (node.name.size () + 1) * sizeof (CHAR16));
  *size = need;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileSetInfo (EFI_FILE_PROTOCOL *self, EFI_GUID *type, UINTN size, VOID *buffer)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Volume                &volume = *file->volume;
  std::shared_ptr<Node> node    = file->node;
  auto                  *info   = static_cast<EFI_FILE_INFO *>(buffer);
  std::u16string        name    = (size >= SIZE_OF_EFI_FILE_INFO + 2) ? PathText (info->FileName) : u"";

  if (const FaultRule *f = volume.fw.faults.Check (Op::SetInfo, NodePath (*node) + u"->" + name)) {
    if (f->effect == Effect::NoEffect) {
      return EFI_SUCCESS;
    }

    return f->status;
  }

  if (volume.writeProtected) {
    return EFI_WRITE_PROTECTED;
  }

  if (std::memcmp (type, &gEfiFileInfoGuid, sizeof (EFI_GUID)) != 0) {
    return EFI_UNSUPPORTED;
  }

  if (node->parent == nullptr) {
    return EFI_ACCESS_DENIED;
  }

  if (size < SIZE_OF_EFI_FILE_INFO + 2 || info->Size > size) {
    return EFI_BAD_BUFFER_SIZE;
  }

  if ((info->Attribute & ~EFI_FILE_VALID_ATTR) != 0) {
    return EFI_INVALID_PARAMETER;
  }

  if (((info->Attribute & EFI_FILE_DIRECTORY) != 0) != node->dir) {
    return EFI_ACCESS_DENIED;
  }

  if (volume.rejectPathNames && name.find_first_of (u"\\/") != std::u16string::npos) {
    return EFI_INVALID_PARAMETER;
  }

  std::shared_ptr<Node> parent;
  std::u16string        leaf;
  EFI_STATUS            status = Resolve (volume, SharedOf (node->parent) ? SharedOf (node->parent) : volume.root, name, parent, leaf);
  if (EFI_ERROR (status)) {
    return status;
  }

  if (leaf.empty ()) {
    return EFI_ACCESS_DENIED;
  }

  std::shared_ptr<Node> existing = Child (*parent, leaf);
  if (existing && existing != node) {
    return EFI_ACCESS_DENIED;
  }

  if (!existing) {
    if (HasOpenDescendant (*node) || IsWithin (parent.get (), *node) || !file->writable) {
      return EFI_ACCESS_DENIED;
    }

    auto &kids = node->parent->kids;
    kids.erase (std::remove (kids.begin (), kids.end (), node), kids.end ());
    node->name   = leaf;
    node->parent = parent.get ();
    parent->kids.push_back (node);
  }

  if (info->FileSize != node->data.size ()) {
    if (node->dir || !file->writable) {
      return EFI_ACCESS_DENIED;
    }

    node->data.resize (info->FileSize);
  }

  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI FileFlush (EFI_FILE_PROTOCOL *self)
{
  OpenFile *file = Lookup (self);
  if (file == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  if (const FaultRule *f = file->volume->fw.faults.Check (Op::Flush, NodePath (*file->node))) {
    return f->status;
  }

  if (file->volume->writeProtected) {
    return EFI_WRITE_PROTECTED;
  }

  return file->writable ? EFI_SUCCESS : EFI_ACCESS_DENIED;
}

EFI_FILE_PROTOCOL *NewHandle (Volume &volume, std::shared_ptr<Node> node, bool writable)
{
  auto *file = new OpenFile ();

  file->proto.Revision    = EFI_FILE_PROTOCOL_REVISION;
  file->proto.Open        = FileOpen;
  file->proto.Close       = FileClose;
  file->proto.Delete      = FileDelete;
  file->proto.Read        = FileRead;
  file->proto.Write       = FileWrite;
  file->proto.GetPosition = FileGetPosition;
  file->proto.SetPosition = FileSetPosition;
  file->proto.GetInfo     = FileGetInfo;
  file->proto.SetInfo     = FileSetInfo;
  file->proto.Flush       = FileFlush;
  file->volume            = &volume;
  file->node              = std::move (node);
  file->writable          = writable;
  Handles ()[&file->proto] = file;
  return &file->proto;
}

EFI_STATUS EFIAPI OpenVolume (EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *self, EFI_FILE_PROTOCOL **root)
{
  for (const auto &volume : Firmware::Current ().volumes) {
    if (&volume->sfs == self) {
      if (const FaultRule *f = volume->fw.faults.Check (Op::OpenVolume)) {
        return f->status;
      }

      *root = NewHandle (*volume, volume->root, !volume->writeProtected);
      return EFI_SUCCESS;
    }
  }

  ADD_FAILURE () << "OpenVolume on an unknown volume";
  return EFI_INVALID_PARAMETER;
}

// Test-side path walk: '\' and '/' both separate.
std::shared_ptr<Node> Walk (const Volume &volume, const std::string &path)
{
  std::shared_ptr<Node> node = volume.root;
  for (const auto &part : Split (U16 (path), true)) {
    node = node->dir ? Child (*node, part) : nullptr;
    if (!node) {
      return nullptr;
    }
  }

  return node;
}

void Collect (const Node &dir, const std::string &prefix, std::map<std::string, std::string> &out)
{
  for (const auto &kid : dir.kids) {
    std::string path = prefix + "\\" + Narrow (kid->name);
    out[path] = kid->dir ? std::string ("<dir>") : std::string (kid->data.begin (), kid->data.end ());
    if (kid->dir) {
      Collect (*kid, path, out);
    }
  }
}

}  // namespace

Volume::Volume (Firmware &firmware, EFI_HANDLE handle) : fw (firmware), root (std::make_shared<Node>()), handle_ (handle)
{
  root->dir = true;
  std::memset (&sfs, 0, sizeof (sfs));
  sfs.Revision   = EFI_SIMPLE_FILE_SYSTEM_PROTOCOL_REVISION;
  sfs.OpenVolume = OpenVolume;
}

Volume::~Volume ()
{
  for (auto it = Handles ().begin (); it != Handles ().end ();) {
    if (it->second->volume == this) {
      delete it->second;
      it = Handles ().erase (it);
    } else {
      ++it;
    }
  }
}

void Volume::Mkdir (const std::string &path)
{
  std::shared_ptr<Node> node = root;
  for (const auto &part : Split (U16 (path), true)) {
    std::shared_ptr<Node> next = Child (*node, part);
    if (!next) {
      next         = std::make_shared<Node>();
      next->name   = part;
      next->dir    = true;
      next->parent = node.get ();
      node->kids.push_back (next);
    }

    node = next;
  }
}

void Volume::Put (const std::string &path, const std::string &bytes)
{
  auto        parts = Split (U16 (path), true);
  std::string dir;
  for (size_t i = 0; i + 1 < parts.size (); ++i) {
    dir += "\\" + Narrow (parts[i]);
  }

  Mkdir (dir);
  std::shared_ptr<Node> parent = Walk (*this, dir);
  std::shared_ptr<Node> file   = Child (*parent, parts.back ());
  if (!file) {
    file         = std::make_shared<Node>();
    file->name   = parts.back ();
    file->parent = parent.get ();
    parent->kids.push_back (file);
  }

  file->data.assign (bytes.begin (), bytes.end ());
}

void Volume::Remove (const std::string &path)
{
  if (std::shared_ptr<Node> node = Walk (*this, path)) {
    auto &kids = node->parent->kids;
    kids.erase (std::remove (kids.begin (), kids.end (), node), kids.end ());
    node->parent = nullptr;
    node->gone   = true;
  }
}

bool Volume::Exists (const std::string &path) const
{
  return Walk (*this, path) != nullptr;
}

std::string Volume::Get (const std::string &path) const
{
  std::shared_ptr<Node> node = Walk (*this, path);
  if (!node || node->dir) {
    ADD_FAILURE () << "no file " << path;
    return "";
  }

  return std::string (node->data.begin (), node->data.end ());
}

std::vector<std::string> Volume::List (const std::string &dir) const
{
  std::vector<std::string> names;
  if (std::shared_ptr<Node> node = Walk (*this, dir)) {
    for (const auto &kid : node->kids) {
      names.push_back (Narrow (kid->name));
    }
  }

  return names;
}

std::map<std::string, std::string> Volume::Snapshot () const
{
  std::map<std::string, std::string> out;
  Collect (*root, "", out);
  return out;
}

int Volume::OpenHandles () const
{
  int count = 0;
  for (const auto &[proto, file] : Handles ()) {
    count += (file->volume == this) ? 1 : 0;
  }

  return count;
}

}  // namespace fake
