#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/process/fill_color.h"

namespace evcam {
namespace {

constexpr int kWidth = 4;
constexpr int kHeight = 3;

DVSCommonColors TestColors() {
    DVSCommonColors c{};
    c.colors[0] = {{10, 20, 30, 99}};
    c.colors[1] = {{40, 50, 60, 99}};
    c.colors[2] = {{70, 80, 90, 99}};
    return c;
}

Event PixelEvent(int polarity) {
    Event e;
    e.polarity = polarity;
    e.count = 1;
    return e;
}

const uint8_t* Pixel3(const DVSUIData& d, int x, int y) {
    return d.mImgData + (static_cast<size_t>(y) * kWidth + x) * 3;
}

class FillColorTest : public ::testing::Test {
  protected:
    DVSUIData image{MVT94QX, OUT_IMAGE, kWidth, kHeight};
    DVSCommonColors colors = TestColors();
    FillColor& fill = FillColor::GetInstance();
};

TEST_F(FillColorTest, rgb24_writes_event_colours_reversed) {
    Event e0 = PixelEvent(0);
    Event e1 = PixelEvent(1);
    Event bg = PixelEvent(-1);
    ASSERT_EQ(fill.FillColorRGB24(&image, &e0, 5, &colors), ERR_SUCCESS);
    ASSERT_EQ(fill.FillColorRGB24(&image, &e1, 6, &colors), ERR_SUCCESS);
    ASSERT_EQ(fill.FillColorRGB24(&image, &bg, 7, &colors), ERR_SUCCESS);
    const uint8_t* p = image.mImgData;
    EXPECT_EQ(std::vector<uint8_t>(p + 15, p + 24),
              (std::vector<uint8_t>{30, 20, 10, 60, 50, 40, 90, 80, 70}));
    EXPECT_EQ(std::vector<uint8_t>(p + 12, p + 15), (std::vector<uint8_t>{0, 0, 0}));
}

TEST_F(FillColorTest, yuv_writes_event_colours_in_stored_order) {
    Event e0 = PixelEvent(0);
    Event e1 = PixelEvent(1);
    ASSERT_EQ(fill.FillColorYUV(&image, &e0, 0, &colors), ERR_SUCCESS);
    ASSERT_EQ(fill.FillColorYUV(&image, &e1, kWidth * kHeight - 1, &colors), ERR_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(Pixel3(image, 0, 0), Pixel3(image, 0, 0) + 3),
              (std::vector<uint8_t>{10, 20, 30}));
    const uint8_t* last = Pixel3(image, kWidth - 1, kHeight - 1);
    EXPECT_EQ(std::vector<uint8_t>(last, last + 3), (std::vector<uint8_t>{40, 50, 60}));
}

TEST_F(FillColorTest, grey_writes_first_byte_of_entry_at_pixel) {
    Event e0 = PixelEvent(0);
    Event bg = PixelEvent(-1);
    ASSERT_EQ(fill.FillColorGray(&image, &e0, 2, &colors), ERR_SUCCESS);
    ASSERT_EQ(fill.FillColorGray(&image, &bg, 3, &colors), ERR_SUCCESS);
    EXPECT_EQ(image.mImgData[2], 10);
    EXPECT_EQ(image.mImgData[3], 70);
    EXPECT_EQ(image.mImgData[4], 0);
}

TEST_F(FillColorTest, background_is_written_in_stored_order_for_colour_formats) {
    for (COLOR_FORMAT format : {COLOR_RGB24, COLOR_YUV}) {
        ASSERT_EQ(fill.FillBackGroundColor(&image, format, &colors), ERR_SUCCESS);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const uint8_t* p = Pixel3(image, x, y);
                ASSERT_EQ(std::vector<uint8_t>(p, p + 3), (std::vector<uint8_t>{70, 80, 90}))
                    << "format " << format << " pixel " << x << "," << y;
            }
        }
    }
}

TEST_F(FillColorTest, grey_background_fills_one_byte_per_pixel_only) {
    ASSERT_EQ(fill.FillBackGroundColor(&image, COLOR_GRAY, &colors), ERR_SUCCESS);
    const int pixels = kWidth * kHeight;
    for (int i = 0; i < pixels; ++i) {
        ASSERT_EQ(image.mImgData[i], 70) << i;
    }
    EXPECT_EQ(image.mImgData[pixels], 0);
}

TEST_F(FillColorTest, unknown_polarity_prints_once_per_event_and_leaves_pixel) {
    Event e = PixelEvent(2);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(fill.FillColorRGB24(&image, &e, 1, &colors), ERR_PARA_ERROR);
    EXPECT_EQ(fill.FillColorYUV(&image, &e, 1, &colors), ERR_PARA_ERROR);
    EXPECT_EQ(fill.FillColorGray(&image, &e, 1, &colors), ERR_PARA_ERROR);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Error: Unknown polarity\nError: Unknown polarity\nError: Unknown polarity\n");
    EXPECT_EQ(std::vector<uint8_t>(image.mImgData, image.mImgData + 6), std::vector<uint8_t>(6, 0));
}

}  // namespace
}  // namespace evcam
