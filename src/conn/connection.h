// The table of connections. Only this room links, counts and frees them.
#pragma once

#include <cloudtunnel.h>

constexpr uint32_t kConnectionMax = 1024;

// What a new connection is made of.
struct ConnCallbacks {
    cloudtunnel_connected_fn *connected;
    cloudtunnel_failure_fn *failure;
    cloudtunnel_data_fn *data;
};

// conn_add puts a connection into the table; null, with the reason logged, when it has no place there.
[[nodiscard]] cloudtunnel_connect_node *conn_add(int sock, const char *model, const ConnCallbacks &callbacks);

// cloudtunnel_socket_getPortBySock returns the port of the model that owns connection `sock`; 80 when there is no such
// connection or model, so that an unknown socket is treated as plain.
uint16_t cloudtunnel_socket_getPortBySock(int sock);

// cloudtunnel_socket_setConnectTimer deletes the connect time-out that was set and stores the new id; 0 cancels. 0, or
// -1 for an unknown socket.
int cloudtunnel_socket_setConnectTimer(int sock, uint32_t timerId);

// conn_wait_for has the event loop call `handler` for what `events` name, an error or a hang-up of the socket: for a
// socket that it does not know yet, or from now on. 0, or -1.
enum class LoopCall { add, modify };
[[nodiscard]] int conn_wait_for(int sock, uint32_t events, CLOUDMGR_ELOOP_HANDLER *handler, LoopCall call);

// A connection kept in sight while something is called out that may close or replace it. Its name and failure callback
// are copied for that case.
class ConnWatch {
  public:
    explicit ConnWatch(cloudtunnel_connect_node *node);
    ConnWatch(const ConnWatch &) = delete;
    ConnWatch &operator=(const ConnWatch &) = delete;
    ~ConnWatch();

    // node is the connection, null when it is gone: another one may have its descriptor by now.
    [[nodiscard]] cloudtunnel_connect_node *node() const { return node_; }
    [[nodiscard]] const char *model() const { return model_; }

    // fail closes the connection if it still stands, and tells its owner: the one whose failure callback stands in the
    // node now, or stood there at first when the node is gone. An owner is told once: a watch further out, in which a
    // callback turned the loop, has nothing to tell any more.
    void fail();

    // forget tells every watch that a node is about to be freed.
    static void forget(const cloudtunnel_connect_node *node) {
        for (ConnWatch *watch = innermost_; watch; watch = watch->outer_) {
            if (watch->node_ == node) watch->node_ = nullptr;
        }
    }

  private:
    static inline ConnWatch *innermost_ = nullptr;

    cloudtunnel_connect_node *node_;
    cloudtunnel_failure_fn *failure_;
    char model_[33];
    ConnWatch *outer_;
};
