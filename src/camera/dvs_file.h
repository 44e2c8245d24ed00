// The DVS object that plays a recording back.
#ifndef EVCAM_SRC_CAMERA_DVS_FILE_H
#define EVCAM_SRC_CAMERA_DVS_FILE_H

#include "evcam/dvs.h"

namespace evcam {

class DVSFile : public DVS {
public:
    DVSFile();
    ~DVSFile() override;

    DVS_ERROR SetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR GetParameter(PARA_TYPE type, void* value) override;
    DVS_ERROR Start() override;
    DVS_ERROR Stop() override;
    DVS_ERROR GetFrame(OUT_TYPE type, DVSUIData* data, unsigned char& count) override;
    DVS_ERROR SetCallBack(CALLBACK_TYPE type, void* function, void* user) override;
    DVS_ERROR UnbindDevice() override;
};

}  // namespace evcam

#endif  // EVCAM_SRC_CAMERA_DVS_FILE_H
