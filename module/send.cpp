#include "send.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "evidence.h"
#include "process.h"
#include "tunnel.h"

namespace ctm {
namespace {

// Bytes in one write: a whole TLS record. A socket is writable when a third of its buffer is free. Of the 128 KB that
// libcloudtunnel asks for that is 43 KB, so such a write fits whole.
constexpr size_t kWriteMax = 16384;
constexpr int kWritesAtOnce = 32;  // before other tunnels get their turn

enum class Written {
    some,
    later,        // the socket has no room
    reads_first,  // TLS has to read before it can go on writing
    lost,         // nothing more can be written
};

// write_some writes from the frame that is under way. A write that the socket did not take is repeated later with the
// same bytes at the same address, as OpenSSL demands.
Written write_some(const ctm_tunnel *tunnel, size_t *count) {
    const size_t size = std::min(tunnel->outbox.wire_left(), kWriteMax);
    evidence_clear();
    const int written = CLOUDMGR_socket_sendData(tunnel->sock, tunnel->outbox.wire(), static_cast<int>(size), 1, 0);
    if (written > 0) {
        *count = static_cast<size_t>(written);
        return Written::some;
    }
    if (evidence_tls_write_reads_first()) return Written::reads_first;
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
        case Outbox::Done::nothing:
        case Outbox::Done::fragment:
        case Outbox::Done::dropped:
        case Outbox::Done::pong:
        case Outbox::Done::close:
            break;
    }
}

// lose marks the tunnel as broken. The next dispatch ends it, since the caller may be inside ctm_tunnel_send now.
void lose(ctm_tunnel *tunnel, int error) {
    tunnel->broken = true;
    tunnel->broken_error = error;
    process_wake();
}

bool has_room(const ctm_tunnel *tunnel) { return tunnel->outbox.has_room(tunnel->wanted, tunnel->options.queue); }

void watch(ctm_tunnel *tunnel, bool wanted) {
    if (tunnel->watched == wanted) return;
    tunnel->watched = process_watch(tunnel->sock, tunnel->row, wanted) && wanted;
    if (wanted && !tunnel->watched) lose(tunnel, errno);  // else what waits would never be sent
}

}  // namespace

void send_waiting(ctm_tunnel *tunnel) {
    if (tunnel->sock < 0 || tunnel->broken) return;
    tunnel->reads_first = false;
    for (int i = 0; i < kWritesAtOnce && tunnel->outbox.next(tunnel->options.fragment); i++) {
        if (process_poll(tunnel->sock, POLLOUT, 0) <= 0) break;
        size_t count = 0;
        const Written written = write_some(tunnel, &count);
        if (written == Written::lost) return lose(tunnel, errno);
        tunnel->reads_first = written == Written::reads_first;
        if (written != Written::some) break;
        if (tunnel->state == CTM_CLOSING) tunnel_wait_on(tunnel);
        count_sent(tunnel, tunnel->outbox.sent(count));
    }
    // While TLS has to read first, the socket is writable all the time; libcloudtunnel's descriptor reports the bytes.
    watch(tunnel, !tunnel->reads_first && tunnel->outbox.next(tunnel->options.fragment));
    if (tunnel->refused && has_room(tunnel)) process_wake();
}

void send_notify_writable(ctm_tunnel *tunnel) {
    if (!tunnel->refused || tunnel->state != CTM_OPEN || !has_room(tunnel)) return;
    tunnel->refused = false;
    notify(tunnel, tunnel->options.writable);
}

void send_end(ctm_tunnel *tunnel) {
    if (tunnel->watched) process_watch(tunnel->sock, tunnel->row, false);
    tunnel->watched = false;
    tunnel->refused = false;
    tunnel->outbox.clear();
}

}  // namespace ctm
