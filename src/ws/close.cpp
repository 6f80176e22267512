// The close handshake (RFC 6455, section 7). The library answers no close by itself: the modules call these functions.
#include <cstring>

#include "base/log.h"
#include "base/os.h"
#include "ws/frame_format.h"
#include "ws/message.h"

const char closedstr[114] =
    "A WebSocket text frame was received that could not be decoded to UTF-8 beause it contained invalid byte "
    "sequences";

namespace {

constexpr size_t kStatusSize = 2;
constexpr size_t kCloseBodyMax = 4096;
constexpr int32_t kReasonMax = kCloseBodyMax - kStatusSize;
constexpr int kSendAttempts = 100;
constexpr uint64_t kCloseDelayMs = 1000;

// close_make returns a close message without a mask key, null when memory is short.
OwnedMsg close_make(uint16_t status, const void *reason, size_t reason_length) {
    OwnedMsg msg(CLOUDMGR_ws_msg_create());
    if (!msg) return nullptr;
    const size_t length = kStatusSize + reason_length;
    auto *body = static_cast<uint8_t *>(os_alloc(length + 1));  // a zero byte behind it, as a received body has
    if (!body) return nullptr;
    body[0] = static_cast<uint8_t>(status >> 8);
    body[1] = static_cast<uint8_t>(status & 0xff);
    if (reason_length) memcpy(body + kStatusSize, reason, reason_length);
    msg->body = body;
    msg->length = static_cast<int64_t>(length);
    msg->opcode = kOpcodeClose;
    return msg;
}

// status_of returns the status of a received close, -1 when it has no valid one.
int status_of(const cloudmgr_ws_msg *msg) {
    if (!msg->body || msg->length < static_cast<int64_t>(kStatusSize)) return -1;
    const int status = msg->body[0] << 8 | msg->body[1];
    return status == 0 || (status >= 1000 && status <= 1011) || status == 1015 ? status : -1;
}

// answer sends a received close back and arms the timer that ends the connection. False when the connection is to be
// ended at once.
bool answer(int sock, const char *model, const cloudmgr_ws_msg *msg, cloudtunnel_timer_fn *close_handler) {
    const int status = status_of(msg);
    if (status < 0) return false;
    const Owned<char> reason(os_strndup(reinterpret_cast<const char *>(msg->body) + kStatusSize,
                                        static_cast<size_t>(msg->length) - kStatusSize));
    if (!reason) return false;
    LOG(connect, "[Model %s] rcv close msg, status %d, reason [%s].", model, status, reason.get());
    Owned<int> block(static_cast<int *>(os_alloc(sizeof sock)));
    if (!block) return false;
    *block = sock;
    CLOUDMGR_ws_CloseSend(sock, static_cast<uint16_t>(status), reason.get(),
                          static_cast<int32_t>(os_strlen(reason.get())));
    const int id = cloudtunnel_timer_add(0, 0, kCloseDelayMs, block.release(), close_handler);
    if (id <= 0) return false;
    CLOUDMGR_socket_setDelTimerBySock(sock, static_cast<uint32_t>(id));
    return true;
}

}  // namespace

int CLOUDMGR_ws_CloseSend(int sock, uint16_t status, const void *reason, int32_t reason_length) {
    if (reason_length < 0 || reason_length > kReasonMax || (!reason && reason_length > 0)) return -1;
    const OwnedMsg msg = close_make(status, reason, static_cast<size_t>(reason_length));
    if (!msg) return -1;
    CLOUDMGR_ws_setmask(msg.get(), CLOUDMGR_ws_getMask());
    CLOUDMGR_ws_send(sock, msg.get(), kSendAttempts);
    LOG(connect, "[Socket %d]send close frame.", sock);
    return 0;
}

void CLOUDMGR_ws_closed(int sock, uint16_t status) {
    // No mask key is set: the payload is not masked although the header says so. The platform expects it.
    const OwnedMsg msg = close_make(status, closedstr, sizeof closedstr - 1);
    if (!msg) return;
    LOG(package, "Send websocket close msg.");
    CLOUDMGR_ws_send(sock, msg.get(), kSendAttempts);
}

void CLOUDMGR_ws_CloseRcv(int sock, const cloudmgr_ws_msg *msg, cloudtunnel_timer_fn *close_handler) {
    const char *model = CLOUDMGR_socket_getModelNameBySock(sock);
    if (!model || !msg || !close_handler || CLOUDMGR_socket_getDelTimerBySock(sock) != 0) return;
    if (answer(sock, model, msg, close_handler)) return;
    LOG(connect, "[Model %s]Close socket %d.", model, sock);
    int number = sock;
    close_handler(0, &number);
}
