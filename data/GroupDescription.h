/** @file
  The group description file "\boot\<ID>.txt": three lines describing a group, the
  third naming the uuid marker file of the partition that holds the group's files.
**/

#ifndef VELMARO_GROUP_DESCRIPTION_H_
#define VELMARO_GROUP_DESCRIPTION_H_

#include <Velmaro.h>

/// A line of the file as kept: at most 127 bytes and the NUL.
#define DESCRIPTION_LINE_BYTES  128
#define DESCRIPTION_PATH_CHARS  144
#define MARKER_NAME_CHARS       128

/**
  Reads "\boot\<GroupId>.txt" from the boot volume, or else from the first sibling
  partition that has it, logs its description and source-file lines, and hands back
  the marker name of its third line when that ends in ".uuid". Every failure ends with
  an empty MarkerName and its own log line.
**/
VOID
ReadGroupDescription (
  IN  EFI_HANDLE         BootHandle,
  IN  EFI_FILE_PROTOCOL  *BootRoot,
  IN  CONST CHAR16       *GroupId,
  OUT CHAR16             *MarkerName OPTIONAL
  );

#endif
