// evcam play: plays a recording once through the file object and reports what arrived.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "commands.h"
#include "evcam/evcam.h"
#include "progress_line.h"
#include "src/record/recording_format.h"

namespace evcam::tool {

namespace {

struct PlayOptions {
    std::string path;
    uint32_t period = 0;
    uint32_t events = 0;
    uint32_t frameEnds = 0;
    uint32_t outType = OUT_IMAGE;
    std::string color = "rgb";
    bool callback = false;
    std::string exportPrefix;
    int saveMode = 1;
    int version = 0;
};

// Shared with the library's threads: the read-over and frame callbacks.
struct PlayState {
    std::atomic<bool> readOver{false};
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> events{0};

    static void OnReadOver(void* user) { static_cast<PlayState*>(user)->readOver = true; }
    static void OnFrame(DVSUIData* data, unsigned char count, void* user, int) {
        auto* s = static_cast<PlayState*>(user);
        uint64_t events = 0;
        for (int i = 0; i < count; ++i) {
            events += data[i].mTotalEvents;
        }
        s->events += events;
        ++s->frames;
    }
};

struct DvsDeleter {
    void operator()(DVS* d) const { DVSManager::DeleteDVS(d); }
};

bool Check(DVS_ERROR rc, const char* what) {
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "evcam play: %s: %s (%d)\n", what, GetErrorMsg(rc),
                     static_cast<int>(rc));
        return false;
    }
    return true;
}

bool Configure(DVS* dvs, const PlayOptions& o, PlayState& state) {
    uint32_t playOnce = PLAY_ONCE;
    uint32_t outType = o.outType;
    uint32_t color = o.color == "yuv" ? COLOR_YUV : o.color == "gray" ? COLOR_GRAY : COLOR_RGB24;
    uint32_t frameMode = o.callback ? FRAME_MODE_CALLBACK : FRAME_MODE_POLLING;
    if (o.version != 0) {
        uint32_t version = static_cast<uint32_t>(o.version);
        if (!Check(dvs->SetParameter(PARA_VERSION, &version), "version")) {
            return false;
        }
    }
    uint32_t period = o.period, events = o.events, frameEnds = o.frameEnds;
    return Check(dvs->SetParameter(PARA_PLAY_MODE, &playOnce), "play mode") &&
           Check(dvs->SetParameter(PARA_OUT_TYPE, &outType), "output type") &&
           Check(dvs->SetParameter(PARA_COLOR_FORMAT, &color), "colour format") &&
           Check(dvs->SetParameter(PARA_FRAME_MODE, &frameMode), "frame mode") &&
           (period == 0 || Check(dvs->SetParameter(PARA_FRAME_PERIOD, &period), "period")) &&
           (events == 0 || Check(dvs->SetParameter(PARA_EVENT_COUNT, &events), "events")) &&
           (frameEnds == 0 ||
            Check(dvs->SetParameter(PARA_FRAME_END_COUNT, &frameEnds), "frame ends")) &&
           Check(dvs->SetCallBack(CALLBACK_READ_OVER,
                                  reinterpret_cast<void*>(&PlayState::OnReadOver), &state),
                 "read-over callback") &&
           (!o.callback ||
            Check(dvs->SetCallBack(CALLBACK_FRAME, reinterpret_cast<void*>(&PlayState::OnFrame),
                                   &state),
                  "frame callback"));
}

int RunPlay(const PlayOptions& o) {
    RecordingHeader header;
    header.version = static_cast<DVS_VERSION>(o.version);
    CheckRecordingFile(o.path.c_str(), header);
    std::unique_ptr<DVS, DvsDeleter> dvs(DVSManager::CreateDVS(DVS_FILE));
    if (!dvs) {
        std::fprintf(stderr, "evcam play: the file object is in use\n");
        return 1;
    }
    PlayState state;
    if (!Check(DVSManager::BindDevice(dvs.get(), o.path.c_str()), o.path.c_str()) ||
        !Configure(dvs.get(), o, state)) {
        return 1;
    }
    uint32_t version = 0;
    int32_t size[2] = {0, 0};
    dvs->GetParameter(PARA_VERSION, &version);
    dvs->GetParameter(PARA_RESOLUTION, size);

    // Poll with records holding every form asked for; a stereo frame fills two.
    DVSUIData records[2];
    for (DVSUIData& r : records) {
        r.Initialize(static_cast<DVS_VERSION>(version), o.outType, size[0], size[1]);
    }

    const auto start = std::chrono::steady_clock::now();
    if (!Check(dvs->Start(), "start")) {
        return 1;
    }
    if (!o.exportPrefix.empty() &&
        !Check(dvs->StartFrameSaving(o.exportPrefix.c_str(), o.saveMode), "export")) {
        return 1;
    }

    uint64_t parsed = 0;
    uint64_t body = 0;
    const uint64_t kDataStart = IsRecordingPath(o.path.c_str()) ? header.headerWords * 4u : 0u;
    if (FILE* f = std::fopen(o.path.c_str(), "rb")) {
        std::fseek(f, 0, SEEK_END);
        body = static_cast<uint64_t>(std::ftell(f)) - kDataStart;
        std::fclose(f);
    }
    ProgressLine progress;
    auto quietSince = std::chrono::steady_clock::now();
    uint64_t lastFrames = 0;
    // Done once the reader has reached the end, the parser has taken every byte, and no frame
    // has come for a short while (the last frame is closed when the parser finishes).
    for (;;) {
        bool got = false;
        if (!o.callback) {
            unsigned char count = 0;
            const DVS_ERROR rc = dvs->GetFrame(static_cast<OUT_TYPE>(o.outType), records, count);
            if (rc == ERR_SUCCESS || rc == ERR_TYPE_MISMATCH) {
                uint64_t events = 0;
                for (int i = 0; i < count; ++i) {
                    events += records[i].mTotalEvents;
                }
                state.events += events;
                ++state.frames;
                got = true;
            }
        }
        const uint64_t frames = state.frames.load();
        if (frames != lastFrames) {
            lastFrames = frames;
            quietSince = std::chrono::steady_clock::now();
        }
        dvs->GetParameter(PARA_PARSED_BYTES, &parsed);
        const bool drained = state.readOver && parsed >= body;
        if (drained &&
            std::chrono::steady_clock::now() - quietSince > std::chrono::milliseconds(200)) {
            break;
        }
        if (!got) {
            float fraction = 0;
            dvs->GetParameter(PARA_FILE_PERCENT, &fraction);
            progress.Update("playing " + std::to_string(static_cast<int>(fraction * 100)) +
                            "%  frames " + std::to_string(frames));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    progress.Clear();
    dvs->StopFrameSaving();
    unsigned long totalEvents = 0, totalFrames = 0;
    dvs->GetTotalCounts(totalEvents, totalFrames);
    dvs->Stop();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start -
                                                      std::chrono::milliseconds(200))
                            .count();
    std::printf("played %s\n", o.path.c_str());
    std::printf("  frames       %llu (%s)\n", static_cast<unsigned long long>(state.frames.load()),
                o.callback ? "callback" : "polling");
    std::printf("  events       %llu in frames, %lu decoded, %lu sensor frame ends\n",
                static_cast<unsigned long long>(state.events.load()), totalEvents, totalFrames);
    std::printf("  bytes        %llu\n", static_cast<unsigned long long>(parsed));
    std::printf("  wall time    %.3f s\n", wall);
    if (wall > 0) {
        std::printf("  throughput   %s/s, %s ev/s, %.1f frames/s\n",
                    HumanBytes(static_cast<double>(parsed) / wall).c_str(),
                    HumanCount(static_cast<double>(state.events.load()) / wall).c_str(),
                    static_cast<double>(state.frames.load()) / wall);
    }
    if (!o.exportPrefix.empty()) {
        std::printf("  exported     %s (save mode %d)\n", o.exportPrefix.c_str(), o.saveMode);
    }
    return 0;
}

}  // namespace

void AddPlayCommand(CLI::App& app, int* status) {
    auto options = std::make_shared<PlayOptions>();
    CLI::App* cmd = app.add_subcommand("play", "Play a recording once and report the frames");
    cmd->add_option("FILE", options->path, "Recording (.dvs) or headerless dump")->required();
    auto* period = cmd->add_option("--period", options->period, "Frame period in ms")
                       ->check(CLI::Range(1, 1000));
    auto* events = cmd->add_option("--events", options->events, "Events per frame")
                       ->check(CLI::Range(1000, 300000));
    auto* ends = cmd->add_option("--frame-ends", options->frameEnds, "Sensor frame ends per frame")
                     ->check(CLI::Range(1, 100));
    period->excludes(events)->excludes(ends);
    events->excludes(ends);
    cmd->add_option("--out-type", options->outType, "OUT_TYPE mask 1..15 (8 = painted image)")
        ->check(CLI::Range(1, 15));
    cmd->add_option("--color", options->color, "rgb, yuv or gray")
        ->check(CLI::IsMember({"rgb", "yuv", "gray"}));
    cmd->add_flag("--callback", options->callback, "Deliver frames by callback instead of polling");
    auto* exp =
        cmd->add_option("--export", options->exportPrefix, "Export painted frames to PREFIX");
    cmd->add_option("--save-mode", options->saveMode, "1 images, 2 video")
        ->check(CLI::IsMember({1, 2}))
        ->needs(exp);
    cmd->add_option("--version", options->version, "Sensor version of a headerless dump (1, 17)")
        ->check(CLI::IsMember({1, 17}));
    cmd->callback([options, status] { *status = RunPlay(*options); });
}

}  // namespace evcam::tool
