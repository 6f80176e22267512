// The connect procedure's time-out.
#pragma once

#include <cstdint>

// cloudtunnel_socket_connectTimeout is the timer callback that ends a connection that did not come up in time.
// `sockArg` points to the socket's number.
int cloudtunnel_socket_connectTimeout(uint32_t timerId, void *sockArg);
