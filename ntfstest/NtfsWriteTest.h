/** @file
  The "ntfs-test" run mode: proves on the machine at hand that the NTFS driver we load
  can really change the stick's NTFS partition. A small file is written, read back and
  compared; then "\sources" is renamed to the first free "sources_backup" name and the
  rename is proved on a freshly opened root. The volume stays changed afterwards: the
  test file remains and the folder keeps its backup name.
**/

#ifndef VELMARO_NTFS_WRITE_TEST_H_
#define VELMARO_NTFS_WRITE_TEST_H_

#include <Velmaro.h>

#define WRITE_TEST_PATH     L16 (u"\\velmaro_write_test.txt")
#define WRITE_TEST_FOLDER   L16 (u"sources")
#define BACKUP_NAME_BASE    L16 (u"sources_backup")
/// Characters of a backup name, its NUL included.
#define BACKUP_NAME_CHARS   64
/// "sources_backup", then "sources_backup_1" ... "sources_backup_99".
#define BACKUP_NAME_COUNT   100
/// Characters of the rename's new path ("\" and the name), its NUL included.
#define RENAME_PATH_CHARS   80

/**
  Write test, then rename of "\sources" proved on a fresh root. Every step logs its
  firmware status.

  @param[in] SimpleFs  The Simple File System handle of the NTFS partition.

  @retval EFI_SUCCESS            The test file reads back as written and "\sources" now
                                 goes by its backup name.
  @retval EFI_INVALID_PARAMETER  No handle.
  @retval EFI_NOT_FOUND          The write test passed but "\sources" cannot be found.
  @retval EFI_ALREADY_STARTED    Every backup name is taken; nothing was renamed.
  @retval EFI_DEVICE_ERROR       A rename the driver reported but a fresh root does not
                                 show, or a write of the wrong length.
  @retval EFI_COMPROMISED_DATA   The test file reads back otherwise than written.
  @retval other                  The failing firmware call's status (EFI_WRITE_PROTECTED
                                 also brings up the read-only warning).
**/
EFI_STATUS
NtfsWriteTest (
  IN EFI_HANDLE  SimpleFs
  );

/**
  Deletes an earlier test file, writes the 26 bytes of test content, reads the file
  back through Root and compares.

  @retval EFI_SUCCESS           Exactly the content came back.
  @retval EFI_DEVICE_ERROR      The old file could not be deleted, or the driver wrote
                                another number of bytes than asked.
  @retval EFI_COMPROMISED_DATA  Other bytes, or another length, came back.
  @retval other                 An open, write or read failed.
**/
EFI_STATUS
WriteTestFile (
  IN EFI_FILE_PROTOCOL  *Root
  );

/**
  The first of "sources_backup", "sources_backup_1" ... "sources_backup_99" that Root
  does not hold, into Name (BACKUP_NAME_CHARS characters).

  @retval EFI_SUCCESS          Name is free.
  @retval EFI_ALREADY_STARTED  All 100 names exist.
  @retval other                An existence test failed otherwise than by absence.
**/
EFI_STATUS
BuildBackupName (
  IN  EFI_FILE_PROTOCOL  *Root,
  OUT CHAR16             *Name
  );

/**
  Renames "sources" to "\" followed by NewName with one SetInfo: no retry with the bare
  name, so the outcome shows whether the driver takes a path in FileName.

  @retval EFI_BUFFER_TOO_SMALL  The new path would not fit RENAME_PATH_CHARS.
  @retval EFI_OUT_OF_RESOURCES  No pool for the file information.
  @retval other                 The open, GetInfo or SetInfo status.
**/
EFI_STATUS
RenameSources (
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *NewName
  );

/**
  On a root opened afresh from SimpleFs: "sources" must be gone and NewName must open.

  @retval EFI_SUCCESS       Both hold.
  @retval EFI_DEVICE_ERROR  Either does not.
  @retval other             The fresh root could not be opened.
**/
EFI_STATUS
VerifyRenameOfSources (
  IN EFI_HANDLE    SimpleFs,
  IN CONST CHAR16  *NewName
  );

#endif
