// Boot and runtime services, handle database, driver model, TPL and events, console,
// clock and pool of the fake. The application and the drivers get tables of their own
// over the same handle database: faults and counts belong to the application's calls.
#include "Firmware.h"
#include "Internal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

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

EFI_STATUS EFIAPI BsOpenProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface, EFI_HANDLE agent, EFI_HANDLE controller, UINT32 attributes) {
  if (iface != nullptr && attributes != EFI_OPEN_PROTOCOL_TEST_PROTOCOL) *iface = nullptr;
  if (const Fault *f = Faulted (Op::OpenProtocol)) return f->status;
  return Firmware::Current ().OpenProtocol (handle, guid, iface, agent, controller, attributes, true);
}

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

// --- Services both tables share: driver model, TPL, events ------------------------

EFI_STATUS EFIAPI BsCloseProtocol (EFI_HANDLE handle, EFI_GUID *guid, EFI_HANDLE agent, EFI_HANDLE controller) {
  return Firmware::Current ().CloseProtocol (handle, guid, agent, controller);
}

EFI_STATUS EFIAPI BsInstallProtocolInterface (EFI_HANDLE *handle, EFI_GUID *guid, EFI_INTERFACE_TYPE type, VOID *iface) {
  return type != EFI_NATIVE_INTERFACE ? EFI_INVALID_PARAMETER : Firmware::Current ().InstallProtocol (handle, guid, iface);
}

EFI_STATUS EFIAPI BsUninstallProtocolInterface (EFI_HANDLE handle, EFI_GUID *guid, VOID *iface) {
  return Firmware::Current ().UninstallProtocol (handle, guid, iface);
}

EFI_STATUS EFIAPI BsReinstallProtocolInterface (EFI_HANDLE handle, EFI_GUID *guid, VOID *oldIface, VOID *newIface) {
  return Firmware::Current ().ReinstallProtocol (handle, guid, oldIface, newIface);
}

// All or nothing, as the DXE core's: a failure takes back what this call installed.
EFI_STATUS EFIAPI BsInstallMultipleProtocolInterfaces (EFI_HANDLE *handle, ...) {
  if (handle == nullptr) return EFI_INVALID_PARAMETER;
  Firmware  &fw        = Firmware::Current ();
  EFI_TPL   old        = fw.RaiseTpl (TPL_NOTIFY);
  EFI_HANDLE start     = *handle;
  EFI_STATUS status    = EFI_SUCCESS;
  std::vector<std::pair<EFI_GUID *, VOID *>> done;
  VA_LIST   args;
  VA_START (args, handle);
  for (EFI_GUID *guid; !EFI_ERROR (status) && (guid = VA_ARG (args, EFI_GUID *)) != nullptr;) {
    VOID *iface = VA_ARG (args, VOID *);
    status = fw.InstallProtocol (handle, guid, iface);
    if (!EFI_ERROR (status)) done.push_back ({ guid, iface });
  }
  VA_END (args);
  if (EFI_ERROR (status)) {
    for (auto it = done.rbegin (); it != done.rend (); ++it) fw.UninstallProtocol (*handle, it->first, it->second);
    *handle = start;
  }
  fw.RestoreTpl (old);
  return status;
}

EFI_STATUS EFIAPI BsUninstallMultipleProtocolInterfaces (EFI_HANDLE handle, ...) {
  Firmware  &fw     = Firmware::Current ();
  EFI_STATUS status = EFI_SUCCESS;
  std::vector<std::pair<EFI_GUID *, VOID *>> done;
  VA_LIST   args;
  VA_START (args, handle);
  for (EFI_GUID *guid; !EFI_ERROR (status) && (guid = VA_ARG (args, EFI_GUID *)) != nullptr;) {
    VOID *iface = VA_ARG (args, VOID *);
    status = fw.UninstallProtocol (handle, guid, iface);
    if (!EFI_ERROR (status)) done.push_back ({ guid, iface });
  }
  VA_END (args);
  if (EFI_ERROR (status)) {
    for (auto it = done.rbegin (); it != done.rend (); ++it) fw.InstallProtocol (&handle, it->first, it->second);
    return EFI_INVALID_PARAMETER;
  }
  return EFI_SUCCESS;
}

EFI_TPL EFIAPI BsRaiseTpl (EFI_TPL tpl) { return Firmware::Current ().RaiseTpl (tpl); }
VOID EFIAPI BsRestoreTpl (EFI_TPL tpl) { Firmware::Current ().RestoreTpl (tpl); }

EFI_STATUS EFIAPI BsCreateEvent (UINT32 type, EFI_TPL tpl, EFI_EVENT_NOTIFY notify, VOID *context, EFI_EVENT *event) {
  return Firmware::Current ().CreateEvent (type, tpl, notify, context, event);
}

EFI_STATUS EFIAPI BsCreateEventEx (UINT32 type, EFI_TPL tpl, EFI_EVENT_NOTIFY notify, CONST VOID *context, CONST EFI_GUID *, EFI_EVENT *event) {
  return Firmware::Current ().CreateEvent (type, tpl, notify, const_cast<VOID *>(context), event);
}

EFI_STATUS EFIAPI BsSignalEvent (EFI_EVENT event) { return Firmware::Current ().SignalEvent (event); }
EFI_STATUS EFIAPI BsCloseEvent (EFI_EVENT event) { return Firmware::Current ().CloseEvent (event); }
EFI_STATUS EFIAPI BsCheckEvent (EFI_EVENT event) { return Firmware::Current ().CheckEvent (event); }

EFI_STATUS EFIAPI BsCalculateCrc32 (VOID *data, UINTN size, UINT32 *crc) {
  if (data == nullptr || size == 0 || crc == nullptr) return EFI_INVALID_PARAMETER;
  uint32_t value = 0xFFFFFFFFu;
  for (UINTN i = 0; i < size; ++i) {
    value ^= static_cast<const uint8_t *>(data)[i];
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ (0xEDB88320u & (0u - (value & 1u)));
  }
  *crc = ~value;
  return EFI_SUCCESS;
}

VOID EFIAPI BsCopyMem (VOID *destination, VOID *source, UINTN length) { std::memmove (destination, source, length); }
VOID EFIAPI BsSetMem (VOID *buffer, UINTN size, UINT8 value) { std::memset (buffer, value, size); }

// --- The drivers' table: nothing counted, nothing faulted, their own pool ----------

EFI_STATUS EFIAPI DrvAllocatePool (EFI_MEMORY_TYPE, UINTN size, VOID **buffer) {
  if (buffer == nullptr) return EFI_INVALID_PARAMETER;
  *buffer = DriverPoolAllocate (size);
  return *buffer == nullptr ? EFI_OUT_OF_RESOURCES : EFI_SUCCESS;
}

EFI_STATUS EFIAPI DrvFreePool (VOID *buffer) {
  DriverPoolFree (buffer);
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DrvHandleProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface) {
  return Firmware::Current ().OpenProtocol (handle, guid, iface, Firmware::Current ().image, nullptr, EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL, false);
}

EFI_STATUS EFIAPI DrvOpenProtocol (EFI_HANDLE handle, EFI_GUID *guid, VOID **iface, EFI_HANDLE agent, EFI_HANDLE controller, UINT32 attributes) {
  return Firmware::Current ().OpenProtocol (handle, guid, iface, agent, controller, attributes, false);
}

EFI_STATUS EFIAPI DrvLocateHandleBuffer (EFI_LOCATE_SEARCH_TYPE type, EFI_GUID *guid, VOID *, UINTN *count, EFI_HANDLE **buffer) {
  if (count == nullptr || buffer == nullptr) return EFI_INVALID_PARAMETER;
  *count  = 0;
  *buffer = nullptr;
  if ((type != AllHandles && type != ByProtocol) || (type == ByProtocol && guid == nullptr)) return EFI_INVALID_PARAMETER;
  std::vector<EFI_HANDLE> found = Firmware::Current ().HandlesWith (type == ByProtocol ? guid : nullptr, true);
  if (found.empty ()) return EFI_NOT_FOUND;
  *buffer = static_cast<EFI_HANDLE *>(DriverPoolAllocate (found.size () * sizeof (EFI_HANDLE)));
  std::memcpy (*buffer, found.data (), found.size () * sizeof (EFI_HANDLE));
  *count = found.size ();
  return EFI_SUCCESS;
}

EFI_STATUS EFIAPI DrvLocateProtocol (EFI_GUID *guid, VOID *, VOID **iface) {
  if (iface == nullptr || guid == nullptr) return EFI_INVALID_PARAMETER;
  std::vector<EFI_HANDLE> found = Firmware::Current ().HandlesWith (guid, true);
  *iface = found.empty () ? nullptr : Firmware::Current ().FindRaw (found.front (), *guid);
  return found.empty () ? EFI_NOT_FOUND : EFI_SUCCESS;
}

// No variables: the FAT driver then takes the platform's default language, "en-US".
EFI_STATUS EFIAPI DrvGetVariable (CHAR16 *, EFI_GUID *, UINT32 *, UINTN *, VOID *) { return EFI_NOT_FOUND; }

EFI_STATUS EFIAPI DrvGetTime (EFI_TIME *time, EFI_TIME_CAPABILITIES *) {
  if (time == nullptr) return EFI_INVALID_PARAMETER;
  *time = Firmware::Current ().now;
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

// The drivers' pool, shared with their own AllocatePool (edk2/FatDriverHost.c).
void *DriverPoolAllocate (size_t size) {
  void *p = std::malloc (size == 0 ? 1 : size);
  VelmaroDriverPoolLive += p != nullptr;
  return p;
}

void DriverPoolFree (void *p) {
  VelmaroDriverPoolLive -= p != nullptr;
  std::free (p);
}

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
  gCurrent           = this;
  driverPoolAtStart_ = VelmaroDriverPoolLive;
  counter  = counterStart;

  for (EFI_BOOT_SERVICES *table : { &bs, &driverBs }) {
    table->Hdr.Signature                          = EFI_BOOT_SERVICES_SIGNATURE;
    table->Hdr.Revision                           = EFI_2_70_SYSTEM_TABLE_REVISION;
    table->Hdr.HeaderSize                         = sizeof (EFI_BOOT_SERVICES);
    table->CloseProtocol                          = BsCloseProtocol;
    table->InstallProtocolInterface               = BsInstallProtocolInterface;
    table->UninstallProtocolInterface             = BsUninstallProtocolInterface;
    table->ReinstallProtocolInterface             = BsReinstallProtocolInterface;
    table->InstallMultipleProtocolInterfaces      = BsInstallMultipleProtocolInterfaces;
    table->UninstallMultipleProtocolInterfaces    = BsUninstallMultipleProtocolInterfaces;
    table->RaiseTPL                               = BsRaiseTpl;
    table->RestoreTPL                             = BsRestoreTpl;
    table->CreateEvent                            = BsCreateEvent;
    table->CreateEventEx                          = BsCreateEventEx;
    table->SignalEvent                            = BsSignalEvent;
    table->CloseEvent                             = BsCloseEvent;
    table->CheckEvent                             = BsCheckEvent;
    table->CalculateCrc32                         = BsCalculateCrc32;
    table->CopyMem                                = BsCopyMem;
    table->SetMem                                 = BsSetMem;
    table->Stall                                  = BsStall;
  }
  bs.AllocatePool             = BsAllocatePool;
  bs.FreePool                 = BsFreePool;
  bs.HandleProtocol           = BsHandleProtocol;
  bs.OpenProtocol             = BsOpenProtocol;
  bs.LocateHandleBuffer       = BsLocateHandleBuffer;
  bs.LocateProtocol           = BsLocateProtocol;
  bs.WaitForEvent             = BsWaitForEvent;
  driverBs.AllocatePool       = DrvAllocatePool;
  driverBs.FreePool           = DrvFreePool;
  driverBs.HandleProtocol     = DrvHandleProtocol;
  driverBs.OpenProtocol       = DrvOpenProtocol;
  driverBs.LocateHandleBuffer = DrvLocateHandleBuffer;
  driverBs.LocateProtocol     = DrvLocateProtocol;
  rt.GetTime                  = RtGetTime;
  driverRt.GetTime            = DrvGetTime;
  driverRt.GetVariable        = DrvGetVariable;
  conOutMode.Attribute  = EFI_LIGHTGRAY | EFI_BACKGROUND_BLACK;
  conOut.Mode           = &conOutMode;
  conOut.OutputString   = ConOutString;
  conOut.SetAttribute   = ConOutSetAttribute;
  conIn.ReadKeyStroke   = ConInReadKey;
  st.ConOut             = &conOut;
  st.ConIn              = &conIn;
  st.BootServices       = &bs;
  st.RuntimeServices    = &rt;
  driverSt              = st;
  driverSt.BootServices    = &driverBs;
  driverSt.RuntimeServices = &driverRt;
  now                   = { 2026, 11, 23, 7, 5, 9, 0, 0, EFI_UNSPECIFIED_TIMEZONE, 0, 0 };

  image                    = NewHandle ();
  loadedImage.Revision     = EFI_LOADED_IMAGE_PROTOCOL_REVISION;
  loadedImage.SystemTable  = &st;
  Install (image, gEfiLoadedImageProtocolGuid, &loadedImage);
  gImageHandle = image;
  gST          = &st;
  gBS          = &bs;
  gRT          = &rt;

  // The FAT driver and the collation it needs, loaded as DXE drivers are: each on its own
  // image handle. The FAT driver then waits for controllers to be connected.
  fatImage     = NewHandle ();
  englishImage = NewHandle ();
  for (auto [handle, loaded] : { std::pair (fatImage, &fatLoadedImage), std::pair (englishImage, &englishLoadedImage) }) {
    loaded->Revision    = EFI_LOADED_IMAGE_PROTOCOL_REVISION;
    loaded->SystemTable = &driverSt;
    Install (handle, gEfiLoadedImageProtocolGuid, loaded);
  }
  EXPECT_EQ (VelmaroFatDriverLoad (fatImage, englishImage, &driverSt), EFI_SUCCESS) << "the FAT driver did not load";
  fatBinding = static_cast<EFI_DRIVER_BINDING_PROTOCOL *>(FindRaw (fatImage, gEfiDriverBindingProtocolGuid));
}

Firmware::~Firmware () {
  volumes.clear ();
  EXPECT_TRUE (pending_.empty ()) << "event notifications never run";
  EXPECT_EQ (VelmaroDriverPoolLive, driverPoolAtStart_) << "the drivers kept pool buffers after every volume was stopped";
  gCurrent = nullptr;
}

Firmware &Firmware::Current () {
  if (gCurrent == nullptr) std::abort ();
  return *gCurrent;
}

EFI_HANDLE Firmware::NewHandle (bool hidden) {
  EFI_HANDLE handle = reinterpret_cast<EFI_HANDLE>(nextHandle_);
  nextHandle_ += 0x10;
  handles_[handle];
  order_.push_back (handle);
  if (hidden) hidden_.push_back (handle);
  return handle;
}

void Firmware::Install (EFI_HANDLE handle, const EFI_GUID &guid, void *iface) { handles_[handle].push_back ({ guid, iface, {} }); }

void Firmware::Uninstall (EFI_HANDLE handle, const EFI_GUID &guid) {
  auto &list = handles_[handle];
  auto it    = std::find_if (list.begin (), list.end (), [&](const auto &entry) { return SameGuid (entry.guid, guid); });
  if (it != list.end ()) list.erase (it);
}

Firmware::Interface *Firmware::Entry (EFI_HANDLE handle, const EFI_GUID &guid) {
  auto it = handles_.find (handle);
  if (it == handles_.end ()) return nullptr;
  for (auto &entry : it->second) {
    if (SameGuid (entry.guid, guid)) return &entry;
  }
  return nullptr;
}

void *Firmware::FindRaw (EFI_HANDLE handle, const EFI_GUID &guid) const {
  Interface *entry = const_cast<Firmware *>(this)->Entry (handle, guid);
  return entry == nullptr ? nullptr : entry->iface;
}

void *Firmware::Find (EFI_HANDLE handle, const EFI_GUID &guid) const {
  void *iface = FindRaw (handle, guid);
  auto  shown = shownAs_.find (iface);
  return shown == shownAs_.end () ? iface : shown->second;
}

void Firmware::ShowAs (void *driverInterface, void *applicationInterface) {
  if (applicationInterface == nullptr) shownAs_.erase (driverInterface);
  else shownAs_[driverInterface] = applicationInterface;
}

bool Firmware::IsHandle (EFI_HANDLE handle) const {
  auto it = handles_.find (handle);
  return it != handles_.end () && !it->second.empty ();
}

std::vector<EFI_HANDLE> Firmware::HandlesWith (const EFI_GUID *guid, bool hiddenToo) const {
  std::vector<EFI_HANDLE> found;
  std::copy_if (order_.begin (), order_.end (), std::back_inserter (found), [&](EFI_HANDLE h) {
    if (!hiddenToo && std::find (hidden_.begin (), hidden_.end (), h) != hidden_.end ()) return false;
    return guid == nullptr ? IsHandle (h) : FindRaw (h, *guid) != nullptr;
  });
  return found;
}

// --- Driver model ----------------------------------------------------------------

// As CoreOpenProtocol: BY_DRIVER and EXCLUSIVE opens exclude each other; an agent that
// already holds the protocol BY_DRIVER is told EFI_ALREADY_STARTED. Opens other than
// TEST_PROTOCOL are recorded, so that CloseProtocol and uninstalling can be checked.
EFI_STATUS Firmware::OpenProtocol (EFI_HANDLE handle, const EFI_GUID *guid, VOID **iface, EFI_HANDLE agent, EFI_HANDLE controller,
                                   UINT32 attributes, bool applicationView) {
  if (guid == nullptr) return EFI_INVALID_PARAMETER;
  if (iface == nullptr && attributes != EFI_OPEN_PROTOCOL_TEST_PROTOCOL) return EFI_INVALID_PARAMETER;
  if (!IsHandle (handle)) return EFI_INVALID_PARAMETER;
  const UINT32 needsAgent = EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER | EFI_OPEN_PROTOCOL_BY_DRIVER | EFI_OPEN_PROTOCOL_EXCLUSIVE;
  if ((attributes & needsAgent) != 0 && !IsHandle (agent)) return EFI_INVALID_PARAMETER;
  if (attributes == EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER && (!IsHandle (controller) || controller == handle)) return EFI_INVALID_PARAMETER;
  Interface *entry = Entry (handle, *guid);
  if (entry == nullptr) {
    if (iface != nullptr && attributes != EFI_OPEN_PROTOCOL_TEST_PROTOCOL) *iface = nullptr;
    return EFI_UNSUPPORTED;
  }
  void *shown = applicationView ? Find (handle, *guid) : entry->iface;
  bool byDriver = false, exclusive = false;
  for (const OpenRecord &open : entry->opens) {
    if ((open.attributes & EFI_OPEN_PROTOCOL_BY_DRIVER) != 0) {
      byDriver = true;
      if (open.agent == agent && (attributes & EFI_OPEN_PROTOCOL_BY_DRIVER) != 0) {
        if (iface != nullptr) *iface = shown;
        return EFI_ALREADY_STARTED;
      }
    }
    exclusive = exclusive || (open.attributes & EFI_OPEN_PROTOCOL_EXCLUSIVE) != 0;
  }
  if ((attributes & (EFI_OPEN_PROTOCOL_BY_DRIVER | EFI_OPEN_PROTOCOL_EXCLUSIVE)) != 0 && (byDriver || exclusive)) return EFI_ACCESS_DENIED;
  if (attributes == EFI_OPEN_PROTOCOL_TEST_PROTOCOL) return EFI_SUCCESS;
  *iface = shown;
  auto same = std::find_if (entry->opens.begin (), entry->opens.end (), [&](const OpenRecord &open) {
    return open.agent == agent && open.controller == controller && open.attributes == attributes;
  });
  if (same != entry->opens.end ()) same->count++;
  else entry->opens.push_back ({ agent, controller, attributes, 1 });
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::CloseProtocol (EFI_HANDLE handle, const EFI_GUID *guid, EFI_HANDLE agent, EFI_HANDLE controller) {
  if (guid == nullptr || !IsHandle (handle) || !IsHandle (agent) || (controller != nullptr && !IsHandle (controller))) return EFI_INVALID_PARAMETER;
  Interface *entry = Entry (handle, *guid);
  if (entry == nullptr) return EFI_NOT_FOUND;
  auto kept = std::remove_if (entry->opens.begin (), entry->opens.end (),
                              [&](const OpenRecord &open) { return open.agent == agent && open.controller == controller; });
  if (kept == entry->opens.end ()) return EFI_NOT_FOUND;
  entry->opens.erase (kept, entry->opens.end ());
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::InstallProtocol (EFI_HANDLE *handle, const EFI_GUID *guid, void *iface) {
  if (handle == nullptr || guid == nullptr) return EFI_INVALID_PARAMETER;
  if (*handle == nullptr) *handle = NewHandle ();
  else if (handles_.count (*handle) == 0) return EFI_INVALID_PARAMETER;
  if (Entry (*handle, *guid) != nullptr) return EFI_INVALID_PARAMETER;
  Install (*handle, *guid, iface);
  return EFI_SUCCESS;
}

// As CoreUninstallProtocolInterface, short of disconnecting drivers: an interface a
// driver still holds BY_DRIVER or EXCLUSIVE stays; other opens go with it.
EFI_STATUS Firmware::UninstallProtocol (EFI_HANDLE handle, const EFI_GUID *guid, void *iface) {
  if (guid == nullptr || !IsHandle (handle)) return EFI_INVALID_PARAMETER;
  Interface *entry = Entry (handle, *guid);
  if (entry == nullptr || entry->iface != iface) return EFI_NOT_FOUND;
  for (const OpenRecord &open : entry->opens) {
    if ((open.attributes & (EFI_OPEN_PROTOCOL_BY_DRIVER | EFI_OPEN_PROTOCOL_EXCLUSIVE)) != 0) return EFI_ACCESS_DENIED;
  }
  shownAs_.erase (iface);
  Uninstall (handle, *guid);
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::ReinstallProtocol (EFI_HANDLE handle, const EFI_GUID *guid, void *oldIface, void *newIface) {
  if (guid == nullptr || !IsHandle (handle)) return EFI_INVALID_PARAMETER;
  Interface *entry = Entry (handle, *guid);
  if (entry == nullptr || entry->iface != oldIface) return EFI_NOT_FOUND;
  entry->iface = newIface;
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::ConnectFat (EFI_HANDLE controller) {
  if (fatBinding == nullptr) return EFI_NOT_FOUND;
  EFI_STATUS status = fatBinding->Supported (fatBinding, controller, nullptr);
  return EFI_ERROR (status) ? status : fatBinding->Start (fatBinding, controller, nullptr);
}

EFI_STATUS Firmware::DisconnectFat (EFI_HANDLE controller) {
  return fatBinding == nullptr ? EFI_NOT_FOUND : fatBinding->Stop (fatBinding, controller, 0, nullptr);
}

// --- TPL and events --------------------------------------------------------------

EFI_TPL Firmware::RaiseTpl (EFI_TPL tpl) {
  EFI_TPL old = tpl_;
  EXPECT_GE (tpl, old) << "RaiseTPL to a lower TPL";
  tpl_ = tpl;
  return old;
}

void Firmware::RestoreTpl (EFI_TPL tpl) {
  EXPECT_LE (tpl, tpl_) << "RestoreTPL to a higher TPL";
  DispatchAbove (tpl);
  tpl_ = tpl;
}

// Runs the pending notifications above a TPL, highest first, each at its own TPL.
void Firmware::DispatchAbove (EFI_TPL tpl) {
  for (;;) {
    auto next = std::max_element (pending_.begin (), pending_.end (), [](Event *a, Event *b) { return a->tpl < b->tpl; });
    if (next == pending_.end () || (*next)->tpl <= tpl) return;
    Event *event = *next;
    pending_.erase (next);
    event->signaled = false;
    EFI_TPL old     = tpl_;
    tpl_            = event->tpl;
    event->notify (event, event->context);
    tpl_            = old;
  }
}

EFI_STATUS Firmware::CreateEvent (UINT32 type, EFI_TPL tpl, EFI_EVENT_NOTIFY notify, VOID *context, EFI_EVENT *event) {
  if (event == nullptr) return EFI_INVALID_PARAMETER;
  const bool notifies = (type & (EVT_NOTIFY_SIGNAL | EVT_NOTIFY_WAIT)) != 0;
  if (notifies && (notify == nullptr || tpl <= TPL_APPLICATION || tpl > TPL_HIGH_LEVEL)) return EFI_INVALID_PARAMETER;
  auto created = std::make_unique<Event>(Event{ type, tpl, notify, context, false });
  *event       = created.get ();
  events_[created.get ()] = std::move (created);
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::SignalEvent (EFI_EVENT handle) {
  auto it = events_.find (static_cast<Event *>(handle));
  if (it == events_.end ()) return EFI_INVALID_PARAMETER;
  Event *event = it->second.get ();
  if (event->signaled) return EFI_SUCCESS;
  event->signaled = true;
  if ((event->type & EVT_NOTIFY_SIGNAL) != 0) {
    pending_.push_back (event);
    DispatchAbove (tpl_);
  }
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::CloseEvent (EFI_EVENT handle) {
  auto it = events_.find (static_cast<Event *>(handle));
  if (it == events_.end ()) return EFI_INVALID_PARAMETER;
  pending_.erase (std::remove (pending_.begin (), pending_.end (), it->second.get ()), pending_.end ());
  events_.erase (it);
  return EFI_SUCCESS;
}

EFI_STATUS Firmware::CheckEvent (EFI_EVENT handle) {
  auto it = events_.find (static_cast<Event *>(handle));
  if (it == events_.end ()) return EFI_INVALID_PARAMETER;
  Event *event = it->second.get ();
  if ((event->type & EVT_NOTIFY_SIGNAL) != 0) return EFI_INVALID_PARAMETER;
  if (!event->signaled && (event->type & EVT_NOTIFY_WAIT) != 0) event->notify (event, event->context);
  if (!event->signaled) return EFI_NOT_READY;
  event->signaled = false;
  return EFI_SUCCESS;
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
  if (countsUp) {
    counter = (counter + ticks) % (counterStart + 1);
  } else {
    counter = ticks > counter ? counterStart - (ticks - counter) : counter - ticks;
  }
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
  const Firmware &fw = Firmware::Current ();
  if (start != nullptr) *start = fw.countsUp ? 0 : fw.counterStart;
  if (end != nullptr) *end = fw.countsUp ? fw.counterStart : 0;
  return Firmware::Current ().frequency;
}

UINT64 EFIAPI GetTimeInNanoSecond (UINT64 ticks) { return ticks * 1000000000ull / Firmware::Current ().frequency; }

UINTN EFIAPI MicroSecondDelay (UINTN us) { Firmware::Current ().AdvanceMs (us / 1000); return us; }

VOID EFIAPI ProcessLibraryConstructorList (EFI_HANDLE, EFI_SYSTEM_TABLE *) {}

VOID EFIAPI ProcessLibraryDestructorList (EFI_HANDLE, EFI_SYSTEM_TABLE *) {}

}  // extern "C"
