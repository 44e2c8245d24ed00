// The error table and the version vocabulary as a caller sees them.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "evcam/evcam.h"

namespace evcam {
namespace {

// The whole table in search order: a renumbered code or a changed message breaks callers.
const std::vector<std::pair<int, std::string>> kExpected = {
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

TEST(ErrorTable, every_row_has_its_exact_code_and_message_in_order) {
    ASSERT_EQ(kExpected.size(), static_cast<size_t>(kErrorMsgCount));
    for (int i = 0; i < kErrorMsgCount; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(CommonErrorMsg[i].code, kExpected[i].first);
        EXPECT_STREQ(CommonErrorMsg[i].msg, kExpected[i].second.c_str());
        EXPECT_STREQ(GetErrorMsg(static_cast<DVS_ERROR>(kExpected[i].first)),
                     kExpected[i].second.c_str());
    }
}

TEST(ErrorTable, rows_are_fixed_260_byte_records_padded_with_nul) {
    EXPECT_EQ(sizeof(ErrorMsgRow), 260u);
    for (const ErrorMsgRow& row : CommonErrorMsg) {
        const size_t len = std::strlen(row.msg);
        for (size_t i = len; i < sizeof(row.msg); ++i) {
            ASSERT_EQ(row.msg[i], '\0') << row.code;
        }
    }
}

TEST(ErrorTable, unknown_codes_give_unknown_error_without_full_stop) {
    for (int code : {26, 99, -1, 108, 199, 218, 1000, INT32_MIN, INT32_MAX}) {
        EXPECT_STREQ(GetErrorMsg(static_cast<DVS_ERROR>(code)), "Unknown error") << code;
    }
}

TEST(ErrorTable, enumerators_keep_their_values) {
    EXPECT_EQ(ERR_NO_FILE, 23);
    EXPECT_STREQ(GetErrorMsg(ERR_NO_FILE), "No file is binded.");
    EXPECT_EQ(ERR_OUT_OF_RANGE, 217);
    EXPECT_EQ(DVS_FILE, 2);
    EXPECT_EQ(MVT94QX_STEREO, 17);
    EXPECT_EQ(OUT_IMAGE, 8u);
    EXPECT_EQ(PARA_PARSED_BYTES, 20u);
    EXPECT_EQ(CALLBACK_TOTAL_COUNT, 6u);
    EXPECT_EQ(COLOR_GRAY, 2u);
    EXPECT_EQ(FRAME_MODE_CALLBACK, 1u);
    EXPECT_EQ(PLAY_ONCE, 1u);
}

TEST(Versions, native_size_is_known_only_for_mono_and_stereo) {
    for (int v = 0; v < kVersionTableSize; ++v) {
        int32_t w = -1, h = -1;
        GetVersionSize(v, w, h);
        EXPECT_EQ(w, IMAGESIZE[v][0]);
        EXPECT_EQ(h, IMAGESIZE[v][1]);
        if (v == 1 || v == 17) {
            EXPECT_EQ(w, 960);
            EXPECT_EQ(h, 720);
        } else {
            EXPECT_EQ(w, 0) << v;
            EXPECT_EQ(h, 0) << v;
        }
    }
    int32_t w = -1, h = -1;
    GetVersionSize(-3, w, h);
    EXPECT_EQ(w, 0);
    GetVersionSize(kVersionTableSize, w, h);
    EXPECT_EQ(h, 0);
}

TEST(Versions, stereo_is_the_bit_of_value_16_and_names_map_three_versions) {
    EXPECT_TRUE(IsStereoVersion(MVT94QX_STEREO));
    EXPECT_FALSE(IsStereoVersion(MVT94QX));
    ASSERT_EQ(Ver2StrMap.size(), 3u);
    EXPECT_STREQ(Ver2StrMap.at(0), "SELECT_VERSION");
    EXPECT_STREQ(Ver2StrMap.at(1), "MVT94QX");
    EXPECT_STREQ(Ver2StrMap.at(17), "MVT94QX_STEREO");
}

}  // namespace
}  // namespace evcam
