// Broken-down times through the reentrant C library calls.
#include "pl_time.h"

bool PlLocalTime(time_t t, struct tm* out) { return localtime_r(&t, out) != nullptr; }
bool PlUtcTime(time_t t, struct tm* out) { return gmtime_r(&t, out) != nullptr; }
