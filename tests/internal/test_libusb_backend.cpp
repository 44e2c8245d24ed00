#include <gtest/gtest.h>

#include <cstdlib>

#include "evcam/sim.h"
#include "src/platform/cyusb.h"
#include "src/platform/libusb_backend.h"
#include "src/platform/usb_backend.h"
#include "src/stream/fx20_stream.h"
#include "src/stream/fx3_stream.h"

namespace evcam {
namespace {

constexpr uint16_t kVid = 0x04B4;
constexpr uint16_t kPids[] = {0x00F0, 0x00F1};

// These tests speak to the machine's real USB stack, which has no camera here.
class LibusbBackendTest : public testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("EVCAM_SIM") != nullptr) {
            GTEST_SKIP() << "EVCAM_SIM selects the simulated bus";
        }
    }
};

TEST_F(LibusbBackendTest, finds_no_camera_and_fails_cleanly_on_missing_handles_and_transfers) {
    LibusbBackend backend;
    for (const uint16_t pid : kPids) {
        const int found = backend.Open(kVid, pid);
        if (found > 0) {
            GTEST_SKIP() << "a camera is attached";
        }
        EXPECT_EQ(backend.GetHandle(kVid, pid, 0), nullptr);
        EXPECT_EQ(backend.GetHandle(kVid, pid, -1), nullptr);
    }
    unsigned char byte = 0;
    int moved = -1;
    EXPECT_EQ(backend.ControlTransfer(nullptr, 0xC0, 0xAB, 0, 0, &byte, 1, 100),
              LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(backend.BulkTransfer(nullptr, 0x81, &byte, 1, &moved, 10), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(backend.GetMaxPacketSize(nullptr, 0x81), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(backend.GetVendor(nullptr), 0);
    backend.Close(kVid, kPids[0]);
    backend.Close(kVid, kPids[0]);
    backend.Close(kVid, kPids[1]);

    // A transfer on a handle outside the list is refused.
    libusb_transfer* transfer = backend.AllocTransfer();
    ASSERT_NE(transfer, nullptr);
    unsigned char buffer[512];
    transfer->endpoint = 0x81;
    transfer->type = LIBUSB_TRANSFER_TYPE_BULK;
    transfer->length = 512;
    transfer->buffer = buffer;
    EXPECT_EQ(backend.SubmitTransfer(transfer), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(backend.CancelTransfer(transfer), LIBUSB_ERROR_NOT_FOUND);
    timeval none{0, 0};
    EXPECT_EQ(backend.HandleEventsTimeoutCompleted(&none, nullptr), 0);
    backend.FreeTransfer(transfer);
    backend.FreeTransfer(nullptr);
}

// Without EVCAM_SIM and before any use of evcam/sim.h, the first USB call settles on libusb for
// good; the transports' scans then return cleanly with nothing, and nothing can be bound.
TEST_F(LibusbBackendTest, the_process_uses_libusb_scans_nothing_and_refuses_the_simulator) {
    EXPECT_NE(dynamic_cast<LibusbBackend*>(&ActiveUsbBackend()), nullptr);
    EXPECT_LE(cyusb_open(kVid, kPids[0]), 0);
    EXPECT_EQ(cyusb_gethandle(kVid, kPids[0], 0), nullptr);
    cyusb_close(kVid, kPids[0]);
    for (auto scan : {&FX20Stream::ScanDVSDevice, &FX3Stream::ScanDVSDevice}) {
        USBDevice* list = nullptr;
        int count = -1;
        const DVS_ERROR rc = scan(&list, count);
        if (count > 0) {
            GTEST_SKIP() << "a camera is attached";
        }
        EXPECT_EQ(rc, ERR_SUCCESS);
        EXPECT_EQ(count, 0);
        EXPECT_NE(list, nullptr);
    }
    FX20Stream fx20;
    FX3Stream fx3;
    EXPECT_EQ(fx20.SetDVSID(0), ERR_INVALID_DEVICE);
    EXPECT_EQ(fx3.SetDVSID(1), ERR_INVALID_DEVICE);
    EXPECT_EQ(fx20.SetDVSID(3), ERR_PARA_ERROR);
    EXPECT_EQ(sim::Enable(), ERR_FUNCTION_DISABLED);
    EXPECT_EQ(sim::Configure("fx20"), ERR_FUNCTION_DISABLED);
    EXPECT_EQ(sim::Plug(sim::CameraConfig()), -1);
    EXPECT_EQ(dynamic_cast<LibusbBackend*>(&ActiveUsbBackend()), &ActiveUsbBackend());
}

}  // namespace
}  // namespace evcam
