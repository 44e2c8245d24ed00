// Decoding of raw sensor packets into events, on a parse thread of its own.
#ifndef EVCAM_SRC_PROCESS_PACKET_PARSER_H
#define EVCAM_SRC_PROCESS_PACKET_PARSER_H

#include <atomic>
#include <cstdint>
#include <thread>

#include "evcam/dvs.h"
#include "evcam/dvs_error.h"
#include "evcam/records.h"
#include "src/data/dvs_packet.h"
#include "src/data/packet_buffer.h"

namespace evcam {

/// Receives each decoded event; the event is valid only during the call. Returning 19 (the
/// packager has no free frame) makes the parser skip sensor time.
using AddEventCallback = DVS_ERROR (*)(Event* event, void* user);
/// Raw data layouts a parser decodes; the value arrives from the caller as a byte.
enum ParserDataFormat : uint8_t {
    kFormatSensorWords = 0,      ///< the sensor's 4-byte words, chosen by version
    kFormatRawBitmap = 1,        ///< 2-bit pixel images back to back
    kFormatRawBitmapHeader = 2,  ///< the same, each image led by a 180-byte header
};

/// The sensor's millisecond counter has 22 bits and wraps to 0 here.
constexpr uint32_t kSensorMsWrap = 0x400000;
/// Bytes of the header that leads each image in kFormatRawBitmapHeader.
constexpr uint32_t kRawHeaderSize = 180;
/// Milliseconds of a channel's data dropped after the packager ran out of frames.
constexpr uint32_t kDefaultSkipPeriodMs = 10;

/// Owns the parse thread: takes packets from a PacketBuffer, decodes them and hands every
/// event to the add-event callback, keeping one sensor clock per camera channel.
///
/// Threads: setters, Start, Stop and Reset belong to the owner and are meant for a stopped
/// parser. While running, the decoding state and the callbacks belong to the parse thread;
/// the totals (GetTotalCounts, GetParsedBytes, ResetTotalCount) may be used from any thread.
/// Without a thread, ProcessDataByVersion may be called directly by one thread at a time.
class PacketParser {
  public:
    PacketParser();
    /// Stops the parse thread if it runs.
    ~PacketParser();
    PacketParser(const PacketParser&) = delete;
    PacketParser& operator=(const PacketParser&) = delete;

    /// The pool to consume (not owned; must outlive the run). @return 0, or 1 for null.
    DVS_ERROR SetPacketBuffer(PacketBuffer* buffer);
    /// Receiver of decoded events and its user pointer. @return 0, or 1 for a null callback.
    DVS_ERROR SetAddEventCallBack(AddEventCallback callback, void* user);
    /// @return 0, or 1 for a null callback.
    DVS_ERROR SetTotalCountCallback(TotalCountCallback callback, void* user);
    /// @return 0, or 1 for a null callback.
    DVS_ERROR SetRawFpsCallback(RateCallback callback, void* user);
    /// Output resolution; until set, the first packet's version decides it.
    /// @return 0, or 1 unless 1 <= width <= 960 and 1 <= height <= 720.
    DVS_ERROR SetResolution(int width, int height);
    /// One of ParserDataFormat; other values decode nothing. Ignored while running.
    void SetDataFormat(unsigned char format);
    /// Milliseconds of a channel's data to drop when the callback returns 19; 0 drops the
    /// rest of the packet instead.
    void SetSkipPeriod(unsigned int periodMs);

    /// Registers as the buffer's parser and starts the parse thread with fresh sensor clocks.
    /// The skip window, a pending raw-header skip, the fps counters and the totals carry over.
    /// @return 0 (also when already running); 9 without a packet buffer; 212 when the thread
    ///         cannot be created.
    DVS_ERROR Start();
    /// Stops and joins the parse thread, then releases every packet it had not read.
    /// Blocks until the packet in hand is decoded, so a callback that waits (the packager
    /// does for file data) must be released first. Never call it from a callback.
    /// @return 0, or 4 when not running.
    DVS_ERROR Stop();
    /// Forgets the add-event callback, the resolution and the packet buffer; skip period back
    /// to 10 ms. @return 0, or 201 while running.
    DVS_ERROR Reset();

    /// Clears the event, frame and byte totals.
    void ResetTotalCount();
    /// Events decoded and sensor frame ends seen since the last ResetTotalCount. While
    /// running, the packet being decoded may not be counted yet.
    void GetTotalCounts(unsigned long& events, unsigned long& frames) const;
    /// Raw bytes handed to the parser since the last ResetTotalCount.
    uint64_t GetParsedBytes() const { return mTotalBytes.load(std::memory_order_relaxed); }
    bool IsRunning() const { return mRunning.load(std::memory_order_acquire); }
    /// Word 3 of the last complete raw-bitmap image header. Read it while stopped.
    uint32_t GetRawHeaderWord() const { return mRawHeaderWord; }

    /// Decodes one packet by its version and the data format and passes its events to the
    /// callback. Runs on the parse thread, or on the caller's thread when the parser is not
    /// running (benchmarks, tests, fuzzing). Never allocates. @return 0, or 1 for null.
    DVS_ERROR ProcessDataByVersion(DVSPacket* packet);

  private:
    /// What AnalyzeData needs of the word and packet being decoded.
    struct InputArg {
        int32_t polarity;
        uint32_t channel;
        uint32_t dvsId;
        DVS_VERSION version;
    };

    void ParseLoop();
    void MVT94QXDataProcess(const DVSPacket& packet);
    /// Decodes one sensor word. @return false when the rest of the packet must be dropped.
    bool DecodeWord(const uint8_t* word, InputArg& arg, bool exempt);
    /// Sends one pixel group (mask bits are columns base..base+7 of the channel's row).
    /// @return 0; 12 without a callback; 217 when the group lies outside the array; 19 when
    ///         the callback has no room.
    DVS_ERROR AnalyzeData(const InputArg& arg, unsigned int mask, int base);
    void FrameEnd(uint32_t channel, uint32_t dvsId);
    void Raw2Process(const DVSPacket& packet, bool withHeader);
    /// Moves events counted by the decoder into the shared total.
    void PublishEvents();

    std::thread mParseThread;
    uint32_t mRefMs[2] = {};   ///< sensor milliseconds per channel (22 bits)
    uint32_t mCurTs[2] = {};   ///< sensor microseconds per channel
    int32_t mRowAddr[2] = {};  ///< last row address per channel
    int32_t mWidth = 0;        ///< 0: take it from the version table
    int32_t mHeight = 0;
    uint8_t mGroupDir = 0;  ///< second group lies below the first when set; shared by both channels
    std::atomic<bool> mRunning{false};  ///< written by the owner, polled by the parse thread

    PacketBuffer* mPacketBuffer = nullptr;
    void* mAddEventUser = nullptr;
    AddEventCallback mAddEventCbk = nullptr;

    uint64_t mSkipUntil = 0;  ///< end of the skipped span in sensor ms; 0 until the first ms word
    /// The owner may change it while the parse thread runs (a live frame period change).
    std::atomic<uint32_t> mSkipPeriod{kDefaultSkipPeriodMs};

    RateCallback mRawFpsCbk = nullptr;
    void* mRawFpsUser = nullptr;
    uint32_t mFpsFrames = 0;
    uint32_t mFpsStart = 0;  ///< stamp opening the measuring span; 0 = none

    TotalCountCallback mTotalCountCbk = nullptr;
    void* mTotalCountUser = nullptr;
    // Written by the parse thread, read and cleared by any thread.
    std::atomic<uint64_t> mTotalEvents{0};
    std::atomic<uint64_t> mTotalFrames{0};
    std::atomic<uint64_t> mTotalBytes{0};
    /// Events decoded but not yet added to mTotalEvents: one atomic add per packet rather than
    /// per group keeps the hot path free of locked instructions. Parse thread only.
    uint64_t mUnpublishedEvents = 0;

    uint8_t mDataFormat = kFormatSensorWords;

    uint32_t mRawRow = 0;
    uint32_t mRawCol = 0;
    uint32_t mRawTs = 0;  ///< stamp of the current image
    uint32_t mRawHeaderWord = 0;
    uint32_t mRawSkip = 0;  ///< header bytes still to skip at the next packet's start

    Event mEvent;  ///< reused for every callback so decoding never allocates
};

}  // namespace evcam

#endif  // EVCAM_SRC_PROCESS_PACKET_PARSER_H
