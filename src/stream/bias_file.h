// Bias settings files: the record their header check fills and the line parser that turns a
// line into a register write or a pause.
#ifndef EVCAM_SRC_STREAM_BIAS_FILE_H
#define EVCAM_SRC_STREAM_BIAS_FILE_H

#include "evcam/dvs_error.h"

namespace evcam {

/// Room for a path or a description, terminator included.
constexpr int kBiasTextSize = 260;

/// What the header of a bias settings file says. Plain data, owned by the caller.
struct BiasFileItem {
    DVS_VERSION dvsVersion = SELECT_VERSION;  ///< 1, or 17 with "//@ Stereo"; 0 before
    bool isCDVS = false;                      ///< a "//@ CDVS" line was seen
    char description[kBiasTextSize] = {};     ///< text after "//@ Description ", cut to fit
    char filePath[kBiasTextSize] = {};        ///< set by the caller before the check
};

// The helpers live in a namespace of their own so that their atoi never hides the standard
// one from other code of the kit.
namespace bias {

/// What parseString found on a line.
enum ParseResult : int {
    kParseUnusable = -1,  ///< a character outside the grammar, or a "w" not followed by "ait"
    kParseRegister = 1,   ///< slave address, register address and value
    kParseWait = 2,       ///< a wait line; the pause in ms is the value
    kParseEmpty = 10,     ///< no number: empty line or comment
    kParseSlaveOnly = 11,
    kParseNoValue = 12,
};

/// Removes blanks, tabs, carriage returns and line feeds at both ends of s, in place. Nothing
/// for null. Any thread; no allocation.
void strtrim(char* s);

/// Reads hexadecimal digits of s from index *pos, wrapping at 32 bits, and leaves *pos on the
/// first character after them. @return the number, 0 when there are no digits or for a null
/// argument (then *pos is left as it was).
int htoi(char* s, int* pos);

/// The same for decimal digits: 0 and *pos unchanged when s[*pos] is not a digit.
int atoi(char* s, int* pos);

/// Parses one line of a bias settings file: hexadecimal numbers (slave address, register
/// address, value; later numbers replace the value) between separators ":", "=", blank and
/// tab, up to the end, a line feed, a carriage return or a "/" (comments). The character after
/// each number is skipped unseen, so "0x20" reads as 0 and 20. "wait" (any case) makes a wait
/// line and sets the value to 0; later numbers go on filling the field that was being filled
/// when it came, so "0 0 wait 64" pauses 0x64 ms and "wait 64" pauses 0 ms.
/// slave, reg and value receive the fields found (0 for the others); an unusable line leaves
/// them untouched.
/// @return a ParseResult; kParseUnusable when an argument is null. Any thread.
int parseString(char* line, int* slave, int* reg, int* value);

}  // namespace bias
}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_BIAS_FILE_H
