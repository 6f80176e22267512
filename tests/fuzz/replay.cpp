// Runs a target over inputs: the files named as arguments, and for a target's folder what is kept in its seeds/,
// corpus/ and crashes/. No libFuzzer: any compiler builds it, so every build of the tests replays them.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz.h"

namespace {

namespace fs = std::filesystem;

void add_folder(const fs::path &folder, std::vector<fs::path> *files) {
    for (const char *kept : {"seeds", "corpus", "crashes"}) {
        if (!fs::is_directory(folder / kept)) continue;
        for (const auto &entry : fs::directory_iterator(folder / kept)) files->push_back(entry.path());
    }
}

std::vector<fs::path> files_of(int count, char **names) {
    std::vector<fs::path> files;
    for (int i = 1; i < count; ++i) {
        if (fs::is_directory(names[i])) {
            add_folder(names[i], &files);
        } else {
            files.emplace_back(names[i]);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void run(const fs::path &file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw std::runtime_error(file.string() + " cannot be read");
    // A block of its own size: a read beyond it is seen by the sanitizers.
    const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)), {});
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char **names) {
    try {
        const std::vector<fs::path> files = files_of(count, names);
        if (files.empty()) {
            std::fprintf(stderr, "replay: nothing to replay; name files, or a folder like tests/fuzz/http\n");
            return 2;
        }
        for (const fs::path &file : files) run(file);
        std::printf("%zu replayed\n", files.size());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "replay: %s; name files, or a folder like tests/fuzz/http\n", error.what());
        return 2;
    }
    return 0;
}
