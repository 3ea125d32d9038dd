/** @file
  The group description file. Only its third line matters to a run (the marker that
  finds the group's partition); the first two are there for whoever reads the log.
**/

#include <data/GroupDescription.h>
#include <app/DiagnosticLog.h>
#include <discovery/FsIdentification.h>
#include <fs/AsciiText.h>
#include <fs/FileAccess.h>
#include <Guards.h>

#define DESCRIPTION_LINES  3

/** The text of the file at Path on the first sibling partition of the boot volume that
    has it; null when none has, or when the volumes cannot be listed. **/
STATIC
CHAR8 *
ReadFromSibling (
  IN EFI_HANDLE    BootHandle,
  IN CONST CHAR16  *Path
  )
{
  PoolGuard<EFI_HANDLE>  Handles;
  UINTN                  Count;
  UINTN                  Index;
  EFI_STATUS             Status;

  Status = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &Count, Handles.Out ());
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"File ID %s: ricerca partizioni sorelle non riuscita: %r (0x%lx)\n"), Path, Status, Status);
    return nullptr;
  }

  for (Index = 0; Index < Count; Index++) {
    EFI_HANDLE  Candidate = Handles.Get ()[Index];
    FileGuard   Root;
    CHAR8       *Text;

    // Only partitions of the stick itself: a copy on another disk is never read.
    if ((Candidate == BootHandle) || !IsSiblingPartition (BootHandle, Candidate) || EFI_ERROR (OpenRoot (Candidate, Root.Out ()))) {
      continue;
    }

    Text = nullptr;
    if (!EFI_ERROR (ReadWholeFile (Root.Get (), Path, &Text))) {
      LogPrint (L16 (u"File ID %s letto da partizione sorella handle=%p\n"), Path, Candidate);
      return Text;
    }
  }

  LogPrint (L16 (u"File ID %s non trovato su BOOT FS o partizioni sorelle\n"), Path);
  return nullptr;
}

VOID
ReadGroupDescription (
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR16       *GroupId,
  OUT CHAR16             *MarkerName OPTIONAL
  )
{
  CHAR16            Path[DESCRIPTION_PATH_CHARS];
  CHAR8             Lines[DESCRIPTION_LINES][DESCRIPTION_LINE_BYTES];
  PoolGuard<CHAR8>  Text;
  CONST CHAR8       *Line;
  UINTN             Number;
  UINTN             Length;
  EFI_STATUS        Status;

  if (MarkerName != nullptr) {
    MarkerName[0] = L'\0';
  }

  if ((BootHandle == nullptr) || (BootRoot == nullptr) || (GroupId == nullptr)) {
    return;
  }

  UnicodeSPrint (Path, sizeof (Path), L16 (u"\\boot\\%s.txt"), GroupId);
  Status = ReadWholeFile (BootRoot, Path, Text.Out ());
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"File ID %s non letto su BOOT FS: %r (0x%lx)\n"), Path, Status, Status);
    Text.Reset (ReadFromSibling (BootHandle, Path));
    if (!Text) {
      return;
    }
  }

  // Non-empty lines count from 1; each is kept to 127 bytes, then trimmed.
  ZeroMem (Lines, sizeof (Lines));
  Line = Text.Get ();
  while ((*Line == '\r') || (*Line == '\n')) {
    Line++;
  }

  for (Number = 0; (Number < DESCRIPTION_LINES) && (Line != nullptr) && (*Line != '\0'); Number++, Line = NextLine (Line)) {
    Length = MIN (LineLength (Line), DESCRIPTION_LINE_BYTES - 1);
    CopyMem (Lines[Number], Line, Length);
    TrimAsciiSpace (Lines[Number]);
  }

  LogPrint (L16 (u"File ID %s:\n"), Path);
  LogPrint (L16 (u"  descrizione: %a\n"), (Lines[0][0] != '\0') ? Lines[0] : "(assente)");
  LogPrint (L16 (u"  SRC file ID: %a\n"), (Lines[1][0] != '\0') ? Lines[1] : "(assente)");

  Length = AsciiStrLen (Lines[2]);
  if ((Length < 5) || (AsciiStrCmp (Lines[2] + Length - 5, ".uuid") != 0)) {
    LogPrint (L16 (u"  marker ID: nessun .uuid\n"));
    return;
  }

  LogPrint (L16 (u"  marker ID: %a\n"), Lines[2]);
  if (MarkerName != nullptr) {
    Status = AsciiToChar16 (MarkerName, MARKER_NAME_CHARS, Lines[2]);
    if (EFI_ERROR (Status)) {
      MarkerName[0] = L'\0';
      LogPrint (L16 (u"  marker ID non copiato: %r (0x%lx)\n"), Status, Status);
    }
  }
}
