// The frame codec: the library's dialect in, RFC 6455 out.
#include "sim/frame.h"

#include <gtest/gtest.h>

#include "tests/apps/sim/raw_module.h"

using sim::CloseBody;
using sim::decode_close;
using sim::decode_frame;
using sim::Decoded;
using sim::encode_close;
using sim::encode_frame;
using sim::Key;
using sim::Opcode;
using simtest::library_frame;
using Result = sim::Decoded::Result;

TEST(sim_frame, every_length_code_of_the_library_is_read) {
    for (const size_t size : {0u, 1u, 125u, 126u, 65535u, 65536u, 100000u}) {
        const std::string payload(size, 'x');
        const std::string wire = library_frame(2, payload);
        const Decoded decoded = decode_frame(wire, Key::follows);
        ASSERT_EQ(decoded.result, Result::done) << size;
        EXPECT_EQ(decoded.used, wire.size());
        EXPECT_EQ(decoded.frame.opcode, Opcode::binary);
        EXPECT_EQ(decoded.frame.payload, payload);
    }
}

TEST(sim_frame, a_frame_cut_anywhere_asks_for_more) {
    const std::string wire = library_frame(1, std::string(200, 'x'), false);
    for (size_t size = 0; size < wire.size(); size++) {
        const Result result = decode_frame(wire.substr(0, size), Key::follows).result;
        EXPECT_EQ(result, size == wire.size() - 4 ? Result::only_key_missing : Result::need_more) << size;
    }
    EXPECT_FALSE(decode_frame(wire, Key::follows).frame.fin);
}

TEST(sim_frame, bytes_behind_a_frame_are_left_alone) {
    const std::string wire = library_frame(9, "ping");
    EXPECT_EQ(decode_frame(wire + wire, Key::follows).used, wire.size());
}

TEST(sim_frame, a_frame_with_the_mask_bit_and_no_key_is_read_when_the_key_is_known_to_be_left_out) {
    const std::string wire = library_frame(8, "\x03\xe8reason", true, false);
    EXPECT_EQ(decode_frame(wire, Key::follows).result, Result::only_key_missing);
    const Decoded decoded = decode_frame(wire, Key::left_out);
    ASSERT_EQ(decoded.result, Result::done);
    EXPECT_EQ(decoded.frame.payload, "\x03\xe8reason");
    EXPECT_TRUE(decoded.frame.keyless);
}

TEST(sim_frame, what_the_library_never_writes_is_refused) {
    const std::string cases[] = {
        std::string("\xc1\x80\0\0\0\0", 6),                   // a reserved bit
        std::string("\x83\x80\0\0\0\0", 6),                   // an opcode nobody defined
        std::string("\x81\x00", 2),                           // no MASK bit
        std::string("\x09\x80\0\0\0\0", 6),                   // a ping in fragments
        std::string("\x89\xfe\x00\x7e", 4),                   // a ping over 125 bytes
        std::string("\x81\xfe\x00\x7d", 4),                   // 16 bits for a length of 125
        std::string("\x81\xff\0\0\0\0\0\x01\x00\x00", 10),    // a true 64-bit length
        std::string("\x81\xff\x00\x00\xff\xff\0\0\0\0", 10),  // the long form for 65535
        std::string("\x81\xff\xff\xff\xff\xff\0\0\0\0", 10),  // 4 GiB
    };
    for (const std::string &wire : cases) {
        const Decoded decoded = decode_frame(wire, Key::follows);
        EXPECT_EQ(decoded.result, Result::bad) << testing::PrintToString(wire);
        EXPECT_NE(decoded.fault, nullptr);
    }
}

TEST(sim_frame, frames_out_carry_true_64_bit_lengths) {
    const std::string wire = encode_frame({.payload = std::string(65536, 'x')});
    EXPECT_EQ(wire.substr(0, 10), std::string("\x81\x7f\0\0\0\0\0\x01\0\0", 10));
    EXPECT_EQ(encode_frame({.payload = std::string(126, 'x')}).substr(0, 4), std::string("\x81\x7e\0\x7e", 4));
    EXPECT_EQ(encode_frame({.fin = false, .opcode = Opcode::ping, .payload = "x"}), "\x09\x01x");
}

TEST(sim_frame, a_masked_frame_out_is_read_back) {
    const std::string wire = encode_frame({.payload = "hello, module"}, {.mask = {{1, 2, 3, 4}}});
    EXPECT_EQ(decode_frame(wire, Key::follows).frame.payload, "hello, module");
}

TEST(sim_frame, a_close_body_is_a_status_and_a_reason) {
    EXPECT_EQ(encode_close({.status = 1000, .reason = "bye"}),
              "\x03\xe8"
              "bye");
    EXPECT_EQ(encode_close({}), "");
    const CloseBody body = decode_close("\x03\xe9gone");
    EXPECT_EQ(body.status, 1001);
    EXPECT_EQ(body.reason, "gone");
    EXPECT_FALSE(decode_close("\x03").status.has_value());
}
