// Prints the library version and the table of error codes with their messages.
#include <evcam/evcam.h>

#include <cstdio>

int main() {
    std::printf("evcam %s\n", evcam::GetLibraryVersion());
    for (const evcam::ErrorMsgRow& row : evcam::CommonErrorMsg) {
        std::printf("%4d  %s\n", row.code, row.msg);
    }
    return 0;
}
