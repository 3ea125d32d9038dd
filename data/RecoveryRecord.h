/** @file
  The recovery record recovery.txt inside a source folder ("KEY|value" lines tying the
  folder to its group and partition) and the marker-ID files <ID>.txt whose names say
  which group owns a folder. A record only grows: keys are added once at its end and no
  existing line is ever changed.
**/

#ifndef VELMARO_RECOVERY_RECORD_H_
#define VELMARO_RECOVERY_RECORD_H_

#include <Velmaro.h>

#define ACTIVE_SOURCES_PATH  L16 (u"\\sources")
#define ACTIVE_RECORD_PATH   L16 (u"\\sources\\recovery.txt")
#define RECORD_PATH_CHARS    160

/// How IdentifyFolderByMarker resolves a marker ID to a group's names.
enum class MarkerLookup {
  Entries,         ///< the entries file only
  MetadataFirst    ///< install metadata, then the entries file
};

/**
  The value on the first line that starts with "ID|": blanks after the key skipped, up
  to a blank or the line end, into Id (VELMARO_NAME_CHARS bytes). Id is empty on any
  failure.

  @retval EFI_SUCCESS           Id holds the value.
  @retval EFI_NOT_FOUND         No line starts with "ID|", or the first one has no value.
  @retval EFI_COMPROMISED_DATA  The value holds "\", "/" or ":".
  @retval EFI_BUFFER_TOO_SMALL  The value has VELMARO_NAME_CHARS characters or more, or a
                                byte of 128 or more.
**/
EFI_STATUS
RecordReadId (
  IN  CONST CHAR8  *Text,
  OUT CHAR8        *Id
  );

/**
  The "SRC|" value, read as RecordReadId reads "ID|", widened into Src
  (VELMARO_NAME_CHARS characters).

  @retval EFI_SUCCESS           Src holds the value.
  @retval EFI_NOT_FOUND         No line starts with "SRC|", or the first one has no value.
  @retval EFI_COMPROMISED_DATA  The value holds "\", "/" or ":".
  @retval EFI_BUFFER_TOO_SMALL  The value is too long for Src, or has a byte of 128 or more.
**/
EFI_STATUS
RecordReadSrc (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *Src
  );

/**
  The "SRC_PART|" value (a partition's UUID text), read as RecordReadId reads "ID|" but
  with any character allowed, widened into SrcPart (VELMARO_NAME_CHARS characters).

  @retval EFI_SUCCESS           SrcPart holds the value.
  @retval EFI_NOT_FOUND         No line starts with "SRC_PART|", or the first one has no
                                value.
  @retval EFI_BUFFER_TOO_SMALL  The value is too long for SrcPart, or has a byte of 128 or
                                more.
**/
EFI_STATUS
RecordReadSrcPart (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *SrcPart
  );

/**
  The "SRC_FS|" value, read as RecordReadSrcPart reads "SRC_PART|", widened into SrcFs
  (VELMARO_FS_CHARS characters). The spelling is kept as written.

  @retval EFI_SUCCESS           SrcFs holds the value.
  @retval EFI_NOT_FOUND         No line starts with "SRC_FS|", or the first one has no
                                value.
  @retval EFI_BUFFER_TOO_SMALL  The value is too long for SrcFs, or has a byte of 128 or
                                more.
**/
EFI_STATUS
RecordReadSrcFs (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *SrcFs
  );

/**
  Writes Text over the record from offset 0, creating the file when it is missing, and
  flushes it. Callers only ever write a longer text that begins with the old one, so
  nothing stale can remain behind it.

  @retval EFI_SUCCESS       Every byte of Text was written.
  @retval EFI_DEVICE_ERROR  The write failed or came up short.
  @retval other             Opening the file or setting its position failed.
**/
EFI_STATUS
RecordWrite (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  );

/**
  Appends "SRC_PART|" and the UUID text of Volume to the record at Path, unless Text
  (the record as last read) has a SRC_PART value. The file must still hold exactly
  Text's bytes, so that a text read short cannot cut the record's later lines.

  @retval EFI_SUCCESS           The line was added, or Text has the key already.
  @retval EFI_COMPROMISED_DATA  The file's size is no longer Text's; nothing was written.
  @retval EFI_BUFFER_TOO_SMALL  The SRC_PART value in Text is too long or not ASCII.
  @retval EFI_DEVICE_ERROR      The write failed or came up short.
  @retval EFI_OUT_OF_RESOURCES  No pool for the new text.
  @retval other                 Reading the volume's UUID, opening the record or setting
                                its position failed.
**/
EFI_STATUS
RecordAddSrcPart (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  );

/**
  Appends "SRC_FS|" and the filesystem Volume carries ("FAT32", "NTFS" or "exFAT") to the
  record at Path, unless Text has a SRC_FS value; otherwise as RecordAddSrcPart.

  @retval EFI_SUCCESS           The line was added, or Text has the key already.
  @retval EFI_COMPROMISED_DATA  The file's size is no longer Text's; nothing was written.
  @retval EFI_BUFFER_TOO_SMALL  The SRC_FS value in Text is too long or not ASCII.
  @retval EFI_DEVICE_ERROR      The write failed or came up short.
  @retval EFI_OUT_OF_RESOURCES  No pool for the new text.
  @retval other                 Reading the volume's boot sector, opening the record or
                                setting its position failed.
**/
EFI_STATUS
RecordAddSrcFs (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  );

/**
  Appends "BCD_MD5|" and the digest of the store at BcdPath to the record at Path, unless
  Text has a BCD_MD5 line; otherwise as RecordAddSrcPart. A store that does not open
  leaves the key to a later run.

  @retval EFI_SUCCESS           The line was added, Text has the key already, or the
                                store does not open (nothing was written).
  @retval EFI_COMPROMISED_DATA  Text's first BCD_MD5 line carries a malformed digest, or
                                the file's size is no longer Text's; nothing was written.
  @retval EFI_DEVICE_ERROR      A read of the store reported more bytes than asked for,
                                or the write failed or came up short.
  @retval EFI_OUT_OF_RESOURCES  No pool for the new text.
  @retval other                 Reading the store, opening the record or setting its
                                position failed.
**/
EFI_STATUS
RecordAddBcdMd5 (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text,
  IN CONST CHAR16       *BcdPath
  );

/**
  Whether the record belongs to the partition examined. A record without a SRC_PART
  value belongs only to the boot volume.

  @retval EFI_SUCCESS           SRC_PART equals Volume's UUID text, or there is none and
                                Volume is BootHandle.
  @retval EFI_NOT_FOUND         SRC_PART names another partition, or there is none and
                                Volume is not BootHandle.
  @retval EFI_BUFFER_TOO_SMALL  The SRC_PART value is too long or not ASCII.
  @retval other                 Volume's UUID cannot be read (see ReadVolumeUuid).
**/
EFI_STATUS
RecordMatchesVolume (
  IN EFI_HANDLE   Volume,
  IN EFI_HANDLE   BootHandle,
  IN CONST CHAR8  *Text
  );

/**
  Whether Folder holds the marker-ID file "<Id>.txt".

  @retval EFI_SUCCESS           The file opens.
  @retval EFI_NOT_FOUND         It does not open, whatever the reason.
  @retval EFI_BUFFER_TOO_SMALL  Id has VELMARO_NAME_CHARS characters or more.
**/
EFI_STATUS
MarkerIdFileExists (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Folder,
  IN CONST CHAR8        *Id
  );

/**
  Whether "\sources" holds the marker-ID file of the ID in the record text Text.

  @retval EFI_SUCCESS           It does.
  @retval EFI_NOT_FOUND         The record has no ID value, or the file does not open.
  @retval EFI_COMPROMISED_DATA  The ID holds "\", "/" or ":".
  @retval EFI_BUFFER_TOO_SMALL  The ID is too long or not ASCII.
**/
EFI_STATUS
ActiveMarkerMatchesRecord (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR8        *Text
  );

/**
  Completes \sources\recovery.txt with SRC_PART and SRC_FS (RecordAddSrcPart, then
  RecordAddSrcFs), reading the file again after each that wrote a line; the first failure
  ends it. *Text is the record's current text afterwards (null when a re-read failed);
  the caller frees it.

  @retval EFI_SUCCESS           The record has both keys; *Text is its current text.
  @retval EFI_COMPROMISED_DATA  The file's size no longer matched the text read before.
  @retval EFI_BUFFER_TOO_SMALL  A SRC_PART or SRC_FS value present is too long or not
                                ASCII.
  @retval EFI_DEVICE_ERROR      A write failed or came up short.
  @retval other                 Reading the volume, writing or reading the record failed.
**/
EFI_STATUS
RefreshActiveRecord (
  IN     EFI_HANDLE         Volume,
  IN     EFI_FILE_PROTOCOL  *Root,
  IN OUT CHAR8              **Text
  );

/**
  Whether Folder is a source folder of the requested group on this volume: it holds the
  group's marker-ID file and, when it has a recovery.txt, that record belongs to this
  volume and names no other ID or SRC. The record is completed with SRC_PART, SRC_FS and
  BCD_MD5 (a failure there is only logged) and its BCD_MD5 and BCD_EFI_MD5 are copied
  into Context->Requested. A folder without recovery.txt is accepted as it is, with
  nothing completed or copied.

  @retval EFI_SUCCESS           Folder is a source folder of the requested group.
  @retval EFI_NOT_FOUND         The marker-ID file does not open, the record belongs to
                                another partition, or its ID or SRC is not the requested
                                group's.
  @retval EFI_COMPROMISED_DATA  The record's ID or SRC holds "\", "/" or ":", or its
                                BCD_MD5 or BCD_EFI_MD5 line a malformed digest.
  @retval EFI_BUFFER_TOO_SMALL  RequestedId is too long, or the record's SRC_PART, ID or
                                SRC value is too long or not ASCII.
  @retval other                 Reading the record (or reading it again after a key was
                                added) or reading the volume's UUID failed.
**/
EFI_STATUS
ValidateRequestedSourcePath (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR16        *Folder,
  IN     CONST CHAR8         *RequestedId
  );

/**
  The group that owns Folder: the first marker-ID file (a "<ID>.txt" file), in
  directory order, whose ID resolves to a group's names, with MarkerLookup::MetadataFirst
  through the install metadata and then the entries file. A .txt file whose name
  resolves to no group is passed over. Id is empty and *State zero on any failure.

  @retval EFI_SUCCESS           Id and *State name the group.
  @retval EFI_NOT_FOUND         No marker-ID file in Folder resolves, or Folder is absent.
  @retval EFI_OUT_OF_RESOURCES  No pool for a directory entry.
  @retval other                 Opening Folder or reading an entry failed. With
                                MarkerLookup::MetadataFirst an entry larger than
                                FILE_INFO_FIRST_GUESS bytes ends the walk this way
                                (EFI_BUFFER_TOO_SMALL).
**/
EFI_STATUS
IdentifyFolderByMarker (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_FILE_PROTOCOL         *Root,
  IN  CONST CHAR16              *Folder,
  IN  MarkerLookup              Kind,
  OUT CHAR8                     *Id,
  OUT GROUP_STATE               *State
  );

/**
  IdentifyFolderByMarker on a folder the caller has opened for reading: its entries are
  read from Dir's current position, and Dir stays open. Lets a caller that must first
  know whether the folder opens at all look at it once.
**/
EFI_STATUS
IdentifyOpenFolderByMarker (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_FILE_PROTOCOL         *Dir,
  IN  MarkerLookup              Kind,
  OUT CHAR8                     *Id,
  OUT GROUP_STATE               *State
  );

#endif
