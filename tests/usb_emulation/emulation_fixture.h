// What the emulation tests share: a test fixture that starts every test from an empty emulated
// bus under the real libusb backend, and a helper to plug a camera.
#ifndef EVCAM_TESTS_USB_EMULATION_EMULATION_FIXTURE_H
#define EVCAM_TESTS_USB_EMULATION_EMULATION_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>

#include "emulated_bus.h"
#include "src/platform/libusb_backend.h"
#include "src/platform/usb_backend.h"
#include "tests/support/usb_support.h"

namespace evcam {

/// Plugs a camera of kind on bus at byteRate (0 = as fast as the host reads), at address (0 =
/// the next free one).
inline int PlugCamera(sim::Kind kind, uint64_t byteRate = 2000000, int bus = 1, int packetSize = 0,
                      int address = 0) {
    sim::CameraConfig config;
    config.kind = kind;
    config.bus = bus;
    config.address = address;
    config.byteRate = byteRate;
    config.maxPacketSize = packetSize;
    const int id = EmulatedBus::Instance().Plug(config);
    EXPECT_GE(id, 0);
    return id;
}

/// Every test starts on an empty emulated bus that the real libusb backend serves, with both
/// kinds' tables scanned empty (the tables are process-wide).
class EmulationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The testbed must exist before libusb starts, so it comes first.
        EmulatedBus& bus = EmulatedBus::Instance();
        ASSERT_TRUE(EmulatedBus::Preloaded())
            << "run under the umockdev preload (run_emulated.sh), or libusb sees the real bus";
        ASSERT_NE(dynamic_cast<LibusbBackend*>(&ActiveUsbBackend()), nullptr)
            << "the real libusb backend must serve these tests";
        bus.UnplugAll();
        ScanCount(FX20Stream::Table());
        ScanCount(FX3Stream::Table());
    }
    void TearDown() override { EmulatedBus::Instance().UnplugAll(); }
};

}  // namespace evcam

#endif  // EVCAM_TESTS_USB_EMULATION_EMULATION_FIXTURE_H
