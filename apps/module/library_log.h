// The library's log, in a file or between the lines of the timeline.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "options.h"

namespace module_program {

constexpr uint32_t kConnectLevel = 5;  // CONNECT, as cloudtunnel.h numbers the levels

class LibraryLog {
  public:
    explicit LibraryLog(const Options &options) : options_(options) {}
    ~LibraryLog();
    LibraryLog(const LibraryLog &) = delete;
    LibraryLog &operator=(const LibraryLog &) = delete;

    // open begins a new file, if the log goes into one; reopen opens the file of that name again and appends to it.
    // False if it cannot be opened: then the file that was open before stays in use.
    bool open();
    bool reopen();
    [[nodiscard]] bool has_file() const { return !options_.log.empty() && options_.log != "-"; }

    // write writes one message, if the options want its level.
    void write(uint32_t level, const char *text) const;

  private:
    bool open_file(const char *mode);
    void use(std::FILE *file);

    const Options &options_;
    std::FILE *file_ = nullptr;
};

}  // namespace module_program
