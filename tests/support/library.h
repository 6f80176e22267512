// The library's tables, begun and ended without either init: no daemon, no shell command, no serial number; and what a
// module does with the library, over and over.
//
//   const int epfd = support::start_library();      // all tables empty, the event loop up
//   ...
//   support::release_library();                     // what the library still held is freed, its connections are closed
#ifndef TESTS_SUPPORT_LIBRARY_H
#define TESTS_SUPPORT_LIBRARY_H

#include <string>

#include "tests/support/wire.h"

namespace support {

int start_library();  // the epoll descriptor; throws when the loop does not come up

// Frees tunnels being set up, daemon link, connections (closed), models, loop, timers and modules, in that order.
void release_library();

// Sends one masked frame as a module does: the result of CLOUDMGR_ws_send.
int send_message(int sock, const std::string &body, int opcode = kText);

// Link ports, token, cookie and the order of header bits as they are in a fresh process.
void reset_settings();

}  // namespace support

#endif
