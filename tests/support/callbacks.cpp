#include "tests/support/callbacks.h"

#include <stdexcept>

#include "cloudtunnel.h"

namespace support {
namespace {

Callbacks *current = nullptr;

Callbacks &recorder() {
    if (!current) throw std::logic_error("a callback came when nobody records them");
    return *current;
}

std::string text_of(const char *text) { return text ? text : ""; }

std::string bytes_of(const uint8_t *bytes, int64_t count) {
    return bytes && count > 0 ? std::string(reinterpret_cast<const char *>(bytes), static_cast<size_t>(count)) : "";
}

int data_was(Callbacks &callbacks, int sock) {
    const int result = callbacks.data_result;
    if (const auto during = callbacks.during_data) during(sock);
    return result;
}

}  // namespace

Callbacks::Callbacks() {
    if (current) throw std::logic_error("two recorders of callbacks at once");
    current = this;
}

Callbacks::~Callbacks() { current = nullptr; }

void Callbacks::clear() {
    connected.clear();
    failures.clear();
    frames.clear();
    responses.clear();
}

int Callbacks::on_connected(int sock) {
    Callbacks &callbacks = recorder();
    callbacks.connected.push_back(sock);
    const int result = callbacks.connected_result;
    if (const auto during = callbacks.during_connected) during(sock);
    return result;
}

int Callbacks::on_failure(const char *model) {
    Callbacks &callbacks = recorder();
    const std::string name = model ? model : "(null)";
    callbacks.failures.push_back(name);
    if (const auto during = callbacks.during_failure) during(name);
    return 0;
}

int Callbacks::on_frame(int sock, void *message) {
    Callbacks &callbacks = recorder();
    const auto &frame = *static_cast<const cloudmgr_ws_msg *>(message);
    callbacks.frames.push_back(
        {sock, frame.opcode, frame.mask_set != 0, bytes_of(frame.body, frame.length), frame.length});
    return data_was(callbacks, sock);
}

int Callbacks::on_response(int sock, void *message) {
    Callbacks &callbacks = recorder();
    const auto &response = *static_cast<const cloudtunnel_http_resp *>(message);
    callbacks.responses.push_back({sock, response.status_index, response.status_code, text_of(response.status_text),
                                   text_of(response.ws_accept), text_of(response.location),
                                   text_of(response.set_cookie), response.content_length, response.chunked != 0,
                                   bytes_of(response.body, response.content_length)});
    return data_was(callbacks, sock);
}

}  // namespace support
