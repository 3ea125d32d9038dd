/** @file
  The state file \boot\VELMARO.COM.
**/

#include <data/StateFile.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <Guards.h>

/**
  Copies Length bytes of a value into a NUL-terminated buffer of Capacity bytes.
  FALSE when it does not fit.
**/
STATIC
BOOLEAN
CopyValue (
  OUT CHAR8        *Buffer,
  IN  UINTN        Capacity,
  IN  CONST CHAR8  *Value,
  IN  UINTN        Length
  )
{
  if (Length >= Capacity) {
    return FALSE;
  }

  CopyMem (Buffer, Value, Length);
  Buffer[Length] = '\0';
  return TRUE;
}

/**
  A BCD, SRC or EFI value other than "NotFound": its leaf name, trimmed.
**/
STATIC
EFI_STATUS
ParseNameValue (
  IN  CONST CHAR8  *Value,
  IN  UINTN        Length,
  OUT CHAR16       *Field
  )
{
  CONST CHAR8  *Leaf;
  CHAR8        Copy[LEAF_NAME_CHARS];

  // The leaf is measured before trimming, as the rest of the system does.
  Leaf = Value;
  for (UINTN Index = 0; Index < Length; Index++) {
    if ((Value[Index] == '\\') || (Value[Index] == '/')) {
      Leaf = Value + Index + 1;
    }
  }

  if (!CopyValue (Copy, sizeof (Copy), Leaf, Length - static_cast<UINTN>(Leaf - Value))) {
    return EFI_BUFFER_TOO_SMALL;
  }

  return AsciiLeafNameToChar16 (Field, Copy);
}

/** SRC_PART and SRC_FS keep their value as written; one that does not fit is dropped. **/
STATIC
VOID
ParseWholeValue (
  IN  CONST CHAR8  *Value,
  IN  UINTN        Length,
  OUT CHAR16       *Field,
  IN  UINTN        Capacity
  )
{
  CHAR8  Copy[VELMARO_NAME_CHARS];

  if (!CopyValue (Copy, Capacity, Value, Length) || EFI_ERROR (AsciiToChar16 (Field, Capacity, Copy))) {
    Field[0] = L'\0';
  }
}

EFI_STATUS
ParseStateFile (
  IN  CONST CHAR8  *Text,
  OUT GROUP_STATE  *State
  )
{
  BOOLEAN      BcdSeen;
  BOOLEAN      SrcSeen;
  BOOLEAN      EfiSeen;
  CONST CHAR8  *Line;
  EFI_STATUS   Status;

  if (State == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  ZeroMem (State, sizeof (*State));
  BcdSeen = FALSE;
  SrcSeen = FALSE;
  EfiSeen = FALSE;

  for (Line = Text; (Line != nullptr) && (*Line != '\0'); Line = NextLine (Line)) {
    UINTN  Length = LineLength (Line);
    UINTN  Colon;

    for (Colon = 0; (Colon < Length) && (Line[Colon] != ':'); Colon++) {
    }

    if (Colon == Length) {
      continue;
    }

    CONST CHAR8  *Value       = Line + Colon + 1;
    UINTN        ValueLength  = Length - Colon - 1;
    CHAR16       *NameField   = nullptr;
    BOOLEAN      *Seen        = nullptr;

    if ((Colon == 3) && (CompareMem (Line, "BCD", 3) == 0)) {
      NameField = State->Bcd;
      Seen      = &BcdSeen;
    } else if ((Colon == 3) && (CompareMem (Line, "SRC", 3) == 0)) {
      NameField = State->Src;
      Seen      = &SrcSeen;
    } else if ((Colon == 3) && (CompareMem (Line, "EFI", 3) == 0)) {
      NameField = State->Efi;
      Seen      = &EfiSeen;
    } else if ((Colon == 8) && (CompareMem (Line, "SRC_PART", 8) == 0)) {
      ParseWholeValue (Value, ValueLength, State->SrcPart, VELMARO_NAME_CHARS);
    } else if ((Colon == 6) && (CompareMem (Line, "SRC_FS", 6) == 0)) {
      ParseWholeValue (Value, ValueLength, State->SrcFs, VELMARO_FS_CHARS);
    }

    if ((NameField != nullptr) && (ValueLength == 8) && (CompareMem (Value, "NotFound", 8) == 0)) {
      // Files prepared elsewhere say "NotFound" for a piece they do not know: no value.
      NameField[0] = L'\0';
    } else if (NameField != nullptr) {
      Status = ParseNameValue (Value, ValueLength, NameField);
      if (EFI_ERROR (Status)) {
        return Status;
      }

      *Seen = TRUE;
    }
  }

  if (BcdSeen) {
    return (SrcSeen && EfiSeen) ? EFI_SUCCESS : EFI_COMPROMISED_DATA;
  }

  return (SrcSeen || EfiSeen) ? EFI_COMPROMISED_DATA : EFI_NOT_FOUND;
}

EFI_STATUS
FormatStateFile (
  IN  CONST GROUP_STATE  *State,
  OUT CHAR8              *Text
  )
{
  CHAR8       Bcd[VELMARO_NAME_CHARS];
  CHAR8       Src[VELMARO_NAME_CHARS];
  CHAR8       Efi[VELMARO_NAME_CHARS];
  CHAR8       SrcPart[VELMARO_NAME_CHARS];
  CHAR8       SrcFs[VELMARO_FS_CHARS];
  CHAR8       Whole[STATE_TEXT_FORMAT_BYTES];
  BOOLEAN     HasPart;
  BOOLEAN     HasFs;
  UINTN       Length;
  EFI_STATUS  Status;

  if ((State == nullptr) || (Text == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  HasPart = (State->SrcPart[0] != L'\0');
  HasFs   = (State->SrcFs[0] != L'\0');
  Status  = NarrowToAscii (Bcd, sizeof (Bcd), State->Bcd);
  if (!EFI_ERROR (Status)) {
    Status = NarrowToAscii (Src, sizeof (Src), State->Src);
  }

  if (!EFI_ERROR (Status)) {
    Status = NarrowToAscii (Efi, sizeof (Efi), State->Efi);
  }

  if (!EFI_ERROR (Status) && HasPart) {
    Status = NarrowToAscii (SrcPart, sizeof (SrcPart), State->SrcPart);
  }

  if (!EFI_ERROR (Status) && HasFs) {
    Status = NarrowToAscii (SrcFs, sizeof (SrcFs), State->SrcFs);
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (HasPart && HasFs) {
    Length = AsciiSPrint (Whole, sizeof (Whole), "BCD:c:\\boot\\%a\r\nSRC:c:\\%a\r\nEFI:c:\\efi\\%a\r\nSRC_PART:%a\r\nSRC_FS:%a\r\n", Bcd, Src, Efi, SrcPart, SrcFs);
  } else if (HasPart) {
    Length = AsciiSPrint (Whole, sizeof (Whole), "BCD:c:\\boot\\%a\r\nSRC:c:\\%a\r\nEFI:c:\\efi\\%a\r\nSRC_PART:%a\r\n", Bcd, Src, Efi, SrcPart);
  } else if (HasFs) {
    Length = AsciiSPrint (Whole, sizeof (Whole), "BCD:c:\\boot\\%a\r\nSRC:c:\\%a\r\nEFI:c:\\efi\\%a\r\nSRC_FS:%a\r\n", Bcd, Src, Efi, SrcFs);
  } else {
    Length = AsciiSPrint (Whole, sizeof (Whole), "BCD:c:\\boot\\%a\r\nSRC:c:\\%a\r\nEFI:c:\\efi\\%a\r\n", Bcd, Src, Efi);
  }

  // A cut line could end a SRC_PART in the middle, and a cut UUID would name no volume
  // for good: a text that does not fit whole is not written at all.
  if ((Length < 1) || (Length >= STATE_TEXT_BYTES)) {
    return EFI_BUFFER_TOO_SMALL;
  }

  CopyMem (Text, Whole, Length + 1);
  return EFI_SUCCESS;
}

/**
  Replaces the state file with Text and reads it back. The old file is deleted first so
  no older, longer text can survive behind the new one; when the firmware only warns
  about the delete, the read-back catches what is left.
**/
STATIC
EFI_STATUS
WriteStateText (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR8        *Text,
  IN CONST CHAR16       *VerifyMessage
  )
{
  FileGuard         File;
  PoolGuard<CHAR8>  ReadBack;
  UINTN             Length;
  UINTN             Written;
  EFI_STATUS        Status;
  EFI_STATUS        WriteStatus;

  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(STATE_FILE_PATH), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (!EFI_ERROR (Status)) {
    EFI_FILE_PROTOCOL  *Old = File.Release ();

    Status = Old->Delete (Old);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  } else if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  Status = Root->Open (
                   Root,
                   File.Out (),
                   const_cast<CHAR16 *>(STATE_FILE_PATH),
                   EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE,
                   0
                   );
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Length      = AsciiStrLen (Text);
  Written     = Length;
  WriteStatus = File->Write (File.Get (), &Written, const_cast<CHAR8 *>(Text));
  File->Flush (File.Get ());
  File.Close ();
  if (EFI_ERROR (WriteStatus) || (Written != Length)) {
    return EFI_DEVICE_ERROR;
  }

  Status = ReadWholeFile (Root, STATE_FILE_PATH, ReadBack.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = (AsciiStrCmp (ReadBack.Get (), Text) == 0) ? EFI_SUCCESS : EFI_COMPROMISED_DATA;
  ReadBack.Free ();
  LogPrint (VerifyMessage, Status, Status);
  return Status;
}

EFI_STATUS
WriteStateFile (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST GROUP_STATE  *State
  )
{
  CHAR8       Text[STATE_TEXT_BYTES];
  EFI_STATUS  Status;

  if ((Root == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = FormatStateFile (State, Text);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return WriteStateText (Root, Text, L16 (u"Verifica VELMARO.COM: %r (0x%lx)\n"));
}

EFI_STATUS
ResetStateFile (
  IN EFI_FILE_PROTOCOL  *Root
  )
{
  if (Root == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  return WriteStateText (Root, STATE_TEXT_NO_GROUP, L16 (u"Ripristino atomico: VELMARO.COM reset verificato: %r (0x%lx)\n"));
}
