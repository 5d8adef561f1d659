// Whole-file reads and writes shared by CStr and CMem.
#ifndef LUMETTA_CFILEIO_H
#define LUMETTA_CFILEIO_H

// Reads the whole file into a new[] block with `extra` spare bytes after the
// data (NULL block for an empty file). False when the name is empty, the
// file can't be opened, its size is above maxSize or the read comes up short.
bool ReadWholeFile(const char* name, long long maxSize, int extra, char** block, long long* size);
// Writes n bytes to a new file; true when all were written and closed.
bool WriteWholeFile(const char* name, const void* p, long long n);

#endif
