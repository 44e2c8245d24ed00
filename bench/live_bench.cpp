// Throughput of the live path on a simulated camera that delivers as fast as the host reads:
// the read thread, the packet pool, decoding and framing (polling), and raw recording to disk.
// The camera replays a pre-made recording, so the figures do not include making up a scene.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "evcam/evcam.h"
#include "evcam/sim.h"
#include "src/record/recording_format.h"
#include "src/sim/scene_generator.h"

namespace evcam {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kRecordOnly = 0;  // benchmark argument: work mode 0 with raw recording

struct Drops {
    std::atomic<unsigned long> dropped{0};
    std::atomic<unsigned long> offered{0};
};

void OnDrop(void* user, unsigned long dropped, unsigned long offered) {
    auto* d = static_cast<Drops*>(user);
    d->dropped += dropped;
    d->offered += offered;
}

// A folder with a bias file and a two-second recording of a bar at 4 M events/s for the
// simulated camera to replay.
struct LiveSetup {
    std::string dir;
    std::string bias;
    std::string scene;

    LiveSetup() {
        char pattern[] = "/tmp/evcam-live-bench-XXXXXX";
        dir = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
        bias = dir + "/camera.bias";
        std::ofstream(bias) << "//@ DVS_VERSION MVT94QX\n//@ Single\n//@ Description bench\n";
        SceneConfig config;
        config.scene = SceneKind::kBar;
        config.eventRate = 4e6;
        SceneGenerator generator(config);
        std::vector<uint8_t> body;
        generator.Generate(2000000, body);
        scene = dir + "/scene.dvs";
        WriteRecordingFile(scene.c_str(), MVT94QX, body.data(), body.size());
    }
    ~LiveSetup() { fs::remove_all(dir); }
};

void BM_LiveStream(benchmark::State& state) {
    const auto form = static_cast<uint32_t>(state.range(0));
    static LiveSetup setup;
    sim::CameraConfig config;
    config.file = setup.scene;
    config.byteRate = static_cast<uint64_t>(state.range(1)) * 1000000;
    const int camera = sim::Plug(config);
    USBDevice* list = nullptr;
    int count = 0;
    DVS* dvs = DVSManager::CreateDVS(DVS_FX20);
    if (camera < 0 || DVSManager::ScanAllDevices(&list, count) != ERR_SUCCESS || count < 1 ||
        dvs == nullptr || DVSManager::BindDevice(dvs, static_cast<int>(list[0].mDevId)) != 0 ||
        dvs->SetParameter(PARA_BIAS_FILE, const_cast<char*>(setup.bias.c_str())) != 0) {
        state.SkipWithError("no simulated camera");
        DVSManager::DeleteDVS(dvs);
        sim::UnplugAll();
        return;
    }
    uint32_t ppx = 64;
    uint32_t workMode = form == kRecordOnly ? 0 : 1;
    uint32_t outType = form == kRecordOnly ? OUT_POLARITY : form;
    dvs->SetParameter(PARA_PPX, &ppx);
    dvs->SetParameter(PARA_WORK_MODE, &workMode);
    dvs->SetParameter(PARA_OUT_TYPE, &outType);
    Drops drops;
    dvs->SetCallBack(CALLBACK_PKT_BUF_DROP, reinterpret_cast<void*>(&OnDrop), &drops);
    DVSUIData frame(MVT94QX, outType, 960, 720);
    const std::string out = setup.dir + "/takes";
    fs::create_directories(out);
    uint64_t bytes = 0;
    uint64_t frames = 0;
    uint64_t recorded = 0;
    double seconds = 0;
    for (auto _ : state) {
        const uint64_t before = sim::BytesSent(camera);
        const auto start = Clock::now();
        dvs->Start();
        if (form == kRecordOnly) {
            dvs->StartSaving(out.c_str());
        }
        const auto until = start + std::chrono::seconds(1);
        unsigned char n = 0;
        while (Clock::now() < until) {
            if (form == kRecordOnly ||
                dvs->GetFrame(static_cast<OUT_TYPE>(outType), &frame, n) != ERR_SUCCESS) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            } else {
                ++frames;
            }
        }
        dvs->Stop();
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        bytes += sim::BytesSent(camera) - before;
        for (const auto& f : fs::directory_iterator(out)) {
            recorded += fs::file_size(f.path()) - 8;  // each file starts with an 8-byte header
            fs::remove(f.path());
        }
    }
    DVSManager::DeleteDVS(dvs);
    sim::UnplugAll();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["frames/s"] = static_cast<double>(frames) / seconds;
    state.counters["dropped"] = static_cast<double>(drops.dropped.load());
    state.counters["offered"] = static_cast<double>(drops.offered.load());
    if (form == kRecordOnly) {
        // Below 1 when the recorder's pool ran full and the read thread had to skip transfers.
        state.counters["recorded/sent"] =
            static_cast<double>(recorded) / static_cast<double>(bytes);
    }
}
// Arguments: what runs (kRecordOnly or the frame form) and the camera's rate in MB/s (0: as
// fast as the host reads).
BENCHMARK(BM_LiveStream)
    ->Args({kRecordOnly, 0})
    ->Args({kRecordOnly, 300})
    ->Args({OUT_POLARITY, 0})
    ->Args({OUT_IMAGE, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(3);

}  // namespace
}  // namespace evcam
