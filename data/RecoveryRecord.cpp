/** @file
  The recovery record and the marker-ID files.
**/

#include <data/RecoveryRecord.h>
#include <data/EntriesFile.h>
#include <data/StateFile.h>
#include <app/DiagnosticLog.h>
#include <discovery/FsIdentification.h>
#include <discovery/InstallMetadata.h>
#include <fs/FileAccess.h>
#include <Guards.h>
#include <fs/Md5.h>

#define MARKER_PATH_CHARS  (RECORD_PATH_CHARS + VELMARO_NAME_CHARS + 8)

/**
  The value of the first line that begins with Key: blanks after the key skipped, the
  value ends at a blank or the line end. Limit counts the NUL.
**/
STATIC
EFI_STATUS
ReadRecordKey (
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *Key,
  IN  UINTN        Limit,
  IN  BOOLEAN      BareName,
  OUT CHAR8        *Value
  )
{
  CONST CHAR8  *Line;
  UINTN        KeyLength;
  UINTN        Length;

  if ((Text == nullptr) || (Value == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Value[0]  = '\0';
  KeyLength = AsciiStrLen (Key);
  for (Line = Text; (Line != nullptr) && (*Line != '\0'); Line = NextLine (Line)) {
    if ((*Line == '\r') || (*Line == '\n') || (AsciiStrnCmp (Line, Key, KeyLength) != 0)) {
      continue;
    }

    CONST CHAR8  *Scan = Line + KeyLength;

    while ((*Scan == ' ') || (*Scan == '\t')) {
      Scan++;
    }

    for (Length = 0; ; Length++, Scan++) {
      CHAR8  Character = *Scan;

      if ((Character == '\0') || (Character == ' ') || (Character == '\t') || (Character == '\r') || (Character == '\n')) {
        break;
      }

      // IDs and folder names become parts of paths: no separators, no drive colon.
      if (BareName && ((Character == '/') || (Character == ':') || (Character == '\\'))) {
        Value[0] = '\0';
        return EFI_COMPROMISED_DATA;
      }

      if ((Length + 1 >= Limit) || (static_cast<UINT8>(Character) >= 128)) {
        Value[0] = '\0';
        return EFI_BUFFER_TOO_SMALL;
      }

      Value[Length] = Character;
    }

    Value[Length] = '\0';
    return (Length == 0) ? EFI_NOT_FOUND : EFI_SUCCESS;
  }

  return EFI_NOT_FOUND;
}

/** A key's value widened into a CHAR16 field of Capacity characters. **/
STATIC
EFI_STATUS
ReadRecordKeyWide (
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *Key,
  IN  UINTN        Capacity,
  IN  BOOLEAN      BareName,
  OUT CHAR16       *Field
  )
{
  CHAR8       Value[VELMARO_NAME_CHARS];
  EFI_STATUS  Status;

  if (Field == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Field[0] = L'\0';
  Status   = ReadRecordKey (Text, Key, Capacity, BareName, Value);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return AsciiToChar16 (Field, Capacity, Value);
}

EFI_STATUS
RecordReadId (
  IN  CONST CHAR8  *Text,
  OUT CHAR8        *Id
  )
{
  return ReadRecordKey (Text, "ID|", VELMARO_NAME_CHARS, TRUE, Id);
}

EFI_STATUS
RecordReadSrc (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *Src
  )
{
  return ReadRecordKeyWide (Text, "SRC|", VELMARO_NAME_CHARS, TRUE, Src);
}

EFI_STATUS
RecordReadSrcPart (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *SrcPart
  )
{
  return ReadRecordKeyWide (Text, "SRC_PART|", VELMARO_NAME_CHARS, FALSE, SrcPart);
}

EFI_STATUS
RecordReadSrcFs (
  IN  CONST CHAR8  *Text,
  OUT CHAR16       *SrcFs
  )
{
  return ReadRecordKeyWide (Text, "SRC_FS|", VELMARO_FS_CHARS, FALSE, SrcFs);
}

/**
  RecordWrite's body. With OldSize other than MAX_UINTN the file must still hold exactly
  that many bytes: the new text is the old one plus a line, and a text that was read
  short (or stops at a NUL byte) would otherwise cut the record's later lines.
**/
STATIC
EFI_STATUS
WriteRecordText (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text,
  IN UINTN              OldSize
  )
{
  FileGuard                 File;
  PoolGuard<EFI_FILE_INFO>  Info;
  UINTN                     Length;
  UINTN                     Written;
  EFI_STATUS                Status;

  if ((Root == nullptr) || (Path == nullptr) || (Text == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (OldSize != MAX_UINTN) {
    Status = GetFileInfoAlloc (File.Get (), Info.Out (), nullptr);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (Info->FileSize != OldSize) {
      return EFI_COMPROMISED_DATA;
    }
  }

  Status = File->SetPosition (File.Get (), 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Length  = AsciiStrLen (Text);
  Written = Length;
  Status  = File->Write (File.Get (), &Written, const_cast<CHAR8 *>(Text));
  File->Flush (File.Get ());
  File.Close ();
  return (EFI_ERROR (Status) || (Written < Length)) ? EFI_DEVICE_ERROR : EFI_SUCCESS;
}

EFI_STATUS
RecordWrite (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  )
{
  return WriteRecordText (Root, Path, Text, MAX_UINTN);
}

/**
  The record's text with one more "KEY|value" line at its end, on a line of its own.
  Format is one of the three line templates; it receives the old text, the separator
  and the value.
**/
STATIC
EFI_STATUS
AppendRecordLine (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text,
  IN CONST CHAR8        *Format,
  IN CONST CHAR8        *Value
  )
{
  PoolGuard<CHAR8>  NewText;
  UINTN             OldLength;
  UINTN             Size;
  CONST CHAR8       *Separator;

  OldLength = AsciiStrLen (Text);
  Separator = ((OldLength == 0) || (Text[OldLength - 1] == '\n') || (Text[OldLength - 1] == '\r')) ? "" : "\r\n";
  Size      = OldLength + AsciiStrLen (Separator) + AsciiStrLen (Format) + AsciiStrLen (Value) + 1;
  NewText.Reset (static_cast<CHAR8 *>(AllocateZeroPool (Size)));
  if (!NewText) {
    return EFI_OUT_OF_RESOURCES;
  }

  AsciiSPrint (NewText.Get (), Size, Format, Text, Separator, Value);
  return WriteRecordText (Root, Path, NewText.Get (), OldLength);
}

typedef EFI_STATUS (*RECORD_KEY_READER)(CONST CHAR8 *Text, CHAR16 *Value);
typedef EFI_STATUS (*VOLUME_VALUE_READER)(EFI_HANDLE Volume, CHAR16 *Value, UINTN Capacity);

/**
  Appends a key whose value is read from the volume itself, unless the record has it.
  *Appended tells whether the line was written.
**/
STATIC
EFI_STATUS
AddVolumeKey (
  IN  EFI_HANDLE           Volume,
  IN  EFI_FILE_PROTOCOL    *Root,
  IN  CONST CHAR16         *Path,
  IN  CONST CHAR8          *Text,
  IN  RECORD_KEY_READER    ReadKey,
  IN  VOLUME_VALUE_READER  ReadValue,
  IN  UINTN                Capacity,
  IN  CONST CHAR8          *Format,
  OUT BOOLEAN              *Appended
  )
{
  CHAR16      Present[VELMARO_NAME_CHARS];
  CHAR16      Wide[UUID_TEXT_CHARS];
  CHAR8       Value[UUID_TEXT_CHARS];
  EFI_STATUS  Status;

  *Appended = FALSE;
  Status    = ReadKey (Text, Present);
  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  Status = ReadValue (Volume, Wide, Capacity);
  if (!EFI_ERROR (Status)) {
    Status = NarrowToAscii (Value, sizeof (Value), Wide);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status    = AppendRecordLine (Root, Path, Text, Format, Value);
  *Appended = !EFI_ERROR (Status);
  return Status;
}

STATIC
EFI_STATUS
AddSrcPart (
  IN  EFI_HANDLE         Volume,
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  IN  CONST CHAR8        *Text,
  OUT BOOLEAN            *Appended
  )
{
  return AddVolumeKey (Volume, Root, Path, Text, RecordReadSrcPart, ReadVolumeUuid, UUID_TEXT_CHARS, "%a%aSRC_PART|%a\r\n", Appended);
}

STATIC
EFI_STATUS
AddSrcFs (
  IN  EFI_HANDLE         Volume,
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  IN  CONST CHAR8        *Text,
  OUT BOOLEAN            *Appended
  )
{
  return AddVolumeKey (Volume, Root, Path, Text, RecordReadSrcFs, DetectFsType, VELMARO_FS_CHARS, "%a%aSRC_FS|%a\r\n", Appended);
}

/** RecordAddBcdMd5's body; *Appended tells whether the line was written. **/
STATIC
EFI_STATUS
AddBcdMd5 (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  IN  CONST CHAR8        *Text,
  IN  CONST CHAR16       *BcdPath,
  OUT BOOLEAN            *Appended
  )
{
  CHAR16      Digest[VELMARO_MD5_CHARS];
  CHAR8       Value[VELMARO_MD5_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  *Appended = FALSE;
  Status    = FindMd5ByKey (Digest, Text, "BCD_MD5|");
  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  // Without the store there is nothing to take a digest of: the key waits for a later run.
  if (EFI_ERROR (FileExists (Root, BcdPath, &Exists))) {
    return EFI_SUCCESS;
  }

  Status = Md5OfFile (Root, BcdPath, Digest);
  if (!EFI_ERROR (Status)) {
    Status = NarrowToAscii (Value, sizeof (Value), Digest);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status    = AppendRecordLine (Root, Path, Text, "%a%aBCD_MD5|%a\r\n", Value);
  *Appended = !EFI_ERROR (Status);
  return Status;
}

/**
  After a completion step that succeeded: the record is read again when the step wrote
  a line, so that the next step starts from the file as it is now. A step that found its
  key (or no store to take a digest of) wrote nothing, and the text in hand is the file.
**/
STATIC
EFI_STATUS
ReadAgainIfAppended (
  IN     EFI_FILE_PROTOCOL  *Root,
  IN     CONST CHAR16       *Path,
  IN     BOOLEAN            Appended,
  IN OUT PoolGuard<CHAR8>   &Text
  )
{
  return Appended ? ReadWholeFile (Root, Path, Text.Out ()) : EFI_SUCCESS;
}

EFI_STATUS
RecordAddSrcPart (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  )
{
  BOOLEAN  Appended;

  return AddSrcPart (Volume, Root, Path, Text, &Appended);
}

EFI_STATUS
RecordAddSrcFs (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text
  )
{
  BOOLEAN  Appended;

  return AddSrcFs (Volume, Root, Path, Text, &Appended);
}

EFI_STATUS
RecordAddBcdMd5 (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST CHAR8        *Text,
  IN CONST CHAR16       *BcdPath
  )
{
  BOOLEAN  Appended;

  return AddBcdMd5 (Root, Path, Text, BcdPath, &Appended);
}

EFI_STATUS
RecordMatchesVolume (
  IN EFI_HANDLE   Volume,
  IN EFI_HANDLE   BootHandle,
  IN CONST CHAR8  *Text
  )
{
  CHAR16      Recorded[VELMARO_NAME_CHARS];
  CHAR16      Actual[UUID_TEXT_CHARS];
  EFI_STATUS  Status;

  Status = RecordReadSrcPart (Text, Recorded);
  if (Status == EFI_NOT_FOUND) {
    // A record that names no partition was written for the boot volume.
    return (Volume == BootHandle) ? EFI_SUCCESS : EFI_NOT_FOUND;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadVolumeUuid (Volume, Actual, UUID_TEXT_CHARS);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return (StrCmp (Recorded, Actual) == 0) ? EFI_SUCCESS : EFI_NOT_FOUND;
}

EFI_STATUS
MarkerIdFileExists (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Folder,
  IN CONST CHAR8        *Id
  )
{
  CHAR16   WideId[VELMARO_NAME_CHARS];
  CHAR16   Path[MARKER_PATH_CHARS];
  BOOLEAN  Exists;

  if ((Root == nullptr) || (Folder == nullptr) || (Id == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (EFI_ERROR (AsciiToChar16 (WideId, VELMARO_NAME_CHARS, Id))) {
    return EFI_BUFFER_TOO_SMALL;
  }

  UnicodeSPrint (Path, sizeof (Path), L16 (u"%s\\%s.txt"), Folder, WideId);
  return EFI_ERROR (FileExists (Root, Path, &Exists)) ? EFI_NOT_FOUND : EFI_SUCCESS;
}

EFI_STATUS
ActiveMarkerMatchesRecord (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR8        *Text
  )
{
  CHAR8       Id[VELMARO_NAME_CHARS];
  EFI_STATUS  Status;

  Status = RecordReadId (Text, Id);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return EFI_ERROR (MarkerIdFileExists (Root, L16 (u"\\sources"), Id)) ? EFI_NOT_FOUND : EFI_SUCCESS;
}

EFI_STATUS
RefreshActiveRecord (
  IN     EFI_HANDLE         Volume,
  IN     EFI_FILE_PROTOCOL  *Root,
  IN OUT CHAR8              **Text
  )
{
  PoolGuard<CHAR8>  Record;
  BOOLEAN           Appended;
  EFI_STATUS        Status;

  if (Text == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Record.Reset (*Text);
  *Text  = nullptr;
  Status = AddSrcPart (Volume, Root, ACTIVE_RECORD_PATH, Record.Get (), &Appended);
  if (!EFI_ERROR (Status)) {
    Status = ReadAgainIfAppended (Root, ACTIVE_RECORD_PATH, Appended, Record);
  }

  if (!EFI_ERROR (Status)) {
    Status = AddSrcFs (Volume, Root, ACTIVE_RECORD_PATH, Record.Get (), &Appended);
  }

  if (!EFI_ERROR (Status)) {
    Status = ReadAgainIfAppended (Root, ACTIVE_RECORD_PATH, Appended, Record);
  }

  *Text = Record.Release ();
  return Status;
}

/** Copies a digest found under Key into Field; a missing key leaves Field as it was. **/
STATIC
EFI_STATUS
TakeRecordDigest (
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *Key,
  OUT CHAR16       *Field
  )
{
  CHAR16      Digest[VELMARO_MD5_CHARS];
  EFI_STATUS  Status;

  Status = FindMd5ByKey (Digest, Text, Key);
  if (Status == EFI_NOT_FOUND) {
    return EFI_SUCCESS;
  }

  if (!EFI_ERROR (Status)) {
    StrCpyS (Field, VELMARO_MD5_CHARS, Digest);
  }

  return Status;
}

EFI_STATUS
ValidateRequestedSourcePath (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE          Volume,
  IN     EFI_FILE_PROTOCOL   *Root,
  IN     CONST CHAR16        *Folder,
  IN     CONST CHAR8         *RequestedId
  )
{
  PoolGuard<CHAR8>  Text;
  CHAR16            RecordPath[RECORD_PATH_CHARS];
  CHAR16            BcdPath[RECORD_PATH_CHARS];
  CHAR8             Id[VELMARO_NAME_CHARS];
  CHAR16            Src[VELMARO_NAME_CHARS];
  BOOLEAN           Appended;
  EFI_STATUS        Status;

  if ((Context == nullptr) || (Root == nullptr) || (Folder == nullptr) || (RequestedId == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  // A folder without the requested group's marker-ID file is never its source.
  Status = MarkerIdFileExists (Root, Folder, RequestedId);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  UnicodeSPrint (RecordPath, sizeof (RecordPath), L16 (u"%s\\recovery.txt"), Folder);
  Status = ReadWholeFile (Root, RecordPath, Text.Out ());
  if (Status == EFI_NOT_FOUND) {
    LogPrint (
      L16 (u"ValidateRequestedSourcePath: marker ID presente in %s ma recovery.txt assente; accetto come sorgente gia attiva/legacy\n"),
      Folder
      );
    return EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = RecordMatchesVolume (Volume, Context->BootHandle, Text.Get ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // Completing the record is worth a warning, not a refusal: the folder is still valid.
  Status = AddSrcPart (Volume, Root, RecordPath, Text.Get (), &Appended);
  if (!EFI_ERROR (Status)) {
    Status = ReadAgainIfAppended (Root, RecordPath, Appended, Text);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  } else {
    LogPrint (L16 (u"WARN: recovery valido senza SRC_PART, aggiornamento %s non riuscito: %r (0x%lx)\n"), RecordPath, Status, Status);
  }

  Status = AddSrcFs (Volume, Root, RecordPath, Text.Get (), &Appended);
  if (!EFI_ERROR (Status)) {
    Status = ReadAgainIfAppended (Root, RecordPath, Appended, Text);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  } else {
    LogPrint (L16 (u"WARN: recovery valido senza SRC_FS, aggiornamento %s non riuscito: %r (0x%lx)\n"), RecordPath, Status, Status);
  }

  Status = RecordReadId (Text.Get (), Id);
  if (!EFI_ERROR (Status) && (AsciiStrCmp (Id, RequestedId) != 0)) {
    return EFI_NOT_FOUND;
  }

  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  Status = RecordReadSrc (Text.Get (), Src);
  if (!EFI_ERROR (Status) && (StrCmp (Src, Context->Requested.Src) != 0)) {
    return EFI_NOT_FOUND;
  }

  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  UnicodeSPrint (BcdPath, sizeof (BcdPath), L16 (u"\\boot\\%s"), Context->Requested.Bcd);
  Status = AddBcdMd5 (Root, RecordPath, Text.Get (), BcdPath, &Appended);
  if (!EFI_ERROR (Status)) {
    Status = ReadAgainIfAppended (Root, RecordPath, Appended, Text);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  } else {
    LogPrint (L16 (u"WARN: recovery valido senza BCD_MD5, aggiornamento %s non riuscito: %r (0x%lx)\n"), RecordPath, Status, Status);
  }

  Status = TakeRecordDigest (Text.Get (), "BCD_MD5|", Context->Requested.BcdMd5);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return TakeRecordDigest (Text.Get (), "BCD_EFI_MD5|", Context->Requested.BcdEfiMd5);
}

EFI_STATUS
IdentifyOpenFolderByMarker (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_FILE_PROTOCOL         *Dir,
  IN  MarkerLookup              Kind,
  OUT CHAR8                     *Id,
  OUT GROUP_STATE               *State
  )
{
  PoolGuard<EFI_FILE_INFO>  Entry;
  UINTN                     EntrySize;
  EFI_STATUS                Status;

  if ((Context == nullptr) || (Dir == nullptr) || (Id == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Id[0] = '\0';
  ZeroMem (State, sizeof (*State));

  // Room for any entry: the fixed part and a name of 255 characters.
  EntrySize = FILE_INFO_FIRST_GUESS;
  Entry.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (EntrySize)));
  if (!Entry) {
    return EFI_OUT_OF_RESOURCES;
  }

  for ( ; ;) {
    UINTN  Size = EntrySize;
    CHAR8  Candidate[VELMARO_NAME_CHARS];

    Status = Dir->Read (Dir, &Size, Entry.Get ());
    if ((Status == EFI_BUFFER_TOO_SMALL) && (Kind == MarkerLookup::Entries)) {
      EntrySize = Size;
      Entry.Reset (static_cast<EFI_FILE_INFO *>(AllocateZeroPool (EntrySize)));
      if (!Entry) {
        return EFI_OUT_OF_RESOURCES;
      }

      Status = Dir->Read (Dir, &Size, Entry.Get ());
    }

    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (Size == 0) {
      return EFI_NOT_FOUND;
    }

    if (((Entry->Attribute & EFI_FILE_DIRECTORY) != 0) || !HasTxtSuffix (Entry->FileName) ||
        EFI_ERROR (TxtNameToAscii (Candidate, Entry->FileName)))
    {
      continue;
    }

    Status = EFI_NOT_FOUND;
    if (Kind == MarkerLookup::MetadataFirst) {
      Status = LookupGroupNames (Context->BootRoot, Candidate, State);
    }

    if (EFI_ERROR (Status)) {
      Status = LookupGroupInEntries (Context->EntriesText, Candidate, State);
    }

    if (!EFI_ERROR (Status)) {
      AsciiStrCpyS (Id, VELMARO_NAME_CHARS, Candidate);
      return EFI_SUCCESS;
    }

    // A marker-ID file that names no known group (a readme.txt, say) is passed over.
    ZeroMem (State, sizeof (*State));
  }
}

EFI_STATUS
IdentifyFolderByMarker (
  IN  CONST ACTIVATION_CONTEXT  *Context,
  IN  EFI_FILE_PROTOCOL         *Root,
  IN  CONST CHAR16              *Folder,
  IN  MarkerLookup              Kind,
  OUT CHAR8                     *Id,
  OUT GROUP_STATE               *State
  )
{
  FileGuard   Dir;
  EFI_STATUS  Status;

  if ((Context == nullptr) || (Root == nullptr) || (Folder == nullptr) || (Id == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Id[0] = '\0';
  ZeroMem (State, sizeof (*State));
  Status = Root->Open (Root, Dir.Out (), const_cast<CHAR16 *>(Folder), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return IdentifyOpenFolderByMarker (Context, Dir.Get (), Kind, Id, State);
}
