#include "src/data/dvs_packet.h"

#include <new>

namespace evcam {

DVSPacket::DVSPacket(int size) {
    if (size > 0) {
        mData = new (std::nothrow) uint8_t[size];
        // A failed allocation leaves a packet without a store rather than throwing.
        mBufferSize = mData != nullptr ? size : 0;
    }
}

DVSPacket::~DVSPacket() {
    delete[] mData;
}

int DVSPacket::Resize(int size) {
    if (size < 0) {
        return mBufferSize;
    }
    delete[] mData;
    mData = new (std::nothrow) uint8_t[size];
    mBufferSize = mData != nullptr ? size : 0;
    mDataLen = 0;
    return mBufferSize;
}

DVSPack::DVSPack(int size) : mPacket(size) {
    mPacket.mPack = this;
}

uint32_t DVSPack::GetRefCount() {
    mLock.Lock();
    const uint32_t count = mRefCount;
    mLock.Unlock();
    return count;
}

void DVSPack::AddRefCount() {
    mLock.Lock();
    ++mRefCount;
    mLock.Unlock();
}

void DVSPack::SubtractRefCount() {
    mLock.Lock();
    if (mRefCount > 0) {
        --mRefCount;
    }
    mLock.Unlock();
}

}  // namespace evcam
