#include <sys/time.h>
#include <unistd.h>

#include "evcam/platform.h"

namespace evcam {

void DVSSleep(unsigned int ms) {
    if (ms == 0) {
        return;
    }
    usleep(static_cast<useconds_t>(ms) * 1000);
}

uint64_t DVSTime() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

int DVSLocalTimer(tm* out, long* time) {
    if (out == nullptr || time == nullptr) {
        return 1;
    }
    const time_t t = static_cast<time_t>(*time);
    localtime_r(&t, out);
    return 0;
}

}  // namespace evcam
