// evcam live: streams frames from a live camera and reports them once a second.
#include <chrono>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include "commands.h"
#include "evcam/evcam.h"
#include "live_camera.h"
#include "progress_line.h"

namespace evcam::tool {

namespace {

struct LiveOptions {
    CameraOptions camera;
    FrameOptions frame;
};

int RunLive(const LiveOptions& o) {
    DvsHandle dvs = OpenCamera(o.camera, "live");
    if (!dvs) {
        return 1;
    }
    LinkNotices link;
    FrameTally tally;
    if (!link.Attach(dvs.get(), "live") || !ApplyFrameOptions(dvs.get(), o.frame, tally, "live")) {
        return 1;
    }
    FramePoller poller(dvs.get(), o.frame.outType);
    const std::atomic<bool>& interrupted = InterruptFlag();
    const double seconds =
        o.camera.seconds > 0 ? o.camera.seconds : std::numeric_limits<double>::infinity();
    const auto start = std::chrono::steady_clock::now();
    if (!Check(dvs->Start(), "live", "start")) {
        return 1;
    }
    if (!o.frame.exportPrefix.empty() &&
        !Check(dvs->StartFrameSaving(o.frame.exportPrefix.c_str(), o.frame.saveMode), "live",
               "export")) {
        return 1;
    }
    int reported = 0;
    uint64_t lastFrames = 0;
    while (!interrupted && Since(start) < seconds) {
        if (o.frame.callback || !poller.Poll(tally)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (Since(start) >= reported + 1) {
            ++reported;
            const uint64_t frames = tally.frames.load();
            std::printf("  %3d s  %llu frames/s  rate %s  dropped %lu of %lu packets\n", reported,
                        static_cast<unsigned long long>(frames - lastFrames),
                        link.RateText().c_str(), link.dropped.load(), link.offered.load());
            std::fflush(stdout);
            lastFrames = frames;
        }
    }
    dvs->StopFrameSaving();
    unsigned long decoded = 0, frameEnds = 0;
    dvs->GetTotalCounts(decoded, frameEnds);
    const double wall = Since(start);
    dvs->Stop();
    std::printf("streamed %.1f s\n", wall);
    PrintFrameSummary(o.frame, tally, decoded, frameEnds, static_cast<uint64_t>(link.bytes.load()),
                      wall);
    std::printf("  dropped      %llu packets\n",
                static_cast<unsigned long long>(link.droppedTotal.load()));
    return 0;
}

}  // namespace

void AddLiveCommand(CLI::App& app, int* status) {
    auto options = std::make_shared<LiveOptions>();
    CLI::App* cmd = app.add_subcommand("live", "Stream frames from a camera and report them");
    AddCameraOptions(*cmd, options->camera);
    cmd->add_option("--seconds", options->camera.seconds, "How long to stream (default: until ^C)")
        ->check(CLI::PositiveNumber);
    AddFrameOptions(*cmd, options->frame);
    cmd->callback([options, status] { *status = RunLive(*options); });
}

}  // namespace evcam::tool
