/** @file
  Scope guards for firmware resources: an open file or directory, a pool buffer.
  Whatever path a function leaves by, the guard closes or frees what it holds, unless
  ownership was handed on with Release ().
**/

#ifndef VELMARO_GUARDS_H_
#define VELMARO_GUARDS_H_

#include <Velmaro.h>

class FileGuard {
public:
  FileGuard () : mFile (nullptr) {}
  explicit FileGuard (EFI_FILE_PROTOCOL *File) : mFile (File) {}
  ~FileGuard () { Close (); }
  FileGuard (const FileGuard &) = delete;
  FileGuard &operator= (const FileGuard &) = delete;

  /// Out parameter for Open/OpenVolume; closes what the guard held before.
  EFI_FILE_PROTOCOL **Out () { Close (); return &mFile; }
  EFI_FILE_PROTOCOL *Get () const { return mFile; }
  EFI_FILE_PROTOCOL *operator-> () const { return mFile; }
  explicit operator bool () const { return mFile != nullptr; }

  /// Gives up ownership, e.g. after Delete (), which closes the handle itself.
  EFI_FILE_PROTOCOL *Release () { EFI_FILE_PROTOCOL *File = mFile; mFile = nullptr; return File; }

  VOID Close ()
  {
    if (mFile != nullptr) {
      mFile->Close (mFile);
      mFile = nullptr;
    }
  }

private:
  EFI_FILE_PROTOCOL  *mFile;
};

template<typename T>
class PoolGuard {
public:
  PoolGuard () : mBuffer (nullptr) {}
  explicit PoolGuard (T *Buffer) : mBuffer (Buffer) {}
  ~PoolGuard () { Free (); }
  PoolGuard (const PoolGuard &) = delete;
  PoolGuard &operator= (const PoolGuard &) = delete;

  T **Out () { Free (); return &mBuffer; }
  T *Get () const { return mBuffer; }
  T *operator-> () const { return mBuffer; }
  explicit operator bool () const { return mBuffer != nullptr; }
  VOID Reset (T *Buffer) { Free (); mBuffer = Buffer; }
  T *Release () { T *Buffer = mBuffer; mBuffer = nullptr; return Buffer; }

  VOID Free ()
  {
    if (mBuffer != nullptr) {
      FreePool (mBuffer);
      mBuffer = nullptr;
    }
  }

private:
  T  *mBuffer;
};

#endif
