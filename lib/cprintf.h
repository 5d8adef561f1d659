// The library's own printf engine: formats into a buffer that grows on the
// heap, knows CStr, and quotes for SQL.
//
// Conversions beyond the usual d i u o x X c s f e E g G p n %:
//   %a  the argument is a const CStr* (pass the address of a CStr, not the
//       object): QsMPrintf("%a", &name). An empty or NULL one prints nothing.
//   %S  same as %s.
//   %q  the string with every ' doubled; NULL prints "(NULL)".
//   %Q  like %q but enclosed in '...'; NULL prints NULL (no quotes).
//   %z  (internal mode only) a heap string printed and then released with
//       free().
// Differences from the runtime's printf that callers rely on:
//   - %s of NULL prints nothing; %ls takes a wchar_t string.
//   - 'l' reads a long, "ll" and 'L' a long long; %p is always 64 bits.
//     There are no 'h', 'j', 'z' or 't' modifiers: "%zu" prints "%zu" (or
//     takes a string in internal mode); cast sizes to long long and use %lld.
//   - width is capped at 990, precision at 960 (strings: no cap).
//   - floating point carries at most 16 significant digits, then zeros;
//     values beyond 1e+/-350 (and infinities, NaN) print "NaN".
//   - %c with a precision repeats the character that many times.
//   - an unknown conversion is copied to the output as '%' plus its letter.
#ifndef LUMETTA_CPRINTF_H
#define LUMETTA_CPRINTF_H

#include <cstdarg>
#include <cstddef>

// Growth function of the result buffer. Heap results are released by callers
// with free(), so it must be compatible with free() (the runtime realloc is).
typedef void* (*QS_REALLOC)(void* p, size_t n);

// Formats into buf (bufsize bytes), growing through realloc_fn when given.
// internal != 0 enables the internal-only conversions (%z).
// Without realloc_fn the text is cut to bufsize - 1 characters and buf is
// returned. With it the result is always a heap block of about the text's
// size (buf itself is never returned), or NULL when growing failed.
char* QsIntPrintf(QS_REALLOC realloc_fn, int internal, char* buf, int bufsize, const char* fmt, va_list ap);
// Heap result, freed by the caller with free(); NULL on failure.
char* QsMPrintf(const char* fmt, ...);
char* QsVmPrintf(const char* fmt, va_list ap);
// At most size - 1 characters and a NUL into buf; returns buf.
char* QsSnPrintf(int size, char* buf, const char* fmt, ...);

// The formatter itself, for callers with their own destination (streams):
// out(sink, text, n) receives the output piece by piece (text is not
// NUL-terminated). Gives the output length, or -1 for a format that stops
// on a bare '%' (or mid-conversion) or when quoting ran out of memory.
typedef void (*QS_OUTPUT)(void* sink, const char* text, int n);
int QsVxPrintf(QS_OUTPUT out, void* sink, int internal, const char* fmt, va_list ap);

#endif
