// The error table and the version vocabulary as a caller sees them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "evcam/evcam.h"

namespace evcam {
namespace {

// The whole table in search order: a renumbered code or a changed message breaks callers.
const std::vector<std::pair<int, const char*>> kExpected = {
    {0, "Success."},
    {1, "Input argument error."},
    {2, "System is not started."},
    {3, "DataSave object is not ready."},
    {4, "The specified operation has been done."},
    {5, "Bias file is not set for this device."},
    {6, "PacketBuffer is not set."},
    {7, "UIDataBuffer is not set."},
    {8, "Failed to initialize buffer."},
    {9, "Invalid buffer."},
    {10, "Non-support operation."},
    {11, "Data of the specified type has not been produced."},
    {12, "No data found."},
    {13, "Failed to create timer."},
    {14, "Time out."},
    {15, "Failed to copy data because data type does not match."},
    {16, "Failed to create callback timer: callback count limit exceeded."},
    {17, "Frame mode error: call GetFrame() only for polling mode."},
    {18, "Some parameter has not been initialized."},
    {19, "No free node in buffer list."},
    {20, "Read data error occurred."},
    {21, "Function is disabled."},
    {22, "Unknown version."},
    {23, "No file is binded."},
    {24, "File is open."},
    {25, "Data node pointer is null."},
    {100, "Operation is forbidden while the device is in-use."},
    {101, "Invalid device. The device is not DVS device or specified device ID is illegal."},
    {102, "No device found."},
    {103, "The number of devices exceeded the maximum limits."},
    {104, "Failed to open USB."},
    {105, "Failed to write register through I2C."},
    {106, "Failed to read register value through I2C."},
    {107, "Data transfer failed."},
    {200, "Setting file was not found."},
    {201, "Operation is forbidden while system is running."},
    {202, "Failed to open file."},
    {203, "Failed to create file."},
    {204, "Failed to write data to file."},
    {205, "Failed to read data from file."},
    {206, "Failed to save sensor data."},
    {207, "Invalid file."},
    {208, "Failed to seek file."},
    {209, "No space available on the disk."},
    {210, "Start separator failed."},
    {211, "Stop separator failed."},
    {212, "Start parser failed."},
    {213, "Stop parser failed."},
    {214, "Invalid algorithm."},
    {215, "Algorithm selection error."},
    {216, "Algorithm unselection error."},
    {217, "Out of range."},
};

TEST(ErrorTable, rows_are_nul_padded_260_byte_records_in_order_and_others_are_unknown) {
    ASSERT_EQ(kExpected.size(), static_cast<size_t>(kErrorMsgCount));
    EXPECT_EQ(sizeof(ErrorMsgRow), 260u);
    for (int i = 0; i < kErrorMsgCount; ++i) {
        const ErrorMsgRow& row = CommonErrorMsg[i];
        EXPECT_EQ(row.code, kExpected[i].first);
        EXPECT_STREQ(row.msg, kExpected[i].second);
        EXPECT_STREQ(GetErrorMsg(static_cast<DVS_ERROR>(kExpected[i].first)), kExpected[i].second);
        EXPECT_TRUE(std::all_of(row.msg + std::strlen(row.msg), std::end(row.msg), [](char c) {
            return c == '\0';
        })) << row.code;
    }
    for (int code : {26, 99, -1, 108, 199, 218, 1000, INT32_MIN, INT32_MAX}) {
        EXPECT_STREQ(GetErrorMsg(static_cast<DVS_ERROR>(code)), "Unknown error") << code;
    }
    // Callers compiled against these values break if one is renumbered.
    EXPECT_EQ((std::vector<int>{ERR_NO_FILE, ERR_OUT_OF_RANGE, DVS_FILE, MVT94QX_STEREO, OUT_IMAGE,
                                PARA_PARSED_BYTES, CALLBACK_TOTAL_COUNT, COLOR_GRAY,
                                FRAME_MODE_CALLBACK, PLAY_ONCE}),
              (std::vector<int>{23, 217, 2, 17, 8, 20, 6, 2, 1, 1}));
}

TEST(Versions, only_mono_and_stereo_have_a_size_bit_16_is_stereo_and_three_have_names) {
    for (int v = -3; v <= kVersionTableSize; ++v) {
        int32_t w = -1, h = -1;
        GetVersionSize(v, w, h);
        const bool known = v == 1 || v == 17;
        EXPECT_EQ(std::make_pair(w, h), std::make_pair(known ? 960 : 0, known ? 720 : 0)) << v;
        if (v >= 0 && v < kVersionTableSize) {
            EXPECT_EQ(std::make_pair(IMAGESIZE[v][0], IMAGESIZE[v][1]), std::make_pair(w, h)) << v;
        }
    }
    EXPECT_TRUE(IsStereoVersion(MVT94QX_STEREO));
    EXPECT_FALSE(IsStereoVersion(MVT94QX));
    ASSERT_EQ(Ver2StrMap.size(), 3u);
    EXPECT_STREQ(Ver2StrMap.at(0), "SELECT_VERSION");
    EXPECT_STREQ(Ver2StrMap.at(1), "MVT94QX");
    EXPECT_STREQ(Ver2StrMap.at(17), "MVT94QX_STEREO");
}

}  // namespace
}  // namespace evcam
