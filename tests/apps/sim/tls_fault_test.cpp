// The faults of the TLS session, met by OpenSSL's client.
#include <openssl/err.h>
#include <openssl/x509.h>

#include "tests/apps/sim/plain_sim.h"

using namespace std::chrono_literals;
using simtest::library_frame;
using simtest::open_tunnel;
using simtest::read_frame;
using simtest::SimProcess;
using simtest::Wire;

namespace {

// What OpenSSL says of a handshake with the fault; empty when it is done.
std::string refusal(const std::string &fault, int version = 0) {
    SimProcess sim({"--fault", fault});
    Wire wire;
    EXPECT_TRUE(wire.connect_tcp(sim.port()));
    ERR_clear_error();
    if (wire.start_tls(version)) return "";
    return ERR_reason_error_string(ERR_peek_last_error()) ? ERR_reason_error_string(ERR_peek_last_error()) : "unknown";
}

// The certificate that a session with the fault gets, and how many came with it.
struct Shown {
    explicit Shown(const std::string &fault) : sim({"--fault", fault, "--host", "platform.example"}) {
        EXPECT_TRUE(wire.connect_tcp(sim.port()) && wire.start_tls(0)) << fault;
        if (!wire.session()) return;
        certificate = SSL_get0_peer_certificate(wire.session());
        count = sk_X509_num(SSL_get_peer_cert_chain(wire.session()));
    }
    std::string name(X509_NAME *of) const {
        char text[65] = "";
        X509_NAME_get_text_by_NID(of, NID_commonName, text, sizeof text);
        return text;
    }
    SimProcess sim;
    Wire wire;
    X509 *certificate = nullptr;
    int count = 0;
};

}  // namespace

TEST(sim_tls_fault, only_the_version_of_the_fault_is_spoken) {
    EXPECT_NE(refusal("tls_version 1.0"), "");
    EXPECT_NE(refusal("tls_version 1.1"), "");
    EXPECT_EQ(refusal("tls_version 1.2"), "");
    EXPECT_EQ(refusal("tls_version 1.3"), "");
    EXPECT_NE(refusal("tls_version 1.3", TLS1_2_VERSION), "");
}

TEST(sim_tls_fault, the_handshake_is_answered_with_an_alert_or_with_garbage) {
    EXPECT_EQ(refusal("tls_alert"), "sslv3 alert handshake failure");
    EXPECT_EQ(refusal("tls_alert 80"), "tlsv1 alert internal error");
    EXPECT_NE(refusal("tls_garbage"), "");
}

TEST(sim_tls_fault, certificates_are_expired_of_another_name_or_of_an_unknown_issuer) {
    const Shown right("latency 1ms");
    EXPECT_EQ(right.name(X509_get_subject_name(right.certificate)), "platform.example");
    EXPECT_GT(X509_cmp_current_time(X509_get0_notAfter(right.certificate)), 0);

    const Shown expired("certificate expired");
    EXPECT_LT(X509_cmp_current_time(X509_get0_notAfter(expired.certificate)), 0);

    const Shown other("certificate other-name");
    EXPECT_EQ(other.name(X509_get_subject_name(other.certificate)), "other.example");

    const Shown unknown("certificate unknown-issuer");
    EXPECT_EQ(unknown.name(X509_get_subject_name(unknown.certificate)), "platform.example");
    EXPECT_EQ(unknown.name(X509_get_issuer_name(unknown.certificate)), "issuer 1");
    EXPECT_EQ(unknown.count, 1);
}

TEST(sim_tls_fault, a_chain_is_as_long_as_the_fault_wants_it) {
    const Shown chain("certificate chain issuers 20");
    EXPECT_EQ(chain.count, 21);
}

TEST(sim_tls_fault, a_session_of_tls_1_3_updates_its_keys_and_goes_on) {
    SimProcess sim({"--fault", "rekey at=open", "--do", "wait-tunnel", "--do", "requests 3"});
    Wire wire;
    ASSERT_TRUE(open_tunnel(wire, sim.port(), "base", TLS1_3_VERSION));
    for (int i = 0; i < 3; i++) {
        const auto request = read_frame(wire);
        ASSERT_TRUE(request.has_value());
        ASSERT_TRUE(wire.write(library_frame(1, "answer: " + request->payload)));
    }
    EXPECT_EQ(sim.finish(), 0) << sim.errors();
    EXPECT_NE(sim.output().find("fault applied: rekey at=open"), std::string::npos);
}

// OpenSSL refuses data that cross the renegotiation, so the module only reads.
TEST(sim_tls_fault, a_session_of_tls_1_2_is_renegotiated) {
    SimProcess sim({"--fault", "rekey at=open", "--any-answer"});
    Wire wire;
    ASSERT_TRUE(open_tunnel(wire, sim.port(), "base", TLS1_2_VERSION));
    sim.type("request first");
    EXPECT_EQ(read_frame(wire)->payload, "first");
    EXPECT_EQ(SSL_num_renegotiations(wire.session()), 1);
}

TEST(sim_tls_fault, the_end_comes_with_a_close_alert_or_without) {
    for (const bool left_out : {false, true}) {
        SimProcess sim({"--fault", left_out ? "no_close_notify" : "latency 1ms", "--upgrade", "close"});
        Wire wire;
        ASSERT_TRUE(wire.connect_tcp(sim.port()) && wire.start_tls(0) && wire.write(simtest::upgrade_request()));
        EXPECT_EQ(wire.read_once(1), "");
        EXPECT_EQ((SSL_get_shutdown(wire.session()) & SSL_RECEIVED_SHUTDOWN) == 0, left_out);
    }
}
