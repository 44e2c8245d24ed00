// Throughput of the decoding, packaging and playback paths, beside memcpy over the same bytes
// as the ceiling that no stage can beat.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "evcam/evcam.h"
#include "src/data/dvs_packet.h"
#include "src/data/ui_data_buffer.h"
#include "src/process/packaging.h"
#include "src/process/packet_parser.h"
#include "src/record/recording_format.h"
#include "src/sim/scene_generator.h"

namespace evcam {
namespace {

constexpr int kPacketBytes = 64 * 1024;

// One second of a bar sweeping at a million events per second: a realistic word mix of time,
// row and pixel-group words.
const std::vector<uint8_t>& SceneBytes() {
    static const std::vector<uint8_t> bytes = [] {
        SceneConfig config;
        config.scene = SceneKind::kBar;
        config.eventRate = 1e6;
        config.frameEndRate = 100;
        SceneGenerator generator(config);
        std::vector<uint8_t> out;
        generator.Generate(1000000, out);
        return out;
    }();
    return bytes;
}

struct DecodedScene {
    std::vector<Event> events;
    uint64_t pixelEvents = 0;
};

DVS_ERROR Collect(Event* e, void* user) {
    auto* scene = static_cast<DecodedScene*>(user);
    Event copy = *e;
    copy.dvsId = 0;  // live data: a full pool refuses instead of waiting
    scene->events.push_back(copy);
    scene->pixelEvents += e->type == 0 ? e->count : 0;
    return ERR_SUCCESS;
}

const DecodedScene& Decoded() {
    static const DecodedScene scene = [] {
        DecodedScene s;
        PacketParser parser;
        parser.SetAddEventCallBack(&Collect, &s);
        const auto& bytes = SceneBytes();
        DVSPacket packet(static_cast<int>(bytes.size()));
        std::memcpy(packet.mData, bytes.data(), bytes.size());
        packet.mDataLen = static_cast<int32_t>(bytes.size());
        packet.mVersion = MVT94QX;
        packet.mDVSID = kFileDVSID;
        parser.ProcessDataByVersion(&packet);
        return s;
    }();
    return scene;
}

void BM_Memcpy(benchmark::State& state) {
    const auto& src = SceneBytes();
    std::vector<uint8_t> dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * src.size()));
}
BENCHMARK(BM_Memcpy);

DVS_ERROR CountOnly(Event* e, void* user) {
    *static_cast<uint64_t*>(user) += e->count;
    return ERR_SUCCESS;
}

void BM_Decoder(benchmark::State& state) {
    const auto& bytes = SceneBytes();
    std::vector<DVSPacket*> packets;
    for (size_t off = 0; off < bytes.size(); off += kPacketBytes) {
        const size_t n = std::min<size_t>(kPacketBytes, bytes.size() - off);
        auto* p = new DVSPacket(static_cast<int>(n));
        std::memcpy(p->mData, bytes.data() + off, n);
        p->mDataLen = static_cast<int32_t>(n);
        p->mVersion = MVT94QX;
        p->mDVSID = kFileDVSID;
        packets.push_back(p);
    }
    uint64_t events = 0;
    PacketParser parser;
    parser.SetAddEventCallBack(&CountOnly, &events);
    for (auto _ : state) {
        for (DVSPacket* p : packets) {
            parser.ProcessDataByVersion(p);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    state.SetItemsProcessed(static_cast<int64_t>(events));
    for (DVSPacket* p : packets) {
        delete p;
    }
}
BENCHMARK(BM_Decoder);

// Packaging of the decoded scene into frames of one form (argument: OUT_TYPE bit), 10 ms
// frames, frames discarded as they are finished.
void BM_Packaging(benchmark::State& state) {
    const uint32_t form = static_cast<uint32_t>(state.range(0));
    const auto& scene = Decoded();
    UIDataBuffer buffer(6, MVT94QX, form, 960, 720);
    void* handle = nullptr;
    buffer.RegisterDataHandle(handle);
    Packaging packaging;
    packaging.SetUIDataBuffer(&buffer, handle);
    packaging.SetFramePeriod(10);
    packaging.SetState(true);
    for (auto _ : state) {
        for (const Event& e : scene.events) {
            Event copy = e;
            while (Packaging::AddEvent(&copy, &packaging) == ERR_NO_FREE_NODE) {
                while (packaging.DropFrame() == ERR_SUCCESS) {
                }
            }
        }
    }
    packaging.SetState(false);
    buffer.UnregisterDataHandle(handle);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * scene.pixelEvents));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * SceneBytes().size()));
    state.SetLabel(form == OUT_EVENTS         ? "events"
                   : form == OUT_POLARITY     ? "polarity"
                   : form == OUT_TIME_SURFACE ? "time surface"
                                              : "image");
}
BENCHMARK(BM_Packaging)->Arg(OUT_EVENTS)->Arg(OUT_POLARITY)->Arg(OUT_TIME_SURFACE)->Arg(OUT_IMAGE);

std::atomic<bool> gReadOver{false};
void OnReadOver(void*) {
    gReadOver = true;
}

// Whole playback of the scene through the file object, frames taken by polling.
void BM_Playback(benchmark::State& state) {
    const uint32_t form = static_cast<uint32_t>(state.range(0));
    char dir[] = "/tmp/evcam-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("no temporary folder");
        return;
    }
    const std::string path = std::string(dir) + "/scene.dvs";
    const auto& bytes = SceneBytes();
    WriteRecordingFile(path.c_str(), MVT94QX, bytes.data(), bytes.size());
    DVS* dvs = DVSManager::CreateDVS(DVS_FILE);
    DVSManager::BindDevice(dvs, path.c_str());
    uint32_t once = PLAY_ONCE;
    uint32_t outType = form;
    uint32_t ppx = 4;
    dvs->SetParameter(PARA_PLAY_MODE, &once);
    dvs->SetParameter(PARA_OUT_TYPE, &outType);
    dvs->SetParameter(PARA_PPX, &ppx);
    dvs->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(&OnReadOver), nullptr);
    DVSUIData frame(MVT94QX, outType, 960, 720);
    uint64_t events = 0;
    for (auto _ : state) {
        gReadOver = false;
        dvs->ResetTotalCount();
        dvs->Start();
        uint64_t parsed = 0;
        unsigned char count = 0;
        for (;;) {
            const DVS_ERROR rc = dvs->GetFrame(static_cast<OUT_TYPE>(form), &frame, count);
            if (rc == ERR_SUCCESS) {
                events += frame.mTotalEvents;
                continue;
            }
            dvs->GetParameter(PARA_PARSED_BYTES, &parsed);
            if (gReadOver && parsed >= bytes.size()) {
                break;
            }
            std::this_thread::yield();
        }
        dvs->Stop();
    }
    DVSManager::DeleteDVS(dvs);
    std::remove(path.c_str());
    rmdir(dir);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    state.SetItemsProcessed(static_cast<int64_t>(events));
}
BENCHMARK(BM_Playback)
    ->Arg(OUT_POLARITY)
    ->Arg(OUT_IMAGE)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace evcam

BENCHMARK_MAIN();
