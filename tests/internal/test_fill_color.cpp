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

// The whole colour buffer, so that stray writes show too.
std::vector<uint8_t> Bytes(const DVSUIData& d) {
    return {d.mImgData, d.mImgData + kBytes};
}

std::vector<uint8_t> Padded(std::vector<uint8_t> v) {
    v.resize(kBytes, 0);
    return v;
}

// Polarities 0, 1 and -1 (background) at pixels 0, 1 and 2; the unknown polarity 2 at pixel 3.
TEST(FillColor, each_format_paints_events_in_its_byte_order_and_skips_unknown_polarity) {
    const std::pair<Painter, std::vector<uint8_t>> cases[] = {
        {&FillColor::FillColorRGB24, {30, 20, 10, 60, 50, 40, 90, 80, 70}},
        {&FillColor::FillColorYUV, {10, 20, 30, 40, 50, 60, 70, 80, 90}},
        {&FillColor::FillColorGray, {10, 40, 70}}};
    ::testing::internal::CaptureStdout();
    for (const auto& [paint, painted] : cases) {
        DVSUIData image(MVT94QX, OUT_IMAGE, kWidth, kHeight);
        unsigned int pixel = 0;
        for (int polarity : {0, 1, -1, 2}) {
            Event e;
            e.polarity = polarity;
            e.count = 1;
            EXPECT_EQ((FillColor::GetInstance().*paint)(&image, &e, pixel++, &kColors),
                      polarity == 2 ? ERR_PARA_ERROR : ERR_SUCCESS);
        }
        EXPECT_EQ(Bytes(image), Padded(painted)) << painted.size() << " painted bytes";
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Error: Unknown polarity\nError: Unknown polarity\nError: Unknown polarity\n");
}

// Unlike events, the background keeps the stored byte order in RGB24; grey fills one byte a pixel.
TEST(FillColor, background_fills_every_pixel_in_stored_order) {
    const std::pair<COLOR_FORMAT, std::vector<uint8_t>> cases[] = {
        {COLOR_RGB24, {70, 80, 90}}, {COLOR_YUV, {70, 80, 90}}, {COLOR_GRAY, {70}}};
    for (const auto& [format, pixel] : cases) {
        DVSUIData image(MVT94QX, OUT_IMAGE, kWidth, kHeight);
        ASSERT_EQ(FillColor::GetInstance().FillBackGroundColor(&image, format, &kColors),
                  ERR_SUCCESS);
        std::vector<uint8_t> expected;
        for (int i = 0; i < kWidth * kHeight; ++i) {
            expected.insert(expected.end(), pixel.begin(), pixel.end());
        }
        EXPECT_EQ(Bytes(image), Padded(expected)) << "format " << format;
    }
}

}  // namespace
}  // namespace evcam
