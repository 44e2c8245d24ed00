// The kit's shared vocabulary: enumerations, error codes and their messages.
// The numeric values are part of the public interface and never change.
#ifndef EVCAM_DVS_ERROR_H
#define EVCAM_DVS_ERROR_H

#include <cstdint>
#include <map>

#include "evcam/export.h"

namespace evcam {

/// Kind of object made by DVSManager::CreateDVS; for a device it also picks the transport.
enum DVS_TYPE : int32_t {
    DVS_FX20 = 0,  ///< live camera behind an FX20 controller
    DVS_FX3 = 1,   ///< live camera behind an FX3 controller
    DVS_FILE = 2,  ///< playback of a recording file
};

/// Sensor generation. Bit 4 (value 16) marks the stereo variant: test it with IsStereoVersion().
enum DVS_VERSION : int32_t {
    SELECT_VERSION = 0,   ///< nothing known yet
    MVT94QX = 1,          ///< single sensor, 960 x 720
    MVT94QX_STEREO = 17,  ///< two sensors, each 960 x 720
};

/// Bit mask of the forms a frame carries; a valid mask is 1..15.
enum OUT_TYPE : uint32_t {
    OUT_EVENTS = 1,        ///< list of the frame's events
    OUT_POLARITY = 2,      ///< polarity image, one byte per pixel
    OUT_TIME_SURFACE = 4,  ///< last time stamp per pixel and polarity
    OUT_IMAGE = 8,         ///< painted colour image
};

/// Parameter selector of DVS::SetParameter / DVS::GetParameter. The void* points to caller
/// memory of the type noted.
enum PARA_TYPE : uint32_t {
    PARA_BIAS_FILE = 0,         ///< const char*: bias settings file (device)
    PARA_PPX = 1,               ///< uint32 1..512: transfer size unit count
    PARA_PACKET_COUNT = 2,      ///< uint32: packets in the packet buffer
    PARA_FILE_PATH = 3,         ///< const char*: recording to play (file)
    PARA_TIMEOUT = 4,           ///< uint32 1..10000: USB time-out in ms (device)
    PARA_FRAME_PERIOD = 5,      ///< uint32 1..1000: frame period in ms
    PARA_OUT_TYPE = 6,          ///< uint32 OUT_TYPE mask 1..15
    PARA_FRAME_MODE = 7,        ///< uint32 FRAME_MODE
    PARA_FILE_VALID = 8,        ///< one byte: 1 if the bound file checks valid (file)
    PARA_VERSION = 9,           ///< uint32 DVS_VERSION
    PARA_SENSOR_COUNT = 10,     ///< uint32: 1, or 2 for stereo (device)
    PARA_RESOLUTION = 11,       ///< two int32: width 1..960, height 1..720
    PARA_SENSOR_SIZE = 12,      ///< two int32: native width and height
    PARA_EVENT_COUNT = 13,      ///< uint32 1000..300000: events per frame
    PARA_FRAME_END_COUNT = 14,  ///< uint32 1..100: sensor frame ends per frame
    PARA_WORK_MODE = 15,        ///< uint32: device 0..1, file 2..5
    PARA_COLOR_FORMAT = 16,     ///< uint32 COLOR_FORMAT
    PARA_COLORS = 17,           ///< DVSCommonColors (12 bytes)
    PARA_FILE_PERCENT = 18,     ///< float 0.0..1.0: playback position as a fraction of the file
    PARA_PLAY_MODE = 19,        ///< PLAY_MODE (file)
    PARA_PARSED_BYTES = 20,     ///< uint64: raw bytes parsed since reset (file)
};

/// Callback selector of DVS::SetCallBack; see the typedefs in evcam/dvs.h for the signatures.
enum CALLBACK_TYPE : uint32_t {
    CALLBACK_FRAME = 0,
    CALLBACK_READ_OVER = 1,
    CALLBACK_USB_DATA_RATE = 2,
    CALLBACK_FRAME_RATE = 3,
    CALLBACK_PKT_BUF_DROP = 4,
    CALLBACK_RAW_FPS = 5,
    CALLBACK_TOTAL_COUNT = 6,
};

/// Pixel format of the painted image.
enum COLOR_FORMAT : uint32_t {
    COLOR_RGB24 = 0,
    COLOR_YUV = 1,
    COLOR_GRAY = 2,
};

/// How frames reach the caller.
enum FRAME_MODE : uint32_t {
    FRAME_MODE_POLLING = 0,   ///< the caller calls GetFrame / DropFrame
    FRAME_MODE_CALLBACK = 1,  ///< a timer calls the frame callback
};

/// What file playback does at the end of the file.
enum PLAY_MODE : uint32_t {
    PLAY_LOOP = 0,  ///< start again at the first data byte
    PLAY_ONCE = 1,  ///< stop and call the read-over callback
};

/// Result of nearly every operation; 0 is success.
enum DVS_ERROR : int32_t {
    ERR_SUCCESS = 0,
    ERR_PARA_ERROR = 1,
    ERR_NOT_START = 2,
    ERR_DATASAVE_NOT_READY = 3,
    ERR_ALREADY_DONE = 4,
    ERR_NO_BIAS_FILE = 5,
    ERR_NO_PACKET_BUFFER = 6,
    ERR_NO_UIDATA_BUFFER = 7,
    ERR_BUFFER_INIT = 8,
    ERR_INVALID_BUFFER = 9,
    ERR_NOT_SUPPORT = 10,
    ERR_NO_SPECIFIED_DATA = 11,
    ERR_NO_DATA = 12,
    ERR_CREATE_TIMER = 13,
    ERR_TIMEOUT = 14,
    ERR_TYPE_MISMATCH = 15,
    ERR_TIMER_LIMIT = 16,
    ERR_FRAME_MODE = 17,
    ERR_NOT_INITIALIZED = 18,
    ERR_NO_FREE_NODE = 19,
    ERR_READ_DATA = 20,
    ERR_FUNCTION_DISABLED = 21,
    ERR_UNKNOWN_VERSION = 22,
    ERR_NO_FILE = 23,
    ERR_FILE_OPEN = 24,
    ERR_NULL_NODE = 25,
    ERR_DEVICE_IN_USE = 100,
    ERR_INVALID_DEVICE = 101,
    ERR_NO_DEVICE = 102,
    ERR_TOO_MANY_DEVICES = 103,
    ERR_OPEN_USB = 104,
    ERR_I2C_WRITE = 105,
    ERR_I2C_READ = 106,
    ERR_TRANSFER = 107,
    ERR_NO_SETTING_FILE = 200,
    ERR_RUNNING = 201,
    ERR_OPEN_FILE = 202,
    ERR_CREATE_FILE = 203,
    ERR_WRITE_FILE = 204,
    ERR_READ_FILE = 205,
    ERR_SAVE_DATA = 206,
    ERR_INVALID_FILE = 207,
    ERR_SEEK_FILE = 208,
    ERR_NO_SPACE = 209,
    ERR_START_SEPARATOR = 210,
    ERR_STOP_SEPARATOR = 211,
    ERR_START_PARSER = 212,
    ERR_STOP_PARSER = 213,
    ERR_INVALID_ALGORITHM = 214,
    ERR_SELECT_ALGORITHM = 215,
    ERR_UNSELECT_ALGORITHM = 216,
    ERR_OUT_OF_RANGE = 217,
};

/// One row of the message table: a code and a fixed, NUL-padded 256-byte message.
struct ErrorMsgRow {
    int32_t code;
    char msg[256];
};

/// Number of rows of CommonErrorMsg.
constexpr int kErrorMsgCount = 52;

/// The message table, searched in this order by GetErrorMsg.
EVCAM_API extern const ErrorMsgRow CommonErrorMsg[kErrorMsgCount];

/// Message of an error code.
/// @return constant text owned by the library; "Unknown error" for a code outside the table.
///         Never fails, never allocates, callable from any thread.
EVCAM_API const char* GetErrorMsg(DVS_ERROR code);

/// Native (width, height) per version number; (0, 0) marks an unknown version.
constexpr int kVersionTableSize = 32;
EVCAM_API extern const int32_t IMAGESIZE[kVersionTableSize][2];

/// Version names used in file names and messages.
inline const std::map<int, const char*> Ver2StrMap = {
    {SELECT_VERSION, "SELECT_VERSION"},
    {MVT94QX, "MVT94QX"},
    {MVT94QX_STEREO, "MVT94QX_STEREO"},
};

/// True when the version carries the stereo bit (value 16).
constexpr bool IsStereoVersion(int version) {
    return (version & 16) != 0;
}

/// True when the version is one the kit decodes (1 or 17).
constexpr bool IsKnownVersion(int version) {
    return version == MVT94QX || version == MVT94QX_STEREO;
}

/// Native size of a version through IMAGESIZE; (0, 0) for unknown or out-of-table versions.
EVCAM_API void GetVersionSize(int version, int32_t& width, int32_t& height);

}  // namespace evcam

#endif  // EVCAM_DVS_ERROR_H
