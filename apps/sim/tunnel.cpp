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

std::string show(const CloseBody &body) {
    if (!body.status) return "no status";
    return cat("status ", *body.status, ", reason '", printable(body.reason), "'");
}

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
      id_(id) {}

void Tunnel::log(std::string_view what) const {
    context_.timeline.log(cat("tunnel ", id_),
                          model_.empty() ? std::string(what) : cat("[", printable(model_), "] ", what));
}

void Tunnel::become(State state) {
    if (state_ != State::ended) state_ = state;
    context_.changed.notify();
}

std::string Tunnel::describe() const {
    return cat("tunnel ", id_, ": model ", model_.empty() ? "unknown" : cat("'", printable(model_), "'"), ", ",
               state_name(state_));
}

// From the connection to its end.

awaitable<void> Tunnel::run() {
    const auto self = shared_from_this();
    try {
        log(cat("connected from ", stream_.peer()));
        finish_within(kSetUpTime);
        co_await open();
        co_await read_frames();
    } catch (const system_error &error) {
        if (!in_.empty() && state_ != State::connecting && !drain(Key::left_out)) {
            log(cat("left ", in_.size(), " bytes of an unfinished frame"));
        }
        if (ending_.empty()) ending_ = reason_of(error);
    }
    become(State::ended);
    log(cat("ended: ", ending_));
    deadline_.cancel();
    key_timer_.cancel();
    outbox_.close();
    stream_.close();
}

awaitable<void> Tunnel::open() {
    const std::string agreed = co_await stream_.handshake();
    log(cat("TLS: ", agreed));
    const std::string request = co_await read_request();
    co_spawn(
        context_.io,
        [self = shared_from_this()]() -> awaitable<void> {
            try {
                co_await self->outbox_.run([&](const std::string &bytes) { return self->stream_.write(bytes); });
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
            log(cat("upgrade request failed its check: no end within ", kRequestMax, " bytes"));
            throw system_error(asio::error::message_size);
        }
        in_ += co_await stream_.read();
    }
}

// report_check logs the result of a check and returns true when it found no problem.
bool Tunnel::report_check(std::string_view what, const std::vector<std::string> &problems) const {
    for (const std::string &problem : problems) log(cat(what, " failed its check: ", problem));
    return problems.empty();
}

// answer_by_closing ends the connection where the module waits for an answer.
void Tunnel::answer_by_closing(std::string_view what) {
    log(cat(what, " answered by closing the connection"));
    ending_ = "connection closed by the platform";
    outbox_.close();
}

// await_close gives the module time to close the connection.
void Tunnel::await_close() {
    become(State::closing);
    finish_within(kModuleCloseTime);
}

void Tunnel::answer_upgrade(const std::string &text) {
    const UpgradeRequest request = parse_upgrade(text);
    const Behaviour &behaviour = context_.behaviour;
    log(cat("upgrade request: ", printable(request.line), ", Host ", printable(request.header("Host"))));
    const bool good = report_check("upgrade request", check_upgrade(request, context_.tunnel_data));
    if (good) log("upgrade request checked: as expected");
    if (!good && !behaviour.lenient) return send_upgrade_answer(request, 400);

    switch (behaviour.upgrade) {
        case UpgradeAnswer::silence:
            return log("upgrade left without an answer");
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
    outbox_.post(upgrade_answer(status, accept));
    log(cat("upgrade answered: ", status_text(status), wrong ? ", with a wrong accept" : ""));
    if (status == 101) {
        become(State::registering);
    } else {
        await_close();
    }
}

awaitable<void> Tunnel::read_frames() {
    for (;;) {
        in_ += co_await stream_.read();
        key_timer_.cancel();
        if (state_ == State::connecting) {
            log(cat("received ", in_.size(), " bytes where nothing was expected"));
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
    if (frame.keyless) log(cat("read a ", opcode_name(frame.opcode), " frame that has the MASK bit and no key"));
    if (frame.opcode == Opcode::close) {
        on_close(frame);
    } else if (state_ == State::registering) {
        on_registration(frame);
    } else if (frame.opcode == Opcode::ping) {
        log(cat("received ping: '", printable(frame.payload), "'"));
        post({.opcode = Opcode::pong, .payload = frame.payload});
        log(cat("sent pong: '", printable(frame.payload), "'"));
    } else if (frame.opcode == Opcode::pong) {
        log(cat("received pong: '", printable(frame.payload), "'"));
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
    log(cat("OPT1 received: ", printable(frame.payload, 1000)));
    const bool good = report_check("OPT1", registration.problems);
    if (good) {
        log(cat("OPT1 checked: model '", printable(model_), "', device model '", printable(registration.device_model),
                "', serial number '", printable(registration.serial), "', token as handed out"));
    }
    Behaviour behaviour = context_.behaviour;
    if (!good && !behaviour.lenient) behaviour.ret_code = 1;
    answer_registration(behaviour);
}

void Tunnel::answer_registration(const Behaviour &behaviour) {
    if (behaviour.registration == RegistrationAnswer::silence) return log("OPT1 left without an answer");
    if (behaviour.registration == RegistrationAnswer::close) return answer_by_closing("OPT1");

    const bool binary = behaviour.registration == RegistrationAnswer::binary;
    const std::string answer = registration_answer(behaviour);
    post({.opcode = binary ? Opcode::binary : Opcode::text, .payload = answer});
    log(cat("OPT1 answered: ", answer, binary ? " as a binary frame" : ""));

    const bool accepted = behaviour.registration == RegistrationAnswer::text && behaviour.ret_code == 0 &&
                          (behaviour.opt_type & 0xff) == 1;  // the library compares 8 bits
    if (accepted) {
        deadline_.cancel();
        become(State::open);
        log("registration accepted: the tunnel is up");
    } else {
        log("registration refused");
        await_close();
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
    const char *kind = opcode_name(whole.opcode);
    if (fragments_ > 1) {
        log(cat("received fragmented ", kind, ": ", whole.body.size(), " bytes in ", fragments_, " fragments"));
    } else {
        log(cat("received ", kind, ": ", printable(whole.body)));
    }
    inbox.push_back(std::move(*assembly_));
    assembly_.reset();
    context_.changed.notify();
}

void Tunnel::on_close(const Frame &frame) {
    if (close_received_) return;  // a second close is ignored
    close_received_ = decode_close(frame.payload);
    log(cat("received close: ", show(*close_received_)));
    if (!close_sent_) {
        close_sent_ = CloseBody{.status = close_received_->status, .reason = {}};
        post({.opcode = Opcode::close, .payload = encode_close(*close_sent_)});
        log(cat("sent close: ", show(*close_sent_)));
    }
    log("close handshake done");
    await_close();
}

void Tunnel::protocol_error(const std::string &why) {
    log(cat("protocol error: ", why));
    if (ending_.empty()) ending_ = cat("protocol error: ", why);
    if (!close_sent_) send_close({.status = common::close_status::kProtocolError, .reason = why});
    outbox_.close();
    finish_within(kFinishTime);
}

// What the platform sends.

std::string Tunnel::encode(const Frame &frame) const {
    if (!context_.behaviour.mask) return encode_frame(frame);
    std::array<unsigned char, 4> key;
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) key = {0x12, 0x34, 0x56, 0x78};
    return encode_frame(frame, key);
}

void Tunnel::post(const Frame &frame) { outbox_.post(encode(frame)); }

void Tunnel::send_message(Opcode opcode, const std::string &body) {
    post({.opcode = opcode, .payload = body});
    log(cat("sent ", opcode_name(opcode), ": ", printable(body)));
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
    log(cat("sent fragmented text: ", body.size(), " bytes in ", count, " fragments"));
}

void Tunnel::send_burst(const std::vector<std::string> &bodies) {
    std::string bytes;
    for (const std::string &body : bodies) bytes += encode({.payload = body});
    outbox_.post(bytes);
    log(cat("sent burst: ", bodies.size(), " text frames in one write of ", bytes.size(), " bytes"));
}

void Tunnel::send_ping(const std::string &body) {
    post({.opcode = Opcode::ping, .payload = body});
    log(cat("sent ping: '", printable(body), "'"));
}

void Tunnel::send_close(const CloseBody &body) {
    close_sent_ = body;
    post({.opcode = Opcode::close, .payload = encode_close(body)});
    log(cat("sent close: ", show(body)));
    become(State::closing);
}

void Tunnel::send_raw(const std::string &bytes) {
    outbox_.post(bytes);
    log(cat("sent raw: ", bytes.size(), " bytes"));
}

void Tunnel::drop() {
    log("dropping: TCP reset");
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
            self->log("still not registered: giving up");
        }
        self->close_now();
    });
}

}  // namespace sim
