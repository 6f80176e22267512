// Keeps the token, the cookie, the session id and the handshake key out of a log.
#pragma once

#pragma GCC visibility push(hidden)
namespace ctm {

// secrets_blank replaces the values behind "Cookie:", "JSESSIONID=", "Sec-WebSocket-Key:" and the like in a message of
// libcloudtunnel's log by "***", or by as much of it as fits: the text does not grow.
void secrets_blank(char *text);

}  // namespace ctm
#pragma GCC visibility pop
