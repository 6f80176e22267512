#include "upgrade_fault.h"

#include <algorithm>
#include <cctype>

#include "frame.h"
#include "text.h"

namespace sim {
namespace {

using Next = UpgradeReply::Next;
using Header = std::pair<std::string, std::string>;

constexpr std::size_t kFillerMax = 1000;  // bytes of one header of a large answer
constexpr std::size_t kFillerMin = 16;
constexpr std::size_t kChunkSize = 4096;
constexpr std::string_view kAccepted = R"({"optType":1,"retCode":0})";

std::string status_line(long status) { return cat("HTTP/1.1 ", status_text(static_cast<int>(status)), "\r\n"); }

std::string lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string in_chunks(const std::string &body) {
    std::string out;
    for (std::size_t at = 0; at < body.size(); at += kChunkSize) {
        const std::string chunk = body.substr(at, kChunkSize);
        out += cat(std::hex, chunk.size(), "\r\n", chunk, "\r\n");
    }
    return out + "0\r\n\r\n";
}

UpgradeReply answer_of(long status, std::string_view rest, Next next) {
    return {.bytes = cat(status_line(status), rest),
            .status = static_cast<int>(status),
            .words = status_text(static_cast<int>(status)),
            .next = next};
}

UpgradeReply with_status(const Fault &fault) {
    const long status = fault.values[0];
    const std::string body(static_cast<std::size_t>(fault.values[1]), 'b');
    if (fault.word(2) == "chunks") {
        return answer_of(status, cat("Transfer-Encoding: chunked\r\n\r\n", in_chunks(body)), Next::module_closes);
    }
    if (fault.word(2) == "close") return answer_of(status, cat("Connection: close\r\n\r\n", body), Next::closes);
    return answer_of(status, cat("Connection: close\r\nContent-Length: ", body.size(), "\r\n\r\n", body),
                     Next::module_closes);
}

UpgradeReply refusal(long status, const Header &header) {
    return answer_of(status, cat(header.first, ": ", header.second, "\r\nContent-Length: 0\r\n\r\n"),
                     Next::module_closes);
}

UpgradeReply no_http(ConnectionFaults &faults, const FaultSet::Active &active) {
    const std::string_view what = active.fault.word(0);
    UpgradeReply out{.words = cat("no HTTP, ", what), .next = Next::module_closes};
    if (what == "ssh") {
        out.bytes = "SSH-2.0-OpenSSH_9.2\r\n\r\n";
    } else if (what == "no-status") {
        out.bytes = "Server: here\r\n\r\n";
    } else {
        for (int i = 0; i < 64; i++) out.bytes += static_cast<char>(0x80 | faults.random(active, 127));
        out.next = Next::module_waits;  // no line ends in it
    }
    return out;
}

std::vector<Header> right_headers(const std::string &key) {
    return {{"Upgrade", "websocket"}, {"Connection", "Upgrade"}, {"Sec-WebSocket-Accept", accept_for(key)}};
}

std::string written(const Header &header) { return cat(header.first, ": ", header.second, "\r\n"); }

// spoilt writes a header as the fault wants it; `wrong` is its value when it is wrong.
std::string spoilt(const Header &header, std::string_view how, const std::string &wrong) {
    if (how == "missing") return "";
    if (how == "wrong") return written({header.first, wrong});
    if (how == "doubled") return written({header.first, wrong}) + written(header);
    if (how == "folded") return cat(header.first, ":\r\n ", header.second, "\r\n");
    return written({lower_case(header.first), header.second});
}

std::string headers_with(const Fault *fault, const std::string &key) {
    const std::string wrong[] = {accept_for(cat("wrong", key)), "h2c", "close"};
    constexpr std::string_view kNames[] = {"Sec-WebSocket-Accept", "Upgrade", "Connection"};
    std::string out;
    for (const Header &header : right_headers(key)) {
        const auto which = fault ? static_cast<std::size_t>(fault->values[1]) : 0;
        const bool meant = fault && header.first == kNames[which];
        out += meant ? spoilt(header, fault->word(0), wrong[which]) : written(header);
    }
    return out;
}

std::string filler(std::size_t size) {
    constexpr std::string_view kName = "X-Filler: ";
    std::string out;
    while (out.size() < size) {
        const std::size_t left = size - out.size();
        std::size_t line = std::min(left, kFillerMax);
        if (left > line && left - line < kFillerMin) line -= kFillerMin;  // the last one must hold its name
        out += cat(kName, std::string(line - kName.size() - 2, 'f'), "\r\n");
    }
    return out;
}

std::string early_frame(std::string_view what) {
    if (what == "ping") return encode_frame({.opcode = Opcode::ping, .payload = "early"});
    if (what == "text") return encode_frame({.payload = "early"});
    if (what == "answer") return encode_frame({.payload = std::string(kAccepted)});
    return encode_frame({.opcode = Opcode::close, .payload = encode_close({.status = 1000, .reason = {}})});
}

void add_fault(UpgradeReply &reply, const std::string &fault) {
    reply.fault += cat(reply.fault.empty() ? "" : ", ", fault);
}

UpgradeReply right_reply(ConnectionFaults &faults, const UpgradeRequest &request) {
    const auto find = [&](FaultKind kind) { return faults.find(kind, Stage::upgrade); };
    const auto *header = find(FaultKind::header);
    std::string headers = headers_with(header ? &header->fault : nullptr, request.header("Sec-WebSocket-Key"));
    const auto *large = find(FaultKind::large_headers);
    if (large) headers = filler(static_cast<std::size_t>(large->fault.values[0])) + headers;
    const auto *length = find(FaultKind::content_length);
    if (length) headers += cat("Content-Length: ", length->fault.values[0], "\r\n");

    const auto *other = find(FaultKind::other_status);
    const long status = other ? other->fault.values[0] : 101;
    UpgradeReply out =
        answer_of(status, cat(headers, "\r\n"), status == 101 ? Next::registration : Next::module_closes);
    if (status != 101) add_fault(out, "in place of 101");
    if (header) add_fault(out, cat(header->fault.word(0), " ", header->fault.word(1)));
    if (large) add_fault(out, cat("filler of ", large->fault.values[0], " bytes"));
    if (length) add_fault(out, cat("Content-Length of ", length->fault.values[0]));
    if (const auto *early = find(FaultKind::early_frame)) {
        out.bytes += early_frame(early->fault.word(0));
        add_fault(out, cat("frame in its segment, ", early->fault.word(0)));
    }
    return out;
}

UpgradeReply whole_reply(ConnectionFaults &faults, const UpgradeRequest &request) {
    const auto find = [&](FaultKind kind) { return faults.find(kind, Stage::upgrade); };
    if (const auto *redirect = find(FaultKind::redirect)) {
        return refusal(redirect->fault.values[0], {"Location", redirect->fault.text});
    }
    if (const auto *busy = find(FaultKind::retry_after)) {
        return refusal(503, {"Retry-After", std::to_string(busy->fault.values[0])});
    }
    if (const auto *status = find(FaultKind::status); status && status->fault.values[0] != 101) {
        return with_status(status->fault);
    }
    if (const auto *other = find(FaultKind::no_http)) return no_http(faults, *other);
    return right_reply(faults, request);
}

}  // namespace

UpgradeReply upgrade_reply(ConnectionFaults &faults, const UpgradeRequest &request, bool refused) {
    if (refused) return answer_of(400, "Connection: close\r\nContent-Length: 0\r\n\r\n", Next::module_closes);
    UpgradeReply out = whole_reply(faults, request);
    if (const auto *first = faults.find(FaultKind::informational, Stage::upgrade)) {
        const long status = first->fault.values[0];
        out.bytes = cat(status_line(status), "\r\n", out.bytes);
        add_fault(out, cat(status_text(static_cast<int>(status)), " before it"));
    }
    if (const auto *cut = faults.find(FaultKind::cut_answer, Stage::upgrade)) {
        out.bytes.resize(std::min(out.bytes.size(), static_cast<std::size_t>(cut->fault.values[0])));
        add_fault(out, cat("cut behind ", out.bytes.size(), " bytes"));
        out.next = Next::closes;
    }
    return out;
}

}  // namespace sim
