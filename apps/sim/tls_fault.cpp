#include "tls_fault.h"

#include "certificate.h"

namespace sim {

void prepare_session(SSL *session, ConnectionFaults &faults, const std::string &host) {
    if (const auto *version = faults.find(FaultKind::tls_version, Stage::tls)) {
        constexpr int kVersions[] = {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION};
        const int number = kVersions[version->fault.values[0]];
        SSL_set_security_level(session, 0);  // the old versions are below the usual one
        SSL_set_min_proto_version(session, number);
        SSL_set_max_proto_version(session, number);
    }
    if (const auto *other = faults.find(FaultKind::certificate, Stage::tls)) {
        use_faulty_certificate(session, host, other->fault.word(0), other->fault.values[1]);
    }
}

std::optional<std::string> handshake_reply(ConnectionFaults &faults) {
    if (const auto *alert = faults.find(FaultKind::tls_alert, Stage::tls)) {
        constexpr std::string_view kFatalAlert("\x15\x03\x03\x00\x02\x02", 6);
        return std::string(kFatalAlert) + static_cast<char>(alert->fault.values[0]);
    }
    if (const auto *garbage = faults.find(FaultKind::tls_garbage, Stage::tls)) {
        std::string out;
        for (long i = 0; i < garbage->fault.values[0]; i++) {
            out += static_cast<char>(0x80 | faults.random(*garbage, 127));
        }
        return out;
    }
    return std::nullopt;
}

}  // namespace sim
