/** @file
  The load options: run mode and requested group ID; and the key wait that ends every
  failed run.
**/

#ifndef VELMARO_LOAD_OPTIONS_H_
#define VELMARO_LOAD_OPTIONS_H_

#include <Velmaro.h>

enum class RunMode {
  Fat32Legacy,
  Auto,
  NtfsTest
};

/// A group ID has at most 127 characters and its NUL.
#define GROUP_ID_CHARS  128

BOOLEAN
HasLoadOptionWord (
  IN CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage,
  IN CONST CHAR16                     *Word
  );

EFI_STATUS
GetGroupIdFromLoadOptions (
  IN  CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage,
  OUT CHAR16                           *GroupId
  );

RunMode
ChooseRunMode (
  IN CONST EFI_LOADED_IMAGE_PROTOCOL  *LoadedImage
  );

VOID
WaitForKeyPress (
  VOID
  );

#endif
