#include "line.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "evidence.h"
#include "process.h"
#include "tunnel.h"

namespace ctm {
namespace {

// Bytes in one write: a whole TLS record. A socket is writable when a third of its buffer is free, 43 KB of the 128
// that libcloudtunnel asks for, so that such a write fits whole.
constexpr size_t kWriteMax = 16384;
constexpr int kWritesAtOnce = 32;  // before other tunnels get their turn

bool writable(int sock) {
    struct pollfd look = {.fd = sock, .events = POLLOUT, .revents = 0};
    return poll(&look, 1, 0) > 0;
}

enum class Written { some, later, lost };

// write_some writes from the frame that is under way. A write that the line did not take is repeated later as it was:
// the same bytes at the same place, as OpenSSL wants it.
Written write_some(const ctm_tunnel *tunnel, size_t *count) {
    const size_t size = std::min(tunnel->outbox.wire_left(), kWriteMax);
    evidence_clear();
    const int written = CLOUDMGR_socket_sendData(tunnel->sock, tunnel->outbox.wire(), static_cast<int>(size), 1, 0);
    if (written > 0) {
        *count = static_cast<size_t>(written);
        return Written::some;
    }
    return written == -2 || evidence_tls_write_again() ? Written::later : Written::lost;
}

void count_sent(ctm_tunnel *tunnel, const Outbox::Sent &sent) {
    switch (sent.done) {
        case Outbox::Done::message:
            tunnel->counters.messages_out++;
            tunnel->counters.bytes_out += sent.message_length;
            break;
        case Outbox::Done::ping:
            tunnel->counters.pings++;
            if (tunnel->ping_sent_us == 0) tunnel->ping_sent_us = now_us();
            break;
        case Outbox::Done::close:
            tunnel->due_us = tunnel->peer_closed ? tunnel->due_us : after(now_us(), tunnel->options.close_ms);
            break;
        case Outbox::Done::nothing:
        case Outbox::Done::fragment:
        case Outbox::Done::dropped:
        case Outbox::Done::pong:
            break;
    }
}

// lose leaves the end to the next dispatch: the caller may be in the middle of a send.
void lose(ctm_tunnel *tunnel, int error) {
    tunnel->broken = true;
    tunnel->broken_error = error;
    process_wake();
}

bool has_room(const ctm_tunnel *tunnel) { return tunnel->outbox.has_room(tunnel->wanted, tunnel->options.queue); }

void watch(ctm_tunnel *tunnel, bool wanted) {
    if (tunnel->watched == wanted) return;
    tunnel->watched = process_watch(tunnel->sock, registry_index(tunnel->row), wanted) && wanted;
    if (wanted && !tunnel->watched) lose(tunnel, errno);  // nobody would say when to send on
}

}  // namespace

void line_pump(ctm_tunnel *tunnel) {
    if (tunnel->sock < 0 || tunnel->broken) return;
    bool waits = false;
    for (int i = 0; i < kWritesAtOnce && !waits && tunnel->outbox.next(tunnel->options.fragment); i++) {
        if (!writable(tunnel->sock)) break;
        size_t count = 0;
        const Written written = write_some(tunnel, &count);
        if (written == Written::lost) return lose(tunnel, errno);
        waits = written == Written::later;
        if (waits) break;
        // As long as the line moves, a close that waits behind the queue waits on.
        if (tunnel->state == CTM_CLOSING && !tunnel->peer_closed)
            tunnel->due_us = after(now_us(), tunnel->options.close_ms);
        count_sent(tunnel, tunnel->outbox.sent(count));
    }
    watch(tunnel, tunnel->outbox.next(tunnel->options.fragment));
    if (tunnel->refused && has_room(tunnel)) process_wake();
}

void line_writable(ctm_tunnel *tunnel) {
    if (!tunnel->refused || tunnel->state != CTM_OPEN || !has_room(tunnel)) return;
    tunnel->refused = false;
    notify(tunnel, tunnel->options.writable);
}

void line_end(ctm_tunnel *tunnel) {
    if (tunnel->watched) process_watch(tunnel->sock, registry_index(tunnel->row), false);
    tunnel->watched = false;
    tunnel->refused = false;
    tunnel->outbox.clear();
}

}  // namespace ctm
