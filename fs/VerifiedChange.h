/** @file
  The only ways Velmaro changes a stick: rename, move aside to ".bak", copy. A change
  counts only when a freshly opened root shows it (or every chunk was written in full).
**/

#ifndef VELMARO_VERIFIED_CHANGE_H_
#define VELMARO_VERIFIED_CHANGE_H_

#include <Velmaro.h>

/// Longest path that still has room for ".bak" in its 192-character buffer.
#define BAK_PATH_MAX_CHARS   187
#define BAK_PATH_CHARS       192
/// An entry in the way is kept under the first free of "<name>1" ... "<name>99".
#define KEPT_NAME_MAX_NUMBER  99
/// A ".bak" path and two more digits.
#define KEPT_PATH_CHARS       (BAK_PATH_CHARS + 2)
/// Directory path, "\" and an entry name as stored on the volume.
#define DIR_ENTRY_PATH_CHARS 224
#define COPY_CHUNK_BYTES     4096

/**
  Renames Source to Destination through SetInfo and proves it on a freshly opened root.
  A path in FileName refused by the driver (EFI_INVALID_PARAMETER) is retried with the
  leaf name (a rename within the same folder). A failed rename is not undone.

  @retval EFI_SUCCESS       On a fresh root, Source is gone and Destination opens.
  @retval EFI_DEVICE_ERROR  The rename was accepted, but the fresh root still finds
                            Source (or cannot tell), or does not open Destination.
  @retval other             Opening Source, reading its information, the rename itself
                            or reopening the root failed.
**/
EFI_STATUS
RenameVerified (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Source,
  IN CONST CHAR16       *Destination
  );

/**
  Makes room for a new entry at Path: an entry already there is renamed, verified, to
  the first free of Path + "1" ... Path + "99". Nothing that may be a group's data is
  deleted to make room.

  @retval EFI_SUCCESS          Path is free: it was, or its entry now carries the
                               numbered name, which is logged.
  @retval EFI_ALREADY_STARTED  All 99 names are taken; nothing changed.
  @retval EFI_BUFFER_TOO_SMALL Path leaves no room for two digits.
  @retval other                An existence test or the rename failed.
**/
EFI_STATUS
MakeRoomAt (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  );

/**
  Renames Path to Path + ".bak", verified. An older entry of that name is first kept
  under a numbered name (MakeRoomAt), never deleted.

  @retval EFI_SUCCESS           Path now carries its ".bak" name.
  @retval EFI_BUFFER_TOO_SMALL  Path is longer than BAK_PATH_MAX_CHARS; nothing changed.
  @retval EFI_ALREADY_STARTED   An older ".bak" is in the way and all 99 numbered names
                                are taken; nothing changed.
  @retval EFI_DEVICE_ERROR      A rename was not confirmed on a fresh root.
  @retval other                 An existence test or a rename failed.
**/
EFI_STATUS
MoveAsideToBak (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path
  );

/**
  Copies Source into a new Destination in 4096-byte chunks and flushes it. A failed copy
  leaves a partial destination; callers prove content by digest.

  @retval EFI_SUCCESS        Every chunk was written in full.
  @retval EFI_ACCESS_DENIED  Destination already holds bytes; it is left untouched.
  @retval EFI_DEVICE_ERROR   A write failed or came up short.
  @retval other              Opening Source, creating Destination, reading
                             Destination's information or a read of Source failed.
**/
EFI_STATUS
CopyFileVerified (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Source,
  IN CONST CHAR16       *Destination
  );

/**
  Finds Name in Directory without regard to the case of a-z and gives back, in Path
  (DIR_ENTRY_PATH_CHARS), Directory + "\" + the name as stored. Path is empty on failure.

  @retval EFI_SUCCESS           Path holds the entry's path.
  @retval EFI_NOT_FOUND         No entry of Directory has that name.
  @retval EFI_BUFFER_TOO_SMALL  The path would not fit DIR_ENTRY_PATH_CHARS.
  @retval EFI_OUT_OF_RESOURCES  No pool for a directory entry.
  @retval other                 Opening Directory (EFI_NOT_FOUND when it is absent) or
                                reading an entry failed.
**/
EFI_STATUS
FindDirEntryPath (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Directory,
  IN  CONST CHAR16       *Name,
  OUT CHAR16             *Path
  );

#endif
