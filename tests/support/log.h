// Log: records every message of the library while it lives, at all nine levels. It installs itself as the print
// callback; for the two inits hand in log.init_data().
//
//   EXPECT_TRUE(log.said(support::kError, "Create epoll failed."));                  // at least once, exact text
//   EXPECT_EQ(log.count(support::kConnect, "Add socket 5 to epoll 4 ok."), 1);
//   EXPECT_TRUE(log.in_order({{support::kInit, "one"}, {support::kError, "two"}}));  // others may stand in between
#ifndef TESTS_SUPPORT_LOG_H
#define TESTS_SUPPORT_LOG_H

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "cloudtunnel.h"

namespace support {

enum Level : uint32_t {
    kInit = 1,
    kError = 2,
    kEvent = 3,
    kFsm = 4,
    kConnect = 5,
    kPackage = 6,
    kPackageDetail = 7,
    kTimer = 8,
    kTimerDetail = 9,
};

struct LogMessage {
    uint32_t level = 0;
    std::string text;
    bool operator==(const LogMessage &) const = default;
};
std::ostream &operator<<(std::ostream &out, const LogMessage &message);  // for what a failed comparison prints

// log_lines reads messages as they are written in a test: a line each, its level's name and its text. {name} stands for
// the value of that name. The spaces around a line are not part of it; {} is nothing, and keeps spaces before it.
//
//   EXPECT_TRUE(log.in_order(support::log_lines({{"sock", std::to_string(sock)}}, R"(
//       ERROR   [Model model]Failed to set socket {sock} opt.
//       CONNECT Real close sock [{sock}] .
//   )")));
using LogValues = std::map<std::string, std::string>;
std::vector<LogMessage> log_lines(const LogValues &values, std::string_view block);
std::vector<LogMessage> log_lines(std::string_view block);

// The text of errno 0, which differs between C libraries.
inline const std::string kNoError = strerror(0);

class Log {
  public:
    Log();
    ~Log();  // from here on the library prints nothing
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    // What CLOUDTUNNEL_LIB_Init and CLOUDTUNNEL_LIB_MiniInit take to print here.
    static CLOUDTUNNEL_LIB_INIT_DATA init_data();

    void clear();
    std::vector<LogMessage> all() const;
    std::vector<std::string> texts(uint32_t level) const;
    int count(uint32_t level, const std::string &text) const;
    int count(uint32_t level) const { return static_cast<int>(texts(level).size()); }
    bool contains(const std::string &part) const;                               // any level, any place in the text
    int index_of(uint32_t level, const std::string &text, int from = 0) const;  // -1: not there

    // These explain themselves when they fail: the whole log is in the failure.
    testing::AssertionResult said(uint32_t level, const std::string &text) const;
    testing::AssertionResult said_once(uint32_t level, const std::string &text) const;
    testing::AssertionResult in_order(const std::vector<LogMessage> &messages) const;

  private:
    static int print(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));
    std::string text_of_all() const;

    mutable std::mutex lock_;  // timers may be added from several threads
    std::vector<LogMessage> messages_;
};

}  // namespace support

#endif
