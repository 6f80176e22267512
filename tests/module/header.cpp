#include "cloudtunnel_module.h"

int main() { return ctm_end() == CTM_NO_INIT ? 0 : 1; }
