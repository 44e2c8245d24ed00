// evcam record: records a live camera's raw data into .dvs files, reporting the data rate and
// drops once a second.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "commands.h"
#include "evcam/evcam.h"
#include "live_camera.h"
#include "progress_line.h"

namespace evcam::tool {

namespace {

namespace fs = std::filesystem;

struct RecordOptions {
    CameraOptions camera;
    std::string dir;
    bool process = false;
};

std::set<fs::path> Recordings(const std::string& dir) {
    std::set<fs::path> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        if (entry.path().extension() == ".dvs") {
            found.insert(entry.path());
        }
    }
    return found;
}

uint64_t SizeOf(const std::set<fs::path>& files, const std::set<fs::path>& before) {
    uint64_t bytes = 0;
    std::error_code ec;
    for (const auto& f : files) {
        if (before.count(f) == 0) {
            const auto size = fs::file_size(f, ec);
            bytes += ec ? 0 : size;
        }
    }
    return bytes;
}

int RunRecord(const RecordOptions& o) {
    std::error_code ec;
    if (!fs::is_directory(o.dir, ec)) {
        std::fprintf(stderr, "evcam record: %s is not a directory\n", o.dir.c_str());
        return 1;
    }
    DvsHandle dvs = OpenCamera(o.camera, "record");
    if (!dvs) {
        return 1;
    }
    LinkNotices link;
    uint32_t workMode = o.process ? 1 : 0;
    uint32_t outType = OUT_EVENTS;
    if (!link.Attach(dvs.get(), "record") ||
        !Check(dvs->SetParameter(PARA_WORK_MODE, &workMode), "record", "work mode") ||
        !Check(dvs->SetParameter(PARA_OUT_TYPE, &outType), "record", "output type")) {
        return 1;
    }
    const std::set<fs::path> before = Recordings(o.dir);
    const std::atomic<bool>& interrupted = InterruptFlag();
    const auto start = std::chrono::steady_clock::now();
    if (!Check(dvs->Start(), "record", "start") ||
        !Check(dvs->StartSaving(o.dir.c_str()), "record", "recording")) {
        return 1;
    }
    auto onFull = +[](void* user) { static_cast<LinkNotices*>(user)->diskFull = true; };
    dvs->SetSavingNoneSpaceCbk(onFull, &link);

    FrameTally tally;
    std::unique_ptr<FramePoller> poller;
    if (o.process) {
        poller = std::make_unique<FramePoller>(dvs.get(), outType);
    }
    int reported = 0;
    while (!interrupted && Since(start) < o.camera.seconds && !link.diskFull) {
        if (!poller || !poller->Poll(tally)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (Since(start) >= reported + 1) {
            ++reported;
            std::printf("  %3d s  rate %s  recorded %s", reported, link.RateText().c_str(),
                        HumanBytes(static_cast<double>(SizeOf(Recordings(o.dir), before))).c_str());
            if (o.process) {
                std::printf("  frames %llu  dropped %lu of %lu packets",
                            static_cast<unsigned long long>(tally.frames.load()),
                            link.dropped.load(), link.offered.load());
            }
            std::printf("\n");
            std::fflush(stdout);
        }
    }
    const DVS_ERROR stopSaving = dvs->StopSaving();
    const double wall = Since(start);
    dvs->Stop();
    if (link.diskFull) {
        std::fprintf(stderr, "evcam record: the disk is full; recording stopped\n");
    }
    const std::set<fs::path> after = Recordings(o.dir);
    const uint64_t bytes = SizeOf(after, before);
    std::printf("recorded %.1f s into %s (%s)\n", wall, o.dir.c_str(),
                stopSaving == ERR_SUCCESS ? "complete" : GetErrorMsg(stopSaving));
    for (const auto& f : after) {
        if (before.count(f) == 0) {
            std::printf("  %s  %s\n", f.filename().c_str(),
                        HumanBytes(static_cast<double>(fs::file_size(f, ec))).c_str());
        }
    }
    std::printf("  written      %s, %s/s\n", HumanBytes(static_cast<double>(bytes)).c_str(),
                HumanBytes(wall > 0 ? static_cast<double>(bytes) / wall : 0).c_str());
    if (o.process) {
        std::printf("  frames       %llu, %llu packets dropped for processing\n",
                    static_cast<unsigned long long>(tally.frames.load()),
                    static_cast<unsigned long long>(link.droppedTotal.load()));
    }
    return link.diskFull ? 1 : 0;
}

}  // namespace

void AddRecordCommand(CLI::App& app, int* status) {
    auto options = std::make_shared<RecordOptions>();
    CLI::App* cmd = app.add_subcommand("record", "Record a camera's raw data into .dvs files");
    AddCameraOptions(*cmd, options->camera);
    cmd->add_option("--seconds", options->camera.seconds, "How long to record")
        ->required()
        ->check(CLI::PositiveNumber);
    cmd->add_flag("--process", options->process,
                  "Decode into frames while recording (frames are counted, not kept)");
    cmd->add_option("DIR", options->dir, "Directory for the recording")->required();
    cmd->callback([options, status] { *status = RunRecord(*options); });
}

}  // namespace evcam::tool
