// Stage: where a scenario plays. The library's components are up, platforms answer as the scenario says, and the
// outcome is what the module is notified of: handed off or failed. Nothing here takes for granted that a step succeeds,
// as any call of the library may fail once; what must hold all the same is expected in the step itself.
//
//   Line line = stage.lead(Wire::tls);
//   if (!stage.bring_up(line)) return "refused";    // notified exactly once, whichever it was
//   stage.exchange(line);                           // a frame each way
//   stage.hang_up(line);
#ifndef TESTS_TORTURE_STAGE_H
#define TESTS_TORTURE_STAGE_H

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/daemon/modules.h"
#include "tests/support/daemon.h"
#include "tests/tunnel/tunnel_steps.h"

namespace torture {

using support::Wire;

struct Line;
using Answer = std::function<void(Line &)>;  // may be none, or the end of the connection

// How a platform answers; null: as a good one does.
struct Platform {
    bool takes_part = true;  // false: it does not even shake hands
    Answer to_connection = nullptr;
    Answer to_request = nullptr;
    Answer to_registration = nullptr;
};

// A tunnel and the platform at its end.
struct Line : Tunnel {
    Platform platform = {};
    std::deque<std::string> later = {};  // what the platform still has to say: a piece at each of its steps
    int connections = 0;                 // of the server, that are answered below
    bool upgraded = false;
    bool registered = false;
    size_t handed_off_before = 0;  // notified of this model before its last start
    size_t failures_before = 0;
};
using Lines = std::vector<Line *>;

class Stage : public TunnelSteps<support::LibraryTest> {
  public:
    using ProcessTest::callbacks;
    using ProcessTest::clock;
    using ProcessTest::epfd;
    using ProcessTest::log;
    using ProcessTest::pass_time;
    using ProcessTest::release_library;
    using ProcessTest::resolver;
    using TunnelSteps::good_answer;
    using TunnelSteps::prepare_port;

    Stage();

    // A model that leads to a server of its own, and the two halves of that.
    static Line lead(Wire wire, Platform platform = {}, const std::string &model = "model");
    static Line make_line(Wire wire, Platform platform = {}, const std::string &model = "model");
    static int lead_to(const Line &line, const char *host = "127.0.0.1");

    // Runs the loop, the platforms answering, until the condition holds or nothing happens any more.
    bool pump(const Lines &lines, const std::function<bool()> &done);
    void pump() {
        pump({}, [] { return false; });
    }
    // The same, and time passes, too: longer than every time-out of the library.
    bool wait_for(const Lines &lines, const std::function<bool()> &done);

    static int start_model(const std::string &model) { return TunnelSteps::start(model); }
    // Starts a set-up; where it is refused the module is notified at once.
    void start(Line &line);
    // Waits until the condition holds, if need be by ending the connections of the platforms of those modules that were
    // notified of nothing yet: a registration that could not be sent, and a time-out that could not be armed, leave the
    // end to the platform.
    void await(const Lines &lines, const std::function<bool()> &done);
    // Waits until every module is notified, exactly once, of what became of its started tunnel. The number of those
    // that were handed off.
    size_t await(const Lines &lines);
    bool bring_up(Line &line) {
        start(line);
        return await({&line}) == 1;
    }

    // The tunnel was handed off and its module has been notified since that it is gone.
    bool lost(const Line &line) const { return handed_off(line) > 0 && failures(line) > 0; }
    // A frame each way. False: the tunnel is lost.
    bool exchange(Line &line);
    // The module closes its connection: the platform sees the end, and nobody is notified.
    void hang_up(Line &line);

    // Nothing of a tunnel is left in any table.
    void expect_rest();
    // A tunnel from start to end, with nothing that fails: the process is as good as new.
    void expect_a_fresh_tunnel(Wire wire);
    void expect_a_good_life(Line &line);

    // A module process: the whole library in place of its components. "up", "refused" (-1) or "torn down" (a closed
    // descriptor).
    std::string start_process();
    bool linked() const { return g_iCloudClientConnFd != -1; }
    void wait_for_link();
    // The daemon sends the model's tunnel data. False: the module was not called.
    bool notify(const Line &line);

    std::unique_ptr<support::Daemon> daemon;
    std::unique_ptr<support::NoDaemon> no_daemon;
    Modules modules;

  private:
    void TestBody() override {}
    // What the module was notified of since the last start.
    size_t handed_off(const Line &line) const;
    size_t failures(const Line &line) const;
    size_t notified(const Line &line) const { return handed_off(line) + failures(line); }
    void forget_notified(Line &line) const;
    void serve(Line &line);

    std::vector<std::string> handed_off_;  // models
};

}  // namespace torture

#endif
