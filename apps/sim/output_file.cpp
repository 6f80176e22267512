#include "output_file.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "text.h"

namespace sim {

static std::FILE *open_file(const std::string &name, OutputFile::For readers, OutputFile::At begin) {
    if (name == "-") return stdout;
    const int where = begin == OutputFile::At::end ? O_APPEND : O_TRUNC;
    const int fd =
        ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | where, readers == OutputFile::For::owner ? 0600 : 0666);
    std::FILE *const file = fd < 0 ? nullptr : ::fdopen(fd, "w");
    if (file) return file;
    const int error = errno;
    if (fd >= 0) ::close(fd);
    throw std::runtime_error(cat("cannot write ", name, ": ", std::strerror(error)));
}

OutputFile::OutputFile(const std::string &name, For readers, At begin) : file_(open_file(name, readers, begin)) {}

void OutputFile::write_line(std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), file_.get());
    std::fputc('\n', file_.get());
    std::fflush(file_.get());
}

}  // namespace sim
