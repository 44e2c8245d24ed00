// Umbrella header: everything public in the kit.
#ifndef EVCAM_EVCAM_H
#define EVCAM_EVCAM_H

#include "evcam/dvs.h"
#include "evcam/dvs_error.h"
#include "evcam/dvs_manager.h"
#include "evcam/export.h"
#include "evcam/platform.h"
#include "evcam/records.h"
#include "evcam/sim.h"
#include "evcam/usb_device.h"
#include "evcam/version.h"

#endif  // EVCAM_EVCAM_H
