#include "usbdevfs_camera.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>

namespace evcam {

namespace {

using Clock = SimCamera::Clock;

constexpr int kSetupBytes = 8;
// The device side never gives up on a read; libusb times URBs out by discarding them. The
// model only needs a deadline far enough away that an injected time-out waits for the discard.
constexpr auto kModelDeadline = std::chrono::hours(1);

// What the kernel would put in a URB's status for a transfer that ended so; libusb turns it
// back into the transfer status.
int UrbStatus(libusb_transfer_status status) {
    switch (status) {
        case LIBUSB_TRANSFER_COMPLETED:
            return 0;
        case LIBUSB_TRANSFER_STALL:
            return -EPIPE;
        case LIBUSB_TRANSFER_OVERFLOW:
            return -EOVERFLOW;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return -ENODEV;
        case LIBUSB_TRANSFER_CANCELLED:
        case LIBUSB_TRANSFER_TIMED_OUT:
            return -ENOENT;
        case LIBUSB_TRANSFER_ERROR:
            break;
    }
    return -EPROTO;
}

int ControlStatus(int result) {
    if (result >= 0) {
        return 0;
    }
    switch (result) {
        case LIBUSB_ERROR_PIPE:
            return -EPIPE;
        case LIBUSB_ERROR_NO_DEVICE:
            return -ENODEV;
        default:
            return -EPROTO;
    }
}

// Reads a 32-bit unsigned argument that the client passed by pointer.
bool ReadUint(UMockdevIoctlData* arg, unsigned int& value) {
    UMockdevIoctlData* resolved =
        umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned int), nullptr);
    if (resolved == nullptr) {
        return false;
    }
    value = *reinterpret_cast<unsigned int*>(resolved->data);
    g_object_unref(resolved);
    return true;
}

}  // namespace

UsbdevfsCamera::UsbdevfsCamera(const sim::CameraConfig& config,
                               std::unique_ptr<StreamSource> source)
    : mConfig(config),
      mHandler(umockdev_ioctl_base_new()),
      mCamera(std::make_unique<SimCamera>(config, std::move(source))) {
    g_signal_connect(mHandler, "handle-ioctl", G_CALLBACK(&UsbdevfsCamera::OnIoctl), this);
}

UsbdevfsCamera::~UsbdevfsCamera() {
    g_signal_handlers_disconnect_by_data(mHandler, this);
    std::lock_guard<std::mutex> lock(mMutex);
    for (Urb& held : mInFlight) {
        g_object_unref(held.buffer);
        g_object_unref(held.urb);
    }
    for (auto& done : mDone) {
        g_object_unref(done.second);
        g_object_unref(done.first);
    }
    g_object_unref(mHandler);
}

gboolean UsbdevfsCamera::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    auto* camera = static_cast<UsbdevfsCamera*>(self);
    std::lock_guard<std::mutex> lock(camera->mMutex);
    return camera->HandleLocked(client) ? TRUE : FALSE;
}

bool UsbdevfsCamera::HandleLocked(UMockdevIoctlClient* client) {
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    const bool present = mCamera->Present(Clock::now());
    // Answers a request that only needs the device to be there.
    const auto simple = [&](UsbdevfsCall call) {
        ++mCalls[call];
        umockdev_ioctl_client_complete(client, present ? 0 : -1, present ? 0 : ENODEV);
    };
    switch (request) {
        case USBDEVFS_GET_CAPABILITIES: {
            UMockdevIoctlData* caps =
                umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
            *reinterpret_cast<uint32_t*>(caps->data) = USBDEVFS_CAP_BULK_SCATTER_GATHER |
                                                       USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                                       USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
            g_object_unref(caps);
            umockdev_ioctl_client_complete(client, 0, 0);
            return true;
        }
        case USBDEVFS_GETDRIVER:
            // No kernel driver is bound to the camera's interface.
            umockdev_ioctl_client_complete(client, -1, ENODATA);
            return true;
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE: {
            unsigned int interface = 0;
            const UsbdevfsCall call =
                request == USBDEVFS_CLAIMINTERFACE ? UsbdevfsCall::kClaim : UsbdevfsCall::kRelease;
            if (!ReadUint(arg, interface) || interface != 0) {
                umockdev_ioctl_client_complete(client, -1, EINVAL);
                return true;
            }
            simple(call);
            return true;
        }
        case USBDEVFS_CLEAR_HALT: {
            ++mCalls[UsbdevfsCall::kClearHalt];
            unsigned int endpoint = 0;
            if (!ReadUint(arg, endpoint)) {
                umockdev_ioctl_client_complete(client, -1, EFAULT);
                return true;
            }
            if (endpoint == SimCamera::kDataEndpoint &&
                mCamera->ClearHalt(Clock::now()) == LIBUSB_ERROR_NO_DEVICE) {
                umockdev_ioctl_client_complete(client, -1, ENODEV);
                return true;
            }
            umockdev_ioctl_client_complete(client, present ? 0 : -1, present ? 0 : ENODEV);
            return true;
        }
        case USBDEVFS_RESETEP:
        case USBDEVFS_RESET:
            umockdev_ioctl_client_complete(client, present ? 0 : -1, present ? 0 : ENODEV);
            return true;
        case USBDEVFS_SUBMITURB:
            SubmitLocked(client, arg);
            return true;
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY:
            ReapLocked(client, arg);
            return true;
        case USBDEVFS_DISCARDURB:
            DiscardLocked(client, arg);
            return true;
        default:
            std::fprintf(stderr, "usbdevfs camera: unexpected ioctl 0x%lX\n", request);
            return false;
    }
}

void UsbdevfsCamera::SubmitLocked(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    const Clock::time_point now = Clock::now();
    if (!mCamera->Present(now)) {
        umockdev_ioctl_client_complete(client, -1, ENODEV);
        return;
    }
    UMockdevIoctlData* urbData = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
    auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData->data);
    UMockdevIoctlData* buffer =
        urb->buffer_length > 0
            ? umockdev_ioctl_data_resolve(urbData, offsetof(usbdevfs_urb, buffer),
                                          static_cast<gsize>(urb->buffer_length), nullptr)
            : nullptr;
    if (buffer == nullptr) {
        g_object_unref(urbData);
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return;
    }
    const auto refuse = [&](int error) {
        g_object_unref(buffer);
        g_object_unref(urbData);
        umockdev_ioctl_client_complete(client, -1, error);
    };

    if (urb->type == USBDEVFS_URB_TYPE_CONTROL && urb->endpoint == 0) {
        if (urb->buffer_length < kSetupBytes) {
            refuse(EINVAL);
            return;
        }
        uint8_t* setup = buffer->data;
        const uint16_t wValue = static_cast<uint16_t>(setup[2] | setup[3] << 8);
        const uint16_t wIndex = static_cast<uint16_t>(setup[4] | setup[5] << 8);
        const uint16_t wLength = static_cast<uint16_t>(setup[6] | setup[7] << 8);
        if (wLength > urb->buffer_length - kSetupBytes) {
            refuse(EINVAL);
            return;
        }
        const int result =
            mCamera->Control(now, setup[0], setup[1], wValue, wIndex, setup + kSetupBytes, wLength);
        urb->status = ControlStatus(result);
        urb->actual_length = result > 0 ? result : 0;
        mDone.emplace_back(urbData, buffer);
        umockdev_ioctl_client_complete(client, 0, 0);
        return;
    }
    if (urb->type != USBDEVFS_URB_TYPE_BULK || urb->endpoint != SimCamera::kDataEndpoint) {
        refuse(EINVAL);
        return;
    }
    ++mCalls[UsbdevfsCall::kBulkSubmit];
    mInFlight.push_back(Urb{urbData, buffer, {}});
    SimCamera::InRequest& request = mInFlight.back().request;
    request.buffer = buffer->data;
    request.length = urb->buffer_length;
    request.submitted = now;
    request.deadline = now + kModelDeadline;
    const int rc = mCamera->SubmitIn(request, now);
    if (rc != 0) {
        mInFlight.pop_back();
        refuse(rc == LIBUSB_ERROR_NO_DEVICE ? ENODEV : EIO);
        return;
    }
    // A halted endpoint has finished it already.
    CollectLocked();
    umockdev_ioctl_client_complete(client, 0, 0);
}

void UsbdevfsCamera::CollectLocked() {
    for (auto it = mInFlight.begin(); it != mInFlight.end();) {
        if (!it->request.done) {
            ++it;
            continue;
        }
        auto* urb = reinterpret_cast<usbdevfs_urb*>(it->urb->data);
        urb->status = UrbStatus(it->request.status);
        urb->actual_length = it->request.moved;
        mDone.emplace_back(it->urb, it->buffer);
        it = mInFlight.erase(it);
    }
}

void UsbdevfsCamera::ReapLocked(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    const Clock::time_point now = Clock::now();
    mCamera->Advance(now);
    CollectLocked();
    if (mDone.empty()) {
        umockdev_ioctl_client_complete(client, -1, mCamera->Present(now) ? EAGAIN : ENODEV);
        return;
    }
    const auto [urb, buffer] = mDone.front();
    mDone.pop_front();
    UMockdevIoctlData* slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
    umockdev_ioctl_data_set_ptr(slot, 0, urb);
    g_object_unref(slot);
    umockdev_ioctl_client_complete(client, 0, 0);
    g_object_unref(buffer);
    g_object_unref(urb);
}

void UsbdevfsCamera::DiscardLocked(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    ++mCalls[UsbdevfsCall::kDiscard];
    // The argument is the URB's address in the client, passed by value.
    const unsigned long address = *reinterpret_cast<unsigned long*>(arg->data);
    for (Urb& held : mInFlight) {
        if (held.urb->client_addr == address) {
            mCamera->AbortIn(held.request, LIBUSB_TRANSFER_CANCELLED, Clock::now());
            CollectLocked();
            umockdev_ioctl_client_complete(client, 0, 0);
            return;
        }
    }
    // Finished already: libusb reaps it as it is.
    umockdev_ioctl_client_complete(client, -1, EINVAL);
}

std::vector<sim::ControlRequest> UsbdevfsCamera::ControlLog() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCamera->ControlLog();
}

void UsbdevfsCamera::ClearControlLog() {
    std::lock_guard<std::mutex> lock(mMutex);
    mCamera->ClearControlLog();
}

int UsbdevfsCamera::ReadRegister(int slave, int reg) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCamera->ReadRegister(slave, reg);
}

void UsbdevfsCamera::WriteRegister(int slave, int reg, int value) {
    std::lock_guard<std::mutex> lock(mMutex);
    mCamera->WriteRegister(slave, reg, value);
}

void UsbdevfsCamera::InjectFault(sim::Fault fault, int count) {
    std::lock_guard<std::mutex> lock(mMutex);
    mCamera->InjectFault(fault, count, Clock::now());
    CollectLocked();
}

void UsbdevfsCamera::StartCapture() {
    std::lock_guard<std::mutex> lock(mMutex);
    mCamera->StartCapture();
}

std::vector<uint8_t> UsbdevfsCamera::TakeCapture() {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<uint8_t> bytes;
    mCamera->TakeCapture(bytes);
    return bytes;
}

int UsbdevfsCamera::Calls(UsbdevfsCall call) {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls[call];
}

int UsbdevfsCamera::UrbsHeld() {
    std::lock_guard<std::mutex> lock(mMutex);
    return static_cast<int>(mInFlight.size() + mDone.size());
}

void UsbdevfsCamera::Unplug() {
    std::lock_guard<std::mutex> lock(mMutex);
    mCamera->Unplug(Clock::now());
    CollectLocked();
}

}  // namespace evcam
