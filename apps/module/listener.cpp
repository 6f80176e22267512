#include "listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "common/text.h"

namespace module_program {
namespace {

constexpr int kBacklog = 16;
constexpr mode_t kOwnerOnly = 0177;  // the umask that leaves reading and writing by the owner

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::copy_n(path.data(), std::min(path.size(), sizeof address.sun_path - 1), address.sun_path);
    return address;
}

const sockaddr *general(const sockaddr_un &address) { return reinterpret_cast<const sockaddr *>(&address); }

// left_behind returns whether the path is that of a socket on which nobody listens any more.
bool left_behind(const sockaddr_un &address) {
    struct stat found = {};
    if (lstat(address.sun_path, &found) != 0 || !S_ISSOCK(found.st_mode)) return false;
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return false;
    const bool refused = connect(probe, general(address), sizeof address) != 0 && errno == ECONNREFUSED;
    close(probe);
    return refused;
}

}  // namespace

Listener::Listener(std::string path) : path_(std::move(path)) {
    const sockaddr_un address = address_of(path_);
    if (left_behind(address)) unlink(path_.c_str());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const mode_t before = umask(kOwnerOnly);
    const bool made = fd_ >= 0 && bind(fd_, general(address), sizeof address) == 0;
    const int error = errno;
    umask(before);
    if (made && listen(fd_, kBacklog) == 0) return;
    if (fd_ >= 0) close(fd_);
    throw std::runtime_error(common::cat("the socket ", path_, " cannot be made: ", std::strerror(error)));
}

Listener::~Listener() {
    unlink(path_.c_str());
    close(fd_);
}

int Listener::accept_next() const { return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }

}  // namespace module_program
