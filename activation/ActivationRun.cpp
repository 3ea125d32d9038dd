/** @file
  The activation run. The order is what keeps a stick recoverable when power goes at any
  moment: the active group first gets its own names back, then the state file is reset to
  "no group", and only then does the requested group take the active names; the state file
  names it last. A run cut anywhere leaves either the old record with matching names, or a
  record of no group that the next run's recovery works from.
**/

#include <activation/ActivationRun.h>
#include <activation/BcdStores.h>
#include <activation/RecoveryPhase.h>
#include <activation/RenewalPhase.h>
#include <activation/SourceSelection.h>
#include <app/DiagnosticLog.h>
#include <data/EntriesFile.h>
#include <data/StateFile.h>
#include <discovery/InstallMetadata.h>
#include <fs/AsciiText.h>
#include <fs/FileAccess.h>
#include <Guards.h>

namespace {

CONST CHAR16 *
OrAbsent (
  IN CONST CHAR16  *Value
  )
{
  return (Value[0] != L'\0') ? Value : L16 (u"(assente)");
}

/**
  Everything after the context is set up and the files are held; the caller frees the
  texts and closes an owned source root still in the context.
**/
EFI_STATUS
ActivateRequestedGroup (
  IN OUT ACTIVATION_CONTEXT  *Context,
  IN     CONST CHAR8         *StateText OPTIONAL
  )
{
  GROUP_STATE  Rebuilt;
  EFI_STATUS   Status;

  if (StateText != nullptr) {
    Status = ParseStateFile (StateText, &Context->Current);
    if (EFI_ERROR (Status)) {
      // A state file we cannot read names no group: recovery then works from what the
      // volumes show, which is safer than trusting half a record.
      ZeroMem (&Context->Current, sizeof (Context->Current));
    } else {
      Context->StateFileParsed = TRUE;
    }
  }

  Status = NarrowToAscii (Context->GroupIdAscii, sizeof (Context->GroupIdAscii), Context->GroupId);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = LookupGroupInEntries (Context->EntriesText, Context->GroupIdAscii, &Context->Requested);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: parsing/validazione NUR_VEL_EFI.COM: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  Status = SelectSourceFs (Context);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = IsRequestedGroupActive (Context, Context->SourceHandle, Context->SourceRoot);
  if (!EFI_ERROR (Status)) {
    // Already in place: nothing is renamed and the state file is left as it is.
    LogPrint (L16 (u"SOURCE_FS: gruppo richiesto gia attivo e atomico; salto restore e rename\n"));
    return EFI_SUCCESS;
  }

  if (Status != EFI_NOT_FOUND) {
    return Status;
  }

  LogPrint (L16 (u"\nrecovery phase\n"));
  DumpGroupState (L16 (u"current state"), &Context->Current);
  Status = RunRecoveryPhase (Context, Context->EntriesText);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: ripristino atomico non completato: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  Status = ResetStateFile (Context->BootRoot);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: reset VELMARO.COM dopo ripristino atomico fallito: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  ZeroMem (&Context->Current, sizeof (Context->Current));

  LogPrint (L16 (u"\nrenewal phase\n"));
  Status = RebuildRequestedState (Context->BootRoot, Context->EntriesText, Context->GroupIdAscii, &Rebuilt);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: fase rinomina, stato richiesto non ricostruito da file: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  if (Context->SourceHandle == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  Status = VerifySourceFsAtomic (Context->SourceHandle, &Rebuilt);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  CopyMem (&Context->Requested, &Rebuilt, sizeof (Rebuilt));
  DumpGroupState (L16 (u"current state"), &Context->Requested);
  LogPrint (
    L16 (u"Fase rinomina: stato locale ricostruito ID=%a BCD=%s SRC=%s EFI=%s SRC_PART=%s SRC_FS=%s\n"),
    Context->GroupIdAscii,
    Context->Requested.Bcd,
    Context->Requested.Src,
    Context->Requested.Efi,
    OrAbsent (Context->Requested.SrcPart),
    OrAbsent (Context->Requested.SrcFs)
    );

  // The image is the parent of the shell's move and of any driver load among the renames.
  Status = EFI_INVALID_PARAMETER;
  if (Context->ImageHandle != nullptr) {
    Status = RunRenewalRenames (Context->ImageHandle, Context->SourceHandle, Context->SourceRoot, Context, &Context->Requested);
  }

  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"ERRORE: rename SOURCE FS falliti: %r (0x%lx)\n"), Status, Status);
    return Status;
  }

  // The renames are proved on the volume; a record that cannot be written only costs the
  // next run a recovery from what it finds, so the installer still starts.
  Status = WriteStateFile (Context->BootRoot, &Context->Requested);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (u"WARN: update VELMARO.COM non verificato dopo rename riusciti; continuo: %r (0x%lx)\n"), Status, Status);
  }

  return EFI_SUCCESS;
}

}  // namespace

EFI_STATUS
RunActivation (
  IN  EFI_HANDLE        ImageHandle,
  IN  CONST VOLUME_REF  *BootFs,
  IN  CONST CHAR16      *GroupId,
  OUT VOLUME_REF        *SourceFs OPTIONAL,
  OUT BOOLEAN           *SourceRootOwned OPTIONAL
  )
{
  ACTIVATION_CONTEXT  Context;
  PoolGuard<CHAR8>    StateText;
  PoolGuard<CHAR8>    EntriesText;
  EFI_STATUS          Status;

  if ((BootFs == nullptr) || (BootFs->Root == nullptr) || (GroupId == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  if (SourceFs != nullptr) {
    ZeroMem (SourceFs, sizeof (*SourceFs));
  }

  if (SourceRootOwned != nullptr) {
    *SourceRootOwned = FALSE;
  }

  ZeroMem (&Context, sizeof (Context));
  Context.ImageHandle = ImageHandle;
  Context.BootHandle  = BootFs->Handle;
  Context.BootRoot    = BootFs->Root;
  StrnCpyS (Context.GroupId, VELMARO_NAME_CHARS, GroupId, VELMARO_NAME_CHARS - 1);

  Status = ReadWholeFile (Context.BootRoot, STATE_FILE_PATH, StateText.Out ());
  if (EFI_ERROR (Status) && (Status != EFI_NOT_FOUND)) {
    return Status;
  }

  Status = ReadWholeFile (Context.BootRoot, ENTRIES_FILE_PATH, EntriesText.Out ());
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Context.EntriesText = EntriesText.Get ();
  Status              = ActivateRequestedGroup (&Context, StateText.Get ());
  if (!EFI_ERROR (Status)) {
    LogPrint (L16 (u"SUCCESSO: fase SOURCE FS completata e verificata\n"));
    if (SourceFs != nullptr) {
      SourceFs->Handle          = Context.SourceHandle;
      SourceFs->Root            = Context.SourceRoot;
      SourceFs->PartitionNumber = (Context.SourceHandle == BootFs->Handle) ? BootFs->PartitionNumber : 0;
      StrCpyS (SourceFs->Label, VELMARO_LABEL_CHARS, L16 (u"SOURCE FS"));
      if (SourceRootOwned != nullptr) {
        *SourceRootOwned = Context.SourceRootOwned;
      }

      // The caller holds the root now and closes it when it owns it.
      Context.SourceRootOwned = FALSE;
    }
  }

  if (Context.SourceRootOwned && (Context.SourceRoot != nullptr)) {
    Context.SourceRoot->Close (Context.SourceRoot);
  }

  return Status;
}
