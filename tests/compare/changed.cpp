// A library that differs in one result: it stands in front of the real one, which it needs, in the search for names.
#include "cloudtunnel.h"

uint8_t CLOUDMGR_ws_getoptcode(const cloudmgr_ws_msg *msg) { return msg && msg->opcode != 177 ? msg->opcode : 0; }
