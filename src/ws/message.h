// A ws message that is destroyed at the end of its scope.
#pragma once

#include <cloudtunnel.h>

#include <memory>

struct MsgFree {
    void operator()(cloudmgr_ws_msg *msg) const { CLOUDMGR_ws_msg_destory(msg); }
};
using OwnedMsg = std::unique_ptr<cloudmgr_ws_msg, MsgFree>;
