// Random bytes from the operating system's own source, for secrets such as
// the server's access key. Never a seeded user-space generator.
#ifndef LUMETTA_PL_RANDOM_H
#define LUMETTA_PL_RANDOM_H

// Fills n bytes; false when the system could not give them all.
bool PlRandomBytes(void* buf, int n);

#endif
