#include "tests/compare/world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>

#include "tests/compare/trace.h"

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace compare {

World *world = nullptr;

namespace {

constexpr int kFirstFd = 100;                         // far above the real ones
constexpr int kCallsMost = 200000;                    // what needs more never ends
constexpr size_t kAllocationMost = size_t{16} << 20;  // as on a small device

volatile bool inside_now = false;

std::set<std::string, std::less<>> &allowed_names() {
    static std::set<std::string, std::less<>> names;
    return names;
}

}  // namespace

uint64_t Chance::next() {  // SplitMix64
    state_ += 0x9e3779b97f4a7c15;
    uint64_t mixed = state_;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
    return mixed ^ (mixed >> 31);
}

Side::Side(bool inside) : before_(inside_now), error_(errno) { inside_now = inside; }
Side::~Side() {
    inside_now = before_;
    errno = error_;
}
bool Side::inside() { return inside_now; }

bool allowed(const char *name) { return allowed_names().contains(std::string_view(name)); }
void allow(const std::string &name) { allowed_names().insert(name); }

// ------------------------------------------------------------------------------------------------ memory

namespace {

// Blocks of the library. A freed one is not given back but overwritten: a read of it shows the same in both builds, and
// a second free is seen. The process is gone soon.
struct Block {
    void *address;
    size_t size;
    bool freed;
    bool returned;  // to libc, which may give the address to somebody else
};
constexpr size_t kBlocksMost = size_t{1} << 17;
Block blocks[kBlocksMost];
size_t blocks_made = 0;
int blocks_held = 0;
constexpr size_t kKeptMost = size_t{16} << 10;  // larger ones are given back: they would cost too much
constexpr int kFresh = 0xa5;
constexpr int kFreed = 0xdd;

Block *find_block(const void *address) {
    size_t at = (reinterpret_cast<uintptr_t>(address) >> 4) * 0x9e3779b97f4a7c15 >> 47;
    while (blocks[at].address && blocks[at].address != address) at = (at + 1) % kBlocksMost;
    return &blocks[at];
}

// noted returns the library's block at an address, a freed one, too; null for any other memory.
Block *noted(const void *address) {
    Block *const block = find_block(address);
    return address && block->address && !block->returned ? block : nullptr;
}

bool strike(const char *function, Fault *hit);

void *note_block(void *address, size_t size) {
    if (!address) return nullptr;
    if (++blocks_made > kBlocksMost / 2) finish("too many blocks");
    *find_block(address) = {address, size, false, false};
    ++blocks_held;
    return address;
}

void *make_block(size_t size, int fill) {
    Fault fault;
    if (strike("memory", &fault) || size > kAllocationMost) {
        errno = ENOMEM;
        return nullptr;
    }
    void *const address = fill ? __libc_malloc(size ? size : 1) : __libc_calloc(1, size ? size : 1);
    if (address && fill) memset(address, fill, size);
    return note_block(address, size);
}

void drop_block(Block *block) {
    if (block->freed) {
        line("a block is freed twice");
        finish("double free");
    }
    memset(block->address, kFreed, block->size);
    block->freed = true;
    --blocks_held;
    block->returned = block->size > kKeptMost;
    if (block->returned) __libc_free(block->address);
}

}  // namespace

int blocks_left() { return blocks_held; }
bool is_block(const void *address) {
    const Block *const block = noted(address);
    return block && !block->freed;
}
void *give(const void *data, size_t size) {
    void *const address = __libc_malloc(size ? size : 1);
    if (size) memcpy(address, data, size);
    return note_block(address, size);
}

// ------------------------------------------------------------------------------------------------ calls that fail

const std::vector<const char *> &fallible() {
    static const std::vector<const char *> names = {
        "memory",        "memory",        "memory",       "memory",      "memory",          "memory",
        "sysinfo",       "clock_gettime", "gettimeofday", "gmtime_r",    "localtime_r",     "asctime_r",
        "inet_ntop",     "inet_pton",     "getaddrinfo",  "socket",      "connect",         "setsockopt",
        "getsockopt",    "ioctl",         "epoll_create", "epoll_ctl",   "epoll_ctl",       "epoll_wait",
        "send",          "send",          "recv",         "recv",        "fopen",           "popen",
        "fread",         "vsnprintf",     "SSL_CTX_new",  "SSL_new",     "SSL_set_fd",      "SSL_connect",
        "SSL_read",      "SSL_write",     "SHA1_Init",    "SHA1_Update", "SHA1_Final",      "BIO_new",
        "BIO_new_mem",   "BIO_write",     "BIO_read",     "BIO_ctrl",    "json_new_object", "json_new_int",
        "json_new_text", "json_add",      "json_to_text", "json_parse",  "setitimer",       "TLS_client",
        "SSL_CTX_ctrl"};
    return names;
}

namespace {

// TELL writes a line, with arguments that are made outside of the library.
#define TELL(...)              \
    do {                       \
        const Outside telling; \
        line(__VA_ARGS__);     \
    } while (false)

void bound() {
    if (++world->calls > kCallsMost) finish("too many calls");
    if (trace->full()) finish("too long a trace");
}

// strike tells whether this call fails, and puts the fault's errno in force.
bool strike(const char *function, Fault *hit) {
    if (!world) return false;
    bool fails = false;
    for (Fault &fault : world->faults) {
        if (strcmp(fault.function, function) != 0) continue;
        if (fault.after-- > 0 || fault.after + 1 + fault.times <= 0) continue;
        *hit = fault;
        fails = true;
    }
    if (fails) errno = hit->error;
    return fails;
}

bool fails(const char *function) {
    Fault fault;
    if (!strike(function, &fault)) return false;
    if (!allowed("calls")) TELL(". %s fails", function);
    errno = fault.error;
    return true;
}

void *next_of(const char *name) { return dlsym(RTLD_NEXT, name); }

Socket *find_socket(int fd) {
    const auto found = world->sockets.find(fd);
    return found == world->sockets.end() ? nullptr : &found->second;
}

int free_fd() {
    int fd = kFirstFd;
    while (world->sockets.contains(fd) || world->epolls.contains(fd)) ++fd;
    return fd;
}

uint32_t readiness(const Socket &socket) {
    uint32_t ready = 0;
    switch (socket.state) {
        case Socket::State::fresh:
            return EPOLLOUT | EPOLLHUP;
        case Socket::State::connecting:
            return 0;
        case Socket::State::refused:
            return EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP;
        case Socket::State::up:
            break;
    }
    if (socket.room > 0) ready |= EPOLLOUT;
    if (!socket.in.empty() || socket.ended) ready |= EPOLLIN;
    if (socket.ended && socket.local) ready |= EPOLLHUP;
    if (socket.reset) ready |= EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP;
    return ready;
}

// take_bytes gives what the socket has, at most `length` bytes; with `record` not beyond the first piece.
std::string take_bytes(Socket &socket, size_t length, bool record) {
    std::string taken;
    while (!socket.in.empty() && taken.size() < length) {
        std::string &piece = socket.in.front();
        const size_t part = std::min(piece.size(), length - taken.size());
        taken += piece.substr(0, part);
        piece.erase(0, part);
        if (piece.empty()) socket.in.pop_front();
        if (record) break;
    }
    return taken;
}

ssize_t failed(int error) {
    errno = error;
    return -1;
}

// A TLS session. Its bytes are the socket's: nothing is encrypted, each piece is a record.
struct Session {
    int fd = -1;
    int steps = 0;  // of the handshake that want another event
    bool refuses = false;
    int error = SSL_ERROR_NONE;  // of the last call
    std::string record;          // taken from the socket, not read yet
};
Session *session_of(const SSL *ssl) { return reinterpret_cast<Session *>(const_cast<SSL *>(ssl)); }

addrinfo *make_address(const char *text, addrinfo *next) {
    struct Entry {
        addrinfo info;
        sockaddr_storage address;
    };
    auto *const entry = static_cast<Entry *>(calloc(1, sizeof(Entry)));
    auto *const v4 = reinterpret_cast<sockaddr_in *>(&entry->address);
    auto *const v6 = reinterpret_cast<sockaddr_in6 *>(&entry->address);
    if (inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        entry->info.ai_addrlen = sizeof *v4;
    } else {
        inet_pton(AF_INET6, text, &v6->sin6_addr);
        v6->sin6_family = AF_INET6;
        entry->info.ai_addrlen = sizeof *v6;
    }
    entry->info.ai_family = entry->address.ss_family;
    entry->info.ai_socktype = SOCK_STREAM;
    entry->info.ai_addr = reinterpret_cast<sockaddr *>(&entry->address);
    entry->info.ai_next = next;
    return entry == nullptr ? nullptr : &entry->info;
}

ssize_t write_file(void *, const char *data, size_t length) {
    TELL(". the file takes %s", shown(std::string_view(data, length)).c_str());
    return static_cast<ssize_t>(length);
}
int close_file(void *) {
    TELL(". the file is closed");
    return 0;
}

}  // namespace

int World::add_socket(bool local) {
    const int fd = free_fd();
    sockets[fd].local = local;
    return fd;
}

void World::feed(int fd, std::string bytes) {
    const auto found = sockets.find(fd);
    if (found == sockets.end() || bytes.empty()) return;
    found->second.in.push_back(std::move(bytes));
    found->second.changed = true;
}

}  // namespace compare

// ------------------------------------------------------------------------------------------------ what is interposed

using namespace compare;

#define REAL(name) (*reinterpret_cast<decltype(&::name)>(real_of_##name))
#define FIND_REAL(name) static void *const real_of_##name = next_of(#name)

// A function that only can fail: `answer` is then its result.
#define MAY_FAIL(Result, name, point, parameters, arguments, answer, ...) \
    Result name parameters __VA_ARGS__ {                                  \
        FIND_REAL(name);                                                  \
        if (Side::inside() && fails(point)) return answer;                \
        const bool library = Side::inside();                              \
        if (!library) return REAL(name) arguments;                        \
        const Keep keep;                                                  \
        return REAL(name) arguments;                                      \
    }

namespace {

// What the library's call does below it is not the library's own. Errno stays as the call leaves it.
class Keep {
  public:
    Keep() { inside_now = false; }
    ~Keep() { inside_now = true; }
};

}  // namespace

extern "C" {

void *malloc(size_t size) { return Side::inside() ? make_block(size, kFresh) : __libc_malloc(size); }

void *calloc(size_t count, size_t size) {
    if (!Side::inside()) return __libc_calloc(count, size);
    size_t whole = 0;
    if (__builtin_mul_overflow(count, size, &whole)) return nullptr;
    return make_block(whole, 0);
}

void *realloc(void *old, size_t size) {
    if (!old) return malloc(size);
    Block *const block = noted(old);
    if (!block) return __libc_realloc(old, size);
    void *const grown = Side::inside() ? make_block(size, kFresh) : note_block(__libc_malloc(size), size);
    if (!grown) return nullptr;
    memcpy(grown, old, std::min(size, block->size));
    drop_block(block);
    return grown;
}

void free(void *address) {
    if (Block *const block = noted(address))
        drop_block(block);
    else
        __libc_free(address);
}

char *strdup(const char *text) noexcept {
    const size_t size = strlen(text) + 1;
    auto *const copy = static_cast<char *>(malloc(size));
    if (copy) memcpy(copy, text, size);
    return copy;
}

size_t malloc_usable_size(void *address) noexcept {
    FIND_REAL(malloc_usable_size);
    const Block *const block = noted(address);
    return block ? block->size : REAL(malloc_usable_size)(address);
}

// Time
int sysinfo(struct sysinfo *info) noexcept {
    FIND_REAL(sysinfo);
    if (Side::inside() && fails("sysinfo")) return -1;
    const int result = REAL(sysinfo)(info);
    if (Side::inside()) info->uptime = static_cast<decltype(info->uptime)>(world->uptime);
    return result;
}

int clock_gettime(clockid_t id, timespec *now) noexcept {
    FIND_REAL(clock_gettime);
    if (!Side::inside()) return REAL(clock_gettime)(id, now);
    if (fails("clock_gettime")) return -1;
    *now = {static_cast<time_t>(id == CLOCK_REALTIME ? world->time_of_day : world->uptime), 0};
    return 0;
}

int gettimeofday(timeval *now, void *zone) noexcept {
    FIND_REAL(gettimeofday);
    if (!Side::inside()) return REAL(gettimeofday)(now, zone);
    if (fails("gettimeofday")) return -1;
    *now = {static_cast<time_t>(world->time_of_day), 345678};
    return 0;
}

time_t time(time_t *out) noexcept {
    FIND_REAL(time);
    if (!Side::inside()) return REAL(time)(out);
    if (out) *out = world->time_of_day;
    return world->time_of_day;
}

int usleep(useconds_t microseconds) {
    FIND_REAL(usleep);
    if (!Side::inside()) return REAL(usleep)(microseconds);
    bound();
    TELL(". usleep %u", microseconds);
    return 0;
}

int setitimer(__itimer_which_t which, const itimerval *value, itimerval *old) noexcept {
    FIND_REAL(setitimer);
    if (!Side::inside()) return REAL(setitimer)(which, value, old);
    if (fails("setitimer")) return -1;
    TELL(". setitimer %d %ld.%06ld every %ld.%06ld", static_cast<int>(which), value->it_value.tv_sec,
         value->it_value.tv_usec, value->it_interval.tv_sec, value->it_interval.tv_usec);
    return 0;
}

MAY_FAIL(tm *, gmtime_r, "gmtime_r", (const time_t *instant, tm *date), (instant, date), nullptr, noexcept)
MAY_FAIL(tm *, localtime_r, "localtime_r", (const time_t *instant, tm *date), (instant, date), nullptr, noexcept)
MAY_FAIL(char *, asctime_r, "asctime_r", (const tm *date, char *text), (date, text), nullptr, noexcept)

// Names
MAY_FAIL(int, inet_pton, "inet_pton", (int family, const char *text, void *address), (family, text, address), 0,
         noexcept)
MAY_FAIL(const char *, inet_ntop, "inet_ntop", (int family, const void *address, char *text, socklen_t size),
         (family, address, text, size), nullptr, noexcept)

int getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **list) {
    FIND_REAL(getaddrinfo);
    if (!Side::inside()) return REAL(getaddrinfo)(name, service, hints, list);
    if (fails("getaddrinfo")) return EAI_AGAIN;
    TELL(". getaddrinfo %s", shown(name).c_str());
    const Outside outside;
    *list = nullptr;
    in_addr v4;
    if (inet_pton(AF_INET, name, &v4) == 1) {
        *list = make_address(name, nullptr);
    } else if (strcmp(name, "host.example") == 0) {
        *list = make_address("192.0.2.7", make_address("192.0.2.8", nullptr));
        (*list)->ai_canonname = ::strdup("canonical.example");
    } else if (strcmp(name, "six.example") == 0) {
        *list = make_address("2001:db8::7", nullptr);
    } else if (strcmp(name, "empty.example") != 0) {
        return EAI_NONAME;
    }
    return 0;
}

void freeaddrinfo(addrinfo *list) noexcept {
    FIND_REAL(freeaddrinfo);
    if (!Side::inside()) return REAL(freeaddrinfo)(list);
    TELL(". freeaddrinfo");
    const Outside outside;
    while (list) {
        addrinfo *const next = list->ai_next;
        free(list->ai_canonname);
        free(list);
        list = next;
    }
}

// Sockets
int socket(int family, int type, int protocol) noexcept {
    FIND_REAL(socket);
    if (!Side::inside()) return REAL(socket)(family, type, protocol);
    if (fails("socket")) return -1;
    const Outside outside;
    const int fd = world->add_socket(family == AF_UNIX);
    if (!allowed("calls")) TELL(". socket %d %d %d is %d", family, type, protocol, fd);
    return fd;
}

int connect(int fd, const sockaddr *address, socklen_t length) {
    FIND_REAL(connect);
    if (!Side::inside()) return REAL(connect)(fd, address, length);
    bound();
    int error = 0;
    {
        const Outside outside;
        Socket *const socket = find_socket(fd);
        if (address->sa_family == AF_UNIX)
            TELL(". connect %d %s", fd, shown(reinterpret_cast<const sockaddr_un *>(address)->sun_path).c_str());
        else
            TELL(". connect %d family %d %s", fd, address->sa_family,
                 shown(std::string_view(reinterpret_cast<const char *>(address) + 2, length - 2)).c_str());
        if (!socket) {
            error = EBADF;
        } else if (socket->local) {
            error = world->daemon_up ? 0 : ECONNREFUSED;
            if (error == 0) socket->state = Socket::State::up;
        } else if (address->sa_family != AF_INET) {
            error = EAFNOSUPPORT;
        } else {
            error = EINPROGRESS;
            socket->state = Socket::State::connecting;
        }
    }
    if (fails("connect")) return -1;
    if (error == 0) return 0;
    errno = error;
    return -1;
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    FIND_REAL(setsockopt);
    if (!Side::inside()) return REAL(setsockopt)(fd, level, option, value, length);
    if (fails("setsockopt")) return -1;
    if (!allowed("calls"))
        TELL(". setsockopt %d %d %d %s", fd, level, option,
             shown(std::string_view(static_cast<const char *>(value), length)).c_str());
    return find_socket(fd) ? 0 : static_cast<int>(failed(EBADF));
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *length) noexcept {
    FIND_REAL(getsockopt);
    if (!Side::inside()) return REAL(getsockopt)(fd, level, option, value, length);
    if (fails("getsockopt")) return -1;
    const Socket *const socket = find_socket(fd);
    if (!socket) return static_cast<int>(failed(EBADF));
    if (level == SOL_SOCKET && option == SO_ERROR) *static_cast<int *>(value) = socket->error;
    return 0;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    FIND_REAL(ioctl);
    va_list args;
    va_start(args, request);
    int *const value = va_arg(args, int *);
    va_end(args);
    if (!Side::inside()) return REAL(ioctl)(fd, request, value);
    bound();
    if (fails("ioctl")) return -1;
    const Socket *const socket = find_socket(fd);
    if (!socket) return static_cast<int>(failed(EBADF));
    if (request == FIONREAD) {
        size_t bytes = 0;
        for (const std::string &piece : socket->in) bytes += piece.size();
        *value = static_cast<int>(bytes);
    } else if (!allowed("calls")) {
        TELL(". ioctl %d %lx %d", fd, request, *value);
    }
    return 0;
}

int close(int fd) {
    FIND_REAL(close);
    if (!Side::inside()) return REAL(close)(fd);
    TELL(". close %d", fd);
    bool known = false;
    {
        const Outside outside;
        known = world->sockets.erase(fd) + world->epolls.erase(fd) > 0;
    }
    return known ? 0 : static_cast<int>(failed(EBADF));
}

ssize_t send(int fd, const void *data, size_t length, int flags) {
    FIND_REAL(send);
    if (!Side::inside()) return REAL(send)(fd, data, length, flags);
    bound();
    if (fails("send")) return -1;
    Socket *const socket = find_socket(fd);
    if (!socket) return failed(EBADF);
    size_t taken = 0;
    int error = 0;
    {
        const Outside outside;
        if (socket->reset || socket->state == Socket::State::refused)
            error = EPIPE;
        else if (socket->state != Socket::State::up)
            error = EAGAIN;
        else if (socket->room == 0)
            error = EAGAIN;
        taken = error ? 0 : std::min(length, socket->room);
        if (socket->room != SIZE_MAX) socket->room -= taken;
        const std::string bytes(static_cast<const char *>(data), taken);
        if (error)
            TELL(". send %d of %zu bytes, flags %d, fails: %d", fd, length, flags, error);
        else
            TELL(". send %d of %zu bytes, flags %d, takes %s", fd, length, flags, shown(bytes).c_str());
        socket->out += bytes;
    }
    return error ? failed(error) : static_cast<ssize_t>(taken);
}

ssize_t recv(int fd, void *data, size_t length, int flags) {
    FIND_REAL(recv);
    if (!Side::inside()) return REAL(recv)(fd, data, length, flags);
    bound();
    if (fails("recv")) return -1;
    Socket *const socket = find_socket(fd);
    if (!socket) return failed(EBADF);
    size_t got = 0;
    int error = 0;
    {
        const Outside outside;
        // A call that waits: the daemon answers, ends the link, or the socket's time-out strikes.
        if (socket->local && !(flags & MSG_DONTWAIT) && socket->in.empty() && !socket->ended) {
            const int what = world->chance.below(10);
            if (what < 7) socket->in.push_back(std::string(20, 'r'));
            if (what == 7) error = EAGAIN;
            if (what == 8) error = EINTR;
            if (what == 9) socket->ended = true;
        }
        if (error == 0 && socket->in.empty() && !socket->ended) error = socket->reset ? ECONNRESET : EAGAIN;
        if (error == 0) {
            const std::string taken = take_bytes(*socket, length, false);
            memcpy(data, taken.data(), taken.size());
            got = taken.size();
        }
        if (!allowed("calls")) TELL(". recv %d of %zu bytes, flags %d: %zu, %d", fd, length, flags, got, error);
    }
    return error ? failed(error) : static_cast<ssize_t>(got);
}

// epoll
int epoll_create(int size) noexcept {
    FIND_REAL(epoll_create);
    if (!Side::inside()) return REAL(epoll_create)(size);
    if (fails("epoll_create")) return -1;
    const Outside outside;
    const int fd = free_fd();
    world->epolls.insert(fd);
    return fd;
}
int epoll_create1(int) noexcept { return epoll_create(1); }

int epoll_ctl(int epfd, int operation, int fd, epoll_event *event) noexcept {
    FIND_REAL(epoll_ctl);
    if (!Side::inside()) return REAL(epoll_ctl)(epfd, operation, fd, event);
    if (operation == EPOLL_CTL_DEL)
        TELL(". epoll_ctl %d del %d", epfd, fd);
    else
        TELL(". epoll_ctl %d %s %d %x %d", epfd, operation == EPOLL_CTL_ADD ? "add" : "mod", fd, event->events,
             event->data.fd);
    if (fails("epoll_ctl")) return -1;
    Socket *const socket = find_socket(fd);
    if (!socket || !world->epolls.contains(epfd)) return static_cast<int>(failed(EBADF));
    if (operation == EPOLL_CTL_ADD && socket->watched) return static_cast<int>(failed(EEXIST));
    if (operation != EPOLL_CTL_ADD && !socket->watched) return static_cast<int>(failed(ENOENT));
    socket->watched = operation != EPOLL_CTL_DEL;
    if (operation == EPOLL_CTL_DEL) return 0;
    socket->events = event->events;
    socket->data_fd = event->data.fd;
    socket->changed = true;
    return 0;
}

int epoll_wait(int epfd, epoll_event *events, int count, int timeout_ms) {
    FIND_REAL(epoll_wait);
    if (!Side::inside()) return REAL(epoll_wait)(epfd, events, count, timeout_ms);
    bound();
    if (fails("epoll_wait")) return -1;
    const Outside outside;
    if (!world->epolls.contains(epfd)) return -1;
    const int last = world->last_ready;
    for (const bool behind : {true, false}) {  // those behind the last one reported, then those before
        for (auto &[fd, socket] : world->sockets) {
            if ((fd > last) != behind || !socket.watched) continue;
            const uint32_t ready = readiness(socket) & (socket.events | EPOLLERR | EPOLLHUP);
            if (!ready || ((socket.events & EPOLLET) && !socket.changed)) continue;
            socket.changed = false;
            world->last_ready = fd;
            events->events = ready;
            events->data.u64 = 0;
            events->data.fd = socket.data_fd;
            TELL(". epoll_wait tells %x of %d", ready, fd);
            return 1;
        }
    }
    return 0;
}

// Files and commands
FILE *fopen(const char *path, const char *mode) {
    FIND_REAL(fopen);
    if (!Side::inside()) return REAL(fopen)(path, mode);
    TELL(". fopen %s %s", shown(path).c_str(), mode);
    if (fails("fopen")) return nullptr;
    const Outside outside;
    FILE *const file =
        fopencookie(nullptr, mode, {.read = nullptr, .write = write_file, .seek = nullptr, .close = close_file});
    setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

int setvbuf(FILE *file, char *buffer, int mode, size_t size) noexcept {
    FIND_REAL(setvbuf);
    if (!Side::inside()) return REAL(setvbuf)(file, buffer, mode, size);
    TELL(". setvbuf %s %d", file == stdout ? "stdout" : "file", mode);
    return 0;
}

int remove(const char *path) noexcept {
    FIND_REAL(remove);
    if (!Side::inside()) return REAL(remove)(path);
    TELL(". remove %s", shown(path).c_str());
    return 0;
}

FILE *popen(const char *command, const char *mode) {
    FIND_REAL(popen);
    if (!Side::inside()) return REAL(popen)(command, mode);
    TELL(". popen %s %s", shown(command).c_str(), mode);
    if (fails("popen")) return nullptr;
    const Outside outside;
    FILE *const file = tmpfile();
    fwrite(world->command_output.data(), 1, world->command_output.size(), file);
    rewind(file);
    return file;
}

int pclose(FILE *file) {
    FIND_REAL(pclose);
    if (!Side::inside()) return REAL(pclose)(file);
    TELL(". pclose");
    const Outside outside;
    return fclose(file);
}

size_t fread(void *data, size_t size, size_t count, FILE *file) {
    FIND_REAL(fread);
    if (Side::inside() && fails("fread")) return 0;
    const Outside outside;
    return REAL(fread)(data, size, count, file);
}

void perror(const char *text) {
    FIND_REAL(perror);
    if (!Side::inside()) return REAL(perror)(text);
    TELL(". perror %s %d", shown(text).c_str(), errno);
}

int vsnprintf(char *text, size_t size, const char *format, va_list args) noexcept {
    FIND_REAL(vsnprintf);
    if (Side::inside() && fails("vsnprintf")) {
        if (size) text[0] = '\0';  // what a caller reads that does not look at the result
        return -1;
    }
    const Outside outside;
    return REAL(vsnprintf)(text, size, format, args);
}
int __vsnprintf_chk(char *text, size_t size, int, size_t, const char *format, va_list args) noexcept {
    return vsnprintf(text, size, format, args);
}

// Chance
int rand() noexcept {
    FIND_REAL(rand);
    if (!Side::inside()) return REAL(rand)();
    return static_cast<int>(world->chance.next() >> 33);
}
void srand(unsigned seed) noexcept {
    FIND_REAL(srand);
    if (!Side::inside()) REAL(srand)(seed);
}

// TLS
int OPENSSL_init_ssl(uint64_t, const OPENSSL_INIT_SETTINGS *) { return 1; }
const SSL_METHOD *TLS_client_method() {
    static const char method = 0;
    return Side::inside() && fails("TLS_client") ? nullptr : reinterpret_cast<const SSL_METHOD *>(&method);
}
SSL_CTX *SSL_CTX_new(const SSL_METHOD *method) {
    if (!method || fails("SSL_CTX_new")) return nullptr;
    TELL(". SSL_CTX_new");
    const Outside outside;
    return reinterpret_cast<SSL_CTX *>(new char);
}
long SSL_CTX_ctrl(SSL_CTX *, int command, long number, void *) {
    TELL(". SSL_CTX_ctrl %d %ld", command, number);
    return fails("SSL_CTX_ctrl") ? 0 : number;
}
void SSL_CTX_free(SSL_CTX *context) {
    TELL(". SSL_CTX_free %s", context ? "" : "null");
    const Outside outside;
    delete reinterpret_cast<char *>(context);
}
SSL *SSL_new(SSL_CTX *) {
    if (fails("SSL_new")) return nullptr;
    const Outside outside;
    TELL(". SSL_new");
    auto *const session = new Session;
    session->steps = world->chance.below(4);
    session->refuses = world->chance.in(12);
    return reinterpret_cast<SSL *>(session);
}
int SSL_set_fd(SSL *ssl, int fd) {
    if (fails("SSL_set_fd")) return 0;
    session_of(ssl)->fd = fd;
    return 1;
}
int SSL_connect(SSL *ssl) {
    Session *const session = session_of(ssl);
    bound();
    if (fails("SSL_connect")) {
        session->error = errno % 2 ? SSL_ERROR_SYSCALL : SSL_ERROR_SSL;
        return -1;
    }
    const Outside outside;
    Socket *const socket = find_socket(session->fd);
    if (socket) socket->changed = true;
    if (session->steps-- > 0) {
        session->error = world->chance.in(4) ? SSL_ERROR_WANT_WRITE : SSL_ERROR_WANT_READ;
        if (socket && session->error == SSL_ERROR_WANT_READ && socket->in.empty()) socket->in.emplace_back();
        return -1;
    }
    if (socket) std::erase(socket->in, "");
    session->error = session->refuses || !socket ? SSL_ERROR_SSL : SSL_ERROR_NONE;
    return session->error == SSL_ERROR_NONE ? 1 : -1;
}
int SSL_get_error(const SSL *ssl, int) { return session_of(ssl)->error; }
int SSL_pending(const SSL *ssl) { return allowed("tls-drain") ? 0 : static_cast<int>(session_of(ssl)->record.size()); }
int SSL_read(SSL *ssl, void *data, int length) {
    Session *const session = session_of(ssl);
    bound();
    if (fails("SSL_read")) {
        static constexpr int kErrors[] = {SSL_ERROR_SYSCALL, SSL_ERROR_SSL, SSL_ERROR_WANT_WRITE, SSL_ERROR_WANT_READ,
                                          SSL_ERROR_ZERO_RETURN};
        session->error = kErrors[errno % 5];
        return errno % 3 == 0 ? 0 : -1;
    }
    int got = 0;
    int error = 0;
    {
        const Outside outside;
        Socket *const socket = find_socket(session->fd);
        session->error = SSL_ERROR_NONE;
        if (socket && session->record.empty()) session->record = take_bytes(*socket, SIZE_MAX, true);
        if (!session->record.empty()) {
            const std::string part = session->record.substr(0, static_cast<size_t>(length));
            session->record.erase(0, part.size());
            memcpy(data, part.data(), part.size());
            got = static_cast<int>(part.size());
        } else if (!socket || socket->reset) {
            session->error = SSL_ERROR_SYSCALL;
            error = ECONNRESET;
            got = -1;
        } else if (socket->ended) {
            session->error = SSL_ERROR_ZERO_RETURN;
        } else {
            session->error = SSL_ERROR_WANT_READ;
            error = EAGAIN;
            got = -1;
        }
        if (!allowed("calls")) TELL(". SSL_read of %d bytes: %d, %d", length, got, session->error);
    }
    if (error) errno = error;
    return got;
}
int SSL_write(SSL *ssl, const void *data, int length) {
    Session *const session = session_of(ssl);
    bound();
    if (fails("SSL_write")) {
        session->error = errno % 2 ? SSL_ERROR_SYSCALL : SSL_ERROR_WANT_WRITE;
        return -1;
    }
    const ssize_t taken = send(session->fd, data, static_cast<size_t>(length), -1);
    session->error = taken > 0 ? SSL_ERROR_NONE : errno == EAGAIN ? SSL_ERROR_WANT_WRITE : SSL_ERROR_SYSCALL;
    return taken > 0 ? static_cast<int>(taken) : -1;
}
int SSL_shutdown(SSL *) {
    TELL(". SSL_shutdown");
    return 0;
}
void SSL_free(SSL *ssl) {
    TELL(". SSL_free %s", ssl ? "" : "null");
    const Outside outside;
    delete session_of(ssl);
}
void ERR_clear_error() {}
unsigned long ERR_peek_error() { return 0; }
unsigned long ERR_get_error() { return 0; }
char *ERR_error_string(unsigned long, char *) {
    static char text[] = "error:00000000:lib(0)::reason(0)";
    return text;
}

// What is calculated: the real functions, which can fail.
MAY_FAIL(int, SHA1_Init, "SHA1_Init", (SHA_CTX * state), (state), 0)
MAY_FAIL(int, SHA1_Update, "SHA1_Update", (SHA_CTX * state, const void *data, size_t length), (state, data, length), 0)
MAY_FAIL(int, SHA1_Final, "SHA1_Final", (unsigned char *digest, SHA_CTX *state), (digest, state), 0)
MAY_FAIL(BIO *, BIO_new, "BIO_new", (const BIO_METHOD *method), (method), nullptr)
MAY_FAIL(BIO *, BIO_new_mem_buf, "BIO_new_mem", (const void *data, int length), (data, length), nullptr)
MAY_FAIL(int, BIO_write, "BIO_write", (BIO * bio, const void *data, int length), (bio, data, length), -1)
MAY_FAIL(int, BIO_read, "BIO_read", (BIO * bio, void *data, int length), (bio, data, length), -1)
MAY_FAIL(long, BIO_ctrl, "BIO_ctrl", (BIO * bio, int command, long number, void *pointer),
         (bio, command, number, pointer), 0)
MAY_FAIL(json_object *, json_object_new_object, "json_new_object", (), (), nullptr)
MAY_FAIL(json_object *, json_object_new_int, "json_new_int", (int32_t number), (number), nullptr)
MAY_FAIL(json_object *, json_object_new_string, "json_new_text", (const char *text), (text), nullptr)
MAY_FAIL(int, json_object_object_add, "json_add", (json_object * object, const char *key, json_object *value),
         (object, key, value), -1)
MAY_FAIL(const char *, json_object_to_json_string_ext, "json_to_text", (json_object * object, int flags),
         (object, flags), nullptr)
MAY_FAIL(json_object *, json_tokener_parse, "json_parse", (const char *text), (text), nullptr)

}  // extern "C"
