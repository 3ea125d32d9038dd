// A fake UEFI firmware for host tests: pool, handle database, console, clock and volumes.
// Every volume is served by EDK II's own FAT driver (FatPkg/EnhancedFatDxe, compiled
// natively) over a memory disk formatted by the real mkfs.fat. An NTFS or exFAT volume is
// that driver on a disk of its own, while the Block I/O the application reads on its handle
// carries the boot sector that file system's tool writes. The application sees every volume
// through a thin layer that can make any file operation fail, come up short or claim
// success without effect, and plays what sets other drivers apart: names that match only in
// their own case, paths refused in a rename, roots that keep showing the volume as it was.
#pragma once

#include <array>
#include <deque>
#include <functional>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Velmaro.h>

#include <Protocol/DiskIo.h>
#include <Protocol/DriverBinding.h>

extern "C" {
#include <Protocol/Shell.h>
#include <Protocol/EfiShellInterface.h>
#include <Protocol/EfiShellEnvironment2.h>
}

namespace fake {

// The file system a volume shows the application (see above: the driver is FAT's for all).
enum class Fs { Fat32, Ntfs, Exfat };

enum class Op {
  None,   // a fault row that injects nothing
  Open, Close, Delete, Read, Write, GetPosition, SetPosition, GetInfo, SetInfo, Flush,
  OpenVolume, HandleProtocol, OpenProtocol, LocateHandleBuffer, LocateProtocol,
  AllocatePool, GetTime, WaitForEvent, ReadKeyStroke, ReadBlocks,
  ShellExecute,   // the shell's Execute call itself (path: the command line)
  ShellCommand,   // the command it runs: the fault's status is the command's (path: the command line)
  // The platform's security verdict on an image, asked once its bytes are in hand, as the
  // DXE core asks: EFI_SECURITY_VIOLATION still loads the image (never to be started), any
  // other status loads none (EFI_ACCESS_DENIED also nulls the handle). Path: the call's form,
  // "[path]", "[buffer+path]" or "[buffer]" (so "buffer" matches both forms with a buffer,
  // "path]" both with a path), then the names in the path's file nodes.
  LoadImage,
  StartImage,        // fails before the entry point runs: the image stays loaded
  UnloadImage,
  ConnectController  // nothing is connected
};

enum class Effect {
  Fail,      // the call returns the fault's status and does nothing (a Read or GetInfo answered
             // EFI_BUFFER_TOO_SMALL also asks for more than the buffer, as a driver does)
  Short,     // a Read or Write moves half the bytes it could, and says so
  NoEffect   // the call reports success and changes nothing (Close and Delete still close)
};

// nth: 1-based among matching calls, 0 for every call; path: only calls on a path containing
// this text match
struct Fault { Op op = Op::None; EFI_STATUS status = EFI_SUCCESS; unsigned nth = 0; std::string path; Effect effect = Effect::Fail; };

class Faults {
 public:
  void Add (const Fault &fault);
  void Set (const Fault &fault) { Reset (); Add (fault); }   // this fault alone, counts restarted
  void Fail (Op op, EFI_STATUS status, unsigned nth = 0, const std::string &path = "") { Add ({ op, status, nth, path }); }
  // Counts the call and returns the fault that fires for it, if any.
  const Fault *Check (Op op, const std::u16string &path = u"");
  unsigned Calls (Op op) const { return calls_.count (op) != 0 ? calls_.at (op) : 0; }
  void Reset () { rules_.clear (), calls_.clear (); }

  // While a test points this at a list, every counted call goes there in order with the path
  // it names (none for OpenVolume); a Read that succeeds adds the bytes it moved.
  struct Call { Op op; std::u16string path; uint64_t bytes; };
  std::vector<Call> *record = nullptr;

 private:
  struct Rule { Fault fault; std::u16string path; unsigned seen; };
  std::vector<Rule>       rules_;
  std::map<Op, unsigned>  calls_;
};

class Firmware;

// The bytes of a medium: a shared template (the formatted image) under the chunks written
// since, so that copying a 33 MiB FAT32 volume costs only what was written to it.
class Disk {
 public:
  Disk () = default;
  explicit Disk (std::vector<uint8_t> bytes) : base_ (std::make_shared<const std::vector<uint8_t>>(std::move (bytes))) {}
  uint64_t Size () const { return base_ ? base_->size () : 0; }
  void Read (uint64_t offset, void *buffer, size_t count) const;
  void Write (uint64_t offset, const void *buffer, size_t count);
  std::vector<uint8_t> Bytes () const;   // the whole medium

 private:
  std::shared_ptr<const std::vector<uint8_t>>  base_;
  std::map<uint64_t, std::vector<uint8_t>>     written_;
};

// A disk or partition behind EFI_BLOCK_IO_PROTOCOL, answering as a USB mass storage or
// partition driver does. A test may clear media.MediaPresent or set proto.Media to null.
// With a disk, the whole medium is that disk (a volume's, Disk I/O too); without, bytes.
struct BlockDevice {
  EFI_HANDLE                              handle;
  EFI_BLOCK_IO_PROTOCOL                   proto{};
  EFI_BLOCK_IO_MEDIA                      media{};
  std::vector<uint8_t>                    bytes;   // the first blocks; the rest of the medium reads as zeros
  std::vector<std::pair<EFI_LBA, UINTN>>  reads;   // every ReadBlocks request: LBA, buffer size
  std::shared_ptr<Disk>                   disk;
  EFI_DISK_IO_PROTOCOL                    diskIo{};
};

class Volume {
 public:
  Volume (Firmware &fw, const Disk &image);
  ~Volume ();
  Volume (const Volume &) = delete;

  // Test-side view, through the driver with no faults and no counting, each change
  // flushed; paths use '\' or '/', names match as the volume matches them.
  void Mkdir (const std::string &path);
  void Put (const std::string &path, const std::string &bytes);
  void Remove (const std::string &path);
  bool Exists (const std::string &path) const;
  std::string Get (const std::string &path) const;
  std::vector<std::string> List (const std::string &dir) const;   // names as stored
  std::map<std::string, std::string> Snapshot () const;           // every path -> bytes ("<dir>" for folders)

  EFI_HANDLE Handle () const { return handle; }
  int OpenHandles () const;   // file handles the application holds, roots included

  bool rejectPathNames = false;   // SetInfo answers a path in FileName with EFI_INVALID_PARAMETER
  bool writeProtected = false;    // mounted read-only: opens for writing and every change answer EFI_WRITE_PROTECTED
  bool staleView = false;         // a root keeps showing lookups and reads the volume as it was when opened
  bool exactNames = false;        // names match only in their own letter case, as on NTFS
  void MatchNamesExactly () { exactNames = true; }

  // What the driver has written to the medium so far (not what it still caches);
  // fw.AddVolume (image) mounts it again, as after a power cut.
  Disk DiskImage () const { return *device->disk; }

  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  sfs;   // what the application opens
  Firmware                         &fw;
  EFI_HANDLE                       handle;
  BlockDevice                      *device;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *raw;   // the driver's own, below faults and switches
};

// --- The firmware's shell (Shell.cpp) ---------------------------------------------
// The shell the application was started from, found through LocateProtocol once a test
// installs it: EFI_SHELL_PROTOCOL as ShellPkg implements it, EFI_SHELL_ENVIRONMENT2 as its
// header describes it. Its commands reach the volumes through the FAT driver's own protocol.
class Shell {
 public:
  Shell ();
  void UseShellProtocol (bool on) { Install (gEfiShellProtocolGuid, &protocol, on); }
  void UseEnvironment2 (bool on) { Install (gEfiShellEnvironment2Guid, &environment2, on); }
  void Start ();   // names the devices as a shell starting now does (else done at first use)

  // A test may null members to model a shell without them.
  EFI_SHELL_PROTOCOL        protocol{};
  EFI_SHELL_ENVIRONMENT2    environment2{};
  // ShellPkg runs each EFI_SHELL_PROTOCOL Execute in a shell started for it (unless started
  // with -nonest): names made afresh, and whatever "map -u" adds there goes with it.
  bool                      nested = true;
  std::string               cwd;        // "FS0:\efi"; empty: no current directory
  std::vector<std::string>  commands;   // every command line run, in order
  std::deque<std::u16string> answers;   // GetMapFromDevicePath's answers: the shell's to free

  struct Mapping { std::string name, path; bool consistent; };   // "FS0:", device path as text (upper case)
  struct Table { std::vector<Mapping> maps; unsigned fs = 0, blk = 0; };
  Table       table;   // the started shell's
  bool        started = false;
  EFI_HANDLE  handle = nullptr;

 private:
  void Install (const EFI_GUID &guid, void *iface, bool on);
};
// --- end of the shell ----------------------------------------------------------------

// --- Images (Images.cpp) ---------------------------------------------------------------
// A file-system driver as a test ships it in a file (Firmware::DriverFile). Once started it
// takes part in every ConnectController: it mounts a partition whose first block is its
// kind's boot sector and whose volume the test made (see AddUnmountedVolume), nothing else.
struct DriverImage {
  Fs         kind = Fs::Ntfs;             // Fs::Ntfs or Fs::Exfat: the boot sectors it recognises
  int64_t    mountAfterMs = 0;            // simulated time (stalls) after a connect before its file system appears; -1: never
  bool       readOnly = false;            // mounts write-protected
  EFI_STATUS entryStatus = EFI_SUCCESS;   // what its entry point returns
  bool       application = false;         // an application (the installer): mounts nothing, unloaded once it returns
};

// An image LoadImage made; its handle carries `info` until it is unloaded.
struct Image {
  EFI_HANDLE                      handle = nullptr;
  EFI_LOADED_IMAGE_PROTOCOL       info{};
  std::vector<uint8_t>            filePath;                  // what info.FilePath points at
  EFI_STATUS                      loadStatus = EFI_SUCCESS;  // EFI_SECURITY_VIOLATION: never to be started
  DriverImage                     driver;
  bool                            started = false, unloaded = false;
  std::map<EFI_HANDLE, uint64_t>  mounts;   // controllers whose file system it has yet to publish: stalledUs then (UINT64_MAX: never)
};

// One LoadImage call. form: "path" (no buffer), "buffer+path" or "buffer"; image: the handle returned, if any.
struct LoadCall { std::string form; EFI_HANDLE parent; EFI_STATUS status; EFI_HANDLE image; };
// --- end of images ---------------------------------------------------------------------

class Firmware {
 public:
  Firmware ();
  ~Firmware ();
  Firmware (const Firmware &) = delete;

  static Firmware &Current ();

  // Handle database: a handle exists while it holds a protocol, as in the firmware.
  EFI_HANDLE NewHandle () { return reinterpret_cast<EFI_HANDLE>(nextHandle_ += 0x10); }
  void Install (EFI_HANDLE handle, const EFI_GUID &guid, void *iface) { installed_.push_back ({ handle, guid, iface }); }
  void Uninstall (EFI_HANDLE handle, const EFI_GUID &guid);
  void *Find (EFI_HANDLE handle, const EFI_GUID &guid) const;
  bool IsHandle (EFI_HANDLE handle) const;
  std::vector<EFI_HANDLE> HandlesWith (const EFI_GUID *guid) const;   // null: every handle, in the order first installed

  // Block I/O and device path on any handle; a volume's handle takes those of its partition.
  BlockDevice &AddBlockIo (EFI_HANDLE handle, const std::vector<uint8_t> &firstBlocks, UINT32 blockSize = 512,
                           bool logicalPartition = true);
  BlockDevice &AddDisk (EFI_HANDLE handle, std::shared_ptr<Disk> disk);   // Block I/O and Disk I/O over a medium
  void RemoveDevice (BlockDevice *device);
  void SetDevicePath (EFI_HANDLE handle, std::vector<uint8_t> bytes);
  // The FAT driver's Supported and Start on a controller (its file system there, or null); Stop.
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *ConnectFat (EFI_HANDLE controller);
  void DisconnectFat (EFI_HANDLE controller) { fatBinding_->Stop (fatBinding_, controller, 0, nullptr); }

  Volume &AddVolume (Fs fs = Fs::Fat32);
  Volume &AddVolume (const Disk &image);   // a volume on a copy of that medium
  // The application image: started from this volume with these load options (UTF-16).
  void StartFrom (Volume &volume) { loadedImage.DeviceHandle = volume.Handle (); }
  void SetLoadOptions (const std::u16string &options);
  void SetLoadOptionBytes (const std::vector<uint8_t> &bytes);

  // Simulated clock: the local APIC counter counts down from counterStart to 0, wrapping;
  // with countsUp, a free-running counter (the time-stamp counter we ship) counts from 0
  // up to counterStart.
  void AdvanceMs (uint64_t ms);
  void CountUp () { countsUp = true; counter = 0; }
  bool     countsUp = false;
  uint64_t counter = 0;
  uint64_t counterStart = 0xFFFFFFFFull;
  uint64_t frequency    = 200000000ull;

  static size_t LivePool ();   // the application's pool buffers
  int OpenHandles () const;    // file handles open on all volumes

  // Images (Images.cpp). A driver file's bytes: "MZ", then the index of the driver in `drivers`.
  std::string DriverFile (const DriverImage &driver);
  // An application's file whose entry point returns exitStatus (a stand-in installer).
  std::string ApplicationFile (EFI_STATUS exitStatus) { return DriverFile ({ Fs::Fat32, -1, false, exitStatus, true }); }
  const Image *StartedApplication () const;   // the last application started, if any
  Volume &AddUnmountedVolume (Fs fs);   // its Block I/O and boot sector there, its file system not yet mounted
  unsigned ImagesLoadedNotStarted () const;   // neither started nor unloaded: what an attempt left behind
  unsigned ResidentDrivers () const;          // started and still loaded
  // Publishes the file systems drivers have mounted by now (stalledUs). Done at the
  // application's handle lookups and stalls, between which a real driver's would appear.
  void Tick ();
  std::vector<DriverImage>             drivers;   // every DriverFile, by the index its bytes carry
  std::vector<std::unique_ptr<Image>>  images;    // every image LoadImage made, unloaded ones too
  std::vector<LoadCall>                loads;     // every LoadImage call, in order

  Faults                     faults;
  // What ConnectController does first, before the started drivers are tried: the call
  // answers EFI_SUCCESS if a driver started, else what this answered (none: EFI_NOT_FOUND).
  std::function<EFI_STATUS (EFI_HANDLE)> connect;
  unsigned                   connects = 0;
  uint64_t                   stalledUs = 0;   // every Stall the application made, in total
  Shell                      shell;
  std::u16string             console;        // everything printed
  std::vector<UINTN>         attributes;     // every SetAttribute
  unsigned                   keyWaits = 0;
  unsigned                   keyReads = 0;
  EFI_TIME                   now{};
  EFI_TPL                    tpl = TPL_APPLICATION;
  EFI_HANDLE                 image;
  EFI_LOADED_IMAGE_PROTOCOL  loadedImage{};

  EFI_SYSTEM_TABLE                 st{};
  EFI_BOOT_SERVICES                bs{};
  EFI_RUNTIME_SERVICES             rt{};
  EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL  conOut{};
  EFI_SIMPLE_TEXT_OUTPUT_MODE      conOutMode{};
  EFI_SIMPLE_TEXT_INPUT_PROTOCOL   conIn{};
  // What the drivers are given: their own tables, so that their calls are never counted
  // as the application's nor hit by its faults, and their pool is not its pool.
  EFI_SYSTEM_TABLE                 driverSt{};
  EFI_BOOT_SERVICES                driverBs{};
  EFI_RUNTIME_SERVICES             driverRt{};
  std::vector<std::unique_ptr<Volume>>       volumes;
  std::vector<std::unique_ptr<BlockDevice>>  blockDevices;

 private:
  struct Installed { EFI_HANDLE handle; EFI_GUID guid; void *iface; };
  std::vector<Installed>        installed_;   // in the order installed
  uintptr_t                     nextHandle_ = 0x1000;
  EFI_LOADED_IMAGE_PROTOCOL     driverImages_[2]{};
  EFI_DRIVER_BINDING_PROTOCOL   *fatBinding_ = nullptr;
  long                          driverPoolAtStart_ = 0;
  std::vector<uint8_t>          loadOptions_;
  std::map<EFI_HANDLE, std::vector<uint8_t>> devicePaths_;

  void UseImageServices (EFI_BOOT_SERVICES &table, bool app);   // the drivers' table gets ConnectController alone
};

// Device paths as a USB stick's partitions carry them: PciRoot(0)/Pci(0x14,0)/USB(port,0),
// then a Hard Drive node and End.
std::vector<uint8_t> UsbDiskPath (uint8_t port);
std::vector<uint8_t> WithMbrPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber, uint32_t signature);
std::vector<uint8_t> WithGptPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber,
                                       const std::array<uint8_t, 16> &guid);
// A device's path followed by a file-path node (a path on that volume, '\\' or '/') and End.
std::vector<uint8_t> WithFilePath (const std::vector<uint8_t> &device, const std::string &path);
size_t NodeLength (const uint8_t *node);   // of a device-path node

// The first 4096 bytes of a small image formatted by the real tool at test time
// ("fat32", "fat16", "ntfs", "exfat"; made once per process), and the UUID blkid reports
// for that image. A missing tool fails the test.
std::vector<uint8_t> BootSectorImage (const std::string &kind);
std::string BlkidUuid (const std::string &kind);
// The whole "fat32" image (FAT32 with one sector per cluster), on which every volume starts.
Disk FormattedFat32 ();

std::u16string U16 (const std::string &ascii);
std::string Narrow (const std::u16string &text);

// --- A driver's own file protocol, as the fake's parts use it (Volume.cpp): no faults, no counts ---
struct RawFile {   // a handle on it, closed when it goes
  EFI_FILE_PROTOCOL *file = nullptr;
  RawFile (EFI_FILE_PROTOCOL *f = nullptr) : file (f) {}
  RawFile (RawFile &&other) noexcept : file (other.Take ()) {}
  ~RawFile () { if (file != nullptr) file->Close (file); }
  EFI_FILE_PROTOCOL *Take () { return std::exchange (file, nullptr); }
  EFI_FILE_PROTOCOL *operator-> () const { return file; }
  explicit operator bool () const { return file != nullptr; }
};
using Listing = std::vector<std::pair<std::u16string, bool>>;   // a folder's entries: name, folder or not
CHAR16 *C16 (const std::u16string &text);
std::u16string RootPath (const std::string &path);   // '\\' or '/', "." and ".." resolved: "\\a\\b" ("\\" for the root)
std::vector<uint8_t> InfoOf (EFI_FILE_PROTOCOL *file);   // its EFI_FILE_INFO; empty if GetInfo fails
const EFI_FILE_INFO *Info (const std::vector<uint8_t> &info);   // null for empty
bool IsDir (EFI_FILE_PROTOCOL *file);
Listing Entries (EFI_FILE_PROTOCOL *dir);   // "." and ".." left out
std::string ReadAll (EFI_FILE_PROTOCOL *file);   // a short read fails the test
bool RemoveTree (EFI_FILE_PROTOCOL *file);   // deletes the file or folder and all below it; false if any of it stayed

}  // namespace fake
