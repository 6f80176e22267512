// How the platform behaves where a real one may let a module down. It can change while the program runs.
#pragma once

#include <string>
#include <string_view>

namespace sim {

enum class UpgradeAnswer { accept, wrong_accept, silence, close };
enum class RegistrationAnswer { text, binary, malformed, silence, close };

struct Behaviour {
    UpgradeAnswer upgrade = UpgradeAnswer::accept;
    int answer_status = 101;
    RegistrationAnswer registration = RegistrationAnswer::text;
    int ret_code = 0;
    int opt_type = 1;
    bool lenient = false;     // report a wrong upgrade request or registration, and go on
    bool mask = false;        // mask the platform's own frames
    bool any_answer = false;  // take any message as the answer to a request
};

// set_behaviour changes the behaviour called `name`. It returns an empty text, or what is wrong with name or value.
std::string set_behaviour(Behaviour &behaviour, std::string_view name, std::string_view value);

}  // namespace sim
