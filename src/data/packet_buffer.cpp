#include "src/data/packet_buffer.h"

#include <algorithm>
#include <new>

namespace evcam {

PacketBuffer::PacketBuffer(int count, int size) : mNodeSize(size) {
    for (int i = 0; i < count; ++i) {
        auto* pack = new (std::nothrow) DVSPack(size);
        if (pack == nullptr) {
            break;
        }
        mPacks.push_back(pack);
    }
    mNodeCount = static_cast<int32_t>(mPacks.size());
    InitBuffer();
}

PacketBuffer::~PacketBuffer() {
    mFreeLock.Lock();
    mDataLock.Lock();
    for (DVSPack* pack : mPacks) {
        delete pack;
    }
    mPacks.clear();
    mDataLock.Unlock();
    mFreeLock.Unlock();
}

DVS_ERROR PacketBuffer::InitBuffer() {
    mFreeLock.Lock();
    mDataLock.Lock();
    DVSPacket* previous = nullptr;
    mFreeHead = nullptr;
    for (DVSPack* pack : mPacks) {
        pack->Reset();
        DVSPacket* p = &pack->mPacket;
        p->mNext = nullptr;
        if (previous == nullptr) {
            mFreeHead = p;
        } else {
            previous->mNext = p;
        }
        previous = p;
    }
    mDataHead = nullptr;
    mDataTail = nullptr;
    mSaveHead = nullptr;
    mUsedHead = nullptr;
    const bool empty = mPacks.empty();
    mDataLock.Unlock();
    mFreeLock.Unlock();
    return empty ? ERR_BUFFER_INIT : ERR_SUCCESS;
}

DVS_ERROR PacketBuffer::Initialize(DVSPacket** /*nodes*/, int /*count*/) {
    return ERR_SUCCESS;
}

void PacketBuffer::RecycleLocked() {
    mDataLock.Lock();
    // Strict order of arrival: the first node still held stops recycling, even when later
    // nodes are already released.
    while (mUsedHead != nullptr && mUsedHead->mPack->GetRefCount() == 0) {
        DVSPacket* p = mUsedHead;
        if (p == mDataTail) {
            mDataTail = nullptr;
        }
        mUsedHead = p->mNext;
        p->mPack->Reset();
        p->mNext = mFreeHead;
        mFreeHead = p;
    }
    mDataLock.Unlock();
}

DVSPacket* PacketBuffer::GetAFreeNode() {
    mFreeLock.Lock();
    if (mFreeHead == nullptr) {
        RecycleLocked();
    }
    DVSPacket* p = mFreeHead;
    if (p != nullptr) {
        mFreeHead = p->mNext;
        p->mNext = nullptr;
        mFreeLock.Unlock();
        return p;
    }

    mDataLock.Lock();
    const bool drop = mDropData;
    mDataLock.Unlock();
    if (!drop && mNodeSize != 0) {
        // Out of memory means null, as when dropping: the pool never throws at its producer.
        auto* pack = new (std::nothrow) DVSPack(mNodeSize);
        const bool stored = pack != nullptr && pack->mPacket.mBufferSize == std::max(mNodeSize, 0);
        if (stored) {
            try {
                mPacks.push_back(pack);
                ++mNodeCount;
                p = &pack->mPacket;
            } catch (const std::bad_alloc&) {
                delete pack;
            }
        } else {
            delete pack;
        }
    }
    mFreeLock.Unlock();
    return p;
}

DVS_ERROR PacketBuffer::PutANodeToDataList(DVSPacket* p) {
    if (p == nullptr) {
        return ERR_NULL_NODE;
    }
    mDataLock.Lock();
    p->mNext = nullptr;
    if (mDataTail != nullptr) {
        mDataTail->mNext = p;
    }
    mDataTail = p;
    if (mUsedHead == nullptr) {
        mUsedHead = p;
    }
    if (mProcessStatus) {
        if (mDataHead == nullptr) {
            mDataHead = p;
        }
        p->mPack->AddRefCount();
    }
    if (mSaveStatus) {
        if (mSaveHead == nullptr) {
            mSaveHead = p;
        }
        p->mPack->AddRefCount();
    }
    mDataLock.Unlock();
    mAppended.Notify();
    return ERR_SUCCESS;
}

DVSPacket* PacketBuffer::GetADataNode() {
    mDataLock.Lock();
    DVSPacket* p = mDataHead;
    if (p != nullptr) {
        mDataHead = p->mNext;
    }
    mDataLock.Unlock();
    return p;
}

DVSPacket* PacketBuffer::GetASaveNode() {
    mDataLock.Lock();
    DVSPacket* p = mSaveHead;
    if (p != nullptr) {
        mSaveHead = p->mNext;
    }
    mDataLock.Unlock();
    return p;
}

DVS_ERROR PacketBuffer::PutANodeToFreeList(DVSPacket* p) {
    if (p == nullptr) {
        return ERR_PARA_ERROR;
    }
    mFreeLock.Lock();
    p->mPack->SubtractRefCount();
    mFreeLock.Unlock();
    mReleased.Notify();
    return ERR_SUCCESS;
}

DVS_ERROR PacketBuffer::EnableDropData(bool enable) {
    mDataLock.Lock();
    mDropData = enable;
    mDataLock.Unlock();
    return ERR_SUCCESS;
}

DVS_ERROR PacketBuffer::SetProcessStatus(bool on) {
    mDataLock.Lock();
    if (mProcessStatus && !on) {
        for (DVSPacket* p = mDataHead; p != nullptr; p = p->mNext) {
            p->mPack->SubtractRefCount();
        }
        mDataHead = nullptr;
    }
    mProcessStatus = on;
    mDataLock.Unlock();
    mReleased.Notify();
    return ERR_SUCCESS;
}

DVS_ERROR PacketBuffer::SetSaveStatus(bool on) {
    mDataLock.Lock();
    if (mSaveStatus && !on) {
        for (DVSPacket* p = mSaveHead; p != nullptr; p = p->mNext) {
            p->mPack->SubtractRefCount();
        }
        mSaveHead = nullptr;
    }
    mSaveStatus = on;
    mDataLock.Unlock();
    mReleased.Notify();
    return ERR_SUCCESS;
}

bool PacketBuffer::GetProcessStatus() {
    mDataLock.Lock();
    const bool on = mProcessStatus;
    mDataLock.Unlock();
    return on;
}

bool PacketBuffer::GetSaveStatus() {
    mDataLock.Lock();
    const bool on = mSaveStatus;
    mDataLock.Unlock();
    return on;
}

int PacketBuffer::GetNodeCount() {
    mFreeLock.Lock();
    const int count = mNodeCount;
    mFreeLock.Unlock();
    return count;
}

}  // namespace evcam
