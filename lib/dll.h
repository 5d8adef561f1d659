// Binding a shared library at run time: one call loads it and fills a list of
// function-pointer variables, so the program runs without the library when it
// is absent.
#ifndef LUMETTA_DLL_H
#define LUMETTA_DLL_H

// Opaque library handle (a module handle on Windows, a dlopen handle
// elsewhere). NULL means "not bound".
typedef void* DLLHANDLE;

// Loads dllName into *handle and binds the functions named in the variable
// part: pairs of (address of a function-pointer variable cast to void**,
// exported name), ended by a NULL address:
//
//   double (*fnCos)(double) = nullptr;
//   static DLLHANDLE h = nullptr;
//   if (!DllGetAddresses(&h, "libm.so.6", (void**)&fnCos, "cos", NULL)) ...
//
// When *handle is already non-NULL the library counts as bound and nothing is
// done (result true). When a name is missing the library is released, that
// variable and *handle are set to NULL and the result is false; variables
// filled before it keep their values.
bool DllGetAddresses(DLLHANDLE* handle, const char* dllName, ...);

// Releases a handle from DllGetAddresses; NULL is ignored.
void DllFree(DLLHANDLE handle);

#endif
