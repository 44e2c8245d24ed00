#include "src/sim/sim_config.h"

#include <cstdint>
#include <limits>

#include "src/sim/scene_generator.h"

namespace evcam {

namespace {

constexpr int kMaxBus = 255;
constexpr int kMaxAddress = 127;
constexpr int kMaxPacket = 1024;

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::string();
    }
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

// Plain decimal digits only: a sign, blanks or a fraction make the value malformed.
bool ParseNumber(const std::string& text, uint64_t max, uint64_t& value) {
    if (text.empty() || text.size() > 20) {
        return false;
    }
    uint64_t result = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (result > (max - digit) / 10) {
            return false;
        }
        result = result * 10 + digit;
    }
    value = result;
    return true;
}

bool ParseInt(const std::string& text, int min, int max, int& value) {
    uint64_t number = 0;
    if (!ParseNumber(text, static_cast<uint64_t>(max), number) ||
        number < static_cast<uint64_t>(min)) {
        return false;
    }
    value = static_cast<int>(number);
    return true;
}

// Applies one key to config. @return false for a value the key does not accept; unknown
// keys are the caller's.
bool ApplySetting(const std::string& key, const std::string& value, sim::CameraConfig& config) {
    if (key == "bus") {
        return ParseInt(value, 1, kMaxBus, config.bus);
    }
    if (key == "addr") {
        return ParseInt(value, 1, kMaxAddress, config.address);
    }
    if (key == "pkt") {
        if (!ParseInt(value, 0, kMaxPacket, config.maxPacketSize)) {
            return false;
        }
        if (config.maxPacketSize == 0) {
            config.maxPacketSize = sim::kZeroPacketSize;
        }
        return true;
    }
    if (key == "scene") {
        SceneKind scene;
        if (ParseSceneKind(value.c_str(), scene) != ERR_SUCCESS) {
            return false;
        }
        config.scene = value;
        return true;
    }
    if (key == "file") {
        config.file = value;
        return !value.empty();
    }
    if (key == "rate") {
        return ParseNumber(value, sim::kMaxByteRate, config.byteRate);
    }
    if (key == "stereo") {
        if (value != "0" && value != "1") {
            return false;
        }
        config.stereo = value == "1";
        return true;
    }
    if (key == "unplug_ms") {
        return ParseInt(value, 0, std::numeric_limits<int>::max(), config.unplugAfterMs);
    }
    return false;
}

bool KnownKey(const std::string& key) {
    static const char* const kKeys[] = {"bus",  "addr", "pkt",    "scene",
                                        "file", "rate", "stereo", "unplug_ms"};
    for (const char* known : kKeys) {
        if (key == known) {
            return true;
        }
    }
    return false;
}

bool ParseCamera(const std::string& text, int number, sim::CameraConfig& config,
                 std::string& error) {
    const std::string where = " in camera " + std::to_string(number);
    const size_t colon = text.find(':');
    const std::string kind = Trim(text.substr(0, colon));
    if (kind == "fx20") {
        config.kind = sim::Kind::kFX20;
    } else if (kind == "fx3") {
        config.kind = sim::Kind::kFX3;
    } else {
        error = "unknown kind '" + kind + "'" + where + " (fx20 or fx3)";
        return false;
    }
    if (colon == std::string::npos) {
        return true;
    }
    std::vector<std::string> seen;
    for (const std::string& rawSetting : Split(text.substr(colon + 1), ',')) {
        const std::string setting = Trim(rawSetting);
        const size_t equals = setting.find('=');
        const std::string key = Trim(setting.substr(0, equals));
        if (key.empty()) {
            error = "empty setting" + where;
            return false;
        }
        if (!KnownKey(key)) {
            error = "unknown key '" + key + "'" + where;
            return false;
        }
        if (equals == std::string::npos) {
            error = "missing value for key '" + key + "'" + where;
            return false;
        }
        for (const std::string& earlier : seen) {
            if (earlier == key) {
                error = "key '" + key + "' given twice" + where;
                return false;
            }
        }
        seen.push_back(key);
        const std::string value = Trim(setting.substr(equals + 1));
        if (!ApplySetting(key, value, config)) {
            error = "bad value '" + value + "' for key '" + key + "'" + where;
            return false;
        }
    }
    return true;
}

}  // namespace

bool ParseSimSpec(const char* spec, std::vector<sim::CameraConfig>& cameras, std::string& error) {
    cameras.clear();
    if (spec == nullptr) {
        error = std::string(kSimEnvironmentVariable) + ": no spec given";
        return false;
    }
    int number = 0;
    for (const std::string& rawCamera : Split(spec, ';')) {
        const std::string text = Trim(rawCamera);
        if (text.empty()) {
            continue;
        }
        sim::CameraConfig config;
        std::string why;
        if (!ParseCamera(text, ++number, config, why)) {
            cameras.clear();
            error = std::string(kSimEnvironmentVariable) + ": " + why;
            return false;
        }
        cameras.push_back(config);
    }
    return true;
}

}  // namespace evcam
