#include "cloudtunnel_module.h"

int main(void) { return ctm_end() == CTM_NO_INIT ? 0 : 1; }
