#include <gtest/gtest.h>

#include <vector>

#include "src/process/fill_color.h"

namespace evcam {
namespace {

constexpr int kWidth = 4;
constexpr int kHeight = 3;
constexpr size_t kBytes = kWidth * kHeight * 3;

using Painter = DVS_ERROR (FillColor::*)(DVSUIData*, const Event*, unsigned int,
                                         const DVSCommonColors*) const;

const DVSCommonColors kColors{{{{10, 20, 30, 99}}, {{40, 50, 60, 99}}, {{70, 80, 90, 99}}}};

// Events of polarities 0, 1 and -1 (background) paint pixels 0, 1 and 2; the unknown polarity 2
// at pixel 3 paints nothing and is reported. Only events take RGB24's reversed byte order; the
// background keeps the stored order, and grey takes one byte a pixel. The whole colour buffer
// is compared, so that stray writes show too.
TEST(FillColor, each_format_paints_background_and_events_in_its_own_byte_order) {
    const std::tuple<COLOR_FORMAT, Painter, std::vector<uint8_t>> cases[] = {
        {COLOR_RGB24, &FillColor::FillColorRGB24, {30, 20, 10, 60, 50, 40, 90, 80, 70, 70, 80, 90}},
        {COLOR_YUV, &FillColor::FillColorYUV, {10, 20, 30, 40, 50, 60, 70, 80, 90, 70, 80, 90}},
        {COLOR_GRAY, &FillColor::FillColorGray, {10, 40, 70, 70}}};
    ::testing::internal::CaptureStdout();
    for (const auto& [format, paint, painted] : cases) {
        DVSUIData image(MVT94QX, OUT_IMAGE, kWidth, kHeight);
        ASSERT_EQ(FillColor::GetInstance().FillBackGroundColor(&image, format, &kColors),
                  ERR_SUCCESS);
        unsigned int pixel = 0;
        for (int polarity : {0, 1, -1, 2}) {
            Event e;
            e.polarity = polarity;
            e.count = 1;
            EXPECT_EQ((FillColor::GetInstance().*paint)(&image, &e, pixel++, &kColors),
                      polarity == 2 ? ERR_PARA_ERROR : ERR_SUCCESS);
        }
        // The rest is background: three bytes a pixel, or one in grey.
        std::vector<uint8_t> expected = painted;
        const size_t size = format == COLOR_GRAY ? kBytes / 3 : kBytes;
        while (expected.size() < size) {
            expected.insert(expected.end(), painted.end() - (format == COLOR_GRAY ? 1 : 3),
                            painted.end());
        }
        expected.resize(kBytes, 0);
        EXPECT_EQ(std::vector<uint8_t>(image.mImgData, image.mImgData + kBytes), expected)
            << "format " << format;
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Error: Unknown polarity\nError: Unknown polarity\nError: Unknown polarity\n");
}

}  // namespace
}  // namespace evcam
