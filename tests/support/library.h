// The library's tables, begun and ended without either init: no daemon, no shell command, no serial number.
//
//   const int epfd = support::start_library();      // all tables empty, the event loop up
//   ...
//   support::release_library();                     // what the library still held is freed, its connections are closed
#ifndef TESTS_SUPPORT_LIBRARY_H
#define TESTS_SUPPORT_LIBRARY_H

namespace support {

int start_library();  // the epoll descriptor; throws when the loop does not come up

// Frees tunnels being set up, daemon link, connections (closed), models, loop, timers and modules, in that order.
void release_library();

// Link ports, token, cookie and the order of header bits as they are in a fresh process.
void reset_settings();

}  // namespace support

#endif
