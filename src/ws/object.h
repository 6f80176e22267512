// The ws object: what one connection's opening handshake needs.
#pragma once

#include <cloudtunnel.h>

// ws_of returns the ws object that an owner holds, null where either is missing.
inline cloudmgr_ws_object *ws_of(const cloudmgr_ws_owner *owner) { return owner ? owner->ws : nullptr; }
