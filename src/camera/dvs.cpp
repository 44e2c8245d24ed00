#include "evcam/dvs.h"

namespace evcam {

// A kind that does not override an operation answers "Non-support operation.".
DVS_ERROR DVS::DropFrame() {
    return ERR_SUCCESS;
}
DVS_ERROR DVS::ReadI2CReg(int, int, int&) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::WriteI2CReg(int, int, int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::StartSaving(const char*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::SetSavingNoneSpaceCbk(NoSpaceCallback, void*) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::StopSaving() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::StartFrameSaving(const char*, int) {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::StopFrameSaving() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::Pause() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::UnbindDevice() {
    return ERR_NOT_SUPPORT;
}
DVS_ERROR DVS::Resume() {
    return ERR_NOT_SUPPORT;
}
void DVS::ResetTotalCount() {}
void DVS::GetTotalCounts(unsigned long& events, unsigned long& frames) {
    events = 0;
    frames = 0;
}
DVS::~DVS() = default;

}  // namespace evcam
