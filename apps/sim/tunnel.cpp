#include "tunnel.h"

#include <algorithm>

#include <openssl/rand.h>

#include "registration.h"
#include "text.h"
#include "tls_fault.h"
#include "upgrade_fault.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr auto kSetUpTime = 60s;       // longer than any time-out of the library, so that those come first
constexpr auto kKeyTime = 500ms;       // a mask key that has not arrived by then was left out
constexpr auto kModuleCloseTime = 3s;  // the library's close handler runs a second after the echo
constexpr auto kFinishTime = 1s;       // for the peer's TLS close alert
constexpr std::size_t kRequestMax = 65535;
constexpr std::size_t kInboxMax = 1000;  // messages that no step reads are not kept for ever; the largest burst fits

}  // namespace

std::string reason_of(const system_error &error) {
    const error_code code = error.code();
    if (code == asio::error::eof) return "connection closed by the module";
    if (code == asio::ssl::error::stream_truncated) return "connection closed by the module, without a TLS close";
    if (code == asio::error::connection_reset) return "connection reset by the module";
    if (code == asio::error::operation_aborted) return "connection closed by the platform";
    return cat("connection failed: ", code.message());
}

static const char *state_name(Tunnel::State state) {
    switch (state) {
        case Tunnel::State::connecting:
            return "connecting";
        case Tunnel::State::registering:
            return "registering";
        case Tunnel::State::open:
            return "open";
        case Tunnel::State::closing:
            return "closing";
        case Tunnel::State::ended:
            return "ended";
    }
    return "";
}

Tunnel::Tunnel(const Context &context, tcp::socket socket, asio::ssl::context *tls, int id, const std::string &model)
    : context_(context),
      faults_(context.faults, id, model,
              [this](const Fault &fault) {
                  emit(Kind::fault_applied, {{"fault", Bytes{show_fault(fault)}}});
              }),
      stream_(std::move(socket), tls, faults_),
      outbox_(context.io, context.changed),
      deadline_(context.io),
      fault_timer_(context.io),
      late_timer_(context.io),
      key_timer_(context.io),
      id_(id),
      since_(context.events.now()) {}

void Tunnel::emit(Kind kind, std::initializer_list<Field> fields, std::string_view cause) const {
    context_.events.emit(
        {.kind = kind, .source = Source::tunnel, .id = id_, .model = model_, .fields = fields, .cause = cause});
}

void Tunnel::emit_frame(Kind kind, const Frame &frame) const {
    emit(kind, {{"opcode", opcode_name(frame.opcode)},
                {"code", static_cast<int>(frame.opcode)},
                {"fin", frame.fin},
                {"length", frame.payload.size()},
                {"keyless", frame.keyless},
                {"payload", Bytes{frame.payload}}});
}

void Tunnel::emit_close(Kind kind, const CloseBody &body) const {
    if (body.status) {
        emit(kind, {{"status", *body.status}, {"reason", Bytes{body.reason}}});
    } else {
        emit(kind);
    }
}

void Tunnel::become(State state, std::string_view cause) {
    if (state_ != State::ended && state_ != state) {
        const State from = state_;
        state_ = state;
        since_ = context_.events.now();
        emit(Kind::tunnel_state, {{"from", state_name(from)}, {"to", state_name(state)}}, cause);
    }
    context_.changed.notify();
}

TunnelStatus Tunnel::status() const {
    return {.id = id_, .model = model_, .state = state_name(state_), .since = since_};
}

// From the connection to its end.

awaitable<void> Tunnel::run() {
    const auto self = shared_from_this();
    try {
        emit(Kind::connected, {{"peer", stream_.peer()}});
        finish_within(kSetUpTime);
        reach(Stage::accept);
        co_await open();
        co_await read_frames();
    } catch (const system_error &error) {
        if (!in_.empty() && state_ != State::connecting && !drain(Key::left_out)) {
            emit(Kind::frame_unfinished, {{"length", in_.size()}});
        }
        if (ending_.empty()) ending_ = reason_of(error);
    }
    become(State::ended, ending_);
    emit(Kind::tunnel_ended, {}, ending_);
    deadline_.cancel();
    fault_timer_.cancel();
    late_timer_.cancel();
    key_timer_.cancel();
    outbox_.close();
    stream_.close();
}

awaitable<void> Tunnel::open() {
    co_await stream_.accepted();
    enter(Stage::tls);
    reach(Stage::tls);
    if (SSL *const ssl = stream_.session()) {
        prepare_session(ssl, faults_, context_.tunnel_data.host);
        const auto reply = handshake_reply(faults_);
        if (reply) co_await stream_.refuse_handshake(*reply);
    }
    const TlsSession session = co_await stream_.handshake();
    if (session.cipher.empty()) {
        emit(Kind::tls_established, {{"version", session.version}});
    } else {
        emit(Kind::tls_established, {{"version", session.version},
                                     {"cipher", session.cipher},
                                     {"server_name", Bytes{session.server_name}},
                                     {"resumed", session.resumed}});
    }
    enter(Stage::upgrade);
    const std::string request = co_await read_request();
    if (!reach(Stage::upgrade)) co_return;
    co_spawn(
        context_.io,
        [self = shared_from_this()]() -> awaitable<void> {
            try {
                co_await self->outbox_.run([&](const std::string &bytes) {
                    self->emit(Kind::bytes_sent, {{"bytes", Bytes{bytes}}});
                    return self->write(bytes);
                });
                co_await self->stream_.finish();
            } catch (const system_error &) {
                // The reader fails on the same stream and reports why.
            }
            self->stream_.close();
        },
        asio::detached);
    answer_upgrade(request);
}

// write sends bytes. With them the connection has come to the stage of its state: an answer still belongs to the stage
// that it ends.
awaitable<void> Tunnel::write(std::string_view bytes) {
    co_await stream_.write(bytes);
    if (state_ == State::registering) enter(Stage::registration);
    if (state_ == State::open && stage_ != Stage::open) {
        enter(Stage::open);
        reach(Stage::open);
    }
}

awaitable<std::string> Tunnel::read_request() {
    for (;;) {
        if (const auto end = in_.find("\r\n\r\n"); end != std::string::npos) {
            std::string request = in_.substr(0, end + 4);
            in_.erase(0, end + 4);
            co_return request;
        }
        if (in_.size() > kRequestMax) {
            report_check("upgrade request", {cat("no end within ", kRequestMax, " bytes")});
            throw system_error(asio::error::message_size);
        }
        take(co_await stream_.read());
    }
}

void Tunnel::take(const std::string &bytes) {
    emit(Kind::bytes_received, {{"bytes", Bytes{bytes}}});
    in_ += bytes;
}

// report_check emits the problems that a check found and returns true when there are none.
bool Tunnel::report_check(std::string_view what, const std::vector<std::string> &problems) const {
    for (const std::string &problem : problems) emit(Kind::check_failed, {{"what", what}}, problem);
    return problems.empty();
}

// answer_by_closing ends the connection where the module waits for an answer.
void Tunnel::answer_by_closing(std::string_view what) {
    emit(Kind::answered_by_closing, {{"what", what}});
    ending_ = "connection closed by the platform";
    outbox_.close();
}

// await_close gives the module time to close the connection.
void Tunnel::await_close(std::string_view cause) {
    become(State::closing, cause);
    finish_within(kModuleCloseTime);
}

void Tunnel::answer_upgrade(const std::string &text) {
    const UpgradeRequest request = parse_upgrade(text);
    emit(Kind::upgrade_received,
         {{"line", Bytes{request.line}}, {"host", Bytes{request.header("Host")}}, {"request", Bytes{text}}});
    const bool good = report_check("upgrade request", check_upgrade(request, context_.tunnel_data));
    if (good) emit(Kind::upgrade_checked);
    const bool refused = !good && !context_.behaviour.lenient;
    if (!refused && faults_.find(FaultKind::silence, Stage::upgrade)) {
        return emit(Kind::left_unanswered, {{"what", "upgrade"}});
    }
    if (!refused && faults_.find(FaultKind::hang_up, Stage::upgrade)) return answer_by_closing("upgrade");

    const UpgradeReply reply = upgrade_reply(faults_, request, refused);
    outbox_.post(reply.bytes);
    if (reply.fault.empty()) {
        emit(Kind::upgrade_answered,
             {{"status", reply.status}, {"answer", reply.words}, {"response", Bytes{reply.bytes}}});
    } else {
        emit(Kind::upgrade_answered, {{"status", reply.status},
                                      {"answer", reply.words},
                                      {"response", Bytes{reply.bytes}},
                                      {"fault", reply.fault}});
    }
    const std::string cause = cat("upgrade answered: ", reply.words);
    switch (reply.next) {
        case UpgradeReply::Next::registration:
            return become(State::registering, cause);
        case UpgradeReply::Next::module_closes:
            return await_close(cause);
        case UpgradeReply::Next::module_waits:
            return;
        case UpgradeReply::Next::closes:
            ending_ = "connection closed by the platform";
            return outbox_.close();
    }
}

awaitable<void> Tunnel::read_frames() {
    for (;;) {
        const std::string bytes = co_await stream_.read();
        const EventStream::Moment moment(context_.events);
        take(bytes);
        key_timer_.cancel();
        if (state_ == State::connecting) {
            emit(Kind::bytes_unexpected, {{"length", in_.size()}});
            in_.clear();
        } else {
            drain(Key::follows);
        }
    }
}

// drain handles every complete frame that was read; true when no byte is left.
bool Tunnel::drain(Key key) {
    while (!in_.empty() && state_ != State::ended) {
        Decoded decoded = decode_frame(in_, key);
        switch (decoded.result) {
            case Decoded::Result::need_more:
                return false;
            case Decoded::Result::only_key_missing:
                wait_for_key();
                return false;
            case Decoded::Result::bad:
                in_.clear();
                protocol_error(decoded.fault);
                return true;
            case Decoded::Result::done:
                break;
        }
        in_.erase(0, decoded.used);
        on_frame(std::move(decoded.frame));
    }
    return in_.empty();
}

void Tunnel::wait_for_key() {
    key_timer_.expires_after(kKeyTime);
    key_timer_.async_wait([self = shared_from_this(), size = in_.size()](error_code cancelled) {
        if (!cancelled && self->in_.size() == size) self->drain(Key::left_out);
    });
}

// What the module sends.

void Tunnel::on_frame(Frame frame) {
    emit_frame(Kind::frame_received, frame);
    if (frame.keyless) emit(Kind::frame_keyless, {{"opcode", opcode_name(frame.opcode)}});
    if (frame.opcode == Opcode::close) {
        on_close(frame);
    } else if (state_ == State::registering) {
        on_registration(frame);
    } else if (frame.opcode == Opcode::ping) {
        emit(Kind::ping_received, {{"payload", Bytes{frame.payload}}});
        post({.opcode = Opcode::pong, .payload = frame.payload});
        emit(Kind::pong_sent, {{"payload", Bytes{frame.payload}}});
    } else if (frame.opcode == Opcode::pong) {
        emit(Kind::pong_received, {{"payload", Bytes{frame.payload}}});
        pongs.push_back(std::move(frame.payload));
        context_.changed.notify();
    } else {
        on_data(std::move(frame));
    }
}

void Tunnel::on_registration(const Frame &frame) {
    if (frame.opcode != Opcode::text || !frame.fin) {
        protocol_error(cat("expected OPT1 as one text frame, got a ", opcode_name(frame.opcode), " frame"));
        return;
    }
    const Registration registration = check_registration(frame.payload, context_.tunnel_data);
    model_ = registration.model;
    emit(Kind::registration_received, {{"json", Bytes{frame.payload}}});
    faults_.set_model(model_);
    if (!reach(Stage::registration)) return;
    if (state_ != State::registering) return await_close("closed in place of an answer to OPT1");
    const bool good = report_check("OPT1", registration.problems);
    if (good) {
        emit(Kind::registration_checked,
             {{"device_model", Bytes{registration.device_model}}, {"serial", Bytes{registration.serial}}});
    }
    answer_registration(!good && !context_.behaviour.lenient);
}

void Tunnel::answer_registration(bool refused) {
    if (faults_.find(FaultKind::silence, Stage::registration)) {
        return emit(Kind::left_unanswered, {{"what", "OPT1"}});
    }
    if (faults_.find(FaultKind::hang_up, Stage::registration)) return answer_by_closing("OPT1");

    const RegistrationReply reply = registration_reply(faults_, refused);
    if (const auto *late = faults_.find(FaultKind::late, Stage::registration)) {
        late_timer_.expires_after(std::chrono::milliseconds(late->fault.values[0]));
        late_timer_.async_wait([self = shared_from_this(), reply](error_code cancelled) {
            if (!cancelled && self->state_ == State::registering) self->send_registration_reply(reply);
        });
        return;
    }
    send_registration_reply(reply);
}

void Tunnel::send_registration_reply(const RegistrationReply &reply) {
    if (reply.cut) {
        const std::string bytes = encode({.opcode = reply.opcode, .payload = reply.body}).substr(0, *reply.cut);
        outbox_.post(bytes);
        emit(Kind::registration_answered,
             {{"json", Bytes{reply.body}}, {"fault", cat("cut behind ", bytes.size(), " bytes")}});
        ending_ = "connection closed by the platform";
        return outbox_.close();
    }
    const auto *twice = faults_.find(FaultKind::twice, Stage::registration);
    for (long times = twice ? twice->fault.values[0] : 1; times > 0; times--) {
        post({.opcode = reply.opcode, .payload = reply.body});
    }
    if (reply.opcode == Opcode::text) {
        emit(Kind::registration_answered, {{"json", Bytes{reply.body}}});
    } else {
        const std::string fault = cat(opcode_name(reply.opcode), " frame");
        emit(Kind::registration_answered, {{"json", Bytes{reply.body}}, {"fault", fault}});
    }
    if (reply.accepted) {
        deadline_.cancel();
        become(State::open, "registration accepted");
        emit(Kind::registration_accepted);
    } else {
        emit(Kind::registration_refused);
        await_close("registration refused");
    }
}

void Tunnel::on_data(Frame frame) {
    if (state_ == State::closing) return;  // sent before the module saw our close
    if (frame.opcode == Opcode::continuation) {
        if (!assembly_) return protocol_error("continuation without a first fragment");
        assembly_->body += frame.payload;
        fragments_++;
    } else {
        if (assembly_) return protocol_error("new message inside a fragmented one");
        assembly_ = Message{frame.opcode, std::move(frame.payload)};
        fragments_ = 1;
    }
    if (!frame.fin) return;

    const Message &whole = *assembly_;
    const Field opcode("opcode", opcode_name(whole.opcode));
    const Field length("length", whole.body.size());
    const Field payload("payload", Bytes{whole.body});
    if (fragments_ > 1) {
        emit(Kind::message_received, {opcode, length, {"fragments", fragments_}, payload});
    } else {
        emit(Kind::message_received, {opcode, length, payload});
    }
    inbox.push_back(std::move(*assembly_));
    if (inbox.size() > kInboxMax) inbox.pop_front();
    assembly_.reset();
    context_.changed.notify();
}

void Tunnel::on_close(const Frame &frame) {
    if (close_received_) return;  // a second close is ignored
    close_received_ = decode_close(frame.payload);
    emit_close(Kind::close_received, *close_received_);
    if (!close_sent_) {
        close_sent_ = CloseBody{.status = close_received_->status, .reason = {}};
        post({.opcode = Opcode::close, .payload = encode_close(*close_sent_)});
        emit_close(Kind::close_sent, *close_sent_);
    }
    emit(Kind::close_done);
    await_close("close received");
}

void Tunnel::protocol_error(const std::string &why) {
    emit(Kind::protocol_error, {}, why);
    if (ending_.empty()) ending_ = cat("protocol error: ", why);
    if (!close_sent_) send_close({.status = common::close_status::kProtocolError, .reason = why});
    outbox_.close();
    finish_within(kFinishTime);
}

// What the platform sends.

Stage Tunnel::frame_stage() const { return state_ == State::registering ? Stage::registration : Stage::open; }

// encode is called once for each frame that is sent.
std::string Tunnel::encode(const Frame &frame) {
    emit_frame(Kind::frame_sent, frame);
    if (faults_.none()) return encode_frame(frame);
    FrameForm form;
    const auto find = [&](FaultKind kind) { return faults_.find(kind, frame_stage()); };
    if (find(FaultKind::masked)) {
        std::array<unsigned char, 4> key;
        if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) key = {0x12, 0x34, 0x56, 0x78};
        form.mask = key;
    }
    if (const auto *bits = find(FaultKind::reserved_bits)) form.reserved = static_cast<unsigned>(bits->fault.values[0]);
    if (const auto *length = find(FaultKind::length_form)) form.length_bits = length->fault.values[0] == 0 ? 16 : 64;
    const bool data = frame.opcode == Opcode::text || frame.opcode == Opcode::binary;
    if (const auto *opcode = data ? find(FaultKind::opcode) : nullptr) {
        form.opcode = static_cast<unsigned>(opcode->fault.values[0]);
    }
    return encode_frame(frame, form);
}

void Tunnel::post(const Frame &frame) {
    const bool data = frame.opcode == Opcode::text || frame.opcode == Opcode::binary;
    const auto *fragments = data ? faults_.find(FaultKind::fragments, frame_stage()) : nullptr;
    if (fragments) {
        post_fragments(frame, fragments->fault);
    } else {
        outbox_.post(encode(frame));
    }
    if (frame.opcode != Opcode::close) return;
    if (const auto *after = faults_.find(FaultKind::data_after_close, frame_stage())) {
        for (long i = 1; i <= after->fault.values[0]; i++) outbox_.post(encode({.payload = cat("after close ", i)}));
    }
}

// post_fragments sends a message in fragments of the fault's size, with its control frames between them.
void Tunnel::post_fragments(const Frame &frame, const Fault &fault) {
    const auto size = static_cast<std::size_t>(fault.values[0]);
    const std::string_view between = fault.word(1);
    std::size_t at = 0;
    do {
        if (at > 0 && between != "nothing") {
            outbox_.post(encode({.opcode = between == "ping" ? Opcode::ping : Opcode::pong, .payload = "between"}));
        }
        outbox_.post(encode({.fin = frame.fin && at + size >= frame.payload.size(),
                             .opcode = at == 0 ? frame.opcode : Opcode::continuation,
                             .payload = frame.payload.substr(at, size)}));
        at += size;
    } while (at < frame.payload.size());
}

// send_unasked sends the frames that faults want once in the stage.
void Tunnel::send_unasked() {
    if (reached_ != Stage::registration && reached_ != Stage::open) return;
    const auto first = [&](FaultKind kind) {
        const auto *active = faults_.find(kind, reached_);
        return active && sent_unasked_.insert(active->number).second ? &active->fault : nullptr;
    };
    if (const Fault *flood = first(FaultKind::ping_flood)) {
        std::string bytes;
        for (long i = 1; i <= flood->values[0]; i++) {
            bytes += encode({.opcode = Opcode::ping, .payload = std::to_string(i)});
        }
        outbox_.post(bytes);
    }
    if (const Fault *oversize = first(FaultKind::oversize)) {
        send_raw(announce_frame(static_cast<std::uint64_t>(oversize->values[0])));
    }
    if (const Fault *close = first(FaultKind::close_frame)) {
        const CloseBody body = {.status = static_cast<std::uint16_t>(close->values[0]), .reason = {}};
        const std::string_view how = close->word(1);
        close_sent_ = how == "full" ? body : CloseBody{};
        const std::string bytes = encode_close(body);
        post({.opcode = Opcode::close, .payload = how == "full" ? bytes : how == "half" ? bytes.substr(0, 1) : ""});
        emit_close(Kind::close_sent, *close_sent_);
        become(State::closing, "a fault");
    }
}

void Tunnel::send_message(Opcode opcode, const std::string &body) {
    const EventStream::Moment moment(context_.events);
    post({.opcode = opcode, .payload = body});
    emit(Kind::message_sent, {{"opcode", opcode_name(opcode)}, {"length", body.size()}, {"payload", Bytes{body}}});
}

void Tunnel::send_fragments(const std::string &body, std::size_t fragment_size) {
    std::size_t at = 0;
    int count = 0;
    do {
        const std::size_t size = std::min(fragment_size, body.size() - at);
        post({.fin = at + size == body.size(),
              .opcode = at == 0 ? Opcode::text : Opcode::continuation,
              .payload = body.substr(at, size)});
        at += size;
        count++;
    } while (at < body.size());
    emit(Kind::message_sent,
         {{"opcode", "text"}, {"length", body.size()}, {"fragments", count}, {"payload", Bytes{body}}});
}

void Tunnel::send_burst(const std::vector<std::string> &bodies) {
    std::string bytes;
    for (const std::string &body : bodies) bytes += encode({.payload = body});
    outbox_.post(bytes);
    emit(Kind::burst_sent, {{"count", bodies.size()}, {"length", bytes.size()}});
}

void Tunnel::send_ping(const std::string &body) {
    post({.opcode = Opcode::ping, .payload = body});
    emit(Kind::ping_sent, {{"payload", Bytes{body}}});
}

void Tunnel::send_close(const CloseBody &body) {
    close_sent_ = body;
    post({.opcode = Opcode::close, .payload = encode_close(body)});
    emit_close(Kind::close_sent, body);
    become(State::closing, "close sent");
}

void Tunnel::send_raw(const std::string &bytes) {
    outbox_.post(bytes);
    emit(Kind::raw_sent, {{"length", bytes.size()}, {"bytes", Bytes{bytes}}});
}

// reach is called when the module has done its part of the stage; false when a fault has ended the connection there.
bool Tunnel::reach(Stage stage) {
    reached_ = stage;
    check_faults();
    return ending_.empty();
}

void Tunnel::enter(Stage stage) {
    if (stage == stage_) return;
    stage_ = stage;
    stream_.set_stage(stage);
    check_faults();
}

void Tunnel::check_faults() {
    if (state_ == State::ended) return;
    stream_.poke();
    if (faults_.none()) return;
    send_unasked();
    const auto *rekey = reached_ < Stage::upgrade ? nullptr : faults_.find(FaultKind::rekey, reached_);
    if (rekey && rekeyed_.insert({rekey->number, reached_}).second) stream_.rekey();
    if (faults_.find(FaultKind::no_close_notify, reached_)) stream_.leave_out_close();
    if (faults_.find(FaultKind::half_close, reached_)) stream_.half_close();
    const auto *reset = faults_.find(FaultKind::reset_peer, reached_);
    const auto *silent = faults_.find(FaultKind::timeout, stage_);
    if (reset) {
        end_by(*reset, [this] { drop(); });
    } else if (silent && silent->fault.values[0] != 0) {
        end_by(*silent, [this] { close_now(); });
    }
}

// end_by ends the connection after the fault's time, if it is still on then.
void Tunnel::end_by(const FaultSet::Active &fault, std::function<void()> end) {
    if (fault_due_ == fault.number) return;
    fault_due_ = fault.number;
    const auto time = std::chrono::milliseconds(fault.fault.values[0]);
    if (time == 0ms) return end();
    fault_timer_.expires_after(time);
    fault_timer_.async_wait(
        [self = shared_from_this(), number = fault.number, end = std::move(end)](error_code cancelled) {
            const auto &active = self->context_.faults.active();
            const bool on = std::ranges::any_of(active, [&](const auto &one) { return one->number == number; });
            if (!cancelled && on && self->state_ != State::ended) end();
        });
}

void Tunnel::drop() {
    emit(Kind::dropped);
    ending_ = "connection reset by the platform";
    stream_.reset();
}

void Tunnel::close_now() {
    if (ending_.empty()) ending_ = "connection closed by the platform";
    outbox_.close();
    stream_.close();
}

// finish_within ends the tunnel after `time`, unless the module has ended it before.
void Tunnel::finish_within(Clock::duration time) {
    deadline_.expires_after(time);
    deadline_.async_wait([self = shared_from_this()](error_code cancelled) {
        if (cancelled || self->state_ == State::ended) return;
        if (self->state_ == State::connecting || self->state_ == State::registering) {
            self->emit(Kind::gave_up);
        }
        self->close_now();
    });
}

}  // namespace sim
