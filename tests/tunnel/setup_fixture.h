// SetupTest: what the tests of a tunnel's set-up share, above its steps.
#ifndef TESTS_TUNNEL_SETUP_FIXTURE_H
#define TESTS_TUNNEL_SETUP_FIXTURE_H

#include <functional>
#include <string>

#include "model/models.h"
#include "tests/support/fault.h"
#include "tests/support/timers.h"
#include "tests/tunnel/tunnel_steps.h"
#include "tunnel/table.h"

class SetupTest : public TunnelSteps<support::LibraryTest> {
  protected:
    using Fault = support::Fault;

    static uint32_t data_type(const char *model = "model") {
        const cloudtunnel_url_node *const url = cloudtunnel_socket_getUrlNodeByModelname(model);
        return url ? url->dataType : ~0U;
    }
    static uint32_t state_of(const std::string &model = "model") {
        const cloudmgr_v3wscnct_node *const node = setup_node(model);
        return node ? node->state : ~0U;
    }
    static cloudtunnel_http_resp answer_of(uint32_t status_index) {
        cloudtunnel_http_resp resp = {};
        resp.status_index = status_index;
        return resp;
    }
    // What the connection's data callback returns for an answer that does not come over the wire.
    static int hand_in(const Tunnel &tunnel, cloudtunnel_http_resp *resp) {
        return CLOUDMGR_socket_getCnctBySock(tunnel.sock)->dataCallback(tunnel.sock, resp);
    }
    void fill_table() {
        for (int i = 0; wscnctlist.count < 32; ++i) {
            cloudmgr_v3wscnct_node *const node = setup_add(("filler" + std::to_string(i)).c_str(), "device");
            ASSERT_NE(node, nullptr);
            node->connectedCallback = Callbacks::on_connected;
            node->failureCallback = Callbacks::on_failure;
            node->receiveCallback = Callbacks::on_frame;
        }
    }
    // Lets the module start again, once, as soon as it is notified of its failure; `again` is the new set-up.
    void retry_on_failure(const Tunnel &tunnel, Tunnel &again) {
        again.model = tunnel.model;
        callbacks.during_failure = [this, &again](const std::string &) {
            callbacks.during_failure = nullptr;
            start(again);
        };
    }
};

#endif
