// The device stream of a camera behind an FX3 controller (04B4:00F1): synchronous bulk reads,
// register requests with the addresses in the setup packet, and the kind's discovery.
#ifndef EVCAM_SRC_STREAM_FX3_STREAM_H
#define EVCAM_SRC_STREAM_FX3_STREAM_H

#include <cstdint>

#include "evcam/platform.h"
#include "evcam/usb_device.h"
#include "src/stream/device_stream.h"
#include "src/stream/usb_device_table.h"

namespace evcam {

/// Product id of the FX3 controller.
constexpr uint16_t kFX3ProductId = 0x00F1;

/// FX3 transport. All FX3 streams share the kind's table (Table()); its scan lock serialises
/// scans only. Each stream guards its own binding, register requests and reads with mRegLock,
/// so two FX3 streams, or a scan and a stream, do not exclude each other. The read thread
/// reads synchronously: BeginRawXfer and FinishRawXfer are DeviceStream's.
class FX3Stream : public DeviceStream {
  public:
    FX3Stream();
    /// Stops the stream and joins its read thread.
    ~FX3Stream() override;

    /// Binds to device id devId (see DeviceStream::BindDevice) under mRegLock.
    /// @return 0, 1, 101, 100, 201, 102. Blocks on USB requests.
    DVS_ERROR SetDVSID(unsigned int devId) override;
    /// DevSendRegReq(REG_READ, ...), through the virtual slot.
    DVS_ERROR ReadI2CReg(int slvAddr, int addr, int& val) override;
    /// DevSendRegReq(REG_WRITE, ...), through the virtual slot.
    DVS_ERROR WriteI2CReg(int slvAddr, int addr, int val) override;
    /// Time-out back to 5000 ms, then a clear-halt of endpoint 0x81 on the kind's last fetched
    /// handle. @return 0; 1 when unbound or the list index is above 1.
    DVS_ERROR DevReset() override;
    /// Marks the device in use, then DevReset (whose result is ignored), so every start clears
    /// a halted endpoint and restores the 5000 ms time-out. @return 0, 1 when unbound, 4 when
    /// already in use (no reset then).
    DVS_ERROR SetStart() override;
    /// Marks the device free. @return 0, 1 when unbound, 4 when not in use.
    DVS_ERROR SetStop() override;
    /// One synchronous bulk read under mRegLock (held for reading), blocking up to the USB
    /// time-out; a stall clears the endpoint's halt. @return 0; 14; 102; 107 (a stall
    /// included); 1 for null pointers or no handle; 101 when unbound.
    DVS_ERROR ReadRawData(unsigned char* buf, unsigned int len, unsigned int* actual) override;
    /// Register read (three attempts, no trace line) or write of a value I2cValueLen bytes
    /// wide, big-endian. @return 0; 102 when no camera is listed; 101 when unbound; 1 for a
    ///         type above 1, a width other than 1 or 2, or no handle for a write; 106 / 105
    ///         when the request fails. Blocks on USB requests.
    virtual DVS_ERROR DevSendRegReq(RegReqType type, int slvAddr, int addr, int& val);

    /// The FX3 table, made on first use and kept for the life of the process.
    static UsbDeviceTable& Table();
    /// Discovery over the FX3 table (UsbDeviceTable::ScanDVSDevice).
    static DVS_ERROR ScanDVSDevice(USBDevice** list, int& count);
    static bool GetDevDescriptor(unsigned int cyIndex, DevUSBItem& item, char* text);
    static DVS_ERROR GetCypressDevID(int devId, unsigned char& cyIndex);

  private:
    RWLock mRegLock;
    DevDBEntry* mDevEntry = nullptr;  ///< changed only while stopped (binding)
};

}  // namespace evcam

#endif  // EVCAM_SRC_STREAM_FX3_STREAM_H
