// A program built against the installed kit.
#include <evcam/evcam.h>

#include <cstdio>

int main() {
    std::printf("evcam %s\n", evcam::GetLibraryVersion());
    evcam::DVS* file = evcam::DVSManager::CreateDVS(evcam::DVS_FILE);
    if (file == nullptr) {
        return 1;
    }
    std::printf("%s\n", evcam::GetErrorMsg(file->Start()));
    evcam::DVSManager::DeleteDVS(file);
    return 0;
}
