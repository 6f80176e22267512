// The library's log, where the user wants it: in a file, or below the lines of the timeline.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "options.h"

namespace module_program {

constexpr uint32_t kConnectLevel = 5;  // of the library's messages about a connection's course

class LibraryLog {
  public:
    explicit LibraryLog(const Options &options) : options_(options) {}
    ~LibraryLog();
    LibraryLog(const LibraryLog &) = delete;
    LibraryLog &operator=(const LibraryLog &) = delete;

    // open begins the file, if the log goes into one; reopen goes on in the file that has its name now. False when it
    // cannot be opened: a file that is open stays.
    bool open();
    bool reopen();
    [[nodiscard]] bool has_file() const { return !options_.log.empty() && options_.log != "-"; }

    // write writes one message, if its level is wanted.
    void write(uint32_t level, const char *text) const;

  private:
    bool open_file(const char *mode);
    void use(std::FILE *file);

    const Options &options_;
    std::FILE *file_ = nullptr;
};

}  // namespace module_program
