// The world that the compared library runs in. Sockets, epoll, TLS sessions, time, names, files, chance and memory are
// the driver's own: the same seed makes the same world for both builds, to the order of events and the place where a
// piece of data is cut, and nothing waits. What the library asks of it is written to the trace.
//
// The functions of libc, OpenSSL and json-c that the library calls are defined in world.cpp, in the executable, and so
// stand before the real ones. They act on the library's calls alone: Inside is held while the library runs, Outside
// while the driver does.
#ifndef TESTS_COMPARE_WORLD_H
#define TESTS_COMPARE_WORLD_H

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace compare {

// Chance, the same in every process and on every machine.
class Chance {
  public:
    explicit Chance(uint64_t seed) : state_(seed) {}
    uint64_t next();
    int below(int count) { return static_cast<int>(next() % static_cast<uint64_t>(count)); }
    int between(int low, int high) { return low + below(high - low + 1); }
    bool in(int count) { return below(count) == 0; }  // once in `count`
    template <class List>
    auto &of(List &list) {
        return list[static_cast<size_t>(below(static_cast<int>(std::size(list))))];
    }

  private:
    uint64_t state_;
};

// Both remember what was in force and errno, which a call of the driver must not change for the library.
class Side {
  public:
    explicit Side(bool inside);
    ~Side();
    Side(const Side &) = delete;
    Side &operator=(const Side &) = delete;
    static bool inside();

  private:
    bool before_;
    int error_;
};
struct Inside : Side {
    Inside() : Side(true) {}
};
struct Outside : Side {
    Outside() : Side(false) {}
};

// One call that fails, or a row of them.
struct Fault {
    const char *function;  // "memory" for all that allocate
    int after;             // calls that pass before the first that fails
    int times;
    int error;
};

struct Socket {
    enum class State { fresh, connecting, up, refused };
    bool local = false;  // to the daemon
    State state = State::fresh;
    int error = 0;               // of a refused connect
    std::deque<std::string> in;  // what the library can read; with TLS a record each
    std::string out;             // what it has written and the peer has not looked at yet
    size_t room = SIZE_MAX;      // bytes that can be written
    bool ended = false;
    bool reset = false;
    int stage = 0;                  // of the peer's script
    std::deque<std::string> later;  // what the peer sends piece by piece
    // epoll
    bool watched = false;
    uint32_t events = 0;
    int data_fd = -1;
    bool changed = false;  // since the last edge-triggered report
};

struct World {
    explicit World(uint64_t seed) : chance(seed) {}

    Chance chance;
    std::map<int, Socket> sockets;
    std::set<int> epolls;
    int last_ready = -1;  // events are reported in turns
    std::vector<Fault> faults;
    bool daemon_up = false;
    int64_t uptime = 1000;
    int64_t time_of_day = 1700000000;
    std::string command_output;
    int calls = 0;  // to the world, as a bound of what never ends

    int add_socket(bool local);
    void feed(int fd, std::string bytes);
};
extern World *world;

// Which differences are left out by name.
bool allowed(const char *name);
void allow(const std::string &name);
const std::vector<const char *> &allowances();  // all the names there are

// Blocks that the library allocated and nobody has freed.
int blocks_left();
bool is_block(const void *address);         // one of them
void *give(const void *data, size_t size);  // a block as the library would allocate it, to be handed over

// Every function that can be made to fail.
const std::vector<const char *> &fallible();

// Ends the case, and this process.
[[noreturn]] void finish(const char *why);

}  // namespace compare

#endif
