#include "cloudtunnel.h"

int main() { return CLOUDTUNNEL_LIB_Init(nullptr) == -1 ? 0 : 1; }
