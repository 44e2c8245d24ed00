#include "src/camera/dvs_file.h"

namespace evcam {

DVSFile::DVSFile() = default;
DVSFile::~DVSFile() = default;

DVS_ERROR DVSFile::SetParameter(PARA_TYPE, void*) { return ERR_NOT_SUPPORT; }
DVS_ERROR DVSFile::GetParameter(PARA_TYPE, void*) { return ERR_NOT_SUPPORT; }
DVS_ERROR DVSFile::Start() { return ERR_NOT_SUPPORT; }
DVS_ERROR DVSFile::Stop() { return ERR_NOT_SUPPORT; }
DVS_ERROR DVSFile::GetFrame(OUT_TYPE, DVSUIData*, unsigned char&) { return ERR_NOT_SUPPORT; }
DVS_ERROR DVSFile::SetCallBack(CALLBACK_TYPE, void*, void*) { return ERR_NOT_SUPPORT; }
DVS_ERROR DVSFile::UnbindDevice() { return ERR_NOT_SUPPORT; }

}  // namespace evcam
