#include "frame_options.h"

#include <cstdio>

#include "progress_line.h"

namespace evcam::tool {

void AddFrameOptions(CLI::App& cmd, FrameOptions& o) {
    auto* period =
        cmd.add_option("--period", o.period, "Frame period in ms")->check(CLI::Range(1, 1000));
    auto* events =
        cmd.add_option("--events", o.events, "Events per frame")->check(CLI::Range(1000, 300000));
    auto* ends = cmd.add_option("--frame-ends", o.frameEnds, "Sensor frame ends per frame")
                     ->check(CLI::Range(1, 100));
    period->excludes(events)->excludes(ends);
    events->excludes(ends);
    cmd.add_option("--out-type", o.outType, "OUT_TYPE mask 1..15 (8 = painted image)")
        ->check(CLI::Range(1, 15));
    cmd.add_option("--color", o.color, "rgb, yuv or gray")
        ->check(CLI::IsMember({"rgb", "yuv", "gray"}));
    cmd.add_flag("--callback", o.callback, "Deliver frames by callback instead of polling");
    auto* exp = cmd.add_option("--export", o.exportPrefix, "Export painted frames to PREFIX");
    cmd.add_option("--save-mode", o.saveMode, "1 images, 2 video")
        ->check(CLI::IsMember({1, 2}))
        ->needs(exp);
}

void FrameTally::Add(const DVSUIData* data, unsigned char count) {
    uint64_t n = 0;
    for (int i = 0; i < count; ++i) {
        n += data[i].mTotalEvents;
    }
    events += n;
    ++frames;
}

void FrameTally::OnFrame(DVSUIData* data, unsigned char count, void* user, int) {
    static_cast<FrameTally*>(user)->Add(data, count);
}

bool Check(DVS_ERROR rc, const char* command, const char* what) {
    if (rc != ERR_SUCCESS) {
        std::fprintf(stderr, "evcam %s: %s: %s (%d)\n", command, what, GetErrorMsg(rc),
                     static_cast<int>(rc));
        return false;
    }
    return true;
}

bool ApplyFrameOptions(DVS* dvs, const FrameOptions& o, FrameTally& tally, const char* command) {
    uint32_t outType = o.outType;
    uint32_t color = o.color == "yuv" ? COLOR_YUV : o.color == "gray" ? COLOR_GRAY : COLOR_RGB24;
    uint32_t frameMode = o.callback ? FRAME_MODE_CALLBACK : FRAME_MODE_POLLING;
    uint32_t period = o.period, events = o.events, frameEnds = o.frameEnds;
    return Check(dvs->SetParameter(PARA_OUT_TYPE, &outType), command, "output type") &&
           Check(dvs->SetParameter(PARA_COLOR_FORMAT, &color), command, "colour format") &&
           Check(dvs->SetParameter(PARA_FRAME_MODE, &frameMode), command, "frame mode") &&
           (period == 0 ||
            Check(dvs->SetParameter(PARA_FRAME_PERIOD, &period), command, "period")) &&
           (events == 0 ||
            Check(dvs->SetParameter(PARA_EVENT_COUNT, &events), command, "events")) &&
           (frameEnds == 0 ||
            Check(dvs->SetParameter(PARA_FRAME_END_COUNT, &frameEnds), command, "frame ends")) &&
           (!o.callback ||
            Check(dvs->SetCallBack(CALLBACK_FRAME, reinterpret_cast<void*>(&FrameTally::OnFrame),
                                   &tally),
                  command, "frame callback"));
}

FramePoller::FramePoller(DVS* dvs, uint32_t outType) : mDvs(dvs), mOutType(outType) {
    uint32_t version = 0;
    int32_t size[2] = {0, 0};
    dvs->GetParameter(PARA_VERSION, &version);
    dvs->GetParameter(PARA_RESOLUTION, size);
    for (DVSUIData& r : mRecords) {
        r.Initialize(static_cast<DVS_VERSION>(version), outType, size[0], size[1]);
    }
}

bool FramePoller::Poll(FrameTally& tally) {
    unsigned char count = 0;
    const DVS_ERROR rc = mDvs->GetFrame(static_cast<OUT_TYPE>(mOutType), mRecords, count);
    if (rc != ERR_SUCCESS && rc != ERR_TYPE_MISMATCH) {
        return false;
    }
    tally.Add(mRecords, count);
    return true;
}

void PrintFrameSummary(const FrameOptions& o, const FrameTally& tally, unsigned long decoded,
                       unsigned long sensorFrameEnds, uint64_t bytes, double wall) {
    const uint64_t frames = tally.frames.load();
    const uint64_t events = tally.events.load();
    std::printf("  frames       %llu (%s)\n", static_cast<unsigned long long>(frames),
                o.callback ? "callback" : "polling");
    std::printf("  events       %llu in frames, %lu decoded, %lu sensor frame ends\n",
                static_cast<unsigned long long>(events), decoded, sensorFrameEnds);
    std::printf("  bytes        %llu\n", static_cast<unsigned long long>(bytes));
    std::printf("  wall time    %.3f s\n", wall);
    if (wall > 0) {
        std::printf("  throughput   %s/s, %s ev/s, %.1f frames/s\n",
                    HumanBytes(static_cast<double>(bytes) / wall).c_str(),
                    HumanCount(static_cast<double>(events) / wall).c_str(),
                    static_cast<double>(frames) / wall);
    }
    if (!o.exportPrefix.empty()) {
        std::printf("  exported     %s (save mode %d)\n", o.exportPrefix.c_str(), o.saveMode);
    }
}

}  // namespace evcam::tool
