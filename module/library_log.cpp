#include "library_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "evidence.h"
#include "format.h"
#include "memory.h"
#include "secrets.h"
#include "tunnel.h"

namespace ctm {
namespace {

constexpr int32_t kStepLevel = 5;     // the highest level of a message that evidence or a step is read from
constexpr uint32_t kDetailLevel = 7;  // packet dumps
constexpr uint32_t kDumpText = format_id("***************** String *****************");
constexpr uint32_t kDumpHex = format_id("%s");  // and any other text
constexpr uint32_t kResponse = format_id("[Model %s]msg rcv merge:");

struct {
    ctm_log_fn *log;
    void *user;
    bool secrets;
    uint32_t level;
    bool step_noted;
    bool response_follows;  // the next text of a packet dump is a platform's answer
    bool dump_text;         // the next line of a packet dump is its text
} g_log = {};

void apply_level() { cloudmgr_debug_level = std::max(kStepLevel, static_cast<int32_t>(g_log.level)); }

void note(ctm_tunnel *tunnel, ctm_step step) {
    if (tunnel && tunnel_note_step(tunnel, step)) g_log.step_noted = true;
}

// The message that shows each step from CTM_STEP_TCP on, in the order of the steps. Its first argument is the model.
constexpr uint32_t kSteps[] = {
    format_id("[model %s]Ssl connect ret %d, errcode %d [%s]"),
    format_id("[Model %s]Succeeded in connecting ssl server."),
    format_id("[Model %s]Send Websocket handshake successfully."),
    format_id("[V3 Model %s] Rcv acception check ok."),
    format_id("[Model %s]Send Websocket OPT1 successfully."),
};
static_assert(std::size(kSteps) == CTM_STEPS - CTM_STEP_TCP);

void take_step(uint32_t id, const char *format, va_list args) {
    for (int step = CTM_STEP_TCP; step < CTM_STEPS; step++) {
        if (kSteps[step - CTM_STEP_TCP] == id)
            note(tunnel_of_model(arguments_of(format, args).at[0].text), static_cast<ctm_step>(step));
    }
}

// take_dump reads the platform's answer from the text of the packet dump that follows the message kResponse.
void take_dump(uint32_t id, const char *format, va_list args) {
    if (id == kResponse) {
        g_log.response_follows = true;
    } else if (id == kDumpText) {
        g_log.dump_text = true;
    } else if (g_log.dump_text && g_log.response_follows) {
        evidence_response(arguments_of(format, args).at[0].text);
        g_log.response_follows = false;
    }
}

CLOUDTUNNEL_PRINTF(2, 0) void show(uint32_t level, const char *format, va_list args) {
    char *text = nullptr;
    int length = vasprintf(&text, format, args);
    if (length < 0) return;
    const Owned<char> whole(text);
    while (length > 0 && text[length - 1] == '\n') text[--length] = '\0';
    if (!g_log.secrets) secrets_blank(text);
    g_log.log(level, text, g_log.user);
}

// is_hidden returns whether a message is not shown at all: hexadecimal digits may be those of a secret.
bool is_hidden(uint32_t level, uint32_t id) {
    return !g_log.secrets && level == kDetailLevel && id == kDumpHex && !g_log.dump_text;
}

}  // namespace

void log_open(ctm_log_fn *log, void *user, bool secrets) {
    g_log = {};
    g_log.log = log;
    g_log.user = user;
    g_log.secrets = secrets;
}

void log_level(uint32_t level) {
    g_log.level = g_log.log ? level : 0;
    apply_level();
}

void log_close() {
    g_log = {};
    g_stLibInitData.pfnPrint = nullptr;
}

bool log_dumps_lack_file() { return g_log.level >= kDetailLevel && !g_CloudTunnelLogFile; }

bool log_step_noted() {
    const bool noted = g_log.step_noted;
    g_log.step_noted = false;
    return noted;
}

int log_print(uint32_t level, const char *format, ...) {
    const int error = errno;  // libcloudtunnel may read it after it has logged
    const uint32_t id = format_id(format);
    va_list args;
    va_start(args, format);
    if (level <= static_cast<uint32_t>(kStepLevel)) {
        evidence_take(format, args);
        take_step(id, format, args);
    } else if (level <= kDetailLevel) {
        take_dump(id, format, args);
    }
    if (g_log.log && level <= g_log.level && !is_hidden(level, id)) show(level, format, args);
    if (level == kDetailLevel && id != kDumpText) g_log.dump_text = false;
    va_end(args);
    errno = error;
    return 0;
}

ResponseWatch::ResponseWatch(bool wanted) {
    const bool dumped_anyway = g_log.level >= kDetailLevel && g_CloudTunnelLogFile;
    if (!wanted || dumped_anyway || !(null_ = fopen("/dev/null", "we"))) return;
    before_ = g_CloudTunnelLogFile;
    g_CloudTunnelLogFile = null_;
    cloudmgr_debug_level = std::max(cloudmgr_debug_level, static_cast<int32_t>(kDetailLevel));
}

ResponseWatch::~ResponseWatch() {
    if (!null_) return;
    // A callback may have opened another log file, which closed this one.
    if (g_CloudTunnelLogFile == null_) {
        g_CloudTunnelLogFile = before_;
        fclose(null_);
    }
    apply_level();
}

}  // namespace ctm
