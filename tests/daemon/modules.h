// Modules: the callbacks of a process's modules. They get no arguments, so each module has a number of its own, and
// what is called is written down as "open 1", "close 2", "third 3".
//
//   Modules modules;
//   modules.add<1>("model", "sub");             // CLOUDTUNNEL_MODULE_Register
//   EXPECT_EQ(modules.calls, (std::vector<std::string>{"open 1"}));
//   modules.result = -1;                        // what the next callbacks return
//   modules.during = [&] { ... };               // run inside each, after it is written down
#ifndef TESTS_CLIENT_MODULES_H
#define TESTS_CLIENT_MODULES_H

#include <functional>
#include <string>
#include <vector>

#include "cloudtunnel.h"

class Modules {
  public:
    Modules() { current = this; }
    ~Modules() { current = nullptr; }
    Modules(const Modules &) = delete;
    Modules &operator=(const Modules &) = delete;

    template <int Number>
    static CLOUDTUNNEL_MODULE_REG reg(const char *name, const char *sub_name) {
        return {name, sub_name, [] { return current->note("open", Number); },
                [] { return current->note("close", Number); }, [] { return current->note("third", Number); }};
    }
    template <int Number>
    static int add(const char *name, const char *sub_name = "sub") {
        const CLOUDTUNNEL_MODULE_REG record = reg<Number>(name, sub_name);
        return CLOUDTUNNEL_MODULE_Register(&record);
    }

    std::vector<std::string> calls;
    int result = 0;
    std::function<void()> during;

  private:
    int note(const char *what, int number) {
        calls.push_back(std::string(what) + ' ' + std::to_string(number));
        if (during) during();
        return result;
    }

    static inline Modules *current = nullptr;
};

#endif
