/** @file
  One whole switch of the stick: read what is active and what is asked, find the volume
  that holds the groups, put the active group back under its own names, record that no
  group is active, give the requested group the active names and record it.
**/

#ifndef VELMARO_ACTIVATION_RUN_H_
#define VELMARO_ACTIVATION_RUN_H_

#include <Velmaro.h>

/**
  Runs the switch to GroupId from the boot volume BootFs (whose Root stays the caller's).

  On success SourceFs (when given) receives the volume to start the installer from, and
  SourceRootOwned (when given) tells whether its Root was opened here: if so the caller
  closes it. On failure nothing is handed out and every root opened here is closed.

  @retval EFI_SUCCESS   The requested group carries the active names, proved, or already did.
  @return               The first fatal failure of the run.
**/
EFI_STATUS
RunActivation (
  IN  EFI_HANDLE        ImageHandle,
  IN  CONST VOLUME_REF  *BootFs,
  IN  CONST CHAR16      *GroupId,
  OUT VOLUME_REF        *SourceFs OPTIONAL,
  OUT BOOLEAN           *SourceRootOwned OPTIONAL
  );

#endif
