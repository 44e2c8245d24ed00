// Node of the output pool: one frame record and its reference count.
#ifndef EVCAM_SRC_DATA_OUTPUT_DATA_H
#define EVCAM_SRC_DATA_OUTPUT_DATA_H

#include <cstdint>

#include "evcam/dvs_error.h"
#include "evcam/platform.h"
#include "evcam/records.h"

namespace evcam {

/// Clears a record of the output pool for the next frame, as DVSUIData::Reset does, but
/// without the work a pool record does not need: only the events the last frame used are
/// zeroed, and the image is left for the caller to repaint when imageRepainted.
/// @return 0, or 18 for a record that was never initialised. Packaging thread.
DVS_ERROR ReuseFrameRecord(DVSUIData& record, bool imageRepainted);

class DVSOutputData {
  public:
    DVSOutputData() = default;
    DVSOutputData(DVS_VERSION version, uint32_t outType, int width, int height);
    ~DVSOutputData();
    DVSOutputData(const DVSOutputData&) = delete;
    DVSOutputData& operator=(const DVSOutputData&) = delete;

    /// (Re)creates the owned record with these arguments. @return 0.
    DVS_ERROR Initialize(DVS_VERSION version, uint32_t outType, int width, int height);

    void AddEventCount() { ++mUIData->mTotalEvents; }
    uint32_t GetEventCount() const { return mUIData->mTotalEvents; }
    int32_t GetEventCountInEvtArray() const { return mUIData->mEventCount; }
    void AddEventCountInEvtArray() { ++mUIData->mEventCount; }
    int32_t GetContainerSize() const { return mUIData->mEventCapacity; }

    /// Reference count operations, each under mLock; subtracting stops at 0.
    uint32_t GetRefCount();
    void AddRefCount();
    void SubtractRefCount();

    /// Copies the forms of type that this frame holds into dst (initialised by the caller).
    /// The event list is cut to dst's capacity; a pixel form larger than dst's store is not
    /// copied. Only dst's stores are written.
    /// @return 0; 1 for a null dst, or when dst has no stores at all; 11 when type shares no
    ///         bit with the frame; 15 when nothing could be copied; 18 without a record.
    DVS_ERROR CopyTo(uint32_t type, DVSUIData* dst) const;

    DVSUIData* mUIData = nullptr;    ///< owned
    DVSOutputData* mNext = nullptr;  ///< list link, owned by UIDataBuffer's locks
    DVSLock mLock;
    uint32_t mRefCount = 0;  ///< guarded by mLock
};

}  // namespace evcam

#endif  // EVCAM_SRC_DATA_OUTPUT_DATA_H
