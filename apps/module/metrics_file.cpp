#include "metrics_file.h"

#include <cloudtunnel_module.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>

namespace module_program {
namespace {

constexpr auto kInterval = std::chrono::seconds(5);

// replaceable returns whether a path is free or a regular file's. A device such as /dev/null must not be replaced.
bool replaceable(const std::string &path) {
    struct stat found = {};
    return ::lstat(path.c_str(), &found) != 0 || S_ISREG(found.st_mode);
}

}  // namespace

std::string metrics_text(std::string_view own) {
    constexpr std::string_view kEnd = "# EOF\n";
    std::string text;
    // A time may gain a digit between the two calls.
    for (size_t size = ctm_metrics(nullptr, 0); size > text.size(); size = ctm_metrics(text.data(), text.size() + 1))
        text.resize(size);
    text.resize(text.find(kEnd));
    return common::cat(text, own, kEnd);
}

bool MetricsFile::write(Clock::time_point now, std::string_view own) {
    due_ = now + kInterval;
    if (!replaceable(path_)) return false;
    const std::string fresh = path_ + ".new";
    std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
    file << metrics_text(own);
    file.close();
    if (file && std::rename(fresh.c_str(), path_.c_str()) == 0) return true;
    std::remove(fresh.c_str());
    return false;
}

}  // namespace module_program
