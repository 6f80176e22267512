// The secrets of the TLS sessions, in the NSS key log format that packet analysers read.
#pragma once

#include <string>

#include <openssl/ssl.h>

#include "output_file.h"

namespace sim {

class KeyLog {
  public:
    // Appends to `file`, which only its owner may read, from now on. It must outlive the sessions of `context`. Throws
    // std::runtime_error when the file cannot be opened.
    KeyLog(SSL_CTX *context, const std::string &file);

    // good is false once something could not be written.
    [[nodiscard]] bool good() const { return file_.good(); }

  private:
    static void write(const SSL *ssl, const char *line);

    OutputFile file_;
};

}  // namespace sim
