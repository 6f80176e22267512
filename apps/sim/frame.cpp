#include "frame.h"

namespace sim {
namespace {

constexpr unsigned kFin = 0x80;
constexpr unsigned kReserved = 0x70;
constexpr unsigned kReservedShift = 4;
constexpr unsigned kOpcode = 0x0f;
constexpr unsigned kMask = 0x80;
constexpr unsigned kLength = 0x7f;
constexpr unsigned kLength16 = 126;
constexpr unsigned kLength64 = 127;
constexpr std::uint64_t kPayloadMax = 256u << 20;  // bounds the memory that a broken length can claim

std::uint64_t big_endian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char c : bytes) value = value << 8 | static_cast<unsigned char>(c);
    return value;
}

void put_big_endian(std::string &out, std::uint64_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) out += static_cast<char>(value >> (8 * i) & 0xff);
}

bool is_control(Opcode opcode) { return opcode == Opcode::close || opcode == Opcode::ping || opcode == Opcode::pong; }

// The key is any range of four bytes; a frame's first payload byte meets the first of them.
template <class Bytes>
void apply_mask(std::string &payload, const Bytes &key) {
    for (std::size_t i = 0; i < payload.size(); i++) {
        payload[i] = static_cast<char>(payload[i] ^ static_cast<char>(key[i % 4]));
    }
}

Decoded bad(const char *fault) {
    Decoded out;
    out.result = Decoded::Result::bad;
    out.fault = fault;
    return out;
}

// The fields of the header's first two bytes, and the fault in them if there is one.
struct Start {
    bool fin;
    Opcode opcode;
    unsigned length_code;
    const char *fault;
};

Start read_start(std::string_view in) {
    const unsigned first = static_cast<unsigned char>(in[0]);
    const unsigned second = static_cast<unsigned char>(in[1]);
    Start start = {(first & kFin) != 0, static_cast<Opcode>(first & kOpcode), second & kLength, nullptr};
    if (first & kReserved)
        start.fault = "reserved bits are set";
    else if (!opcode_name(start.opcode))
        start.fault = "unknown opcode";
    else if (!(second & kMask))
        start.fault = "MASK bit is not set";
    else if (is_control(start.opcode) && !start.fin)
        start.fault = "control frame in fragments";
    else if (is_control(start.opcode) && start.length_code > common::kControlMax)
        start.fault = "control frame over 125 bytes";
    return start;
}

}  // namespace

Decoded decode_frame(std::string_view in, Key key) {
    if (in.size() < 2) return {};
    const Start start = read_start(in);
    if (start.fault) return bad(start.fault);

    const std::size_t extended = start.length_code == kLength16 ? 2 : start.length_code == kLength64 ? 8 : 0;
    const std::size_t header = 2 + extended;
    if (in.size() < header) return {};
    std::uint64_t length = start.length_code;
    if (extended == 2) {
        length = big_endian(in.substr(2, 2));
        if (length < kLength16) return bad("16-bit length for a short payload");
    } else if (extended == 8) {
        length = big_endian(in.substr(2, 4));
        if (big_endian(in.substr(6, 4)) != 0) return bad("bytes 6 to 9 of a long length are not zero");
        if (length <= 0xffff) return bad("long length for a short payload");
        if (length > kPayloadMax) return bad("payload over 256 MiB");
    }

    const std::size_t key_size = key == Key::follows ? 4 : 0;
    Decoded out;
    if (in.size() < header + key_size + length) {
        if (in.size() == header + length) out.result = Decoded::Result::only_key_missing;
        return out;
    }
    out.result = Decoded::Result::done;
    out.used = header + key_size + length;
    out.frame = {.fin = start.fin,
                 .opcode = start.opcode,
                 .keyless = key == Key::left_out,
                 .payload = std::string(in.substr(header + key_size, length))};
    if (key == Key::follows) apply_mask(out.frame.payload, in.substr(header, 4));
    return out;
}

std::string encode_frame(const Frame &frame, const FrameForm &form) {
    const unsigned mask_bit = form.mask ? kMask : 0;
    const std::size_t size = frame.payload.size();
    const unsigned opcode = form.opcode.value_or(static_cast<unsigned>(frame.opcode));
    std::string out;
    out += static_cast<char>((frame.fin ? kFin : 0) | form.reserved << kReservedShift | opcode);
    if (size < kLength16 && form.length_bits <= 7) {
        out += static_cast<char>(mask_bit | static_cast<unsigned>(size));
    } else if (size <= 0xffff && form.length_bits <= 16) {
        out += static_cast<char>(mask_bit | kLength16);
        put_big_endian(out, size, 2);
    } else {
        out += static_cast<char>(mask_bit | kLength64);
        put_big_endian(out, size, 8);
    }
    std::string payload = frame.payload;
    if (form.mask) {
        for (const unsigned char byte : *form.mask) out += static_cast<char>(byte);
        apply_mask(payload, *form.mask);
    }
    return out + payload;
}

std::string announce_frame(std::uint64_t length) {
    std::string out;
    out += static_cast<char>(kFin | static_cast<unsigned>(Opcode::text));
    out += static_cast<char>(kLength64);
    put_big_endian(out, length, 8);
    return out;
}

CloseBody decode_close(std::string_view payload) {
    if (payload.size() < 2) return {};
    return {.status = static_cast<std::uint16_t>(big_endian(payload.substr(0, 2))),
            .reason = std::string(payload.substr(2))};
}

std::string encode_close(const CloseBody &body) {
    std::string out;
    if (body.status) put_big_endian(out, *body.status, 2);
    return out + body.reason;
}

}  // namespace sim
