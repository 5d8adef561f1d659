// The library's own printf engine: formats into a buffer that grows on the
// heap, knows CStr (%a, given a const CStr*), and quotes for SQL (%q, %Q).
#ifndef LUMETTA_CPRINTF_H
#define LUMETTA_CPRINTF_H

#include <cstdarg>
#include <cstddef>

typedef void* (*QS_REALLOC)(void* p, size_t n);

// Formats into buf (bufsize bytes), growing through realloc_fn when given.
// internal != 0 enables the internal-only conversions (%z).
char* QsIntPrintf(QS_REALLOC realloc_fn, int internal, char* buf, int bufsize, const char* fmt, va_list ap);
// Heap result, freed by the caller with free(); NULL on failure.
char* QsMPrintf(const char* fmt, ...);
char* QsVmPrintf(const char* fmt, va_list ap);
// At most size - 1 characters and a NUL into buf; returns buf.
char* QsSnPrintf(int size, char* buf, const char* fmt, ...);

#endif
