// What tests of every area share: a temporary folder that removes itself, a bounded wait for a
// condition that another thread makes true, and whole-file reads and writes.
#ifndef EVCAM_TESTS_SUPPORT_TEST_SUPPORT_H
#define EVCAM_TESTS_SUPPORT_TEST_SUPPORT_H

#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace evcam {

using Bytes = std::vector<uint8_t>;

/// A fresh folder under the system's temporary one, removed with its content when the object
/// goes. path() is empty when no folder could be made, so files written there fail loudly.
/// Not thread-safe; one owner.
class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "evcam_test_XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) {
            mPath = pattern;
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return mPath; }
    /// @return the path of name inside the folder.
    std::string File(const std::string& name) const { return (mPath / name).string(); }
    /// Writes text, byte for byte, to the file name inside the folder. @return its path.
    std::string Write(const std::string& name, const std::string& text) const {
        const std::string path = File(name);
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

  private:
    std::filesystem::path mPath;
};

/// Polls done() every millisecond until it holds or limit has passed; done runs once per try,
/// so it may have side effects. Blocks the caller. @return whether done() came true.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// @return the whole content of the file at path; empty when it cannot be read.
inline Bytes ReadFileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// @return the whole content of the file at path as text; empty when it cannot be read.
inline std::string ReadFileText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace evcam

#endif  // EVCAM_TESTS_SUPPORT_TEST_SUPPORT_H
