#include "src/process/fill_color.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace evcam {

namespace {

constexpr int kBackgroundEntry = 2;

// The colour entry for a polarity, or null for a polarity the sensor never sends.
const DVSColor* EntryFor(const Event* e, const DVSCommonColors* c) {
    switch (e->polarity) {
        case 0:
            return &c->colors[0];
        case 1:
            return &c->colors[1];
        case -1:
            return &c->colors[kBackgroundEntry];
        default:
            puts("Error: Unknown polarity");
            return nullptr;
    }
}

}  // namespace

FillColor& FillColor::GetInstance() {
    static FillColor instance;
    return instance;
}

DVS_ERROR FillColor::FillBackGroundColor(DVSUIData* d, COLOR_FORMAT format,
                                         const DVSCommonColors* c) const {
    if (d == nullptr || c == nullptr || d->mImgData == nullptr) {
        return ERR_PARA_ERROR;
    }
    const DVSColor& bg = c->colors[kBackgroundEntry];
    const size_t pixels = static_cast<size_t>(d->mWidth) * static_cast<size_t>(d->mHeight);
    if (format == COLOR_GRAY) {
        memset(d->mImgData, bg.c[0], pixels);
        return ERR_SUCCESS;
    }
    // One pixel, then the filled part copied onto the rest, doubling each time: a few large
    // copies instead of a byte loop over two megabytes per frame.
    uint8_t* out = d->mImgData;
    const size_t total = pixels * 3;
    if (total == 0) {
        return ERR_SUCCESS;
    }
    out[0] = bg.c[0];
    out[1] = bg.c[1];
    out[2] = bg.c[2];
    for (size_t filled = 3; filled < total;) {
        const size_t n = std::min(filled, total - filled);
        memcpy(out + filled, out, n);
        filled += n;
    }
    return ERR_SUCCESS;
}

DVS_ERROR FillColor::FillColorRGB24(DVSUIData* d, const Event* e, unsigned int pixel,
                                    const DVSCommonColors* c) const {
    const DVSColor* entry = EntryFor(e, c);
    if (entry == nullptr) {
        return ERR_PARA_ERROR;
    }
    uint8_t* out = d->mImgData + static_cast<size_t>(pixel) * 3;
    out[0] = entry->c[2];
    out[1] = entry->c[1];
    out[2] = entry->c[0];
    return ERR_SUCCESS;
}

DVS_ERROR FillColor::FillColorYUV(DVSUIData* d, const Event* e, unsigned int pixel,
                                  const DVSCommonColors* c) const {
    const DVSColor* entry = EntryFor(e, c);
    if (entry == nullptr) {
        return ERR_PARA_ERROR;
    }
    uint8_t* out = d->mImgData + static_cast<size_t>(pixel) * 3;
    out[0] = entry->c[0];
    out[1] = entry->c[1];
    out[2] = entry->c[2];
    return ERR_SUCCESS;
}

DVS_ERROR FillColor::FillColorGray(DVSUIData* d, const Event* e, unsigned int pixel,
                                   const DVSCommonColors* c) const {
    const DVSColor* entry = EntryFor(e, c);
    if (entry == nullptr) {
        return ERR_PARA_ERROR;
    }
    d->mImgData[pixel] = entry->c[0];
    return ERR_SUCCESS;
}

}  // namespace evcam
