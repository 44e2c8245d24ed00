// Pool of raw packets between one source and up to two consumers (parser, recorder).
#ifndef EVCAM_SRC_DATA_PACKET_BUFFER_H
#define EVCAM_SRC_DATA_PACKET_BUFFER_H

#include <vector>

#include "src/data/base_data_buffer.h"
#include "src/data/dvs_packet.h"

namespace evcam {

/// Threads: the source's read thread (GetAFreeNode, PutANodeToDataList), the parse thread
/// (GetADataNode, PutANodeToFreeList) and the save thread (GetASaveNode, PutANodeToFreeList).
/// A node returns to the free list lazily, in order of arrival, once no active consumer holds
/// it; one node still held blocks the recycling of every later one.
class PacketBuffer : public BaseDataBuffer<DVSPacket> {
  public:
    /// Makes count nodes of size bytes each and links them into the free list.
    PacketBuffer(int count, int size);
    ~PacketBuffer() override;

    /// Every node back to the free list with count 0; data list and cursors emptied.
    /// @return 0, or 8 when the pool has no nodes.
    DVS_ERROR InitBuffer();
    /// Does nothing: nodes are made by the constructor. @return 0.
    DVS_ERROR Initialize(DVSPacket** nodes, int count) override;
    /// A free node (recycling released ones first); null when none is free and dropping is
    /// enabled. With dropping disabled the pool grows by one node instead.
    DVSPacket* GetAFreeNode() override;
    /// Appends p and gives one reference per active consumer. @return 0, or 25 for null.
    DVS_ERROR PutANodeToDataList(DVSPacket* p) override;
    /// Parser's next node, or null.
    DVSPacket* GetADataNode() override;
    /// Recorder's next node, or null.
    DVSPacket* GetASaveNode();
    /// Releases one reference. @return 0, or 1 for null.
    DVS_ERROR PutANodeToFreeList(DVSPacket* p) override;
    /// true: no free node means null (live data is dropped); false: the pool grows.
    virtual DVS_ERROR EnableDropData(bool enable);

    /// Switching a consumer off releases every node it had not yet read.
    DVS_ERROR SetProcessStatus(bool on);
    DVS_ERROR SetSaveStatus(bool on);
    bool GetProcessStatus();
    bool GetSaveStatus();

    /// Nodes in the pool (grows when dropping is disabled).
    int GetNodeCount();
    /// Bytes per node as built.
    int GetNodeSize() const { return mNodeSize; }

  private:
    /// Moves released nodes from the front of the used list to the free list. Caller holds
    /// mFreeLock; takes mDataLock.
    void RecycleLocked();

    bool mSaveStatus = false;        ///< guarded by mDataLock
    bool mProcessStatus = false;     ///< guarded by mDataLock
    DVSPacket* mSaveHead = nullptr;  ///< guarded by mDataLock
    DVSPacket* mUsedHead = nullptr;  ///< guarded by mDataLock
    int32_t mNodeCount = 0;          ///< guarded by mFreeLock
    int32_t mNodeSize = 0;
    bool mDropData = true;         ///< guarded by mDataLock
    std::vector<DVSPack*> mPacks;  ///< every node, owned; guarded by mFreeLock
};

}  // namespace evcam

#endif  // EVCAM_SRC_DATA_PACKET_BUFFER_H
