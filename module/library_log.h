// The print callback of libcloudtunnel: it formats the log for the caller, hands the messages to evidence.h, and reads
// the steps of a set-up that have no callback. It runs inside libcloudtunnel, under its locks at times, and so calls
// none of it.
#pragma once

#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#pragma GCC visibility push(hidden)
namespace ctm {

constexpr uint32_t kLogLevelMax = 9;

// log_open sets where the log goes; log_close ends it, and leaves libcloudtunnel without a print callback.
void log_open(ctm_log_fn *log, void *user, bool secrets);
void log_level(uint32_t level);
void log_close();

int log_print(uint32_t level, const char *format, ...) CLOUDTUNNEL_PRINTF(2, 3);

// log_dumps_homeless tells whether packet dumps are logged while libcloudtunnel has no log file for their first lines.
bool log_dumps_homeless();

// log_step_noted returns whether a step was noted in a tunnel since the last call.
bool log_step_noted();

// While one lives, libcloudtunnel's log holds what it receives: the platform's answer to the upgrade is read from
// there. The packet dumps begin with a line of their own in its log file, or on standard output where there is none;
// for this while it is the null device's.
class ResponseWatch {
  public:
    explicit ResponseWatch(bool wanted);
    ~ResponseWatch();
    ResponseWatch(const ResponseWatch &) = delete;
    ResponseWatch &operator=(const ResponseWatch &) = delete;

  private:
    FILE *null_ = nullptr;
    FILE *before_ = nullptr;
};

}  // namespace ctm
#pragma GCC visibility pop
