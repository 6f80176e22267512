// What must not stand in a log by itself: the token, the cookie, the session id and the handshake key.
#pragma once

#pragma GCC visibility push(hidden)
namespace ctm {

// secrets_blank replaces, in a text of the library's log, the values behind "Cookie:", "JSESSIONID=",
// "Sec-WebSocket-Key:" and the like by "***", in place: the text gets no longer.
void secrets_blank(char *text);

}  // namespace ctm
#pragma GCC visibility pop
