// Checks shared by the DVS objects' SetParameter: the order of the checks is part of the
// interface (a change refused while running answers 201 before a bad value answers 1).
#ifndef EVCAM_SRC_CAMERA_PARAMETER_CHECK_H
#define EVCAM_SRC_CAMERA_PARAMETER_CHECK_H

#include <cstdint>

#include "evcam/dvs_error.h"

namespace evcam {

/// Reads the unsigned 32-bit value behind value into out.
/// @return 201 when refusedWhileRunning; else 1 when the value lies outside [lo, hi]; else 0.
inline DVS_ERROR CheckU32(const void* value, bool refusedWhileRunning, uint32_t lo, uint32_t hi,
                          uint32_t& out) {
    if (refusedWhileRunning) {
        return ERR_RUNNING;
    }
    out = *static_cast<const uint32_t*>(value);
    return out < lo || out > hi ? ERR_PARA_ERROR : ERR_SUCCESS;
}

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_PARAMETER_CHECK_H
