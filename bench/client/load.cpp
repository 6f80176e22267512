// The load that every client carries, and main: each client is one program, made of this file and its own.
//
// Usage: bench-CLIENT --port N [--tls] [--core N] --job echo|flood|setup|heap [--size N] [--tunnels N]
//        (--seconds S | --messages N [--waiting])
//
// It writes one line, "messages N seconds S queued S": what was done in how long, and how long the process waited for
// its core. With --messages the loop, bench_measured, makes exactly the same turns in every run that is --waiting: it
// is what counts of system calls and instructions are taken from.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "client/client.h"
#include "client/measured.h"
#include "common/upgrade.h"

namespace bench {
namespace {

constexpr double kSetupLimit = 30;  // seconds that a set-up, or the lack of any message, may take
constexpr size_t kUnderWay = 32;    // set-ups at once: the library's limit
constexpr int kTurnsAClock = 64;    // the clock is read this seldom
constexpr uint64_t kFewest = 4;     // messages, however long they take
constexpr double kWarmUp = 0.1;     // part of the time that goes by before it counts
constexpr size_t kHeapBase = 28;    // tunnels that are open before the heap is looked at
constexpr size_t kFillers = 4096;   // blocks that fill the holes of a heap
constexpr size_t kFiller = 1033;    // bytes: malloc's cache has smaller ones

struct Job {
    std::string kind;
    size_t size = 0;
    size_t tunnels = 1;
    double seconds = 0;
    uint64_t messages = 0;  // 0: `seconds` counts
    bool waiting = false;
};

Job read_job(const Options &options) {
    Job job = {.kind = options.text("--job", "echo"),
               .size = static_cast<size_t>(options.number("--size", 16)),
               .tunnels = static_cast<size_t>(options.number("--tunnels", 1)),
               .seconds = options.seconds("--seconds", 0),
               .messages = static_cast<uint64_t>(options.number("--messages", 0)),
               .waiting = options.has("--waiting")};
    if (job.kind != "echo" && job.kind != "flood" && job.kind != "setup" && job.kind != "heap")
        throw Failure("--job '" + job.kind + "' is neither echo, flood, setup nor heap");
    if (job.tunnels == 0) throw Failure("--tunnels 0 is no load");
    if (job.kind != "heap" && (job.seconds > 0) == (job.messages > 0))
        throw Failure("either --seconds or --messages is needed");
    return job;
}

class Load : public Listener {
  public:
    Load(const Target &target, const Options &options, FILE *report)
        : report_(report),
          job_(read_job(options)),
          registered_(job_.tunnels),
          payload_(job_.size, 'e'),
          client_(make_client(target, options, *this)) {}

    void run() {
        if (job_.kind == "heap") return run_heap();
        if (job_.kind == "setup") {
            set_up_once();
            return measure();
        }
        open_to(job_.tunnels);
        // A flood of a fixed number is shared by all tunnels.
        const std::string order = std::string(kFlood) + std::to_string(job_.size) + " " +
                                  std::to_string((job_.messages + job_.tunnels - 1) / job_.tunnels);
        echoing_ = job_.kind == "echo";
        if (job_.waiting) fill_heap();
        for (size_t tunnel = 0; tunnel < job_.tunnels; tunnel++) {
            if (echoing_)
                client_->send(tunnel, Opcode::binary, payload_);
            else
                client_->send(tunnel, Opcode::text, bytes_of(order));
        }
        measure();
    }

    // measured is the part of the run that counts.
    void measured() {
        if (job_.kind == "setup")
            run_setups();
        else if (job_.messages > 0)
            turn_until([this] { return messages_ >= job_.messages; });
        else
            turn_for(job_.seconds);
    }

    void upgraded(size_t tunnel) override { client_->send(tunnel, Opcode::text, bytes_of(kRegistration)); }

    void registered(size_t tunnel) override {
        registered_[tunnel] = true;
        open_++;
    }

    void received(size_t tunnel, Bytes message) override {
        if (!registered_[tunnel]) {
            if (!std::equal(message.begin(), message.end(), kAnswer.begin(), kAnswer.end()))
                throw Failure("the registration was not accepted");
            return registered(tunnel);
        }
        if (message.size() != job_.size) throw Failure("a message of another size");
        messages_++;
        if (echoing_) client_->send(tunnel, Opcode::binary, payload_);
    }

  private:
    // turn_until turns until `done`, and fails where nothing comes any more.
    template <typename Done>
    void turn_until(Done done) {
        auto last = Clock::now();
        uint64_t seen = messages_ + open_;
        for (int turns = 0; !done(); turns++) {
            if (job_.waiting) client_->wait();
            client_->turn();
            if (turns % kTurnsAClock != 0) continue;
            if (seen != messages_ + open_) {
                seen = messages_ + open_;
                last = Clock::now();
            } else if (seconds_since(last) > kSetupLimit) {
                throw Failure("nothing came for " + std::to_string(static_cast<int>(kSetupLimit)) + " s");
            }
        }
    }

    void turn_for(double seconds) {
        const auto start = Clock::now();
        turn_until([&, turns = 0, ticks = 0]() mutable {
            if (++turns % kTurnsAClock != 0) return false;
            const double passed = seconds_since(start);
            if (passed > ticks + 1) {
                client_->tick();
                ticks++;
            }
            return passed >= seconds && messages_ >= kFewest;
        });
    }

    void open_to(size_t count) {
        size_t asked = open_;
        while (open_ < count) {
            for (; asked < count && asked - open_ < kUnderWay; asked++) client_->open(asked);
            const size_t before = open_;
            turn_until([&] { return open_ > before; });
            client_->tick();
        }
    }

    void measure();

    // fill_heap fills the holes that the set-ups left. No two runs leave the same ones, and what malloc does to find
    // one would vary what is counted of a message by a tenth.
    void fill_heap() {
        fillers_.reserve(kFillers);
        while (fillers_.size() < kFillers) fillers_.emplace_back(new uint8_t[kFiller]);
    }

    void set_up_once() {
        open_to(1);
        client_->close(0);
        registered_[0] = false;
        open_ = 0;
        messages_++;
    }

    void run_setups() {
        const auto start = Clock::now();
        while (job_.messages > 0 ? messages_ < job_.messages : seconds_since(start) < job_.seconds) set_up_once();
    }

    void run_heap() {
        open_to(std::min(kHeapBase, job_.tunnels - 1));
        const size_t base = open_;
        const size_t before = heap_bytes();
        open_to(job_.tunnels);
        fprintf(report_, "heap %zu\n", (heap_bytes() - before) / (job_.tunnels - base));
    }

    FILE *report_;
    Job job_;
    std::vector<bool> registered_;
    std::vector<uint8_t> payload_;
    uint64_t messages_ = 0;
    size_t open_ = 0;
    bool echoing_ = false;
    std::vector<std::unique_ptr<uint8_t[]>> fillers_;
    std::unique_ptr<Client> client_;  // last: what it still hands up finds the rest in place
};

void Load::measure() {
    if (job_.messages == 0 && job_.kind != "setup") turn_for(job_.seconds * kWarmUp);
    messages_ = 0;
    const double queued = queued_seconds();
    const auto start = Clock::now();
    bench_measured([](void *load) { static_cast<Load *>(load)->measured(); }, this);
    const double seconds = seconds_since(start);
    fprintf(report_, "messages %lu seconds %.6f queued %.6f\n", messages_, seconds, queued_seconds() - queued);
}

void run_load(int argc, char **argv) {
    const Options options(argc, argv,
                          {"--port=", "--tls", "--core=", "--job=", "--size=", "--tunnels=", "--seconds=",
                           "--messages=", "--waiting", "--log=", "--masks="});
    settle(static_cast<int>(options.number("--core", -1)));
    const Target target = {.port = static_cast<uint16_t>(options.number("--port", 0)), .tls = options.has("--tls")};
    if (target.port == 0) throw Failure("--port is needed");
    // What a client prints goes nowhere, as on a device; what the run came to goes where it would have gone.
    const std::unique_ptr<FILE, int (*)(FILE *)> report(fdopen(dup(STDOUT_FILENO), "w"), fclose);
    if (!report || !freopen("/dev/null", "w", stdout)) fail_with_errno("standard output");
    Load(target, options, report.get()).run();
}

}  // namespace
}  // namespace bench

int main(int argc, char **argv) {
    return bench::run_program(bench::kClientName, [&] { bench::run_load(argc, argv); });
}
