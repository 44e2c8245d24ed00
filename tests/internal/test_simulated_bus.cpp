#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "evcam/sim.h"
#include "src/platform/cyusb.h"
#include "src/record/recording_format.h"
#include "src/sim/backend_selection.h"
#include "src/sim/sim_camera.h"
#include "src/sim/sim_config.h"
#include "src/sim/simulated_bus.h"
#include "tests/support/test_support.h"

namespace evcam {
namespace {

using namespace std::chrono_literals;
using sim::CameraConfig;
using sim::Fault;
using sim::Kind;
using TimePoint = SimCamera::TimePoint;

constexpr uint16_t kVid = 0x04B4;
constexpr uint16_t kFX20Pid = 0x00F0;
constexpr uint16_t kFX3Pid = 0x00F1;
constexpr uint8_t kEp = 0x81;

CameraConfig Camera(Kind kind, int bus, int address, uint64_t rate = 0, int packet = 0) {
    CameraConfig config;
    config.kind = kind;
    config.bus = bus;
    config.address = address;
    config.byteRate = rate;
    config.maxPacketSize = packet;
    config.scene = "still";
    return config;
}

// Bytes 0, 1, 2, ... so that order and losses show.
class CountingSource : public StreamSource {
  public:
    void Read(uint8_t* out, size_t n) override {
        for (size_t i = 0; i < n; ++i, ++mNext) {
            if (out != nullptr) {
                out[i] = static_cast<uint8_t>(mNext);
            }
        }
    }

  private:
    uint64_t mNext = 0;
};

bool IsCounting(const uint8_t* bytes, size_t n, uint64_t from) {
    for (size_t i = 0; i < n; ++i) {
        if (bytes[i] != static_cast<uint8_t>(from + i)) {
            return false;
        }
    }
    return true;
}

// ---- EVCAM_SIM specs

TEST(SimSpec, parses_kinds_keys_and_defaults) {
    std::vector<CameraConfig> c;
    std::string error;
    ASSERT_TRUE(
        ParseSimSpec(" fx3:bus=2,addr=7,scene=bar,rate=8000000 ; fx20:bus=1, addr = 5 ,pkt=512 ;"
                     "fx20:pkt=0,scene=still,stereo=1,rate=0,unplug_ms=250,file=/tmp/a.dvs;fx3;",
                     c, error))
        << error;
    ASSERT_EQ(c.size(), 4u);
    auto fields = [](const CameraConfig& x) {
        return std::make_tuple(x.kind, x.bus, x.address, x.maxPacketSize, x.byteRate, x.scene,
                               x.stereo, x.unplugAfterMs, x.file);
    };
    using Fields = decltype(fields(c[0]));
    const uint64_t rate = CameraConfig().byteRate;
    EXPECT_EQ(fields(c[0]), Fields(Kind::kFX3, 2, 7, 0, 8000000, "bar", false, -1, ""));
    EXPECT_EQ(fields(c[1]), Fields(Kind::kFX20, 1, 5, 512, rate, "bar", false, -1, ""));
    EXPECT_EQ(fields(c[2]),
              Fields(Kind::kFX20, 1, 0, sim::kZeroPacketSize, 0, "still", true, 250, "/tmp/a.dvs"));
    EXPECT_EQ(fields(c[3]), Fields(Kind::kFX3, 1, 0, 0, rate, "bar", false, -1, ""));
    EXPECT_TRUE(ParseSimSpec("  ", c, error));
    EXPECT_TRUE(c.empty());
}

TEST(SimSpec, names_the_key_and_camera_of_every_malformed_setting) {
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"fx3;fx20:rate=x", "bad value 'x' for key 'rate' in camera 2"},
        {"fx20:rate=-1", "bad value '-1' for key 'rate' in camera 1"},
        {"fx20:rate=10000000001", "bad value '10000000001' for key 'rate' in camera 1"},
        {"fx20:bus=0", "bad value '0' for key 'bus' in camera 1"},
        {"fx20:bus=256", "bad value '256' for key 'bus' in camera 1"},
        {"fx20:addr=128", "bad value '128' for key 'addr' in camera 1"},
        {"fx20:addr=0", "bad value '0' for key 'addr' in camera 1"},
        {"fx20:pkt=1025", "bad value '1025' for key 'pkt' in camera 1"},
        {"fx20:scene=sky", "bad value 'sky' for key 'scene' in camera 1"},
        {"fx20:file=", "bad value '' for key 'file' in camera 1"},
        {"fx20:stereo=2", "bad value '2' for key 'stereo' in camera 1"},
        {"fx20:unplug_ms=1.5", "bad value '1.5' for key 'unplug_ms' in camera 1"},
        {"fx20:colour=red", "unknown key 'colour' in camera 1"},
        {"fx20:bus", "missing value for key 'bus' in camera 1"},
        {"fx20:bus=1,bus=2", "key 'bus' given twice in camera 1"},
        {"fx20:", "empty setting in camera 1"},
        {"fx20;fx30", "unknown kind 'fx30' in camera 2 (fx20 or fx3)"},
    };
    for (const auto& [spec, message] : cases) {
        std::vector<CameraConfig> cameras;
        std::string error;
        EXPECT_FALSE(ParseSimSpec(spec, cameras, error)) << spec;
        EXPECT_EQ(error, "EVCAM_SIM: " + message);
        EXPECT_TRUE(cameras.empty()) << spec;
    }
    std::vector<CameraConfig> cameras;
    std::string error;
    EXPECT_FALSE(ParseSimSpec(nullptr, cameras, error));
}

TEST(SimSpec, a_camera_that_cannot_be_plugged_plugs_none) {
    SimulatedBus bus;
    std::vector<CameraConfig> cameras;
    std::string error;
    ASSERT_TRUE(ParseSimSpec("fx20:addr=3;fx20:addr=4;fx20:addr=3", cameras, error));
    size_t failed = 0;
    PlugError plugError;
    EXPECT_FALSE(bus.PlugAll(cameras, failed, plugError));
    EXPECT_EQ(FormatPlugError("EVCAM_SIM", plugError, failed + 1),
              "EVCAM_SIM: bad value '3' for key 'addr' in camera 3 (address taken on bus 1)");
    EXPECT_EQ(bus.Open(kVid, kFX20Pid), 0);

    CameraConfig missing = Camera(Kind::kFX20, 1, 0);
    missing.file = "/nonexistent/take.dvs";
    EXPECT_EQ(bus.Plug(missing, plugError), -1);
    EXPECT_EQ(plugError.key, "file");
    EXPECT_EQ(bus.Open(kVid, kFX20Pid), 0);
}

// Each runs in a child process of its own: the choice of bus is made once per process.
TEST(SimEnvironment, malformed_spec_is_reported_and_nothing_is_simulated) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("EVCAM_SIM", "fx3:bus=2;fx20:rate=x", 1);
            const int found = ActiveUsbBackend().Open(kVid, kFX3Pid);
            const bool simulated = &ActiveUsbBackend() == &ProcessSimulatedBus();
            std::exit(found == 0 && simulated && sim::Plug(Camera(Kind::kFX3, 1, 0)) >= 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "EVCAM_SIM: bad value 'x' for key 'rate' in camera 2\nEVCAM_SIM: no camera is simulated");
}

TEST(SimEnvironment, spec_cameras_appear_at_the_first_usb_call) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("EVCAM_SIM", "fx3:bus=2,addr=7,scene=bar,rate=8000000;fx20:bus=1,addr=5", 1);
            bool ok = cyusb_open(kVid, kFX3Pid) == 1;
            libusb_device_handle* fx3 = cyusb_gethandle(kVid, kFX3Pid, 0);
            ok = ok && cyusb_get_busnumber(fx3) == 2 && cyusb_get_devaddr(fx3) == 7;
            ok = ok && cyusb_get_max_packet_size(fx3, kEp) == 1024;
            ok = ok && cyusb_open(kVid, kFX20Pid) == 1;
            ok = ok && cyusb_get_max_packet_size(cyusb_gethandle(kVid, kFX20Pid, 0), kEp) == 512;
            std::exit(ok && sim::Enable() == ERR_SUCCESS ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- Enumeration and handles

TEST(SimulatedBus, lists_cameras_of_one_id_in_bus_order_with_their_descriptors) {
    SimulatedBus bus;
    PlugError error;
    ASSERT_GE(bus.Plug(Camera(Kind::kFX20, 2, 3), error), 0);
    ASSERT_GE(bus.Plug(Camera(Kind::kFX20, 1, 9, 0, 64), error), 0);
    ASSERT_GE(bus.Plug(Camera(Kind::kFX20, 1, 4, 0, sim::kZeroPacketSize), error), 0);
    ASSERT_GE(bus.Plug(Camera(Kind::kFX3, 1, 5), error), 0);

    ASSERT_EQ(bus.Open(kVid, kFX20Pid), 3);
    const int expected[][3] = {{1, 4, 0}, {1, 9, 64}, {2, 3, 512}};
    for (int i = 0; i < 3; ++i) {
        libusb_device_handle* h = bus.GetHandle(kVid, kFX20Pid, i);
        EXPECT_EQ(std::make_tuple(bus.GetBusNumber(h), bus.GetDeviceAddress(h),
                                  bus.GetMaxPacketSize(h, kEp), bus.GetMaxPacketSize(h, 0x02),
                                  bus.GetVendor(h), bus.GetProduct(h)),
                  std::make_tuple(expected[i][0], expected[i][1], expected[i][2],
                                  int(LIBUSB_ERROR_NOT_FOUND), kVid, kFX20Pid));
    }
    EXPECT_EQ(bus.GetHandle(kVid, kFX20Pid, 3), nullptr);
    EXPECT_EQ(bus.GetHandle(kVid, kFX20Pid, -1), nullptr);
    EXPECT_EQ(bus.GetHandle(kVid, kFX3Pid, 0), nullptr) << "that id's list is not open";

    libusb_device_handle* stale = bus.GetHandle(kVid, kFX20Pid, 0);
    ASSERT_EQ(bus.Open(kVid, kFX3Pid), 1);
    libusb_device_handle* fx3 = bus.GetHandle(kVid, kFX3Pid, 0);
    EXPECT_EQ(bus.GetMaxPacketSize(fx3, kEp), 1024);
    EXPECT_EQ(bus.GetBusNumber(stale), 1) << "another id's open leaves this list alone";
    ASSERT_EQ(bus.Open(kVid, kFX20Pid), 3);
    EXPECT_NE(bus.GetHandle(kVid, kFX20Pid, 0), stale) << "handles are never reused";
    EXPECT_EQ(bus.GetBusNumber(stale), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(bus.GetVendor(stale), 0);
    unsigned char buffer[1];
    int moved = 0;
    EXPECT_EQ(bus.BulkTransfer(stale, kEp, buffer, 1, &moved, 10), LIBUSB_ERROR_NO_DEVICE);

    bus.Close(kVid, kFX20Pid);
    EXPECT_EQ(bus.GetHandle(kVid, kFX20Pid, 0), nullptr);
    EXPECT_EQ(bus.GetMaxPacketSize(fx3, kEp), 1024) << "closing one id's list keeps the other";
    EXPECT_EQ(bus.GetHandle(kVid, kFX3Pid, 0), fx3);
    EXPECT_EQ(bus.Open(0x1234, 0x5678), 0);
}

TEST(SimulatedBus, hands_out_addresses_in_turn_and_forgets_unplugged_cameras) {
    SimulatedBus bus;
    PlugError error;
    const int first = bus.Plug(Camera(Kind::kFX20, 3, 0), error);
    ASSERT_GE(bus.Plug(Camera(Kind::kFX20, 3, 0), error), 0);
    EXPECT_EQ(bus.Plug(Camera(Kind::kFX3, 3, 2), error), -1);
    EXPECT_EQ(error.reason, "address taken on bus 3");
    EXPECT_EQ(bus.Unplug(first), ERR_SUCCESS);
    EXPECT_EQ(bus.Unplug(first), ERR_ALREADY_DONE);
    EXPECT_EQ(bus.Unplug(99), ERR_PARA_ERROR);
    EXPECT_NE(bus.Plug(Camera(Kind::kFX20, 3, 0), error), first) << "ids are never reused";

    ASSERT_EQ(bus.Open(kVid, kFX20Pid), 2);
    EXPECT_EQ(bus.GetDeviceAddress(bus.GetHandle(kVid, kFX20Pid, 0)), 2);
    EXPECT_EQ(bus.GetDeviceAddress(bus.GetHandle(kVid, kFX20Pid, 1)), 3);
    bus.UnplugAll();
    EXPECT_EQ(bus.Open(kVid, kFX20Pid), 0);
}

// ---- Register requests

TEST(SimulatedBus, answers_register_requests_in_each_kinds_own_convention) {
    SimulatedBus bus;
    PlugError error;
    const int ids[2] = {bus.Plug(Camera(Kind::kFX20, 1, 1), error),
                        bus.Plug(Camera(Kind::kFX3, 1, 2), error)};
    const uint16_t pids[2] = {kFX20Pid, kFX3Pid};
    ASSERT_EQ(bus.WriteRegister(ids[0], 0x20, 0x0123, 0x5A), ERR_SUCCESS);
    ASSERT_EQ(bus.WriteRegister(ids[1], 0x20, 0x0123, 0xABCD), ERR_SUCCESS);

    const struct {
        int fx3;
        uint8_t type, request;
        uint16_t value, index;
        std::vector<uint8_t> out;  // data sent, or the size of the answer for a read
        int result;
        std::vector<uint8_t> logged;
    } cases[] = {
        // FX20: a read carries slave and register in the setup packet...
        {0, 0xC0, 0xAB, 0x20, 0x0123, {0}, 1, {0x5A}},
        {0, 0xC0, 0xAB, 0x20, 0x0999, {0}, 1, {0x00}},
        // ...a write carries them in a 4-byte payload.
        {0, 0x40, 0xBA, 0, 0, {0x21, 0x01, 0x02, 0x77}, 4, {0x21, 0x01, 0x02, 0x77}},
        {0, 0x40, 0xBA, 0x21, 0x0102, {0x66}, LIBUSB_ERROR_PIPE, {0x66}},
        {0, 0xC0, 0xAB, 0x20, 0x0123, {0, 0}, LIBUSB_ERROR_PIPE, {}},
        {0, 0xC0, 0xBA, 0, 0, {0, 0, 0, 0}, LIBUSB_ERROR_PIPE, {}},
        {0, 0x40, 0x12, 0, 0, {}, LIBUSB_ERROR_PIPE, {}},
        // FX3: both directions in the setup packet, the value alone in the data stage.
        {1, 0xC0, 0xAB, 0x20, 0x0123, {0, 0}, 2, {0xAB, 0xCD}},
        {1, 0xC0, 0xAB, 0x20, 0x0123, {0}, 1, {0xCD}},
        {1, 0x40, 0xBA, 0x21, 0x0102, {0x12, 0x34}, 2, {0x12, 0x34}},
        {1, 0x40, 0xBA, 0x22, 0x0001, {0x99}, 1, {0x99}},
        {1, 0x40, 0xBA, 0, 0, {0x23, 0x00, 0x05, 0x44}, LIBUSB_ERROR_PIPE, {0x23, 0, 5, 0x44}},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(bus.Open(kVid, pids[c.fx3]), 1);
        bus.ClearControlLog(ids[c.fx3]);
        std::vector<uint8_t> data = c.out;
        EXPECT_EQ(
            bus.ControlTransfer(bus.GetHandle(kVid, pids[c.fx3], 0), c.type, c.request, c.value,
                                c.index, data.data(), static_cast<uint16_t>(data.size()), 5000),
            c.result);
        const std::vector<sim::ControlRequest> log = bus.ControlLog(ids[c.fx3]);
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(
            std::make_tuple(log[0].bmRequestType, log[0].bRequest, log[0].wValue, log[0].wIndex,
                            size_t{log[0].wLength}, log[0].data, log[0].result),
            std::make_tuple(c.type, c.request, c.value, c.index, data.size(), c.logged, c.result));
        if (c.type == 0xC0 && c.result > 0) {
            EXPECT_EQ(data, c.logged);
        }
    }
    // Register, value each camera holds now: only the writes of its own convention landed.
    const std::vector<std::tuple<int, int, int, int>> registers = {{ids[0], 0x21, 0x0102, 0x77},
                                                                   {ids[1], 0x21, 0x0102, 0x1234},
                                                                   {ids[1], 0x22, 0x0001, 0x99},
                                                                   {ids[1], 0x23, 0x0005, 0}};
    for (const auto& [id, slave, reg, expected] : registers) {
        int value = -1;
        EXPECT_EQ(bus.ReadRegister(id, slave, reg, value), ERR_SUCCESS);
        EXPECT_EQ(value, expected) << id << " " << slave;
    }
    int value = 0;
    EXPECT_EQ(bus.ReadRegister(7, 0, 0, value), ERR_PARA_ERROR);
    EXPECT_EQ(bus.WriteRegister(ids[1], 0, 0, 0x10000), ERR_PARA_ERROR);

    ASSERT_EQ(bus.InjectFault(ids[1], Fault::kControlError, 1), ERR_SUCCESS);
    unsigned char two[2] = {0x55, 0x66};
    libusb_device_handle* fx3 = bus.GetHandle(kVid, kFX3Pid, 0);
    EXPECT_EQ(bus.ControlTransfer(fx3, 0x40, 0xBA, 0x21, 0x0102, two, 2, 5000), LIBUSB_ERROR_IO);
    EXPECT_EQ(bus.ControlLog(ids[1]).back().result, LIBUSB_ERROR_IO);
    EXPECT_EQ(bus.ControlTransfer(fx3, 0xC0, 0xAB, 0x21, 0x0102, two, 2, 5000), 2);
    EXPECT_EQ(two[0], 0x12) << "the failed write changed nothing";
}

// ---- The camera's endpoint, on a clock of the test's own

class SimCameraTest : public testing::Test {
  protected:
    void Make(uint64_t rate, int packet, int unplugAfterMs = -1) {
        CameraConfig config = Camera(Kind::kFX20, 1, 1, rate, packet);
        config.unplugAfterMs = unplugAfterMs;
        camera = std::make_unique<SimCamera>(config, std::make_unique<CountingSource>());
    }
    // Submits a read of length at time at, with a time-out (0: none).
    SimCamera::InRequest& Read(int length, TimePoint at, std::chrono::microseconds timeout = 0us) {
        buffers.emplace_back(static_cast<size_t>(length));
        reads.emplace_back(std::make_unique<SimCamera::InRequest>());
        SimCamera::InRequest& request = *reads.back();
        request.buffer = buffers.back().data();
        request.length = length;
        request.submitted = at;
        request.deadline = timeout.count() == 0 ? SimCamera::kNever : at + timeout;
        EXPECT_EQ(camera->SubmitIn(request, at), 0);
        return request;
    }

    const TimePoint t0 = TimePoint() + 10s;
    std::unique_ptr<SimCamera> camera;
    std::vector<std::vector<uint8_t>> buffers;
    std::vector<std::unique_ptr<SimCamera::InRequest>> reads;
};

TEST_F(SimCameraTest, fills_whole_packets_at_the_byte_rate) {
    Make(1000000, 512);  // one byte per microsecond
    SimCamera::InRequest& read = Read(2048, t0);
    EXPECT_EQ(camera->Advance(t0 + 1000us), t0 + 2048us) << "waking when it can be full";
    EXPECT_EQ(read.moved, 512) << "whole packets only";
    camera->Advance(t0 + 2047us);
    EXPECT_FALSE(read.done);
    camera->Advance(t0 + 5000us);
    ASSERT_TRUE(read.done);
    EXPECT_EQ(std::make_tuple(read.status, read.moved, read.doneAt),
              std::make_tuple(LIBUSB_TRANSFER_COMPLETED, 2048, t0 + 2048us));
    EXPECT_TRUE(IsCounting(read.buffer, 2048, 0));
    EXPECT_EQ(camera->BytesSent(), 2048u);
}

TEST_F(SimCameraTest, a_partial_packet_goes_out_short_after_a_millisecond_and_ends_the_read) {
    Make(100000, 512);  // four bytes every 40 us
    SimCamera::InRequest& read = Read(2048, t0);
    camera->Advance(t0 + 1039us);
    EXPECT_FALSE(read.done);
    camera->Advance(t0 + 3ms);
    EXPECT_EQ(std::make_tuple(read.done, read.status, read.moved, read.doneAt),
              std::make_tuple(true, LIBUSB_TRANSFER_COMPLETED, 104, t0 + 1040us));
}

TEST_F(SimCameraTest, a_time_out_keeps_the_packets_already_received) {
    Make(1000000, 512);
    SimCamera::InRequest& read = Read(8192, t0, 3000us);
    camera->Advance(t0 + 10ms);
    EXPECT_EQ(std::make_tuple(read.done, read.status, read.moved, read.doneAt),
              std::make_tuple(true, LIBUSB_TRANSFER_TIMED_OUT, 2560, t0 + 3ms));

    // Reads queued behind one another fill in order; one that expires while waiting ends
    // without data and the stream continues seamlessly in the next.
    Read(64 * 1024, t0 + 20ms);
    SimCamera::InRequest& waiting = Read(512, t0 + 20ms, 1000us);
    SimCamera::InRequest& second = Read(512, t0 + 20ms);
    camera->Advance(t0 + 200ms);
    EXPECT_EQ(std::make_tuple(waiting.status, waiting.moved, waiting.doneAt),
              std::make_tuple(LIBUSB_TRANSFER_TIMED_OUT, 0, t0 + 21ms));
    ASSERT_TRUE(second.done);
    EXPECT_TRUE(IsCounting(second.buffer, 512, 2560 + 64 * 1024));
}

TEST_F(SimCameraTest, keeps_a_bounded_backlog_while_the_host_does_not_read) {
    Make(1000000, 512);
    Read(512, t0);
    SimCamera::InRequest& big = Read(256 * 1024, t0 + 1s);
    camera->Advance(t0 + 1s);
    EXPECT_EQ(static_cast<uint64_t>(big.moved), SimCamera::kFifoBytes);
    EXPECT_TRUE(IsCounting(big.buffer, static_cast<size_t>(big.moved), 512))
        << "the delivered stream stays continuous";
}

TEST_F(SimCameraTest, a_read_shorter_than_a_packet_overflows_and_rate_zero_never_waits) {
    Make(0, 512);
    SimCamera::InRequest& read = Read(1000, t0);
    camera->Advance(t0);
    EXPECT_EQ(std::make_tuple(read.done, read.status, read.moved),
              std::make_tuple(true, LIBUSB_TRANSFER_OVERFLOW, 1000));
    SimCamera::InRequest& next = Read(512, t0);
    camera->Advance(t0);
    EXPECT_TRUE(IsCounting(next.buffer, 512, 1024)) << "the rest of the big packet is lost";
}

TEST_F(SimCameraTest, unplug_after_streaming_starts_ends_pending_reads_at_that_moment) {
    Make(1000000, 512, 5);
    EXPECT_TRUE(camera->Present(t0 + 1h)) << "the clock starts with the stream";
    SimCamera::InRequest& read = Read(64 * 1024, t0 + 1ms);
    EXPECT_EQ(camera->Advance(t0 + 2ms), t0 + 6ms);
    camera->Advance(t0 + 1s);
    EXPECT_EQ(std::make_tuple(read.done, read.status, read.moved, read.doneAt),
              std::make_tuple(true, LIBUSB_TRANSFER_NO_DEVICE, 4608, t0 + 6ms))
        << "packets received before the unplug stay";
    EXPECT_FALSE(camera->Present(t0 + 6ms));
    SimCamera::InRequest late;
    EXPECT_EQ(camera->SubmitIn(late, t0 + 7ms), LIBUSB_ERROR_NO_DEVICE);
}

// ---- Transfers through the bus

struct Completion {
    std::atomic<int> calls{0};
    int done = 0;
    int status = -1;
    int length = -1;
    std::thread::id thread;
};

void LIBUSB_CALL Record(libusb_transfer* transfer) {
    auto* completion = static_cast<Completion*>(transfer->user_data);
    completion->status = transfer->status;
    completion->length = transfer->actual_length;
    completion->thread = std::this_thread::get_id();
    completion->done = 1;
    completion->calls++;
}

class BusTest : public testing::Test {
  protected:
    // Plugs the camera and opens its kind's list, in which it is the only one.
    int PlugOpen(CameraConfig config) {
        PlugError error;
        const int id = bus.Plug(config, error);
        EXPECT_GE(id, 0) << error.key << ": " << error.reason;
        pid = config.kind == Kind::kFX3 ? kFX3Pid : kFX20Pid;
        EXPECT_EQ(bus.Open(kVid, pid), 1);
        return id;
    }
    libusb_device_handle* Handle(int index = 0) { return bus.GetHandle(kVid, pid, index); }
    // A transfer of the bus on the list's first camera, filled as the FX20 transport fills it.
    libusb_transfer* Unowned(uint8_t* buffer, int length, unsigned int timeoutMs,
                             Completion* completion) {
        libusb_transfer* t = bus.AllocTransfer();
        t->dev_handle = Handle();
        t->endpoint = kEp;
        t->type = LIBUSB_TRANSFER_TYPE_BULK;
        t->timeout = timeoutMs;
        t->length = length;
        t->buffer = buffer;
        t->callback = Record;
        t->user_data = completion;
        return t;
    }
    // The same, freed with the test.
    libusb_transfer* Transfer(uint8_t* buffer, int length, unsigned int timeoutMs,
                              Completion* completion) {
        transfers.push_back(Unowned(buffer, length, timeoutMs, completion));
        return transfers.back();
    }
    // Handles events until the completion is recorded; false after 5 s.
    bool WaitFor(Completion& completion) {
        return WaitUntil([&] {
            timeval step{0, 10000};
            if (completion.done == 0) {
                bus.HandleEventsTimeoutCompleted(&step, &completion.done);
            }
            return completion.done != 0;
        });
    }
    void TearDown() override {
        for (libusb_transfer* t : transfers) {
            bus.FreeTransfer(t);
        }
    }

    SimulatedBus bus;
    uint16_t pid = 0;  // of the camera PlugOpen plugged last
    std::vector<libusb_transfer*> transfers;
};

TEST_F(BusTest, captures_what_it_delivers_and_streams_a_recording_in_a_loop) {
    TempDir dir;
    const std::string path = dir.File("take.dvs");
    std::vector<uint8_t> body(1000);
    for (size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<uint8_t>(i * 7);
    }
    ASSERT_EQ(WriteRecordingFile(path.c_str(), MVT94QX, body.data(), body.size()), ERR_SUCCESS);
    CameraConfig config = Camera(Kind::kFX20, 1, 1, 0, 512);
    config.file = path;
    const int id = PlugOpen(config);
    ASSERT_EQ(bus.StartCapture(id), ERR_SUCCESS);
    std::vector<uint8_t> received(2560);
    for (int i = 0; i < 5; ++i) {
        int moved = 0;
        ASSERT_EQ(bus.BulkTransfer(Handle(), kEp, &received[i * 512], 512, &moved, 100), 0);
        ASSERT_EQ(moved, 512);
    }
    for (size_t i = 0; i < received.size(); ++i) {
        ASSERT_EQ(received[i], body[i % body.size()]) << "at " << i;
    }
    std::vector<uint8_t> captured;
    EXPECT_EQ(bus.TakeCapture(id, captured), ERR_SUCCESS);
    EXPECT_EQ(captured, received);
    EXPECT_EQ(bus.TakeCapture(id, captured), ERR_NOT_START);
    EXPECT_TRUE(captured.empty());
    EXPECT_EQ(bus.BytesSent(id), 2560u);
}

TEST_F(BusTest, each_fault_ends_reads_the_way_the_device_would) {
    const struct {
        Fault fault;
        int syncResult;
        int syncMoved;
        int asyncStatus;  // -1: the submission itself is refused
        int asyncMoved;
    } cases[] = {
        {Fault::kTimeout, LIBUSB_ERROR_TIMEOUT, 0, LIBUSB_TRANSFER_TIMED_OUT, 0},
        {Fault::kTransferError, LIBUSB_ERROR_IO, 0, LIBUSB_TRANSFER_ERROR, 0},
        {Fault::kShortTransfer, 0, 2048, LIBUSB_TRANSFER_COMPLETED, 2048},
        {Fault::kSubmitError, LIBUSB_ERROR_IO, 0, -1, 0},
        {Fault::kStall, LIBUSB_ERROR_PIPE, 0, LIBUSB_TRANSFER_STALL, 0},
    };
    const int id = PlugOpen(Camera(Kind::kFX20, 1, 1, 0, 512));
    std::vector<uint8_t> buffer(4096);
    Completion completion;
    libusb_transfer* transfer = Transfer(buffer.data(), 4096, 20, &completion);
    // A synchronous read with a bad endpoint or buffer is refused before any fault.
    int moved = -1;
    EXPECT_EQ(bus.BulkTransfer(Handle(), 0x82, buffer.data(), 512, &moved, 20), LIBUSB_ERROR_IO);
    EXPECT_EQ(bus.BulkTransfer(Handle(), kEp, nullptr, 512, &moved, 20),
              LIBUSB_ERROR_INVALID_PARAM);
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.fault));
        ASSERT_EQ(bus.InjectFault(id, c.fault, 2), ERR_SUCCESS);
        EXPECT_EQ(bus.BulkTransfer(Handle(), kEp, buffer.data(), 4096, &moved, 20), c.syncResult);
        EXPECT_EQ(moved, c.syncMoved);
        completion.done = 0;
        if (c.asyncStatus < 0) {
            EXPECT_EQ(bus.SubmitTransfer(transfer), LIBUSB_ERROR_IO);
        } else {
            ASSERT_EQ(bus.SubmitTransfer(transfer), 0);
            ASSERT_TRUE(WaitFor(completion));
            EXPECT_EQ(completion.status, c.asyncStatus);
            EXPECT_EQ(completion.length, c.asyncMoved);
        }
        if (c.fault == Fault::kStall) {
            EXPECT_EQ(bus.ClearHalt(Handle(), kEp), 0);
        }
        EXPECT_EQ(bus.BulkTransfer(Handle(), kEp, buffer.data(), 4096, &moved, 20), 0)
            << "the fault is used up";
        EXPECT_EQ(moved, 4096);
    }
    EXPECT_EQ(bus.InjectFault(id, Fault::kTimeout, 0), ERR_PARA_ERROR);
    // Without data a synchronous read times out empty.
    PlugOpen(Camera(Kind::kFX3, 1, 2, 0, sim::kZeroPacketSize));
    EXPECT_EQ(bus.BulkTransfer(Handle(), kEp, buffer.data(), 512, &moved, 20),
              LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(moved, 0);
}

TEST_F(BusTest, runs_callbacks_on_the_submitting_thread_only) {
    PlugOpen(Camera(Kind::kFX20, 1, 1, 0, 512));
    std::vector<uint8_t> buffer(2048);
    Completion completion;
    libusb_transfer* transfer = Transfer(buffer.data(), 2048, 1000, &completion);
    ASSERT_EQ(bus.SubmitTransfer(transfer), 0);
    EXPECT_EQ(bus.SubmitTransfer(transfer), LIBUSB_ERROR_BUSY);

    std::thread other([&] {
        timeval wait{0, 50000};
        EXPECT_EQ(bus.HandleEventsTimeoutCompleted(&wait, nullptr), LIBUSB_ERROR_NO_DEVICE)
            << "nothing of its own to wait for";
    });
    other.join();
    EXPECT_EQ(completion.calls, 0);

    ASSERT_TRUE(WaitFor(completion));
    EXPECT_EQ(completion.thread, std::this_thread::get_id());
    EXPECT_EQ(std::make_tuple(completion.status, completion.length),
              std::make_tuple(int(LIBUSB_TRANSFER_COMPLETED), 2048));
    EXPECT_EQ(bus.CancelTransfer(transfer), LIBUSB_ERROR_NOT_FOUND);

    timeval none{0, 0};
    int completed = 1;
    EXPECT_EQ(bus.HandleEventsTimeoutCompleted(&none, &completed), 0);
    EXPECT_EQ(bus.HandleEventsTimeoutCompleted(nullptr, nullptr), LIBUSB_ERROR_INVALID_PARAM);
}

TEST_F(BusTest, cancel_time_out_and_free_of_pending_transfers) {
    PlugOpen(Camera(Kind::kFX20, 1, 1, 0, sim::kZeroPacketSize));
    uint8_t buffer[3][512];
    Completion cancelled, timedOut, freed;
    libusb_transfer* a = Transfer(buffer[0], 512, 0, &cancelled);
    ASSERT_EQ(bus.SubmitTransfer(a), 0);
    ASSERT_EQ(bus.SubmitTransfer(Transfer(buffer[1], 512, 30, &timedOut)), 0);
    libusb_transfer* c = Unowned(buffer[2], 512, 0, &freed);
    ASSERT_EQ(bus.SubmitTransfer(c), 0);
    EXPECT_EQ(bus.CancelTransfer(a), 0);
    bus.FreeTransfer(c);
    ASSERT_TRUE(WaitFor(cancelled));
    EXPECT_EQ(cancelled.status, LIBUSB_TRANSFER_CANCELLED);
    ASSERT_TRUE(WaitFor(timedOut));
    EXPECT_EQ(timedOut.status, LIBUSB_TRANSFER_TIMED_OUT);
    timeval wait{0, 20000};
    EXPECT_EQ(bus.HandleEventsTimeoutCompleted(&wait, nullptr), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(freed.calls, 0) << "a freed transfer never calls back";

    // A callback may free its own transfer.
    libusb_transfer* own = Unowned(buffer[2], 512, 5, nullptr);
    own->callback = [](libusb_transfer* t) {
        static_cast<SimulatedBus*>(t->user_data)->FreeTransfer(t);
    };
    own->user_data = &bus;
    ASSERT_EQ(bus.SubmitTransfer(own), 0);
    timeval step{1, 0};
    EXPECT_EQ(bus.HandleEventsTimeoutCompleted(&step, nullptr), 0);
}

// Closing the list (re-opening does it first) or unplugging the camera ends the queued
// transfers and a waiting synchronous read with no-device, whether the read is queued before
// or submitted on the stale handle after.
TEST_F(BusTest, closing_the_list_or_unplugging_ends_queued_transfers_with_no_device) {
    for (bool unplug : {false, true}) {
        SCOPED_TRACE(unplug);
        const int id = PlugOpen(
            Camera(unplug ? Kind::kFX3 : Kind::kFX20, 1, unplug ? 2 : 1, 0, sim::kZeroPacketSize));
        uint8_t buffer[5][1024];
        Completion completions[4];
        for (int i = 0; i < 4; ++i) {
            ASSERT_EQ(bus.SubmitTransfer(Transfer(buffer[i], 1024, 0, &completions[i])), 0);
        }
        std::atomic<int> syncResult{0};
        libusb_device_handle* handle = Handle();
        std::thread reader([&] {
            int moved = 0;
            syncResult = bus.BulkTransfer(handle, kEp, buffer[4], 1024, &moved, 0);
        });
        std::this_thread::sleep_for(20ms);
        if (unplug) {
            ASSERT_EQ(bus.Unplug(id), ERR_SUCCESS);
        } else {
            ASSERT_EQ(bus.Open(kVid, pid), 1);
        }
        reader.join();
        EXPECT_EQ(syncResult, LIBUSB_ERROR_NO_DEVICE);
        for (Completion& completion : completions) {
            ASSERT_TRUE(WaitFor(completion));
            EXPECT_EQ(completion.status, LIBUSB_TRANSFER_NO_DEVICE);
        }
        EXPECT_EQ(bus.SubmitTransfer(transfers.back()), LIBUSB_ERROR_NO_DEVICE);
        if (unplug) {
            uint8_t byte = 0;
            EXPECT_EQ(bus.ControlTransfer(handle, 0xC0, 0xAB, 0, 0, &byte, 1, 100),
                      LIBUSB_ERROR_NO_DEVICE);
            EXPECT_EQ(bus.GetDeviceAddress(handle), 2) << "descriptors stay readable, as in libusb";
            EXPECT_EQ(bus.Open(kVid, kFX3Pid), 0);
        }
    }
}

TEST_F(BusTest, unplugs_itself_the_given_time_after_streaming_starts) {
    CameraConfig config = Camera(Kind::kFX20, 1, 1, 0, 512);
    config.unplugAfterMs = 30;
    PlugOpen(config);
    uint8_t buffer[512];
    int moved = 0;
    int result = 0;
    WaitUntil(
        [&] { return (result = bus.BulkTransfer(Handle(), kEp, buffer, 512, &moved, 100)) != 0; });
    EXPECT_EQ(result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(bus.Open(kVid, kFX20Pid), 0);
}

// Two cameras stream into rings of four transfers on two threads while the caller's thread
// keeps closing and re-opening the list for register requests, as the transports do. Every
// byte a camera delivered must reach its own thread, in order.
TEST_F(BusTest, two_cameras_stream_on_two_threads_while_the_list_is_reopened) {
    PlugError error;
    const int ids[2] = {bus.Plug(Camera(Kind::kFX20, 1, 1, 2000000), error),
                        bus.Plug(Camera(Kind::kFX20, 1, 2, 2000000), error)};
    pid = kFX20Pid;
    ASSERT_EQ(bus.Open(kVid, kFX20Pid), 2);
    std::vector<libusb_transfer*> rings[2];
    for (int index = 0; index < 2; ++index) {
        ASSERT_EQ(bus.StartCapture(ids[index]), ERR_SUCCESS);
        for (int slot = 0; slot < 4; ++slot) {
            rings[index].push_back(Transfer(nullptr, 2048, 1000, nullptr));
        }
    }
    std::atomic<bool> running{true};
    std::vector<uint8_t> received[2];
    auto stream = [&](int index) {
        std::vector<uint8_t> buffers[4];
        Completion completions[4];
        auto submit = [&](int slot) {
            completions[slot].done = 0;
            libusb_transfer* t = rings[index][slot];
            t->buffer = buffers[slot].data();
            t->user_data = &completions[slot];
            // Retried on the list's new handle while the list is being re-opened.
            while ((t->dev_handle = Handle(index)) == nullptr || bus.SubmitTransfer(t) != 0) {
                std::this_thread::sleep_for(1ms);
            }
        };
        auto collect = [&](int slot) {
            ASSERT_TRUE(WaitFor(completions[slot]));
            const uint8_t* data = buffers[slot].data();
            received[index].insert(received[index].end(), data, data + completions[slot].length);
        };
        for (int slot = 0; slot < 4; ++slot) {
            buffers[slot].resize(2048);
            submit(slot);
        }
        int slot = 0;
        for (;; slot = (slot + 1) % 4) {
            collect(slot);
            if (!running) {
                break;
            }
            submit(slot);
        }
        // Collect the rest of the ring in order; the last slot was not queued again.
        for (int k = 1; k < 4; ++k) {
            bus.CancelTransfer(rings[index][(slot + k) % 4]);
            collect((slot + k) % 4);
        }
    };
    std::thread first(stream, 0);
    std::thread second(stream, 1);
    for (int i = 0; i < 50; ++i) {
        bus.Close(kVid, kFX20Pid);
        ASSERT_EQ(bus.Open(kVid, kFX20Pid), 2);
        unsigned char payload[4] = {0x20, 0x00, static_cast<unsigned char>(i), 1};
        EXPECT_EQ(bus.ControlTransfer(Handle(i % 2), 0x40, 0xBA, 0, 0, payload, 4, 5000), 4);
        std::this_thread::sleep_for(2ms);
    }
    running = false;
    first.join();
    second.join();
    for (int i = 0; i < 2; ++i) {
        std::vector<uint8_t> captured;
        ASSERT_EQ(bus.TakeCapture(ids[i], captured), ERR_SUCCESS);
        EXPECT_GT(received[i].size(), 0u);
        EXPECT_TRUE(captured == received[i]) << "camera " << i;
    }
}

// ---- The process's choice

TEST(SimChoice, sim_functions_drive_the_bus_the_transports_use) {
    ASSERT_EQ(sim::Enable(), ERR_SUCCESS);
    EXPECT_EQ(&ActiveUsbBackend(), &ProcessSimulatedBus());
    sim::UnplugAll();
    EXPECT_EQ(sim::Configure("fx3:bus=9,rate=x"), ERR_PARA_ERROR);
    EXPECT_EQ(cyusb_open(kVid, kFX3Pid), 0);
    ASSERT_EQ(sim::Configure("fx3:bus=9,addr=1,rate=0"), ERR_SUCCESS);
    const int id = sim::Plug(Camera(Kind::kFX3, 9, 2));
    ASSERT_GE(id, 0);
    ASSERT_EQ(cyusb_open(kVid, kFX3Pid), 2);
    unsigned char value[1] = {0x42};
    EXPECT_EQ(cyusb_control_transfer(cyusb_gethandle(kVid, kFX3Pid, 1), 0x40, 0xBA, 0x10, 0x20,
                                     value, 1, 5000),
              1);
    int stored = 0;
    EXPECT_EQ(sim::ReadRegister(id, 0x10, 0x20, stored), ERR_SUCCESS);
    EXPECT_EQ(stored, 0x42);
    EXPECT_EQ(sim::ControlLog(id).size(), 1u);
    EXPECT_EQ(sim::Unplug(id), ERR_SUCCESS);
    EXPECT_EQ(cyusb_open(kVid, kFX3Pid), 1);
    sim::UnplugAll();
    cyusb_close(kVid, kFX3Pid);
}

}  // namespace
}  // namespace evcam
