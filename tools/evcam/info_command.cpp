// evcam info: what a recording holds, by its header, the reader's verdict and decoding.
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>

#include "commands.h"
#include "progress_line.h"
#include "src/data/dvs_packet.h"
#include "src/process/packet_parser.h"
#include "src/record/recording_format.h"

namespace evcam::tool {

namespace {

struct InfoOptions {
    std::string path;
    int version = 0;
};

// Decoded content, with time stamps unwrapped across the sensor clock's wrap.
struct DecodeStats {
    uint64_t events = 0;
    uint64_t frames = 0;
    bool any = false;
    uint64_t first = 0;
    uint64_t last = 0;
    uint64_t wrapOffset = 0;
    uint32_t prev = 0;

    static DVS_ERROR OnEvent(Event* e, void* user) {
        auto* s = static_cast<DecodeStats*>(user);
        if (e->type == 2) {
            ++s->frames;
            return ERR_SUCCESS;
        }
        s->events += e->count;
        // A jump back of more than half the clock is the wrap, not disorder.
        if (s->any && e->timestamp + kSensorMsWrap * 500ull < s->prev) {
            s->wrapOffset += kSensorMsWrap * 1000ull;
        }
        s->prev = e->timestamp;
        const uint64_t t = s->wrapOffset + e->timestamp;
        if (!s->any) {
            s->first = t;
            s->any = true;
        }
        s->last = t;
        return ERR_SUCCESS;
    }
};

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

void PrintHeaderWords(FILE* file, int words) {
    for (int i = 0; i < words; ++i) {
        unsigned char w[4];
        if (std::fread(w, 1, 4, file) != 4) {
            return;
        }
        std::printf("  header[%d]    %02X %02X %02X %02X\n", i, w[0], w[1], w[2], w[3]);
    }
}

int RunInfo(const InfoOptions& o) {
    struct stat st {};
    if (stat(o.path.c_str(), &st) != 0) {
        std::fprintf(stderr, "evcam info: cannot open %s\n", o.path.c_str());
        return 1;
    }
    RecordingHeader header;
    header.version = static_cast<DVS_VERSION>(o.version);
    const bool recording = IsRecordingPath(o.path.c_str());
    const DVS_ERROR verdict = CheckRecordingFile(o.path.c_str(), header);
    const int64_t dataStart = recording ? header.headerWords * 4 : 0;

    std::printf("%s\n", o.path.c_str());
    std::printf("  kind         %s\n", recording ? "recording (.dvs header)" : "headerless dump");
    const auto name = Ver2StrMap.find(header.version);
    std::printf("  version      %d (%s)\n", static_cast<int>(header.version),
                name != Ver2StrMap.end() ? name->second : "unknown");
    std::printf("  file size    %lld bytes\n", static_cast<long long>(st.st_size));
    std::printf("  data start   %lld\n", static_cast<long long>(dataStart));
    std::printf("  body size    %lld bytes\n", static_cast<long long>(st.st_size - dataStart));
    std::unique_ptr<FILE, FileCloser> file(std::fopen(o.path.c_str(), "rb"));
    if (recording && file) {
        PrintHeaderWords(file.get(), header.headerWords);
    }
    std::printf("  verdict      %d %s\n", static_cast<int>(verdict), GetErrorMsg(verdict));
    if (!file || !IsKnownVersion(header.version)) {
        std::printf("  (not decoded: %s)\n",
                    file ? "unknown version; give --version for a headerless dump" : "cannot open");
        return verdict == ERR_SUCCESS ? 0 : 1;
    }

    DecodeStats stats;
    PacketParser parser;
    parser.SetAddEventCallBack(&DecodeStats::OnEvent, &stats);
    constexpr int kChunk = 1 << 20;
    DVSPacket packet(kChunk);
    std::fseek(file.get(), static_cast<long>(dataStart), SEEK_SET);
    ProgressLine progress;
    uint64_t done = 0;
    const double body = static_cast<double>(st.st_size - dataStart);
    size_t n;
    while ((n = std::fread(packet.mData, 1, kChunk, file.get())) > 0) {
        packet.mDataLen = static_cast<int32_t>(n);
        packet.mVersion = header.version;
        packet.mDVSID = kFileDVSID;
        parser.ProcessDataByVersion(&packet);
        done += n;
        progress.Update("decoding " + std::to_string(static_cast<int>(100.0 * done / body)) + "%");
    }
    progress.Clear();
    const double seconds = static_cast<double>(stats.last - stats.first) / 1e6;
    std::printf("  events       %llu\n", static_cast<unsigned long long>(stats.events));
    std::printf("  frame ends   %llu\n", static_cast<unsigned long long>(stats.frames));
    std::printf("  first stamp  %llu us\n", static_cast<unsigned long long>(stats.first));
    std::printf("  last stamp   %llu us\n",
                static_cast<unsigned long long>(stats.last % (kSensorMsWrap * 1000ull)));
    std::printf("  duration     %.6f s\n", seconds);
    std::printf(
        "  event rate   %s ev/s\n",
        seconds > 0 ? HumanCount(static_cast<double>(stats.events) / seconds).c_str() : "n/a");
    return verdict == ERR_SUCCESS ? 0 : 1;
}

}  // namespace

void AddInfoCommand(CLI::App& app, int* status) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* cmd = app.add_subcommand("info", "Describe a recording and decode it");
    cmd->add_option("FILE", options->path, "Recording (.dvs) or headerless dump")->required();
    cmd->add_option("--version", options->version, "Sensor version of a headerless dump (1, 17)")
        ->check(CLI::IsMember({1, 17}));
    cmd->callback([options, status] { *status = RunInfo(*options); });
}

}  // namespace evcam::tool
