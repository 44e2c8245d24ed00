// evcam synth: writes a synthetic recording of a moving scene.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "progress_line.h"
#include "src/record/recording_format.h"
#include "src/sim/scene_generator.h"

namespace evcam::tool {

namespace {

struct SynthOptions {
    std::string out;
    std::string scene = "bar";
    double seconds = 2.0;
    double rate = 1e6;
    double frameRate = 100.0;
    bool stereo = false;
    uint32_t seed = 1;
};

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

int RunSynth(const SynthOptions& o) {
    SceneConfig config;
    if (ParseSceneKind(o.scene.c_str(), config.scene) != ERR_SUCCESS) {
        std::fprintf(stderr, "evcam synth: unknown scene '%s' (bar, disc, noise, still)\n",
                     o.scene.c_str());
        return 2;
    }
    config.eventRate = o.rate;
    config.frameEndRate = o.frameRate;
    config.stereo = o.stereo;
    config.seed = o.seed;
    SceneGenerator generator(config);

    std::unique_ptr<FILE, FileCloser> file(std::fopen(o.out.c_str(), "wb"));
    if (!file) {
        std::fprintf(stderr, "evcam synth: cannot create %s: %s\n", o.out.c_str(),
                     std::strerror(errno));
        return 1;
    }
    DVS_ERROR rc = WriteFileHeader(file.get(), generator.Version());
    const uint64_t totalUs = static_cast<uint64_t>(std::llround(o.seconds * 1e6));
    constexpr uint32_t kSpanUs = 10000;
    std::vector<uint8_t> chunk;
    uint64_t bytes = 0;
    ProgressLine progress;
    for (uint64_t doneUs = 0; rc == ERR_SUCCESS && doneUs < totalUs;) {
        const uint32_t span = static_cast<uint32_t>(std::min<uint64_t>(kSpanUs, totalUs - doneUs));
        chunk.clear();
        generator.Generate(span, chunk);
        if (std::fwrite(chunk.data(), 1, chunk.size(), file.get()) != chunk.size()) {
            rc = ERR_WRITE_FILE;
            break;
        }
        bytes += chunk.size();
        doneUs += span;
        progress.Update("synth " + std::to_string(100 * doneUs / totalUs) + "%  " +
                        HumanBytes(static_cast<double>(bytes)));
    }
    progress.Clear();
    if (rc == ERR_SUCCESS && std::fclose(file.release()) != 0) {
        rc = ERR_WRITE_FILE;
    }
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "evcam synth: %s: %s (%d)\n", o.out.c_str(), GetErrorMsg(rc),
                     static_cast<int>(rc));
        return 1;
    }
    std::printf("wrote %s\n", o.out.c_str());
    std::printf("  scene        %s%s\n", SceneKindName(config.scene), o.stereo ? ", stereo" : "");
    std::printf("  version      %s\n", Ver2StrMap.at(generator.Version()));
    std::printf("  body         %llu bytes\n", static_cast<unsigned long long>(bytes));
    std::printf("  events       %llu\n",
                static_cast<unsigned long long>(generator.EventsEmitted()));
    std::printf("  frame ends   %llu\n",
                static_cast<unsigned long long>(generator.FrameEndsEmitted()));
    std::printf("  sensor time  %.3f s\n", static_cast<double>(generator.ElapsedUs()) / 1e6);
    return 0;
}

}  // namespace

void AddSynthCommand(CLI::App& app, int* status) {
    auto options = std::make_shared<SynthOptions>();
    CLI::App* cmd = app.add_subcommand("synth", "Write a synthetic recording of a moving scene");
    cmd->add_option("OUT", options->out, "Recording to write (.dvs)")->required();
    cmd->add_option("--scene", options->scene, "bar, disc, noise or still")
        ->check(CLI::IsMember({"bar", "disc", "noise", "still"}));
    cmd->add_option("--seconds", options->seconds, "Sensor time to generate")
        ->check(CLI::Range(0.001, 3600.0));
    cmd->add_option("--rate", options->rate, "Pixel events per second")
        ->check(CLI::Range(0.0, 1e9));
    cmd->add_option("--frame-rate", options->frameRate, "Sensor frame ends per second")
        ->check(CLI::Range(0.0, 100000.0));
    cmd->add_flag("--stereo", options->stereo, "Two sensors (stereo version)");
    cmd->add_option("--seed", options->seed, "Seed of the noise");
    cmd->callback([options, status] { *status = RunSynth(*options); });
}

}  // namespace evcam::tool
