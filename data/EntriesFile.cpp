/** @file
  The entries file \boot\NUR_VEL_EFI.COM.
**/

#include <data/EntriesFile.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>

EFI_STATUS
DecodeEntryLine (
  IN  CONST CHAR8  *Line,
  IN  UINTN        Length,
  OUT CHAR8        *Decoded
  )
{
  UINTN  Index;

  if ((Line == nullptr) || (Decoded == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (Length / 2 + 1 > ENTRY_LINE_BYTES) {
    return EFI_BAD_BUFFER_SIZE;
  }

  for (Index = 0; Index + 1 < Length; Index += 2) {
    INTN  High = HexValue (Line[Index]);
    INTN  Low  = HexValue (Line[Index + 1]);

    if ((High < 0) || (Low < 0)) {
      return EFI_COMPROMISED_DATA;
    }

    Decoded[Index / 2] = static_cast<CHAR8>(~static_cast<UINT8>(High * 16 + Low));
  }

  Decoded[Index / 2] = '\0';
  return EFI_SUCCESS;
}

CONST CHAR8 *
MatchPrefix (
  IN CONST CHAR8  *Token,
  IN CONST CHAR8  *Prefix
  )
{
  if ((Token == nullptr) || (Prefix == nullptr)) {
    return nullptr;
  }

  while (*Prefix != '\0') {
    if (*Token != *Prefix) {
      return nullptr;
    }

    Token++;
    Prefix++;
  }

  return Token;
}

/**
  Walks the lines of the entries text: the first line that decodes is the header and is
  skipped; every later one that decodes goes to OnEntry. A corrupt line before the header
  ends the walk with its status; after the header it is reported with WarnFormat and
  skipped. OnEntry's error ends the walk at once. *HeaderSeen tells whether a header
  line was found.
**/
template<typename ON_ENTRY>
STATIC
EFI_STATUS
WalkEntryLines (
  IN  CONST CHAR8   *Text,
  IN  BOOLEAN       TraceLines,
  IN  CONST CHAR16  *WarnFormat,
  OUT BOOLEAN       *HeaderSeen,
  IN  ON_ENTRY      OnEntry
  )
{
  CHAR8        Decoded[ENTRY_LINE_BYTES];
  CONST CHAR8  *Line;
  EFI_STATUS   Status;

  *HeaderSeen = FALSE;
  for (Line = Text; (Line != nullptr) && (*Line != '\0'); Line = NextLine (Line)) {
    UINTN  Length = LineLength (Line);

    if (Length == 0) {
      continue;
    }

    Status = ((Length % 2) != 0) ? EFI_BAD_BUFFER_SIZE : DecodeEntryLine (Line, Length, Decoded);
    if (EFI_ERROR (Status)) {
      if (!*HeaderSeen) {
        return Status;
      }

      LogPrint (WarnFormat, Status, Status);
      continue;
    }

    if (TraceLines) {
      Trace (L16 (u"TRACE NUR decoded: %a\n"), Decoded);
    }

    if (!*HeaderSeen) {
      *HeaderSeen = TRUE;
      continue;
    }

    Status = OnEntry (Decoded);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  return EFI_SUCCESS;
}

/** Cuts the next space-separated token out of a decoded line, in place. **/
STATIC
CHAR8 *
NextEntryToken (
  IN OUT CHAR8  **Position
  )
{
  CHAR8  *Token;
  CHAR8  *Scan = *Position;

  while (*Scan == ' ') {
    Scan++;
  }

  if (*Scan == '\0') {
    *Position = Scan;
    return nullptr;
  }

  Token = Scan;
  while ((*Scan != '\0') && (*Scan != ' ')) {
    Scan++;
  }

  if (*Scan == ' ') {
    *Scan++ = '\0';
  }

  *Position = Scan;
  return Token;
}

EFI_STATUS
LookupGroupInEntries (
  IN  CONST CHAR8  *Text,
  IN  CONST CHAR8  *GroupId,
  OUT GROUP_STATE  *State
  )
{
  BOOLEAN     HeaderSeen;
  BOOLEAN     Found;
  EFI_STATUS  Status;

  if ((Text == nullptr) || (GroupId == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  ZeroMem (State, sizeof (*State));
  Found  = FALSE;
  Status = WalkEntryLines (
             Text,
             TRUE,
             L16 (u"WARN: riga NUR_VEL_EFI.COM non richiesta corrotta, saltata: %r (0x%lx)\n"),
             &HeaderSeen,
             [&](CHAR8 *Line) -> EFI_STATUS {
    CHAR8 *Token;
    BOOLEAN OnGroupLine = FALSE;

    // The first line naming the group wins; later lines are only checked for damage.
    if (Found) {
      return EFI_SUCCESS;
    }

    while ((Token = NextEntryToken (&Line)) != nullptr) {
      CONST CHAR8 *Value;
      CHAR16 *Field = nullptr;

      if (!OnGroupLine) {
        Value = MatchPrefix (Token, "ID:");
        if ((Value != nullptr) && (AsciiStrCmp (Value, GroupId) == 0)) {
          OnGroupLine = TRUE;
          Found = TRUE;
        }

        continue;
      }

      if ((Value = MatchPrefix (Token, "BCD:")) != nullptr) {
        Field = State->Bcd;
      } else if ((Value = MatchPrefix (Token, "SRC:")) != nullptr) {
        Field = State->Src;
      } else if ((Value = MatchPrefix (Token, "EFI:")) != nullptr) {
        Field = State->Efi;
      }

      if ((Field != nullptr) && EFI_ERROR (AsciiToChar16 (Field, VELMARO_NAME_CHARS, Value))) {
        return EFI_BUFFER_TOO_SMALL;
      }
    }

    return EFI_SUCCESS;
  }
             );
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!HeaderSeen) {
    return EFI_COMPROMISED_DATA;
  }

  if (!Found || (State->Bcd[0] == L'\0') || (State->Src[0] == L'\0') || (State->Efi[0] == L'\0')) {
    return EFI_NOT_FOUND;
  }

  return EFI_SUCCESS;
}

EFI_STATUS
ListEntryBcdNames (
  IN  CONST CHAR8  *Text,
  OUT ENTRY_NAME   *Names,
  OUT UINTN        *Count
  )
{
  BOOLEAN     HeaderSeen;
  UINTN       Listed;
  EFI_STATUS  Status;

  if ((Names == nullptr) || (Count == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Count = 0;
  if (Text == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Listed = 0;
  Status = WalkEntryLines (
             Text,
             FALSE,
             L16 (u"WARN: riga NUR_VEL_EFI.COM non richiesta corrotta, saltata durante elenco BCD: %r (0x%lx)\n"),
             &HeaderSeen,
             [&](CHAR8 *Line) -> EFI_STATUS {
    CHAR8 *Token;

    while ((Token = NextEntryToken (&Line)) != nullptr) {
      CONST CHAR8 *Value = MatchPrefix (Token, "BCD:");
      CHAR16 Name[VELMARO_NAME_CHARS];
      BOOLEAN Known = FALSE;

      if (Value == nullptr) {
        continue;
      }

      if (EFI_ERROR (AsciiToChar16 (Name, VELMARO_NAME_CHARS, Value))) {
        return EFI_BUFFER_TOO_SMALL;
      }

      for (UINTN Index = 0; (Index < Listed) && !Known; Index++) {
        Known = (StrCmp (Names[Index], Name) == 0);
      }

      if (Known) {
        continue;
      }

      if (Listed == ENTRY_BCD_NAMES_MAX) {
        return EFI_BUFFER_TOO_SMALL;
      }

      StrCpyS (Names[Listed++], VELMARO_NAME_CHARS, Name);
    }

    return EFI_SUCCESS;
  }
             );
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (!HeaderSeen || (Listed == 0)) {
    return EFI_NOT_FOUND;
  }

  *Count = Listed;
  return EFI_SUCCESS;
}
