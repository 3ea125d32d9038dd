/** @file
  The EFI boot folder of a group on a sibling FAT32 volume is moved by the firmware
  shell's mv: that volume may be served by a driver whose rename we cannot trust across
  folders, while the shell's mv is what a technician would type. Whatever the shell says,
  the move counts only when a fresh root shows it.
**/

#include <activation/ShellMove.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <Guards.h>

/**
  Formats one command line into Command (Capacity characters). A command that would
  not fit is refused rather than run cut short. EFIAPI: the firmware's variable
  argument lists only work in functions of its own calling convention.
**/
STATIC
EFI_STATUS
EFIAPI
FormatCommand (
  OUT CHAR16        *Command,
  IN  UINTN         Capacity,
  IN  CONST CHAR16  *Format,
  ...
  )
{
  VA_LIST  Marker;
  UINTN    Length;

  VA_START (Marker, Format);
  Length = SPrintLength (Format, Marker);
  VA_END (Marker);
  if (Length >= Capacity) {
    Command[0] = L'\0';
    return EFI_BUFFER_TOO_SMALL;
  }

  VA_START (Marker, Format);
  UnicodeVSPrint (Command, Capacity * sizeof (CHAR16), Format, Marker);
  VA_END (Marker);
  return EFI_SUCCESS;
}

/** Copies the first name of a shell answer ("FS1:;BLK3:" gives "FS1:") into Name. **/
STATIC
EFI_STATUS
CopyFirstMapName (
  OUT CHAR16        *Name,
  IN  CONST CHAR16  *Answer
  )
{
  UINTN  Length;

  for (Length = 0; (Answer[Length] != L'\0') && (Answer[Length] != L';'); Length++) {
  }

  if (Length >= SHELL_MAP_NAME_CHARS) {
    Name[0] = L'\0';
    return EFI_BUFFER_TOO_SMALL;
  }

  CopyMem (Name, Answer, Length * sizeof (CHAR16));
  Name[Length] = L'\0';
  return EnsureColonSuffix (Name);
}

EFI_STATUS
EnsureColonSuffix (
  IN OUT CHAR16  *Name
  )
{
  UINTN  Length;

  if ((Name == nullptr) || (Name[0] == L'\0')) {
    return EFI_INVALID_PARAMETER;
  }

  Length = StrnLenS (Name, SHELL_MAP_NAME_CHARS);
  if (Name[Length - 1] == L':') {
    return EFI_SUCCESS;
  }

  if (Length > SHELL_MAP_NAME_CHARS - 2) {
    return EFI_BUFFER_TOO_SMALL;
  }

  Name[Length]     = L':';
  Name[Length + 1] = L'\0';
  return EFI_SUCCESS;
}

EFI_STATUS
FileListHasPrefix (
  IN LIST_ENTRY    *List,
  IN CONST CHAR16  *Prefix
  )
{
  LIST_ENTRY  *Link;
  UINTN       PrefixLength;

  if ((List == nullptr) || (Prefix == nullptr) || (Prefix[0] == L'\0')) {
    return EFI_INVALID_PARAMETER;
  }

  PrefixLength = StrLen (Prefix);
  for (Link = List->ForwardLink; (Link != nullptr) && (Link != List); Link = Link->ForwardLink) {
    SHELL_FILE_ARG  *Arg = BASE_CR (Link, SHELL_FILE_ARG, Link);

    // Only what carries the shell's own signature is one of its file arguments, and only
    // one the shell could open is there: the environment lists a missing path too, with
    // the failure in its Status.
    if ((Arg->Signature == SHELL_FILE_ARG_SIGNATURE) && !EFI_ERROR (Arg->Status) && (Arg->FullName != nullptr) &&
        (StrnCmp (Arg->FullName, Prefix, PrefixLength) == 0))
    {
      return EFI_SUCCESS;
    }
  }

  return EFI_NOT_FOUND;
}

EFI_STATUS
ShellExecute (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *CommandLine,
  OUT EFI_STATUS    *ShellStatus
  )
{
  EFI_SHELL_PROTOCOL       *Shell;
  EFI_SHELL_ENVIRONMENT2   *Environment;
  EFI_HANDLE               Parent;
  BOOLEAN                  Ran;
  EFI_STATUS               Answer;
  EFI_STATUS               Status;

  if ((CommandLine == nullptr) || (ShellStatus == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *ShellStatus = EFI_SUCCESS;
  Parent       = ImageHandle;
  Shell        = nullptr;
  Ran          = FALSE;
  Status       = gBS->LocateProtocol (&gEfiShellProtocolGuid, nullptr, reinterpret_cast<VOID **>(&Shell));
  if (!EFI_ERROR (Status) && (Shell != nullptr) && (Shell->Execute != nullptr)) {
    Status = Shell->Execute (&Parent, const_cast<CHAR16 *>(CommandLine), nullptr, ShellStatus);
    if (!EFI_ERROR (Status) && !EFI_ERROR (*ShellStatus)) {
      return EFI_SUCCESS;
    }

    Ran     = TRUE;
    Answer  = Status;

    LogPrint (
      L16 (u"Shell Execute: EFI_SHELL_PROTOCOL fallito status=%r (0x%lx) shell_status=%r (0x%lx), provo EFI_SHELL_ENVIRONMENT2\n"),
      Status,
      Status,
      *ShellStatus,
      *ShellStatus
      );
  }

  Environment = nullptr;
  Status      = gBS->LocateProtocol (&gEfiShellEnvironment2Guid, nullptr, reinterpret_cast<VOID **>(&Environment));
  if (EFI_ERROR (Status) || (Environment == nullptr) || (Environment->Execute == nullptr)) {
    // A shell without the older environment has answered already: its answer is the
    // one that tells what went wrong.
    return Ran ? Answer : EFI_UNSUPPORTED;
  }

  // The older environment hands its first argument to HandleProtocol as it is: it takes
  // the handle itself where its declaration says a pointer to one.
  *ShellStatus = Environment->Execute (reinterpret_cast<EFI_HANDLE *>(ImageHandle), const_cast<CHAR16 *>(CommandLine), FALSE);
  return EFI_SUCCESS;
}

/** Runs Command; both the call and the command must succeed. **/
STATIC
BOOLEAN
ShellCommandSucceeds (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *Command,
  OUT EFI_STATUS    *Status,
  OUT EFI_STATUS    *ShellStatus
  )
{
  *Status = ShellExecute (ImageHandle, Command, ShellStatus);
  return !EFI_ERROR (*Status) && !EFI_ERROR (*ShellStatus);
}

EFI_STATUS
FindBlkShellName (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *Uuid,
  IN  CONST CHAR16  *SourcePath,
  OUT CHAR16        *Name
  )
{
  CHAR16      Device[SHELL_MAP_NAME_CHARS];
  CHAR16      Command[SHELL_COMMAND_CHARS];
  EFI_STATUS  Status;
  EFI_STATUS  ShellStatus;
  BOOLEAN     MarkerFound;
  BOOLEAN     SourceFound;
  UINT32      Index;

  if (Name != nullptr) {
    Name[0] = L'\0';
  }

  if ((Name == nullptr) || (Uuid == nullptr) || (Uuid[0] == L'\0') || (SourcePath == nullptr) || (SourcePath[0] == L'\0')) {
    return EFI_INVALID_PARAMETER;
  }

  for (Index = 0; Index <= SHELL_PROBE_LAST; Index++) {
    FormatCommand (Device, SHELL_MAP_NAME_CHARS, L16 (u"blk%u:"), Index);
    Status = ShellExecute (ImageHandle, Device, &ShellStatus);
    LogPrint (L16 (u"BLK diag: %s status=%r (0x%lx) shell_status=%r (0x%lx)\n"), Device, Status, Status, ShellStatus, ShellStatus);
    // The shell runs each command in a shell of its own and sets no status for a drive
    // change, so only the call can tell; the listings name the device themselves and
    // do not depend on a current directory carried from one command to the next.
    if (EFI_ERROR (Status)) {
      continue;
    }

    Status = FormatCommand (Command, SHELL_COMMAND_CHARS, L16 (u"ls %s\\%s.uuid"), Device, Uuid);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    MarkerFound = ShellCommandSucceeds (ImageHandle, Command, &Status, &ShellStatus);
    LogPrint (L16 (u"BLK diag: blk%u %s status=%r (0x%lx) shell_status=%r (0x%lx)\n"), Index, Command, Status, Status, ShellStatus, ShellStatus);

    // The folder is listed even after a missing marker: the log then shows both answers.
    Status = FormatCommand (Command, SHELL_COMMAND_CHARS, L16 (u"ls %s%s"), Device, SourcePath);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    SourceFound = ShellCommandSucceeds (ImageHandle, Command, &Status, &ShellStatus);
    LogPrint (L16 (u"BLK diag: blk%u %s status=%r (0x%lx) shell_status=%r (0x%lx)\n"), Index, Command, Status, Status, ShellStatus, ShellStatus);
    if (MarkerFound && SourceFound) {
      StrCpyS (Name, SHELL_MAP_NAME_CHARS, Device);
      LogPrint (L16 (u"BLK diag: SOURCE_FS shell trovato come %s\n"), Name);
      return EFI_SUCCESS;
    }
  }

  return EFI_NOT_FOUND;
}

/** The shell protocol's name for the volume at DevicePath; EFI_NOT_FOUND when it has
    none, so that the older environment is asked next. **/
STATIC
EFI_STATUS
MapFromShellProtocol (
  IN  CONST EFI_DEVICE_PATH_PROTOCOL  *DevicePath,
  OUT CHAR16                          *Name
  )
{
  EFI_SHELL_PROTOCOL                   *Shell;
  PoolGuard<EFI_DEVICE_PATH_PROTOCOL>  Copy;
  EFI_DEVICE_PATH_PROTOCOL             *Walk;
  CONST CHAR16                         *Answer;
  EFI_STATUS                           Status;

  Shell  = nullptr;
  Status = gBS->LocateProtocol (&gEfiShellProtocolGuid, nullptr, reinterpret_cast<VOID **>(&Shell));
  if (!EFI_ERROR (Status) && ((Shell == nullptr) || (Shell->GetMapFromDevicePath == nullptr))) {
    Status = EFI_UNSUPPORTED;
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Shell mv: EFI_SHELL_PROTOCOL non disponibile: %r (0x%lx), provo EFI_SHELL_ENVIRONMENT2\n"), Status, Status);
    return EFI_NOT_FOUND;
  }

  // The shell moves the pointer it is given along the path: it gets a copy of its own.
  if (!IsDevicePathValid (DevicePath, 0)) {
    return EFI_OUT_OF_RESOURCES;
  }

  Copy.Reset (DuplicateDevicePath (DevicePath));
  if (!Copy) {
    return EFI_OUT_OF_RESOURCES;
  }

  // The answer stays the shell's: it frees it itself, and a second free corrupts its pool.
  Walk   = Copy.Get ();
  Answer = Shell->GetMapFromDevicePath (&Walk);
  if ((Answer == nullptr) || (Answer[0] == L'\0')) {
    LogPrint (L16 (u"Shell mv: EFI_SHELL_PROTOCOL non ha mappa per SOURCE_FS, provo EFI_SHELL_ENVIRONMENT2\n"));
    return EFI_NOT_FOUND;
  }

  // The shell answers every name of the device, ";"-joined; a command line takes one.
  Status = CopyFirstMapName (Name, Answer);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  LogPrint (L16 (u"Shell mv: SOURCE_FS mappata via EFI_SHELL_PROTOCOL come %s\n"), Name);
  return EFI_SUCCESS;
}

/**
  Asks the environment for Probe. EFI_SUCCESS when it listed Probe on the mapping Name,
  EFI_NOT_FOUND when it did not; a failed call is returned, and what it may have left
  in the list is not touched: freeing what the environment already let go would be
  worse than leaving it.
**/
STATIC
EFI_STATUS
ProbeListsOn (
  IN EFI_SHELL_ENVIRONMENT2  *Environment,
  IN CONST CHAR16            *Probe,
  IN CONST CHAR16            *Name
  )
{
  LIST_ENTRY  List;
  EFI_STATUS  Status;

  InitializeListHead (&List);
  Status = Environment->FileMetaArgNoWildCard (const_cast<CHAR16 *>(Probe), &List);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FileListHasPrefix (&List, Name);
  if (Environment->FreeFileList != nullptr) {
    Environment->FreeFileList (&List);
  }

  return EFI_ERROR (Status) ? EFI_NOT_FOUND : EFI_SUCCESS;
}

EFI_STATUS
MapSourceFsShellName (
  IN  EFI_HANDLE    SourceHandle,
  IN  CONST CHAR16  *Uuid OPTIONAL,
  IN  CONST CHAR16  *SourcePath OPTIONAL,
  OUT CHAR16        *Name
  )
{
  EFI_DEVICE_PATH_PROTOCOL  *DevicePath;
  EFI_SHELL_ENVIRONMENT2    *Environment;
  CHAR16                    Candidate[SHELL_MAP_NAME_CHARS];
  CHAR16                    Probe[SHELL_COMMAND_CHARS];
  CHAR16                    SourceProbe[SHELL_COMMAND_CHARS];
  BOOLEAN                   NoUuid;
  EFI_STATUS                Status;
  UINT32                    Index;

  if (Name == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Name[0]    = L'\0';
  NoUuid     = (Uuid == nullptr) || (Uuid[0] == L'\0');
  DevicePath = DevicePathFromHandle (SourceHandle);
  if (DevicePath == nullptr) {
    return EFI_NOT_FOUND;
  }

  if (NoUuid) {
    Status = MapFromShellProtocol (DevicePath, Name);
    if (Status != EFI_NOT_FOUND) {
      return Status;
    }
  }

  Environment = nullptr;
  Status      = gBS->LocateProtocol (&gEfiShellEnvironment2Guid, nullptr, reinterpret_cast<VOID **>(&Environment));
  if (!EFI_ERROR (Status) && (Environment == nullptr)) {
    Status = EFI_NOT_FOUND;
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"Shell mv: EFI_SHELL_ENVIRONMENT2 non disponibile: %r (0x%lx)\n"), Status, Status);
    return EFI_UNSUPPORTED;
  }

  if (NoUuid && (Environment->GetFsName != nullptr)) {
    PoolGuard<CHAR16>  Answer;

    // The environment hands its answer over: it is ours to free, whatever it says.
    Status = Environment->GetFsName (DevicePath, TRUE, Answer.Out ());
    if (!EFI_ERROR (Status) && Answer && (Answer.Get ()[0] != L'\0')) {
      Status = CopyFirstMapName (Name, Answer.Get ());
      if (EFI_ERROR (Status)) {
        return Status;
      }

      LogPrint (L16 (u"Shell mv: SOURCE_FS mappata via EFI_SHELL_ENVIRONMENT2 come %s\n"), Name);
      return EFI_SUCCESS;
    }

    LogPrint (L16 (u"Shell mv: GetFsName SOURCE_FS fallito: %r (0x%lx)\n"), Status, Status);
  } else {
    LogPrint (L16 (u"Shell mv: GetFsName non disponibile, provo marker UUID\n"));
  }

  if (NoUuid || (Environment->FileMetaArgNoWildCard == nullptr)) {
    return EFI_UNSUPPORTED;
  }

  for (Index = 0; Index <= SHELL_PROBE_LAST; Index++) {
    FormatCommand (Candidate, SHELL_MAP_NAME_CHARS, L16 (u"fs%u:"), Index);
    Status = FormatCommand (Probe, SHELL_COMMAND_CHARS, L16 (u"fs%u:\\%s.uuid"), Index, Uuid);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    Status = ProbeListsOn (Environment, Probe, Candidate);
    if (Status == EFI_NOT_FOUND) {
      LogPrint (L16 (u"Shell mv: marker UUID non confermato su %s: %s\n"), Candidate, Probe);
    }

    if (EFI_ERROR (Status)) {
      continue;
    }

    if ((SourcePath == nullptr) || (SourcePath[0] == L'\0')) {
      break;
    }

    Status = FormatCommand (SourceProbe, SHELL_COMMAND_CHARS, L16 (u"fs%u:%s"), Index, SourcePath);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    if (!EFI_ERROR (ProbeListsOn (Environment, SourceProbe, Candidate))) {
      break;
    }

    LogPrint (L16 (u"Shell mv: marker UUID su fs%u ma path sorgente assente: %s\n"), Index, SourceProbe);
  }

  if (Index > SHELL_PROBE_LAST) {
    return EFI_UNSUPPORTED;
  }

  StrCpyS (Name, SHELL_MAP_NAME_CHARS, Candidate);
  LogPrint (L16 (u"Shell mv: SOURCE_FS mappata via marker UUID come %s (%s)\n"), Name, Probe);
  return EFI_SUCCESS;
}

/** Runs one command and says how it went; either status failing is the result. **/
STATIC
EFI_STATUS
RunLogged (
  IN EFI_HANDLE    ImageHandle,
  IN CONST CHAR16  *Command,
  IN CONST CHAR16  *Format
  )
{
  EFI_STATUS  Status;
  EFI_STATUS  ShellStatus;

  Status = ShellExecute (ImageHandle, Command, &ShellStatus);
  LogPrint (Format, Status, Status, ShellStatus, ShellStatus);
  return EFI_ERROR (Status) ? Status : ShellStatus;
}

/** The move is proved on a fresh root: the group's folder gone, the active one there. **/
STATIC
EFI_STATUS
VerifyShellMove (
  IN EFI_HANDLE    SourceHandle,
  IN CONST CHAR16  *SourcePath
  )
{
  FileGuard   Fresh;
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  Status = OpenRoot (SourceHandle, Fresh.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FileExists (Fresh.Get (), SourcePath, &Exists);
  if (Status != EFI_NOT_FOUND) {
    Fresh.Close ();
    LogPrint (L16 (u"Shell mv verified: source still present after mv %s status=%r (0x%lx) exists=%u\n"), SourcePath, Status, Status, Exists);
    return EFI_DEVICE_ERROR;
  }

  Status = FileExists (Fresh.Get (), ACTIVE_EFI_PATH, &Exists);
  Fresh.Close ();
  if (!Exists) {
    LogPrint (L16 (u"Shell mv verified: destination missing after mv %s status=%r (0x%lx) exists=%u\n"), ACTIVE_EFI_PATH, Status, Status, Exists);
    return EFI_DEVICE_ERROR;
  }

  LogPrint (L16 (u"Shell mv verified OK: %s -> %s\n"), SourcePath, ACTIVE_EFI_PATH);
  return EFI_SUCCESS;
}

EFI_STATUS
ShellMoveEfiFolder (
  IN EFI_HANDLE         ImageHandle,
  IN EFI_HANDLE         SourceHandle,
  IN EFI_FILE_PROTOCOL  *SourceRoot,
  IN CONST CHAR16       *Uuid OPTIONAL,
  IN CONST CHAR16       *SourcePath
  )
{
  CHAR16      Name[SHELL_MAP_NAME_CHARS];
  CHAR16      Command[SHELL_MV_COMMAND_CHARS];
  FileGuard   Fresh;
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((SourceHandle == nullptr) || (SourceRoot == nullptr) || (SourcePath == nullptr) || (SourcePath[0] == L'\0')) {
    return EFI_INVALID_PARAMETER;
  }

  // mv into an existing folder puts the source inside it: the group's folder would end
  // up within another group's and still look moved. The volume itself is asked, not
  // a root that may still show it as it was.
  Status = OpenRoot (SourceHandle, Fresh.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = FileExists (Fresh.Get (), ACTIVE_EFI_PATH, &Exists);
  Fresh.Close ();
  if (!EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: Shell mv non eseguito, %s gia presente su SOURCE_FS\n"), ACTIVE_EFI_PATH);
    return EFI_ALREADY_STARTED;
  }

  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  RunLogged (ImageHandle, L16 (u"map -u"), L16 (u"Shell Execute(map -u): status=%r (0x%lx) shell_status=%r (0x%lx)\n"));

  Status = FindBlkShellName (ImageHandle, Uuid, SourcePath, Name);
  if (!EFI_ERROR (Status)) {
    EFI_STATUS  ShellStatus;

    // As in the search: a drive change has no status of its own, and mv names the device.
    Status = ShellExecute (ImageHandle, Name, &ShellStatus);
    LogPrint (L16 (u"Shell Execute(%s): status=%r (0x%lx) shell_status=%r (0x%lx)\n"), Name, Status, Status, ShellStatus, ShellStatus);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    Status = FormatCommand (Command, SHELL_MV_COMMAND_CHARS, L16 (u"mv \"%s%s\" \"%s%s\""), Name, SourcePath, Name, ACTIVE_EFI_PATH);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    LogPrint (L16 (u"Shell blk mv verified: %s %s\n"), Name, Command);
    Status = RunLogged (ImageHandle, Command, L16 (u"Shell Execute(blk mv): status=%r (0x%lx) shell_status=%r (0x%lx)\n"));
  } else {
    Status = MapSourceFsShellName (SourceHandle, Uuid, SourcePath, Name);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    Status = FormatCommand (Command, SHELL_MV_COMMAND_CHARS, L16 (u"mv \"%s%s\" \"%s%s\""), Name, SourcePath, Name, ACTIVE_EFI_PATH);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    LogPrint (L16 (u"Shell mv verified: %s\n"), Command);
    Status = RunLogged (ImageHandle, Command, L16 (u"Shell Execute(mv): status=%r (0x%lx) shell_status=%r (0x%lx)\n"));
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  return VerifyShellMove (SourceHandle, SourcePath);
}
