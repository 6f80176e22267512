// The ws message: one frame's opcode, mask key and payload.
#include <cstring>

#include "base/os.h"
#include "ws/frame_format.h"

#include <cloudtunnel.h>

static_assert(offsetof(cloudmgr_ws_msg, mask_set) == 4 && offsetof(cloudmgr_ws_msg, opcode) == 5 &&
              offsetof(cloudmgr_ws_msg, body) == 8 && offsetof(cloudmgr_ws_msg, length) == 16 &&
              sizeof(cloudmgr_ws_msg) == 24);

cloudmgr_ws_msg *CLOUDMGR_ws_msg_create(void) {
    auto *msg = static_cast<cloudmgr_ws_msg *>(os_alloc_bytes(sizeof(cloudmgr_ws_msg)));
    if (msg) *msg = {};
    return msg;
}

void CLOUDMGR_ws_msg_destory(cloudmgr_ws_msg *msg) {
    if (!msg) return;
    os_free(msg->body);
    os_free(msg);
}

void CLOUDMGR_ws_setoptcode(cloudmgr_ws_msg *msg, uint8_t opcode) {
    if (msg) msg->opcode = opcode;
}

uint8_t CLOUDMGR_ws_getoptcode(const cloudmgr_ws_msg *msg) { return msg ? msg->opcode : 0; }

void CLOUDMGR_ws_setmask(cloudmgr_ws_msg *msg, const uint8_t *key) {
    if (!msg) return;
    if (key)
        memcpy(msg->mask, key, sizeof msg->mask);
    else
        memset(msg->mask, 0, sizeof msg->mask);
    msg->mask_set = key ? 1 : 0;
}

int CLOUDMGR_ws_setbody(cloudmgr_ws_msg *msg, const void *data, int64_t size) {
    if (!msg || !data || size < 0 || size > kPayloadMax) return -1;
    // A zero byte behind it, as a received body has.
    uint8_t *body = os_memcat(data, static_cast<size_t>(size), "", 1);
    if (!body) return -1;
    os_free(msg->body);
    msg->body = body;
    msg->length = size;
    return 0;
}

void cloudmgr_ws_maskData(uint8_t *to, const uint8_t *from, size_t len, const uint8_t (&key)[kMaskSize]) {
    uint32_t word = 0;
    memcpy(&word, key, sizeof word);
    using Block = uint32_t __attribute__((vector_size(16)));
    const Block keys = word - Block{};  // the key four times: a block is masked at once, on any alignment
    const size_t blocks = len - len % sizeof keys;
    for (size_t i = 0; i < blocks; i += sizeof keys) {
        Block block;
        memcpy(&block, from + i, sizeof block);
        block ^= keys;
        memcpy(to + i, &block, sizeof block);
    }
    for (size_t i = blocks; i < len; i++) to[i] = static_cast<uint8_t>(from[i] ^ key[i % kMaskSize]);
}
