#include "tests/torture/scenario_groups.h"

namespace torture {
namespace {

using support::frame;

std::string tunnel(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    if (!stage.exchange(line)) return kLost;
    stage.hang_up(line);
    return kUp;
}

std::string many_tunnels(Stage &stage) {
    constexpr size_t kCount = 32;
    std::vector<Line> all(kCount);
    Lines lines;
    for (size_t i = 0; i < kCount; ++i) {
        all[i] = stage.make_line(i < kCount / 2 ? Wire::tls13 : Wire::plain, {}, "model" + std::to_string(i));
        lines.push_back(&all[i]);
        stage.lead_to(all[i]);
        stage.start(all[i]);  // under way before the next plain one moves the port that all plain ones go to
    }
    const size_t up = stage.await(lines);
    for (Line *const line : lines) {
        if (line->sock >= 0 && CLOUDMGR_socket_getCnctByModelName(line->model.c_str())) stage.hang_up(*line);
    }
    return std::to_string(up) + " up";
}

std::deque<std::string> cut(const std::string &bytes, size_t pieces) {
    std::deque<std::string> cut;
    const size_t size = bytes.size() / pieces + 1;
    for (size_t at = 0; at < bytes.size(); at += size) cut.push_back(bytes.substr(at, size));
    return cut;
}

// Every answer, and a large masked frame, in pieces: what has come is kept until the rest is there.
std::string pieces(Stage &stage, Wire wire) {
    const Platform in_pieces = {
        .to_request = [](Line &line) { line.later = cut(Stage::good_answer(line), 3); },
        .to_registration = [](Line &line) { line.later = cut(frame(support::kText, kAccepted), 5); },
    };
    Line line = stage.lead(wire, in_pieces);
    if (!stage.bring_up(line)) return kRefused;
    const std::string body(70000, 'p');
    line.later = cut(frame(support::kBinary, body, true, "mask"), 4);
    const auto &frames = stage.callbacks.frames;
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return !frames.empty() || stage.lost(line); }));
    if (stage.lost(line)) return kLost;
    EXPECT_TRUE(frames.size() == 1 && frames.front().body == body) << "not the bytes that were sent";
    stage.hang_up(line);
    return kUp;
}

std::string fragments(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
    CLOUDMGR_ws_setoptcode(msg, support::kBinary);
    CLOUDMGR_ws_setmask(msg, CLOUDMGR_ws_getMask());
    const std::string body(33000, 'f');
    CLOUDMGR_ws_setbody(msg, body.data(), static_cast<int32_t>(body.size()));
    const int small = CLOUDMGR_ws_send_byFrag(line.sock, msg, 100, 0);
    stage.pump({&line}, [&] { return stage.lost(line); });
    const int large = CLOUDMGR_ws_sendlarge_byFrag(line.sock, msg, 100, 0);
    CLOUDMGR_ws_msg_destory(msg);
    stage.pump({&line}, [&] { return stage.lost(line); });
    const std::string how = small == 0 && large == 0 ? "sent" : "send refused";
    if (stage.lost(line)) return kLost;
    stage.hang_up(line);
    return how;
}

// A close frame from the module; the platform answers it and ends, and the module is notified of the end.
std::string close_by_module(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    CLOUDMGR_ws_CloseSend(line.sock, 1000, "done", 4);
    stage.pump({&line}, [&] { return !line.server->inbox().empty(); });
    line.server->send(frame(support::kClose, "\x03\xe8"));
    line.server->close();
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return stage.lost(line); })) << "not notified of the end";
    return "closed";
}

// A close frame from the platform: the module has it answered, and the connection closes a second later.
std::string close_by_platform(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    static int closed = 0;
    closed = 0;
    stage.callbacks.during_data = [](int sock) {
        cloudmgr_ws_msg *const msg = CLOUDMGR_ws_msg_create();
        CLOUDMGR_ws_setoptcode(msg, support::kClose);
        if (CLOUDMGR_ws_setbody(msg, "\x03\xe8", 2) != 0) {  // the module's own memory: it closes without an answer
            ++closed;
            CLOUDMGR_socket_closeBySock(sock);
        }
        CLOUDMGR_ws_CloseRcv(sock, msg, [](uint32_t, void *number) {
            ++closed;
            return CLOUDMGR_socket_closeBySock(*static_cast<int *>(number));
        });
        CLOUDMGR_ws_msg_destory(msg);
    };
    line.server->send(frame(support::kClose, "\x03\xe8"));
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return closed > 0 || stage.lost(line); }));
    stage.callbacks.during_data = nullptr;
    EXPECT_LE(closed, 1);
    stage.hang_up(line);  // where the handler could not
    return stage.lost(line) ? kLost : "closed";
}

// The platform ends without a close frame.
std::string broken_by_platform(Stage &stage, Wire wire, void (support::Server::*end)()) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    (line.server.get()->*end)();
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return stage.lost(line); })) << "not notified of the end";
    return "notified";
}

std::string end_by_platform(Stage &stage, Wire wire) {
    return broken_by_platform(stage, wire, &support::Server::close);
}

std::string reset_by_platform(Stage &stage, Wire wire) {
    return broken_by_platform(stage, wire, &support::Server::reset);
}

// The connection breaks, the module starts again from its failure callback.
std::string tunnel_again(Stage &stage, Wire wire) {
    Line line = stage.lead(wire);
    if (!stage.bring_up(line)) return kRefused;
    line.server->close();
    EXPECT_TRUE(stage.wait_for({&line}, [&] { return stage.lost(line); })) << "not notified of the end";
    if (!stage.bring_up(line)) return "lost, then refused";
    if (!stage.exchange(line)) return "lost twice";
    stage.hang_up(line);
    return "up again";
}

}  // namespace

void add_tunnel_scenarios(Scenarios &all) {
    for (const NamedWire &wire : {kPlain, kTls12, kTls13}) {
        const Wire w = wire.wire;
        add(all, on("tunnel", wire), kUp, w, [w](Stage &stage) { return tunnel(stage, w); });
    }
    for (const NamedWire &wire : {kPlain, kTls13}) {
        const Wire w = wire.wire;
        add(all, on("pieces", wire), kUp, w, [w](Stage &stage) { return pieces(stage, w); });
        add(all, on("fragments", wire), "sent", w, [w](Stage &stage) { return fragments(stage, w); });
        add(all, on("close_by_module", wire), "closed", w, [w](Stage &stage) { return close_by_module(stage, w); });
        add(all, on("close_by_platform", wire), "closed", w, [w](Stage &stage) { return close_by_platform(stage, w); });
        add(all, on("end_by_platform", wire), "notified", w, [w](Stage &stage) { return end_by_platform(stage, w); });
        add(all, on("reset_by_platform", wire), "notified", w,
            [w](Stage &stage) { return reset_by_platform(stage, w); });
        add(all, on("reconnection", wire), "up again", w, [w](Stage &stage) { return tunnel_again(stage, w); });
    }
    add(all, "tunnels_32", "32 up", Wire::plain, many_tunnels);
    all.back().alike = true;
}

}  // namespace torture
