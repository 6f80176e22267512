// Base64 and the handshake's proof: bytes encode as RFC 4648 says and come back; a text of any bytes and any size is
// decoded within that size; a proof is accepted exactly when it is the one of RFC 6455, section 4.2.2.
#include <algorithm>
#include <memory>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include "tests/fuzz/fuzz.h"
#include "ws/key.h"

namespace {

struct Free {
    void operator()(void *block) const { free(block); }
};
template <class T>
using Block = std::unique_ptr<T, Free>;

// A copy in a block of its own size: what is read beyond it is seen.
Block<char> exact(std::string_view bytes) {
    Block<char> copy(static_cast<char *>(malloc(bytes.empty() ? 1 : bytes.size())));
    bytes.copy(copy.get(), bytes.size());
    return copy;
}

std::string base64(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                        reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

// The buffer that the proof is computed from holds 63 characters.
std::string proof(const std::string &key) {
    const std::string text = (key + cloudmgr_ws_guid).substr(0, 63);
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    return base64({reinterpret_cast<const char *>(digest), sizeof digest});
}

void check_round(std::string_view bytes) {
    const Block<char> input = exact(bytes);
    const Block<char> text(cloudmgr_base64_encode(input.get(), static_cast<int>(bytes.size())));
    FUZZ_CHECK(text && text.get() == base64(bytes));
    const auto size = static_cast<int>(std::string_view(text.get()).size()) + 1;
    const Block<uint8_t> back(cloudmgr_base64_decode(text.get(), size));
    const std::string decoded = fuzz::bytes_of(back.get(), size);
    FUZZ_CHECK(decoded.substr(0, bytes.size()) == bytes);
    FUZZ_CHECK(decoded.find_first_not_of('\0', bytes.size()) == std::string::npos);
}

void check_decoding(std::string_view text) {
    const Block<char> input = exact(text);
    const auto size = static_cast<int>(text.size());
    const Block<uint8_t> decoded(cloudmgr_base64_decode(input.get(), size));
    FUZZ_CHECK(decoded);
    const size_t most = (text.size() + 3) / 4 * 3;  // four characters make three bytes
    FUZZ_CHECK(fuzz::bytes_of(decoded.get(), size).find_first_not_of('\0', most) == std::string::npos);
}

void check_proof(const std::string &key, const std::string &claimed) {
    const std::string right = proof(key);
    FUZZ_CHECK(key_accepts(key.c_str(), right.c_str()));
    for (size_t at = 0; at <= right.size(); ++at) {
        std::string wrong = right.substr(0, at);
        if (at < right.size()) FUZZ_CHECK(!key_accepts(key.c_str(), wrong.c_str()));
        wrong += 'a';
        wrong += right.substr(std::min(at + 1, right.size()));
        FUZZ_CHECK(key_accepts(key.c_str(), wrong.c_str()) == (wrong == right));
    }
    FUZZ_CHECK(key_accepts(key.c_str(), claimed.c_str()) == (claimed == right));
    cloudmgr_ws_owner owner = {};
    owner.ws = CLOUDMGR_ws_create();
    CLOUDMGR_ws_SetPara(&owner, 2, key.c_str(), 0);
    KYRCLOUD_ws_SetAccept(&owner, claimed.c_str());
    FUZZ_CHECK((CLOUDMGR_ws_checkKey(&owner) == 0) == (claimed == right));
    FUZZ_CHECK(std::string(CLOUDMGR_ws_CreateKey(&owner)).size() == 24);
    CLOUDMGR_ws_destory(owner.ws);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Run run;
    fuzz::Input in(data, size);
    run.clock.set_time_of_day(0, static_cast<int64_t>(in.number(3) % 1000000));
    const std::string_view key = in.take(in.byte());
    const std::string_view bytes = in.rest();
    check_round(bytes);
    check_decoding(bytes);
    check_proof(std::string(key.substr(0, key.find('\0'))), std::string(bytes.substr(0, bytes.find('\0'))));
    return 0;
}
