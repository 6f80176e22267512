// The table of connections. Only this component links, counts and frees them.
#pragma once

#include <cloudtunnel.h>

constexpr uint32_t kConnectionMax = 1024;

// The callbacks that a new connection is added with.
struct ConnCallbacks {
    cloudtunnel_connected_fn *connected;
    cloudtunnel_failure_fn *failure;
    cloudtunnel_data_fn *data;
};

// conn_add adds a connection to the table and returns it; null, with the reason logged, if the table is full, the model
// or the socket has a connection already, or memory is short.
[[nodiscard]] cloudtunnel_connect_node *conn_add(int sock, const char *model, const ConnCallbacks &callbacks);

// conn_model returns the model of a connection, null if it has none. conn_is_plain returns whether the connection is a
// plain one; one without a model, or no connection at all, is.
cloudtunnel_url_node *conn_model(const cloudtunnel_connect_node *node);
bool conn_is_plain(const cloudtunnel_connect_node *node);

// cloudtunnel_socket_getPortBySock returns the port of the model that owns connection `sock`; 80 when there is no such
// connection or model, so that an unknown socket is treated as plain.
uint16_t cloudtunnel_socket_getPortBySock(int sock);

// cloudtunnel_socket_setConnectTimer deletes the timer of the connect time-out and stores the new id; 0 only cancels.
// It returns 0, or -1 for an unknown socket.
int cloudtunnel_socket_setConnectTimer(int sock, uint32_t timerId);

// A guard over a connection while a callback runs that may close or replace it. It copies the connection's name and
// failure callback for that case. Guards live on the stack and are nested like the calls that made them.
class ConnGuard {
  public:
    explicit ConnGuard(cloudtunnel_connect_node *node);
    ConnGuard(const ConnGuard &) = delete;
    ConnGuard &operator=(const ConnGuard &) = delete;
    ~ConnGuard();

    // node returns the connection, or null once it is freed, even if another connection has its descriptor by then.
    [[nodiscard]] cloudtunnel_connect_node *node() const { return node_; }
    [[nodiscard]] const char *model() const { return model_; }

    // fail closes the connection if it still stands, and calls the failure callback: the one that the connection holds
    // now, or the copied one if the connection is freed already. If a callback runs the loop re-entrantly and the
    // connection fails there, the outer guard does not report the failure again.
    void fail();

    // forget makes every guard drop a connection that is about to be freed.
    static void forget(const cloudtunnel_connect_node *node) {
        for (ConnGuard *guard = innermost_; guard; guard = guard->outer_) {
            if (guard->node_ == node) guard->node_ = nullptr;
        }
    }

  private:
    static inline ConnGuard *innermost_ = nullptr;

    cloudtunnel_connect_node *node_;
    cloudtunnel_failure_fn *failure_;
    char model_[sizeof(cloudtunnel_connect_node::modelName)];
    ConnGuard *outer_;
};
