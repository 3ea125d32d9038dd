/** @file
  The recovery record recovery.txt inside a source folder ("KEY|value" lines tying the
  folder to its group and partition) and the marker-ID files <ID>.txt whose names say
  which group owns a folder. A record only grows: keys are added once at its end and no
  existing line is ever changed.
**/

#ifndef VELMARO_RECOVERY_RECORD_H_
#define VELMARO_RECOVERY_RECORD_H_

#include <Velmaro.h>

#define ACTIVE_RECORD_PATH   L16 (u"\\sources\\recovery.txt")
#define RECORD_PATH_CHARS    160

/// How IdentifyFolderByMarker resolves a marker ID to a group's names.
enum class MarkerLookup {
  Entries,         ///< the entries file only
  MetadataFirst    ///< install metadata, then the entries file
};

EFI_STATUS
RecordReadId (
  IN  CONST CHAR8  *Text,
  OUT CHAR8        *Id
  );

EFI_STATUS
RecordReadSrc (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *Src
  );

EFI_STATUS
RecordReadSrcPart (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *SrcPart
  );

EFI_STATUS
RecordReadSrcFs (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *SrcFs
  );

/** Writes Text over the record from offset 0. Callers only ever write a longer text
    that begins with the old one, so nothing stale can remain behind it. **/
EFI_STATUS
RecordWrite (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  );

EFI_STATUS
RecordAddSrcPart (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  );

EFI_STATUS
RecordAddSrcFs (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  );

EFI_STATUS
RecordAddBcdMd5 (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text,
  IN CONST CHAR16       *BcdPath
  );

/** EFI_SUCCESS when the record belongs to the partition examined; a record without
    SRC_PART belongs only to the boot volume. **/
EFI_STATUS
RecordMatchesVolume (
  IN EFI_HANDLE   Volume,
  IN EFI_HANDLE   BootHandle,
  IN CONST CHAR8  *Text
  );

EFI_STATUS
MarkerIdFileExists (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Folder,
  IN CONST CHAR8        *Id
  );

EFI_STATUS
ActiveMarkerMatchesRecord (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR8        *Text
  );

/** Completes \sources\recovery.txt with SRC_PART and SRC_FS. *Text is replaced by the
    text read last (or null when a re-read failed); the caller frees it. **/
EFI_STATUS
RefreshActiveRecord (
  IN     EFI_HANDLE         Volume,
  IN     EFI_FILE_PROTOCOL  *Root,
  IN OUT CHAR8              **Text
  );

/** EFI_SUCCESS when Folder is a source folder of the requested group on this volume,
    EFI_NOT_FOUND when it is not. Completes the record and copies its digests into
    Context->Requested. **/
EFI_STATUS
ValidateRequestedSourcePath (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR16        *Folder,
  IN     CONST CHAR8         *RequestedId
  );

/** The group that owns Folder: the first marker-ID file, in directory order, whose ID
    resolves. **/
EFI_STATUS
IdentifyFolderByMarker (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_FILE_PROTOCOL         *Root,
  IN  CONST CHAR16              *Folder,
  IN  MarkerLookup              Kind,
  OUT CHAR8                     *Id,
  OUT GROUP_STATE               *State
  );

#endif
