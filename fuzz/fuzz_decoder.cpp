// Feeds arbitrary bytes to the packet parser in every data format and for both sensor
// versions, cut into packets. Besides crashes and sanitizer findings it stops on events that
// break the decoder's promises (coordinates inside the array, sane counts and polarities) and
// on totals that disagree with what the callback saw.
//
// Input: byte 0 chooses the packet source and the receiver's behaviour, byte 1 the packet size
// (0: one packet), the rest is raw data.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "src/process/packet_parser.h"

namespace {

using namespace evcam;

struct Receiver {
    int32_t width = 960;
    int32_t height = 720;
    bool rawFormat = false;
    uint32_t refuseEvery = 0;  // answer 19 to every n-th pixel event; 0 never
    uint64_t calls = 0;
    uint64_t pixels = 0;
};

void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

DVS_ERROR Receive(Event* e, void* user) {
    Receiver& r = *static_cast<Receiver*>(user);
    Check(e->channel <= 1);
    if (e->type == 2) {
        Check(e->count == 0);
        return ERR_SUCCESS;
    }
    Check(e->type == 0);
    Check(e->count >= 1 && e->count <= 8);
    Check(e->polarity >= 0 && e->polarity <= (r.rawFormat ? 2 : 1));
    for (int i = 0; i < e->count; ++i) {
        Check(Event::CoordX(e->coords[i]) < static_cast<uint32_t>(r.width));
        Check(Event::CoordY(e->coords[i]) < static_cast<uint32_t>(r.height));
    }
    r.pixels += e->count;
    ++r.calls;
    return r.refuseEvery != 0 && r.calls % r.refuseEvery == 0 ? ERR_NO_FREE_NODE : ERR_SUCCESS;
}

constexpr uint32_t kSkipPeriods[4] = {kDefaultSkipPeriodMs, 0, 1, 3};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    if (size < 2) {
        return 0;
    }
    const uint8_t config = input[0];
    const size_t packetSize = input[1] == 0 ? size - 2 : input[1];
    const uint8_t* data = input + 2;
    const size_t len = size - 2;

    for (uint8_t format = 0; format <= 2; ++format) {
        for (DVS_VERSION version : {MVT94QX, MVT94QX_STEREO}) {
            PacketParser parser;
            Receiver receiver;
            receiver.rawFormat = format != 0;
            receiver.refuseEvery = (config >> 3) & 0x07;
            parser.SetDataFormat(format);
            parser.SetSkipPeriod(kSkipPeriods[(config >> 1) & 0x03]);
            if ((config & 0x40) != 0 && format == 0) {
                receiver.width = 1 + input[1] % 960;
                receiver.height = 1 + (config & 0x3F) * 11;
                Check(parser.SetResolution(receiver.width, receiver.height) == ERR_SUCCESS);
            }
            const bool withCallback = (config & 0x80) == 0;
            if (withCallback) {
                parser.SetAddEventCallBack(&Receive, &receiver);
            }
            for (size_t pos = 0; pos < len || pos == 0; pos += packetSize) {
                const size_t n = len - pos < packetSize ? len - pos : packetSize;
                // An exact-size store, so that any read past the data is a finding.
                auto packet = std::make_unique<DVSPacket>(static_cast<int>(n));
                if (n != 0) {
                    std::memcpy(packet->mData, data + pos, n);
                }
                packet->mDataLen = static_cast<int32_t>(n);
                packet->mVersion = version;
                packet->mDVSID = (config & 0x01) != 0 ? kFileDVSID : 0;
                Check(parser.ProcessDataByVersion(packet.get()) == ERR_SUCCESS);
                if (n == 0) {
                    break;
                }
            }
            unsigned long events = 0;
            unsigned long frames = 0;
            parser.GetTotalCounts(events, frames);
            Check(events == receiver.pixels);
            Check(parser.GetParsedBytes() == len);
        }
    }
    return 0;
}
