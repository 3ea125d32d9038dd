// Boot and runtime services, handle database, console, clock and pool of the fake.
#include "Firmware.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace fake {
namespace {

Firmware *gCurrent = nullptr;

std::map<void *, size_t> &Pool () {
  static std::map<void *, size_t> pool;
  return pool;
}

bool SameGuid (const EFI_GUID &a, const EFI_GUID &b) { return std::memcmp (&a, &b, sizeof (EFI_GUID)) == 0; }

// A failing service: the status of the fault that fires for this call, if one does.
const Fault *Faulted (Op op) { return Firmware::Current ().faults.Check (op); }

void *PoolAllocate (size_t size) {
  if (gCurrent != nullptr && gCurrent->faults.Check (Op::AllocatePool) != nullptr) return nullptr;
  void *p = std::malloc (size == 0 ? 1 : size);
  Pool ()[p] = size;
  return p;
}

// The firmware's FreePool ignores null (UefiLib's Print frees its buffer even when
// allocating it failed).
void PoolFree (void *p) {
  if (p == nullptr) return;
  if (Pool ().erase (p) == 0) {
    ADD_FAILURE () << "FreePool of a buffer the pool never handed out (or freed twice)";
    return;
  }
  std::free (p);
}

// --- Boot services -------------------------------------------------------------

EFI_STATUS EFIAPI BsAllocatePool (EFI_MEMORY_TYPE, UINTN size, VOID **buffer) {
  *buffer = PoolAllocate (size);
  return *buffer == nullptr ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

EFI_STATUS EFIAPI BsFreePool (VOID *buffer) {
  PoolFree (buffer);
  return EFI_SUCCESS;
}

// HandleProtocol and OpenProtocol alike: an unknown handle is invalid, a missing
// protocol unsupported.
EFI_STATUS FindProtocol (Op op, EFI_HANDLE handle, const EFI_GUID *guid, VOID **iface) {
  Firmware &fw = Firmware::Current ();
  if (iface != nullptr) *iface = nullptr;
  if (const Fault *f = Faulted (op)) return f->status;
  if (!fw.IsHandle (handle)) return EFI_INVALID_PARAMETER;
  void *found = fw.Find (handle, *guid);
  if (found == nullptr) return EFI_UNSUPPORTED;
  if (iface != nullptr) *iface = found;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BsHandleProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface) {
  return (iface == nullptr || guid == nullptr) ? EFI_INVALID_PARAMETER : FindProtocol (Op::HandleProtocol, handle, guid, iface);
}

EFI_STATUS EFIAPI BsOpenProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface, EFI_HANDLE, EFI_HANDLE, UINT32) {
  return FindProtocol (Op::OpenProtocol, handle, guid, iface);
}

EFI_STATUS EFIAPI BsCloseProtocol (EFI_HANDLE, EFI_GUID *, EFI_HANDLE, EFI_HANDLE) { return EFI_SUCCESS; }

// The buffer comes from the pool: the caller frees it, as with the firmware's.
EFI_STATUS EFIAPI BsLocateHandleBuffer (EFI_LOCATE_SEARCH_TYPE type, EFI_GUID *guid, VOID *, UINTN *count, EFI_HANDLE **buffer) {
  if (count == nullptr || buffer == nullptr) return EFI_INVALID_PARAMETER;
  *count  = 0;
  *buffer = nullptr;
  if (const Fault *f = Faulted (Op::LocateHandleBuffer)) return f->status;
  // No protocol notifications are ever registered here, so ByRegisterNotify has no key to match.
  if ((type != AllHandles && type != ByProtocol) || (type == ByProtocol && guid == nullptr)) return EFI_INVALID_PARAMETER;
  std::vector<EFI_HANDLE> found = Firmware::Current ().HandlesWith (type == ByProtocol ? guid : nullptr);
  if (found.empty ()) return EFI_NOT_FOUND;
  *buffer = static_cast<EFI_HANDLE *>(PoolAllocate (found.size () * sizeof (EFI_HANDLE)));
  if (*buffer == nullptr) return EFI_OUT_OF_RESOURCES;
  std::memcpy (*buffer, found.data (), found.size () * sizeof (EFI_HANDLE));
  *count = found.size ();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BsLocateProtocol (EFI_GUID *guid, VOID *, VOID **iface) {
  if (iface == nullptr) return EFI_INVALID_PARAMETER;
  *iface = nullptr;
  if (const Fault *f = Faulted (Op::LocateProtocol)) return f->status;
  std::vector<EFI_HANDLE> found = guid == nullptr ? std::vector<EFI_HANDLE>() : Firmware::Current ().HandlesWith (guid);
  if (found.empty ()) return EFI_NOT_FOUND;
  *iface = Firmware::Current ().Find (found.front (), *guid);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BsWaitForEvent (UINTN count, EFI_EVENT *, UINTN *index) {
  Firmware::Current ().keyWaits++;
  if (const Fault *f = Faulted (Op::WaitForEvent)) return f->status;
  if (count != 1 || index == nullptr) return EFI_INVALID_PARAMETER;
  *index = 0;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BsStall (UINTN microseconds) {
  Firmware::Current ().AdvanceMs (microseconds / 1000);
  return EFI_SUCCESS;
}

// --- Runtime services and console ----------------------------------------------

EFI_STATUS EFIAPI RtGetTime (EFI_TIME *time, EFI_TIME_CAPABILITIES *) {
  if (const Fault *f = Faulted (Op::GetTime)) return f->status;
  *time = Firmware::Current ().now;
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConOutString (EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL *, CHAR16 *text) {
  Firmware::Current ().console += reinterpret_cast<const char16_t *>(text);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConOutSetAttribute (EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL *self, UINTN attribute) {
  Firmware::Current ().attributes.push_back (attribute);
  self->Mode->Attribute = static_cast<INT32>(attribute);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ConInReadKey (EFI_SIMPLE_TEXT_INPUT_PROTOCOL *, EFI_INPUT_KEY *key) {
  Firmware::Current ().keyReads++;
  if (const Fault *f = Faulted (Op::ReadKeyStroke)) return f->status;
  *key = { 0, u'\r' };
  return EFI_SUCCESS;
}

}  // namespace

// --- Faults --------------------------------------------------------------------

void Faults::Add (const Fault &fault) {
  if (fault.op != Op::None) rules_.push_back ({ fault, U16 (fault.path), 0 });
}

const Fault *Faults::Check (Op op, const std::u16string &path) {
  calls_[op]++;
  for (Rule &rule : rules_) {
    if (rule.fault.op != op || (!rule.path.empty () && path.find (rule.path) == std::u16string::npos)) continue;
    if (++rule.seen == rule.fault.nth || rule.fault.nth == 0) return &rule.fault;
  }
  return nullptr;
}

unsigned Faults::Calls (Op op) const {
  auto it = calls_.find (op);
  return it == calls_.end () ? 0 : it->second;
}

void Faults::Reset () {
  rules_.clear ();
  calls_.clear ();
}

// --- Firmware ------------------------------------------------------------------

Firmware::Firmware () {
  EXPECT_EQ (gCurrent, nullptr) << "one fake firmware at a time";
  gCurrent = this;
  counter  = counterStart;

  bs.AllocatePool       = BsAllocatePool;
  bs.FreePool           = BsFreePool;
  bs.HandleProtocol     = BsHandleProtocol;
  bs.OpenProtocol       = BsOpenProtocol;
  bs.CloseProtocol      = BsCloseProtocol;
  bs.LocateHandleBuffer = BsLocateHandleBuffer;
  bs.LocateProtocol     = BsLocateProtocol;
  bs.WaitForEvent       = BsWaitForEvent;
  bs.Stall              = BsStall;
  rt.GetTime            = RtGetTime;
  conOutMode.Attribute  = EFI_LIGHTGRAY | EFI_BACKGROUND_BLACK;
  conOut.Mode           = &conOutMode;
  conOut.OutputString   = ConOutString;
  conOut.SetAttribute   = ConOutSetAttribute;
  conIn.ReadKeyStroke   = ConInReadKey;
  st.ConOut             = &conOut;
  st.ConIn              = &conIn;
  st.BootServices       = &bs;
  st.RuntimeServices    = &rt;
  now                   = { 2026, 11, 23, 7, 5, 9, 0, 0, EFI_UNSPECIFIED_TIMEZONE };

  image                    = NewHandle ();
  loadedImage.Revision     = EFI_LOADED_IMAGE_PROTOCOL_REVISION;
  loadedImage.SystemTable  = &st;
  Install (image, gEfiLoadedImageProtocolGuid, &loadedImage);
  gImageHandle = image;
  gST          = &st;
  gBS          = &bs;
  gRT          = &rt;
}

Firmware::~Firmware () {
  volumes.clear ();
  gCurrent = nullptr;
}

Firmware &Firmware::Current () {
  if (gCurrent == nullptr) std::abort ();
  return *gCurrent;
}

EFI_HANDLE Firmware::NewHandle () {
  EFI_HANDLE handle = reinterpret_cast<EFI_HANDLE>(nextHandle_);
  nextHandle_ += 0x10;
  handles_[handle];
  order_.push_back (handle);
  return handle;
}

void Firmware::Install (EFI_HANDLE handle, const EFI_GUID &guid, void *iface) { handles_[handle].push_back ({ guid, iface }); }

void Firmware::Uninstall (EFI_HANDLE handle, const EFI_GUID &guid) {
  auto &list = handles_[handle];
  auto it    = std::find_if (list.begin (), list.end (), [&](const auto &entry) { return SameGuid (entry.first, guid); });
  if (it != list.end ()) list.erase (it);
}

void *Firmware::Find (EFI_HANDLE handle, const EFI_GUID &guid) const {
  auto it = handles_.find (handle);
  if (it == handles_.end ()) return nullptr;
  for (const auto &entry : it->second) {
    if (SameGuid (entry.first, guid)) return entry.second;
  }
  return nullptr;
}

bool Firmware::IsHandle (EFI_HANDLE handle) const {
  auto it = handles_.find (handle);
  return it != handles_.end () && !it->second.empty ();
}

std::vector<EFI_HANDLE> Firmware::HandlesWith (const EFI_GUID *guid) const {
  std::vector<EFI_HANDLE> found;
  std::copy_if (order_.begin (), order_.end (), std::back_inserter (found),
                [&](EFI_HANDLE h) { return guid == nullptr ? IsHandle (h) : Find (h, *guid) != nullptr; });
  return found;
}

Volume &Firmware::AddVolume () {
  EFI_HANDLE handle = NewHandle ();
  volumes.push_back (std::make_unique<Volume>(*this, handle));
  Install (handle, gEfiSimpleFileSystemProtocolGuid, &volumes.back ()->sfs);
  return *volumes.back ();
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
  counter = ticks > counter ? counterStart - (ticks - counter) : counter - ticks;
}

size_t Firmware::LivePool () { return Pool ().size (); }

int Firmware::OpenHandles () const {
  int total = 0;
  for (const auto &v : volumes) total += v->OpenHandles ();
  return total;
}

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

VOID *EFIAPI AllocatePool (UINTN size) { return fake::PoolAllocate (size); }

VOID *EFIAPI AllocateZeroPool (UINTN size) {
  void *p = fake::PoolAllocate (size);
  return p == nullptr ? nullptr : std::memset (p, 0, size);
}

VOID *EFIAPI AllocateCopyPool (UINTN size, CONST VOID *source) {
  void *p = fake::PoolAllocate (size);
  return p == nullptr ? nullptr : std::memcpy (p, source, size);
}

VOID *EFIAPI ReallocatePool (UINTN oldSize, UINTN newSize, VOID *old) {
  void *p = AllocateZeroPool (newSize);
  if (p != nullptr && old != nullptr) {
    std::memcpy (p, old, oldSize < newSize ? oldSize : newSize);
    fake::PoolFree (old);
  }
  return p;
}

VOID EFIAPI FreePool (VOID *buffer) { fake::PoolFree (buffer); }

UINT64 EFIAPI GetPerformanceCounter (VOID) { return Firmware::Current ().counter; }

UINT64 EFIAPI GetPerformanceCounterProperties (UINT64 *start, UINT64 *end) {
  if (start != nullptr) *start = Firmware::Current ().counterStart;
  if (end != nullptr) *end = 0;
  return Firmware::Current ().frequency;
}

UINT64 EFIAPI GetTimeInNanoSecond (UINT64 ticks) { return ticks * 1000000000ull / Firmware::Current ().frequency; }

UINTN EFIAPI MicroSecondDelay (UINTN us) { Firmware::Current ().AdvanceMs (us / 1000); return us; }

VOID EFIAPI ProcessLibraryConstructorList (EFI_HANDLE, EFI_SYSTEM_TABLE *) {}

VOID EFIAPI ProcessLibraryDestructorList (EFI_HANDLE, EFI_SYSTEM_TABLE *) {}

}  // extern "C"
