// A fake UEFI firmware for host tests: pool, handle database with the driver model, TPL
// and events, console, clock and volumes. FAT volumes are served by EDK II's own FAT
// driver (FatPkg/EnhancedFatDxe, compiled natively) over a memory disk formatted by the
// real mkfs.fat; NTFS and exFAT volumes by an in-memory stand-in. The application sees
// every volume through a thin layer that can make any file operation fail, come up short
// or claim success without effect, and can make any driver refuse paths in a rename,
// mount read-only or keep showing old roots the volume as it was.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Velmaro.h>

#include <Protocol/DiskIo.h>
#include <Protocol/DiskIo2.h>
#include <Protocol/DriverBinding.h>

namespace fake {

// The file system a volume is formatted with. Fat32 is the real FAT driver; Ntfs and Exfat
// are the in-memory stand-in, carrying the boot sector the real tool writes for that type.
enum class Fs { Fat32, Ntfs, Exfat };

enum class Op {
  None,   // a fault row that injects nothing
  Open, Close, Delete, Read, Write, GetPosition, SetPosition, GetInfo, SetInfo, Flush,
  OpenVolume, HandleProtocol, OpenProtocol, LocateHandleBuffer, LocateProtocol,
  AllocatePool, GetTime, WaitForEvent, ReadKeyStroke, ReadBlocks
};

enum class Effect {
  Fail,      // the call returns the fault's status and does nothing
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
  unsigned Calls (Op op) const;
  void Reset ();

 private:
  struct Rule { Fault fault; std::u16string path; unsigned seen; };
  std::vector<Rule>       rules_;
  std::map<Op, unsigned>  calls_;
};

class Firmware;
class MemoryFs;
struct FrozenView;

// The bytes of a medium: a shared template (the formatted image) under the chunks written
// since, so that copying a 33 MiB FAT32 volume costs only what was written to it.
class Disk {
 public:
  static constexpr size_t kChunk = 4096;
  using Chunks = std::map<uint64_t, std::vector<uint8_t>>;

  Disk () = default;
  explicit Disk (const std::vector<uint8_t> &bytes);
  Disk (std::shared_ptr<const Chunks> base, uint64_t size) : base_ (std::move (base)), size_ (size) {}

  uint64_t Size () const { return size_; }
  void Read (uint64_t offset, void *buffer, size_t count) const;
  void Write (uint64_t offset, const void *buffer, size_t count);
  std::vector<uint8_t> Bytes () const;   // the whole medium

 private:
  std::shared_ptr<const Chunks>  base_;
  Chunks                         written_;
  uint64_t                       size_ = 0;
};

// Disk I/O and Disk I/O 2 over a medium, as MdeModulePkg's DiskIoDxe offers them above a
// Block I/O; Disk I/O 2 completes at once and signals the token's event.
struct DiskIoPort { EFI_DISK_IO_PROTOCOL proto; struct BlockDevice *device; };
struct DiskIo2Port { EFI_DISK_IO2_PROTOCOL proto; struct BlockDevice *device; };

// A disk or partition behind EFI_BLOCK_IO_PROTOCOL, answering as a USB mass storage or
// partition driver does. A test may clear media.MediaPresent or set proto.Media to null.
// With a disk, the whole medium is that disk (a FAT volume's); without, it is bytes.
struct BlockDevice {
  EFI_HANDLE                              handle;
  EFI_BLOCK_IO_PROTOCOL                   proto{};
  EFI_BLOCK_IO_MEDIA                      media{};
  std::vector<uint8_t>                    bytes;   // the first blocks; the rest of the medium reads as zeros
  std::vector<std::pair<EFI_LBA, UINTN>>  reads;   // every ReadBlocks request: LBA, buffer size
  std::shared_ptr<Disk>                   disk;
  DiskIoPort                              diskIo{};
  DiskIo2Port                             diskIo2{};
};

class Volume {
 public:
  Volume (Firmware &fw, EFI_HANDLE handle, Fs fs);
  ~Volume ();
  Volume (const Volume &) = delete;
  Volume &operator= (const Volume &) = delete;

  // Test-side view, through the volume's own driver with no faults and no counting, each
  // change flushed; paths use '\' or '/', names match as that driver matches them.
  void Mkdir (const std::string &path);
  void Put (const std::string &path, const std::string &bytes);
  void Remove (const std::string &path);
  bool Exists (const std::string &path) const;
  std::string Get (const std::string &path) const;
  std::vector<std::string> List (const std::string &dir) const;   // names as stored
  std::map<std::string, std::string> Snapshot () const;           // every path -> bytes ("<dir>" for folders)

  EFI_HANDLE Handle () const { return handle_; }
  Fs Kind () const { return fs_; }
  int OpenHandles () const;   // file handles the application holds, roots included

  bool writeProtected = false;    // mounted read-only: opens for write, Write, SetInfo, Flush answer EFI_WRITE_PROTECTED
  bool rejectPathNames = false;   // SetInfo answers a path in FileName with EFI_INVALID_PARAMETER
  bool staleView = false;         // a root keeps showing lookups and reads the volume as it was when opened
  void MatchNamesExactly ();      // stand-ins only: names match only in their own letter case (FAT cannot)

  // FAT: what the driver has written to the medium so far (not what it still caches);
  // fw.AddVolume (image) mounts it again, as after a power cut.
  Disk DiskImage () const;
  BlockDevice *Device () const { return device_; }   // FAT: the medium under the driver

  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  sfs;   // what the application opens
  Firmware                         &fw;

  // The driver's own protocol, below faults and switches.
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *Raw () const { return raw_; }
  std::shared_ptr<FrozenView> Freeze ();
  void Mount (std::shared_ptr<Disk> disk);

 private:
  EFI_HANDLE                        handle_;
  Fs                                fs_;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *raw_ = nullptr;
  BlockDevice                      *device_ = nullptr;
  std::unique_ptr<MemoryFs>         memory_;
};

class Firmware {
 public:
  Firmware ();
  ~Firmware ();
  Firmware (const Firmware &) = delete;
  Firmware &operator= (const Firmware &) = delete;

  static Firmware &Current ();

  // Handle database. Find gives what the application sees (a volume's file system through
  // the fault layer); FindRaw what drivers see. Hidden handles (a stale view's private
  // mount) are seen by drivers only.
  EFI_HANDLE NewHandle (bool hidden = false);
  void Install (EFI_HANDLE handle, const EFI_GUID &guid, void *iface);
  void Uninstall (EFI_HANDLE handle, const EFI_GUID &guid);
  void *Find (EFI_HANDLE handle, const EFI_GUID &guid) const;
  void *FindRaw (EFI_HANDLE handle, const EFI_GUID &guid) const;
  bool IsHandle (EFI_HANDLE handle) const;   // holds at least one protocol, as a firmware handle does
  std::vector<EFI_HANDLE> HandlesWith (const EFI_GUID *guid, bool hiddenToo = false) const;   // creation order; null: every handle
  void ShowAs (void *driverInterface, void *applicationInterface);   // the application sees the second

  // The driver model, as the DXE core runs it (MdeModulePkg/Core/Dxe/Hand).
  struct OpenRecord { EFI_HANDLE agent, controller; UINT32 attributes; UINT32 count; };
  struct Interface { EFI_GUID guid; void *iface; std::vector<OpenRecord> opens; };
  EFI_STATUS OpenProtocol (EFI_HANDLE handle, const EFI_GUID *guid, VOID **iface, EFI_HANDLE agent, EFI_HANDLE controller,
                           UINT32 attributes, bool applicationView);
  EFI_STATUS CloseProtocol (EFI_HANDLE handle, const EFI_GUID *guid, EFI_HANDLE agent, EFI_HANDLE controller);
  EFI_STATUS InstallProtocol (EFI_HANDLE *handle, const EFI_GUID *guid, void *iface);
  EFI_STATUS UninstallProtocol (EFI_HANDLE handle, const EFI_GUID *guid, void *iface);
  EFI_STATUS ReinstallProtocol (EFI_HANDLE handle, const EFI_GUID *guid, void *oldIface, void *newIface);
  // Supported, then Start, of the FAT driver on a controller; Stop on it.
  EFI_STATUS ConnectFat (EFI_HANDLE controller);
  EFI_STATUS DisconnectFat (EFI_HANDLE controller);

  // TPL and events: notification functions run as the firmware runs them, at once when
  // signalled below their TPL, otherwise when the TPL drops below it.
  EFI_TPL RaiseTpl (EFI_TPL tpl);
  void RestoreTpl (EFI_TPL tpl);
  EFI_STATUS CreateEvent (UINT32 type, EFI_TPL tpl, EFI_EVENT_NOTIFY notify, VOID *context, EFI_EVENT *event);
  EFI_STATUS SignalEvent (EFI_EVENT event);
  EFI_STATUS CloseEvent (EFI_EVENT event);
  EFI_STATUS CheckEvent (EFI_EVENT event);

  // Block I/O and device path on any handle; a volume's handle takes those of its partition.
  BlockDevice &AddBlockIo (EFI_HANDLE handle, const std::vector<uint8_t> &firstBlocks, UINT32 blockSize = 512,
                           bool logicalPartition = true);
  void SetDevicePath (EFI_HANDLE handle, std::vector<uint8_t> bytes);

  Volume &AddVolume (Fs fs = Fs::Fat32);
  Volume &AddVolume (const Disk &image);   // a FAT volume on a copy of that medium
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

  // Pool accounting.
  static size_t LivePool ();
  int OpenHandles () const;   // file handles open on all volumes

  Faults                     faults;
  std::u16string             console;        // everything printed
  std::vector<UINTN>         attributes;     // every SetAttribute
  unsigned                   keyWaits = 0;
  unsigned                   keyReads = 0;
  EFI_TIME                   now{};
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
  EFI_HANDLE                       fatImage, englishImage;
  EFI_LOADED_IMAGE_PROTOCOL        fatLoadedImage{}, englishLoadedImage{};
  EFI_DRIVER_BINDING_PROTOCOL      *fatBinding = nullptr;
  std::vector<std::unique_ptr<Volume>> volumes;
  std::vector<std::unique_ptr<BlockDevice>> blockDevices;

 private:
  struct Event { UINT32 type; EFI_TPL tpl; EFI_EVENT_NOTIFY notify; VOID *context; bool signaled; };
  Interface *Entry (EFI_HANDLE handle, const EFI_GUID &guid);
  void DispatchAbove (EFI_TPL tpl);

  std::map<EFI_HANDLE, std::vector<Interface>> handles_;
  std::vector<EFI_HANDLE>   order_;
  std::vector<EFI_HANDLE>   hidden_;
  std::map<void *, void *>  shownAs_;
  std::map<Event *, std::unique_ptr<Event>> events_;
  std::vector<Event *>      pending_;
  EFI_TPL                   tpl_ = TPL_APPLICATION;
  long                      driverPoolAtStart_ = 0;
  std::vector<uint8_t>      loadOptions_;
  std::map<EFI_HANDLE, std::vector<uint8_t>> devicePaths_;
  uintptr_t                 nextHandle_ = 0x1000;
};

// Device paths as a USB stick's partitions carry them: PciRoot(0)/Pci(0x14,0)/USB(port,0),
// then a Hard Drive node and End.
std::vector<uint8_t> UsbDiskPath (uint8_t port);
std::vector<uint8_t> WithMbrPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber, uint32_t signature);
std::vector<uint8_t> WithGptPartition (const std::vector<uint8_t> &disk, uint32_t partitionNumber,
                                       const std::array<uint8_t, 16> &guid);

// The first 4096 bytes of a small image formatted by the real tool at test time
// ("fat32", "fat16", "ntfs", "exfat"; made once per process), and the UUID blkid reports
// for that image. A missing tool fails the test.
std::vector<uint8_t> BootSectorImage (const std::string &kind);
std::string BlkidUuid (const std::string &kind);
// The whole "fat32" image (FAT32 with one sector per cluster), on which every FAT volume starts.
Disk FormattedFat32 ();

std::u16string U16 (const std::string &ascii);
std::string Narrow (const std::u16string &text);

}  // namespace fake
