/** @file
  Moving a group's EFI boot folder to "\efi\microsoft" on a FAT32 volume other than the
  boot volume, with the firmware shell's own mv, and proving the move through the file
  protocol afterwards. The shell names volumes fsN: and blkN:; the move finds the right
  name by the volume's UUID marker or by asking the shell.
**/

#ifndef VELMARO_SHELL_MOVE_H_
#define VELMARO_SHELL_MOVE_H_

#include <Velmaro.h>

extern "C" {
#include <Protocol/Shell.h>
#include <Protocol/EfiShellInterface.h>
#include <Protocol/EfiShellEnvironment2.h>
}

#define ACTIVE_EFI_PATH          L16 (u"\\efi\\microsoft")
/// A mapping name such as "fs1:" or "blk3:", its colon and NUL included.
#define SHELL_MAP_NAME_CHARS     16
#define SHELL_COMMAND_CHARS      128
#define SHELL_MV_COMMAND_CHARS   320
/// fs0: ... fs22: and blk0: ... blk22: are probed.
#define SHELL_PROBE_LAST         22

/**
  Moves SourcePath ("\efi\<Efi>") to "\efi\microsoft" on the source volume with the
  shell's mv, on the device found by its UUID marker (blkN:) or on the volume's fsN:
  mapping, then checks the result on a freshly opened root.

  @retval EFI_SUCCESS            SourcePath is gone and "\efi\microsoft" exists.
  @retval EFI_ALREADY_STARTED    "\efi\microsoft" exists already: mv would put the folder
                                 inside it, so nothing was run.
  @retval EFI_DEVICE_ERROR       The shell reported success but the volume does not show
                                 the move.
  @retval EFI_UNSUPPORTED        No shell, or no way to name the volume in it.
  @retval EFI_INVALID_PARAMETER  A handle, the root or the path is missing.
  @retval other                  The execution or the command failed (shell status).
**/
EFI_STATUS
ShellMoveEfiFolder (
  IN EFI_HANDLE         ImageHandle,
  IN EFI_HANDLE         SourceHandle,
  IN EFI_FILE_PROTOCOL  *SourceRoot,
  IN CONST CHAR16       *Uuid OPTIONAL,
  IN CONST CHAR16       *SourcePath
  );

/**
  Runs CommandLine through the shell protocol, and through the older shell environment
  when the first is missing or reports a failure.

  @retval EFI_SUCCESS      The command ran; *ShellStatus is what it reported.
  @retval EFI_UNSUPPORTED  Neither protocol can run it.
  @retval other            The execution itself failed.
**/
EFI_STATUS
ShellExecute (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *CommandLine,
  OUT EFI_STATUS    *ShellStatus
  );

/**
  The first blkN: on which both the marker "\<Uuid>.uuid" and SourcePath are listed.

  @retval EFI_SUCCESS            Name holds "blkN:".
  @retval EFI_NOT_FOUND          No device qualifies.
  @retval EFI_INVALID_PARAMETER  No UUID or no source path to look for.
**/
EFI_STATUS
FindBlkShellName (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *Uuid,
  IN  CONST CHAR16  *SourcePath,
  OUT CHAR16        *Name
  );

/**
  The shell's fsN: name of the source volume: asked of the shell when no UUID is known,
  else found by the UUID marker through the shell environment's file arguments.

  @retval EFI_SUCCESS           Name holds the mapping, ending in ':'.
  @retval EFI_NOT_FOUND         The volume has no device path.
  @retval EFI_UNSUPPORTED       No protocol could name it.
  @retval EFI_BUFFER_TOO_SMALL  The shell's name does not fit.
  @retval EFI_OUT_OF_RESOURCES  The device path is invalid or could not be copied.
**/
EFI_STATUS
MapSourceFsShellName (
  IN  EFI_HANDLE    SourceHandle,
  IN  CONST CHAR16  *Uuid OPTIONAL,
  IN  CONST CHAR16  *SourcePath OPTIONAL,
  OUT CHAR16        *Name
  );

/**
  @retval EFI_SUCCESS            An entry of the list is a shell file argument the shell
                                 opened, whose full name begins with Prefix (letter case
                                 counts).
  @retval EFI_NOT_FOUND          None does.
  @retval EFI_INVALID_PARAMETER  No list or an empty prefix.
**/
EFI_STATUS
FileListHasPrefix (
  IN LIST_ENTRY    *List,
  IN CONST CHAR16  *Prefix
  );

/**
  Name (SHELL_MAP_NAME_CHARS) ends in ':' afterwards.

  @retval EFI_INVALID_PARAMETER  No name, or an empty one.
  @retval EFI_BUFFER_TOO_SMALL   No room for the colon.
**/
EFI_STATUS
EnsureColonSuffix (
  IN OUT CHAR16  *Name
  );

#endif
