// The epoll instance and the table of registered sockets. An event finds its handler by the descriptor it carries, so a
// socket deleted meanwhile is skipped, and nothing is touched after a handler has run: it may have ended the loop.
#include <cstring>

#include "base/list.h"
#include "base/log.h"
#include "base/os.h"

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

void unlink_locked(CLOUDMGR_ELOOP_SOCK *node) {
    cloudmgr_dl_list_del(&node->link);
    g_loop.count--;
}

// loop_reset frees the table and forgets the epoll instance.
void loop_reset() {
    {
        const Lock hold(g_loop.lock);
        cloudmgr_dl_FreeAll(&g_loop.sockets, node_free);
        g_loop.count = 0;
    }
    pthread_mutex_destroy(&g_loop.lock);
    memset(&g_loop, 0, sizeof g_loop);
}

CLOUDMGR_ELOOP_SOCK *find_locked(int fd) { return list_find<&CLOUDMGR_ELOOP_SOCK::fd>(g_loop.sockets, fd); }

// sock_find returns the node of a socket, null when there is none; `take` takes it off the table.
CLOUDMGR_ELOOP_SOCK *sock_find(int fd, bool take) {
    if (fd == -1) return nullptr;
    const Lock hold(g_loop.lock);
    CLOUDMGR_ELOOP_SOCK *node = find_locked(fd);
    if (node && take) unlink_locked(node);
    return node;
}

// sock_register is both ways to add a socket. `ex` is the one with `extra`: it looks at the count without the lock (one
// 32-bit word, and the loop has one thread) and has a line less to say.
int sock_register(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler, void *extra, bool ex) {
    if (!event || !handler) return -1;
    if (ex ? g_loop.count >= kSocketMax : full()) {
        LOG(error, "Create socket failed, reach the max count.");
        return -1;
    }
    auto *node = static_cast<CLOUDMGR_ELOOP_SOCK *>(os_alloc(sizeof(CLOUDMGR_ELOOP_SOCK)));
    if (!node) {
        LOG(error, "Malloc fo sock node failed.");
        return -1;
    }
    node->fd = fd;
    node->handler = handler;
    node->event = *event;
    node->extra = extra;
    {
        const Lock hold(g_loop.lock);
        list_append(g_loop.sockets, node->link);
        g_loop.count++;
    }
    const int result = epoll_ctl(g_loop.epfd, EPOLL_CTL_ADD, fd, event);
    // Printed before the result is looked at, also for a call that failed: it says what epoll was asked, and the next
    // line what became of it.
    if (!ex)
        LOG(connect, "epoll_ctl Add socket %d to epoll %d ok.operation %d %d %d ", fd, g_loop.epfd, EPOLL_CTL_ADD,
            static_cast<int>(event->events), event->data.fd);
    if (result != 0) {
        LOG(error, "Add socket to epoll error %d.", result);
        const Lock hold(g_loop.lock);
        unlink_locked(node);
        os_free(node);  // `extra` stays the caller's: the call fails as a whole
        return -1;
    }
    if (ex)
        LOG(connect, "Add socket %d to epoll ok.", fd);
    else
        LOG(connect, "Add socket %d to epoll %d ok.", fd, g_loop.epfd);
    return 0;
}

}  // namespace

int CLOUDMGR_eloop_init(void) {
    loop_reset();
    list_init(g_loop.sockets);
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
    loop_reset();
    LOG(init, "Deinit epoll ok.");
}

CLOUDMGR_ELOOP_SOCK *cloudmgr_eloop_get_sock(int fd) { return sock_find(fd, false); }

int CLOUDMGR_eloop_sock_add(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler) {
    return sock_register(fd, event, handler, nullptr, false);
}

int CLOUDMGR_eloop_sock_addex(int fd, struct epoll_event *event, CLOUDMGR_ELOOP_HANDLER *handler, void *extra) {
    return sock_register(fd, event, handler, extra, true);
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
    CLOUDMGR_ELOOP_SOCK *node = sock_find(fd, true);
    if (!node) return -1;
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
    const CLOUDMGR_ELOOP_SOCK *node = cloudmgr_eloop_get_sock(event.data.fd);
    return node ? node->handler(&event, node->fd) : 0;
}
