// Runs a fuzz target over kept inputs, without libFuzzer: every file named on
// the command line, and every file in every folder named there (a folder that
// does not exist holds nothing). A target that finds a property broken
// aborts, so the run fails with the sanitizer's or the target's report.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Replay(const std::filesystem::path& file, size_t& count) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.string().c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++count;
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file()) Replay(entry.path(), count);
        } else if (std::filesystem::is_regular_file(path, error)) {
            Replay(path, count);
        }
    }
    std::fprintf(stderr, "%zu inputs replayed\n", count);
    return 0;
}
