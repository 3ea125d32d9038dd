// A fake UEFI firmware for host tests: pool, handle database, console, clock and
// in-memory volumes whose file protocol behaves like the firmware's FAT driver (and,
// when asked, like drivers that refuse paths in a rename or mount read-only).
// Every operation can be made to fail, come up short, or claim success without effect.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Velmaro.h>

namespace fake {

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

struct Node;
class Firmware;

// A disk or partition behind EFI_BLOCK_IO_PROTOCOL, answering as a USB mass storage or
// partition driver does. A test may clear media.MediaPresent or set proto.Media to null.
struct BlockDevice {
  EFI_HANDLE                              handle;
  EFI_BLOCK_IO_PROTOCOL                   proto{};
  EFI_BLOCK_IO_MEDIA                      media{};
  std::vector<uint8_t>                    bytes;   // the first blocks; the rest of the medium reads as zeros
  std::vector<std::pair<EFI_LBA, UINTN>>  reads;   // every ReadBlocks request: LBA, buffer size
};

class Volume {
 public:
  Volume (Firmware &fw, EFI_HANDLE handle);
  ~Volume ();

  // Test-side view; paths use '\' or '/', names match without regard to ASCII case.
  void Mkdir (const std::string &path);
  void Put (const std::string &path, const std::string &bytes);
  void Remove (const std::string &path);
  bool Exists (const std::string &path) const;
  std::string Get (const std::string &path) const;
  std::vector<std::string> List (const std::string &dir) const;   // names as stored
  std::map<std::string, std::string> Snapshot () const;           // every path -> bytes ("<dir>" for folders)

  EFI_HANDLE Handle () const { return handle_; }
  int OpenHandles () const;

  bool writeProtected = false;    // mounted read-only by its driver
  bool rejectPathNames = false;   // SetInfo answers a path in FileName with EFI_INVALID_PARAMETER
  void MatchNamesExactly ();      // a driver whose names match only in their own letter case

  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  sfs;
  Firmware                         &fw;
  std::shared_ptr<Node>            root;

 private:
  EFI_HANDLE  handle_;
};

class Firmware {
 public:
  Firmware ();
  ~Firmware ();
  Firmware (const Firmware &) = delete;
  Firmware &operator= (const Firmware &) = delete;

  static Firmware &Current ();

  // Handle database.
  EFI_HANDLE NewHandle ();
  void Install (EFI_HANDLE handle, const EFI_GUID &guid, void *iface);
  void Uninstall (EFI_HANDLE handle, const EFI_GUID &guid);
  void *Find (EFI_HANDLE handle, const EFI_GUID &guid) const;
  bool IsHandle (EFI_HANDLE handle) const;   // holds at least one protocol, as a firmware handle does
  std::vector<EFI_HANDLE> HandlesWith (const EFI_GUID *guid) const;   // creation order; null: every handle

  // Block I/O and device path on any handle; a volume's handle takes those of its partition.
  BlockDevice &AddBlockIo (EFI_HANDLE handle, const std::vector<uint8_t> &firstBlocks, UINT32 blockSize = 512,
                           bool logicalPartition = true);
  void SetDevicePath (EFI_HANDLE handle, std::vector<uint8_t> bytes);

  Volume &AddVolume ();
  // The application image: started from this volume with these load options (UTF-16).
  void StartFrom (Volume &volume) { loadedImage.DeviceHandle = volume.Handle (); }
  void SetLoadOptions (const std::u16string &options);
  void SetLoadOptionBytes (const std::vector<uint8_t> &bytes);

  // Simulated clock: the local APIC counter counts down from counterStart.
  void AdvanceMs (uint64_t ms);
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
  std::vector<std::unique_ptr<Volume>> volumes;
  std::vector<std::unique_ptr<BlockDevice>> blockDevices;

 private:
  std::map<EFI_HANDLE, std::vector<std::pair<EFI_GUID, void *>>> handles_;
  std::vector<EFI_HANDLE>   order_;
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

std::u16string U16 (const std::string &ascii);
std::string Narrow (const std::u16string &text);

}  // namespace fake
