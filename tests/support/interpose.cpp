// For the whole-tunnel tests: definitions in the program stand before those of libc, also for the shared library's
// calls. Clock and resolver answer here; nothing else is touched.
#include <dlfcn.h>
#include <netdb.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "tests/support/clock.h"
#include "tests/support/resolver.h"

namespace {

using support::Clock;
using support::Resolver;

template <class Function>
Function *real(Function *, const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define REAL(name) real(&::name, #name)

// A definition has to promise what the C library's header promises: glibc's says that these throw nothing, musl's is
// mute.
#ifdef __GLIBC__
#define LIBC_NOEXCEPT noexcept
#else
#define LIBC_NOEXCEPT
#endif

extern "C" {

int sysinfo(struct sysinfo *info) LIBC_NOEXCEPT {
    const int result = REAL(sysinfo)(info);
    if (const Clock *clock = Clock::in_force()) clock->fill(info);
    return result;
}

int clock_gettime(clockid_t id, timespec *now) LIBC_NOEXCEPT {
    if (const Clock *clock = Clock::in_force(); clock && clock->fill(id, now)) return 0;
    return REAL(clock_gettime)(id, now);
}

int gettimeofday(timeval *now, void *zone) LIBC_NOEXCEPT {
    const Clock *clock = Clock::in_force();
    if (!clock) return REAL(gettimeofday)(now, zone);
    clock->fill(now);
    return 0;
}

time_t time(time_t *out) LIBC_NOEXCEPT {
    const Clock *clock = Clock::in_force();
    if (!clock) return REAL(time)(out);
    if (out) *out = clock->time_of_day();
    return clock->time_of_day();
}

int usleep(useconds_t microseconds) {
    Clock *clock = Clock::in_force();
    if (!clock) return REAL(usleep)(microseconds);
    clock->sleep(microseconds);
    return 0;
}

int getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **list) {
    if (Resolver *resolver = Resolver::in_force()) return resolver->resolve(name, list);
    return REAL(getaddrinfo)(name, service, hints, list);
}

void freeaddrinfo(addrinfo *list) LIBC_NOEXCEPT {
    if (!Resolver::release(list)) REAL(freeaddrinfo)(list);
}

}  // extern "C"
