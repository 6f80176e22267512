// The reader that keeps the steps and writes them as test cases, in the XML format of JUnit that CI systems read.
#pragma once

#include <string>
#include <vector>

#include "event_stream.h"

namespace sim {

class JunitReader {
  public:
    explicit JunitReader(EventStream &events);

    // report is the whole document. A step that has started and not ended counts as failed.
    [[nodiscard]] std::string report() const;

  private:
    enum class Result { running, passed, failed, skipped };
    struct Case {
        std::string line;
        Result result;
        std::chrono::steady_clock::duration start;
        std::chrono::steady_clock::duration end;
        std::string cause;
    };

    void read(const Event &event);
    void end(const Event &event, Result result);

    std::vector<Case> cases_;
    Subscription subscription_;
};

}  // namespace sim
