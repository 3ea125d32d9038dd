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

/**
  The first load-option word (words are separated by spaces, TABs and quotes) that
  begins with "s-win-", with any trailing '%' taken off, into GroupId (GROUP_ID_CHARS).
  GroupId is empty on any failure.

  @retval EFI_SUCCESS           GroupId holds the word.
  @retval EFI_NOT_FOUND         There are no load options, or no word begins "s-win-".
  @retval EFI_BUFFER_TOO_SMALL  The word has GROUP_ID_CHARS characters or more.
  @retval EFI_OUT_OF_RESOURCES  No pool for a copy of the load options.
**/
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
