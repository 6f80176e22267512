// One list of timers, driven by polling: every pass fires what is due. Deleting is lazy: a deleted timer keeps its
// place until the next pass removes it, while its id is free at once.
//
// Passes are re-entrant. Callbacks run with no lock held and may do anything: add, delete, run another pass, end the
// pool. So each pass keeps its position in a record on its stack. Whoever removes a node moves on every pass that was
// about to visit it, and a node whose callback is running is freed by the pass that runs it.
#include "loop/timer.h"

#include <array>
#include <csignal>

#include "base/list.h"
#include "base/log.h"
#include "base/os.h"

static_assert(offsetof(cloudtunnel_timer_node, link) == 0 && offsetof(cloudtunnel_timer_node, last_s) == 16 &&
              offsetof(cloudtunnel_timer_node, arg) == 24 && offsetof(cloudtunnel_timer_node, callback) == 32 &&
              offsetof(cloudtunnel_timer_node, id) == 40 && offsetof(cloudtunnel_timer_node, periodic) == 44 &&
              offsetof(cloudtunnel_timer_node, period_ms) == 48 && offsetof(cloudtunnel_timer_node, deleted) == 56 &&
              sizeof(cloudtunnel_timer_node) == 64);
static_assert(offsetof(cloudtunnel_timer_head, link) == 0 && offsetof(cloudtunnel_timer_head, count) == 16 &&
              sizeof(cloudtunnel_timer_head) == 24);

cloudtunnel_timer_head cloudtunnel_timerlist = {};
pthread_mutex_t cloudtunnel_timerlistLock = PTHREAD_MUTEX_INITIALIZER;  // guards the list and the id pool
volatile sig_atomic_t timer_timeout_pending = 0;

namespace {

constexpr uint32_t kTimerMax = 200;        // timers in the list, deleted ones included
constexpr uint32_t kFirstDynamicId = 100;  // below are ids that a caller may pick
constexpr uint32_t kPoolBytes = 32;
constexpr uint32_t kDynamicIds = kPoolBytes * 8;
constexpr uint64_t kNoUptime = UINT64_MAX;
static_assert(kTimerMax <= kDynamicIds);

// The pool's own pace, for a host that asks for the signal.
constexpr suseconds_t kPaceUs = 100000;
constexpr struct itimerval kPace = {.it_interval = {.tv_sec = 0, .tv_usec = kPaceUs},
                                    .it_value = {.tv_sec = 0, .tv_usec = kPaceUs}};
constexpr struct itimerval kNoPace = {};

std::array<uint8_t, kPoolBytes> g_pool = {};  // bit b of byte B: id 100 + 8 * B + b is taken

// A pass over the list that is under way.
struct Pass {
    cloudtunnel_link *next = nullptr;  // visited next; moved on when that node is removed
    // The node whose callback this pass runs. If the node leaves the list meanwhile, the outermost pass that runs it
    // frees it: remove_locked sets its `running` to null.
    cloudtunnel_timer_node *running = nullptr;
    Pass *outer = nullptr;
};
Pass *g_passes = nullptr;  // the innermost pass

void timer_free(cloudtunnel_timer_node *node) {
    os_free(node->arg);
    os_free(node);
}

// remove_locked removes a node from the list and frees it, or leaves that to the outermost pass that runs its callback.
void remove_locked(cloudtunnel_timer_node *node) {
    Pass *runner = nullptr;
    for (Pass *pass = g_passes; pass; pass = pass->outer) {
        if (pass->next == &node->link) pass->next = node->link.next;
        if (pass->running == node) runner = pass;
    }
    list_remove(node->link);
    cloudtunnel_timerlist.count--;
    if (runner)
        runner->running = nullptr;
    else
        timer_free(node);
}

cloudtunnel_timer_node *find_locked(uint32_t id) {
    return list_find<&cloudtunnel_timer_node::id>(cloudtunnel_timerlist.link, id);
}

void dump_pool_locked() {
    if (!log_wanted(LogLevel::timer_detail)) return;
    for (size_t i = 0; i < g_pool.size(); i++)
        LOG(timer_detail, " DynamicTest: pool[%d] = 0x%02x", static_cast<int>(i), static_cast<unsigned>(g_pool[i]));
}

// take_id_locked returns the lowest free dynamic id; 0 when all are taken, which can be since ids outlive a de-init.
uint32_t take_id_locked() {
    LOG(timer_detail, " Dynamic Timer pool before add.");
    dump_pool_locked();
    uint32_t place = 0;
    while (place < kDynamicIds && g_pool[place / 8] >> place % 8 & 1) place++;
    if (place == kDynamicIds) return 0;
    g_pool[place / 8] |= static_cast<uint8_t>(1U << place % 8);
    LOG(timer_detail, " Dynamic Timer pool after add.");
    dump_pool_locked();
    return kFirstDynamicId + place;
}

void release_id_locked(uint32_t id) {
    const auto signed_id = static_cast<int32_t>(id);
    if (signed_id < 0) {
        LOG(timer, "Invalid dynamic timer id %d.", signed_id);
        return;
    }
    if (id < kFirstDynamicId) return;
    LOG(timer_detail, " Dynamic Timer pool before del.");
    dump_pool_locked();
    const uint32_t place = id - kFirstDynamicId;
    if (place >= kDynamicIds) {
        LOG(timer, "Invalid dynamic timer id %d, bytecnt %d, bitcnt %d.", static_cast<int>(place),
            static_cast<int>(place / 8), static_cast<int>(place % 8));
        return;
    }
    g_pool[place / 8] &= static_cast<uint8_t>(~(1U << place % 8));
    LOG(timer_detail, " Dynamic Timer pool after del.");
    dump_pool_locked();
}

// make_locked returns a new node in the list, with its id; null when memory or ids run out.
cloudtunnel_timer_node *make_locked(uint32_t id) {
    auto *node = static_cast<cloudtunnel_timer_node *>(os_alloc(sizeof(cloudtunnel_timer_node)));
    if (!node) {
        LOG(error, "Timer malloc failed.");
        return nullptr;
    }
    node->id = id ? id : take_id_locked();  // before it is linked, so that no walk sees a timer without its id
    if (node->id == 0) {
        LOG(timer, "Daemon user timer reach max count, create failed.");
        os_free(node);
        return nullptr;
    }
    // Linked behind the first node, not at the tail: the firing order depends on it.
    cloudtunnel_link &head = cloudtunnel_timerlist.link;
    list_insert_after(head.next ? *head.next : head, node->link);
    cloudtunnel_timerlist.count++;
    return node;
}

void fire(Pass &pass, cloudtunnel_timer_node *node, uint64_t now) {
    if (node->periodic)
        node->last_s = now;
    else
        // By its id: where two timers have the same id, the first one in the list is deleted, be it this one or not.
        cloudtunnel_timer_del(node->id);
    LOG(timer, "Timer %d reach time out.", static_cast<int>(node->id));
    if (!node->callback) return;

    pass.running = node;
    node->callback(node->id, node->arg);
    if (!pass.running) timer_free(node);
    pass.running = nullptr;
}

void visit(Pass &pass, cloudtunnel_timer_node *node, uint64_t now) {
    if (node->id == 0) return;
    if (node->deleted) {
        const Lock hold(cloudtunnel_timerlistLock);
        remove_locked(node);
        return;
    }
    LOG(timer_detail, " Timer check last timer %ld.", static_cast<long>(node->last_s));
    LOG(timer_detail, " Timer check now timer %ld.", static_cast<long>(now));
    LOG(timer_detail, " Timer check period %ld.", static_cast<long>(node->period_ms));
    if (now - node->last_s >= node->period_ms / 1000) fire(pass, node, now);
}

}  // namespace

void CLOUDMGR_timer_init(void) {
    cloudtunnel_timerlist = {};
    list_init(cloudtunnel_timerlist.link);
    g_pool.fill(0);
    for (Pass *pass = g_passes; pass; pass = pass->outer) pass->next = &cloudtunnel_timerlist.link;
}

int CLOUDMGR_timer_deinit(void) {
    pthread_mutex_lock(&cloudtunnel_timerlistLock);
    for (auto &node : Each<cloudtunnel_timer_node>(cloudtunnel_timerlist.link)) remove_locked(&node);
    return pthread_mutex_unlock(&cloudtunnel_timerlistLock);
}

int cloudtunnel_timer_add(int32_t id, uint32_t periodic, uint64_t period_ms, void *arg,
                          cloudtunnel_timer_fn *callback) {
    Owned<void> owned_arg(arg);
    const uint64_t now = cloudtunnel_timer_run_time_nobuf();
    if (now == kNoUptime) {
        LOG(error, "Get run time error when add timer.");
        return -1;
    }

    const Lock hold(cloudtunnel_timerlistLock);
    if (cloudtunnel_timerlist.count >= kTimerMax) {
        LOG(timer, "Daemon user timer reach max count, create failed.");
        return -1;
    }
    const auto wanted = static_cast<uint32_t>(id);
    cloudtunnel_timer_node *node = wanted ? find_locked(wanted) : nullptr;
    if (node && !node->deleted) {
        LOG(timer, "Timer %d is already exit.", id);
        return id;
    }
    // A deleted node with this id is reused in its place in the list. Its old argument is not freed: a callback that
    // adds its own timer again may still use it.
    if (!node) node = make_locked(wanted);
    if (!node) return -1;

    node->last_s = now;
    node->arg = owned_arg.release();
    node->callback = callback;
    node->periodic = periodic;
    node->period_ms = period_ms;
    node->deleted = 0;
    LOG(timer, "Add user timer ok, timer id %d.", static_cast<int>(node->id));
    return static_cast<int>(node->id);
}

int cloudtunnel_timer_del(uint32_t id) {
    if (id == 0) return 0;
    const Lock hold(cloudtunnel_timerlistLock);
    cloudtunnel_timer_node *node = find_locked(id);
    if (!node)
        LOG(timer, "Del timer id %d is not exist.", static_cast<int>(id));
    else if (!node->deleted) {
        node->deleted = 1;
        LOG(timer, "Del user timer ok, timer id %d.", static_cast<int>(id));
        release_id_locked(id);
    }
    return 0;
}

int cloudtunnel_timer_refresh(uint32_t id) {
    const uint64_t now = cloudtunnel_timer_run_time_nobuf();
    if (now == kNoUptime) {
        LOG(error, "Get run time error when refresh timer.");
        return -1;
    }
    if (id == 0) return -1;
    const Lock hold(cloudtunnel_timerlistLock);
    if (cloudtunnel_timer_node *node = find_locked(id)) {
        node->last_s = now;
        LOG(timer, "Refresh user timer ok, timer id %d.", static_cast<int>(id));
    }
    return 0;
}

bool timer_armed(uint32_t id, cloudtunnel_timer_fn *callback) {
    const Lock hold(cloudtunnel_timerlistLock);
    for (const auto &node : Each<cloudtunnel_timer_node>(cloudtunnel_timerlist.link)) {
        if (node.id == id && node.callback == callback && !node.deleted) return true;
    }
    return false;
}

void cloudtunnel_timer_proc(void) {
    const uint64_t now = cloudtunnel_timer_run_time_nobuf();
    if (now == kNoUptime) return;
    cloudtunnel_link *const head = &cloudtunnel_timerlist.link;
    Pass pass = {.next = list_empty(*head) ? head : head->next, .outer = g_passes};
    g_passes = &pass;
    while (pass.next != head) {
        auto *node = record_of<cloudtunnel_timer_node>(pass.next);
        pass.next = node->link.next;
        visit(pass, node, now);
    }
    g_passes = pass.outer;
    timer_timeout_pending = 0;
}

int cloudtunnel_timer_slotnow(void) {
    const Lock hold(cloudtunnel_timerlistLock);
    return cloudtunnel_timerlist.count != 0;
}

void CLOUDTUNNEL_TIMER_Proc(void) {
    if (cloudtunnel_timer_slotnow() == 1) cloudtunnel_timer_proc();
}

int cloudtunnel_timer_settimer(void) {
    const int result = setitimer(ITIMER_REAL, &kPace, nullptr);
    LOG(init, result == 0 ? "Daemon timer create ok." : "Daemon timer create failed.");
    return result;
}

void cloudtunnel_timer_stoptimer(void) {
    setitimer(ITIMER_REAL, &kNoPace, nullptr);
    LOG(init, "Daemon timer stop ok.");
}

void CLOUDTUNNEL_TIMER_Stop(void) { cloudtunnel_timer_stoptimer(); }

// This runs as a signal handler, so it only sets a flag.
void cloudtunnel_timer_timerout(int signal_number) {
    if (signal_number == SIGALRM || signal_number == SIGVTALRM) timer_timeout_pending = 1;
}
