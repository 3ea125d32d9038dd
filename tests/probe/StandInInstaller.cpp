/** @file
  Test-only stand-in for an installer's boot program, put on test sticks as every group's
  bootx64.efi. Started, it says where it was started from: the group whose marker-ID files
  "s-win-*.txt" lie in "\sources" of its own volume, that volume's partition number, its own
  file path and the volume's device path. It writes that to "\installer_ran.txt" on its
  volume, prints one console line and returns, so the scenarios in tests/e2e/ can tell which
  installer the application started. Never on a user's stick.
**/

#include <Velmaro.h>
#include <Guards.h>

namespace {

constexpr UINTN  kTextChars = 512;

/** The partition number of the first hard-drive node of Path; 0 when there is none. **/
UINT32 PartitionNumberOf (EFI_DEVICE_PATH_PROTOCOL *Path) {
  for (EFI_DEVICE_PATH_PROTOCOL *Node = Path; (Node != nullptr) && !IsDevicePathEnd (Node); Node = NextDevicePathNode (Node)) {
    if ((DevicePathType (Node) == MEDIA_DEVICE_PATH) && (DevicePathSubType (Node) == MEDIA_HARDDRIVE_DP)) {
      return reinterpret_cast<HARDDRIVE_DEVICE_PATH *>(Node)->PartitionNumber;
    }
  }

  return 0;
}

/** Whether Text begins with Lower, compared with A to Z folded onto a to z. **/
BOOLEAN StartsFolded (CONST CHAR16 *Text, CONST CHAR16 *Lower) {
  for ( ; *Lower != L'\0'; Text++, Lower++) {
    if ((((*Text >= L'A') && (*Text <= L'Z')) ? *Text - L'A' + L'a' : *Text) != *Lower) {
      return FALSE;
    }
  }

  return TRUE;
}

/** Whether Name is "s-win-<something>.txt", letters in any case as FAT may show them. **/
BOOLEAN IsGroupMarker (CONST CHAR16 *Name) {
  UINTN  Length = StrLen (Name);
  return (Length > 10) && StartsFolded (Name, L16 (u"s-win-")) && StartsFolded (Name + Length - 4, L16 (u".txt"));
}

/** The group IDs of the marker-ID files in "\sources", joined by ","; "none" without any. **/
VOID GroupsInSources (EFI_FILE_PROTOCOL *Root, CHAR16 *Groups) {
  FileGuard  Sources;
  UINT64     Entry[(SIZE_OF_EFI_FILE_INFO + 512) / sizeof (UINT64) + 1];
  Groups[0] = L'\0';
  if (!EFI_ERROR (Root->Open (Root, Sources.Out (), const_cast<CHAR16 *>(L16 (u"\\sources")), EFI_FILE_MODE_READ, 0))) {
    for (;;) {
      UINTN          Size = sizeof (Entry);
      EFI_FILE_INFO  *Info = reinterpret_cast<EFI_FILE_INFO *>(Entry);
      if (EFI_ERROR (Sources->Read (Sources.Get (), &Size, Entry)) || (Size == 0)) {
        break;
      }

      if (((Info->Attribute & EFI_FILE_DIRECTORY) == 0) && IsGroupMarker (Info->FileName)) {
        Info->FileName[StrLen (Info->FileName) - 4] = L'\0';
        if (Groups[0] != L'\0') {
          StrCatS (Groups, kTextChars, L16 (u","));
        }

        StrCatS (Groups, kTextChars, Info->FileName);
      }
    }
  }

  if (Groups[0] == L'\0') {
    StrCpyS (Groups, kTextChars, L16 (u"none"));
  }
}

/** The text of Path, or "(none)"; the caller frees nothing. **/
VOID PathText (EFI_DEVICE_PATH_PROTOCOL *Path, CHAR16 *Out) {
  PoolGuard<CHAR16>  Text ((Path != nullptr) ? ConvertDevicePathToText (Path, FALSE, FALSE) : nullptr);
  StrnCpyS (Out, kTextChars, Text ? Text.Get () : L16 (u"(none)"), kTextChars - 1);
}

/** "\installer_ran.txt" on Root holds Record alone afterwards. **/
EFI_STATUS WriteRecord (EFI_FILE_PROTOCOL *Root, CONST CHAR8 *Record) {
  FileGuard  File;
  if (!EFI_ERROR (Root->Open (Root, File.Out (), const_cast<CHAR16 *>(L16 (u"\\installer_ran.txt")), EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0))) {
    File->Delete (File.Release ());  // an older record would keep bytes past a shorter one
  }

  EFI_STATUS  Status = Root->Open (Root, File.Out (), const_cast<CHAR16 *>(L16 (u"\\installer_ran.txt")),
                                   EFI_FILE_MODE_CREATE | EFI_FILE_MODE_READ | EFI_FILE_MODE_WRITE, 0);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  UINTN  Size = AsciiStrLen (Record);
  Status = File->Write (File.Get (), &Size, const_cast<CHAR8 *>(Record));
  if (!EFI_ERROR (Status)) {
    Status = File->Flush (File.Get ());
  }

  return Status;
}

}  // namespace

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint (IN EFI_HANDLE ImageHandle, IN EFI_SYSTEM_TABLE *SystemTable) {
  EFI_LOADED_IMAGE_PROTOCOL        *Image = nullptr;
  EFI_SIMPLE_FILE_SYSTEM_PROTOCOL  *Fs    = nullptr;
  FileGuard                        Root;
  CHAR16                           Groups[kTextChars];
  CHAR16                           ImagePath[kTextChars];
  CHAR16                           VolumePath[kTextChars];
  CHAR8                            Record[4 * kTextChars];

  ProcessLibraryConstructorList (ImageHandle, SystemTable);
  EFI_STATUS  Status = gBS->HandleProtocol (ImageHandle, &gEfiLoadedImageProtocolGuid, reinterpret_cast<VOID **>(&Image));
  if (!EFI_ERROR (Status)) {
    Status = gBS->HandleProtocol (Image->DeviceHandle, &gEfiSimpleFileSystemProtocolGuid, reinterpret_cast<VOID **>(&Fs));
  }

  if (!EFI_ERROR (Status)) {
    Status = Fs->OpenVolume (Fs, Root.Out ());
  }

  if (EFI_ERROR (Status)) {
    Print (L16 (u"STAND-IN INSTALLER: own volume not opened: %r\r\n"), Status);
    return Status;
  }

  EFI_DEVICE_PATH_PROTOCOL  *Volume   = DevicePathFromHandle (Image->DeviceHandle);
  UINT32                    Partition = PartitionNumberOf (Volume);
  GroupsInSources (Root.Get (), Groups);
  PathText (Image->FilePath, ImagePath);
  PathText (Volume, VolumePath);
  AsciiSPrint (Record, sizeof (Record), "group=%s\r\npartition=%u\r\nimage=%s\r\nvolume=%s\r\n", Groups, Partition, ImagePath, VolumePath);
  Status = WriteRecord (Root.Get (), Record);
  Print (L16 (u"STAND-IN INSTALLER: group %s from partition %u\r\n"), Groups, Partition);
  if (EFI_ERROR (Status)) {
    Print (L16 (u"STAND-IN INSTALLER: \\installer_ran.txt not written: %r\r\n"), Status);
  }

  return Status;
}
