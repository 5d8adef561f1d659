// Broken-down times through the runtime's checked calls, which keep no
// shared buffer.
#include "pl_time.h"

bool PlLocalTime(time_t t, struct tm* out) { return localtime_s(out, &t) == 0; }
bool PlUtcTime(time_t t, struct tm* out) { return gmtime_s(out, &t) == 0; }
