#include "progress_line.h"

#include <unistd.h>

#include <cstdio>

namespace evcam::tool {

ProgressLine::ProgressLine() : mEnabled(isatty(STDOUT_FILENO) == 1) {}

ProgressLine::~ProgressLine() {
    Clear();
}

void ProgressLine::Update(const std::string& text) {
    if (!mEnabled) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (mShown && now - mLast < std::chrono::milliseconds(100)) {
        return;
    }
    mLast = now;
    mShown = true;
    std::printf("\r\033[K%s", text.c_str());
    std::fflush(stdout);
}

void ProgressLine::Clear() {
    if (mShown) {
        std::printf("\r\033[K");
        std::fflush(stdout);
        mShown = false;
    }
}

namespace {
std::string Scaled(double value, const char* const* units, int count, double step) {
    int unit = 0;
    while (value >= step && unit + 1 < count) {
        value /= step;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f%s" : "%.2f%s", value, units[unit]);
    return text;
}
}  // namespace

std::string HumanBytes(double bytes) {
    static const char* const kUnits[] = {" B", " kB", " MB", " GB", " TB"};
    return Scaled(bytes, kUnits, 5, 1000.0);
}

std::string HumanCount(double count) {
    static const char* const kUnits[] = {"", " k", " M", " G"};
    return Scaled(count, kUnits, 4, 1000.0);
}

}  // namespace evcam::tool
