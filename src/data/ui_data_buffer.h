// Pool of finished frames between the packager and any number of registered consumers.
#ifndef EVCAM_SRC_DATA_UI_DATA_BUFFER_H
#define EVCAM_SRC_DATA_UI_DATA_BUFFER_H

#include <list>

#include "src/data/base_data_buffer.h"
#include "src/data/output_data.h"

namespace evcam {

/// A node is a slot of one DVSOutputData (mono) or two adjacent ones (stereo: the second is
/// node + 1); only the first of a slot is linked into the lists. Each consumer registers a
/// handle, its own cursor into the data list; a frame is referenced once per registered
/// consumer and recycled when all have released it.
/// Threads: the parse thread produces (GetAFreeNode, PutANodeToDataList); consumers (timer
/// threads, the caller in GetFrame, the exporter) read and release.
/// Lock order: mFreeLock, then mDataLock, then mHandleLock.
class UIDataBuffer : public BaseDataBuffer<DVSOutputData> {
  public:
    /// count slots of records initialised with (version, outType, width, height); none for
    /// count < 1.
    UIDataBuffer(int count, DVS_VERSION version, uint32_t outType, int width, int height);
    ~UIDataBuffer() override;

    /// Links the given nodes into the free list. @return 0, or 8 for null nodes or count < 1.
    DVS_ERROR Initialize(DVSOutputData** nodes, int count) override;
    /// A free slot (recycling released ones in order of arrival first), or null.
    DVSOutputData* GetAFreeNode() override;
    /// Appends a finished slot, one reference per registered consumer. @return 0, 25 for null.
    DVS_ERROR PutANodeToDataList(DVSOutputData* n) override;
    /// The base slot: this pool has no default consumer. @return null.
    DVSOutputData* GetADataNode() override;
    /// The consumer's next slot, or null (also for a null handle).
    DVSOutputData* GetADataNode(void* handle);
    /// Releases one reference. @return 0, or 1 for null.
    DVS_ERROR PutANodeToFreeList(DVSOutputData* n) override;

    /// Registers a consumer; it sees only frames appended from now on.
    /// @return 0, or 8 when memory is short.
    DVS_ERROR RegisterDataHandle(void*& handle);
    /// Unregisters a consumer and releases the frames it never read. Null does nothing.
    /// @return 0; 1 for a handle that is not registered (never freed twice).
    DVS_ERROR UnregisterDataHandle(void* handle);
    /// Returns the base's default data list to the free list; only while no producer runs.
    DVS_ERROR ResetBuffer();

    /// Records per slot: 1, or 2 for a stereo version.
    int GetSlotNodes() const { return mSlotNodes; }
    /// Number of slots.
    int GetNodeCount() const { return mNodeCount; }
    /// Registered consumers.
    int GetHandleCount();

  private:
    struct Cursor {
        DVSOutputData* next = nullptr;  ///< guarded by mDataLock
    };

    int32_t mSlotNodes = 1;
    DVSOutputData** mSlots = nullptr;  ///< owned: mNodeCount arrays of mSlotNodes records
    int32_t mNodeCount = 0;
    uint32_t mHandleCount = 0;           ///< guarded by mHandleLock
    DVSOutputData* mUsedHead = nullptr;  ///< guarded by mDataLock
    DVSLock mHandleLock;
    std::list<Cursor*> mHandles;  ///< owned cells; guarded by mHandleLock
};

}  // namespace evcam

#endif  // EVCAM_SRC_DATA_UI_DATA_BUFFER_H
