// cloudtunnel-sim: a simulator of the platform and the daemon. See --help.

#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <optional>

#include "common/program.h"
#include "json_reader.h"
#include "junit_reader.h"
#include "keylog.h"
#include "output_file.h"
#include "recorder.h"
#include "recording.h"
#include "replay.h"
#include "runner.h"
#include "text.h"
#include "text_reader.h"

namespace sim {
namespace {

constexpr auto kShutdownTime = std::chrono::milliseconds(300);  // for the coroutines of closed connections to end

// allow_descriptors lets the process have as many descriptors as the system allows it: each tunnel takes two, one of
// them for the link of its module.
void allow_descriptors() {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// catch_signals has every signal that would end the program end it in order: none must leave the socket file behind.
// A SIGHUP that is ignored at start stays ignored: with nohup the program is to outlive its terminal.
void catch_signals(asio::signal_set &signals) {
    for (const int number : {SIGINT, SIGTERM, SIGPIPE}) signals.add(number);
    struct sigaction hang_up = {};
    ::sigaction(SIGHUP, nullptr, &hang_up);
    if (hang_up.sa_handler != SIG_IGN) signals.add(SIGHUP);
}

// The recording and its file.
class RecordFile {
  public:
    RecordFile(Simulator &simulator, const Options &options)
        : file_(options.record, options.record_secrets ? OutputFile::For::owner : OutputFile::For::all,
                OutputFile::At::start),
          recorder_(simulator.events, simulator.tunnel_data,
                    options.record_secrets ? Recorder::With::secrets : Recorder::With::replaced_secrets,
                    [this](std::string_view line) { file_.write_line(line); }) {}

    // finish returns false when something could not be written.
    bool finish() {
        recorder_.finish();
        return file_.good();
    }

  private:
    OutputFile file_;
    Recorder recorder_;
};

// The readers that the options ask for.
class Readers {
  public:
    Readers(Simulator &simulator, const Options &options) : options_(options) {
        EventStream &events = simulator.events;
        if (options.json != "-") text_.emplace(events, options.quiet);
        if (!options.json.empty()) json_.emplace(events, options.json, options.json_detail);
        if (!options.record.empty()) record_.emplace(simulator, options);
        if (!options.keylog.empty()) keylog_.emplace(simulator.platform->tls(), options.keylog);
        if (options.junit.empty()) return;
        junit_file_.open(options.junit);  // at start: a file that cannot be written is better known before the steps
        if (!junit_file_) throw std::runtime_error(cat("cannot write ", options.junit));
        junit_.emplace(events);
    }

    // finish writes what is written at the end. It returns `status`, or 1 when a reader could not write.
    int finish(int status) {
        if (text_ && std::ferror(stdout) != 0) status = failed("-");
        if (json_ && !json_->good()) status = failed(options_.json);
        if (record_ && !record_->finish()) status = failed(options_.record);
        if (keylog_ && !keylog_->good()) status = failed(options_.keylog);
        if (junit_ && !(junit_file_ << junit_->report() << std::flush)) status = failed(options_.junit);
        return status;
    }

  private:
    static int failed(const std::string &file) {
        common::complain(kProgramName, cat("cannot write ", file == "-" ? "standard output" : file));
        return 1;
    }

    const Options &options_;
    std::optional<TextReader> text_;
    std::optional<JsonReader> json_;
    std::optional<RecordFile> record_;
    std::optional<KeyLog> keylog_;
    std::optional<JunitReader> junit_;
    std::ofstream junit_file_;
};

// run_to_end runs the simulator until the work, a signal or the end of the program's time stop it; it returns the
// status to exit with. The work is the runner's or a replay's.
template <class Work>
int run_to_end(Simulator &simulator, const Options &options, asio::signal_set &signals, Work &work) {
    int status = 0;
    const auto end = [&](int with) {
        status = with;
        simulator.io.stop();
    };
    const auto cut_short = [&](const char *by) {
        if (work.running()) common::complain(kProgramName, cat("ended by ", by, " before ", Work::kEnd));
        simulator.events.emit({.kind = Kind::ended_early, .source = Source::sim, .cause = by});
        work.skip_rest();
        end(work.running() ? 1 : 0);
    };

    signals.async_wait([&](error_code cancelled, int number) {
        if (!cancelled) cut_short(number == SIGPIPE ? "a pipe that nobody reads" : "a signal");
    });
    asio::steady_timer life(simulator.io, options.life);
    life.async_wait([&](error_code cancelled) {
        if (!cancelled) cut_short("--seconds");
    });
    co_spawn(simulator.io, work.run(), [&](const std::exception_ptr &failure, int with) {
        if (failure) std::rethrow_exception(failure);
        end(with);
    });

    simulator.io.run();
    simulator.stop();
    simulator.io.restart();
    const auto latest = Clock::now() + kShutdownTime;
    while (!simulator.empty() && simulator.io.run_one_until(latest) > 0) {
    }
    return status;
}

// as_recorded are the options for the replay of a recording: what took part in it takes part again.
Options as_recorded(const Recording &recording, Options options) {
    options.with_platform = recording.has_platform;
    options.with_daemon = recording.has_daemon;
    options.platform.plain = recording.plain;
    if (recording.plain && options.platform.port == 0) options.platform.port = *recording.ports.begin();
    return options;
}

int serve(const Options &options) {
    allow_descriptors();
    Simulator simulator(options);
    Readers readers(simulator, options);
    asio::signal_set signals(simulator.io);
    catch_signals(signals);  // before the socket file is made
    simulator.start();
    Runner runner(simulator, options);
    return readers.finish(run_to_end(simulator, options, signals, runner));
}

int replay(const Options &given) {
    const Recording recording = read_recording_file(given.replay);
    if (!recording.has_platform && given.platform.port == 0) {
        throw BadInput("a recording without a platform needs --port: the daemon must hand one out");
    }
    const Options options = as_recorded(recording, given);
    check_options(options);
    Simulator simulator(options);
    Readers readers(simulator, options);
    asio::signal_set signals(simulator.io);
    catch_signals(signals);
    Replay work(simulator, recording, options);
    simulator.start();
    return readers.finish(run_to_end(simulator, options, signals, work));
}

}  // namespace
}  // namespace sim

int main(int argc, char **argv) {
    sim::Options options;
    const common::Program program = {
        .name = sim::kProgramName,
        .version = CLOUDTUNNEL_SIM_VERSION,
        .options = sim::option_table(options),
        .help = sim::help_text,
        .run =
            [&options] {
                sim::check_options(options);
                return options.replay.empty() ? sim::serve(options) : sim::replay(options);
            },
    };
    return common::run_program(program, {argv + 1, argv + argc});
}
