/** @file
  Loading the NTFS or exFAT file-system driver a stick carries for its installer
  partition. Firmware differs in what it accepts: some refuse LoadImage from a device
  path on a USB stick but take the same file from memory, some want the shell as parent.
  So every form is tried with every parent on every volume that may hold the driver,
  and the log shows which one worked.
**/

#include <discovery/DriverLoading.h>
#include <discovery/ControllerConnection.h>
#include <discovery/FsIdentification.h>
#include <fs/FileAccess.h>
#include <fs/ImageDiagnostics.h>
#include <app/DiagnosticLog.h>
#include <Guards.h>

// char16_t, not CHAR16 through L16 (): the tables stay constant data, built by no code.
typedef struct {
  CONST char16_t  *Path;
  CONST char16_t  *Tag;
  CONST char16_t  *LoadFailure;
  CONST char16_t  *Started;
  CONST char16_t  *DumpLabel;
  CONST char16_t  *MountFailure;
} DRIVER_KIND;

STATIC CONST DRIVER_KIND  mNtfsDriver = {
  NTFS_DRIVER_PATH,
  u"NTFS",
  u"ERRORE: driver NTFS non caricato: %r (0x%lx)\n",
  u"NTFS_DRIVER: started OK\n",
  u"Driver LoadedImageProtocol",
  u"\nERRORE: target NTFS non montato come SimpleFS: %r (0x%lx)\n"
};

STATIC CONST DRIVER_KIND  mExfatDriver = {
  EXFAT_DRIVER_PATH,
  u"exFAT",
  u"ERRORE: driver exFAT non caricato: %r (0x%lx)\n",
  u"exFAT_DRIVER: started OK\n",
  u"Driver exFAT LoadedImageProtocol",
  u"\nERRORE: target exFAT non montato come SimpleFS: %r (0x%lx)\n"
};

STATIC
VOID
LogAdvancedStatusLine (
  IN CONST CHAR16  *Label,
  IN EFI_STATUS    Status
  )
{
  if (AdvancedDiagnostics) {
    LogStatusLine (Label, Status);
  }
}

EFI_STATUS
ReadDriverFile (
  IN  EFI_HANDLE    Volume,
  IN  CONST CHAR16  *DriverPath,
  OUT VOID          **Buffer,
  OUT UINTN         *Size
  )
{
  FileGuard                Root;
  FileGuard                File;
  PoolGuard<EFI_FILE_INFO> Info;
  PoolGuard<VOID>          Bytes;
  EFI_STATUS               Status;

  if ((Buffer == nullptr) || (Size == nullptr) || (DriverPath == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *Buffer = nullptr;
  *Size   = 0;
  Status  = OpenRoot (Volume, Root.Out ());
  LogStatusLine (L16 (u"OpenRoot(driver volume)"), Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = Root->Open (Root.Get (), File.Out (), const_cast<CHAR16 *>(DriverPath), EFI_FILE_MODE_READ, 0);
  LogStatusLine (L16 (u"Root->Open(driver)"), Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  Status = GetFileInfoAlloc (File.Get (), Info.Out (), nullptr);
  LogStatusLine (L16 (u"File->GetInfo(driver)"), Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  // An empty file cannot be an image; a size beyond memory cannot be read whole.
  if ((Info->FileSize == 0) || (Info->FileSize > MAX_UINTN)) {
    return EFI_BAD_BUFFER_SIZE;
  }

  *Size = static_cast<UINTN>(Info->FileSize);
  LogPrint (L16 (u"  Driver size                         : %u bytes\n"), *Size);
  Info.Free ();
  Bytes.Reset (AllocatePool (*Size));
  if (!Bytes) {
    *Size = 0;
    return EFI_OUT_OF_RESOURCES;
  }

  Status = File->Read (File.Get (), Size, Bytes.Get ());
  LogAdvancedStatusLine (L16 (u"File->Read(driver)"), Status);
  if (EFI_ERROR (Status)) {
    *Size = 0;
    return Status;
  }

  *Buffer = Bytes.Release ();
  return EFI_SUCCESS;
}

/** LoadImage in one form. An image handle that comes back with a failure (a security
    refusal loads the image and hands it over) is unloaded at once, so that no attempt
    leaves an image behind. **/
STATIC
EFI_STATUS
LoadImageForm (
  IN  CONST CHAR16              *Label,
  IN  EFI_HANDLE                ParentImage,
  IN  EFI_DEVICE_PATH_PROTOCOL  *FilePath OPTIONAL,
  IN  VOID                      *Source OPTIONAL,
  IN  UINTN                     SourceSize,
  OUT EFI_HANDLE                *Image
  )
{
  EFI_STATUS  Status;

  // The firmware leaves the handle alone on most failures: never unload a stale value.
  *Image = nullptr;
  Status = gBS->LoadImage (FALSE, ParentImage, FilePath, Source, SourceSize, Image);
  LogAdvancedStatusLine (Label, Status);
  if (EFI_ERROR (Status)) {
    if (*Image != nullptr) {
      gBS->UnloadImage (*Image);
      *Image = nullptr;
    }
  }

  return Status;
}

EFI_STATUS
LoadDriverImage (
  IN  EFI_HANDLE    ImageHandle,
  IN  EFI_HANDLE    ParentImage,
  IN  EFI_HANDLE    DriverVolume,
  IN  CONST CHAR16  *DriverPath,
  OUT EFI_HANDLE    *DriverImage
  )
{
  EFI_LOADED_IMAGE_PROTOCOL           *App;
  PoolGuard<EFI_DEVICE_PATH_PROTOCOL> FilePath;
  PoolGuard<VOID>                     Bytes;
  UINTN                               Size;
  EFI_HANDLE                          Image;
  EFI_STATUS                          Status;

  if (DriverImage == nullptr) {
    return EFI_INVALID_PARAMETER;
  }

  *DriverImage = nullptr;
  Status       = OpenLoadedImage (ImageHandle, &App, ImageHandle, L16 (u"app LoadedImage"));
  LogAdvancedStatusLine (L16 (u"HandleProtocol(app LoadedImage)"), Status);
  if (EFI_ERROR (Status)) {
    return Status;
  }

  if (AdvancedDiagnostics) {
    LogPrint (L16 (u"  ParentImageHandle for LoadImage     : %p\n"), ParentImage);
    DumpLoadedImage (L16 (u"HandleProtocol(parent LoadedImage)"), ParentImage);
    PrintHandleDevicePath (L16 (u"App image"), ImageHandle);
    PrintHandleDevicePath (L16 (u"LoadedImage->DeviceHandle"), App->DeviceHandle);
    PrintHandleDevicePath (L16 (u"Driver FS"), DriverVolume);
  }

  FilePath.Reset (FileDevicePath (DriverVolume, DriverPath));
  if (AdvancedDiagnostics) {
    LogPrint (L16 (u"  FileDevicePath(driver)              : %s\n"), FilePath ? L16 (u"OK") : L16 (u"NULL"));
    PrintDevicePathText (L16 (u"DevicePathToText(driver)"), FilePath.Get ());
  }

  if (!FilePath) {
    return EFI_OUT_OF_RESOURCES;
  }

  Status = LoadImageForm (L16 (u"LoadImage(path)"), ParentImage, FilePath.Get (), nullptr, 0, &Image);
  if (EFI_ERROR (Status)) {
    Status = ReadDriverFile (DriverVolume, DriverPath, Bytes.Out (), &Size);
    if (EFI_ERROR (Status)) {
      return Status;
    }

    Status = LoadImageForm (L16 (u"LoadImage(buffer+path)"), ParentImage, FilePath.Get (), Bytes.Get (), Size, &Image);
    if (EFI_ERROR (Status)) {
      Status = LoadImageForm (L16 (u"LoadImage(buffer,no path)"), ParentImage, nullptr, Bytes.Get (), Size, &Image);
    }

    Bytes.Free ();
    if (EFI_ERROR (Status)) {
      return Status;
    }
  }

  FilePath.Free ();
  DumpLoadedImage (L16 (u"HandleProtocol(driver LoadedImage)"), Image);
  Status = gBS->StartImage (Image, nullptr, nullptr);
  if (AdvancedDiagnostics) {
    LogPrint (L16 (u"  Driver image handle                 : %p\n"), Image);
    LogStatusLine (L16 (u"StartImage(driver)"), Status);
  }

  // A driver that finds itself already running says so; it is there all the same.
  if (Status == EFI_ALREADY_STARTED) {
    Status = EFI_SUCCESS;
  }

  if (EFI_ERROR (Status)) {
    return Status;
  }

  *DriverImage = Image;
  return Status;
}

EFI_STATUS
LoadFsDriver (
  IN  EFI_HANDLE    ImageHandle,
  IN  CONST CHAR16  *DriverPath,
  IN  CONST CHAR16  *Tag OPTIONAL,
  OUT EFI_HANDLE    *DriverImage
  )
{
  EFI_LOADED_IMAGE_PROTOCOL  *App;
  EFI_HANDLE                 Parents[2];
  UINTN                      ParentCount;
  PoolGuard<EFI_HANDLE>      Volumes;
  UINTN                      VolumeCount;
  UINTN                      Index;
  UINTN                      Parent;
  EFI_STATUS                 Reported;
  EFI_STATUS                 Status;

  if ((DriverImage == nullptr) || (DriverPath == nullptr)) {
    return EFI_INVALID_PARAMETER;
  }

  *DriverImage = nullptr;
  LogPrint (L16 (u"%s_DRIVER: loaded from FAT32 %s\n"), Tag != nullptr ? Tag : L16 (u"FS"), DriverPath);
  Status = OpenLoadedImage (ImageHandle, &App, ImageHandle, L16 (u"app LoadedImage"));
  LogAdvancedStatusLine (L16 (u"HandleProtocol(app LoadedImage)"), Status);
  DumpLoadedImage (L16 (u"App LoadedImageProtocol"), ImageHandle);
  Reported = EFI_ERROR (Status) ? Status : EFI_NOT_FOUND;
  if (EFI_ERROR (Status)) {
    App = nullptr;
  }

  // Some firmware accepts a driver only from the image that started us (the shell).
  ParentCount = 0;
  Parents[ParentCount++] = ImageHandle;
  if ((App != nullptr) && (App->ParentHandle != nullptr) && (App->ParentHandle != ImageHandle)) {
    Parents[ParentCount++] = App->ParentHandle;
  }

  if ((App != nullptr) && (App->DeviceHandle != nullptr)) {
    for (Parent = 0; Parent < ParentCount; Parent++) {
      if (AdvancedDiagnostics) {
        LogPrint (L16 (u"\nTentativo driver dal device dell'app, parent candidate %u/%u:\n"), Parent + 1, ParentCount);
      }

      Status = LoadDriverImage (ImageHandle, Parents[Parent], App->DeviceHandle, DriverPath, DriverImage);
      if (!EFI_ERROR (Status)) {
        return Status;
      }

      Reported = Status;
    }
  }

  VolumeCount = 0;
  Status      = gBS->LocateHandleBuffer (ByProtocol, &gEfiSimpleFileSystemProtocolGuid, nullptr, &VolumeCount, Volumes.Out ());
  LogAdvancedStatusLine (L16 (u"LocateHandleBuffer(SimpleFS)"), Status);
  if (EFI_ERROR (Status) || (VolumeCount == 0)) {
    return Reported;
  }

  // A stick may keep its drivers on another USB volume than the one we started from.
  for (Index = 0; Index < VolumeCount; Index++) {
    if (((App != nullptr) && (Volumes.Get ()[Index] == App->DeviceHandle)) || !HandleHasUsbNode (Volumes.Get ()[Index])) {
      continue;
    }

    for (Parent = 0; Parent < ParentCount; Parent++) {
      if (AdvancedDiagnostics) {
        LogPrint (L16 (u"\nTentativo driver da filesystem USB %u, parent candidate %u/%u:\n"), Index, Parent + 1, ParentCount);
      }

      Status = LoadDriverImage (ImageHandle, Parents[Parent], Volumes.Get ()[Index], DriverPath, DriverImage);
      if (!EFI_ERROR (Status)) {
        return Status;
      }

      Reported = Status;
    }
  }

  return Reported;
}

STATIC
EFI_STATUS
MountFsSource (
  IN  CONST DRIVER_KIND  *Kind,
  IN  EFI_HANDLE         ImageHandle,
  OUT EFI_HANDLE         *SourceFs OPTIONAL
  )
{
  EFI_LOADED_IMAGE_PROTOCOL  *App;
  EFI_HANDLE                 BootDevice;
  EFI_HANDLE                 Driver;
  EFI_HANDLE                 Found;
  EFI_STATUS                 Status;

  if (SourceFs != nullptr) {
    *SourceFs = nullptr;
  }

  // Without the boot device the driver still loads; only the search needs it.
  BootDevice = nullptr;
  Status     = OpenLoadedImage (ImageHandle, &App, ImageHandle, L16 (u"App LoadedImage"));
  if (!EFI_ERROR (Status) && (App != nullptr)) {
    BootDevice = App->DeviceHandle;
    if (AdvancedDiagnostics) {
      LogPrint (L16 (u"App DeviceHandle FAT32: %p\n"), BootDevice);
      PrintHandleDevicePath (L16 (u"App FAT32 device"), BootDevice);
    }
  }

  Status = LoadFsDriver (ImageHandle, L16 (Kind->Path), L16 (Kind->Tag), &Driver);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (Kind->LoadFailure), Status, Status);
    return Status;
  }

  LogPrint (L16 (Kind->Started));
  if (BootDevice == nullptr) {
    LogPrint (L16 (u"ERRORE: DeviceHandle FAT32 app non disponibile\n"));
    return EFI_NOT_FOUND;
  }

  DumpLoadedImage (L16 (Kind->DumpLabel), Driver);
  Status = ConnectAndFindSourceFs (BootDevice, &Found);
  if (EFI_ERROR (Status)) {
    LogPrint (L16 (Kind->MountFailure), Status, Status);
    return Status;
  }

  if (SourceFs != nullptr) {
    *SourceFs = Found;
  }

  return EFI_SUCCESS;
}

EFI_STATUS
MountNtfsSource (
  IN  EFI_HANDLE  ImageHandle,
  OUT EFI_HANDLE  *SourceFs OPTIONAL
  )
{
  return MountFsSource (&mNtfsDriver, ImageHandle, SourceFs);
}

EFI_STATUS
MountExfatSource (
  IN  EFI_HANDLE  ImageHandle,
  OUT EFI_HANDLE  *SourceFs OPTIONAL
  )
{
  return MountFsSource (&mExfatDriver, ImageHandle, SourceFs);
}
