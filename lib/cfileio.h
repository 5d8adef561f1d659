// Whole-file reads and writes, shared by the file helpers of CStr and CMem.
#ifndef LUMETTA_CFILEIO_H
#define LUMETTA_CFILEIO_H

// Reads a whole file into a new[] block followed by `extra` unused bytes, so
// that the caller can add a terminator; an empty file gives a NULL block and
// succeeds. Fails for an empty name, a file that won't open, one larger than
// maxSize, or one that yields fewer bytes than its size promised.
bool ReadWholeFile(const char* name, long long maxSize, int extra, char** block, long long* size);
// Creates (or truncates) the file and writes n bytes; true only when every
// byte was written and the file closed cleanly.
bool WriteWholeFile(const char* name, const void* p, long long n);

#endif
