#pragma once
// A fuzz target's scratch folder: "cr-fuzz-<kind>-<pid>" in /dev/shm (memory,
// so that the store's flushes cost nothing) or the temporary folder. It is
// removed when the process ends normally; a run that ends in a crash or a
// kill leaves it behind, so the folders of processes that no longer run are
// removed when the next one is made.
#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

namespace fuzz_support {

class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& kind) {
        std::error_code error;
        const std::filesystem::path base = std::filesystem::exists("/dev/shm", error)
                                               ? std::filesystem::path("/dev/shm")
                                               : std::filesystem::temp_directory_path();
        const std::string prefix = "cr-fuzz-" + kind + "-";
        for (const auto& entry : std::filesystem::directory_iterator(base, error)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind(prefix, 0) != 0) continue;
            const std::string pid = name.substr(prefix.size());
            if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos) continue;
            if (!std::filesystem::exists("/proc/" + pid, error)) std::filesystem::remove_all(entry.path(), error);
        }
        path_ = base / (prefix + std::to_string(::getpid()));
        std::filesystem::create_directories(path_);
    }
    ~ScratchFolder() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace fuzz_support
