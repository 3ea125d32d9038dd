/** @file
  On NTFS and exFAT volumes "\efi\microsoft" is never renamed; only the BCD store inside
  it is switched, proven by its digest.
**/

#include <activation/BcdStores.h>
#include <app/DiagnosticLog.h>
#include <fs/FileAccess.h>
#include <fs/Md5.h>
#include <fs/VerifiedChange.h>
#include <Guards.h>

#define EFI_STORE_PATH_CHARS   168
#define EFI_BACKUP_PATH_CHARS  176
#define EFI_FOLDER_PATH_CHARS  152

EFI_STATUS
VerifyEfiBcd (
  IN     EFI_FILE_PROTOCOL  *Root,
  IN     CONST CHAR16       *Path,
  IN OUT GROUP_STATE        *State
  )
{
  CHAR16      DigestPath[EFI_BACKUP_PATH_CHARS];
  CHAR16      Digest[VELMARO_MD5_CHARS];
  EFI_STATUS  Status;

  if ((Root == nullptr) || (Path == nullptr) || (State == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (!HasBcdEfiMd5 (State)) {
    if (State->Bcd[0] == L'\0') {
      return EFI_INVALID_PARAMETER;
    }

    UnicodeSPrint (DigestPath, sizeof (DigestPath), L16 (u"\\efi\\microsoft\\boot\\backup\\%s.md5"), State->Bcd);
    Status = ReadMd5File (Root, DigestPath, State->BcdEfiMd5);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    LogPrint (L16 (u"BCD EFI MD5 caricato da %s\n"), DigestPath);
  }

  if (!HasBcdEfiMd5 (State)) {
    return EFI_NOT_FOUND;
  }

  Status = Md5OfFile (Root, Path, Digest);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  return (StrCmp (Digest, State->BcdEfiMd5) == 0) ? EFI_SUCCESS : EFI_COMPROMISED_DATA;
}

EFI_STATUS
NormalizeEfiBcdByMd5 (
  IN CONST ACTIVATION_CONTEXT  *Context,
  IN EFI_HANDLE                Volume,
  IN EFI_FILE_PROTOCOL         *Root,
  IN CONST CHAR16              *Path
  )
{
  CHAR16      Digest[VELMARO_MD5_CHARS];
  CHAR16      Target[EFI_STORE_PATH_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((Context == nullptr) || (Root == nullptr) || (Path == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  Status = Md5OfFile (Root, Path, Digest);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"BCD EFI %s: calcolo MD5 fallito, nessuna modifica: %r (0x%lx)\n"), Path, Status, Status);
    return Status;
  }

  // Only the two groups of this run can own a stray EFI store.
  CONST GROUP_STATE  *Owners[] = { &Context->Current, &Context->Requested };

  for (CONST GROUP_STATE *Owner : Owners) {
    if ((Owner->Bcd[0] == L'\0') || !HasBcdEfiMd5 (Owner) || (StrCmp (Owner->BcdEfiMd5, Digest) != 0)) {
      continue;
    }

    UnicodeSPrint (Target, sizeof (Target), L16 (u"\\efi\\microsoft\\boot\\%s"), Owner->Bcd);
    if (StrCmp (Target, Path) == 0) {
      return EFI_SUCCESS;
    }

    Status = FileExists (Root, Target, &Exists);
    if (!EFI_ERROR (Status)) {
      LogPrint (L16 (u"BCD EFI duplicato gia identificato, preservo il nome %s tramite .bak\n"), Target);
      return MoveAsideToBak (Volume, Root, Path);
    }

    if (Status != EFI_NOT_FOUND) {
      return Status;
    }

    LogPrint (L16 (u"BCD EFI identificato da stato/MD5, ripristino %s -> %s\n"), Path, Target);
    return RenameVerified (Volume, Root, Path, Target);
  }

  LogPrint (L16 (u"BCD EFI %s non attribuibile agli stati noti, sposto in .bak\n"), Path);
  return MoveAsideToBak (Volume, Root, Path);
}

STATIC
VOID
MoveFailedCopyAside (
  IN EFI_HANDLE         Volume,
  IN EFI_FILE_PROTOCOL  *Root,
  IN CONST CHAR16       *Target
  )
{
  BOOLEAN  Exists;

  if (!EFI_ERROR (FileExists (Root, Target, &Exists))) {
    MoveAsideToBak (Volume, Root, Target);
  }
}

EFI_STATUS
TryEfiBcdCandidate (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                Volume,
  IN     EFI_FILE_PROTOCOL         *Root,
  IN OUT GROUP_STATE               *State,
  IN     CONST EFI_BCD_CANDIDATE   *Candidate,
  IN     CONST CHAR16              *Target
  )
{
  CHAR16        Found[DIR_ENTRY_PATH_CHARS];
  CONST CHAR16  *Path;
  BOOLEAN       Exists;
  EFI_STATUS    Status;

  // Stores copied by other tools may carry their name in another letter case.
  Path = Candidate->Path;
  if (EFI_ERROR (FileExists (Root, Path, &Exists))) {
    if (EFI_ERROR (FindDirEntryPath (Root, Candidate->Folder, Candidate->WantedName, Found))) {
      return EFI_NOT_FOUND;
    }

    Path = Found;
  }

  Status = VerifyEfiBcd (Root, Path, State);
  if (!EFI_ERROR (Status)) {
    if (StrCmp (Path, Target) == 0) {
      return EFI_SUCCESS;
    }

    if (!Candidate->Copy) {
      return RenameVerified (Volume, Root, Path, Target);
    }

    Status = CopyFileVerified (Root, Path, Target);
    if (Status == EFI_ACCESS_DENIED) {
      // The target holds a store after all; the copy left it alone.
      return Status;
    }

    if (!EFI_ERROR (Status)) {
      // The copy is proved as the volume holds it now, not as this root may still show it.
      FileGuard  Fresh;

      Status = OpenRoot (Volume, Fresh.Out ());
      if (!EFI_ERROR (Status)) {
        Status = VerifyEfiBcd (Fresh.Get (), Target, State);
      }
    }

    if (EFI_ERROR (Status)) {
      // A copy that failed or does not match must not stay under the active name, and the
      // next source needs the name free: it is kept aside, never deleted.
      MoveFailedCopyAside (Volume, Root, Target);
    }

    return Status;
  }

  LogPrint (L16 (u"BCD EFI fallback non valido %s: %r (0x%lx)\n"), Path, Status, Status);
  if (!Candidate->Copy && (Status == EFI_COMPROMISED_DATA)) {
    Status = NormalizeEfiBcdByMd5 (Context, Volume, Root, Path);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  return EFI_NOT_FOUND;
}

EFI_STATUS
PrepareEfiBcd (
  IN     CONST ACTIVATION_CONTEXT  *Context,
  IN     EFI_HANDLE                Volume,
  IN     EFI_FILE_PROTOCOL         *Root,
  IN OUT GROUP_STATE               *State,
  IN     CONST CHAR16              *Target
  )
{
  CHAR16      GroupStore[EFI_STORE_PATH_CHARS];
  CHAR16      FolderStore[EFI_STORE_PATH_CHARS];
  CHAR16      FolderBoot[EFI_FOLDER_PATH_CHARS];
  CHAR16      MicrosoftBackup[EFI_BACKUP_PATH_CHARS];
  CHAR16      FolderBackup[EFI_BACKUP_PATH_CHARS];
  CHAR16      FolderBackupDir[EFI_FOLDER_PATH_CHARS];
  BOOLEAN     Exists;
  EFI_STATUS  Status;

  if ((State == nullptr) || (Target == nullptr) || (State->Bcd[0] == L'\0') || (State->Efi[0] == L'\0')) {
    return EFI_INVALID_PARAMETER;
  }

  Status = FileExists (Root, Target, &Exists);
  if (!EFI_ERROR (Status)) {
    Status = VerifyEfiBcd (Root, Target, State);
    if (!EFI_ERROR (Status)) {
      LogPrint (L16 (u"BCD EFI seconda partizione gia coerente: %s\n"), Target);
      return EFI_SUCCESS;
    }

    if (Status != EFI_COMPROMISED_DATA) {
      return Status;
    }

    // The wrong store makes room for the right one, under its owner's name or ".bak".
    Status = NormalizeEfiBcdByMd5 (Context, Volume, Root, Target);
    if (EFI_ERROR (Status)) {
      return Status;
    }
  } else if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  UnicodeSPrint (GroupStore, sizeof (GroupStore), L16 (u"\\efi\\microsoft\\boot\\%s"), State->Bcd);
  UnicodeSPrint (FolderStore, sizeof (FolderStore), L16 (u"\\efi\\%s\\boot\\BCD"), State->Efi);
  UnicodeSPrint (FolderBoot, sizeof (FolderBoot), L16 (u"\\efi\\%s\\boot"), State->Efi);
  UnicodeSPrint (MicrosoftBackup, sizeof (MicrosoftBackup), L16 (u"\\efi\\microsoft\\boot\\backup\\%s"), State->Bcd);
  UnicodeSPrint (FolderBackup, sizeof (FolderBackup), L16 (u"\\efi\\%s\\boot\\backup\\%s"), State->Efi, State->Bcd);
  UnicodeSPrint (FolderBackupDir, sizeof (FolderBackupDir), L16 (u"\\efi\\%s\\boot\\backup"), State->Efi);

  CONST EFI_BCD_CANDIDATE  Candidates[] = {
    { L16 (u"\\efi\\microsoft\\boot"), L16 (u"BCD"), ACTIVE_EFI_BCD_PATH, FALSE, nullptr },
    { L16 (u"\\efi\\microsoft\\boot"), State->Bcd, GroupStore, FALSE, nullptr },
    { FolderBoot, L16 (u"BCD"), FolderStore, TRUE, L16 (u"WARN: BCD EFI originale cartella EFI fallito, provo backup microsoft: %r (0x%lx)\n") },
    { L16 (u"\\efi\\microsoft\\boot\\backup"), State->Bcd, MicrosoftBackup, TRUE, L16 (u"WARN: fallback BCD EFI backup microsoft fallito, provo backup EFI: %r (0x%lx)\n") },
    { FolderBackupDir, State->Bcd, FolderBackup, TRUE, nullptr },
  };

  // The first place that holds a coherent store ends the search.
  for (CONST EFI_BCD_CANDIDATE &Candidate : Candidates) {
    Status = TryEfiBcdCandidate (Context, Volume, Root, State, &Candidate, Target);
    if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND) && (Candidate.WarnOnFailure != nullptr)) {
      LogPrint (Candidate.WarnOnFailure, Status, Status);
      Status = EFI_NOT_FOUND;
    }

    if (Status != EFI_NOT_FOUND) {
      return Status;
    }
  }

  return EFI_NOT_FOUND;
}
