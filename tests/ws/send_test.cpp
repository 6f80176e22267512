#include "ws/send.h"

#include <cstring>

#include "tests/support/fault.h"
#include "tests/support/fixture.h"
#include "tests/support/wire.h"
#include "ws/frame_format.h"

namespace {

using support::kError;
using support::kNoError;
using support::kPackage;
using support::Wire;

constexpr const uint8_t kKey[] = {0x11, 0x22, 0x33, 0x44};

std::string payload(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; i++) bytes[i] = static_cast<char>('a' + i % 23);
    return bytes;
}

struct Sent {
    bool fin;
    int opcode;
    size_t size;
    bool operator==(const Sent &) const = default;
};
void PrintTo(const Sent &sent, std::ostream *out) { *out << sent.fin << " " << sent.opcode << " " << sent.size; }

class WsSendTest : public support::LibraryTest {
  protected:
    WsSendTest() { cloudmgr_debug_level = kPackage; }
    ~WsSendTest() override {
        bigEndian = 0;
        CLOUDMGR_ws_msg_destory(msg);
    }
    void fill(const std::string &body, const uint8_t *key = kKey, uint8_t opcode = 1) {
        CLOUDMGR_ws_setoptcode(msg, opcode);
        CLOUDMGR_ws_setmask(msg, key);
        CLOUDMGR_ws_setbody(msg, body.data(), static_cast<int32_t>(body.size()));
    }
    // Sends with the server reading along: loopback buffers are smaller than some messages.
    template <class Send>
    std::vector<support::WireFrame> frames(support::Connection &conn, const Send &send) {
        EXPECT_EQ(send(), 0);
        std::vector<support::WireFrame> found;
        std::string bytes = conn.server->take_all();
        for (int quiet = 0; quiet < 3;) {
            if (auto one = support::take_frame(bytes, msg->mask_set ? support::Key::given : support::Key::left_out)) {
                found.push_back(*one);
                continue;
            }
            const std::string more = conn.server->take_all();
            quiet = more.empty() ? quiet + 1 : 0;
            bytes += more;
        }
        EXPECT_EQ(bytes, "");
        return found;
    }
    static std::vector<Sent> shape(const std::vector<support::WireFrame> &frames) {
        std::vector<Sent> found;
        for (const auto &one : frames) found.push_back({one.fin, one.opcode, one.body.size()});
        return found;
    }
    static std::string joined(const std::vector<support::WireFrame> &frames) {
        std::string all;
        for (const auto &one : frames) all += one.body;
        return all;
    }
    std::string head(Fragment position, int64_t length, bool mirrored = false) {
        uint8_t bytes[kHeaderMax];
        std::memset(bytes, 0xee, sizeof bytes);  // nothing of it may stay
        const size_t size = mirrored ? cloudmgr_ws_setHeadBigEndian(bytes, msg, position, length)
                                     : cloudmgr_ws_setHead(bytes, msg, position, length);
        return {reinterpret_cast<char *>(bytes), size};
    }
    cloudmgr_ws_msg *msg = CLOUDMGR_ws_msg_create();
};

TEST_F(WsSendTest, each_length_has_its_header) {
    fill("", nullptr);
    const struct {
        int64_t length;
        std::string bytes;
    } cases[] = {
        {0, std::string("\x81\x80", 2)},
        {125, std::string("\x81\xfd", 2)},
        {126, std::string("\x81\xfe\x00\x7e", 4)},
        {65535, std::string("\x81\xfe\xff\xff", 4)},
        {65536, std::string("\x81\xff\x00\x01\x00\x00\x00\x00\x00\x00", 10)},
        {0x01020304, std::string("\x81\xff\x01\x02\x03\x04\x00\x00\x00\x00", 10)},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(head(Fragment::whole, one.length), one.bytes) << one.length;
        CLOUDMGR_ws_setmask(msg, kKey);
        EXPECT_EQ(head(Fragment::whole, one.length), one.bytes + "\x11\x22\x33\x44");
        CLOUDMGR_ws_setmask(msg, nullptr);
    }
}

TEST_F(WsSendTest, a_key_follows_only_when_the_mask_flag_is_1) {
    fill("");
    msg->mask_set = 2;
    EXPECT_EQ(head(Fragment::whole, 5), "\x81\x85");
    EXPECT_EQ(head(Fragment::whole, 5, true), "\x11\x0a");
}

TEST_F(WsSendTest, each_position_has_its_first_byte) {
    fill("", nullptr, 0xf2);  // the low four bits count
    EXPECT_EQ(head(Fragment::whole, 0)[0], '\x82');
    EXPECT_EQ(head(Fragment::first, 0)[0], '\x02');
    EXPECT_EQ(head(Fragment::middle, 0)[0], '\x00');
    EXPECT_EQ(head(Fragment::last, 0)[0], '\x80');
}

TEST_F(WsSendTest, the_mirrored_header_turns_the_bits_of_its_first_two_bytes) {
    fill("", nullptr, 2);
    EXPECT_EQ(head(Fragment::whole, 5, true), std::string("\x21\x0a", 2));
    EXPECT_EQ(head(Fragment::first, 5, true), std::string("\x20\x0a", 2));
    EXPECT_EQ(head(Fragment::last, 5, true), std::string("\x01\x0a", 2));
    EXPECT_EQ(head(Fragment::whole, 126, true), std::string("\x21\xfc\x00\x7e", 4));
    EXPECT_EQ(head(Fragment::whole, 65536, true), std::string("\x21\xfe\x00\x01\x00\x00\x00\x00\x00\x00", 10));
    CLOUDMGR_ws_setmask(msg, kKey);
    EXPECT_EQ(head(Fragment::whole, 5, true), std::string("\x21\x0b\x11\x22\x33\x44", 6));
    EXPECT_EQ(head(Fragment::whole, 126, true), std::string("\x21\xfd\x00\x7e\x11\x22\x33\x44", 8));
}

TEST_F(WsSendTest, the_mirrored_writer_is_used_when_it_is_asked_for) {
    support::Connection conn = connect(Wire::plain);
    fill("ab", nullptr);
    bigEndian = 1;
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 1), 0);
    EXPECT_EQ(conn.server->take(4), std::string("\x11\x04"
                                                "ab"));
    bigEndian = 2;
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 1), 0);
    EXPECT_EQ(conn.server->take(4), std::string("\x81\x82"
                                                "ab"));
}

TEST_F(WsSendTest, a_32_bit_number_is_turned_round) { EXPECT_EQ(cloudmgr_ws_htonl(0x01020304), 0x04030201U); }

TEST_F(WsSendTest, a_message_goes_out_as_one_frame_masked_or_not) {
    support::Connection conn = connect(Wire::tls);
    for (const size_t size : {0U, 1U, 125U, 126U, 65535U, 65536U, 100000U}) {
        for (const uint8_t *key : {static_cast<const uint8_t *>(nullptr), kKey}) {
            fill(payload(size), key, 2);
            const auto sent = frames(conn, [&] { return CLOUDMGR_ws_send(conn.sock, msg, 100); });
            ASSERT_EQ(sent.size(), 1U);
            EXPECT_TRUE(sent[0].fin);
            EXPECT_EQ(sent[0].opcode, 2);
            EXPECT_TRUE(sent[0].mask_bit);  // also without a key
            EXPECT_EQ(sent[0].mask, key ? "\x11\x22\x33\x44" : "");
            EXPECT_EQ(sent[0].body, payload(size));
            EXPECT_EQ(std::string(reinterpret_cast<char *>(msg->body), size), payload(size));  // untouched
        }
    }
}

TEST_F(WsSendTest, a_send_logs_each_step) {
    cloudmgr_debug_level = support::kPackageDetail;
    support::Connection conn = connect(Wire::plain);
    fill("AB");
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 1), 0);
    const std::string on = "[Socket " + std::to_string(conn.sock) + "]";
    EXPECT_TRUE(log.in_order({{kPackage, on + "Send ws msg len 2."},
                              {kPackage, on + "Send websocket message before mask."},
                              {support::kPackageDetail, "81 82 11 22 33 44 41 42 "},
                              {kPackage, on + "Send websocket mask 0x11 0x22 0x33 0x44."},
                              {kPackage, on + "Send message result 8, message [" + kNoError + "]."}}));
    log.clear();
    EXPECT_EQ(kyrcloud_ws_send_oneFrag(conn.sock, msg, 0, 0, 1, 0), 0);
    EXPECT_TRUE(log.in_order({{kPackage, "WEB: " + on + "Send ws msg len 2."},
                              {kPackage, "WEB: " + on + "Send websocket message before mask."},
                              {support::kPackageDetail, "81 82 11 22 33 44 41 42 "},
                              {kPackage, "WEB: " + on + "Send websocket mask 0x11 0x22 0x33 0x44."}}));
}

TEST_F(WsSendTest, what_is_sent_is_the_same_with_a_log_and_without_one) {
    const support::Connection conn = connect(Wire::plain);
    fill(payload(17000));
    const auto sent = [&](int32_t level) {
        cloudmgr_debug_level = level;
        EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 1), 0);
        EXPECT_EQ(kyrcloud_ws_send_oneFrag(conn.sock, msg, 2, 1, 1, 0), 0);
        return conn.server->take(2 * (msg->mask_set ? 8 : 4) + 17000 + 8192);
    };
    for (const int mirrored : {0, 1}) {
        for (const uint8_t *key : {static_cast<const uint8_t *>(nullptr), kKey}) {
            bigEndian = mirrored;
            CLOUDMGR_ws_setmask(msg, key);
            EXPECT_EQ(sent(0), sent(support::kPackageDetail));
        }
    }
}

TEST_F(WsSendTest, bad_sockets_and_null_messages_are_logged) {
    fill("x");
    EXPECT_EQ(CLOUDMGR_ws_send(-1, msg, 1), -1);
    EXPECT_TRUE(log.said_once(kError, "Send ws msg sock -1 error."));
    EXPECT_EQ(CLOUDMGR_ws_send(5, nullptr, 1), -1);
    EXPECT_TRUE(log.said_once(kError, "[Socket 5]Send ws msg NULL."));
    const struct {
        int (*fragment)(int, const cloudmgr_ws_msg *, int, int, int, uint32_t);
        int (*all)(int, const cloudmgr_ws_msg *, int, uint32_t);
    } senders[] = {{kyrcloud_ws_send_oneFrag, CLOUDMGR_ws_send_byFrag},
                   {kyrcloud_ws_sendlarge_oneFrag, CLOUDMGR_ws_sendlarge_byFrag}};
    for (const auto &one : senders) {
        log.clear();
        EXPECT_EQ(one.fragment(-1, msg, 0, 0, 1, 0), -1);
        EXPECT_EQ(one.all(-1, msg, 1, 0), -1);
        EXPECT_EQ(log.count(kError, "WEB: Send ws msg sock -1 error."), 2);
        EXPECT_EQ(one.fragment(5, nullptr, 0, 0, 1, 0), -1);
        EXPECT_EQ(one.all(5, nullptr, 1, 0), -1);
        EXPECT_EQ(log.count(kError, "WEB: [Socket 5]Send ws msg NULL."), 2);
    }
}

TEST_F(WsSendTest, descriptor_0_is_a_socket_like_any_other) {
    fill("x");
    const support::Fault broken("send", {.times = support::kAlways, .error = EPIPE});
    EXPECT_EQ(CLOUDMGR_ws_send(0, msg, 1), -1);
    EXPECT_EQ(kyrcloud_ws_send_oneFrag(0, msg, 0, 0, 1, 0), -1);
    EXPECT_EQ(broken.hits(), 2);
    EXPECT_EQ(log.count(kError), 0);
}

TEST_F(WsSendTest, the_results_of_the_send_path_are_passed_on) {
    support::Connection conn = connect(Wire::plain);
    fill("x");
    {
        const support::Fault busy("send", {.times = support::kAlways, .error = EAGAIN});
        EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 3), -2);
        EXPECT_EQ(busy.hits(), 3);
        EXPECT_EQ(kyrcloud_ws_send_oneFrag(conn.sock, msg, 0, 0, 2, 50), -1);
        EXPECT_EQ(clock.sleeps(), (std::vector<unsigned>{50, 50}));
    }
    const support::Fault broken("send", {.times = support::kAlways, .error = EPIPE});
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 3), -1);
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 0), 0);  // no attempt is no failure
}

TEST_F(WsSendTest, attempts_and_delay_reach_the_send_path_with_every_fragment) {
    support::Connection conn = connect(Wire::plain);
    for (auto *const send : {CLOUDMGR_ws_send_byFrag, CLOUDMGR_ws_sendlarge_byFrag}) {
        for (const size_t size : {1U, 20000U}) {  // whole, and cut
            fill(payload(size));
            const size_t slept = clock.sleeps().size();
            const support::Fault busy("send", {.times = support::kAlways, .error = EAGAIN});
            EXPECT_EQ(send(conn.sock, msg, 3, 70), -1);
            EXPECT_EQ(busy.hits(), 3);
            EXPECT_EQ(clock.sleeps().size(), slept + 3);
            EXPECT_EQ(clock.sleeps().back(), 70U);
        }
    }
}

TEST_F(WsSendTest, absurd_bodies_send_nothing) {
    support::Connection conn = connect(Wire::plain);
    fill("x");
    const support::Calls sends("send");
    for (const int64_t length : {int64_t{-1}, INT64_MIN, int64_t{INT32_MAX}, int64_t{INT32_MAX} - 16, INT64_MAX}) {
        msg->length = length;
        EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, msg, 1), -1);
        EXPECT_EQ(CLOUDMGR_ws_send_byFrag(conn.sock, msg, 1, 0), -1);
        EXPECT_EQ(kyrcloud_ws_send_oneFrag(conn.sock, msg, 0, 0, 1, 0), -1);
    }
    cloudmgr_ws_msg without_body = {};
    without_body.length = 5;
    EXPECT_EQ(CLOUDMGR_ws_send(conn.sock, &without_body, 1), -1);
    EXPECT_EQ(sends(), 0);
    msg->length = 1;
}

TEST_F(WsSendTest, without_memory_nothing_is_sent) {
    support::Connection conn = connect(Wire::plain);
    cloudmgr_debug_level = kError;
    fill("x");
    for (const bool whole : {true, false}) {
        const support::Calls sends("send");
        const support::FailAlloc fail(0);
        EXPECT_EQ(whole ? CLOUDMGR_ws_send(conn.sock, msg, 1) : kyrcloud_ws_send_oneFrag(conn.sock, msg, 0, 0, 1, 0),
                  -1);
        EXPECT_EQ(sends(), 0);
    }
}

TEST_F(WsSendTest, a_body_is_cut_into_fragments_and_an_exact_multiple_loses_its_last) {
    support::Connection conn = connect(Wire::tls);
    const struct {
        bool large;
        size_t size;
        std::vector<Sent> sent;
    } cases[] = {
        {false, 0, {{true, 1, 0}}},
        {false, 8192, {{true, 1, 8192}}},
        {false, 8193, {{false, 1, 8192}, {true, 0, 1}}},
        {false, 16384, {{false, 1, 8192}, {true, 0, 0}}},
        {false, 16385, {{false, 1, 8192}, {false, 0, 8192}, {true, 0, 1}}},
        {false, 24576, {{false, 1, 8192}, {false, 0, 8192}, {true, 0, 0}}},
        {true, 16000, {{true, 1, 16000}}},
        {true, 16001, {{false, 1, 16000}, {true, 0, 1}}},
        {true, 32000, {{false, 1, 16000}, {true, 0, 0}}},
        {true, 40000, {{false, 1, 16000}, {false, 0, 16000}, {true, 0, 8000}}},
    };
    for (const auto &one : cases) {
        fill(payload(one.size));
        const auto sent = frames(conn, [&] {
            return one.large ? CLOUDMGR_ws_sendlarge_byFrag(conn.sock, msg, 100, 0)
                             : CLOUDMGR_ws_send_byFrag(conn.sock, msg, 100, 0);
        });
        EXPECT_EQ(shape(sent), one.sent) << one.size;
        const std::string whole = joined(sent);
        EXPECT_EQ(whole, payload(one.size).substr(0, whole.size()));  // each masked from the key's first byte
        const size_t fragment = one.large ? 16000 : 8192;
        const size_t count = one.size / fragment + (one.size % fragment != 0);
        EXPECT_TRUE(log.said(kPackage, "[sock " + std::to_string(conn.sock) + "] msg length is " +
                                           std::to_string(one.size) +
                                           "\xA3\xAC"
                                           "fragment number is " +
                                           std::to_string(count) + "."));
    }
}

TEST_F(WsSendTest, the_first_fragment_that_fails_is_the_last) {
    support::Connection conn = connect(Wire::plain);
    fill(payload(30000));
    const support::Calls sends("send");
    const support::Fault broken("send", {.after = 1, .times = support::kAlways, .error = EPIPE});
    EXPECT_EQ(CLOUDMGR_ws_send_byFrag(conn.sock, msg, 1, 0), -1);
    EXPECT_EQ(sends(), 2);
}

TEST_F(WsSendTest, a_single_fragment_is_taken_from_its_place) {
    support::Connection conn = connect(Wire::tls);
    fill(payload(20000));
    const struct {
        int position;
        int index;
        Sent sent;
        size_t from;
    } cases[] = {
        {0, 0, {true, 1, 20000}, 0},    {1, 0, {false, 1, 8192}, 0}, {2, 1, {false, 0, 8192}, 8192},
        {3, 2, {true, 0, 3616}, 16384}, {3, 0, {true, 0, 3616}, 0},
    };
    for (const auto &one : cases) {
        const auto sent =
            frames(conn, [&] { return kyrcloud_ws_send_oneFrag(conn.sock, msg, one.position, one.index, 100, 0); });
        EXPECT_EQ(shape(sent), std::vector<Sent>{one.sent});
        EXPECT_EQ(joined(sent), payload(20000).substr(one.from, one.sent.size));
    }
}

TEST_F(WsSendTest, a_fragment_beyond_the_body_is_refused) {
    support::Connection conn = connect(Wire::plain);
    fill(payload(20000));
    const support::Calls sends("send");
    const struct {
        int position;
        int index;
    } cases[] = {{0, 1}, {1, 2}, {2, 2}, {3, 3}, {4, 0}, {-1, 0}, {1, -1}, {2, INT32_MAX}, {3, INT32_MIN}};
    for (const auto &one : cases)
        EXPECT_EQ(kyrcloud_ws_send_oneFrag(conn.sock, msg, one.position, one.index, 1, 0), -1)
            << one.position << " " << one.index;
    EXPECT_EQ(kyrcloud_ws_sendlarge_oneFrag(conn.sock, msg, 2, 1, 1, 0), -1);
    EXPECT_EQ(sends(), 0);
}

}  // namespace
