#include "tests/support/log.h"

#include <cstdarg>
#include <cstdio>

#include "tests/support/quiet.h"

namespace support {
namespace {

Log *current = nullptr;

}  // namespace

int Log::print(uint32_t level, const char *format, ...) {
    const Quiet quiet;
    if (!current) return 0;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    const std::lock_guard<std::mutex> hold(current->lock_);
    current->messages_.push_back({level, text});
    return 0;
}

Log::Log() {
    current = this;
    cloudmgr_debug_level = kTimerDetail;
    g_stLibInitData = init_data();
}

Log::~Log() {
    g_stLibInitData = {};
    current = nullptr;
}

CLOUDTUNNEL_LIB_INIT_DATA Log::init_data() {
    CLOUDTUNNEL_LIB_INIT_DATA data = {};
    data.pfnPrint = &Log::print;
    return data;
}

void Log::clear() {
    const std::lock_guard<std::mutex> hold(lock_);
    messages_.clear();
}

std::vector<LogMessage> Log::all() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return messages_;
}

std::vector<std::string> Log::texts(uint32_t level) const {
    std::vector<std::string> found;
    for (const LogMessage &message : all()) {
        if (message.level == level) found.push_back(message.text);
    }
    return found;
}

int Log::count(uint32_t level, const std::string &text) const {
    int found = 0;
    for (const LogMessage &message : all()) found += message == LogMessage{level, text};
    return found;
}

bool Log::contains(const std::string &part) const {
    for (const LogMessage &message : all()) {
        if (message.text.find(part) != std::string::npos) return true;
    }
    return false;
}

int Log::index_of(uint32_t level, const std::string &text, int from) const {
    const std::vector<LogMessage> messages = all();
    for (size_t i = static_cast<size_t>(from); i < messages.size(); ++i) {
        if (messages[i] == LogMessage{level, text}) return static_cast<int>(i);
    }
    return -1;
}

std::string Log::text_of_all() const {
    std::string text = "the log is:";
    for (const LogMessage &message : all()) text += "\n  " + std::to_string(message.level) + " " + message.text;
    return text;
}

testing::AssertionResult Log::said(uint32_t level, const std::string &text) const {
    if (count(level, text) > 0) return testing::AssertionSuccess() << "said " << level << " \"" << text << "\"";
    return testing::AssertionFailure() << "not said: " << level << " \"" << text << "\"; " << text_of_all();
}

testing::AssertionResult Log::said_once(uint32_t level, const std::string &text) const {
    const int times = count(level, text);
    if (times == 1) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "said " << times << " times: " << level << " \"" << text << "\"; "
                                       << text_of_all();
}

testing::AssertionResult Log::in_order(const std::vector<LogMessage> &messages) const {
    int from = 0;
    for (const LogMessage &message : messages) {
        const int at = index_of(message.level, message.text, from);
        if (at < 0) {
            return testing::AssertionFailure()
                   << "not said in this place: " << message.level << " \"" << message.text << "\"; " << text_of_all();
        }
        from = at + 1;
    }
    return testing::AssertionSuccess();
}

}  // namespace support
