/** @file
  What the installer left on the boot volume about the images it placed: \ZENTO\software.xml
  (one software block per image) and \ZENTO\FS.txt (filesystem type per partition UUID).
  Neither file is parsed as a document: the installer writes them with fixed spellings,
  and the byte matches below are all we rely on. Every failure here is reported, never
  fatal; callers decide what a missing answer means.
**/

#ifndef VELMARO_INSTALL_METADATA_H_
#define VELMARO_INSTALL_METADATA_H_

#include <Velmaro.h>
#include <discovery/FsIdentification.h>

#define SOFTWARE_XML_PATH  L16 (u"\\ZENTO\\software.xml")
#define FS_TXT_PATH        L16 (u"\\ZENTO\\FS.txt")

/// An element's raw text between its tags holds at most this many bytes minus one.
#define XML_ELEMENT_BYTES  128

///
/// One software block: from its "<software" up to, not including, the "</software>"
/// that closes it.
///
typedef struct {
  CONST CHAR8    *Start;
  CONST CHAR8    *End;
} SOFTWARE_BLOCK;

///
/// A walk over the software blocks of one text. Each search for the next block starts
/// just past the previous "<software", so a block written inside another is visited too.
///
typedef struct {
  CONST CHAR8    *Next;
  CONST CHAR8    *End;
} SOFTWARE_BLOCK_WALK;

// --- Matching rules ----------------------------------------------------------------

/** The first position in [Start, End) at which Needle lies wholly inside the range;
    null for an empty needle or a range shorter than it. **/
CONST CHAR8 *
FindInBuffer (
  IN CONST CHAR8  *Start,
  IN CONST CHAR8  *End,
  IN CONST CHAR8  *Needle
  );

/**
  The text of the block's first element Name, trimmed and widened into Destination
  (Capacity characters, NUL included); Destination is empty on any failure.

  @retval EFI_SUCCESS            Destination holds the text; it may be empty.
  @retval EFI_NOT_FOUND          The block has no "<Name>".
  @retval EFI_COMPROMISED_DATA   No "</Name>" follows it in the block.
  @retval EFI_BUFFER_TOO_SMALL   XML_ELEMENT_BYTES bytes or more between the tags, or more
                                 than Destination holds.
  @retval EFI_INVALID_PARAMETER  Name is empty or longer than 28 characters.
**/
EFI_STATUS
ReadXmlElement (
  IN  CONST SOFTWARE_BLOCK  *Block,
  IN  CONST CHAR8           *Name,
  OUT CHAR16                *Destination,
  IN  UINTN                 Capacity
  );

/** TRUE when the block's first ID=" attribute carries exactly GroupId. **/
BOOLEAN
SoftwareBlockHasId (
  IN CONST SOFTWARE_BLOCK  *Block,
  IN CONST CHAR8           *GroupId
  );

/** TRUE when the block's first Der=" value, closed inside the block, contains Needle. **/
BOOLEAN
DerContains (
  IN CONST SOFTWARE_BLOCK  *Block,
  IN CONST CHAR8           *Needle
  );

/** TRUE when the Der value names both "Windows" and "velmaro". **/
BOOLEAN
IsWindowsDerBlock (
  IN CONST SOFTWARE_BLOCK  *Block
  );

// --- Lookups -----------------------------------------------------------------------

/**
  The source filesystem (Fs, VELMARO_FS_CHARS, normalized) and partition UUID (Uuid,
  UUID_TEXT_CHARS) of the group's Windows image on a second partition. A group whose
  image does not qualify keeps the legacy FAT32 layout. Both are emptied first; a
  failure reading UUID leaves Fs filled.

  @retval EFI_SUCCESS            Fs and Uuid are set, and logged.
  @retval EFI_NOT_FOUND          No image in the file qualifies; or no block carries the
                                 group's ID, its image does not qualify or its block has
                                 no FS or UUID element; or software.xml is absent.
  @retval EFI_COMPROMISED_DATA   A "<software" that nothing closes comes before the block
                                 sought, or the FS or UUID element is not closed.
  @retval EFI_UNSUPPORTED        FS names another filesystem.
  @retval EFI_INVALID_PARAMETER  FS is empty.
  @retval EFI_BUFFER_TOO_SMALL   FS or UUID is too long for its field.
  @retval other                  Reading software.xml failed.
**/
EFI_STATUS
LookupSourceMetadata (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR8        *GroupId,
  OUT CHAR16             *Fs,
  OUT CHAR16             *Uuid
  );

/**
  Bcd, Src and Efi of the group's block (Efi without a leading "efi\" or "efi/").
  *State is untouched until the block is found; then the rest of it is zeroed, and a
  failed element leaves the ones read before it. An element present but empty gives an
  empty name.

  @retval EFI_SUCCESS           The three names are read.
  @retval EFI_NOT_FOUND         No block carries the group's ID, its block lacks BCD, SRC
                                or EFI, or software.xml is absent.
  @retval EFI_COMPROMISED_DATA  A "<software" that nothing closes comes before the
                                group's block, or one of its elements is not closed.
  @retval EFI_BUFFER_TOO_SMALL  An element has XML_ELEMENT_BYTES bytes or more.
  @retval other                 Reading software.xml failed.
**/
EFI_STATUS
LookupGroupNames (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR8        *GroupId,
  OUT GROUP_STATE        *State
  );

/**
  The BCD name (VELMARO_NAME_CHARS) of the Windows images whose BCD_MD5 is Digest, in
  either letter case. Every Windows block is looked at; Name is empty on every failure.

  @retval EFI_SUCCESS           Name holds the one BCD name those images give.
  @retval EFI_NOT_FOUND         Digest is empty, no Windows image carries it, a matching
                                image has no BCD element, or software.xml is absent.
  @retval EFI_NO_MAPPING        Two of them name different BCD stores.
  @retval EFI_COMPROMISED_DATA  A "<software" that nothing closes, or a BCD_MD5 or BCD
                                element of a Windows block that is not closed.
  @retval EFI_BUFFER_TOO_SMALL  Digest, or a Windows block's BCD_MD5, has more than 32
                                characters or one that is not ASCII; or an element read
                                has XML_ELEMENT_BYTES bytes or more.
  @retval other                 Reading software.xml failed.
**/
EFI_STATUS
LookupBcdNameByMd5 (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Digest,
  OUT CHAR16             *Name
  );

/**
  The filesystem type FS.txt gives for the partition UUID, normalized, into Fs
  (VELMARO_FS_CHARS). A line is "<type>|<UUID>"; the first whose UUID equals Uuid, in
  either letter case, counts. Fs is empty on any failure.

  @retval EFI_SUCCESS            Fs holds the type, which is logged.
  @retval EFI_NOT_FOUND          No line names the UUID, or FS.txt is absent.
  @retval EFI_UNSUPPORTED        The line names another filesystem.
  @retval EFI_INVALID_PARAMETER  Uuid is empty, or the line's type is.
  @retval EFI_BUFFER_TOO_SMALL   Uuid is too long or not ASCII, or the line's type is too
                                 long for Fs.
  @retval other                  Reading FS.txt failed.
**/
EFI_STATUS
LookupFsTxt (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Uuid,
  OUT CHAR16             *Fs
  );

/** Makes Fs (and Uuid, when given) the requested source of the run. Nothing changes
    when Fs is missing or empty, or when either text does not fit its field. **/
VOID
ApplySourceMetadata (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR16        *Fs,
  IN     CONST CHAR16        *Uuid OPTIONAL,
  IN     CONST CHAR16        *SourceLabel OPTIONAL
  );

/** One log line on a volume: filesystem, partition number and UUID. **/
VOID
DescribeVolume (
  IN CONST CHAR16  *Label,
  IN EFI_HANDLE    BootHandle,
  IN EFI_HANDLE    Volume
  );

VOID
DumpGroupState (
  IN CONST CHAR16       *Label,
  IN CONST GROUP_STATE  *State
  );

#endif
