// The abstract source of raw sensor bytes that feeds a PacketBuffer.
#ifndef EVCAM_SRC_STREAM_STREAM_H
#define EVCAM_SRC_STREAM_STREAM_H

#include "evcam/dvs_error.h"

namespace evcam {

class PacketBuffer;

/// A source with a read thread of its own that fills free packets of the packet buffer and
/// appends them to its data list. Subclasses override what they support; everything else
/// answers 10 "Non-support operation." (a few setters answer 1, as noted). Unless a subclass
/// says otherwise, operations are called from the owner's thread, one at a time.
class Stream {
  public:
    Stream() = default;
    virtual ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    /// Requests a jump to *percent (0..1) of the data. @return 10 here.
    virtual DVS_ERROR SetFilePercent(float* percent);
    /// Writes the playback position (0..1) to *percent. @return 10 here.
    virtual DVS_ERROR GetFilePercent(float* percent);
    /// Starts the read thread. Does not block on data.
    virtual DVS_ERROR Start() = 0;
    /// Stops and joins the read thread.
    virtual DVS_ERROR Stop() = 0;
    /// Identity stamped on the packets of a device. @return 10 here.
    virtual DVS_ERROR SetDVSID(unsigned int id);
    /// Sensor register access of a device. @return 10 here.
    virtual DVS_ERROR ReadI2CReg(int slaveAddr, int regAddr, int& value);
    virtual DVS_ERROR WriteI2CReg(int slaveAddr, int regAddr, int value);
    /// Binds a file to play; path is copied. @return 10 here.
    virtual DVS_ERROR SetFilePath(const char* path);
    /// Sets the pool the read thread fills; null accepted. The pool is not owned and must
    /// outlive every read thread; change it only while no read thread runs. @return 0.
    virtual DVS_ERROR SetPacketBuffer(PacketBuffer* buffer);
    /// Writes the current pool (possibly null) to *buffer. @return 0, or 1 for a null buffer.
    virtual DVS_ERROR GetPacketBuffer(PacketBuffer** buffer);
    /// Stops the read thread keeping the position. @return 10 here.
    virtual DVS_ERROR Pause();
    /// Starts a new read thread from the kept position. @return 10 here.
    virtual DVS_ERROR Resume();
    /// Restores the defaults of the source.
    virtual DVS_ERROR Reset() = 0;
    /// Closes the bound file. @return 10 here.
    virtual DVS_ERROR Close();
    /// What playback does at the end of a file. @return 10 here.
    virtual DVS_ERROR SetPlayMode(PLAY_MODE mode);
    virtual DVS_ERROR GetPlayMode(PLAY_MODE& mode);
    /// End-of-file notice, called on the read thread with user. @return 10 here.
    virtual DVS_ERROR SetReadOverCbk(void (*callback)(void*), void* user);
    /// Data rate notice of a device. @return 1 here.
    virtual DVS_ERROR SetUsbDataRateCbk(void (*callback)(void*, double), void* user);
    /// Dropped-packet notice of a device. @return 1 here.
    virtual DVS_ERROR SetPktBufDropCbk(void (*callback)(void*, unsigned long, unsigned long),
                                       void* user);
    /// USB time-out of a device in ms. @return 10 here.
    virtual DVS_ERROR SetTimeout(int timeoutMs);
    /// Loads a bias settings file into a device. @return 10 here.
    virtual DVS_ERROR SetBias(const char* path);
    /// Writes the sensor version of the data to *version.
    virtual DVS_ERROR GetVersion(int* version) = 0;
    /// States the sensor version of the data. @return 10 here.
    virtual DVS_ERROR SetVersion(DVS_VERSION version);
    /// Packet size in units (1..512).
    virtual DVS_ERROR SetPPX(unsigned int ppx) = 0;
    /// Checks the bound file. @return 10 here.
    virtual DVS_ERROR CheckFile();
    /// Bytes to drop before data is delivered. Does nothing here.
    virtual void SetSkipBytes(unsigned int bytes);

  protected:
    /// Not owned. Written by the owner only while no read thread runs; read by the read thread.
    PacketBuffer* mPacketBuffer = nullptr;
};

}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_STREAM_H
