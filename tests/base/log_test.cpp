#include "base/log.h"

#include "tests/support/fixture.h"

namespace {

class LogTest : public support::LibraryTest {};

// Read before a test sets it.
const int32_t g_level_at_first = cloudmgr_debug_level;

int ignore(uint32_t, const char *, ...) { return -1; }

TEST_F(LogTest, a_message_passes_when_its_level_does) {
    for (int level = -1; level <= 10; level++) {
        cloudmgr_debug_level = level;
        log.clear();
        LOG(init, "at %d", 1);
        LOG(fsm, "at %d", 4);
        LOG(timer_detail, "at %d", 9);
        EXPECT_EQ(log.count(1), level >= 1);
        EXPECT_EQ(log.count(4), level >= 4);
        EXPECT_EQ(log.count(9), level >= 9);
    }
}

TEST_F(LogTest, a_message_is_wanted_where_it_would_be_printed) {
    for (int level = -1; level <= 10; level++) {
        cloudmgr_debug_level = level;
        EXPECT_EQ(log_wanted(LogLevel::init), level >= 1);
        EXPECT_EQ(log_wanted(LogLevel::package), level >= 6);
    }
    g_stLibInitData.pfnPrint = nullptr;
    EXPECT_FALSE(log_wanted(LogLevel::init));
}

TEST_F(LogTest, more_arguments_than_registers_arrive_as_they_were_given) {
    const uint16_t port = 65535;
    LOG(error, "%s %d %lld %u %c %ld %zu %s %d %s", "a", -1, -2LL, 3U, '4', -5L, sizeof(int), "b", port, "c");
    EXPECT_TRUE(log.contains("a -1 -2 3 4 -5 4 b 65535 c"));
}

TEST_F(LogTest, the_init_data_are_copied_and_a_null_callback_prints_nothing) {
    const CLOUDTUNNEL_LIB_INIT_DATA data = {.usReserved = 7, .pfnPrint = ignore};
    CLOUDMGR_debug_Init(&data);
    EXPECT_EQ(g_stLibInitData.usReserved, 7);
    EXPECT_EQ(g_stLibInitData.pfnPrint, ignore);
    CLOUDMGR_debug_Init(nullptr);
    CLOUDMGR_debug_Fini();
    EXPECT_EQ(g_stLibInitData.pfnPrint, ignore);
    const CLOUDTUNNEL_LIB_INIT_DATA quiet = {.usReserved = 9, .pfnPrint = nullptr};
    cloudtunnel_initLibData(&quiet);
    EXPECT_EQ(g_stLibInitData.usReserved, 9);
    EXPECT_EQ(g_stLibInitData.pfnPrint, nullptr);
    LOG(init, "nobody hears this");
    EXPECT_FALSE(log.contains("nobody"));
}

TEST_F(LogTest, every_message_passes_until_the_caller_lowers_the_level) { EXPECT_EQ(g_level_at_first, 9); }

TEST_F(LogTest, levels_have_their_names) {
    const char *const names[] = {"INVALID", "INIT",           "ERROR", "EVENT",        "FSM", "CONNECT",
                                 "PACKAGE", "PACKAGE DETAIL", "TIMER", "TIMER DETAIL", "MAX"};
    for (size_t level = 0; level < std::size(names); level++)
        EXPECT_STREQ(cloudmgr_debug_level_str[level], names[level]);
    EXPECT_STREQ(g_szDebugModuleName, "CLOUD_TUNNEL");
    EXPECT_EQ(g_cloudmgrprintLock, 0U);
    EXPECT_EQ(g_bCallerOpenFile, 0);
}

TEST_F(LogTest, a_missing_text_is_printable) {
    EXPECT_STREQ(printable(nullptr), "(null)");
    EXPECT_STREQ(printable("x"), "x");
}

}  // namespace
