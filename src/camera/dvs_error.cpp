#include "evcam/dvs_error.h"

#include "evcam/version.h"

namespace evcam {

const ErrorMsgRow CommonErrorMsg[kErrorMsgCount] = {
    {ERR_SUCCESS, "Success."},
    {ERR_PARA_ERROR, "Input argument error."},
    {ERR_NOT_START, "System is not started."},
    {ERR_DATASAVE_NOT_READY, "DataSave object is not ready."},
    {ERR_ALREADY_DONE, "The specified operation has been done."},
    {ERR_NO_BIAS_FILE, "Bias file is not set for this device."},
    {ERR_NO_PACKET_BUFFER, "PacketBuffer is not set."},
    {ERR_NO_UIDATA_BUFFER, "UIDataBuffer is not set."},
    {ERR_BUFFER_INIT, "Failed to initialize buffer."},
    {ERR_INVALID_BUFFER, "Invalid buffer."},
    {ERR_NOT_SUPPORT, "Non-support operation."},
    {ERR_NO_SPECIFIED_DATA, "Data of the specified type has not been produced."},
    {ERR_NO_DATA, "No data found."},
    {ERR_CREATE_TIMER, "Failed to create timer."},
    {ERR_TIMEOUT, "Time out."},
    {ERR_TYPE_MISMATCH, "Failed to copy data because data type does not match."},
    {ERR_TIMER_LIMIT, "Failed to create callback timer: callback count limit exceeded."},
    {ERR_FRAME_MODE, "Frame mode error: call GetFrame() only for polling mode."},
    {ERR_NOT_INITIALIZED, "Some parameter has not been initialized."},
    {ERR_NO_FREE_NODE, "No free node in buffer list."},
    {ERR_READ_DATA, "Read data error occurred."},
    {ERR_FUNCTION_DISABLED, "Function is disabled."},
    {ERR_UNKNOWN_VERSION, "Unknown version."},
    {ERR_NO_FILE, "No file is binded."},
    {ERR_FILE_OPEN, "File is open."},
    {ERR_NULL_NODE, "Data node pointer is null."},
    {ERR_DEVICE_IN_USE, "Operation is forbidden while the device is in-use."},
    {ERR_INVALID_DEVICE,
     "Invalid device. The device is not DVS device or specified device ID is illegal."},
    {ERR_NO_DEVICE, "No device found."},
    {ERR_TOO_MANY_DEVICES, "The number of devices exceeded the maximum limits."},
    {ERR_OPEN_USB, "Failed to open USB."},
    {ERR_I2C_WRITE, "Failed to write register through I2C."},
    {ERR_I2C_READ, "Failed to read register value through I2C."},
    {ERR_TRANSFER, "Data transfer failed."},
    {ERR_NO_SETTING_FILE, "Setting file was not found."},
    {ERR_RUNNING, "Operation is forbidden while system is running."},
    {ERR_OPEN_FILE, "Failed to open file."},
    {ERR_CREATE_FILE, "Failed to create file."},
    {ERR_WRITE_FILE, "Failed to write data to file."},
    {ERR_READ_FILE, "Failed to read data from file."},
    {ERR_SAVE_DATA, "Failed to save sensor data."},
    {ERR_INVALID_FILE, "Invalid file."},
    {ERR_SEEK_FILE, "Failed to seek file."},
    {ERR_NO_SPACE, "No space available on the disk."},
    {ERR_START_SEPARATOR, "Start separator failed."},
    {ERR_STOP_SEPARATOR, "Stop separator failed."},
    {ERR_START_PARSER, "Start parser failed."},
    {ERR_STOP_PARSER, "Stop parser failed."},
    {ERR_INVALID_ALGORITHM, "Invalid algorithm."},
    {ERR_SELECT_ALGORITHM, "Algorithm selection error."},
    {ERR_UNSELECT_ALGORITHM, "Algorithm unselection error."},
    {ERR_OUT_OF_RANGE, "Out of range."},
};

const char* GetErrorMsg(DVS_ERROR code) {
    for (const ErrorMsgRow& row : CommonErrorMsg) {
        if (row.code == code) {
            return row.msg;
        }
    }
    return "Unknown error";
}

const int32_t IMAGESIZE[kVersionTableSize][2] = {
    {0, 0}, {960, 720}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0},     {0, 0}, {0, 0}, {0, 0}, {0, 0},
    {0, 0}, {0, 0},     {0, 0}, {0, 0}, {0, 0}, {0, 0}, {960, 720}, {0, 0}, {0, 0}, {0, 0}, {0, 0},
    {0, 0}, {0, 0},     {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0},     {0, 0}, {0, 0}, {0, 0},
};

void GetVersionSize(int version, int32_t& width, int32_t& height) {
    if (version < 0 || version >= kVersionTableSize) {
        width = height = 0;
        return;
    }
    width = IMAGESIZE[version][0];
    height = IMAGESIZE[version][1];
}

const char* GetLibraryVersion() {
    return EVCAM_VERSION_STRING;
}

}  // namespace evcam
