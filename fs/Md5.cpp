/** @file
  MD5 (RFC 1321) and the digest texts built on it.

  The block function runs straight over the caller's bytes whenever a whole block is
  available; only the ragged ends of an update pass through the context's buffer. The
  rounds are spelt out step by step so that the four chaining values stay in registers.
**/

#include <fs/Md5.h>
#include <fs/FileAccess.h>
#include <Guards.h>

namespace {

//
// Rotation and the little-endian message load are macros, not functions: at -Os the
// firmware build keeps small functions out of line, and a call per step would cost more
// than the step. Written byte by byte, the load becomes one plain load on x86 whatever
// the alignment; BaseLib's ReadUnaligned32 would be a call per word.
//
#define MD5_ROTL(Value, Shift)  (((Value) << (Shift)) | ((Value) >> (32 - (Shift))))

#define MD5_LOAD32(Bytes)                                                     \
  (static_cast<UINT32>((Bytes)[0]) |                                          \
   (static_cast<UINT32>((Bytes)[1]) << 8) |                                   \
   (static_cast<UINT32>((Bytes)[2]) << 16) |                                  \
   (static_cast<UINT32>((Bytes)[3]) << 24))

inline VOID
Md5Store32 (
  OUT UINT8   *Bytes,
  IN  UINT32  Value
  )
{
  Bytes[0] = static_cast<UINT8>(Value);
  Bytes[1] = static_cast<UINT8>(Value >> 8);
  Bytes[2] = static_cast<UINT8>(Value >> 16);
  Bytes[3] = static_cast<UINT8>(Value >> 24);
}

//
// F and I in their cheapest forms. G is added as two terms: (d & b) and (~d & c) never
// overlap, so their sum is the selection, and the half that does not need the newest b
// can start a step early.
//
#define MD5_F(b, c, d)  ((((c) ^ (d)) & (b)) ^ (d))
#define MD5_H(b, c, d)  ((b) ^ (c) ^ (d))
#define MD5_I(b, c, d)  ((c) ^ ((b) | ~(d)))

#define MD5_STEP(Fn, a, b, c, d, Word, Constant, Shift)                       \
  do {                                                                        \
    (a) += MD5_LOAD32 (Block + 4 * (Word)) + (Constant) + Fn ((b), (c), (d)); \
    (a)  = MD5_ROTL ((a), (Shift)) + (b);                                     \
  } while (0)

#define MD5_STEP_G(a, b, c, d, Word, Constant, Shift)                         \
  do {                                                                        \
    (a) += MD5_LOAD32 (Block + 4 * (Word)) + (Constant) + (~(d) & (c));       \
    (a) += (d) & (b);                                                         \
    (a)  = MD5_ROTL ((a), (Shift)) + (b);                                     \
  } while (0)

/** Runs Blocks whole 64-byte blocks from Block through the chaining values. **/
VOID
Md5Transform (
  IN OUT UINT32       *State,
  IN     CONST UINT8  *Block,
  IN     UINTN        Blocks
  )
{
  UINT32  A;
  UINT32  B;
  UINT32  C;
  UINT32  D;

  A = State[0];
  B = State[1];
  C = State[2];
  D = State[3];

  for ( ; Blocks > 0; Blocks--, Block += MD5_BLOCK_SIZE) {
    UINT32  SavedA = A;
    UINT32  SavedB = B;
    UINT32  SavedC = C;
    UINT32  SavedD = D;

    MD5_STEP (MD5_F, A, B, C, D,  0, 0xd76aa478,  7);
    MD5_STEP (MD5_F, D, A, B, C,  1, 0xe8c7b756, 12);
    MD5_STEP (MD5_F, C, D, A, B,  2, 0x242070db, 17);
    MD5_STEP (MD5_F, B, C, D, A,  3, 0xc1bdceee, 22);
    MD5_STEP (MD5_F, A, B, C, D,  4, 0xf57c0faf,  7);
    MD5_STEP (MD5_F, D, A, B, C,  5, 0x4787c62a, 12);
    MD5_STEP (MD5_F, C, D, A, B,  6, 0xa8304613, 17);
    MD5_STEP (MD5_F, B, C, D, A,  7, 0xfd469501, 22);
    MD5_STEP (MD5_F, A, B, C, D,  8, 0x698098d8,  7);
    MD5_STEP (MD5_F, D, A, B, C,  9, 0x8b44f7af, 12);
    MD5_STEP (MD5_F, C, D, A, B, 10, 0xffff5bb1, 17);
    MD5_STEP (MD5_F, B, C, D, A, 11, 0x895cd7be, 22);
    MD5_STEP (MD5_F, A, B, C, D, 12, 0x6b901122,  7);
    MD5_STEP (MD5_F, D, A, B, C, 13, 0xfd987193, 12);
    MD5_STEP (MD5_F, C, D, A, B, 14, 0xa679438e, 17);
    MD5_STEP (MD5_F, B, C, D, A, 15, 0x49b40821, 22);

    MD5_STEP_G (A, B, C, D,  1, 0xf61e2562,  5);
    MD5_STEP_G (D, A, B, C,  6, 0xc040b340,  9);
    MD5_STEP_G (C, D, A, B, 11, 0x265e5a51, 14);
    MD5_STEP_G (B, C, D, A,  0, 0xe9b6c7aa, 20);
    MD5_STEP_G (A, B, C, D,  5, 0xd62f105d,  5);
    MD5_STEP_G (D, A, B, C, 10, 0x02441453,  9);
    MD5_STEP_G (C, D, A, B, 15, 0xd8a1e681, 14);
    MD5_STEP_G (B, C, D, A,  4, 0xe7d3fbc8, 20);
    MD5_STEP_G (A, B, C, D,  9, 0x21e1cde6,  5);
    MD5_STEP_G (D, A, B, C, 14, 0xc33707d6,  9);
    MD5_STEP_G (C, D, A, B,  3, 0xf4d50d87, 14);
    MD5_STEP_G (B, C, D, A,  8, 0x455a14ed, 20);
    MD5_STEP_G (A, B, C, D, 13, 0xa9e3e905,  5);
    MD5_STEP_G (D, A, B, C,  2, 0xfcefa3f8,  9);
    MD5_STEP_G (C, D, A, B,  7, 0x676f02d9, 14);
    MD5_STEP_G (B, C, D, A, 12, 0x8d2a4c8a, 20);

    MD5_STEP (MD5_H, A, B, C, D,  5, 0xfffa3942,  4);
    MD5_STEP (MD5_H, D, A, B, C,  8, 0x8771f681, 11);
    MD5_STEP (MD5_H, C, D, A, B, 11, 0x6d9d6122, 16);
    MD5_STEP (MD5_H, B, C, D, A, 14, 0xfde5380c, 23);
    MD5_STEP (MD5_H, A, B, C, D,  1, 0xa4beea44,  4);
    MD5_STEP (MD5_H, D, A, B, C,  4, 0x4bdecfa9, 11);
    MD5_STEP (MD5_H, C, D, A, B,  7, 0xf6bb4b60, 16);
    MD5_STEP (MD5_H, B, C, D, A, 10, 0xbebfbc70, 23);
    MD5_STEP (MD5_H, A, B, C, D, 13, 0x289b7ec6,  4);
    MD5_STEP (MD5_H, D, A, B, C,  0, 0xeaa127fa, 11);
    MD5_STEP (MD5_H, C, D, A, B,  3, 0xd4ef3085, 16);
    MD5_STEP (MD5_H, B, C, D, A,  6, 0x04881d05, 23);
    MD5_STEP (MD5_H, A, B, C, D,  9, 0xd9d4d039,  4);
    MD5_STEP (MD5_H, D, A, B, C, 12, 0xe6db99e5, 11);
    MD5_STEP (MD5_H, C, D, A, B, 15, 0x1fa27cf8, 16);
    MD5_STEP (MD5_H, B, C, D, A,  2, 0xc4ac5665, 23);

    MD5_STEP (MD5_I, A, B, C, D,  0, 0xf4292244,  6);
    MD5_STEP (MD5_I, D, A, B, C,  7, 0x432aff97, 10);
    MD5_STEP (MD5_I, C, D, A, B, 14, 0xab9423a7, 15);
    MD5_STEP (MD5_I, B, C, D, A,  5, 0xfc93a039, 21);
    MD5_STEP (MD5_I, A, B, C, D, 12, 0x655b59c3,  6);
    MD5_STEP (MD5_I, D, A, B, C,  3, 0x8f0ccc92, 10);
    MD5_STEP (MD5_I, C, D, A, B, 10, 0xffeff47d, 15);
    MD5_STEP (MD5_I, B, C, D, A,  1, 0x85845dd1, 21);
    MD5_STEP (MD5_I, A, B, C, D,  8, 0x6fa87e4f,  6);
    MD5_STEP (MD5_I, D, A, B, C, 15, 0xfe2ce6e0, 10);
    MD5_STEP (MD5_I, C, D, A, B,  6, 0xa3014314, 15);
    MD5_STEP (MD5_I, B, C, D, A, 13, 0x4e0811a1, 21);
    MD5_STEP (MD5_I, A, B, C, D,  4, 0xf7537e82,  6);
    MD5_STEP (MD5_I, D, A, B, C, 11, 0xbd3af235, 10);
    MD5_STEP (MD5_I, C, D, A, B,  2, 0x2ad7d2bb, 15);
    MD5_STEP (MD5_I, B, C, D, A,  9, 0xeb86d391, 21);

    A += SavedA;
    B += SavedB;
    C += SavedC;
    D += SavedD;
  }

  State[0] = A;
  State[1] = B;
  State[2] = C;
  State[3] = D;
}

BOOLEAN
IsAsciiBlank (
  IN CHAR8  Character
  )
{
  return (Character == ' ') || (Character == '\t');
}

CONST CHAR8  mHexDigits[] = "0123456789abcdef";

}  // namespace

VOID
MD5Init (
  OUT MD5_CTX  *Context
  )
{
  if (Context == nullptr) {
    return;
  }

  ZeroMem (Context, sizeof (*Context));
  Context->State[0] = 0x67452301;
  Context->State[1] = 0xefcdab89;
  Context->State[2] = 0x98badcfe;
  Context->State[3] = 0x10325476;
}

VOID
MD5Update (
  IN OUT MD5_CTX     *Context,
  IN     CONST VOID  *Data,
  IN     UINTN       Length
  )
{
  CONST UINT8  *Input;
  UINTN        Used;
  UINTN        Room;
  UINTN        Blocks;

  if ((Context == nullptr) || (Length == 0) || (Data == nullptr)) {
    return;
  }

  Input           = static_cast<CONST UINT8 *>(Data);
  Used            = static_cast<UINTN>((Context->Count >> 3) & (MD5_BLOCK_SIZE - 1));
  Context->Count += static_cast<UINT64>(Length) << 3;

  if (Used != 0) {
    Room = MD5_BLOCK_SIZE - Used;
    if (Length < Room) {
      CopyMem (Context->Buffer + Used, Input, Length);
      return;
    }

    CopyMem (Context->Buffer + Used, Input, Room);
    Md5Transform (Context->State, Context->Buffer, 1);
    Input  += Room;
    Length -= Room;
  }

  Blocks = Length / MD5_BLOCK_SIZE;
  if (Blocks > 0) {
    Md5Transform (Context->State, Input, Blocks);
    Input  += Blocks * MD5_BLOCK_SIZE;
    Length -= Blocks * MD5_BLOCK_SIZE;
  }

  if (Length > 0) {
    CopyMem (Context->Buffer, Input, Length);
  }
}

VOID
MD5Final (
  OUT    UINT8    Digest[MD5_DIGEST_SIZE],
  IN OUT MD5_CTX  *Context
  )
{
  UINT64  Bits;
  UINTN   Used;
  UINTN   Index;

  if ((Digest == nullptr) || (Context == nullptr)) {
    return;
  }

  // The length goes in as it was before padding: the padding is not message.
  Bits = Context->Count;
  Used = static_cast<UINTN>((Bits >> 3) & (MD5_BLOCK_SIZE - 1));

  Context->Buffer[Used++] = 0x80;
  if (Used > MD5_BLOCK_SIZE - 8) {
    ZeroMem (Context->Buffer + Used, MD5_BLOCK_SIZE - Used);
    Md5Transform (Context->State, Context->Buffer, 1);
    Used = 0;
  }

  ZeroMem (Context->Buffer + Used, MD5_BLOCK_SIZE - 8 - Used);
  Md5Store32 (Context->Buffer + MD5_BLOCK_SIZE - 8, static_cast<UINT32>(Bits));
  Md5Store32 (Context->Buffer + MD5_BLOCK_SIZE - 4, static_cast<UINT32>(Bits >> 32));
  Md5Transform (Context->State, Context->Buffer, 1);

  for (Index = 0; Index < 4; Index++) {
    Md5Store32 (Digest + 4 * Index, Context->State[Index]);
  }
}

VOID
Md5DigestToText (
  IN  CONST UINT8  Digest[MD5_DIGEST_SIZE],
  OUT CHAR16       *Text
  )
{
  UINTN  Index;

  if (Text == nullptr) {
    return;
  }

  if (Digest == nullptr) {
    Text[0] = L'\0';
    return;
  }

  // PrintLib's %x is upper case; the digest files and md5sum are lower case.
  for (Index = 0; Index < MD5_DIGEST_SIZE; Index++) {
    Text[2 * Index]     = mHexDigits[Digest[Index] >> 4];
    Text[2 * Index + 1] = mHexDigits[Digest[Index] & 0x0f];
  }

  Text[2 * MD5_DIGEST_SIZE] = L'\0';
}

EFI_STATUS
Md5OfFile (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR16             *Digest
  )
{
  FileGuard   File;
  MD5_CTX     Context;
  UINT8       Chunk[MD5_READ_CHUNK];
  UINT8       Bytes[MD5_DIGEST_SIZE];
  UINTN       ReadSize;
  EFI_STATUS  Status;

  if ((Root == nullptr) || (Path == nullptr) || (Digest == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  MD5Init (&Context);
  for ( ; ; ) {
    ReadSize = sizeof (Chunk);
    Status   = File->Read (File.Get (), &ReadSize, Chunk);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (ReadSize == 0) {
      break;
    }

    if (ReadSize > sizeof (Chunk)) {
      // More than the buffer holds has already overrun it; nothing read can be trusted.
      return EFI_DEVICE_ERROR;
    }

    MD5Update (&Context, Chunk, ReadSize);
  }

  File.Close ();
  MD5Final (Bytes, &Context);
  Md5DigestToText (Bytes, Digest);
  return EFI_SUCCESS;
}

EFI_STATUS
ParseMd5Text (
  OUT CHAR16       *Digest,
  IN  CONST CHAR8  *Text
  )
{
  CHAR16  Parsed[VELMARO_MD5_CHARS];
  UINTN   Index;
  INTN    Value;
  CHAR8   After;

  if (Digest == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Digest[0] = L'\0';
  if (Text == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  while (IsAsciiBlank (*Text)) {
    Text++;
  }

  // The NUL of a short text fails the digit test, so nothing is read past it.
  for (Index = 0; Index < VELMARO_MD5_CHARS - 1; Index++) {
    Value = HexValue (Text[Index]);
    if (Value < 0) {
      return EFI_COMPROMISED_DATA;
    }

    Parsed[Index] = mHexDigits[Value];
  }

  After = Text[VELMARO_MD5_CHARS - 1];
  if ((After != '\0') && !IsAsciiBlank (After) && (After != '\r') && (After != '\n')) {
    return EFI_COMPROMISED_DATA;
  }

  Parsed[VELMARO_MD5_CHARS - 1] = L'\0';
  CopyMem (Digest, Parsed, sizeof (Parsed));
  return EFI_SUCCESS;
}

EFI_STATUS
FindMd5ByKey (
  OUT CHAR16       *Digest,
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *Key
  )
{
  CONST CHAR8  *Line;
  UINTN        Index;

  if (Digest == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Digest[0] = L'\0';
  // An empty key would match every line; that is a caller's mistake, not a lookup.
  if ((Text == nullptr) || (Key == nullptr) || (Key[0] == '\0')) {
    return EFI_INVALID_PARAMETER;
  }

  Line = Text;
  for ( ; ; ) {
    while ((*Line == '\r') || (*Line == '\n')) {
      Line++;
    }

    if (*Line == '\0') {
      return EFI_NOT_FOUND;
    }

    // Compared by hand: a line shorter than the key ends at its NUL or line end, which
    // never equals a key character, so the text is not read past its end.
    for (Index = 0; (Key[Index] != '\0') && (Line[Index] == Key[Index]); Index++) {
    }

    if (Key[Index] == '\0') {
      return ParseMd5Text (Digest, Line + Index);
    }

    Line += LineLength (Line);
  }
}

EFI_STATUS
ReadMd5File (
  IN  EFI_FILE_PROTOCOL  *Root,
  IN  CONST CHAR16       *Path,
  OUT CHAR16             *Digest
  )
{
  FileGuard   File;
  CHAR8       Buffer[MD5_FILE_READ_MAX + 1];
  UINTN       ReadSize;
  EFI_STATUS  Status;

  if (Digest == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Digest[0] = L'\0';
  if ((Root == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(Path), EFI_FILE_MODE_READ, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // The last byte stays NUL whatever the driver delivers: the text always ends.
  ZeroMem (Buffer, sizeof (Buffer));
  ReadSize = MD5_FILE_READ_MAX;
  Status   = File->Read (File.Get (), &ReadSize, Buffer);
  File.Close ();
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (ReadSize > MD5_FILE_READ_MAX) {
    return EFI_DEVICE_ERROR;
  }

  return ParseMd5Text (Digest, Buffer);
}

BOOLEAN
HasBcdMd5 (
  IN CONST GROUP_STATE  *State
  )
{
  return (State != nullptr) && (StrnLenS (State->BcdMd5, VELMARO_MD5_CHARS) == VELMARO_MD5_CHARS - 1);
}

BOOLEAN
HasBcdEfiMd5 (
  IN CONST GROUP_STATE  *State
  )
{
  return (State != nullptr) && (StrnLenS (State->BcdEfiMd5, VELMARO_MD5_CHARS) == VELMARO_MD5_CHARS - 1);
}

EFI_STATUS
FileMatchesBcdMd5 (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Path,
  IN CONST GROUP_STATE  *State
  )
{
  CHAR16      Computed[VELMARO_MD5_CHARS];
  EFI_STATUS  Status;

  if ((Root == nullptr) || (Path == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (!HasBcdMd5 (State)) {
    return EFI_NOT_FOUND;
  }

  Status = Md5OfFile (Root, Path, Computed);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return (StrCmp (Computed, State->BcdMd5) == 0) ? EFI_SUCCESS : EFI_COMPROMISED_DATA;
}
