// The state of the simulator as lines and as JSON.
#include "sim/status.h"

#include <gtest/gtest.h>

using namespace sim;

TEST(sim_status, a_line_for_each_listener_tunnel_and_link) {
    Status status;
    status.platform = {
        .listening = "127.0.0.1:443",
        .tunnels = {{.id = 1, .model = "ba\nse", .state = "open"}, {.id = 2, .model = {}, .state = "connecting"}}};
    status.daemon = {.listening = "/tmp/socket", .links = {{.id = 1, .models = {"a", "b"}}, {.id = 2, .models = {}}}};
    EXPECT_EQ(status_text(status),
              "platform: listening on 127.0.0.1:443\n"
              "tunnel 1: model 'ba\\x0ase', open\n"
              "tunnel 2: model unknown, connecting\n"
              "daemon: listening on /tmp/socket\n"
              "link 1: modules 'a', 'b'\n"
              "link 2: modules none\n");
}

TEST(sim_status, a_part_that_was_left_out_has_no_line_and_one_that_is_stopped_says_so) {
    Status status;
    EXPECT_EQ(status_text(status), "");
    EXPECT_EQ(status_json(status), R"({"time":0.000000,"models":{},"faults":[]})");
    status.platform.emplace();
    status.daemon.emplace();
    EXPECT_EQ(status_text(status), "platform: not listening\ndaemon: stopped\n");
    EXPECT_EQ(status_json(status), R"({"time":0.000000,"platform":{"listening":null,"tunnels":[],"own_ports":{}},)"
                                   R"("daemon":{"listening":null,"links":[]},"models":{},"faults":[]})");
}

TEST(sim_status, json_has_the_traffic_of_tunnels_and_the_counts_of_models) {
    Status status;
    status.time = std::chrono::seconds(2);
    status.platform = {.listening = "[::1]:1",
                       .tunnels = {{.id = 1,
                                    .model = "b\"",
                                    .state = "open",
                                    .since = std::chrono::milliseconds(500),
                                    .count = {.received = {1, 2, 3}, .sent = {4, 5, 6}, .opened = true}}}};
    status.daemon = {.listening = "/s", .links = {{.id = 7, .models = {"a", "b"}}}};
    status.platform->own_ports = {{"b", 2}};
    status.faults = {{.fault = "latency 1ms", .met = 8}};
    status.models["a"] = {.opened = 1, .failed = 2, .ended = 3, .last_cause = "reset"};
    EXPECT_EQ(status_json(status),
              R"({"time":2.000000,"platform":{"listening":"[::1]:1","tunnels":[{"id":1,"model":"b\"","state":"open",)"
              R"("since":0.500000,"received":{"messages":1,"frames":2,"bytes":3},)"
              R"("sent":{"messages":4,"frames":5,"bytes":6}}],"own_ports":{"b":2}},)"
              R"("daemon":{"listening":"/s","links":[{"id":7,"models":["a","b"]}]},)"
              R"("models":{"a":{"opened":1,"failed":2,"ended":3,"last_cause":"reset"}},)"
              R"("faults":[{"fault":"latency 1ms","met":8}]})");
}
