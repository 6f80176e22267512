#include "library_log.h"

#include <cloudtunnel.h>

#include <algorithm>

#include "common/text.h"

namespace module_program {
namespace {

constexpr size_t kLineMax = 400;  // bytes of a message that are shown

}  // namespace

LibraryLog::~LibraryLog() { use(nullptr); }

// The library itself writes the first line of each packet dump, to g_CloudTunnelLogFile.
void LibraryLog::use(std::FILE *file) {
    g_CloudTunnelLogFile = file;
    if (file_) std::fclose(file_);
    file_ = file;
}

bool LibraryLog::open() { return !has_file() || open_file("we"); }
bool LibraryLog::reopen() { return !has_file() || open_file("ae"); }

bool LibraryLog::open_file(const char *mode) {
    std::FILE *const file = std::fopen(options_.log.c_str(), mode);
    if (!file) return false;
    setvbuf(file, nullptr, _IOLBF, BUFSIZ);
    use(file);
    return true;
}

void LibraryLog::write(uint32_t level, const char *text) const {
    if (options_.log.empty() || level > options_.log_level) return;
    const char *name = cloudmgr_debug_level_str[std::min<uint32_t>(level, 10)];
    const std::string shown = common::printable(text, kLineMax);
    if (file_) {
        std::fprintf(file_, "%-14s %s\n", name, shown.c_str());
    } else {
        std::fprintf(options_.timeline(), "            %-14s %s\n", name, shown.c_str());
        std::fflush(options_.timeline());
    }
}

}  // namespace module_program
