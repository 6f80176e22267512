// Why a set-up or a connection failed. libcloudtunnel tells its failure callback no reason; its log does, in messages
// that are interface and stay letter for letter. They are recognised by their format, so that no text of a peer can
// pass for one; known_messages.h lists them.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdarg>

#pragma GCC visibility push(hidden)
namespace ctm {

// A message's arguments, each at its place among all of them.
struct Arguments {
    union {
        int number;
        const char *text;
    } at[7];
};
Arguments arguments_of(const char *format, va_list args);

// evidence_clear forgets what was found: before a call of libcloudtunnel, and once it is used.
void evidence_clear();

// evidence_found returns the reason that the messages since then have given; its cause is CTM_CAUSE_NONE where there
// was none. The first one counts: what is logged behind it is its consequence.
const ctm_cause_info &evidence_found();

// evidence_take looks at one message of the log.
void evidence_take(const char *format, va_list args);

// What the last TLS write that failed was waiting for: it may be repeated as it was. False where it is lost.
bool evidence_tls_write_again();
bool evidence_tls_write_reads_first();

// evidence_response reads the platform's answer to the upgrade, as the log shows it.
void evidence_response(const char *text);

}  // namespace ctm
#pragma GCC visibility pop
