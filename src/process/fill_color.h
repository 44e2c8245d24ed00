// Painting of frame images: background fill and one pixel per event.
#ifndef EVCAM_SRC_PROCESS_FILL_COLOR_H
#define EVCAM_SRC_PROCESS_FILL_COLOR_H

#include "evcam/dvs_error.h"
#include "evcam/records.h"

namespace evcam {

/// Stateless painter shared by the whole process. Every operation writes only into the record
/// it is given, so any thread may call it; one thread at a time per record.
class FillColor {
  public:
    /// The single instance, made on first use (thread-safe) and destroyed at process exit.
    static FillColor& GetInstance();

    FillColor(const FillColor&) = delete;
    FillColor& operator=(const FillColor&) = delete;

    /// Fills the whole image of d (d's mWidth x mHeight pixels) with the background entry of c:
    /// its first byte per pixel for COLOR_GRAY, its three bytes in stored order otherwise.
    /// @return 0; 1 for a null argument or a record without an image store.
    DVS_ERROR FillBackGroundColor(DVSUIData* d, COLOR_FORMAT format,
                                  const DVSCommonColors* c) const;

    /// Paints e's colour (by its polarity: 0, 1 or -1 for the background) at pixel, a valid
    /// index y x width + x that the caller has checked against the record. RGB24 writes the
    /// entry's three bytes reversed (byte 2, 1, 0), which is the byte order the viewers expect.
    /// @return 0; 1 after printing "Error: Unknown polarity" for any other polarity (the pixel
    ///         is left as it was).
    DVS_ERROR FillColorRGB24(DVSUIData* d, const Event* e, unsigned int pixel,
                             const DVSCommonColors* c) const;
    /// As FillColorRGB24, writing the three bytes in stored order.
    DVS_ERROR FillColorYUV(DVSUIData* d, const Event* e, unsigned int pixel,
                           const DVSCommonColors* c) const;
    /// As FillColorRGB24, writing the entry's first byte at pixel (one byte per pixel).
    DVS_ERROR FillColorGray(DVSUIData* d, const Event* e, unsigned int pixel,
                            const DVSCommonColors* c) const;

  private:
    FillColor() = default;
};

}  // namespace evcam

#endif  // EVCAM_SRC_PROCESS_FILL_COLOR_H
