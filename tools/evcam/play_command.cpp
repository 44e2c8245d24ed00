// evcam play: plays a recording once through the file object and reports what arrived.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "commands.h"
#include "evcam/evcam.h"
#include "frame_options.h"
#include "progress_line.h"
#include "src/record/recording_format.h"

namespace evcam::tool {

namespace {

struct PlayOptions {
    std::string path;
    FrameOptions frame;
    int version = 0;
};

std::atomic<bool> gReadOver{false};
void OnReadOver(void*) {
    gReadOver = true;
}

bool Configure(DVS* dvs, const PlayOptions& o, FrameTally& tally) {
    uint32_t playOnce = PLAY_ONCE;
    if (o.version != 0) {
        uint32_t version = static_cast<uint32_t>(o.version);
        if (!Check(dvs->SetParameter(PARA_VERSION, &version), "play", "version")) {
            return false;
        }
    }
    return Check(dvs->SetParameter(PARA_PLAY_MODE, &playOnce), "play", "play mode") &&
           ApplyFrameOptions(dvs, o.frame, tally, "play") &&
           Check(
               dvs->SetCallBack(CALLBACK_READ_OVER, reinterpret_cast<void*>(&OnReadOver), nullptr),
               "play", "read-over callback");
}

int RunPlay(const PlayOptions& o) {
    RecordingHeader header;
    header.version = static_cast<DVS_VERSION>(o.version);
    CheckRecordingFile(o.path.c_str(), header);
    DvsHandle dvs(DVSManager::CreateDVS(DVS_FILE));
    if (!dvs) {
        std::fprintf(stderr, "evcam play: the file object is in use\n");
        return 1;
    }
    FrameTally tally;
    if (!Check(DVSManager::BindDevice(dvs.get(), o.path.c_str()), "play", o.path.c_str()) ||
        !Configure(dvs.get(), o, tally)) {
        return 1;
    }
    FramePoller poller(dvs.get(), o.frame.outType);

    const auto start = std::chrono::steady_clock::now();
    if (!Check(dvs->Start(), "play", "start")) {
        return 1;
    }
    if (!o.frame.exportPrefix.empty() &&
        !Check(dvs->StartFrameSaving(o.frame.exportPrefix.c_str(), o.frame.saveMode), "play",
               "export")) {
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
        const bool got = !o.frame.callback && poller.Poll(tally);
        const uint64_t frames = tally.frames.load();
        if (frames != lastFrames) {
            lastFrames = frames;
            quietSince = std::chrono::steady_clock::now();
        }
        dvs->GetParameter(PARA_PARSED_BYTES, &parsed);
        const bool drained = gReadOver && parsed >= body;
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
    PrintFrameSummary(o.frame, tally, totalEvents, totalFrames, parsed, wall);
    return 0;
}

}  // namespace

void AddPlayCommand(CLI::App& app, int* status) {
    auto options = std::make_shared<PlayOptions>();
    CLI::App* cmd = app.add_subcommand("play", "Play a recording once and report the frames");
    cmd->add_option("FILE", options->path, "Recording (.dvs) or headerless dump")->required();
    AddFrameOptions(*cmd, options->frame);
    cmd->add_option("--version", options->version, "Sensor version of a headerless dump (1, 17)")
        ->check(CLI::IsMember({1, 17}));
    cmd->callback([options, status] { *status = RunPlay(*options); });
}

}  // namespace evcam::tool
