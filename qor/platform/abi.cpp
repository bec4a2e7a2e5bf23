#include "export.h"

const char qorAbi_1 = 1;
