// Recordings by themselves: what is written, that no secret is in it, and what is read of one that is wrong.
#include <sstream>

#include <gtest/gtest.h>

#include "sim/recorder.h"
#include "sim/recording.h"
#include "sim/text.h"
#include "sim/upgrade.h"
#include "tests/apps/sim/raw_module.h"
#include "tests/apps/sim/sim_process.h"

using namespace sim;

namespace {

using Of = ModuleBytes::Of;

TunnelData tunnel_data() {
    TunnelData out;
    out.token = "desk-token";
    out.cookie = "desk-cookie=1";
    return out;
}

// A session of one tunnel, as the events of its bytes tell it.
struct Session {
    explicit Session(Recorder::With with) : recorder(events, tunnel_data(), with, keep()) {
        emit(Kind::platform_listening, {{"address", "127.0.0.1:4433"}, {"transport", "TLS 1.2 to 1.3"}});
        emit(Kind::connected, {{"peer", "127.0.0.1:1"}});
    }
    void emit(Kind kind, std::initializer_list<Field> fields, std::string_view cause = {}) {
        events.emit({.kind = kind, .source = Source::tunnel, .id = 1, .fields = fields, .cause = cause});
    }
    void received(std::string_view bytes) { emit(Kind::bytes_received, {{"bytes", Bytes{bytes}}}); }
    void sent(std::string_view bytes) { emit(Kind::bytes_sent, {{"bytes", Bytes{bytes}}}); }
    Recorder::Sink keep() {
        return [this](std::string_view line) { text += cat(line, "\n"); };
    }
    Recording read() const {
        std::istringstream in(text);
        return read_recording(in, "session");
    }

    std::string text;
    EventStream events;
    Recorder recorder;
};

const std::string kKey = "dGhlIHNhbXBsZSBub25jZQ==";  // of upgrade_request

// fault_of is the line that a wrong recording is refused with.
std::string fault_of(const std::string &text) {
    std::istringstream in(text);
    try {
        read_recording(in, "file");
    } catch (const BadInput &bad) {
        return bad.what();
    }
    return "";
}

const std::string kHeader = R"({"format":"cloudtunnel-sim-recording","version":1})"
                            "\n";
const std::string kPlatform =
    R"({"time":0,"kind":"platform-listening","fields":{"address":"127.0.0.1:80","transport":"plain"}})"
    "\n";
const std::string kConnected = R"({"time":1,"id":1,"kind":"connected"})"
                               "\n";

std::string upgrade_answer(std::string_view accept) {
    return cat(
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: ",
        accept, "\r\n\r\n");
}

}  // namespace

TEST(sim_recorder, no_secret_is_recorded_and_all_lengths_stay) {
    Session session(Recorder::With::replaced_secrets);
    const std::string request = simtest::upgrade_request();
    const std::string opt1 = simtest::library_frame(1, simtest::opt1());
    const std::string accept = accept_for(kKey);
    session.received(request);
    session.sent(upgrade_answer(accept));
    session.received(opt1);
    session.emit(Kind::check_failed, {{"what", "OPT1"}}, "tokenID is 'x', expected 'desk-token'");
    session.recorder.finish();
    for (const std::string &secret : {std::string("desk-token"), std::string("desk-cookie"), kKey, accept}) {
        EXPECT_EQ(session.text.find(secret), std::string::npos) << secret << " is in\n" << session.text;
    }
    const Recording recording = session.read();
    ASSERT_EQ(recording.entries.size(), 4u);
    const ModuleUnit &recorded_request = recording.entries[1].unit;
    EXPECT_EQ(recorded_request.bytes.size(), request.size());
    EXPECT_EQ(recording.entries[2].bytes,
              upgrade_answer(accept_for(parse_upgrade(recorded_request.bytes).header("Sec-WebSocket-Key"))));
    EXPECT_EQ(recording.entries[3].unit.bytes.size(), opt1.size());
    EXPECT_EQ(recording.cut, "");
}

TEST(sim_recorder, secrets_are_kept_on_request) {
    Session session(Recorder::With::secrets);
    session.received(simtest::upgrade_request());
    EXPECT_NE(session.text.find("desk-token"), std::string::npos);
    EXPECT_NE(session.text.find(kKey), std::string::npos);
}

TEST(sim_recorder, a_secret_that_comes_byte_by_byte_is_replaced_too) {
    Session session(Recorder::With::replaced_secrets);
    for (const char c : simtest::upgrade_request() + simtest::library_frame(1, simtest::opt1()))
        session.received({&c, 1});
    EXPECT_EQ(session.text.find("desk-token"), std::string::npos);
    EXPECT_EQ(session.read().entries.size(), 3u);
}

TEST(sim_recorder, bytes_that_are_no_frame_are_recorded_as_stars) {
    Session session(Recorder::With::replaced_secrets);
    session.received(simtest::upgrade_request());
    session.received(simtest::library_frame(3, "desk-token"));
    session.received(simtest::library_frame(1, "a frame after it").substr(0, 5));
    session.emit(Kind::tunnel_ended, {}, "connection closed by the module");
    const Recording recording = session.read();
    ASSERT_EQ(recording.entries.size(), 5u);
    EXPECT_EQ(recording.entries[2].unit.bytes, std::string(16, '*'));
    EXPECT_EQ(recording.entries[3].unit.bytes, std::string(5, '*'));
    EXPECT_EQ(recording.entries[4].act, Act::module_ends);
}

TEST(sim_recorder, a_frame_without_a_key_is_recorded_when_it_is_known_to_be_one) {
    for (const auto with : {Recorder::With::replaced_secrets, Recorder::With::secrets}) {
        Session session(with);
        session.received(simtest::upgrade_request());
        session.received(simtest::library_frame(8, "\x03\xe8", true, false));
        session.emit(Kind::frame_received, {{"keyless", true}});
        const Recording recording = session.read();
        ASSERT_EQ(recording.entries.size(), 3u);
        EXPECT_TRUE(recording.entries[2].unit.frame.keyless);
        EXPECT_EQ(recording.entries[2].unit.frame.payload, "\x03\xe8");
    }
}

TEST(sim_recorder, what_comes_after_the_last_line_is_not_recorded) {
    Session session(Recorder::With::secrets);
    session.recorder.finish();
    const std::string whole = session.text;
    session.received("more");
    session.recorder.finish();
    EXPECT_EQ(session.text, whole);
    EXPECT_TRUE(whole.ends_with("\n{\"end\":true}\n"));
}

TEST(sim_secrets, a_secret_inside_json_is_found_and_stays_json) {
    Secrets secrets;
    secrets.learn(R"(a/b"c+d==)");
    EXPECT_EQ(secrets.replace(R"({"tokenID":"a\/b\"c+d=="})"), R"({"tokenID":"s\/e\"c+r=="})");
    EXPECT_EQ(secrets.replace(R"(a/b"c+d==)"), R"(s/e"c+r==)");
}

TEST(sim_secrets, the_longer_of_two_secrets_is_replaced_first) {
    Secrets secrets;
    secrets.learn("token");
    secrets.learn("token-cookie");
    EXPECT_EQ(secrets.replace("token-cookie token"), "secre-t2secr secre");
}

TEST(sim_secrets, a_short_text_is_no_secret) {
    Secrets secrets;
    secrets.learn("");
    secrets.learn("1");
    EXPECT_EQ(secrets.replace("101"), "101");
}

TEST(sim_recording, units_are_put_together_from_any_pieces) {
    const std::string bytes =
        simtest::upgrade_request() + simtest::library_frame(1, "abc") + simtest::library_frame(9, "");
    for (size_t cut = 0; cut <= bytes.size(); cut++) {
        ModuleBytes in(Of::tunnel);
        std::vector<ModuleUnit::Kind> kinds;
        for (const std::string &piece : {bytes.substr(0, cut), bytes.substr(cut)}) {
            in.add(piece);
            while (const auto unit = in.next()) kinds.push_back(unit->kind);
        }
        EXPECT_EQ(kinds, (std::vector{ModuleUnit::Kind::request, ModuleUnit::Kind::frame, ModuleUnit::Kind::frame}))
            << cut;
    }
    ModuleBytes link(Of::link);
    link.add(simtest::registration("a", "b") + simtest::registration("c", "d").substr(0, 3));
    EXPECT_TRUE(link.next().has_value());
    EXPECT_FALSE(link.next().has_value());
}

TEST(sim_recording, keys_and_masks_make_no_difference) {
    const auto unit_of = [](const std::string &bytes) {
        ModuleBytes in(Of::tunnel);
        in.add(simtest::upgrade_request());
        in.next();
        in.add(bytes);
        return *in.next();
    };
    ModuleUnit one = unit_of(simtest::library_frame(1, "abc"));
    EXPECT_EQ(difference(one, unit_of(std::string("\x81\x83\0\0\0\0abc", 9))), "");
    EXPECT_EQ(difference(one, unit_of(simtest::library_frame(2, "abc"))),
              "expected text frame of 3 bytes, 'abc', came binary frame of 3 bytes, 'abc'");
    EXPECT_EQ(
        difference(one, unit_of(simtest::library_frame(1, "abcd"))),
        "text frame of 3 bytes expected, of 4 came; the first difference is at byte 3: expected 'abc', came 'abcd'");
    EXPECT_EQ(difference(one, unit_of(simtest::library_frame(3, "abc")))
                  .find("expected text frame of 3 bytes, 'abc', came bytes of 9 bytes (unknown opcode)"),
              0u);
}

TEST(sim_recording, a_wrong_one_is_refused_with_the_line_and_the_reason) {
    const std::string start = kHeader + kPlatform + kConnected;
    const std::pair<std::string, std::string> cases[] = {
        {"", "file: not a recording: it is empty"},
        {"\n", "file: line 1: not a recording: no JSON object"},
        {"garbage\n", "file: line 1: not a recording: no JSON object"},
        {"[1]\n", "file: line 1: not a recording: no JSON object"},
        {R"({"format":"cloudtunnel-sim-events","version":1})"
         "\n",
         "file: line 1: not a recording: its format is 'cloudtunnel-sim-events', not 'cloudtunnel-sim-recording'"},
        {R"({"format":"cloudtunnel-sim-recording","version":2})"
         "\n",
         "file: line 1: a recording of version 2, and this program reads version 1"},
        {R"({"format":"cloudtunnel-sim-recording"})"
         "\n",
         "file: line 1: a recording of version (none), and this program reads version 1"},
        {kHeader, "file: line 1: neither platform nor daemon stands in it"},
        {start + "{\"time\":\n" + kConnected, "file: line 4: no JSON object"},
        {start + "{} {}\n", "file: line 4: no JSON object"},
        {start + "{}\n", "file: line 4: it has no 'kind'"},
        {start + R"({"end":false})"
                 "\n",
         "file: line 4: it has no 'kind'"},
        {start + R"({"time":"1","kind":"dropped"})"
                 "\n",
         "file: line 4: 'time' is no number of seconds"},
        {start + R"({"time":-1,"kind":"dropped"})"
                 "\n",
         "file: line 4: 'time' is no number of seconds"},
        {start + R"({"time":1e300,"kind":"dropped"})"
                 "\n",
         "file: line 4: 'time' is no number of seconds"},
        {start + R"({"time":0.5,"kind":"dropped"})"
                 "\n",
         "file: line 4: 'time' is before that of the line before"},
        {start + R"({"time":1,"kind":["dropped"]})"
                 "\n",
         "file: line 4: 'kind' is no text"},
        {start + R"({"time":1,"kind":"connected"})"
                 "\n",
         "file: line 4: 'id' is no number of a link or tunnel"},
        {kHeader + kConnected, "file: line 2: no 'platform-listening' stands before it"},
        {start + R"({"time":1,"id":1,"kind":"link-opened"})"
                 "\n",
         "file: line 4: no 'daemon-listening' stands before it"},
        {start + R"({"time":1,"id":1,"kind":"connected"})"
                 "\n",
         "file: line 4: its number was used before"},
        {start + R"({"time":1,"id":2,"kind":"bytes-sent","fields":{"bytes":"a"}})"
                 "\n",
         "file: line 4: tunnel 2 has not been opened before"},
        {start + R"({"time":1,"id":1,"kind":"link-ended"})"
                 "\n",
         "file: line 4: link 1 has not been opened before"},
        {start + R"({"time":1,"id":1,"kind":"tunnel-ended"})"
                 "\n"
                 R"({"time":1,"id":1,"kind":"tunnel-ended"})"
                 "\n",
         "file: line 5: tunnel 1 has ended before"},
        {start + R"({"time":1,"id":1,"kind":"bytes-sent","fields":7})"
                 "\n",
         "file: line 4: 'fields' is no object"},
        {start + R"({"time":1,"id":1,"kind":"bytes-sent"})"
                 "\n",
         "file: line 4: it has neither 'bytes' nor 'bytes_hex'"},
        {start + R"({"time":1,"id":1,"kind":"bytes-sent","fields":{"bytes_hex":"0"}})"
                 "\n",
         "file: line 4: 'bytes_hex' has an odd number of digits"},
        {start + R"({"time":1,"id":1,"kind":"bytes-sent","fields":{"bytes_hex":"0g"}})"
                 "\n",
         "file: line 4: 'bytes_hex' has a character that is no hexadecimal digit"},
        {kHeader + R"({"time":0,"kind":"platform-listening","fields":{"address":"here"}})"
                   "\n",
         "file: line 2: 'address' has no port"},
    };
    for (const auto &[text, wanted] : cases) EXPECT_EQ(fault_of(text), wanted) << text;
}

TEST(sim_recording, an_event_that_has_an_end_of_its_own_is_not_the_last_line) {
    std::istringstream in(kHeader + kPlatform + R"({"time":0,"kind":"x","end":true})" + "\n" + kConnected);
    const Recording recording = read_recording(in, "file");
    EXPECT_NE(recording.cut, "");
    EXPECT_EQ(recording.entries.size(), 1u);
}

TEST(sim_recording, a_line_of_any_length_is_read_and_one_without_end_is_refused) {
    for (const size_t size : {65500, 65534, 65535, 65536, 200000}) {
        const std::string open = R"({"time":0,"kind":"x","a":")", close = "\"}";
        const std::string line = open + std::string(size - open.size() - close.size(), 'a') + close + "\n";
        std::istringstream in(kHeader + kPlatform + line + kConnected);
        EXPECT_EQ(read_recording(in, "file").entries.size(), 1u) << size;
    }
    simtest::SimProcess sim({"--replay", "/dev/zero"});
    EXPECT_EQ(sim.finish(), 2);
    EXPECT_EQ(sim.errors(), "cloudtunnel-sim: /dev/zero: line 1 is longer than 419430400 bytes\n");
}

TEST(sim_recording, one_that_is_cut_anywhere_is_read_as_far_as_it_goes) {
    const std::string more = R"({"time":2,"id":1,"kind":"bytes-sent","fields":{"bytes":"abc"}})"
                             "\n";
    const std::string whole = kHeader + kPlatform + kConnected + more +
                              R"({"end":true})"
                              "\n";
    for (size_t size = kHeader.size() + kPlatform.size() - 1; size < whole.size() - 2; size++) {
        std::istringstream in(whole.substr(0, size));
        const Recording recording = read_recording(in, "file");
        EXPECT_NE(recording.cut, "") << size;
        EXPECT_TRUE(recording.plain);
    }
    std::istringstream in(whole);
    const Recording recording = read_recording(in, "file");
    EXPECT_EQ(recording.cut, "");
    EXPECT_EQ(recording.entries.size(), 2u);
}
