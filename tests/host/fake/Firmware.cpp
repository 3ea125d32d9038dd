// Boot and runtime services, handle database, console, clock and pool of the fake. The
// application and the drivers get tables of their own over the same handle database:
// faults, counts and the checked pool belong to the application's calls.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include <malloc.h>

extern "C" EFI_STATUS VelmaroFatDriverLoad (EFI_HANDLE fatImage, EFI_HANDLE englishImage, EFI_SYSTEM_TABLE *systemTable);
extern "C" long       VelmaroDriverPoolLive;

// A driver assertion means the fake broke a promise the firmware keeps.
extern "C" void VelmaroDriverAssert (const char *file, unsigned long line, const char *description) {
  ADD_FAILURE () << "driver assertion at " << file << ":" << line << ": " << description;
}

namespace fake {
namespace {

Firmware *gCurrent = nullptr;

std::map<void *, size_t> &Pool () {
  static std::map<void *, size_t> pool;
  return pool;
}

// A failing service of the application's: the fault that fires for this call, if one does.
template<bool App> const Fault *Faulted (Op op) { return App ? Firmware::Current ().faults.Check (op) : nullptr; }

// The application's pool is checked for leaks and double frees; the drivers' is the C
// library's, counted as their own AllocatePool counts it (edk2/FatDriverHost.c). Faultable
// is off only for the device-path text conversion (see CMakeLists.txt).
template<bool App, bool Faultable = App> void *Allocate (size_t size) {
  if (Faultable && gCurrent != nullptr && gCurrent->faults.Check (Op::AllocatePool) != nullptr) return nullptr;
  void *p = std::malloc (size == 0 ? 1 : size);
  if (App) Pool ()[p] = size;
  else VelmaroDriverPoolLive++;
  return p;
}

// The firmware's FreePool ignores null (UefiLib's Print frees its buffer even when
// allocating it failed).
template<bool App> void Free (void *p) {
  if (p == nullptr) return;
  if (App && Pool ().erase (p) == 0) {
    ADD_FAILURE () << "FreePool of a buffer the pool never handed out (or freed twice)";
    return;
  }
  if (!App) VelmaroDriverPoolLive--;
  std::free (p);
}

// MemoryAllocationLib's other forms over the application's pool: a buffer zeroed (no
// source) or copied, and one grown.
template<bool Faultable> void *Filled (size_t size, const void *source) {
  void *p = Allocate<true, Faultable>(size);
  return p == nullptr ? nullptr : source == nullptr ? std::memset (p, 0, size) : std::memcpy (p, source, size);
}

template<bool Faultable> void *Reallocate (size_t oldSize, size_t newSize, void *old) {
  void *p = Filled<Faultable>(newSize, nullptr);
  if (p != nullptr && old != nullptr) std::memcpy (p, old, std::min (oldSize, newSize)), Free<true>(old);
  return p;
}

template<bool App> EFI_STATUS EFIAPI AllocatePoolService (EFI_MEMORY_TYPE, UINTN size, VOID **buffer) {
  *buffer = Allocate<App>(size);
  return *buffer == nullptr ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

template<bool App> EFI_STATUS EFIAPI FreePoolService (VOID *buffer) {
  Free<App>(buffer);
  return EFI_SUCCESS;
}

// The application is shown a volume's file system through the fault layer.
template<bool App> void *Shown (EFI_HANDLE handle, const EFI_GUID &guid) {
  void *iface = Firmware::Current ().Find (handle, guid);
  for (const auto &volume : Firmware::Current ().volumes) {
    if (App && iface != nullptr && iface == volume->raw) return &volume->sfs;
  }
  return iface;
}

// HandleProtocol and OpenProtocol alike: an unknown handle is invalid, a missing protocol
// unsupported. Opens are not recorded: every driver here holds what it opens to the end.
template<bool App> EFI_STATUS EFIAPI OpenProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface, EFI_HANDLE, EFI_HANDLE, UINT32 attributes) {
  const bool test = attributes == EFI_OPEN_PROTOCOL_TEST_PROTOCOL;
  if (guid == nullptr || (iface == nullptr && !test)) return EFI_INVALID_PARAMETER;
  if (!test) *iface = nullptr;
  if (App) Firmware::Current ().Tick ();
  if (const Fault *f = Faulted<App>(attributes == EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL ? Op::HandleProtocol : Op::OpenProtocol)) return f->status;
  if (!Firmware::Current ().IsHandle (handle)) return EFI_INVALID_PARAMETER;
  void *found = Shown<App>(handle, *guid);
  if (found != nullptr && !test) *iface = found;
  return found == nullptr ? EFI_UNSUPPORTED : EFI_SUCCESS;
}

template<bool App> EFI_STATUS EFIAPI HandleProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface) {
  return OpenProtocol<App>(handle, guid, iface, nullptr, nullptr, EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
}

EFI_STATUS EFIAPI CloseProtocol (EFI_HANDLE handle, EFI_GUID *guid, EFI_HANDLE, EFI_HANDLE) {
  return guid == nullptr || !Firmware::Current ().IsHandle (handle) ? EFI_INVALID_PARAMETER : EFI_SUCCESS;
}

// The buffer comes from the caller's pool: the caller frees it, as with the firmware's.
template<bool App> EFI_STATUS EFIAPI LocateHandleBuffer (EFI_LOCATE_SEARCH_TYPE type, EFI_GUID *guid, VOID *, UINTN *count, EFI_HANDLE **buffer) {
  if (count == nullptr || buffer == nullptr) return EFI_INVALID_PARAMETER;
  *count  = 0;
  *buffer = nullptr;
  if (App) Firmware::Current ().Tick ();
  if (const Fault *f = Faulted<App>(Op::LocateHandleBuffer)) return f->status;
  // No protocol notifications are ever registered here, so ByRegisterNotify has no key to match.
  if ((type != ByProtocol || guid == nullptr) && type != AllHandles) return EFI_INVALID_PARAMETER;
  std::vector<EFI_HANDLE> found = Firmware::Current ().HandlesWith (type == AllHandles ? nullptr : guid);
  if (found.empty ()) return EFI_NOT_FOUND;
  if ((*buffer = static_cast<EFI_HANDLE *>(Allocate<App>(found.size () * sizeof (EFI_HANDLE)))) == nullptr) return EFI_OUT_OF_RESOURCES;
  std::copy (found.begin (), found.end (), *buffer);
  *count = found.size ();
  return EFI_SUCCESS;
}

// The first interface installed for the protocol (a volume's file system through the fault
// layer, as HandleProtocol shows it). No notifications are registered, so a Registration
// finds nothing.
template<bool App> EFI_STATUS EFIAPI LocateProtocol (EFI_GUID *guid, VOID *registration, VOID **iface) {
  if (guid == nullptr || iface == nullptr) return EFI_INVALID_PARAMETER;
  *iface = nullptr;
  if (App) Firmware::Current ().Tick ();
  if (const Fault *f = Faulted<App>(Op::LocateProtocol)) return f->status;
  std::vector<EFI_HANDLE> found = Firmware::Current ().HandlesWith (guid);
  if (registration != nullptr || found.empty ()) return EFI_NOT_FOUND;
  *iface = Shown<App>(found.front (), *guid);
  return EFI_SUCCESS;
}

// Install and uninstall all or nothing, as the DXE core does; an interface goes only if it
// is the one installed.
template<bool Add> EFI_STATUS EFIAPI Multiple (std::conditional_t<Add, EFI_HANDLE *, EFI_HANDLE> given, ...) {
  Firmware   &fw     = Firmware::Current ();
  EFI_HANDLE *handle = [&] { if constexpr (Add) return given; else return &given; }();
  if (handle == nullptr || (!Add && !fw.IsHandle (*handle))) return EFI_INVALID_PARAMETER;
  std::vector<std::pair<EFI_GUID *, VOID *>> pairs;
  VA_LIST args;
  VA_START (args, given);
  for (EFI_GUID *guid; (guid = VA_ARG (args, EFI_GUID *)) != nullptr;) pairs.push_back ({ guid, VA_ARG (args, VOID *) });
  VA_END (args);
  for (const auto &[guid, iface] : pairs) {
    void *there = *handle == nullptr ? nullptr : fw.Find (*handle, *guid);
    if (Add ? there != nullptr : there != iface) return Add ? EFI_INVALID_PARAMETER : EFI_NOT_FOUND;
  }
  if (Add && *handle == nullptr) *handle = fw.NewHandle ();
  for (const auto &[guid, iface] : pairs) Add ? fw.Install (*handle, *guid, iface) : fw.Uninstall (*handle, *guid);
  return EFI_SUCCESS;
}

EFI_TPL EFIAPI RaiseTpl (EFI_TPL tpl) {
  EXPECT_GE (tpl, Firmware::Current ().tpl) << "RaiseTPL to a lower TPL";
  return std::exchange (Firmware::Current ().tpl, tpl);
}

VOID EFIAPI RestoreTpl (EFI_TPL tpl) {
  EXPECT_LE (tpl, Firmware::Current ().tpl) << "RestoreTPL to a higher TPL";
  Firmware::Current ().tpl = tpl;
}

EFI_STATUS EFIAPI Crc32 (VOID *data, UINTN size, UINT32 *crc) {
  if (data == nullptr || size == 0 || crc == nullptr) return EFI_INVALID_PARAMETER;
  *crc = CalculateCrc32 (data, size);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI WaitForEvent (UINTN count, EFI_EVENT *, UINTN *index) {
  // The core refuses an empty event list before it waits: such a call is no key wait.
  if (count != 1 || index == nullptr) return EFI_INVALID_PARAMETER;
  Firmware::Current ().keyWaits++;
  if (const Fault *f = Faulted<true>(Op::WaitForEvent)) return f->status;
  *index = 0;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Stall (UINTN microseconds) {
  Firmware::Current ().stalledUs += microseconds;
  Firmware::Current ().AdvanceMs (microseconds / 1000);
  Firmware::Current ().Tick ();
  return EFI_SUCCESS;
}

template<bool App> EFI_STATUS EFIAPI GetTime (EFI_TIME *time, EFI_TIME_CAPABILITIES *) {
  if (const Fault *f = Faulted<App>(Op::GetTime)) return f->status;
  if (time == nullptr) return EFI_INVALID_PARAMETER;
  *time = Firmware::Current ().now;
  return EFI_SUCCESS;
}

// No variables: the FAT driver then takes the platform's default language, "en-US".
EFI_STATUS EFIAPI GetVariable (CHAR16 *, EFI_GUID *, UINT32 *, UINTN *, VOID *) { return EFI_NOT_FOUND; }

EFI_STATUS EFIAPI OutputString (EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL *, CHAR16 *text) {
  Firmware::Current ().console += reinterpret_cast<const char16_t *>(text);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SetAttribute (EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL *self, UINTN attribute) {
  Firmware::Current ().attributes.push_back (attribute);
  self->Mode->Attribute = static_cast<INT32>(attribute);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ReadKeyStroke (EFI_SIMPLE_TEXT_INPUT_PROTOCOL *, EFI_INPUT_KEY *key) {
  Firmware::Current ().keyReads++;
  if (const Fault *f = Faulted<true>(Op::ReadKeyStroke)) return f->status;
  *key = { 0, u'\r' };
  return EFI_SUCCESS;
}

template<bool App> void Fill (EFI_BOOT_SERVICES &bs, EFI_RUNTIME_SERVICES &rt) {
  bs.Hdr                                 = { EFI_BOOT_SERVICES_SIGNATURE, EFI_2_70_SYSTEM_TABLE_REVISION, sizeof (EFI_BOOT_SERVICES) };
  bs.AllocatePool                        = AllocatePoolService<App>;
  bs.FreePool                            = FreePoolService<App>;
  bs.HandleProtocol                      = HandleProtocol<App>;
  bs.OpenProtocol                        = OpenProtocol<App>;
  bs.LocateHandleBuffer                  = LocateHandleBuffer<App>;
  bs.LocateProtocol                      = LocateProtocol<App>;
  bs.CloseProtocol                       = CloseProtocol;
  bs.InstallMultipleProtocolInterfaces   = Multiple<true>;
  bs.UninstallMultipleProtocolInterfaces = Multiple<false>;
  bs.RaiseTPL                            = RaiseTpl;
  bs.RestoreTPL                          = RestoreTpl;
  bs.CalculateCrc32                      = Crc32;
  bs.WaitForEvent                        = WaitForEvent;
  bs.Stall                               = Stall;
  rt.GetTime                             = GetTime<App>;
  rt.GetVariable                         = GetVariable;
}

}  // namespace

const Fault *Faults::Check (Op op, const std::u16string &path) {
  calls_[op]++;
  if (record != nullptr) record->push_back ({ op, path, 0 });
  for (Rule &rule : rules_) {
    if (rule.fault.op != op || (!rule.path.empty () && path.find (rule.path) == std::u16string::npos)) continue;
    if (++rule.seen == rule.fault.nth || rule.fault.nth == 0) return &rule.fault;
  }
  return nullptr;
}

void Faults::Add (const Fault &fault) {
  if (fault.op != Op::None) rules_.push_back ({ fault, U16 (fault.path), 0 });
}

Firmware::Firmware () {
  EXPECT_EQ (gCurrent, nullptr) << "one fake firmware at a time";
  gCurrent           = this;
  driverPoolAtStart_ = VelmaroDriverPoolLive;
  // The driver's disk cache (megabytes, at every mount) then comes zeroed from fresh pages,
  // not cleared in a heap that freeing earlier caches made large enough to hold it.
  mallopt (M_MMAP_THRESHOLD, 256 * 1024);
  counter            = counterStart;
  Fill<true>(bs, rt);
  Fill<false>(driverBs, driverRt);
  UseImageServices (bs, true);
  UseImageServices (driverBs, false);
  conOutMode.Attribute = EFI_LIGHTGRAY | EFI_BACKGROUND_BLACK;
  conOut               = { nullptr, OutputString, nullptr, nullptr, nullptr, SetAttribute, nullptr, nullptr, nullptr, &conOutMode };
  conIn                = { nullptr, ReadKeyStroke, nullptr };
  st                   = { {}, nullptr, 0, nullptr, &conIn, nullptr, &conOut, nullptr, nullptr, &rt, &bs, 0, nullptr };
  driverSt             = { {}, nullptr, 0, nullptr, &conIn, nullptr, &conOut, nullptr, nullptr, &driverRt, &driverBs, 0, nullptr };
  now                  = { 2026, 11, 23, 7, 5, 9, 0, 0, EFI_UNSPECIFIED_TIMEZONE, 0, 0 };

  image       = NewHandle ();
  loadedImage = { EFI_LOADED_IMAGE_PROTOCOL_REVISION, nullptr, &st };
  Install (image, gEfiLoadedImageProtocolGuid, &loadedImage);
  gImageHandle = image;
  gST          = &st;
  gBS          = &bs;
  gRT          = &rt;

  // The FAT driver and the collation it needs, loaded as DXE drivers are: each on its own
  // image handle. The FAT driver then waits for controllers to be connected.
  EFI_HANDLE drivers[2] = { NewHandle (), NewHandle () };
  for (int i = 0; i < 2; ++i) {
    driverImages_[i] = { EFI_LOADED_IMAGE_PROTOCOL_REVISION, nullptr, &driverSt };
    Install (drivers[i], gEfiLoadedImageProtocolGuid, &driverImages_[i]);
  }
  EXPECT_EQ (VelmaroFatDriverLoad (drivers[0], drivers[1], &driverSt), EFI_SUCCESS) << "the FAT driver did not load";
  fatBinding_ = static_cast<EFI_DRIVER_BINDING_PROTOCOL *>(Find (drivers[0], gEfiDriverBindingProtocolGuid));
}

Firmware::~Firmware () {
  volumes.clear ();
  EXPECT_EQ (VelmaroDriverPoolLive, driverPoolAtStart_) << "the drivers kept pool buffers after every volume was stopped";
  gCurrent = nullptr;
}

Firmware &Firmware::Current () {
  if (gCurrent == nullptr) std::abort ();
  return *gCurrent;
}

void Firmware::Uninstall (EFI_HANDLE handle, const EFI_GUID &guid) {
  auto it = std::find_if (installed_.begin (), installed_.end (), [&](const Installed &i) { return i.handle == handle && CompareGuid (&i.guid, &guid); });
  if (it != installed_.end ()) installed_.erase (it);
}

void *Firmware::Find (EFI_HANDLE handle, const EFI_GUID &guid) const {
  for (const Installed &i : installed_) {
    if (i.handle == handle && CompareGuid (&i.guid, &guid)) return i.iface;
  }
  return nullptr;
}

bool Firmware::IsHandle (EFI_HANDLE handle) const {
  return std::any_of (installed_.begin (), installed_.end (), [&](const Installed &i) { return i.handle == handle; });
}

std::vector<EFI_HANDLE> Firmware::HandlesWith (const EFI_GUID *guid) const {
  std::vector<EFI_HANDLE> found;
  for (const Installed &i : installed_) {
    if (guid != nullptr ? CompareGuid (&i.guid, guid) : std::find (found.begin (), found.end (), i.handle) == found.end ()) found.push_back (i.handle);
  }
  return found;
}

EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *Firmware::ConnectFat (EFI_HANDLE controller) {
  EFI_STATUS status = fatBinding_->Supported (fatBinding_, controller, nullptr);
  if (!EFI_ERROR (status)) status = fatBinding_->Start (fatBinding_, controller, nullptr);
  EXPECT_EQ (status, EFI_SUCCESS) << "the FAT driver did not start on the medium";
  return static_cast<EFI_SIMPLE_FILE_SYSTEM_PROTOCOL *>(Find (controller, gEfiSimpleFileSystemProtocolGuid));
}

void Firmware::SetLoadOptions (const std::u16string &options) {
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(options.c_str ());
  SetLoadOptionBytes (std::vector<uint8_t>(bytes, bytes + (options.size () + 1) * 2));
}

void Firmware::SetLoadOptionBytes (const std::vector<uint8_t> &bytes) {
  loadOptions_                = bytes;
  loadedImage.LoadOptions     = loadOptions_.empty () ? nullptr : loadOptions_.data ();
  loadedImage.LoadOptionsSize = static_cast<UINT32>(loadOptions_.size ());
}

void Firmware::AdvanceMs (uint64_t ms) {
  uint64_t ticks = ms * (frequency / 1000);
  if (countsUp) counter = (counter + ticks) % (counterStart + 1);
  else counter = ticks > counter ? counterStart - (ticks - counter) : counter - ticks;
}

size_t Firmware::LivePool () { return Pool ().size (); }

std::u16string U16 (const std::string &ascii) { return std::u16string (ascii.begin (), ascii.end ()); }

std::string Narrow (const std::u16string &text) {
  std::string out;
  for (char16_t c : text) out += c < 0x80 ? static_cast<char>(c) : '?';
  return out;
}

}  // namespace fake

// --- Library stand-ins the firmware build links from MdePkg and UefiCpuPkg -------

using fake::Firmware;

extern "C" {

VOID *EFIAPI AllocatePool (UINTN size) { return fake::Allocate<true>(size); }
VOID *EFIAPI AllocateZeroPool (UINTN size) { return fake::Filled<true>(size, nullptr); }
VOID *EFIAPI AllocateCopyPool (UINTN size, CONST VOID *source) { return fake::Filled<true>(size, source); }
VOID *EFIAPI ReallocatePool (UINTN oldSize, UINTN newSize, VOID *old) { return fake::Reallocate<true>(oldSize, newSize, old); }
VOID EFIAPI FreePool (VOID *buffer) { fake::Free<true>(buffer); }

// For the device-path text conversion alone (see CMakeLists.txt): the application's pool,
// never failed.
VOID *EFIAPI VelmaroUnfailedAllocatePool (UINTN size) { return fake::Allocate<true, false>(size); }
VOID *EFIAPI VelmaroUnfailedAllocateZeroPool (UINTN size) { return fake::Filled<false>(size, nullptr); }
VOID *EFIAPI VelmaroUnfailedAllocateCopyPool (UINTN size, CONST VOID *source) { return fake::Filled<false>(size, source); }
VOID *EFIAPI VelmaroUnfailedReallocatePool (UINTN oldSize, UINTN newSize, VOID *old) { return fake::Reallocate<false>(oldSize, newSize, old); }

UINT64 EFIAPI GetPerformanceCounter (VOID) { return Firmware::Current ().counter; }

UINT64 EFIAPI GetPerformanceCounterProperties (UINT64 *start, UINT64 *end) {
  const Firmware &fw = Firmware::Current ();
  if (start != nullptr) *start = fw.countsUp ? 0 : fw.counterStart;
  if (end != nullptr) *end = fw.countsUp ? fw.counterStart : 0;
  return fw.frequency;
}

UINT64 EFIAPI GetTimeInNanoSecond (UINT64 ticks) { return ticks * 1000000000ull / Firmware::Current ().frequency; }

UINTN EFIAPI MicroSecondDelay (UINTN us) { Firmware::Current ().AdvanceMs (us / 1000); return us; }

VOID EFIAPI ProcessLibraryConstructorList (EFI_HANDLE, EFI_SYSTEM_TABLE *) {}

VOID EFIAPI ProcessLibraryDestructorList (EFI_HANDLE, EFI_SYSTEM_TABLE *) {}

}  // extern "C"
