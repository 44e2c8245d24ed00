#include "src/stream/stream.h"

namespace evcam {

Stream::~Stream() = default;

DVS_ERROR Stream::SetFilePercent(float*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::GetFilePercent(float*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetDVSID(unsigned int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::ReadI2CReg(int, int, int&) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::WriteI2CReg(int, int, int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetFilePath(const char*) {
    return ERR_NOT_SUPPORT;
}

DVS_ERROR Stream::SetPacketBuffer(PacketBuffer* buffer) {
    mPacketBuffer = buffer;
    return ERR_SUCCESS;
}

DVS_ERROR Stream::GetPacketBuffer(PacketBuffer** buffer) {
    if (buffer == nullptr) {
        return ERR_PARA_ERROR;
    }
    *buffer = mPacketBuffer;
    return ERR_SUCCESS;
}

DVS_ERROR Stream::Pause() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::Resume() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::Close() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetPlayMode(PLAY_MODE) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::GetPlayMode(PLAY_MODE&) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetReadOverCbk(void (*)(void*), void*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetUsbDataRateCbk(void (*)(void*, double), void*) {
    return ERR_PARA_ERROR;
}

DVS_ERROR Stream::SetPktBufDropCbk(void (*)(void*, unsigned long, unsigned long), void*) {
    return ERR_PARA_ERROR;
}

DVS_ERROR Stream::SetTimeout(int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetBias(const char*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::SetVersion(DVS_VERSION) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR Stream::CheckFile() {
    return ERR_NOT_SUPPORT;
}
void Stream::SetSkipBytes(unsigned int) {}

}  // namespace evcam
