// The factory and registry of DVS objects.
#ifndef EVCAM_DVS_MANAGER_H
#define EVCAM_DVS_MANAGER_H

#include <mutex>

#include "evcam/dvs.h"
#include "evcam/export.h"
#include "evcam/usb_device.h"

namespace evcam {

/// Static factory: at most two device objects and one file object exist at a time.
/// CreateDVS and DeleteDVS may be called from any thread; a failure to take the registry
/// lock is thrown as std::system_error (the only exception that crosses the interface).
class EVCAM_API DVSManager {
  public:
    /// Makes an object: DVS_FX20 / DVS_FX3 a live device (slot 0, else 1), DVS_FILE the file
    /// object. @return the object, owned by the manager until DeleteDVS; null when the type is
    ///         above 2 or no slot of that kind is free.
    static DVS* CreateDVS(DVS_TYPE type);
    /// Stops and destroys an object made by CreateDVS. Null or unknown pointers are ignored.
    /// Blocks while the object stops.
    static void DeleteDVS(DVS* dvs);
    /// Binds a device object to the camera with the given device id (0 or 1).
    /// @return 0; 10 when dvs is null or not a device object; 101 for an index other than 0/1.
    static DVS_ERROR BindDevice(DVS* dvs, int index);
    /// Binds the file object to a recording.
    /// @return the result of setting PARA_FILE_PATH; 10 when dvs is null or not the file
    ///         object; 207 for a null or empty path.
    static DVS_ERROR BindDevice(DVS* dvs, const char* path);
    /// Releases the file object's recording. @return 10 when dvs is not the file object.
    static DVS_ERROR UnbindDevice(DVS* dvs);
    /// Lists FX20 cameras. *list points to library memory valid until the next scan.
    static DVS_ERROR ScanFX20Device(USBDevice** list, int& count);
    /// Lists FX20 then FX3 cameras, at most two. *list points to library memory valid until
    /// the next scan.
    static DVS_ERROR ScanAllDevices(USBDevice** list, int& count);

    DVSManager() = delete;

  private:
    static std::mutex mtx;
    static DVS* mObjArray[3];
    static bool mIsOccupy[3];
};

}  // namespace evcam

#endif  // EVCAM_DVS_MANAGER_H
