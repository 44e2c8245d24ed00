// The camera interface that a caller holds: a live device or a recording.
#ifndef EVCAM_DVS_H
#define EVCAM_DVS_H

#include "evcam/dvs_error.h"
#include "evcam/export.h"
#include "evcam/records.h"

namespace evcam {

/// CALLBACK_FRAME: (records, number of records (1 mono, 2 stereo), user pointer, measured
/// milliseconds between delivered frames). The records belong to the library and are valid
/// only during the call. Runs on a timer thread.
using FrameCallback = void (*)(DVSUIData* data, unsigned char count, void* user, int intervalMs);
/// CALLBACK_READ_OVER: a play-once recording reached its end. Runs on the file read thread.
using ReadOverCallback = void (*)(void* user);
/// CALLBACK_USB_DATA_RATE: measured USB data rate in KiB/s. Runs on the device read thread.
using UsbDataRateCallback = void (*)(void* user, double kibPerSecond);
/// CALLBACK_FRAME_RATE and CALLBACK_RAW_FPS: frames per second. Runs on the parse thread.
using RateCallback = void (*)(void* user, int perSecond);
/// CALLBACK_PKT_BUF_DROP: (dropped packets, offered packets) over the last second.
using PacketDropCallback = void (*)(void* user, unsigned long dropped, unsigned long offered);
/// CALLBACK_TOTAL_COUNT: the parser's running totals (events, sensor frames).
using TotalCountCallback = void (*)(void* user, unsigned long events, unsigned long frames);
/// Raw recording ran out of disk space. Runs on the save thread.
using NoSpaceCallback = void (*)(void* user);

/// Abstract camera object, made and destroyed by DVSManager. A caller uses one object from one
/// thread at a time; callbacks arrive on the library's threads. Every operation returns a
/// DVS_ERROR (0 = success); an operation the object's kind does not support returns 10.
class EVCAM_API DVS {
  public:
    /// Sets a parameter from caller memory of the type the selector names (see PARA_TYPE).
    /// @return 0; 1 for a null value or one out of range; 201 for a change refused while
    ///         running; 10 for a selector this kind does not take.
    virtual DVS_ERROR SetParameter(PARA_TYPE type, void* value) = 0;
    /// Writes a parameter into caller memory of the type the selector names.
    virtual DVS_ERROR GetParameter(PARA_TYPE type, void* value) = 0;
    /// Starts acquisition or playback; returns once the worker threads run.
    virtual DVS_ERROR Start() = 0;
    /// Stops and joins every worker thread; blocks until they have ended.
    virtual DVS_ERROR Stop() = 0;
    /// Polling mode: copies the next frame's forms in type into data, an array of count records
    /// (count is set to 1 or 2). Does not block: 12 when no frame waits. The frame is released.
    virtual DVS_ERROR GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) = 0;
    /// Polling mode: discards the next frame.
    virtual DVS_ERROR DropFrame();
    /// Installs a callback (function pointer of the CALLBACK_TYPE's signature) with a user
    /// pointer handed back unchanged. @return 1 for a null function or an unknown type.
    virtual DVS_ERROR SetCallBack(CALLBACK_TYPE type, void* function, void* user) = 0;
    /// Reads a sensor register over I2C (live camera).
    virtual DVS_ERROR ReadI2CReg(int slaveAddr, int regAddr, int& value);
    /// Writes a sensor register over I2C (live camera).
    virtual DVS_ERROR WriteI2CReg(int slaveAddr, int regAddr, int value);
    /// Starts recording (raw data on a device into the directory path; frame export on a file).
    virtual DVS_ERROR StartSaving(const char* path);
    /// Installs the callback told when raw recording runs out of disk space.
    virtual DVS_ERROR SetSavingNoneSpaceCbk(NoSpaceCallback callback, void* user);
    /// Stops recording; blocks until queued data is written.
    virtual DVS_ERROR StopSaving();
    /// Starts exporting painted frames: mode 1 images ("<path><n>.bmp"), mode 2 video.
    virtual DVS_ERROR StartFrameSaving(const char* path, int mode);
    /// Stops frame export; blocks until queued frames are written.
    virtual DVS_ERROR StopFrameSaving();
    /// Pauses playback (recording only).
    virtual DVS_ERROR Pause();
    /// Releases the bound recording (recording only).
    virtual DVS_ERROR UnbindDevice();
    /// Resumes paused playback (recording only).
    virtual DVS_ERROR Resume();
    /// Clears the parser's running totals.
    virtual void ResetTotalCount();
    /// Reads the parser's running totals (events, sensor frames); zeros where none are kept.
    virtual void GetTotalCounts(unsigned long& events, unsigned long& frames);
    virtual ~DVS();
};

}  // namespace evcam

#endif  // EVCAM_DVS_H
