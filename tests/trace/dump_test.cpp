#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"

namespace {

using support::kInit;
using support::kPackageDetail;

constexpr const char *kString = "***************** String *****************";
constexpr const char *kEnd = "***************** End *****************";

std::string hex(size_t count) {
    std::string text;
    for (size_t n = 0; n < count; n++) text += "41 ";
    return text;
}

class DumpTest : public support::LibraryTest {
  protected:
    DumpTest() {
        setenv("TZ", "UTC", 1);
        log.clear();
    }
    ~DumpTest() override {
        CLOUDMGR_debug_CloseFile();
        unlink(path.c_str());
        unlink(other.c_str());
    }
    // dump returns what went to standard output.
    static std::string dump(std::string_view bytes) {
        testing::internal::CaptureStdout();
        CLOUDMGR_debug_PrintPkt(support::Connection::bytes(bytes), bytes.size());
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    static std::string content(const std::string &name) {
        std::ifstream file(name);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }
    static bool exists(const std::string &name) { return access(name.c_str(), F_OK) == 0; }

    std::string path = "/tmp/dump_test." + std::to_string(getpid()) + ".log";
    std::string other = path + ".other";
    const std::string header =
        "[Tue Nov 14 22:13:20 2023][000042][PACKAGE DETAIL]: \n"
        "***************** Data *****************\n";
};

TEST_F(DumpTest, hex_is_one_message_at_init) {
    printHex(support::Connection::bytes(std::string_view("\x00\x9f\xff", 3)), 3);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kInit, "buffer len [3] detail [00 9f ff ]"}}));
    log.clear();
    printHex(support::Connection::bytes(""), 0);
    printHex(nullptr, 0);
    EXPECT_EQ(log.count(kInit, "buffer len [0] detail []"), 2);
    printHex(nullptr, 5);
    EXPECT_EQ(log.all().size(), 2U);
}

TEST_F(DumpTest, hex_without_memory_is_silent) {
    const support::FailAlloc fail(0);
    printHex(support::Connection::bytes("abc"), 3);
    EXPECT_TRUE(fail.hit());
    EXPECT_TRUE(log.all().empty());
}

TEST_F(DumpTest, nothing_is_printed_at_level_0_and_below_and_hex_alone_at_1) {
    for (const int32_t level : {0, -1, INT32_MIN, 1}) {
        cloudmgr_debug_level = level;
        log.clear();
        printHex(support::Connection::bytes("A"), 1);
        EXPECT_EQ(dump("A"), "");
        EXPECT_EQ(log.all().size(), level == 1 ? 1U : 0U);
    }
}

TEST_F(DumpTest, a_packet_has_a_header_lines_of_32_bytes_and_its_text) {
    clock.set_time_of_day(1700000000, 42);
    for (const size_t size : {1U, 31U, 32U, 33U, 64U, 65U}) {
        log.clear();
        const std::string bytes(size, 'A');
        EXPECT_EQ(dump(bytes), header);
        std::vector<support::LogMessage> expected;
        for (size_t at = 0; at < size; at += 32)
            expected.push_back({kPackageDetail, hex(std::min<size_t>(32, size - at))});
        expected.push_back({kPackageDetail, kString});
        expected.push_back({kPackageDetail, bytes});
        expected.push_back({kPackageDetail, kEnd});
        EXPECT_EQ(log.all(), expected) << size;
    }
}

TEST_F(DumpTest, a_clock_beyond_all_calendars_leaves_the_date_out) {
    clock.set_time_of_day(253402300800, 42);
    EXPECT_EQ(dump("A"), "[][000042][PACKAGE DETAIL]: \n***************** Data *****************\n");
}

TEST_F(DumpTest, the_header_shows_the_local_time) {
    setenv("TZ", "HERE-3", 1);  // three hours east of Greenwich
    clock.set_time_of_day(1700000000, 999999);
    EXPECT_EQ(dump("A"),
              "[Wed Nov 15 01:13:20 2023][999999][PACKAGE DETAIL]: \n***************** Data *****************\n");
}

int g_calls = 0;
int lower_the_level(uint32_t, const char *, ...) {
    g_calls++;
    cloudmgr_debug_level = support::kPackage;
    return 0;
}
int go_away(uint32_t, const char *, ...) {
    g_calls++;
    g_stLibInitData.pfnPrint = nullptr;
    return 0;
}

TEST_F(DumpTest, level_and_callback_are_asked_for_at_every_line) {
    for (CLOUDTUNNEL_PRINT_FN *const print : {lower_the_level, go_away}) {
        const CLOUDTUNNEL_LIB_INIT_DATA data = {.usReserved = 0, .pfnPrint = print};
        CLOUDMGR_debug_Init(&data);
        cloudmgr_debug_level = kPackageDetail;
        g_calls = 0;
        EXPECT_NE(dump(std::string(40, 'A')), "");
        EXPECT_EQ(g_calls, 1);
    }
}

TEST_F(DumpTest, zero_bytes_of_a_packet_show_as_blanks) {
    dump(std::string_view("a\0\xff\n", 4));
    EXPECT_TRUE(
        log.in_order({{kPackageDetail, "61 00 ff 0a "}, {kPackageDetail, kString}, {kPackageDetail, "a \xff\n"}}));
}

TEST_F(DumpTest, the_header_comes_without_a_callback_and_nothing_else_does) {
    const CLOUDTUNNEL_LIB_INIT_DATA quiet = {};
    CLOUDMGR_debug_Init(&quiet);
    clock.set_time_of_day(1700000000, 42);
    EXPECT_EQ(dump("A"), header);
}

TEST_F(DumpTest, absurd_packets_print_nothing) {
    EXPECT_EQ(dump(""), "");
    testing::internal::CaptureStdout();
    CLOUDMGR_debug_PrintPkt(nullptr, 5);
    for (const size_t size : {SIZE_MAX, SIZE_MAX - 128, SIZE_MAX / 2})
        CLOUDMGR_debug_PrintPkt(support::Connection::bytes("A"), size);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const support::FailAlloc fail(0);
    EXPECT_EQ(dump("A"), "");
    EXPECT_TRUE(log.all().empty());
}

TEST_F(DumpTest, an_open_log_file_takes_the_header_alone) {
    clock.set_time_of_day(1700000000, 42);
    EXPECT_EQ(CLOUDMGR_debug_open_file(path.c_str()), 0);
    EXPECT_TRUE(log.said_once(kInit, "Open log file " + path + "."));
    ASSERT_NE(g_CloudTunnelLogFile, nullptr);
    EXPECT_NE(__flbf(g_CloudTunnelLogFile), 0);  // line-buffered
    EXPECT_EQ(dump("A"), "");
    EXPECT_EQ(content(path), header);
    CLOUDMGR_debug_CloseFile();
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
    EXPECT_EQ(dump("A"), header);
    EXPECT_EQ(content(path), header);
}

TEST_F(DumpTest, opening_again_cuts_the_file_and_a_null_path_changes_nothing) {
    CLOUDMGR_debug_open_file(path.c_str());
    dump("A");
    EXPECT_NE(content(path), "");
    EXPECT_EQ(CLOUDMGR_debug_open_file(nullptr), 0);
    EXPECT_NE(g_CloudTunnelLogFile, nullptr);
    const support::FailAlloc none(0);  // the stored path is kept: no copy is made by the library
    EXPECT_EQ(CLOUDMGR_debug_open_file(path.c_str()), 0);
    EXPECT_FALSE(none.hit());
    EXPECT_EQ(content(path), "");
}

TEST_F(DumpTest, another_path_takes_over) {
    CLOUDMGR_debug_open_file(path.c_str());
    EXPECT_EQ(CLOUDMGR_debug_open_file(other.c_str()), 0);
    dump("A");
    EXPECT_EQ(content(path), "");
    EXPECT_NE(content(other), "");
}

// The stored path is shown to the print callback, and to nobody else.
const char *g_shown = nullptr;
int show_argument(uint32_t, const char *format, ...) {
    va_list args;
    va_start(args, format);
    if (std::strcmp(format, "Open log file %s.") == 0) g_shown = va_arg(args, const char *);
    va_end(args);
    return 0;
}

TEST_F(DumpTest, the_end_of_the_stored_path_may_be_the_next_path) {
    const CLOUDTUNNEL_LIB_INIT_DATA before = g_stLibInitData;
    const CLOUDTUNNEL_LIB_INIT_DATA showing = {.usReserved = 0, .pfnPrint = show_argument};
    CLOUDMGR_debug_Init(&showing);
    ASSERT_EQ(CLOUDMGR_debug_open_file(("/tmp/.." + path).c_str()), 0);
    EXPECT_EQ(CLOUDMGR_debug_open_file(g_shown), 0);
    EXPECT_EQ(CLOUDMGR_debug_open_file(g_shown + std::strlen("/tmp/..")), 0);
    EXPECT_EQ(g_shown, path);
    CLOUDMGR_debug_Init(&before);
    EXPECT_TRUE(exists(path));
}

TEST_F(DumpTest, a_file_that_cannot_be_opened_leaves_none_open) {
    CLOUDMGR_debug_open_file(path.c_str());
    log.clear();
    EXPECT_EQ(CLOUDMGR_debug_open_file("/nowhere/at/all"), -1);
    EXPECT_EQ(log.all(), (std::vector<support::LogMessage>{{kInit, "Open log file failed."}}));
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
    const support::FailAlloc fail(0);
    EXPECT_EQ(CLOUDMGR_debug_open_file(path.c_str()), -1);
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
}

TEST_F(DumpTest, closing_and_removing_twice_frees_once) {
    CLOUDMGR_debug_CloseFile();
    CLOUDMGR_debug_Removefile();
    CLOUDMGR_debug_open_file(path.c_str());
    CLOUDMGR_debug_CloseFile();
    CLOUDMGR_debug_CloseFile();
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(CLOUDMGR_debug_open_file(path.c_str()), 0);
    CLOUDMGR_debug_Removefile();
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(g_CloudTunnelLogFile, nullptr);
    CLOUDMGR_debug_Removefile();
    const support::FailAlloc none(0);  // the path was kept: no copy is made
    EXPECT_EQ(CLOUDMGR_debug_open_file(path.c_str()), 0);
    EXPECT_FALSE(none.hit());
    CLOUDMGR_debug_Removefile();
}

TEST_F(DumpTest, standard_output_becomes_line_buffered) {
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    ASSERT_EQ(__flbf(stdout), 0);
    CLOUDMGR_debug_SetStdout();
    EXPECT_NE(__flbf(stdout), 0);
}

}  // namespace
