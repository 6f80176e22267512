// The epoll instance and the table of registered sockets. An event finds its handler by the descriptor it carries, so
// the event of a deleted socket is skipped. After a handler has run nothing is read or written here: it may have ended
// the loop.
#include <cstring>

#include "base/index.h"
#include "base/list.h"
#include "base/log.h"
#include "base/os.h"
#include "loop/event.h"

static_assert(offsetof(CLOUDMGR_ELOOP_SOCK, link) == 0 && offsetof(CLOUDMGR_ELOOP_SOCK, fd) == 16 &&
              offsetof(CLOUDMGR_ELOOP_SOCK, handler) == 24 && offsetof(CLOUDMGR_ELOOP_SOCK, event) == 32 &&
              offsetof(CLOUDMGR_ELOOP_SOCK, extra) == 32 + (sizeof(struct epoll_event) + 7) / 8 * 8 &&
              sizeof(CLOUDMGR_ELOOP_SOCK) == offsetof(CLOUDMGR_ELOOP_SOCK, extra) + 8);

namespace {

constexpr int32_t kSocketMax = 128;

struct CLOUDMGR_ELOOP {
    int32_t epfd;
    pthread_mutex_t lock;  // guards the list and the count
    cloudtunnel_link sockets;
    int32_t count;
    bool open;  // `epfd` is this loop's: a zeroed state must not close descriptor 0
};

CLOUDMGR_ELOOP g_loop = {};

void node_free(cloudtunnel_link *link) {
    auto *node = record_of<CLOUDMGR_ELOOP_SOCK>(link);
    os_free(node->extra);
    os_free(node);
}

bool full() {
    const Lock hold(g_loop.lock);
    return g_loop.count >= kSocketMax;
}

CLOUDMGR_ELOOP_SOCK *find_locked(int fd) {
    return index_find<&IndexSlot::socket, &CLOUDMGR_ELOOP_SOCK::fd>(g_loop.sockets, fd);
}

void unlink_locked(CLOUDMGR_ELOOP_SOCK *node) {
    cloudmgr_dl_list_del(&node->link);
    g_loop.count--;
}

void log_full() { LOG(error, "Create socket failed, reach the max count."); }

// node_add puts a socket at the end of the table; null, with the reason logged, when memory is short.
CLOUDMGR_ELOOP_SOCK *node_add(int fd, const struct epoll_event &event, CLOUDMGR_ELOOP_HANDLER *handler, void *extra) {
    auto *node = static_cast<CLOUDMGR_ELOOP_SOCK *>(os_alloc(sizeof(CLOUDMGR_ELOOP_SOCK)));
    if (!node) {
        LOG(error, "Malloc fo sock node failed.");
        return nullptr;
    }
    node->fd = fd;
    node->handler = handler;
    node->event = event;
    node->extra = extra;
    const Lock hold(g_loop.lock);
    const bool first = !find_locked(fd);
    list_append(g_loop.sockets, node->link);
    if (first) index_add(g_loop.sockets, node);
    g_loop.count++;
    return node;
}

// node_refused takes back a socket that epoll refused with `result`. `extra` stays the caller's: the call fails as a
// whole. Returns -1.
int node_refused(CLOUDMGR_ELOOP_SOCK *node, int result) {
    LOG(error, "Add socket to epoll error %d.", result);
    {
        const Lock hold(g_loop.lock);
        unlink_locked(node);
    }
    os_free(node);
    return -1;
}

}  // namespace

CLOUDMGR_ELOOP_SOCK *loop_socket(int fd) {
    const IndexSlot *slot = index_slot(fd);
    CLOUDMGR_ELOOP_SOCK *socket = slot ? slot->socket.load(std::memory_order_acquire) : nullptr;
    return socket && socket->fd == fd ? socket : cloudmgr_eloop_get_sock(fd);
}

int CLOUDMGR_eloop_init(void) {
    // Nothing is freed and no descriptor closed: callers may still hold nodes, what hangs on them, and the old epoll
    // instance.
    memset(&g_loop, 0, sizeof g_loop);
    list_init(g_loop.sockets);
    index_clear_sockets();
    pthread_mutex_init(&g_loop.lock, nullptr);
    const int epfd = epoll_create(1);
    g_loop.epfd = epfd;
    if (epfd < 0) {
        LOG(error, "Create epoll failed.");
        return -1;
    }
    g_loop.open = true;
    LOG(event, "Create epoll ok, epoll fd %d.", epfd);
    return epfd;
}

void CLOUDMGR_eloop_deinit(void) {
    if (g_loop.open) close(g_loop.epfd);
    {
        const Lock hold(g_loop.lock);
        cloudmgr_dl_FreeAll(&g_loop.sockets, node_free);
        g_loop.count = 0;
    }
    pthread_mutex_destroy(&g_loop.lock);
    memset(&g_loop, 0, sizeof g_loop);
    LOG(init, "Deinit epoll ok.");
}

CLOUDMGR_ELOOP_SOCK *cloudmgr_eloop_get_sock(int fd) {
    if (fd == -1) return nullptr;
    const Lock hold(g_loop.lock);
    return find_locked(fd);
}

int CLOUDMGR_eloop_sock_add(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler) {
    if (!event || !handler) return -1;
    if (full()) {
        log_full();
        return -1;
    }
    CLOUDMGR_ELOOP_SOCK *node = node_add(fd, *event, handler, nullptr);
    if (!node) return -1;
    const int result = epoll_ctl(g_loop.epfd, EPOLL_CTL_ADD, fd, event);
    // Logged for a refused socket too: this line says what epoll was asked, the next one what it answered.
    LOG(connect, "epoll_ctl Add socket %d to epoll %d ok.operation %d %d %d ", fd, g_loop.epfd, EPOLL_CTL_ADD,
        static_cast<int>(event->events), event->data.fd);
    if (result != 0) return node_refused(node, result);
    LOG(connect, "Add socket %d to epoll %d ok.", fd, g_loop.epfd);
    return 0;
}

int CLOUDMGR_eloop_sock_addex(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler, void *extra) {
    if (!event || !handler) return -1;
    if (g_loop.count >= kSocketMax) {  // read without the lock: one 32-bit word, and the loop has one thread
        log_full();
        return -1;
    }
    CLOUDMGR_ELOOP_SOCK *node = node_add(fd, *event, handler, extra);
    if (!node) return -1;
    const int result = epoll_ctl(g_loop.epfd, EPOLL_CTL_ADD, fd, event);
    if (result != 0) return node_refused(node, result);
    LOG(connect, "Add socket %d to epoll ok.", fd);
    return 0;
}

int CLOUDMGR_eloop_sock_modify(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler) {
    CLOUDMGR_ELOOP_SOCK *node = cloudmgr_eloop_get_sock(fd);
    if (!node || !event || !handler) return -1;
    node->handler = handler;
    node->event = *event;
    const int result = epoll_ctl(g_loop.epfd, EPOLL_CTL_MOD, fd, event);
    if (result != 0) {
        LOG(error, "Modify socket %d to epoll error %d.", fd, result);
        return -1;
    }
    LOG(connect, "Modify socket %d  to %d ok.", fd, g_loop.epfd);
    return 0;
}

int CLOUDMGR_eloop_sock_del(int fd) {
    if (fd == -1) return -1;
    CLOUDMGR_ELOOP_SOCK *node = nullptr;
    {
        const Lock hold(g_loop.lock);
        node = find_locked(fd);
        if (!node) return -1;
        unlink_locked(node);
    }
    if (epoll_ctl(g_loop.epfd, EPOLL_CTL_DEL, fd, &node->event) != 0)
        LOG(error, "Del socket %d from epoll failed.", fd);
    else
        LOG(connect, "Del socket %d from epoll ok.", fd);
    node_free(&node->link);
    return 0;
}

int CLOUDTUNNEL_EPOLL_HandleMsg(int epfd) {
    struct epoll_event event = {};
    const int ready = epoll_wait(epfd, &event, 1, 0);
    if (ready <= 0) return ready;
    const CLOUDMGR_ELOOP_SOCK *node = loop_socket(event.data.fd);
    return node ? node->handler(&event, node->fd) : 0;
}
