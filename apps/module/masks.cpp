#include "masks.h"

#include <cloudtunnel.h>
#include <sys/random.h>

namespace module_program {

const uint8_t *Masks::next() {
    if (used_ == batch_.size()) {
        // getrandom gives up to 256 bytes at once or, on a kernel without it, none.
        if (getrandom(batch_.data(), batch_.size(), 0) != static_cast<ssize_t>(batch_.size()))
            return CLOUDMGR_ws_getMask();
        used_ = 0;
    }
    const uint8_t *mask = batch_.data() + used_;
    used_ += kMaskSize;
    return mask;
}

}  // namespace module_program
