#include "tunnel.h"

#include <algorithm>

#include <openssl/rand.h>

#include "registration.h"
#include "text.h"
#include "upgrade.h"

namespace sim {
namespace {

using namespace std::chrono_literals;

constexpr auto kSetUpTime = 60s;       // longer than any time-out of the library, so that those come first
constexpr auto kKeyTime = 500ms;       // a mask key that has not arrived by then was left out
constexpr auto kModuleCloseTime = 3s;  // the library's close handler runs a second after the echo
constexpr auto kFinishTime = 1s;       // for the peer's TLS close alert
constexpr std::size_t kRequestMax = 65535;

std::string reason_of(const system_error &error) {
    const error_code code = error.code();
    if (code == asio::error::eof) return "connection closed by the module";
    if (code == asio::ssl::error::stream_truncated) return "connection closed by the module, without a TLS close";
    if (code == asio::error::connection_reset) return "connection reset by the module";
    if (code == asio::error::operation_aborted) return "connection closed by the platform";
    return cat("connection failed: ", code.message());
}

}  // namespace

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

Tunnel::Tunnel(const Context &context, Stream stream, int id)
    : context_(context),
      stream_(std::move(stream)),
      outbox_(context.io, context.changed),
      deadline_(context.io),
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
    key_timer_.cancel();
    outbox_.close();
    stream_.close();
}

awaitable<void> Tunnel::open() {
    const TlsSession session = co_await stream_.handshake();
    if (session.cipher.empty()) {
        emit(Kind::tls_established, {{"version", session.version}});
    } else {
        emit(Kind::tls_established, {{"version", session.version},
                                     {"cipher", session.cipher},
                                     {"server_name", Bytes{session.server_name}},
                                     {"resumed", session.resumed}});
    }
    const std::string request = co_await read_request();
    co_spawn(
        context_.io,
        [self = shared_from_this()]() -> awaitable<void> {
            try {
                co_await self->outbox_.run([&](const std::string &bytes) {
                    self->emit(Kind::bytes_sent, {{"bytes", Bytes{bytes}}});
                    return self->stream_.write(bytes);
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
        co_await read_more();
    }
}

awaitable<void> Tunnel::read_more() {
    const std::string bytes = co_await stream_.read();
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
    const Behaviour &behaviour = context_.behaviour;
    emit(Kind::upgrade_received,
         {{"line", Bytes{request.line}}, {"host", Bytes{request.header("Host")}}, {"request", Bytes{text}}});
    const bool good = report_check("upgrade request", check_upgrade(request, context_.tunnel_data));
    if (good) emit(Kind::upgrade_checked);
    if (!good && !behaviour.lenient) return send_upgrade_answer(request, 400);

    switch (behaviour.upgrade) {
        case UpgradeAnswer::silence:
            return emit(Kind::left_unanswered, {{"what", "upgrade"}});
        case UpgradeAnswer::close:
            return answer_by_closing("upgrade");
        case UpgradeAnswer::accept:
        case UpgradeAnswer::wrong_accept:
            return send_upgrade_answer(request, behaviour.answer_status);
    }
}

void Tunnel::send_upgrade_answer(const UpgradeRequest &request, int status) {
    const bool wrong = context_.behaviour.upgrade == UpgradeAnswer::wrong_accept;
    const std::string accept = accept_for(cat(wrong ? "wrong" : "", request.header("Sec-WebSocket-Key")));
    const std::string answer = upgrade_answer(status, accept);
    outbox_.post(answer);
    const std::string words = status_text(status);
    if (wrong) {
        emit(Kind::upgrade_answered,
             {{"status", status}, {"answer", words}, {"response", Bytes{answer}}, {"fault", "wrong accept"}});
    } else {
        emit(Kind::upgrade_answered, {{"status", status}, {"answer", words}, {"response", Bytes{answer}}});
    }
    const std::string cause = cat("upgrade answered: ", words);
    if (status == 101) {
        become(State::registering, cause);
    } else {
        await_close(cause);
    }
}

awaitable<void> Tunnel::read_frames() {
    for (;;) {
        co_await read_more();
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
    const bool good = report_check("OPT1", registration.problems);
    if (good) {
        emit(Kind::registration_checked,
             {{"device_model", Bytes{registration.device_model}}, {"serial", Bytes{registration.serial}}});
    }
    Behaviour behaviour = context_.behaviour;
    if (!good && !behaviour.lenient) behaviour.ret_code = 1;
    answer_registration(behaviour);
}

void Tunnel::answer_registration(const Behaviour &behaviour) {
    if (behaviour.registration == RegistrationAnswer::silence) {
        return emit(Kind::left_unanswered, {{"what", "OPT1"}});
    }
    if (behaviour.registration == RegistrationAnswer::close) return answer_by_closing("OPT1");

    const bool binary = behaviour.registration == RegistrationAnswer::binary;
    const std::string answer = registration_answer(behaviour);
    post({.opcode = binary ? Opcode::binary : Opcode::text, .payload = answer});
    if (binary) {
        emit(Kind::registration_answered, {{"json", Bytes{answer}}, {"fault", "binary frame"}});
    } else {
        emit(Kind::registration_answered, {{"json", Bytes{answer}}});
    }

    const bool accepted = behaviour.registration == RegistrationAnswer::text && behaviour.ret_code == 0 &&
                          (behaviour.opt_type & 0xff) == 1;  // the library compares 8 bits
    if (accepted) {
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

// encode is called once for each frame that is sent.
std::string Tunnel::encode(const Frame &frame) const {
    emit_frame(Kind::frame_sent, frame);
    if (!context_.behaviour.mask) return encode_frame(frame);
    std::array<unsigned char, 4> key;
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) key = {0x12, 0x34, 0x56, 0x78};
    return encode_frame(frame, key);
}

void Tunnel::post(const Frame &frame) { outbox_.post(encode(frame)); }

void Tunnel::send_message(Opcode opcode, const std::string &body) {
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
