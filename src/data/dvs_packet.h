// Raw packets and the packet pool's nodes.
#ifndef EVCAM_SRC_DATA_DVS_PACKET_H
#define EVCAM_SRC_DATA_DVS_PACKET_H

#include <cstdint>

#include "evcam/dvs_error.h"
#include "evcam/platform.h"

namespace evcam {

class DVSPack;

/// Identity that marks file data: never dropped or skipped downstream. A live device with
/// this identity is treated the same way on purpose.
constexpr uint32_t kFileDVSID = 2;
/// Identity of a packet no device has claimed.
constexpr uint32_t kNoDVSID = 0xFFFFFFFF;

/// One block of raw bytes from a source, stamped with the sensor version and the identity of
/// the device that produced it. Owned by its DVSPack.
class DVSPacket {
  public:
    /// size > 0 allocates that many bytes; otherwise the packet has no store.
    explicit DVSPacket(int size);
    ~DVSPacket();
    DVSPacket(const DVSPacket&) = delete;
    DVSPacket& operator=(const DVSPacket&) = delete;

    /// Replaces the store by exactly size bytes (contents undefined) and empties the packet.
    /// @return size; a negative size changes nothing and returns the old capacity.
    int Resize(int size);

    int32_t mBufferSize = 0;  ///< capacity of mData
    int32_t mDataLen = 0;     ///< bytes held
    uint8_t* mData = nullptr;
    DVS_VERSION mVersion = SELECT_VERSION;
    uint32_t mDVSID = kNoDVSID;
    /// The last block of a play-once pass of a recording: the parser announces the end after
    /// decoding it.
    bool mEndOfPass = false;
    DVSPacket* mNext = nullptr;  ///< list link, owned by PacketBuffer's locks
    DVSPack* mPack = nullptr;    ///< the node that embeds this packet
};

/// Pool node: one packet and the number of consumers still holding it.
class DVSPack {
  public:
    explicit DVSPack(int size);
    DVSPack(const DVSPack&) = delete;
    DVSPack& operator=(const DVSPack&) = delete;

    /// Reference count operations, each under mLock; subtracting stops at 0.
    uint32_t GetRefCount();
    void AddRefCount();
    void SubtractRefCount();
    /// Count to 0 without the lock: only for nodes no consumer can hold.
    void Reset() { mRefCount = 0; }

    DVSLock mLock;
    uint32_t mRefCount = 0;  ///< guarded by mLock
    DVSPacket mPacket;
};

}  // namespace evcam

#endif  // EVCAM_SRC_DATA_DVS_PACKET_H
