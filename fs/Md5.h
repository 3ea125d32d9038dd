/** @file
  MD5 digests: the digest itself (RFC 1321), the digest of a file, and the digest texts
  we keep beside a group's files. A digest text is 32 lower-case hexadecimal digits and a
  NUL in a VELMARO_MD5_CHARS buffer; an empty text means no digest.
**/

#ifndef VELMARO_MD5_H_
#define VELMARO_MD5_H_

#include <Velmaro.h>

#define MD5_DIGEST_SIZE  16
#define MD5_BLOCK_SIZE   64

/// How many bytes Md5OfFile asks of each Read.
#define MD5_READ_CHUNK  4096

/// Most bytes ReadMd5File reads of a digest file: a digest with room to spare for
/// leading blanks and a line end, and no more.
#define MD5_FILE_READ_MAX  63

typedef struct {
  UINT32    State[4];                 ///< chaining values A, B, C, D
  UINT64    Count;                    ///< bits fed so far
  UINT8     Buffer[MD5_BLOCK_SIZE];   ///< bytes of an incomplete block
} MD5_CTX;

VOID
MD5Init (
  OUT MD5_CTX  *Context
  );

/** Feed any number of bytes; Data may be null only when Length is 0. **/
VOID
MD5Update (
  IN OUT MD5_CTX  *Context,
  IN     CONST VOID  *Data,
  IN     UINTN       Length
  );

/** Pad, and write the 16 digest bytes. The context must go through MD5Init again
    before it is fed anew. **/
VOID
MD5Final (
  OUT    UINT8    Digest[MD5_DIGEST_SIZE],
  IN OUT MD5_CTX  *Context
  );

/** 32 lower-case hexadecimal digits and a NUL, high nibble first. **/
VOID
Md5DigestToText (
  IN  CONST UINT8  Digest[MD5_DIGEST_SIZE],
  OUT CHAR16       *Text
  );

/**
  Digest text of a whole file, read in MD5_READ_CHUNK pieces. Digest is written only
  on EFI_SUCCESS.

  @retval EFI_SUCCESS       Digest holds the file's digest text.
  @retval EFI_NOT_FOUND     Path is absent.
  @retval EFI_DEVICE_ERROR  A Read reports more bytes than the chunk holds.
  @retval other             Open or Read failed.
**/
EFI_STATUS
Md5OfFile (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR16             *Digest
  );

/**
  Digest text from ASCII: blanks (space, TAB) first, then exactly 32 hexadecimal
  digits of either case followed by the end of the text, a blank or a line end.

  @retval EFI_SUCCESS           Digest holds the 32 digits in lower case.
  @retval EFI_COMPROMISED_DATA  Anything else; Digest is empty.
**/
EFI_STATUS
ParseMd5Text (
  OUT CHAR16       *Digest,
  IN  CONST CHAR8  *Text
  );

/**
  Digest after Key on the first line that starts with Key (case-sensitive), read as
  ParseMd5Text reads it. Digest is empty on any failure.

  @retval EFI_SUCCESS           Digest holds the line's digest.
  @retval EFI_NOT_FOUND         No line starts with Key.
  @retval EFI_COMPROMISED_DATA  The first such line carries a malformed digest, whatever
                                later lines hold.
  @retval EFI_INVALID_PARAMETER Key is empty.
**/
EFI_STATUS
FindMd5ByKey (
  OUT CHAR16       *Digest,
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *Key
  );

/**
  Digest text from a file holding one digest, read as ParseMd5Text reads it; only its
  first MD5_FILE_READ_MAX bytes are looked at. Digest is empty on any failure.

  @retval EFI_SUCCESS           Digest holds the file's digest.
  @retval EFI_NOT_FOUND         Path is absent.
  @retval EFI_COMPROMISED_DATA  The file does not begin with a well-formed digest.
  @retval EFI_DEVICE_ERROR      Read reports more bytes than were asked for.
  @retval other                 Open or Read failed.
**/
EFI_STATUS
ReadMd5File (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR16             *Digest
  );

BOOLEAN
HasBcdMd5 (
  IN CONST GROUP_STATE  *State
  );

BOOLEAN
HasBcdEfiMd5 (
  IN CONST GROUP_STATE  *State
  );

/**
  Compares the digest of the file at Path with State->BcdMd5.

  @retval EFI_SUCCESS           The file's digest equals State->BcdMd5.
  @retval EFI_COMPROMISED_DATA  It differs.
  @retval EFI_NOT_FOUND         The state holds no digest to compare with, or Path is
                                absent.
  @retval EFI_DEVICE_ERROR      A Read reports more bytes than were asked for.
  @retval other                 Open or Read failed.
**/
EFI_STATUS
FileMatchesBcdMd5 (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST GROUP_STATE  *State
  );

#endif
