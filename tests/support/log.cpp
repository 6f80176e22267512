#include "tests/support/log.h"

#include <cstdarg>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "tests/support/quiet.h"

namespace support {
namespace {

Log *current = nullptr;

// In the order of the levels, which begin at 1.
constexpr const char *kLevels[] = {"INIT",    "ERROR",          "EVENT", "FSM",         "CONNECT",
                                   "PACKAGE", "PACKAGE_DETAIL", "TIMER", "TIMER_DETAIL"};

uint32_t level_of(const std::string &name) {
    for (uint32_t level = kInit; level <= kTimerDetail; ++level) {
        if (name == kLevels[level - 1]) return level;
    }
    throw std::runtime_error("no level is called '" + name + "'");
}

std::string with_values(const std::string &text, const LogValues &values) {
    std::string filled;
    size_t at = 0;
    for (size_t open = 0; (open = text.find('{', at)) != std::string::npos;) {
        const size_t close = text.find('}', open);
        const std::string name = text.substr(open + 1, close - open - 1);
        filled += text.substr(at, open - at) + (name.empty() ? "" : values.at(name));
        at = close + 1;
    }
    return filled + text.substr(at);
}

}  // namespace

std::ostream &operator<<(std::ostream &out, const LogMessage &message) {
    if (message.level < kInit || message.level > kTimerDetail) return out << message.level << ' ' << message.text;
    return out << kLevels[message.level - 1] << ' ' << message.text;
}

std::vector<LogMessage> log_lines(const LogValues &values, std::string_view block) {
    constexpr char kSpace[] = " ";
    std::vector<LogMessage> messages;
    std::istringstream lines{std::string(block)};
    for (std::string line; std::getline(lines, line);) {
        const size_t begin = line.find_first_not_of(kSpace);
        if (begin == std::string::npos) continue;
        const size_t end = line.find(' ', begin);
        const size_t text = line.find_first_not_of(kSpace, end);
        const size_t last = line.find_last_not_of(kSpace);
        messages.push_back(
            {level_of(line.substr(begin, end - begin)), with_values(line.substr(text, last + 1 - text), values)});
    }
    return messages;
}

std::vector<LogMessage> log_lines(std::string_view block) { return log_lines({}, block); }

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
    std::ostringstream text;
    text << "the log is:";
    for (const LogMessage &message : all()) text << "\n  " << message;
    return text.str();
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
