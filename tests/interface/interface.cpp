// The same checks, compiled as C++.
#include "interface.c"
