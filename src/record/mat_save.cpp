#include "src/record/mat_save.h"

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "evcam/platform.h"
#include "src/data/output_data.h"
#include "src/data/ui_data_buffer.h"

namespace evcam {

namespace {

constexpr int kMaxWidth = 960;
constexpr int kMaxHeight = 720;
// How long the export thread sleeps when the pool has nothing for it.
constexpr unsigned int kIdlePollMs = 2;
// Device identity that file playback stamps on its data.
constexpr int32_t kFileDataId = 2;

std::string FormatName(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string name;
    if (length > 0) {
        std::vector<char> text(static_cast<size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        name.assign(text.data(), static_cast<size_t>(length));
    }
    va_end(again);
    return name;
}

// A path whose state cannot be read counts as taken, so that nothing unseen is overwritten or
// removed.
bool FileExists(const std::string& path) {
    std::error_code error;
    bool exists = std::filesystem::exists(path, error);
    return exists || error;
}

// Opening for append creates a missing file without truncating an existing one, so the check
// destroys nothing; a file made only for the check is removed again.
bool CanWrite(const std::string& path) {
    bool existed = FileExists(path);
    FILE* fp = nullptr;
    if (DVSOpenFile(&fp, path.c_str(), "ab") != 0) {
        return false;
    }
    std::fclose(fp);
    if (!existed) {
        std::remove(path.c_str());
    }
    return true;
}

// One camera's image in OpenCV's channel order; empty when the record has no usable image.
cv::Mat ConvertRecord(const DVSUIData* record) {
    if (record == nullptr || (record->mOutputType & OUT_IMAGE) == 0 ||
        record->mImgData == nullptr) {
        return cv::Mat();
    }
    int width = static_cast<int>(record->mImgWidth);
    int height = static_cast<int>(record->mImgHeight);
    if (width < 1 || height < 1) {
        width = record->mWidth;
        height = record->mHeight;
    }
    if (width < 1 || height < 1) {
        return cv::Mat();
    }
    cv::Mat out;
    switch (record->mColorFormat) {
        case COLOR_RGB24:
            cv::cvtColor(cv::Mat(height, width, CV_8UC3, record->mImgData), out, cv::COLOR_RGB2BGR);
            break;
        case COLOR_YUV:
            cv::cvtColor(cv::Mat(height, width, CV_8UC3, record->mImgData), out, cv::COLOR_YUV2BGR);
            break;
        case COLOR_GRAY:
            out = cv::Mat(height, width, CV_8UC1, record->mImgData).clone();
            break;
    }
    return out;
}

}  // namespace

MatSave::MatSave() = default;

MatSave::~MatSave() {
    StopSaving();
}

DVS_ERROR MatSave::SetVersion(DVS_VERSION version) {
    if (IsSaving()) {
        return ERR_RUNNING;
    }
    if (Ver2StrMap.find(version) == Ver2StrMap.end()) {
        return ERR_PARA_ERROR;
    }
    mVersion = version;
    return ERR_SUCCESS;
}

DVS_ERROR MatSave::SetSaveMode(int mode) {
    if (IsSaving()) {
        return ERR_RUNNING;
    }
    if (mode != kSaveImages && mode != kSaveVideo) {
        return ERR_PARA_ERROR;
    }
    mSaveMode = mode;
    return ERR_SUCCESS;
}

DVS_ERROR MatSave::SetVideoFps(int fps) {
    if (IsSaving()) {
        return ERR_RUNNING;
    }
    if (fps < 0) {
        return ERR_PARA_ERROR;
    }
    mVideoFps = fps == 0 ? kDefaultVideoFps : fps;
    return ERR_SUCCESS;
}

DVS_ERROR MatSave::SetResolution(int width, int height) {
    if (IsSaving()) {
        return ERR_RUNNING;
    }
    bool fromFrame = width == 0 && height == 0;
    bool valid = width >= 1 && width <= kMaxWidth && height >= 1 && height <= kMaxHeight;
    if (!fromFrame && !valid) {
        return ERR_PARA_ERROR;
    }
    mWidth = width;
    mHeight = height;
    return ERR_SUCCESS;
}

DVS_ERROR MatSave::StartSaving(const char* path, UIDataBuffer* buffer) {
    if (IsSaving()) {
        return ERR_ALREADY_DONE;
    }
    if (path == nullptr || path[0] == '\0' || buffer == nullptr || mSaveMode == 0) {
        return ERR_PARA_ERROR;
    }
    std::string firstOutput;
    mVideoPath.clear();
    if (mSaveMode == kSaveImages) {
        firstOutput = FormatName("%s%d.bmp", path, 0);
    } else {
        const char* versionName = Ver2StrMap.at(mVersion);
        int counter = 0;
        std::error_code error;
        do {
            mVideoPath = FormatName("%s%s-%d.avi", path, versionName, counter++);
        } while (std::filesystem::exists(mVideoPath, error));
        firstOutput = mVideoPath;
    }
    if (!CanWrite(firstOutput)) {
        return ERR_OPEN_FILE;
    }

    mPath = path;
    mBuffer = buffer;
    mSlotNodes = buffer->GetSlotNodes() > 1 ? buffer->GetSlotNodes() : 1;
    mBacklogLimit = static_cast<size_t>(buffer->GetNodeCount() / 4);
    if (mBacklogLimit < 1) {
        mBacklogLimit = 1;
    }
    mImageCounter = 0;
    mVideoSize = cv::Size();
    mFailureReported = false;
    mWritten.store(0);
    mSkipped.store(0);
    SetLastFilePath(std::string());
    mStopRequested.store(false);
    buffer->RegisterDataHandle(mHandle);
    try {
        mThread = std::thread(&MatSave::Run, this);
    } catch (const std::system_error&) {
        buffer->UnregisterDataHandle(mHandle);
        mHandle = nullptr;
        mBuffer = nullptr;
        return ERR_NOT_START;
    }
    return ERR_SUCCESS;
}

DVS_ERROR MatSave::StopSaving() {
    if (!IsSaving()) {
        return ERR_ALREADY_DONE;
    }
    mStopRequested.store(true);
    mThread.join();
    mBuffer->UnregisterDataHandle(mHandle);
    mHandle = nullptr;
    mBuffer = nullptr;
    return ERR_SUCCESS;
}

std::string MatSave::GetLastFilePath() const {
    std::lock_guard<std::mutex> lock(mPathLock);
    return mLastFilePath;
}

void MatSave::SetLastFilePath(const std::string& path) {
    std::lock_guard<std::mutex> lock(mPathLock);
    mLastFilePath = path;
}

void MatSave::Run() {
    std::deque<DVSOutputData*> pending;
    while (!mStopRequested.load()) {
        while (DVSOutputData* slot = mBuffer->GetADataNode(mHandle)) {
            pending.push_back(slot);
        }
        TrimBacklog(pending);
        if (pending.empty()) {
            DVSSleep(kIdlePollMs);
            continue;
        }
        ExportSlot(pending.front());
        pending.pop_front();
    }
    // Everything appended before StopSaving is on the cursor now. Taking it in one pass ends,
    // because the pool cannot grow past the slots this thread then holds.
    while (DVSOutputData* slot = mBuffer->GetADataNode(mHandle)) {
        pending.push_back(slot);
    }
    for (DVSOutputData* slot : pending) {
        ExportSlot(slot);
    }
    try {
        mWriter.release();
    } catch (const std::exception& e) {
        std::printf("[MatSave] FAIL: %s\n", e.what());
    }
}

void MatSave::TrimBacklog(std::deque<DVSOutputData*>& pending) {
    while (pending.size() > mBacklogLimit) {
        DVSOutputData* oldest = pending.front();
        if (oldest->mUIData != nullptr && oldest->mUIData->mDVSID == kFileDataId) {
            return;
        }
        mBuffer->PutANodeToFreeList(oldest);
        pending.pop_front();
        mSkipped.fetch_add(1);
    }
}

void MatSave::ExportSlot(DVSOutputData* slot) {
    bool written = false;
    // OpenCV reports failures (allocation, encoder) by exceptions; one bad frame must neither
    // end the thread nor keep its slot.
    try {
        cv::Mat image;
        if (ConvertSlot(slot, image)) {
            written = WriteImage(image);
        }
    } catch (const std::exception& e) {
        std::printf("[MatSave] FAIL: %s\n", e.what());
    }
    mBuffer->PutANodeToFreeList(slot);
    if (written) {
        mWritten.fetch_add(1);
    } else {
        mSkipped.fetch_add(1);
    }
}

bool MatSave::ConvertSlot(DVSOutputData* slot, cv::Mat& out) const {
    std::vector<cv::Mat> cameras;
    for (int i = 0; i < mSlotNodes; ++i) {
        cv::Mat camera = ConvertRecord(slot[i].mUIData);
        if (camera.empty()) {
            return false;
        }
        if (mWidth > 0 && camera.size() != cv::Size(mWidth, mHeight)) {
            cv::Mat scaled;
            cv::resize(camera, scaled, cv::Size(mWidth, mHeight), 0, 0, cv::INTER_NEAREST);
            camera = scaled;
        }
        if (!cameras.empty() &&
            (camera.rows != cameras[0].rows || camera.type() != cameras[0].type())) {
            return false;
        }
        cameras.push_back(camera);
    }
    if (cameras.size() == 1) {
        out = cameras[0];
    } else {
        cv::hconcat(cameras, out);
    }
    return true;
}

bool MatSave::WriteImage(const cv::Mat& image) {
    if (mSaveMode == kSaveVideo) {
        return WriteVideoFrame(image);
    }
    std::string name = FormatName("%s%d.bmp", mPath.c_str(), static_cast<int>(mImageCounter));
    if (!cv::imwrite(name, image)) {
        ReportFailure(name);
        return false;
    }
    ++mImageCounter;
    SetLastFilePath(name);
    return true;
}

bool MatSave::WriteVideoFrame(const cv::Mat& image) {
    if (!mWriter.isOpened()) {
        // The built-in encoder needs no codec plugins and starts no threads of its own.
        if (!mWriter.open(mVideoPath, cv::CAP_OPENCV_MJPEG,
                          cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), mVideoFps, image.size(),
                          true)) {
            ReportFailure(mVideoPath);
            return false;
        }
        mVideoSize = image.size();
        SetLastFilePath(mVideoPath);
    }
    cv::Mat frame = image;
    if (frame.channels() == 1) {
        cv::cvtColor(image, frame, cv::COLOR_GRAY2BGR);
    }
    if (frame.size() != mVideoSize) {
        cv::Mat scaled;
        cv::resize(frame, scaled, mVideoSize, 0, 0, cv::INTER_NEAREST);
        frame = scaled;
    }
    mWriter.write(frame);
    return true;
}

void MatSave::ReportFailure(const std::string& path) {
    if (!mFailureReported) {
        mFailureReported = true;
        std::printf("[MatSave] FAIL: cannot write %s\n", path.c_str());
    }
}

}  // namespace evcam
