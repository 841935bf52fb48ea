// Runs a fuzz target over the files given (or the files in the folders
// given) once each, without fuzzing: the regular suite's check that the kept
// inputs still pass.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
// A target may check that a kept input does what its file name says; null when it does.
extern "C" __attribute__((weak)) const char* KaFuzzNameMismatch(const char* name, const uint8_t* data,
                                                                std::size_t size);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    std::size_t count = 0, misnamed = 0;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-') continue;  // libFuzzer's flags, such as -runs=0
        std::vector<fs::path> files;
        if (fs::is_directory(argv[i])) {
            for (const auto& e : fs::directory_iterator(argv[i])) files.push_back(e.path());
        } else {
            files.emplace_back(argv[i]);
        }
        for (const fs::path& f : files) {
            std::ifstream in(f, std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            std::fprintf(stderr, "%s\n", f.c_str());
            const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
            if (KaFuzzNameMismatch)
                if (const char* why = KaFuzzNameMismatch(f.filename().c_str(), data, bytes.size())) {
                    std::fprintf(stderr, "%s: %s\n", f.c_str(), why);
                    ++misnamed;
                }
            LLVMFuzzerTestOneInput(data, bytes.size());
            ++count;
        }
    }
    std::fprintf(stderr, "replayed %zu inputs\n", count);
    return count && !misnamed ? 0 : 1;
}
