#include "cloudtunnel.h"

int main(void) { return CLOUDTUNNEL_LIB_Init(NULL) == -1 ? 0 : 1; }
