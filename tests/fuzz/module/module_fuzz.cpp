// A module on libcloudtunnel-module, with a platform at the end of a real connection: the fuzzer chooses the options,
// what the module calls, also from inside its callbacks, what the platform sends, how the line cuts it, how much the
// kernel takes, and when time passes.
//
// Whatever it chooses: the platform gets what was accepted, whole and in order, in frames that a client may send; the
// module gets what the platform sent, whole and in order, as long as that keeps to the protocol; the queue keeps its
// bound; a call that is refused names a reason that fits; and in the end nothing is left.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cloudtunnel_module.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/good_platform.h"
#include "tests/support/library.h"
#include "tests/support/quiet.h"

// Both compilers' sanitizers have it, but not both its header.
extern "C" {
void __lsan_disable() __attribute__((weak));
void __lsan_enable() __attribute__((weak));
}

namespace {

using support::GoodPlatform;
using Message = GoodPlatform::Message;
using Messages = std::vector<Message>;

constexpr char kModel[] = "model";
constexpr char kOther[] = "other";
constexpr int kTurnsAtMost = 3000;
constexpr int kFaultTimes = 200;
constexpr uint32_t kDefaultLongest = 1U << 20;
constexpr uint32_t kDefaultQueue = 4U << 20;
constexpr uint32_t kDefaultFragment = 16000;
constexpr size_t kEarlyMost = 4096;            // that the platform says before the tunnel is open: all of it is dumped
constexpr size_t kWireMost = size_t{1} << 21;  // bytes that a run may send, so that it ends soon

enum class Deed : uint8_t { nothing, send, close, open, free, free_other, ping, enter_loop, kCount };

class Module {
  public:
    explicit Module(fuzz::Input &in) : in_(in), platform_(support::Wire::plain) {}

    void live(fuzz::Run &run);
    void end(fuzz::Run &run);

    void entered(ctm_state state);
    void received(const ctm_message *message);
    void called_back();

  private:
    void make();
    void make_other();
    void check();
    void step(fuzz::Run &run);
    void dispatch();
    void settle();
    void send(ctm_type type, size_t length);
    void call(Deed deed);
    void say(const std::string &bytes);
    void say_message(int opcode, const std::string &body);
    void say_fragments(const std::string &body, size_t first, bool cut_short);
    [[nodiscard]] bool open() const { return ctm_tunnel_state(tunnel_) == CTM_OPEN; }

    // The steps of a run.
    void step_send(fuzz::Run &);
    void step_send_much(fuzz::Run &);
    void step_call(fuzz::Run &);
    void step_deed(fuzz::Run &);
    void step_dispatch(fuzz::Run &);
    void step_serve(fuzz::Run &);
    void step_settle(fuzz::Run &);
    void step_wait(fuzz::Run &run);
    void step_message(fuzz::Run &);
    void step_fragments(fuzz::Run &);
    void step_frame(fuzz::Run &);
    void step_line(fuzz::Run &);
    void step_bytes(fuzz::Run &);
    void step_platform_ends(fuzz::Run &);
    void step_daemon(fuzz::Run &);
    void step_reads(fuzz::Run &);
    void step_writes(fuzz::Run &);
    void step_records(fuzz::Run &);
    void step_new(fuzz::Run &);

    fuzz::Input &in_;
    GoodPlatform platform_;
    ctm_tunnel *tunnel_ = nullptr;
    ctm_tunnel *other_ = nullptr;  // never open: for calls from the callbacks of the first
    uint32_t longest_ = 0;
    uint32_t queue_ = 0;
    uint32_t fragment_ = 0;
    Deed deed_ = Deed::nothing;  // in the next callback
    Messages accepted_;          // since the tunnel is open
    Messages said_;              // by the platform, likewise
    Messages received_;
    bool clean_ = false;  // the platform has kept to the protocol since then
    int early_ = 0;       // the platform's connection on which it has said something before the tunnel was open
    size_t early_left_ = kEarlyMost;
    size_t wire_left_ = kWireMost;
    std::optional<support::Fault> reads_;
    std::optional<support::Fault> writes_;
};

Module &of(void *user) { return *static_cast<Module *>(user); }
void on_state(ctm_tunnel *, ctm_state state, const ctm_cause_info *cause, void *user) {
    FUZZ_CHECK(cause->detail[sizeof cause->detail - 1] == '\0' &&
               cause->tls_error[sizeof cause->tls_error - 1] == '\0');
    of(user).entered(state);
}
void on_message(ctm_tunnel *, const ctm_message *message, void *user) { of(user).received(message); }
void on_closed(ctm_tunnel *, uint16_t, const char *reason, size_t length, void *user) {
    FUZZ_CHECK(length <= CTM_REASON_MAX && reason[length] == '\0');
    of(user).called_back();
}
void on_writable(ctm_tunnel *, void *user) { of(user).called_back(); }
void on_pong(ctm_tunnel *, uint32_t, void *user) { of(user).called_back(); }
void on_step(ctm_tunnel *, ctm_step, void *user) { of(user).called_back(); }
void on_notice(ctm_tunnel *, void *user) { of(user).called_back(); }

constexpr std::array kNumbers = {0U,     1U,     99U,    100U,   124U,     125U,     126U,        1000U,
                                 16384U, 60000U, 65535U, 65536U, 1U << 20, 1U << 30, 0x40000001U, CTM_NEVER};

void Module::make() {
    ctm_tunnel_options options = {};
    options.size = sizeof options;
    options.model = kModel;
    options.user = this;
    options.state = on_state;
    options.message = on_message;
    options.closed = on_closed;
    options.writable = on_writable;
    options.pong = on_pong;
    options.step = on_step;
    options.notice = on_notice;
    options.without_data = CTM_START;
    const ctm_tunnel_options sound = options;
    for (uint32_t *const field : {&options.pause_first_ms, &options.pause_longest_ms, &options.jitter_percent,
                                  &options.stable_ms, &options.ping_ms, &options.dead_ms, &options.close_ms,
                                  &options.longest_message, &options.fragment, &options.queue})
        *field = kNumbers[in_.byte() % kNumbers.size()];
    if (const uint8_t size = in_.byte(); size & 1) options.size = size;
    tunnel_ = nullptr;
    const ctm_result result = ctm_tunnel_new(&options, &tunnel_);
    FUZZ_CHECK((result == CTM_OK) == (tunnel_ != nullptr));
    if (result == CTM_OK) {
        FUZZ_CHECK(options.size % alignof(ctm_tunnel_options) == 0);
        ctm_tunnel_options read = {};
        memcpy(&read, &options, std::min(options.size, sizeof options));
        longest_ = read.longest_message ? read.longest_message : kDefaultLongest;
        fragment_ = read.fragment ? read.fragment : kDefaultFragment;
        queue_ = read.queue ? read.queue : std::max(kDefaultQueue, longest_);
        FUZZ_CHECK(longest_ <= CTM_MESSAGE_MAX && queue_ >= longest_);
        FUZZ_CHECK(fragment_ >= CTM_FRAGMENT_MIN && fragment_ <= CTM_FRAGMENT_MAX);
        FUZZ_CHECK(read.user == this || read.user == nullptr);
        if (read.user && read.notice) return;
        FUZZ_CHECK(ctm_tunnel_free(tunnel_) == CTM_OK);  // without its callbacks nothing can be checked
    } else {
        FUZZ_CHECK(result >= CTM_BAD_SIZE && result <= CTM_BAD_WITHOUT_DATA);
    }
    FUZZ_CHECK(ctm_tunnel_new(&sound, &tunnel_) == CTM_OK);
    longest_ = kDefaultLongest;
    queue_ = kDefaultQueue;
    fragment_ = kDefaultFragment;
}

void Module::make_other() {
    ctm_tunnel_options options = {};
    options.size = sizeof options;
    options.model = kOther;
    FUZZ_CHECK(ctm_tunnel_new(&options, &other_) == CTM_OK);
}

void Module::entered(ctm_state state) {
    if (state == CTM_OPEN) {
        accepted_.clear();
        said_.clear();
        received_.clear();
        platform_.messages.clear();
        clean_ = early_ != platform_.server().accepted();
    }
    called_back();
}

void Module::received(const ctm_message *message) {
    FUZZ_CHECK(message->data[message->length] == '\0' && message->length <= longest_);
    FUZZ_CHECK(message->length <= message->announced);
    received_.push_back({message->type, std::string(message->data, message->length)});
    called_back();
}

void Module::called_back() { call(std::exchange(deed_, Deed::nothing)); }

void Module::send(ctm_type type, size_t length) {
    length = std::min(length, wire_left_);
    std::string body(length, '\0');
    for (size_t i = 0; i < length; ++i) body[i] = static_cast<char>(i * 7 + accepted_.size());
    const bool could = open();
    const ctm_result result = ctm_tunnel_send(tunnel_, type, body.data(), body.size());
    if (result == CTM_OK) {
        FUZZ_CHECK(could && length <= longest_);
        accepted_.push_back({type, std::move(body)});
        wire_left_ -= length;
        return;
    }
    FUZZ_CHECK(!tunnel_ ? result == CTM_NULL
                        : (result == CTM_NOT_OPEN) || (result == CTM_TOO_LONG && length > longest_) ||
                              (result == CTM_FULL && could) || (result == CTM_NO_MEMORY && could));
}

void Module::call(Deed deed) {
    switch (deed) {
        case Deed::send:
            send(CTM_TEXT, 300);
            break;
        case Deed::close: {
            const ctm_result result = ctm_tunnel_close(tunnel_, 1000, "bye", 3);
            FUZZ_CHECK(result == CTM_OK || result == CTM_NOT_OPEN || !tunnel_);
            break;
        }
        case Deed::open: {
            const ctm_result result = ctm_tunnel_open(tunnel_);
            FUZZ_CHECK(result == CTM_OK || result == CTM_OPEN_ALREADY || !tunnel_);
            break;
        }
        case Deed::free: {
            ctm_tunnel *const gone = std::exchange(tunnel_, nullptr);
            FUZZ_CHECK(ctm_tunnel_free(gone) == (gone ? CTM_OK : CTM_NULL));
            break;
        }
        case Deed::free_other:
            FUZZ_CHECK(ctm_tunnel_open(other_) == CTM_OK);
            FUZZ_CHECK(ctm_tunnel_state(other_) == CTM_WAITING);
            FUZZ_CHECK(ctm_tunnel_free(other_) == CTM_OK);
            make_other();
            break;
        case Deed::ping: {
            const ctm_result result = ctm_tunnel_ping(tunnel_);
            FUZZ_CHECK(result == CTM_OK || result == CTM_PING_ON_ITS_WAY || result == CTM_NOT_OPEN || !tunnel_);
            break;
        }
        case Deed::enter_loop:
            // From a step this is the loop itself, from a callback it is refused.
            ctm_dispatch();
            break;
        case Deed::nothing:
        case Deed::kCount:
            break;
    }
}

void Module::dispatch() { FUZZ_CHECK(ctm_dispatch() == CTM_OK); }

// A platform that sends on and on without the end of its answer is not read any more, and keeps the loop busy.
bool reader_is_full() {
    const cloudtunnel_connect_node *const connection = CLOUDMGR_socket_getCnctByModelName(kModel);
    return connection && fuzz::reader_is_full(connection->sock);
}

// settle runs both ends until nothing happens any more; then nothing that was accepted or sent is still on its way.
void Module::settle() {
    reads_.reset();
    writes_.reset();
    platform_.server().read_at_most(SIZE_MAX);
    int turns = 0;
    do {
        platform_.serve();
        dispatch();
        platform_.serve();
        check();
        if (reader_is_full()) return;
        FUZZ_CHECK(++turns < kTurnsAtMost);
    } while (support::wait_readable(ctm_fd(), 0));
    if (!open() || !platform_.open() || !clean_) return;
    FUZZ_CHECK(platform_.messages == accepted_);
    FUZZ_CHECK(received_ == said_);
}

void Module::check() {
    FUZZ_CHECK(platform_.wrong.empty());
    FUZZ_CHECK(platform_.largest_frame <= CTM_FRAGMENT_MAX);
    FUZZ_CHECK(platform_.messages.size() <= accepted_.size());
    FUZZ_CHECK(std::equal(platform_.messages.begin(), platform_.messages.end(), accepted_.begin()));
    if (clean_) {
        FUZZ_CHECK(received_.size() <= said_.size());
        FUZZ_CHECK(std::equal(received_.begin(), received_.end(), said_.begin()));
    }
    if (!tunnel_) return;
    ctm_counters counters = {};
    counters.size = sizeof counters;
    FUZZ_CHECK(ctm_tunnel_counters(tunnel_, &counters) == CTM_OK);
    FUZZ_CHECK(counters.queue_bytes <= queue_ && counters.queue_most <= queue_);
    FUZZ_CHECK(counters.queue_messages <= accepted_.size());
    uint64_t ended = 0;
    for (const uint64_t count : counters.ended) ended += count;
    FUZZ_CHECK(ended <= counters.attempts && counters.attempts <= ended + 1);
    FUZZ_CHECK(counters.opened <= counters.attempts && counters.pongs <= counters.pings + ended + 1);
}

void Module::say(const std::string &bytes) {
    if (!open()) {
        early_ = platform_.server().accepted();
        if (bytes.size() > early_left_) return;
        early_left_ -= bytes.size();
    }
    if (platform_.server().up() && bytes.size() <= wire_left_) {
        wire_left_ -= bytes.size();
        platform_.server().send(bytes);
    } else {
        clean_ = false;
    }
}

void Module::say_message(int opcode, const std::string &body) {
    const bool heard = open() && platform_.open() && body.size() <= longest_;
    if (heard)
        said_.push_back({opcode, body});
    else
        clean_ = false;
    say(support::frame(opcode, body));
}

void Module::say_fragments(const std::string &body, size_t first, bool cut_short) {
    const bool heard = open() && platform_.open() && body.size() + cut_short <= longest_;
    if (heard)
        said_.push_back({support::kBinary, body});
    else
        clean_ = false;
    first = std::min(first, body.size());
    say(support::frame(support::kBinary,
                       "length:" + std::to_string(body.size() + cut_short) + "\n" + body.substr(0, first), false));
    if (first < body.size()) say(support::frame(support::kContinuation, body.substr(first), !cut_short));
    say(support::frame(support::kContinuation, ""));
}

void Module::step_send(fuzz::Run &) {
    const uint8_t choice = in_.byte();
    send(choice & 1 ? CTM_TEXT : CTM_BINARY, choice);
}

void Module::step_send_much(fuzz::Run &) { send(CTM_BINARY, size_t{in_.byte()} * 401); }

void Module::step_call(fuzz::Run &) { call(static_cast<Deed>(in_.byte() % static_cast<int>(Deed::kCount))); }

void Module::step_deed(fuzz::Run &) { deed_ = static_cast<Deed>(in_.byte() % static_cast<int>(Deed::kCount)); }

void Module::step_dispatch(fuzz::Run &) { dispatch(); }

void Module::step_serve(fuzz::Run &) { platform_.serve(); }

void Module::step_settle(fuzz::Run &) { settle(); }

void Module::step_wait(fuzz::Run &run) {
    run.clock.advance_ms(int64_t{in_.byte()} * 500);
    dispatch();
}

void Module::step_message(fuzz::Run &) {
    const int opcode = in_.byte() & 1 ? support::kText : support::kBinary;
    say_message(opcode, std::string("m").append(in_.take(in_.byte())));
}

void Module::step_fragments(fuzz::Run &) {
    const uint8_t choice = in_.byte();
    say_fragments(std::string(size_t{in_.byte()} * (choice & 1 ? 1 : 97), 'f'), choice, choice & 2);
}

// A frame of any kind, and one that begins like an announcement.
void Module::step_frame(fuzz::Run &) {
    const uint8_t opcode = in_.byte();
    const std::string body(in_.take(in_.byte() % 140));
    if (opcode % 16 != support::kPing || body.size() > 125 || opcode & 16) clean_ = false;
    say(support::frame(opcode % 16, body, !(opcode & 16), opcode & 32 ? "\x01\x80\x7f\xff" : ""));
}

void Module::step_line(fuzz::Run &) {
    clean_ = false;
    const uint8_t opcode = in_.byte();
    say(support::frame(opcode % 3, std::string("length:").append(in_.take(in_.byte() % 32)), opcode & 16));
}

void Module::step_bytes(fuzz::Run &) {
    clean_ = false;
    say(std::string(in_.take(in_.byte())));
}

void Module::step_platform_ends(fuzz::Run &) {
    clean_ = false;
    support::Server &server = platform_.server();
    if (server.fd() < 0) return;
    switch (in_.byte() % 4) {
        case 0:
            server.close();
            break;
        case 1:
            server.reset();
            break;
        case 2:
            server.half_close();
            break;
        default:
            if (platform_.open()) platform_.close(std::string(in_.take(in_.byte() % 126)));
    }
}

// What the daemon would have libcloudtunnel report. Without a link the end of a model counts as the link's.
void Module::step_daemon(fuzz::Run &) {
    const char *const model = in_.byte() & 1 ? kModel : kOther;
    const CLOUDTUNNEL_MODULE_NODE *node = cloudmgr_module_getmodNodeByName(model);
    switch (in_.byte() % 3) {
        case 0:
            CLOUDMGR_socket_urllist_set(model, nullptr, nullptr, CLOUDTUNNEL_DATATYPE_HTTP, 0);
            node->tunnel_open_cb();
            break;
        case 1:
            node->tunnel_close_cb();
            break;
        default:
            node->tunnel_third_cb();
    }
}

void Module::step_reads(fuzz::Run &) {
    reads_.reset();
    const uint8_t most = in_.byte();
    if (most > 0) reads_.emplace("recv", support::FaultPlan{.times = kFaultTimes, .at_most = most});
    platform_.server().read_at_most(size_t{in_.byte()} * 199 + 1);
}

// How much the kernel takes of what is written.
void Module::step_writes(fuzz::Run &) {
    writes_.reset();
    const uint8_t most = in_.byte();
    if (!open() || most == 0) return;
    if (most == 1)
        writes_.emplace("send", support::FaultPlan{.times = in_.byte(), .error = EAGAIN});
    else if (most == 2)
        writes_.emplace("send", support::FaultPlan{.error = EPIPE});
    else
        writes_.emplace("send", support::FaultPlan{.times = kFaultTimes, .at_most = size_t{most} * 3});
}

// Records of any size: no byte behind that size is touched.
void Module::step_records(fuzz::Run &) {
    constexpr size_t kRoom = 2048;
    const size_t size = in_.number(2) % (kRoom + 100);
    alignas(8) std::array<unsigned char, kRoom> room;
    room.fill(0x5a);
    memcpy(room.data(), &size, sizeof size);
    ctm_result result = CTM_OK;
    if (in_.byte() & 1)
        result = ctm_tunnel_cause(tunnel_, reinterpret_cast<ctm_cause_info *>(room.data()));
    else
        result = ctm_tunnel_counters(tunnel_, reinterpret_cast<ctm_counters *>(room.data()));
    FUZZ_CHECK(result == CTM_OK || result == CTM_BAD_SIZE || (result == CTM_NULL && !tunnel_));
    const size_t written = result == CTM_OK ? std::min(size, kRoom) : sizeof size;
    FUZZ_CHECK(std::all_of(room.begin() + static_cast<std::ptrdiff_t>(written), room.end(),
                           [](unsigned char byte) { return byte == 0x5a; }));
    std::string text(in_.byte() * size_t{50}, 'x');
    const size_t length = ctm_metrics(text.data(), text.size());
    FUZZ_CHECK(length > 0 && (text.empty() || strlen(text.c_str()) == std::min(length, text.size() - 1)));
}

void Module::step_new(fuzz::Run &) {
    if (!tunnel_) make();
}

// step takes one byte for the step. The order of the steps is the meaning of the kept inputs.
void Module::step(fuzz::Run &run) {
    using Step = void (Module::*)(fuzz::Run &);
    constexpr std::array kSteps = {
        Step(&Module::step_settle),    Step(&Module::step_send),          Step(&Module::step_send_much),
        Step(&Module::step_call),      Step(&Module::step_deed),          Step(&Module::step_dispatch),
        Step(&Module::step_serve),     Step(&Module::step_wait),          Step(&Module::step_message),
        Step(&Module::step_fragments), Step(&Module::step_frame),         Step(&Module::step_line),
        Step(&Module::step_bytes),     Step(&Module::step_platform_ends), Step(&Module::step_daemon),
        Step(&Module::step_reads),     Step(&Module::step_writes),        Step(&Module::step_records),
        Step(&Module::step_new),
    };
    (this->*kSteps[in_.byte() % kSteps.size()])(run);
}

void Module::live(fuzz::Run &run) {
    CLOUDMGR_socket_setLinkPortV3("80");
    CLOUDMGR_socket_setUserConfigPort(platform_.server().port_text().c_str());
    CLOUDMGR_socket_urllist_set(kModel, "127.0.0.1", "/v3/ws", CLOUDTUNNEL_DATATYPE_HTTP, 80);
    make_other();
    make();
    FUZZ_CHECK(ctm_tunnel_open(tunnel_) == CTM_OK);
    while (!in_.empty()) {
        step(run);
        check();
    }
}

// libcloudtunnel copies a module's name twice, on purpose, and drops the first copy. So each model is registered once,
// by a tunnel that goes at once, while nobody looks for what is lost.
void register_models() {
    if (__lsan_disable) __lsan_disable();
    for (const char *model : {kModel, kOther}) {
        ctm_tunnel_options options = {};
        options.size = sizeof options;
        options.model = model;
        ctm_tunnel *tunnel = nullptr;
        FUZZ_CHECK(ctm_tunnel_new(&options, &tunnel) == CTM_OK);
        FUZZ_CHECK(ctm_tunnel_free(tunnel) == CTM_OK);
    }
    if (__lsan_enable) __lsan_enable();
}

// end gives a tunnel that is not freed its close, in the time that it promises.
void Module::end(fuzz::Run &run) {
    deed_ = Deed::nothing;
    settle();
    if (ctm_tunnel_close(tunnel_, 1001, nullptr, 0) == CTM_OK) {
        settle();
        ctm_tunnel_close(tunnel_, 1001, nullptr, 0);  // at once
        FUZZ_CHECK(ctm_tunnel_state(tunnel_) == CTM_CLOSED);
    }
    run.clock.advance(1);
    settle();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run;
    support::release_library();
    fuzz::Input in(data, size);
    {
        const support::Fault no_daemon("connect", {.error = ECONNREFUSED});
        ctm_options options = {};
        options.size = sizeof options;
        options.log = [](uint32_t, const char *text, void *) { FUZZ_CHECK(strlen(text) < kWireMost); };
        options.log_level = in.byte() % 10;
        FUZZ_CHECK(ctm_init(&options) == CTM_OK);
    }
    register_models();
    CLOUDTUNNEL_client_Fini();  // nobody looks for the daemon any more
    {
        Module module(in);
        module.live(run);
        module.end(run);
        FUZZ_CHECK(ctm_end() == CTM_OK);
    }
    return 0;
}
