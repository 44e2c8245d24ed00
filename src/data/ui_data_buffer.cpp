#include "src/data/ui_data_buffer.h"

#include <algorithm>
#include <new>

namespace evcam {

UIDataBuffer::UIDataBuffer(int count, DVS_VERSION version, uint32_t outType, int width, int height)
    : mSlotNodes((static_cast<uint32_t>(version) & 16u) != 0 ? 2 : 1) {
    if (count < 1) {
        return;
    }
    mSlots = new DVSOutputData*[count];
    mNodeCount = count;
    DVSOutputData* previous = nullptr;
    for (int i = 0; i < count; ++i) {
        mSlots[i] = new DVSOutputData[mSlotNodes];
        for (int j = 0; j < mSlotNodes; ++j) {
            mSlots[i][j].Initialize(version, outType, width, height);
        }
        DVSOutputData* first = &mSlots[i][0];
        if (previous == nullptr) {
            mFreeHead = first;
        } else {
            previous->mNext = first;
        }
        previous = first;
    }
}

UIDataBuffer::~UIDataBuffer() {
    for (int i = 0; i < mNodeCount; ++i) {
        delete[] mSlots[i];
    }
    delete[] mSlots;
    // Consumers still registered at this point can no longer use their handles.
    for (Cursor* cursor : mHandles) {
        delete cursor;
    }
}

DVS_ERROR UIDataBuffer::Initialize(DVSOutputData** nodes, int count) {
    if (nodes == nullptr || count < 1) {
        return ERR_BUFFER_INIT;
    }
    mFreeLock.Lock();
    DVSOutputData* tail = mFreeHead;
    while (tail != nullptr && tail->mNext != nullptr) {
        tail = tail->mNext;
    }
    for (int i = 0; i < count; ++i) {
        DVSOutputData* n = nodes[i];
        if (n == nullptr) {
            continue;
        }
        n->mNext = nullptr;
        if (tail == nullptr) {
            mFreeHead = n;
        } else {
            tail->mNext = n;
        }
        tail = n;
    }
    mFreeLock.Unlock();
    return ERR_SUCCESS;
}

DVSOutputData* UIDataBuffer::GetAFreeNode() {
    mFreeLock.Lock();
    if (mFreeHead == nullptr) {
        mDataLock.Lock();
        // Strict order of arrival, as in the packet pool: the first frame still held stops
        // recycling.
        while (mUsedHead != nullptr && mUsedHead->GetRefCount() == 0) {
            DVSOutputData* n = mUsedHead;
            if (n == mDataTail) {
                mDataTail = nullptr;
            }
            mUsedHead = n->mNext;
            n->mNext = mFreeHead;
            mFreeHead = n;
        }
        mDataLock.Unlock();
    }
    DVSOutputData* n = mFreeHead;
    if (n != nullptr) {
        mFreeHead = n->mNext;
        n->mNext = nullptr;
    }
    mFreeLock.Unlock();
    return n;
}

DVS_ERROR UIDataBuffer::PutANodeToDataList(DVSOutputData* n) {
    if (n == nullptr) {
        return ERR_NULL_NODE;
    }
    mDataLock.Lock();
    n->mNext = nullptr;
    if (mDataTail != nullptr) {
        mDataTail->mNext = n;
    }
    mDataTail = n;
    if (mUsedHead == nullptr) {
        mUsedHead = n;
    }
    mHandleLock.Lock();
    for (Cursor* cursor : mHandles) {
        if (cursor->next == nullptr) {
            cursor->next = n;
        }
        n->AddRefCount();
    }
    mHandleLock.Unlock();
    mDataLock.Unlock();
    mAppended.Notify();
    return ERR_SUCCESS;
}

DVSOutputData* UIDataBuffer::GetADataNode() {
    return nullptr;
}

DVSOutputData* UIDataBuffer::GetADataNode(void* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    auto* cursor = static_cast<Cursor*>(handle);
    mDataLock.Lock();
    DVSOutputData* n = cursor->next;
    if (n != nullptr) {
        cursor->next = n->mNext;
    }
    mDataLock.Unlock();
    return n;
}

DVS_ERROR UIDataBuffer::PutANodeToFreeList(DVSOutputData* n) {
    if (n == nullptr) {
        return ERR_PARA_ERROR;
    }
    n->SubtractRefCount();
    mReleased.Notify();
    return ERR_SUCCESS;
}

DVS_ERROR UIDataBuffer::RegisterDataHandle(void*& handle) {
    auto* cursor = new (std::nothrow) Cursor;
    if (cursor == nullptr) {
        return ERR_BUFFER_INIT;
    }
    mHandleLock.Lock();
    try {
        mHandles.push_back(cursor);
    } catch (const std::bad_alloc&) {
        mHandleLock.Unlock();
        delete cursor;
        return ERR_BUFFER_INIT;
    }
    ++mHandleCount;
    mHandleLock.Unlock();
    handle = cursor;
    return ERR_SUCCESS;
}

DVS_ERROR UIDataBuffer::UnregisterDataHandle(void* handle) {
    if (handle == nullptr) {
        return ERR_SUCCESS;
    }
    auto* cursor = static_cast<Cursor*>(handle);
    mDataLock.Lock();
    mHandleLock.Lock();
    const auto it = std::find(mHandles.begin(), mHandles.end(), cursor);
    // An unknown or already unregistered handle is refused rather than freed twice.
    if (it == mHandles.end()) {
        mHandleLock.Unlock();
        mDataLock.Unlock();
        return ERR_PARA_ERROR;
    }
    for (DVSOutputData* n = cursor->next; n != nullptr; n = n->mNext) {
        n->SubtractRefCount();
    }
    mHandles.erase(it);
    --mHandleCount;
    mHandleLock.Unlock();
    mDataLock.Unlock();
    delete cursor;
    mReleased.Notify();
    return ERR_SUCCESS;
}

DVS_ERROR UIDataBuffer::ResetBuffer() {
    // Same order as everywhere else (free before data), so the pool has one lock order.
    mFreeLock.Lock();
    mDataLock.Lock();
    if (mDataHead != nullptr) {
        DVSOutputData** tail = &mFreeHead;
        while (*tail != nullptr) {
            tail = &(*tail)->mNext;
        }
        *tail = mDataHead;
        mDataHead = nullptr;
    }
    mDataLock.Unlock();
    mFreeLock.Unlock();
    return ERR_SUCCESS;
}

int UIDataBuffer::GetHandleCount() {
    mHandleLock.Lock();
    const int count = static_cast<int>(mHandleCount);
    mHandleLock.Unlock();
    return count;
}

}  // namespace evcam
