/** @file
  \ZENTO\software.xml and \ZENTO\FS.txt: what the installer recorded about its images.
**/

#include <discovery/InstallMetadata.h>
#include <app/DiagnosticLog.h>
#include <fs/AsciiText.h>
#include <fs/FileAccess.h>
#include <Guards.h>

/// "<software" is this long; the next block is looked for just past it.
#define SOFTWARE_OPEN_CHARS  9
/// Longest element name we ask for, with room for "</", ">" and the NUL.
#define XML_TAG_BYTES        32

STATIC CONST CHAR8  mSoftwareOpen[]  = "<software";
STATIC CONST CHAR8  mSoftwareClose[] = "</software>";
STATIC CONST CHAR8  mSecondPartition[] = "<ISO2ndPartition>True</ISO2ndPartition>";

CONST CHAR8 *
FindInBuffer (
  IN CONST CHAR8  *Start,
  IN CONST CHAR8  *End,
  IN CONST CHAR8  *Needle
  )
{
  UINTN  Length;

  if ((Start == nullptr) || (End == nullptr) || (Needle == nullptr) || (End < Start)) {
    return nullptr;
  }

  Length = AsciiStrLen (Needle);
  if ((Length == 0) || (static_cast<UINTN>(End - Start) < Length)) {
    return nullptr;
  }

  for (CONST CHAR8 *Position = Start; Position + Length <= End; Position++) {
    if (CompareMem (Position, Needle, Length) == 0) {
      return Position;
    }
  }

  return nullptr;
}

/** Starts a walk over Text, which ends at its first NUL. **/
STATIC
VOID
BeginSoftwareBlocks (
  OUT SOFTWARE_BLOCK_WALK  *Walk,
  IN  CONST CHAR8          *Text
  )
{
  // An embedded NUL ends the text: nothing the installer writes contains one, and no
  // search may run past the terminator ReadWholeFile put after the bytes.
  Walk->Next = Text;
  Walk->End  = Text + AsciiStrLen (Text);
}

/** EFI_SUCCESS with the next block; EFI_NOT_FOUND when there is none;
    EFI_COMPROMISED_DATA for a "<software" that nothing closes. **/
STATIC
EFI_STATUS
NextSoftwareBlock (
  IN OUT SOFTWARE_BLOCK_WALK  *Walk,
  OUT    SOFTWARE_BLOCK       *Block
  )
{
  CONST CHAR8  *Open;
  CONST CHAR8  *Close;

  Open = FindInBuffer (Walk->Next, Walk->End, mSoftwareOpen);
  if (Open == nullptr) {
    Walk->Next = Walk->End;
    return EFI_NOT_FOUND;
  }

  Close = FindInBuffer (Open + SOFTWARE_OPEN_CHARS, Walk->End, mSoftwareClose);
  if (Close == nullptr) {
    return EFI_COMPROMISED_DATA;
  }

  Walk->Next   = Open + SOFTWARE_OPEN_CHARS;
  Block->Start = Open;
  Block->End   = Close;
  return EFI_SUCCESS;
}

/** "<Name>" or "</Name>" into Tag (XML_TAG_BYTES); FALSE when the name is too long. **/
STATIC
BOOLEAN
BuildTag (
  OUT CHAR8        *Tag,
  IN  CONST CHAR8  *Name,
  IN  BOOLEAN      Closing
  )
{
  UINTN  Length;
  UINTN  Used;

  Length = AsciiStrLen (Name);
  if (Length + 4 > XML_TAG_BYTES) {
    return FALSE;
  }

  Used         = 0;
  Tag[Used++]  = '<';
  if (Closing) {
    Tag[Used++] = '/';
  }

  CopyMem (Tag + Used, Name, Length);
  Used        += Length;
  Tag[Used++]  = '>';
  Tag[Used]    = '\0';
  return TRUE;
}

EFI_STATUS
ReadXmlElement (
  IN  CONST SOFTWARE_BLOCK  *Block,
  IN  CONST CHAR8           *Name,
  OUT CHAR16                *Destination,
  IN  UINTN                 Capacity
  )
{
  CHAR8        OpenTag[XML_TAG_BYTES];
  CHAR8        CloseTag[XML_TAG_BYTES];
  CHAR8        Text[XML_ELEMENT_BYTES];
  CONST CHAR8  *Open;
  CONST CHAR8  *Value;
  CONST CHAR8  *Close;
  UINTN        Length;
  EFI_STATUS   Status;

  if ((Destination == nullptr) || (Capacity == 0)) {
    return EFI_INVALID_PARAMETER;
  }

  Destination[0] = L'\0';
  if ((Block == nullptr) || (Name == nullptr) || (Name[0] == '\0') ||
      !BuildTag (OpenTag, Name, FALSE) || !BuildTag (CloseTag, Name, TRUE))
  {
    return EFI_INVALID_PARAMETER;
  }

  Open = FindInBuffer (Block->Start, Block->End, OpenTag);
  if (Open == nullptr) {
    return EFI_NOT_FOUND;
  }

  Value = Open + AsciiStrLen (OpenTag);
  Close = FindInBuffer (Value, Block->End, CloseTag);
  if (Close == nullptr) {
    return EFI_COMPROMISED_DATA;
  }

  // The limit counts the bytes as written, padding included: the installer pads
  // nothing, so a value this long is not one of its values.
  Length = static_cast<UINTN>(Close - Value);
  if (Length >= XML_ELEMENT_BYTES) {
    return EFI_BUFFER_TOO_SMALL;
  }

  CopyMem (Text, Value, Length);
  Text[Length] = '\0';
  TrimAsciiSpace (Text);
  Status = AsciiToChar16 (Destination, Capacity, Text);
  if (EFI_ERROR (Status)) {
    // AsciiToChar16 stops mid-copy without a terminator.
    Destination[0] = L'\0';
  }

  return Status;
}

BOOLEAN
SoftwareBlockHasId (
  IN CONST SOFTWARE_BLOCK  *Block,
  IN CONST CHAR8           *GroupId
  )
{
  STATIC CONST CHAR8  IdAttribute[] = "ID=\"";
  CONST CHAR8         *Attribute;
  CONST CHAR8         *Value;
  UINTN               Length;

  if ((Block == nullptr) || (GroupId == nullptr)) {
    return FALSE;
  }

  // Only the first ID=" counts: later ones belong to nested elements, not the image.
  Attribute = FindInBuffer (Block->Start, Block->End, IdAttribute);
  if (Attribute == nullptr) {
    return FALSE;
  }

  Value  = Attribute + sizeof (IdAttribute) - 1;
  Length = AsciiStrLen (GroupId);
  if (static_cast<UINTN>(Block->End - Value) < Length + 1) {
    return FALSE;
  }

  return (CompareMem (Value, GroupId, Length) == 0) && (Value[Length] == '"');
}

BOOLEAN
DerContains (
  IN CONST SOFTWARE_BLOCK  *Block,
  IN CONST CHAR8           *Needle
  )
{
  STATIC CONST CHAR8  DerAttribute[] = "Der=\"";
  CONST CHAR8         *Attribute;
  CONST CHAR8         *Value;
  CONST CHAR8         *Quote;

  if ((Block == nullptr) || (Needle == nullptr)) {
    return FALSE;
  }

  Attribute = FindInBuffer (Block->Start, Block->End, DerAttribute);
  if (Attribute == nullptr) {
    return FALSE;
  }

  Value = Attribute + sizeof (DerAttribute) - 1;
  Quote = FindInBuffer (Value, Block->End, "\"");
  if (Quote == nullptr) {
    return FALSE;
  }

  return FindInBuffer (Value, Quote, Needle) != nullptr;
}

BOOLEAN
IsWindowsDerBlock (
  IN CONST SOFTWARE_BLOCK  *Block
  )
{
  return DerContains (Block, "Windows") && DerContains (Block, "velmaro");
}

/** TRUE when the image was written with its files on a second partition. **/
STATIC
BOOLEAN
HasSecondPartitionFlag (
  IN CONST SOFTWARE_BLOCK  *Block
  )
{
  return (Block != nullptr) && (FindInBuffer (Block->Start, Block->End, mSecondPartition) != nullptr);
}

/** The first block whose ID attribute is GroupId: EFI_SUCCESS, EFI_NOT_FOUND or the
    walk's EFI_COMPROMISED_DATA. **/
STATIC
EFI_STATUS
FindGroupBlock (
  IN  CONST CHAR8     *Text,
  IN  CONST CHAR8     *GroupId,
  OUT SOFTWARE_BLOCK  *Block
  )
{
  SOFTWARE_BLOCK_WALK  Walk;
  EFI_STATUS           Status;

  BeginSoftwareBlocks (&Walk, Text);
  for (;;) {
    Status = NextSoftwareBlock (&Walk, Block);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (SoftwareBlockHasId (Block, GroupId)) {
      return EFI_SUCCESS;
    }
  }
}

STATIC
BOOLEAN
IsSecondPartitionWindows (
  IN CONST SOFTWARE_BLOCK  *Block
  )
{
  return IsWindowsDerBlock (Block) && HasSecondPartitionFlag (Block);
}

EFI_STATUS
LookupSourceMetadata (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR8        *GroupId,
  OUT CHAR16             *Fs,
  OUT CHAR16             *Uuid
  )
{
  PoolGuard<CHAR8>     Text;
  SOFTWARE_BLOCK_WALK  Walk;
  SOFTWARE_BLOCK       Block;
  EFI_STATUS           Status;

  if ((Fs == nullptr) || (Uuid == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Fs[0]   = L'\0';
  Uuid[0] = L'\0';
  if ((Root == nullptr) || (GroupId == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = ReadWholeFile (Root, SOFTWARE_XML_PATH, Text.Out ());
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Metadata SOURCE FS: software.xml non disponibile: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  // A drive where no image at all sits on a second partition is a plain FAT32 layout;
  // say so once, whatever group is asked for.
  BeginSoftwareBlocks (&Walk, Text.Get ());
  do {
    Status = NextSoftwareBlock (&Walk, &Block);
  } while (!EFI_ERROR (Status) && !IsSecondPartitionWindows (&Block));

  if (Status == EFI_NOT_FOUND) {
    LogPrint (L16 (u"Metadata SOURCE FS: nessuna ISO Windows/velmaro in seconda partizione; legacy FAT32\n"));
    return EFI_NOT_FOUND;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FindGroupBlock (Text.Get (), GroupId, &Block);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!IsSecondPartitionWindows (&Block)) {
    LogPrint (L16 (u"Metadata SOURCE FS: ID=%a non e ISO Windows/velmaro in seconda partizione; legacy FAT32\n"), GroupId);
    return EFI_NOT_FOUND;
  }

  Status = ReadXmlElement (&Block, "FS", Fs, VELMARO_FS_CHARS);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = NormalizeFsName (Fs);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Metadata SOURCE FS: FS software.xml non riconosciuto per ID %a\n"), GroupId);
    return Status;
  }

  Status = ReadXmlElement (&Block, "UUID", Uuid, UUID_TEXT_CHARS);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  LogPrint (L16 (u"Metadata SOURCE FS da software.xml: ID=%a FS=%s UUID=%s\n"), GroupId, Fs, Uuid);
  return EFI_SUCCESS;
}

EFI_STATUS
LookupGroupNames (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR8        *GroupId,
  OUT GROUP_STATE        *State
  )
{
  PoolGuard<CHAR8>  Text;
  SOFTWARE_BLOCK    Block;
  EFI_STATUS        Status;

  if ((Root == nullptr) || (GroupId == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = ReadWholeFile (Root, SOFTWARE_XML_PATH, Text.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FindGroupBlock (Text.Get (), GroupId, &Block);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  ZeroMem (State, sizeof (*State));
  Status = ReadXmlElement (&Block, "BCD", State->Bcd, VELMARO_NAME_CHARS);
  if (!EFI_ERROR (Status)) {
    Status = ReadXmlElement (&Block, "SRC", State->Src, VELMARO_NAME_CHARS);
  }

  if (!EFI_ERROR (Status)) {
    Status = ReadXmlElement (&Block, "EFI", State->Efi, VELMARO_NAME_CHARS);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  // The installer may record the EFI folder relative to the drive root; we keep bare
  // names. Only its own lower-case spelling is taken off.
  if ((StrnCmp (State->Efi, L16 (u"efi\\"), 4) == 0) || (StrnCmp (State->Efi, L16 (u"efi/"), 4) == 0)) {
    CopyMem (State->Efi, State->Efi + 4, (StrLen (State->Efi + 4) + 1) * sizeof (CHAR16));
  }

  return EFI_SUCCESS;
}

/** The scan behind LookupBcdNameByMd5; Name is filled only on success. **/
STATIC
EFI_STATUS
ScanBcdNameByMd5 (
  IN  CONST CHAR8   *Text,
  IN  CONST CHAR8   *Digest,
  OUT CHAR16        *Name
  )
{
  SOFTWARE_BLOCK_WALK  Walk;
  SOFTWARE_BLOCK       Block;
  CHAR16               BlockDigest[VELMARO_MD5_CHARS];
  CHAR8                BlockDigestAscii[VELMARO_MD5_CHARS];
  CHAR16               Bcd[VELMARO_NAME_CHARS];
  BOOLEAN              Matched;
  EFI_STATUS           Status;

  Matched = FALSE;
  BeginSoftwareBlocks (&Walk, Text);
  for (;;) {
    Status = NextSoftwareBlock (&Walk, &Block);
    if (Status == EFI_NOT_FOUND) {
      break;
    }

    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (!IsWindowsDerBlock (&Block)) {
      continue;
    }

    Status = ReadXmlElement (&Block, "BCD_MD5", BlockDigest, VELMARO_MD5_CHARS);
    if (Status == EFI_NOT_FOUND) {
      continue;
    }

    if (EFI_ERROR (Status)) {
      return Status;
    }

    Status = NarrowToAscii (BlockDigestAscii, sizeof (BlockDigestAscii), BlockDigest);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (AsciiStriCmp (BlockDigestAscii, Digest) != 0) {
      continue;
    }

    Status = ReadXmlElement (&Block, "BCD", Bcd, VELMARO_NAME_CHARS);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (!Matched) {
      StrCpyS (Name, VELMARO_NAME_CHARS, Bcd);
      Matched = TRUE;
    } else if (StrCmp (Name, Bcd) != 0) {
      // Two images claim one BCD store under different names: neither can be trusted.
      return EFI_NO_MAPPING;
    }
  }

  return Matched ? EFI_SUCCESS : EFI_NOT_FOUND;
}

EFI_STATUS
LookupBcdNameByMd5 (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Digest,
  OUT CHAR16             *Name
  )
{
  PoolGuard<CHAR8>  Text;
  CHAR8             DigestAscii[VELMARO_MD5_CHARS];
  EFI_STATUS        Status;

  if ((Digest == nullptr) || (Name == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Name[0] = L'\0';
  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  if (Digest[0] == L'\0') {
    return EFI_NOT_FOUND;
  }

  Status = NarrowToAscii (DigestAscii, sizeof (DigestAscii), Digest);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadWholeFile (Root, SOFTWARE_XML_PATH, Text.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ScanBcdNameByMd5 (Text.Get (), DigestAscii, Name);
  if (EFI_ERROR (Status)) {
    Name[0] = L'\0';
  }

  return Status;
}

EFI_STATUS
LookupFsTxt (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Uuid,
  OUT CHAR16             *Fs
  )
{
  PoolGuard<CHAR8>  Text;
  CHAR8             Wanted[UUID_TEXT_CHARS];
  CHAR8             *Line;
  CHAR8             *Next;
  EFI_STATUS        Status;

  if ((Uuid == nullptr) || (Uuid[0] == L'\0') || (Fs == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Fs[0] = L'\0';
  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Status = NarrowToAscii (Wanted, sizeof (Wanted), Uuid);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = ReadWholeFile (Root, FS_TXT_PATH, Text.Out ());
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Metadata SOURCE FS: FS.txt non disponibile: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  // The buffer is ours: each line is cut out of it in place.
  for (Line = Text.Get (); (Line != nullptr) && (*Line != '\0'); Line = Next) {
    CHAR8  *Bar;
    UINTN  Length;

    Next   = const_cast<CHAR8 *>(NextLine (Line));
    Length = LineLength (Line);

    Line[Length] = '\0';
    Bar          = const_cast<CHAR8 *>(FindInBuffer (Line, Line + Length, "|"));
    if (Bar == nullptr) {
      continue;
    }

    *Bar = '\0';
    TrimAsciiSpace (Line);
    TrimAsciiSpace (Bar + 1);
    if (AsciiStriCmp (Bar + 1, Wanted) != 0) {
      continue;
    }

    Status = AsciiToChar16 (Fs, VELMARO_FS_CHARS, Line);
    if (!EFI_ERROR (Status)) {
      Status = NormalizeFsName (Fs);
    }

    if (EFI_ERROR (Status)) {
      Fs[0] = L'\0';
      return Status;
    }

    LogPrint (L16 (u"Metadata SOURCE FS da FS.txt: UUID=%s FS=%s\n"), Uuid, Fs);
    return EFI_SUCCESS;
  }

  return EFI_NOT_FOUND;
}

VOID
ApplySourceMetadata (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR16        *Fs,
  IN     CONST CHAR16        *Uuid OPTIONAL,
  IN     CONST CHAR16        *SourceLabel OPTIONAL
  )
{
  BOOLEAN  HasUuid;

  if ((Context == nullptr) || (Fs == nullptr) || (Fs[0] == L'\0')) {
    return;
  }

  HasUuid = (Uuid != nullptr) && (Uuid[0] != L'\0');
  // Checked before anything is copied, so the requested source is never half replaced.
  if ((StrnLenS (Fs, VELMARO_FS_CHARS) >= VELMARO_FS_CHARS) ||
      (HasUuid && (StrnLenS (Uuid, VELMARO_NAME_CHARS) >= VELMARO_NAME_CHARS)))
  {
    return;
  }

  StrCpyS (Context->Requested.SrcFs, VELMARO_FS_CHARS, Fs);
  if (HasUuid) {
    StrCpyS (Context->Requested.SrcPart, VELMARO_NAME_CHARS, Uuid);
  }

  Context->SourceMetadataApplied = TRUE;
  LogPrint (
    L16 (u"Metadata SOURCE FS applicato da %s: SRC_FS=%s SRC_PART=%s\n"),
    (SourceLabel != nullptr) ? SourceLabel : L16 (u"(sconosciuto)"),
    Context->Requested.SrcFs,
    (Context->Requested.SrcPart[0] != L'\0') ? Context->Requested.SrcPart : L16 (u"(assente)")
    );
}

/** The partition number of the volume's Hard Drive node; FALSE when it has none. **/
STATIC
BOOLEAN
HardDrivePartitionNumber (
  IN  EFI_HANDLE  Volume,
  OUT UINT32      *PartitionNumber
  )
{
  EFI_DEVICE_PATH_PROTOCOL     *Path;
  CONST HARDDRIVE_DEVICE_PATH  *HardDrive;
  EFI_STATUS                   Status;

  Path   = nullptr;
  Status = gBS->HandleProtocol (Volume, &gEfiDevicePathProtocolGuid, reinterpret_cast<VOID **>(&Path));
  if (EFI_ERROR (Status)) {
    return FALSE;
  }

  HardDrive = FindHardDriveNode (Path, nullptr);
  if (HardDrive == nullptr) {
    return FALSE;
  }

  // Device path nodes are packed: the field may sit at any address.
  *PartitionNumber = ReadUnaligned32 (&HardDrive->PartitionNumber);
  return TRUE;
}

VOID
DescribeVolume (
  IN CONST CHAR16  *Label,
  IN EFI_HANDLE    BootHandle,
  IN EFI_HANDLE    Volume
  )
{
  CHAR16        FsName[VELMARO_FS_CHARS];
  CHAR16        Uuid[UUID_TEXT_CHARS];
  CONST CHAR16  *FsShown;
  CONST CHAR16  *UuidShown;
  UINT32        PartitionNumber;
  EFI_STATUS    Status;

  if ((Label == nullptr) || (BootHandle == nullptr) || (Volume == nullptr)) {
    return;
  }

  // The boot volume was opened by the firmware's own driver, which only reads FAT.
  Status  = DetectFsType (Volume, FsName, VELMARO_FS_CHARS);
  FsShown = !EFI_ERROR (Status) ? FsName : ((Volume == BootHandle) ? L16 (u"FAT32") : L16 (u"(unknown FS)"));

  if (!HardDrivePartitionNumber (Volume, &PartitionNumber)) {
    // A boot volume without a partition node is a whole-disk FAT volume: partition 1.
    PartitionNumber = (Volume == BootHandle) ? 1 : 0;
  }

  Status    = ReadVolumeUuid (Volume, Uuid, UUID_TEXT_CHARS);
  UuidShown = !EFI_ERROR (Status) ? Uuid : L16 (u"(not available)");

  LogPrint (L16 (u"%s = %s / partition %u / UUID=%s\n"), Label, FsShown, PartitionNumber, UuidShown);
}

VOID
DumpGroupState (
  IN CONST CHAR16       *Label,
  IN CONST GROUP_STATE  *State
  )
{
  CONST CHAR16  *Missing;

  if ((Label == nullptr) || (State == nullptr)) {
    return;
  }

  Missing = L16 (u"(missing)");
  LogPrint (
    L16 (u"%s: BCD=%s SRC=%s EFI=%s SRC_PART=%s SRC_FS=%s\n"),
    Label,
    (State->Bcd[0] != L'\0') ? State->Bcd : Missing,
    (State->Src[0] != L'\0') ? State->Src : Missing,
    (State->Efi[0] != L'\0') ? State->Efi : Missing,
    (State->SrcPart[0] != L'\0') ? State->SrcPart : Missing,
    (State->SrcFs[0] != L'\0') ? State->SrcFs : Missing
    );
}
