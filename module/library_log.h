// The print callback of libcloudtunnel. It formats the log for the caller, hands the messages to evidence.h, and notes
// the steps of a set-up, for which libcloudtunnel has no callbacks. It may run while libcloudtunnel holds a lock, so it
// calls nothing of libcloudtunnel.
#pragma once

#include <cloudtunnel.h>
#include <cloudtunnel_module.h>

#pragma GCC visibility push(hidden)
namespace ctm {

constexpr uint32_t kLogLevelMax = 9;

// log_open sets where the log goes; log_level the highest level that is shown, 0 for none. log_close takes the print
// callback away from libcloudtunnel.
void log_open(ctm_log_fn *log, void *user, bool secrets);
void log_level(uint32_t level);
void log_close();

int log_print(uint32_t level, const char *format, ...) CLOUDTUNNEL_PRINTF(2, 3);

// log_dumps_lack_file returns whether packet dumps are logged while libcloudtunnel has no log file: it would write
// their first lines to standard output.
bool log_dumps_lack_file();

// log_step_noted returns whether a step of any tunnel was noted since log_step_noted was called last.
bool log_step_noted();

// While a ResponseWatch lives, and if it is `wanted`, libcloudtunnel logs what it receives, so that the platform's
// answer to the upgrade can be read from the log. libcloudtunnel writes the first line of a packet dump to its log
// file, or to standard output if there is none; a ResponseWatch makes /dev/null that file.
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
