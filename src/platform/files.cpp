#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>
#include <cstring>

#include "evcam/platform.h"

namespace evcam {

namespace {

// strncat within a buffer of dstSize bytes; a full (or invalid) buffer takes nothing.
void BoundedAppend(char* dst, const char* src, long dstSize) {
    const long room = dstSize - 1 - static_cast<long>(strlen(dst));
    if (room > 0) {
        strncat(dst, src, static_cast<size_t>(room));
    }
}

}  // namespace

int DVSOpenFile(FILE** fp, const char* path, const char* mode) {
    if (fp == nullptr || path == nullptr || mode == nullptr) {
        return -1;
    }
    *fp = fopen64(path, mode);
    return *fp != nullptr ? 0 : -1;
}

int DVSSeek64(FILE* fp, long offset, int whence) {
    if (fp == nullptr || whence > 2) {
        return -1;
    }
    return fseeko64(fp, static_cast<off64_t>(offset), whence);
}

long DVSTell64(FILE* fp) {
    if (fp == nullptr) {
        return -1;
    }
    return static_cast<long>(ftello64(fp));
}

int DVSConvertPath(const char* src, char* dst, int dstSize) {
    if (src == nullptr || dst == nullptr || dstSize < 1) {
        return 1;
    }
    int i = 0;
    for (; src[i] != '\0'; ++i) {
        if (i == dstSize - 1) {
            dst[i] = '\0';
            return 1;
        }
        dst[i] = src[i] == '\\' ? '/' : src[i];
    }
    dst[i] = '\0';
    return 0;
}

int DVSWcscat(char* dst, const char* src, int dstSize) {
    if (src == nullptr || dst == nullptr) {
        return 1;
    }
    BoundedAppend(dst, src, dstSize);
    return 0;
}

void DVSCompletePath(char* dst, unsigned int dstSize, const char* dir) {
    if (dst == nullptr || dir == nullptr || dir[0] == '\0') {
        return;
    }
    BoundedAppend(dst, dir, static_cast<long>(dstSize));
    if (dir[strlen(dir) - 1] != '/') {
        BoundedAppend(dst, "/", static_cast<long>(dstSize));
    }
}

int DVSMkdir(const char* path) {
    if (path == nullptr) {
        return -1;
    }
    return mkdir(path, 0700);
}

void DVSFindFiles(const char* dir, char* pattern, char (*names)[260], int maxCount, int& count,
                  bool keepExtension) {
    count = 0;
    if (dir == nullptr || names == nullptr) {
        return;
    }
    DIR* d = opendir(dir);
    if (d == nullptr) {
        perror("Open dir error...");
        return;
    }
    const char* wanted = pattern != nullptr ? pattern : "";
    dirent* entry;
    while (count < maxCount && (entry = readdir(d)) != nullptr) {
        if (strstr(entry->d_name, wanted) == nullptr) {
            continue;
        }
        char* name = names[count];
        strncpy(name, entry->d_name, 259);
        name[259] = '\0';
        if (!keepExtension) {
            char* dot = strchr(name, '.');
            if (dot != nullptr) {
                *dot = '\0';
            }
        }
        ++count;
    }
    closedir(d);
}

int DVSGetAlgFilter(char* buf) {
    if (buf == nullptr) {
        return 0;
    }
    memcpy(buf, ".so", 4);
    return 1;
}

}  // namespace evcam
