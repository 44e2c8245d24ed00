#include "src/stream/bias_file.h"

#include <cstdint>
#include <cstring>

namespace evcam {
namespace bias {

namespace {

// Locale-free: a bias file means the same on every host.
bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool IsSeparator(char c) {
    return c == ':' || c == '=' || c == ' ' || c == '\t';
}

bool EndsLine(char c) {
    return c == '\r' || c == '\n' || c == '/';
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

char Lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Reads digits of one base from s[*pos] on; unsigned so that long runs wrap instead of
// overflowing.
template <typename DigitOf>
int ReadDigits(char* s, int* pos, uint32_t base, DigitOf digitOf) {
    if (s == nullptr || pos == nullptr) {
        return 0;
    }
    uint32_t value = 0;
    int i = *pos;
    for (int d = digitOf(s[i]); d >= 0; d = digitOf(s[++i])) {
        value = value * base + static_cast<uint32_t>(d);
    }
    *pos = i;
    return static_cast<int>(value);
}

}  // namespace

void strtrim(char* s) {
    if (s == nullptr) {
        return;
    }
    size_t end = std::strlen(s);
    while (end > 0 && IsBlank(s[end - 1])) {
        --end;
    }
    size_t begin = 0;
    while (begin < end && IsBlank(s[begin])) {
        ++begin;
    }
    std::memmove(s, s + begin, end - begin);
    s[end - begin] = '\0';
}

int htoi(char* s, int* pos) {
    return ReadDigits(s, pos, 16, HexDigit);
}

int atoi(char* s, int* pos) {
    return ReadDigits(s, pos, 10, [](char c) { return (c >= '0' && c <= '9') ? c - '0' : -1; });
}

int parseString(char* line, int* slave, int* reg, int* value) {
    if (line == nullptr || slave == nullptr || reg == nullptr || value == nullptr) {
        return kParseUnusable;
    }
    int fields[3] = {0, 0, 0};
    int numbers = 0;  // numbers read so far; the third and later all land in the value
    bool wait = false;
    const int len = static_cast<int>(std::strlen(line));
    int pos = 0;
    while (pos < len) {
        const char c = line[pos];
        if (EndsLine(c)) {
            break;
        }
        if (IsSeparator(c)) {
            ++pos;
            continue;
        }
        if (HexDigit(c) >= 0) {
            fields[numbers < 2 ? numbers : 2] = htoi(line, &pos);
            ++numbers;
            // Existing files rely on the character after a number being skipped unseen.
            ++pos;
            continue;
        }
        if (Lower(c) != 'w') {
            return kParseUnusable;
        }
        if (Lower(line[pos + 1]) != 'a' || Lower(line[pos + 2]) != 'i' ||
            Lower(line[pos + 3]) != 't') {
            return kParseUnusable;
        }
        // The delay is read from the letter t itself and so is always 0: a wait line's pause
        // comes from the numbers around the word, as existing files expect.
        pos += 3;
        fields[2] = atoi(line, &pos);
        ++pos;
        wait = true;
    }
    *slave = fields[0];
    *reg = fields[1];
    *value = fields[2];
    if (wait) {
        return kParseWait;
    }
    switch (numbers) {
        case 0:
            return kParseEmpty;
        case 1:
            return kParseSlaveOnly;
        case 2:
            return kParseNoValue;
        default:
            return kParseRegister;
    }
}

}  // namespace bias
}  // namespace evcam
