// What came of all runs: a row a scenario, and every finding with the command that repeats it.
#ifndef TESTS_TORTURE_REPORT_H
#define TESTS_TORTURE_REPORT_H

#include <map>
#include <string>
#include <vector>

#include "tests/torture/runs.h"

namespace torture {

// Whether a run that did not end well broke in OpenSSL's or json-c's own code, an allocation of theirs having failed.
bool third_partys_own(const Run &run, const Result &result);

class Report {
  public:
    explicit Report(std::string program) : program_(std::move(program)) {}

    void note_clean(const Run &run, const Result &result);
    void note(const Run &run, const Result &result);
    void print() const;
    bool good() const { return findings_ == 0; }

  private:
    struct Row {
        int calls = 0;                    // that can fail, each in every way
        int reruns = 0;                   // in which one of them failed
        std::map<std::string, int> ends;  // how these ended
    };

    void finding(const Run &run, const Result &result, const std::string &what);

    std::string program_;
    std::map<std::string, Row> rows_;
    std::vector<std::string> third_partys_;  // commands
    int findings_ = 0;
};

}  // namespace torture

#endif
