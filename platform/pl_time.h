// Broken-down times, local and UTC, that are safe to take from any thread:
// the listing dates, log stamps and HTTP dates all come from here.
#ifndef LUMETTA_PL_TIME_H
#define LUMETTA_PL_TIME_H

#include <ctime>

// False when the time cannot be represented.
bool PlLocalTime(time_t t, struct tm* out);
bool PlUtcTime(time_t t, struct tm* out);

#endif
