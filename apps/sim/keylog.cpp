#include "keylog.h"

#include <stdexcept>

namespace sim {

// The place of the log in a context. Asio has the one that SSL_CTX_set_app_data would take.
static int context_slot() {
    static const int slot = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return slot;
}

KeyLog::KeyLog(SSL_CTX *context, const std::string &file) : file_(file, OutputFile::For::owner, OutputFile::At::end) {
    if (SSL_CTX_set_ex_data(context, context_slot(), this) != 1) throw std::runtime_error("cannot log TLS secrets");
    SSL_CTX_set_keylog_callback(context, write);
}

void KeyLog::write(const SSL *ssl, const char *line) {
    static_cast<KeyLog *>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), context_slot()))->file_.write_line(line);
}

}  // namespace sim
