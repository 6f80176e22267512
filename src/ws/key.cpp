#include "ws/key.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <cstdlib>
#include <cstring>

#include "base/os.h"
#include "ws/frame_format.h"
#include "ws/object.h"

const char cloudmgr_ws_guid[37] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

namespace {

constexpr size_t kKeyBytes = 16;
constexpr size_t kProofSize = 64;  // key and GUID together, and a zero byte

struct BioFree {
    void operator()(BIO *chain) const { BIO_free_all(chain); }
};
using OwnedBio = std::unique_ptr<BIO, BioFree>;

// base64_over returns a base64 filter without line breaks on top of `memory`, which it owns; null without memory. The
// chain is the caller's to free.
BIO *base64_over(BIO *memory) {
    if (!memory) return nullptr;
    BIO *filter = BIO_new(BIO_f_base64());
    if (!filter) {
        BIO_free_all(memory);
        return nullptr;
    }
    BIO_set_flags(filter, BIO_FLAGS_BASE64_NO_NL);
    return BIO_push(filter, memory);
}

// stir adds a random number to `sum`. The generator is seeded with the sum so far and the microseconds of the clock.
// The arithmetic is that of signed numbers which wrap around, done unsigned.
uint32_t stir(uint32_t sum) {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    srand(sum + static_cast<uint32_t>(now.tv_usec));
    return sum + static_cast<uint32_t>(rand()) + 1;
}

// fill_random makes `count` bytes, each from two readings of the clock. Whoever knows the time can predict them. RFC
// 6455 asks for more (section 10.3), the platform does not.
void fill_random(uint8_t *to, size_t count) {
    for (size_t i = 0; i < count; i++) to[i] = static_cast<uint8_t>(static_cast<int32_t>(stir(stir(0))) % 255);
}

}  // namespace

char *cloudmgr_base64_encode(const void *data, int length) {
    if (length < 0 || (!data && length > 0)) return nullptr;
    const OwnedBio chain(base64_over(BIO_new(BIO_s_mem())));
    if (!chain) return nullptr;
    if (length > 0 && BIO_write(chain.get(), data, length) != length) return nullptr;
    if (BIO_ctrl(chain.get(), BIO_CTRL_FLUSH, 0, nullptr) < 1) return nullptr;
    BUF_MEM *encoded = nullptr;
    BIO_ctrl(chain.get(), BIO_C_GET_BUF_MEM_PTR, 0, &encoded);
    if (!encoded) return nullptr;
    return os_strndup(encoded->data ? encoded->data : "", encoded->length);
}

uint8_t *cloudmgr_base64_decode(const char *text, int size) {
    if (!text || size < 0) return nullptr;
    const auto bytes = static_cast<size_t>(size);
    Owned<uint8_t> decoded(static_cast<uint8_t *>(os_alloc(bytes)));
    if (!decoded) return nullptr;
    const OwnedBio chain(base64_over(BIO_new_mem_buf(text, static_cast<int>(strnlen(text, bytes)))));
    if (!chain) return nullptr;
    BIO_read(chain.get(), decoded.get(), size);
    return decoded.release();
}

uint8_t *CLOUDMGR_ws_getMask(void) {
    static uint8_t mask[kMaskSize];
    fill_random(mask, sizeof mask);
    return mask;
}

char *key_make() {
    uint8_t bytes[kKeyBytes];
    fill_random(bytes, sizeof bytes);
    return cloudmgr_base64_encode(bytes, sizeof bytes);
}

bool key_accepts(const char *key, const char *accept) {
    if (!key || !accept) return false;
    char proof[kProofSize];
    os_snprintf(proof, sizeof proof, "%s%s", key, cloudmgr_ws_guid);
    uint8_t digest[SHA_DIGEST_LENGTH];
    SHA_CTX sha = {};
    SHA1_Init(&sha);
    SHA1_Update(&sha, proof, os_strlen(proof));
    SHA1_Final(digest, &sha);
    const Owned<char> expected(cloudmgr_base64_encode(digest, sizeof digest));
    return expected && os_strcmp(expected.get(), accept) == 0;
}

char *CLOUDMGR_ws_CreateKey(cloudmgr_ws_owner *owner) {
    cloudmgr_ws_object *ws = ws_of(owner);
    if (!ws) return nullptr;
    os_free(ws->key);
    ws->key = key_make();
    return ws->key;
}

int CLOUDMGR_ws_checkKey(cloudmgr_ws_owner *owner) {
    const cloudmgr_ws_object *ws = ws_of(owner);
    return ws && key_accepts(ws->key, ws->accept) ? 0 : -1;
}
