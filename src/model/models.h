// Models: where each one's platform is, and what its connection carries.
#pragma once

#include <cloudtunnel.h>

// The port that means a plain connection; every other port means TLS.
constexpr uint16_t kPlainPort = 80;

// cloudtunnel_socket_getUrlNodeByModelname returns the model's node, or null.
cloudtunnel_url_node *cloudtunnel_socket_getUrlNodeByModelname(const char *model);

// url_init makes the table and the cache empty without freeing; url_deinit frees them.
void url_init();
void url_deinit();
