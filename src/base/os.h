// Text and memory helpers, and the small owners that release what they hold on every exit path. The helpers accept null
// texts unless a comment says otherwise.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>

// os_alloc returns `size` zeroed bytes (one at least) to be released with os_free, or null.
[[nodiscard]] void *os_alloc(size_t size);
void os_free(void *block);

// os_alloc_bytes returns `size` bytes (one at least) for the caller to fill, to be released with os_free, or null.
[[nodiscard]] void *os_alloc_bytes(size_t size);

// os_strdup and os_strndup return a copy for the caller to free; null for a null text and without memory. os_strndup
// copies at most `max` bytes and reads no further.
[[nodiscard]] char *os_strdup(const char *text);
[[nodiscard]] char *os_strndup(const char *text, size_t max);

// os_replace frees an owned text and puts a copy of `text` in its place, which may be that very text. False without
// memory: the field is null then.
bool os_replace(char **field, const char *text);

// os_strlcpy copies at most `size` - 1 characters and terminates the copy. The areas may overlap; a null text copies as
// an empty one.
void os_strlcpy(char *to, const char *from, size_t size);

// os_snprintf formats into `size` bytes; returns what vsnprintf returns. The text is terminated unless that is
// negative.
int os_snprintf(char *to, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

size_t os_strlen(const char *text);  // 0 for null

// os_strcmp returns 0 when both texts are there and equal, so that null matches nothing.
int os_strcmp(const char *a, const char *b);

// os_strltrim and os_strrtrim remove white space at the beginning or at the end of `text`, in place. Not for null.
void os_strltrim(char *text);
void os_strrtrim(char *text);

// os_datapos returns the offset of the first `what` (of `what_len` bytes) in `data`, -1 when there is none.
ptrdiff_t os_datapos(const void *data, size_t len, const void *what, size_t what_len);

// os_memcat returns a new block, for the caller to free, of `a` followed by `b`; null without memory.
[[nodiscard]] uint8_t *os_memcat(const void *a, size_t len_a, const void *b, size_t len_b);

// os_getcommand runs a shell command and puts the beginning of its output, without its line end, into `out`. Returns 0,
// or -1 when the command could not be started: then `out` is empty.
int os_getcommand(const char *command, char *out, size_t size);

// os_atoi reads a decimal number as atoi does, from at most `len` bytes; what does not fit an int is cut to its limits.
int os_atoi(const char *text, size_t len);

// os_try_again is true for the errors after which the same call may succeed.
inline bool os_try_again(int error) { return error == EINTR || error == EAGAIN; }

// os_asctime writes what asctime_r does. False, and an empty text, outside the years 0 to 9999: there the C library of
// the device ends the process, while others return null.
constexpr size_t kAsctimeSize = 26;
bool os_asctime(const struct tm &date, char (&text)[kAsctimeSize]);

struct OsFree {
    void operator()(void *block) const { os_free(block); }
};
template <typename T>
using Owned = std::unique_ptr<T, OsFree>;

// An open descriptor, closed at the end of its scope unless released.
class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    [[nodiscard]] int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

// A mutex held for a scope. Nothing that can wait, and no callback but the print callback, runs inside.
class Lock {
  public:
    explicit Lock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    ~Lock() { pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t &mutex_;
};
