#include "src/process/packet_parser.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "evcam/platform.h"

namespace evcam {

namespace {

// Word layout: b0 bit 7 marks a pixel-group word; otherwise b0 & 0x7C gives the kind.
constexpr uint8_t kPixelFlag = 0x80;
constexpr uint8_t kKindMask = 0x7C;
constexpr uint8_t kKindRow = 4;
constexpr uint8_t kKindTime = 8;
constexpr uint8_t kKindFrameEnd = 12;

constexpr uint32_t kMaxWidth = 960;
constexpr uint32_t kMaxHeight = 720;

uint32_t LoadLE32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Bytes of the packet that may be read: a length beyond the store is not trusted.
size_t UsableBytes(const DVSPacket& packet) {
    if (packet.mData == nullptr || packet.mDataLen <= 0) {
        return 0;
    }
    return static_cast<size_t>(std::min(packet.mDataLen, packet.mBufferSize));
}

}  // namespace

PacketParser::PacketParser() = default;

PacketParser::~PacketParser() {
    Stop();
}

DVS_ERROR PacketParser::SetPacketBuffer(PacketBuffer* buffer) {
    if (buffer == nullptr) {
        return ERR_PARA_ERROR;
    }
    mPacketBuffer = buffer;
    return ERR_SUCCESS;
}

DVS_ERROR PacketParser::SetAddEventCallBack(AddEventCallback callback, void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    mAddEventCbk = callback;
    mAddEventUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR PacketParser::SetTotalCountCallback(TotalCountCallback callback, void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    mTotalCountCbk = callback;
    mTotalCountUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR PacketParser::SetRawFpsCallback(RateCallback callback, void* user) {
    if (callback == nullptr) {
        return ERR_PARA_ERROR;
    }
    mRawFpsCbk = callback;
    mRawFpsUser = user;
    return ERR_SUCCESS;
}

DVS_ERROR PacketParser::SetResolution(int width, int height) {
    if (width < 1 || width > static_cast<int>(kMaxWidth) || height < 1 ||
        height > static_cast<int>(kMaxHeight)) {
        return ERR_PARA_ERROR;
    }
    mWidth = width;
    mHeight = height;
    return ERR_SUCCESS;
}

void PacketParser::SetDataFormat(unsigned char format) {
    if (IsRunning()) {
        return;
    }
    mDataFormat = format;
}

void PacketParser::SetSkipPeriod(unsigned int periodMs) {
    mSkipPeriod = periodMs;
}

DVS_ERROR PacketParser::Start() {
    if (IsRunning()) {
        return ERR_SUCCESS;
    }
    if (mPacketBuffer == nullptr) {
        return ERR_INVALID_BUFFER;
    }
    mPacketBuffer->SetProcessStatus(true);
    for (int ch = 0; ch < 2; ++ch) {
        mRefMs[ch] = 0;
        mCurTs[ch] = 0;
        mRowAddr[ch] = 0;
    }
    mRawRow = 0;
    mRawCol = 0;
    mRawTs = 0;
    mRawHeaderWord = 0;
    mRunning.store(true, std::memory_order_release);
    try {
        mParseThread = std::thread(&PacketParser::ParseLoop, this);
    } catch (const std::system_error&) {
        mRunning.store(false, std::memory_order_release);
        mPacketBuffer->SetProcessStatus(false);
        return ERR_START_PARSER;
    }
    return ERR_SUCCESS;
}

DVS_ERROR PacketParser::Stop() {
    if (!IsRunning()) {
        return ERR_ALREADY_DONE;
    }
    mRunning.store(false, std::memory_order_release);
    mParseThread.join();
    mPacketBuffer->SetProcessStatus(false);
    return ERR_SUCCESS;
}

DVS_ERROR PacketParser::Reset() {
    if (IsRunning()) {
        return ERR_RUNNING;
    }
    mAddEventCbk = nullptr;
    mAddEventUser = nullptr;
    mWidth = 0;
    mHeight = 0;
    mPacketBuffer = nullptr;
    mSkipPeriod = kDefaultSkipPeriodMs;
    return ERR_SUCCESS;
}

void PacketParser::ResetTotalCount() {
    mTotalEvents.store(0, std::memory_order_relaxed);
    mTotalFrames.store(0, std::memory_order_relaxed);
    mTotalBytes.store(0, std::memory_order_relaxed);
}

void PacketParser::GetTotalCounts(unsigned long& events, unsigned long& frames) const {
    events = mTotalEvents.load(std::memory_order_relaxed);
    frames = mTotalFrames.load(std::memory_order_relaxed);
}

void PacketParser::ParseLoop() {
    while (mRunning.load(std::memory_order_acquire)) {
        const uint64_t ticket = mPacketBuffer->Appended().Ticket();
        DVSPacket* packet = mPacketBuffer->GetADataNode();
        if (packet == nullptr) {
            // Wakes as soon as a packet arrives; the bound keeps Stop prompt.
            mPacketBuffer->Appended().WaitFor(ticket, std::chrono::milliseconds(1));
            continue;
        }
        ProcessDataByVersion(packet);
        mPacketBuffer->PutANodeToFreeList(packet);
    }
}

DVS_ERROR PacketParser::ProcessDataByVersion(DVSPacket* packet) {
    if (packet == nullptr) {
        return ERR_PARA_ERROR;
    }
    if (packet->mDataLen > 0) {
        mTotalBytes.fetch_add(static_cast<uint64_t>(packet->mDataLen), std::memory_order_relaxed);
    }
    if (mWidth < 1) {
        GetVersionSize(packet->mVersion, mWidth, mHeight);
    }
    switch (mDataFormat) {
        case kFormatSensorWords:
            if ((packet->mVersion & ~16) == MVT94QX) {
                MVT94QXDataProcess(*packet);
            }
            break;
        case kFormatRawBitmap:
            Raw2Process(*packet, false);
            break;
        case kFormatRawBitmapHeader:
            Raw2Process(*packet, true);
            break;
        default:
            break;
    }
    PublishEvents();
    if (packet->mEndOfPass && mAddEventCbk != nullptr) {
        Event end{};
        end.type = kEventEndOfPass;
        end.dvsId = packet->mDVSID;
        mAddEventCbk(&end, mAddEventUser);
    }
    return ERR_SUCCESS;
}

void PacketParser::PublishEvents() {
    if (mUnpublishedEvents != 0) {
        mTotalEvents.fetch_add(mUnpublishedEvents, std::memory_order_relaxed);
        mUnpublishedEvents = 0;
    }
}

void PacketParser::MVT94QXDataProcess(const DVSPacket& packet) {
    const size_t len = UsableBytes(packet);
    const size_t fullWords = len / 4;
    const bool exempt = packet.mDVSID == kFileDVSID;
    InputArg arg{0, 0, packet.mDVSID, packet.mVersion};
    const uint8_t* word = packet.mData;
    for (size_t i = 0; i < fullWords; ++i, word += 4) {
        if (!DecodeWord(word, arg, exempt)) {
            return;
        }
    }
    // A trailing partial word still counts as a word; the bytes it lacks read as zero rather
    // than as whatever the store held before.
    const size_t tail = len - fullWords * 4;
    if (tail != 0) {
        uint8_t padded[4] = {};
        std::memcpy(padded, word, tail);
        DecodeWord(padded, arg, exempt);
    }
}

bool PacketParser::DecodeWord(const uint8_t* word, InputArg& arg, bool exempt) {
    const uint8_t b0 = word[0];
    const uint8_t b1 = word[1];
    const uint8_t b2 = word[2];
    const uint8_t b3 = word[3];
    const uint32_t ch = (b0 >> 1) & 1;
    const uint8_t kind = b0 & kKindMask;
    const bool pixel = (b0 & kPixelFlag) != 0;

    if (!pixel && kind == kKindTime) {
        if ((b1 & 0x80) == 0) {
            mRefMs[ch] =
                static_cast<uint32_t>(b1 & 0x3F) << 16 | static_cast<uint32_t>(b2) << 8 | b3;
            if (mSkipUntil == 0) {
                mSkipUntil = mRefMs[ch];
            }
            return true;
        }
        const uint32_t sub = static_cast<uint32_t>(b2 & 0x03) << 8 | b3;
        const uint32_t t = mRefMs[ch] * 1000 + sub;
        // A stamp that does not advance, with no millisecond word since the last one, means the
        // sub-millisecond counter wrapped: the sensor only sends a millisecond word now and then.
        if (mCurTs[ch] >= t && mRefMs[ch] == mCurTs[ch] / 1000) {
            mRefMs[ch] += 1;
            if (mRefMs[ch] >= kSensorMsWrap) {
                mRefMs[ch] = 0;
                mCurTs[ch] = sub;
            } else {
                mCurTs[ch] = t + 1000;
            }
        } else {
            mCurTs[ch] = t;
        }
        return true;
    }

    const uint32_t skipPeriod = mSkipPeriod.load(std::memory_order_relaxed);
    if (!exempt && mSkipUntil - skipPeriod <= mRefMs[ch] && mRefMs[ch] < mSkipUntil) {
        return true;
    }

    if (!pixel) {
        if (kind == kKindRow) {
            mGroupDir = b1 >> 7;
            mRowAddr[ch] = static_cast<int32_t>(b2 & 0x07) << 8 | b3;
        } else if (kind == kKindFrameEnd) {
            FrameEnd(ch, arg.dvsId);
        }
        return true;
    }

    const int group = (b0 & 0x01) << 6 | b1 >> 2;
    const int offset = (b0 & 0x7C) >> 2;
    arg.channel = ch;
    DVS_ERROR result = ERR_SUCCESS;
    if (b3 != 0) {
        arg.polarity = b1 & 0x01;
        result = AnalyzeData(arg, b3, group * 8);
    }
    if (result != ERR_NO_FREE_NODE && b2 != 0) {
        const int group2 = mGroupDir != 0 ? group - offset : group + offset;
        arg.polarity = (b1 >> 1) & 0x01;
        result = AnalyzeData(arg, b2, group2 * 8);
    }
    if (result == ERR_NO_FREE_NODE) {
        if (skipPeriod == 0) {
            return false;
        }
        mSkipUntil = static_cast<uint64_t>(mRefMs[ch]) + skipPeriod;
    }
    return true;
}

DVS_ERROR PacketParser::AnalyzeData(const InputArg& arg, unsigned int mask, int base) {
    if (mAddEventCbk == nullptr) {
        return ERR_NO_DATA;
    }
    const int32_t row = mRowAddr[arg.channel];
    if (row < 0 || base < 0 || base + 7 >= mHeight || row >= mWidth) {
        return ERR_OUT_OF_RANGE;
    }
    Event& e = mEvent;
    e.type = 0;
    uint8_t count = 0;
    for (unsigned int bits = mask & 0xFF; bits != 0; bits &= bits - 1) {
        const int bit = __builtin_ctz(bits);
        e.coords[count++] =
            Event::MakeCoord(static_cast<uint32_t>(row), static_cast<uint32_t>(base + bit));
    }
    e.count = count;
    e.polarity = arg.polarity;
    e.channel = static_cast<uint8_t>(arg.channel);
    e.dvsId = arg.dvsId;
    e.timestamp = mCurTs[arg.channel];
    mUnpublishedEvents += count;
    return mAddEventCbk(&e, mAddEventUser) == ERR_NO_FREE_NODE ? ERR_NO_FREE_NODE : ERR_SUCCESS;
}

void PacketParser::FrameEnd(uint32_t channel, uint32_t dvsId) {
    if (mAddEventCbk != nullptr) {
        Event marker;
        marker.type = kEventFrameEnd;
        marker.dvsId = dvsId;
        marker.channel = static_cast<uint8_t>(channel);
        mAddEventCbk(&marker, mAddEventUser);
    }
    if (mRawFpsCbk != nullptr) {
        ++mFpsFrames;
        if (mFpsStart == 0) {
            mFpsStart = mCurTs[channel];
        } else {
            const uint32_t elapsed = mCurTs[channel] - mFpsStart;
            if (elapsed > 999999) {
                mRawFpsCbk(mRawFpsUser,
                           static_cast<int>(static_cast<uint64_t>(mFpsFrames) * 1000000 / elapsed));
                mFpsFrames = 0;
                mFpsStart = mCurTs[channel];
            }
        }
    }
    PublishEvents();
    const uint64_t frames = mTotalFrames.fetch_add(1, std::memory_order_relaxed) + 1;
    if (mTotalCountCbk != nullptr) {
        mTotalCountCbk(mTotalCountUser, mTotalEvents.load(std::memory_order_relaxed), frames);
    }
}

void PacketParser::Raw2Process(const DVSPacket& packet, bool withHeader) {
    int32_t width = 0;
    int32_t height = 0;
    GetVersionSize(packet.mVersion, width, height);
    if (width < 1 || height < 1) {
        return;
    }
    const size_t len = UsableBytes(packet);
    const uint8_t* data = packet.mData;
    // A header longer than this packet keeps its remainder for the next one.
    const size_t skip = std::min<size_t>(mRawSkip, len);
    mRawSkip -= static_cast<uint32_t>(skip);
    size_t pos = skip;

    Event& e = mEvent;
    while (pos < len) {
        const uint8_t byte = data[pos];
        if (withHeader && mRawRow == 0 && mRawCol == 0 && byte == 0xCC) {
            const size_t remaining = len - pos;
            if (remaining < kRawHeaderSize) {
                mRawSkip = static_cast<uint32_t>(kRawHeaderSize - remaining);
                return;
            }
            mRawHeaderWord = LoadLE32(data + pos + 12);
            const uint32_t w = LoadLE32(data + pos + 16);
            mRawTs = (w >> 10) * 1000 + (w & 0x3FF);
            pos += kRawHeaderSize;
            continue;
        }
        for (int shift = 0; shift < 8; shift += 2) {
            const int v = (byte >> shift) & 0x03;
            if (v != 0 && mAddEventCbk != nullptr) {
                e.type = 0;
                e.coords[0] = Event::MakeCoord(mRawRow, mRawCol);
                e.count = 1;
                e.channel = 0;
                e.dvsId = packet.mDVSID;
                e.polarity = v - 1;
                e.timestamp = mRawTs;
                ++mUnpublishedEvents;
                mAddEventCbk(&e, mAddEventUser);
            }
            ++mRawCol;
        }
        ++pos;
        if (mRawCol >= static_cast<uint32_t>(height)) {
            mRawCol = 0;
            ++mRawRow;
        }
        if (mRawRow >= static_cast<uint32_t>(width)) {
            mRawRow = 0;
            if (!withHeader) {
                mRawTs += 1000;  // each headerless image stands for one millisecond
            }
        }
    }
}

}  // namespace evcam
