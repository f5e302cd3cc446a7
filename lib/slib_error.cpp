#include "lib/slib_error.h"

namespace {
int g_error_code = 0;
}

void SLIBCErrSet(int code) { g_error_code = code; }

int SLIBCErrGet(void) { return g_error_code; }
