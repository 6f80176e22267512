// Why a set-up or a connection failed. libcloudtunnel's failure callback gives no reason, but its log does, in messages
// whose formats never change. They are recognised by the format, so that no text of a peer can pass for one.
// known_messages.h lists them.
#pragma once

#include <cloudtunnel_module.h>

#include <cstdarg>

#pragma GCC visibility push(hidden)
namespace ctm {

// The arguments of a message: the first at 0, the next at 1 ... Each is an int or a text, as the format says.
struct Arguments {
    union {
        int number;
        const char *text;
    } at[7];
};
Arguments arguments_of(const char *format, va_list args);

// evidence_clear forgets what was found. It is called before a call of libcloudtunnel, and after the evidence is
// used.
void evidence_clear();

// evidence_found returns the reason in the messages since evidence_clear; its cause is CTM_CAUSE_NONE if there was
// none. The first reason counts, since later ones follow from it.
const ctm_cause_info &evidence_found();

// evidence_take looks at one message of the log.
void evidence_take(const char *format, va_list args);

// evidence_tls_write_again returns whether the last TLS write that failed may be repeated with the same bytes;
// evidence_tls_write_reads_first whether that is because TLS must read first.
bool evidence_tls_write_again();
bool evidence_tls_write_reads_first();

// evidence_response takes the platform's answer to the upgrade, as text from the log.
void evidence_response(const char *text);

}  // namespace ctm
#pragma GCC visibility pop
