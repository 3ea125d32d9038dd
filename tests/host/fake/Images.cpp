// Image services and file-system driver images of the fake, as the DXE core has them
// (MdeModulePkg/Core/Dxe/Image/Image.c; ConnectController in Hand/DriverSupport.c). A
// driver file is a few bytes naming an entry of the firmware's list of drivers; started,
// the driver takes part in every ConnectController, mounting only a partition whose first
// block is its kind's boot sector and whose volume the test made, once its delay (in
// simulated time: the application's stalls) has passed.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace fake {

size_t NodeLength (const uint8_t *node) { return node[2] | node[3] << 8; }

namespace {

const std::string kDriverTag = "MZ fake file-system driver #";
const uint8_t     kEnd[]     = { END_DEVICE_PATH_TYPE, END_ENTIRE_DEVICE_PATH_SUBTYPE, 4, 0 };

// The bytes of a path's first instance before its End node; a malformed node ends it too.
size_t InstanceSize (const uint8_t *path) {
  size_t size = 0;
  while (path[size] != END_DEVICE_PATH_TYPE && NodeLength (path + size) >= 4) size += NodeLength (path + size);
  return size;
}

// CoreLocateDevicePath: of the handles with that protocol, the one whose own device path
// is the longest prefix of the path's first instance (the first such, on a tie); null if
// none. *matched: the length of that prefix.
EFI_HANDLE Locate (const Firmware &fw, const EFI_GUID &guid, const uint8_t *path, size_t *matched) {
  const size_t size = InstanceSize (path);
  EFI_HANDLE   best = nullptr;
  *matched          = 0;
  for (EFI_HANDLE handle : fw.HandlesWith (&guid)) {
    const auto *own = static_cast<const uint8_t *>(fw.Find (handle, gEfiDevicePathProtocolGuid));
    if (own == nullptr) continue;
    const size_t n = InstanceSize (own);
    if (n <= size && (best == nullptr || n > *matched) && std::memcmp (own, path, n) == 0) best = handle, *matched = n;
  }
  return best;
}

// The names in the file-path nodes of a path's first instance, in order; false if another
// kind of node is among them (GetFileBufferByFilePath then gives up on the file system).
bool FileNames (const uint8_t *path, std::vector<std::u16string> &names) {
  bool only = true;
  for (; path[0] != END_DEVICE_PATH_TYPE && NodeLength (path) >= 4; path += NodeLength (path)) {
    std::u16string name ((NodeLength (path) - 4) / 2, u'\0');
    std::memcpy (name.data (), path + 4, name.size () * 2);
    if (path[0] == MEDIA_DEVICE_PATH && path[1] == MEDIA_FILEPATH_DP) names.push_back (name.substr (0, name.find (u'\0')));
    else only = false;
  }
  return only;
}

// The file, as GetFileBufferByFilePath reads it: each node opened from the one before,
// starting at the root; false when a name is missing or names a folder.
bool ReadFile (EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *fs, const std::vector<std::u16string> &names, std::string &bytes) {
  RawFile file;
  if (fs == nullptr || EFI_ERROR (fs->OpenVolume (fs, &file.file))) return false;
  for (const std::u16string &name : names) {
    RawFile last (file.Take ());
    if (EFI_ERROR (last->Open (last.file, &file.file, C16 (name), EFI_FILE_MODE_READ, 0))) return false;
  }
  if (InfoOf (file.file).empty () || IsDir (file.file)) return false;
  bytes = ReadAll (file.file);
  return true;
}

// The entry of fw.drivers a driver file names; -1 for bytes that are no image.
long DriverIndex (const std::string &bytes, size_t registered) {
  const std::string digits = bytes.compare (0, kDriverTag.size (), kDriverTag) == 0 ? bytes.substr (kDriverTag.size ()) : "";
  const bool        number = !digits.empty () && digits.size () <= 6 && digits.find_first_not_of ("0123456789") == std::string::npos;
  return number && std::stoul (digits) < registered ? static_cast<long>(std::stoul (digits)) : -1;
}

EFI_STATUS Load (Firmware &fw, const std::string &form, EFI_HANDLE parent, const uint8_t *path, const VOID *buffer, UINTN size,
                 EFI_HANDLE *out) {
  if (out == nullptr || parent == nullptr || fw.Find (parent, gEfiLoadedImageProtocolGuid) == nullptr) return EFI_INVALID_PARAMETER;
  EFI_HANDLE                  device = nullptr;
  size_t                      deviceBytes = 0;
  std::string                 bytes;
  std::vector<std::u16string> names;
  if (buffer != nullptr) {
    // The copy is used as given; the device is whatever handle the path starts with.
    if (path != nullptr) device = Locate (fw, gEfiDevicePathProtocolGuid, path, &deviceBytes);
    if (size == 0) return EFI_LOAD_ERROR;
    bytes.assign (static_cast<const char *>(buffer), size);
  } else {
    if (path == nullptr) return EFI_INVALID_PARAMETER;
    // The firmware reads the file through the file system's own protocol: not the
    // application's calls, so none of its faults.
    device = Locate (fw, gEfiSimpleFileSystemProtocolGuid, path, &deviceBytes);
    if (device == nullptr || !FileNames (path + deviceBytes, names) ||
        !ReadFile (static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *>(fw.Find (device, gEfiSimpleFileSystemProtocolGuid)), names, bytes)) {
      return EFI_NOT_FOUND;
    }
  }

  // The security verdict on the bytes in hand: a violation still loads the image.
  std::u16string text = u"[" + U16 (form) + u"]";
  names.clear ();
  if (path != nullptr) FileNames (path, names);
  for (const std::u16string &name : names) text += name;
  const Fault     *verdict  = fw.faults.Check (Op::LoadImage, text);
  const EFI_STATUS security = verdict == nullptr ? EFI_SUCCESS : verdict->status;
  if (security == EFI_ACCESS_DENIED) *out = nullptr;
  if (EFI_ERROR (security) && security != EFI_SECURITY_VIOLATION) return security;
  // Bytes with no image header, an empty file read by path among them: the core's PE/COFF
  // loader finds none (CoreLoadPeImage, PeCoffLoaderGetImageInfo) and the answer is
  // EFI_UNSUPPORTED, whatever the security verdict; OVMF answers so for each form.
  const long driver = DriverIndex (bytes, fw.drivers.size ());
  if (driver < 0) return EFI_UNSUPPORTED;

  Image &image     = *fw.images.emplace_back (std::make_unique<Image>());
  image.handle     = fw.NewHandle ();
  image.loadStatus = security;
  image.driver     = fw.drivers[driver];
  if (path != nullptr) {
    // What follows the device's own path (all of it when no device was found).
    const uint8_t *rest = path + deviceBytes;
    image.filePath.assign (rest, rest + InstanceSize (rest));
    image.filePath.insert (image.filePath.end (), std::begin (kEnd), std::end (kEnd));
  }
  image.info = { EFI_LOADED_IMAGE_PROTOCOL_REVISION, parent, &fw.driverSt, device,
                 image.filePath.empty () ? nullptr : reinterpret_cast<EFI_DEVICE_PATH_PROTOCOL *>(image.filePath.data ()),
                 nullptr, 0, nullptr, nullptr, 0, EfiBootServicesCode, EfiBootServicesData, nullptr };
  fw.Install (image.handle, gEfiLoadedImageProtocolGuid, &image.info);
  *out = image.handle;
  return security;
}

Image *Loaded (Firmware &fw, EFI_HANDLE handle) {
  auto it = std::find_if (fw.images.begin (), fw.images.end (), [&](const auto &image) { return image->handle == handle && !image->unloaded; });
  return it == fw.images.end () ? nullptr : it->get ();
}

void Unload (Firmware &fw, Image &image) { fw.Uninstall (image.handle, gEfiLoadedImageProtocolGuid), image.unloaded = true; }

EFI_STATUS EFIAPI LoadImage (BOOLEAN, EFI_HANDLE parent, EFI_DEVICE_PATH_PROTOCOL *path, VOID *buffer, UINTN size, EFI_HANDLE *out) {
  Firmware         &fw    = Firmware::Current ();
  const std::string form  = buffer == nullptr ? "path" : path != nullptr ? "buffer+path" : "buffer";
  const size_t      made  = fw.images.size ();
  const EFI_STATUS status = Load (fw, form, parent, reinterpret_cast<const uint8_t *>(path), buffer, size, out);
  fw.loads.push_back ({ form, parent, status, fw.images.size () > made ? fw.images.back ()->handle : nullptr });
  return status;
}

// An entry point that fails gets its image unloaded, as the core does; a driver that
// succeeds stays resident.
EFI_STATUS EFIAPI StartImage (EFI_HANDLE handle, UINTN *exitDataSize, CHAR16 **exitData) {
  Firmware &fw = Firmware::Current ();
  if (const Fault *f = fw.faults.Check (Op::StartImage)) return f->status;
  Image *image = Loaded (fw, handle);
  if (image == nullptr || image->started) return EFI_INVALID_PARAMETER;
  if (EFI_ERROR (image->loadStatus)) return image->loadStatus;
  image->started = true;
  if (exitDataSize != nullptr && exitData != nullptr) *exitDataSize = 0, *exitData = nullptr;
  // The core unloads an application once its entry point returns, and a driver that failed.
  if (EFI_ERROR (image->driver.entryStatus) || image->driver.application) Unload (fw, *image);
  return image->driver.entryStatus;
}

// Our drivers have no Unload function: once started they stay.
EFI_STATUS EFIAPI UnloadImage (EFI_HANDLE handle) {
  Firmware &fw = Firmware::Current ();
  if (const Fault *f = fw.faults.Check (Op::UnloadImage)) return f->status;
  Image *image = Loaded (fw, handle);
  if (image == nullptr) return EFI_INVALID_PARAMETER;
  if (image->started) return EFI_UNSUPPORTED;
  Unload (fw, *image);
  return EFI_SUCCESS;
}

// Whether the controller is a partition whose first block carries that kind's boot
// sector, read as the driver reads it: below the application's faults and read log.
bool HasBootSector (const Firmware &fw, EFI_HANDLE controller, Fs kind) {
  const char *oem = kind == Fs::Ntfs ? "NTFS    " : kind == Fs::Exfat ? "EXFAT   " : nullptr;
  const auto *io  = static_cast<const EFI_BLOCK_IO_PROTOCOL *>(fw.Find (controller, gEfiBlockIoProtocolGuid));
  auto        device = std::find_if (fw.blockDevices.begin (), fw.blockDevices.end (), [&](const auto &d) { return &d->proto == io; });
  if (oem == nullptr || device == fw.blockDevices.end () || io->Media == nullptr || !io->Media->MediaPresent || !io->Media->LogicalPartition) return false;
  uint8_t start[11] = {};
  if ((*device)->disk) (*device)->disk->Read (0, start, sizeof (start));
  else std::copy_n ((*device)->bytes.begin (), std::min ((*device)->bytes.size (), sizeof (start)), start);
  return std::memcmp (start + 3, oem, 8) == 0;
}

// A resident driver's Supported and Start: a partition of its kind whose volume no
// driver has mounted or is mounting. Start only schedules the mount.
bool StartOn (Firmware &fw, Image &driver, EFI_HANDLE controller) {
  if (!driver.started || driver.unloaded || driver.driver.application || fw.Find (controller, gEfiSimpleFileSystemProtocolGuid) != nullptr) return false;
  // A mount under way answers EFI_ALREADY_STARTED or EFI_ACCESS_DENIED.
  if (std::any_of (fw.images.begin (), fw.images.end (), [&](const auto &image) { return image->mounts.count (controller) != 0; }) ||
      std::none_of (fw.volumes.begin (), fw.volumes.end (), [&](const auto &v) { return v->Handle () == controller; }) ||
      !HasBootSector (fw, controller, driver.driver.kind)) return false;
  const int64_t after = driver.driver.mountAfterMs;
  driver.mounts[controller] = after < 0 ? UINT64_MAX : fw.stalledUs + static_cast<uint64_t>(after) * 1000;
  return true;
}

// As the DXE core: EFI_SUCCESS when a driver started on the controller, else EFI_NOT_FOUND.
// The test's hook goes first, as a driver the platform already had.
EFI_STATUS EFIAPI ConnectController (EFI_HANDLE controller, EFI_HANDLE *, EFI_DEVICE_PATH_PROTOCOL *, BOOLEAN) {
  Firmware &fw = Firmware::Current ();
  if (!fw.IsHandle (controller)) return EFI_INVALID_PARAMETER;
  fw.connects++;
  if (const Fault *f = fw.faults.Check (Op::ConnectController)) return f->status;
  const EFI_STATUS hook    = fw.connect ? fw.connect (controller) : EFI_NOT_FOUND;
  bool             started = false;
  for (const auto &image : fw.images) started = StartOn (fw, *image, controller) || started;
  fw.Tick ();
  return started ? EFI_SUCCESS : hook;
}

}  // namespace

void Firmware::UseImageServices (EFI_BOOT_SERVICES &table, bool app) {
  table.ConnectController = ConnectController;
  if (!app) return;
  table.LoadImage   = LoadImage;
  table.StartImage  = StartImage;
  table.UnloadImage = UnloadImage;
}

std::string Firmware::DriverFile (const DriverImage &driver) {
  drivers.push_back (driver);
  return kDriverTag + std::to_string (drivers.size () - 1);
}

Volume &Firmware::AddUnmountedVolume (Fs fs) {
  Volume &volume = AddVolume (fs);
  Uninstall (volume.Handle (), gEfiSimpleFileSystemProtocolGuid);
  return volume;
}

unsigned Firmware::ImagesLoadedNotStarted () const {
  return static_cast<unsigned>(std::count_if (images.begin (), images.end (), [](const auto &i) { return !i->started && !i->unloaded; }));
}

const Image *Firmware::StartedApplication () const {
  auto it = std::find_if (images.rbegin (), images.rend (), [](const auto &i) { return i->started && i->driver.application; });
  return it == images.rend () ? nullptr : it->get ();
}

unsigned Firmware::ResidentDrivers () const {
  return static_cast<unsigned>(std::count_if (images.begin (), images.end (), [](const auto &i) { return i->started && !i->unloaded; }));
}

void Firmware::Tick () {
  for (const auto &image : images) {
    for (auto mount = image->mounts.begin (); mount != image->mounts.end ();) {
      if (mount->second > stalledUs) {
        ++mount;   // not due yet
        continue;
      }
      for (const auto &volume : volumes) {
        if (volume->Handle () == mount->first && Find (mount->first, gEfiSimpleFileSystemProtocolGuid) == nullptr) {
          Install (mount->first, gEfiSimpleFileSystemProtocolGuid, volume->raw), volume->writeProtected = image->driver.readOnly;
        }
      }
      mount = image->mounts.erase (mount);
    }
  }
}

std::vector<uint8_t> WithFilePath (const std::vector<uint8_t> &device, const std::string &path) {
  std::u16string name = U16 (path);
  std::replace (name.begin (), name.end (), u'/', u'\\');
  const size_t         length = 4 + (name.size () + 1) * sizeof (char16_t);
  const uint8_t        *text  = reinterpret_cast<const uint8_t *>(name.c_str ());
  std::vector<uint8_t> out (device.begin (), device.end () - std::min<size_t>(4, device.size ()));
  out.insert (out.end (), { MEDIA_DEVICE_PATH, MEDIA_FILEPATH_DP, static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8) });
  out.insert (out.end (), text, text + length - 4);
  out.insert (out.end (), std::begin (kEnd), std::end (kEnd));
  return out;
}

}  // namespace fake
