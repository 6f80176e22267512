// ModuleProcess: a module process as it runs on a device: the library brought up with CLOUDTUNNEL_LIB_Init, the daemon
// on its socket, the platform at the end of a real connection. Only the public header is used.
//
//   Tunnel tunnel = offer(Wire::tls);     // a server, a registered module, the daemon's tunnel data for it
//   start(tunnel);                        // and on with the steps of TunnelSteps
#ifndef TESTS_WHOLE_MODULE_PROCESS_H
#define TESTS_WHOLE_MODULE_PROCESS_H

#include <string>

#include "tests/daemon/modules.h"
#include "tests/support/daemon.h"
#include "tests/tunnel/tunnel_steps.h"

class ModuleProcess : public TunnelSteps<support::ProcessTest> {
  protected:
    ModuleProcess() {
        init();
        EXPECT_TRUE(daemon.wait_connected());
    }

    void init() {
        const CLOUDTUNNEL_LIB_INIT_DATA data = support::Log::init_data();
        epfd = CLOUDTUNNEL_LIB_Init(&data);
    }

    static support::Notification tunnel_data(const Tunnel &tunnel) {
        support::Notification data;
        data.model = tunnel.model;
        data.host = "cloud.example";
        data.path = "/v3/ws";
        data.port = prepare_port(*tunnel.server);
        data.last_down_reason = 4;
        data.last_down_error_code = 5;
        data.last_down_socket_errno = 6;
        data.cookie = "a=b";
        data.token = "token-" + tunnel.model;
        return data;
    }
    // The daemon sends the tunnel data and the module's open callback has been called.
    void notify(const Tunnel &tunnel) {
        const size_t before = modules.calls.size();
        daemon.notify(tunnel_data(tunnel));
        EXPECT_TRUE(run_until([&] { return modules.calls.size() > before; }));
    }
    Tunnel offer(Wire wire, const std::string &model = "model") {
        resolver.add("cloud.example", {"127.0.0.1"});
        if (!cloudmgr_module_getmodNodeByName(model.c_str())) Modules::add<1>(model.c_str());
        Tunnel tunnel;
        tunnel.model = model;
        tunnel.server = std::make_unique<support::Server>(wire);
        notify(tunnel);
        return tunnel;
    }
    Tunnel offer_and_start(Wire wire, const std::string &model = "model") {
        Tunnel tunnel = offer(wire, model);
        EXPECT_GE(start(tunnel), 0);
        return tunnel;
    }

    support::Daemon daemon;
    Modules modules;
};

#endif
