// What the fake's own files share and tests never see.
#pragma once

#include "Firmware.h"

#include <functional>

namespace fake {

// The in-memory stand-in file system (NTFS and exFAT volumes): a driver's own protocol,
// with no faults and no switches of its own.
struct Node;
class MemoryFs {
 public:
  MemoryFs ();
  ~MemoryFs ();
  std::unique_ptr<MemoryFs> Clone () const;   // the same tree, copied

  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  sfs;   // first: the protocol finds its file system by address
  std::shared_ptr<Node>            root;
};

// A private mount of a copy of a volume as it was, behind a stale root; it goes away with
// the last handle opened through it.
struct FrozenView {
  std::function<void ()>           release;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *raw = nullptr;
  std::unique_ptr<MemoryFs>        memory;
  ~FrozenView () { if (release) release (); }
};

void SetExactCase (MemoryFs &fs);

void *DriverPoolAllocate (size_t size);   // the drivers' pool (the C library's)
void DriverPoolFree (void *p);

BlockDevice &AddDiskDevice (Firmware &fw, EFI_HANDLE handle, std::shared_ptr<Disk> disk);
void RemoveDevice (Firmware &fw, BlockDevice *device);

}  // namespace fake
