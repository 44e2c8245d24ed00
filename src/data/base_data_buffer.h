// Common base of the two node pools.
#ifndef EVCAM_SRC_DATA_BASE_DATA_BUFFER_H
#define EVCAM_SRC_DATA_BASE_DATA_BUFFER_H

#include "evcam/dvs_error.h"
#include "evcam/platform.h"
#include "src/data/pool_signal.h"

namespace evcam {

/// A pool of T nodes linked through T::mNext: a free list and a data list, each with its own
/// lock. Lock order: mFreeLock before mDataLock. Nodes are handed over, never copied.
template <typename T>
class BaseDataBuffer {
  public:
    BaseDataBuffer() = default;
    virtual ~BaseDataBuffer() = default;
    BaseDataBuffer(const BaseDataBuffer&) = delete;
    BaseDataBuffer& operator=(const BaseDataBuffer&) = delete;

    virtual DVS_ERROR Initialize(T** nodes, int count) = 0;
    /// Producer: a node to fill, or null.
    virtual T* GetAFreeNode() = 0;
    /// Producer: appends a filled node for the consumers.
    virtual DVS_ERROR PutANodeToDataList(T* node) = 0;
    /// Default consumer: next filled node, or null.
    virtual T* GetADataNode() = 0;
    /// Consumer: releases a node it has finished with.
    virtual DVS_ERROR PutANodeToFreeList(T* node) = 0;

    /// Notified whenever consumers release nodes: a producer short of free nodes waits on it.
    PoolSignal& Released() { return mReleased; }
    /// Notified whenever a node is appended: a consumer with nothing to read waits on it.
    PoolSignal& Appended() { return mAppended; }

  protected:
    T* mDataHead = nullptr;  ///< guarded by mDataLock
    T* mFreeHead = nullptr;  ///< guarded by mFreeLock
    T* mDataTail = nullptr;  ///< guarded by mDataLock
    DVSLock mFreeLock;
    DVSLock mDataLock;
    PoolSignal mReleased;
    PoolSignal mAppended;
};

}  // namespace evcam

#endif  // EVCAM_SRC_DATA_BASE_DATA_BUFFER_H
