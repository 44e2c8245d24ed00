#include "src/stream/fx20_stream.h"

#include <sys/time.h>

#include <cstdio>
#include <cstring>

#include "src/platform/cyusb.h"

namespace evcam {

namespace {

constexpr int kPollMicroseconds = 1000;

// One 1 ms turn of the event loop on the calling thread. @return its result.
int PollEvents() {
    timeval tv{0, kPollMicroseconds};
    return usb_handle_events_timeout_completed(nullptr, &tv, nullptr);
}

bool ValidSlot(int slot) {
    return slot >= 0 && slot < kRingSlots;
}

// The ring only ever uses list indexes of the table.
bool UsableEntry(const DevDBEntry* entry) {
    return entry != nullptr && entry->mPresent != 0 && entry->mCyIndex < kDevTableSize;
}

}  // namespace

libusb_transfer* FX20Stream::mTransfers[kDevTableSize][kRingSlots] = {};
std::vector<unsigned char> FX20Stream::mSlotBuffers[kDevTableSize][kRingSlots];
TransferCtx FX20Stream::mTransferCtx[kDevTableSize][kRingSlots];

FX20Stream::FX20Stream() : DeviceStream(true) {}

FX20Stream::~FX20Stream() {
    EndReadThread();
}

UsbDeviceTable& FX20Stream::Table() {
    static UsbDeviceTable table(kFX20ProductId, &FX20Stream::ReleaseTransfers);
    return table;
}

DVS_ERROR FX20Stream::ScanDVSDevice(USBDevice** list, int& count) {
    return Table().ScanDVSDevice(list, count);
}

bool FX20Stream::GetDevDescriptor(unsigned int cyIndex, DevUSBItem& item, char* text) {
    return Table().GetDevDescriptor(cyIndex, item, text);
}

DVS_ERROR FX20Stream::GetCypressDevID(int devId, unsigned char& cyIndex) {
    return Table().GetCypressDevID(devId, cyIndex);
}

void FX20Stream::ReleaseTransfers(int idx) {
    for (int slot = 0; slot < kRingSlots; ++slot) {
        TransferCtx& ctx = mTransferCtx[idx][slot];
        libusb_transfer*& transfer = mTransfers[idx][slot];
        if (transfer != nullptr) {
            usb_cancel_transfer(transfer);
            if (ctx.mClaimed) {
                // Its read thread collects it (cancelled) and re-queues it.
                continue;
            }
            usb_free_transfer(transfer);
            transfer = nullptr;
        }
        ctx.mDone = 0;
        ctx.mStatus = 0;
        ctx.mActualLength = 0;
    }
}

void FX20Stream::BulkTransferCallback(libusb_transfer* transfer) {
    auto* ctx = static_cast<TransferCtx*>(transfer->user_data);
    if (ctx == nullptr) {
        return;
    }
    ctx->mStatus = transfer->status;
    ctx->mActualLength = static_cast<uint32_t>(transfer->actual_length);
    ctx->mDone = 1;
}

DVS_ERROR FX20Stream::SetDVSID(unsigned int devId) {
    return BindDevice(Table(), Table().ScanLock(), devId, mDevEntry);
}

DVS_ERROR FX20Stream::ReadI2CReg(int slvAddr, int addr, int& val) {
    return DevSendRegReq(REG_READ, slvAddr, addr, val);
}

DVS_ERROR FX20Stream::WriteI2CReg(int slvAddr, int addr, int val) {
    return DevSendRegReq(REG_WRITE, slvAddr, addr, val);
}

DVS_ERROR FX20Stream::DevSendRegReq(RegReqType type, int slvAddr, int addr, int& val) {
    UsbDeviceTable& table = Table();
    const DVS_ERROR checked = table.CheckRegisterAccess(table.ScanLock(), mDVSID);
    if (checked != ERR_SUCCESS) {
        return checked;
    }
    if (static_cast<uint32_t>(type) > REG_WRITE || I2cValueLen(slvAddr) != 1) {
        return ERR_PARA_ERROR;
    }
    if (mDevEntry == nullptr) {
        return ERR_INVALID_DEVICE;
    }
    const int idx = mDevEntry->mCyIndex;
    if (type == REG_READ) {
        uint8_t value = 0;
        const DataInfo info{
            0xC0, 0xAB, static_cast<uint16_t>(slvAddr), static_cast<uint16_t>(addr), &value, 1};
        const DVS_ERROR rc = table.ReadRegister(table.ScanLock(), idx, info);
        if (rc != ERR_SUCCESS) {
            return rc;
        }
        val = value;
        std::printf("[I2C READ] slvAddr=0x%02X addr=0x%04X val=0x%02X\n",
                    static_cast<unsigned int>(slvAddr & 0xFF),
                    static_cast<unsigned int>(addr & 0xFFFF), static_cast<unsigned int>(value));
        std::fflush(stdout);
        return ERR_SUCCESS;
    }
    // A write carries the slave address and the big-endian register address in its payload.
    uint8_t payload[4] = {static_cast<uint8_t>(slvAddr & 0xFF),
                          static_cast<uint8_t>((addr >> 8) & 0xFF),
                          static_cast<uint8_t>(addr & 0xFF), static_cast<uint8_t>(val & 0xFF)};
    const DataInfo info{0x40, 0xBA, 0, 0, payload, sizeof(payload)};
    return table.WriteRegister(table.ScanLock(), idx, info);
}

DVS_ERROR FX20Stream::DevReset() {
    mTimeout = static_cast<int>(kDefaultUsbTimeoutMs);
    return Table().ClearDataHalt(mDevEntry);
}

DVS_ERROR FX20Stream::SetStart() {
    return UsbDeviceTable::SetInUse(mDevEntry, true);
}

DVS_ERROR FX20Stream::SetStop() {
    return UsbDeviceTable::SetInUse(mDevEntry, false);
}

DVS_ERROR FX20Stream::ReadRawData(unsigned char* buf, unsigned int len, unsigned int* actual) {
    return Table().ReadData(Table().ScanLock(), mDevEntry, buf, len, actual, mTimeout);
}

DVS_ERROR FX20Stream::BeginRawXfer(unsigned char* buf, unsigned int len, int slot) {
    if (buf == nullptr || !ValidSlot(slot)) {
        return ERR_PARA_ERROR;
    }
    UsbDeviceTable& table = Table();
    RwReadGuard guard(table.ScanLock());
    if (!UsableEntry(mDevEntry)) {
        return ERR_INVALID_DEVICE;
    }
    const int idx = mDevEntry->mCyIndex;
    libusb_device_handle* handle = table.FetchHandle(idx);
    if (handle == nullptr) {
        return ERR_PARA_ERROR;
    }
    TransferCtx& ctx = mTransferCtx[idx][slot];
    libusb_transfer*& transfer = mTransfers[idx][slot];
    if (ctx.mClaimed) {
        return ERR_ALREADY_DONE;
    }
    mSlotIndex[slot] = idx;
    mSlotTarget[slot] = buf;
    std::vector<unsigned char>& own = mSlotBuffers[idx][slot];
    if (own.size() < len) {
        own.resize(len);
    }
    ctx.mDone = 0;
    ctx.mStatus = 0;
    ctx.mActualLength = 0;
    if (transfer == nullptr) {
        transfer = usb_alloc_transfer(0);
        if (transfer == nullptr) {
            return ERR_TRANSFER;
        }
    }
    // Filled field by field; flags stay 0, so USB never frees the transfer or its buffer.
    transfer->dev_handle = handle;
    transfer->endpoint = kDataEndpoint;
    transfer->type = LIBUSB_TRANSFER_TYPE_BULK;
    transfer->timeout = static_cast<unsigned int>(mTimeout.load());
    transfer->length = static_cast<int>(len);
    transfer->callback = &FX20Stream::BulkTransferCallback;
    transfer->user_data = &ctx;
    transfer->buffer = own.data();
    const int rc = usb_submit_transfer(transfer);
    if (rc != 0) {
        ctx.mStatus = rc;
        ctx.mDone = 1;
        return ERR_TRANSFER;
    }
    ctx.mClaimed = true;
    return ERR_SUCCESS;
}

DVS_ERROR FX20Stream::FinishRawXfer(unsigned char* buf, unsigned int, unsigned int* actual,
                                    int polls, int slot) {
    if (buf == nullptr || actual == nullptr || !ValidSlot(slot)) {
        return ERR_PARA_ERROR;
    }
    RWLock& lock = Table().ScanLock();
    // A claimed transfer is collected on the list index it was submitted on, even when a scan
    // has since moved or dropped the entry: it must come back before its buffer is reused.
    int idx = mSlotIndex[slot];
    const bool claimed = idx >= 0 && mTransferCtx[idx][slot].mClaimed;
    if (!claimed) {
        if (!UsableEntry(mDevEntry)) {
            return ERR_INVALID_DEVICE;
        }
        idx = mDevEntry->mCyIndex;
        RwReadGuard guard(lock);
        if (mTransfers[idx][slot] == nullptr) {
            return ERR_PARA_ERROR;
        }
    }
    TransferCtx& ctx = mTransferCtx[idx][slot];
    const int limit = polls < 1 ? 1 : polls;
    int made = 0;
    while (ctx.mDone == 0) {
        const bool gone = PollEvents() == LIBUSB_ERROR_NO_DEVICE;
        if (ctx.mDone != 0 || (!gone && ++made < limit)) {
            continue;
        }
        // Cancelled and waited for, so that the caller may reuse or free the buffer on
        // return. The event loop says when it holds nothing of this thread any more.
        {
            RwReadGuard guard(lock);
            usb_cancel_transfer(mTransfers[idx][slot]);
            while (ctx.mDone == 0 && PollEvents() != LIBUSB_ERROR_NO_DEVICE) {
            }
        }
        ctx.mClaimed = false;
        *actual = 0;
        return gone ? ERR_NO_DEVICE : ERR_TIMEOUT;
    }
    ctx.mClaimed = false;
    *actual = ctx.mActualLength;
    if (claimed) {
        std::memcpy(mSlotTarget[slot], mSlotBuffers[idx][slot].data(), *actual);
    }
    if (ctx.mStatus == LIBUSB_TRANSFER_STALL) {
        // A halted endpoint fails every later read at once and so never times out into
        // DevReset: the halt is cleared here, on the handle the read used.
        RwReadGuard guard(lock);
        cyusb_clear_halt(mTransfers[idx][slot]->dev_handle, kDataEndpoint);
    }
    switch (ctx.mStatus) {
        case LIBUSB_TRANSFER_COMPLETED:
            return *actual == 0 ? ERR_TIMEOUT : ERR_SUCCESS;
        case LIBUSB_TRANSFER_TIMED_OUT:
        case LIBUSB_TRANSFER_CANCELLED:
            return ERR_TIMEOUT;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return ERR_NO_DEVICE;
        default:
            return ERR_TRANSFER;
    }
}

}  // namespace evcam
