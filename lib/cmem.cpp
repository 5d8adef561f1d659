// Byte buffers: CMem (one counted block), CMemList (pieces flattened once at
// the end) and CCharVect (a null-ended vector of strings), in that order.
#include "cmem.h"
#include "cfileio.h"
#include "clistcore.h"

#include <climits>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "cstr.h"

// ---- CMem ----

CMem::CMem() : Ptr(nullptr), Len(0) {}
CMem::CMem(unsigned long long n) : Ptr(nullptr), Len(0) { Alloc(n); }
CMem::CMem(const char* s) : CMem(s, s ? strlen(s) : 0) {}
CMem::CMem(const CStr& s) : CMem(s.Str, s.Len > 0 ? (unsigned long long)s.Len : 0) {}

CMem::CMem(const void* p, unsigned long long n) : Ptr(nullptr), Len(0) {
  if (!p || !n) return;
  Alloc(n);
  if (Ptr) memcpy(Ptr, p, (size_t)n);
}

CMem::~CMem() { delete[] Ptr; }

// A block that can't be had leaves the buffer empty rather than throwing.
void CMem::Alloc(unsigned long long n) {
  Empty();
  if (!n || n > (unsigned long long)SIZE_MAX) return;
  Ptr = new (std::nothrow) char[(size_t)n];
  if (Ptr) Len = n;
}

void CMem::Empty() {
  delete[] Ptr;
  Ptr = nullptr;
  Len = 0;
}

void CMem::Set(void* p, unsigned long long n) {
  if (p == Ptr) {  // adopting the block already held only changes the size
    Len = p ? n : 0;
    return;
  }
  Empty();
  Ptr = static_cast<char*>(p);
  Len = p ? n : 0;
}


// Any failure leaves the buffer empty: a part-read file is never kept.
bool CMem::LoadFromFile(const char* name) {
  char* block;
  long long size;
  bool ok = ReadWholeFile(name, LLONG_MAX, 0, &block, &size);
  Set(block, ok ? (unsigned long long)size : 0);
  return ok;
}

bool CMem::SaveToFile(const char* name) const { return WriteWholeFile(name, Ptr, (long long)Len); }

// ---- CMemList ----

CMemList::CMemList() { Reset(); }
CMemList::~CMemList() { Clr(); }

void CMemList::Reset() {
  Beg = IndexPtr = Last = nullptr;
  Index = Num = 0;
  Size = 0;
}

void CMemList::Clr() { ListFreeNodes(Beg); }

void CMemList::Clear() {
  Clr();
  Reset();
}

void CMemList::LinkAtEnd(__cmem_list* node) { ListLinkAtEnd(*this, node); }

int CMemList::Add(void* p, unsigned long long n) {
  __cmem_list* node = new __cmem_list;
  node->Mem.Set(p, n);
  LinkAtEnd(node);
  Size += node->Mem.Len;
  return Num - 1;
}

int CMemList::AddCopy(const void* p, unsigned long long n) {
  char* block = nullptr;
  if (p && n) {
    block = new char[(size_t)n];
    memcpy(block, p, (size_t)n);
  }
  return Add(block, block ? n : 0);
}

// Same cursor rule as CStrList: one link per sequential step, the ends
// reached directly.
CMem* CMemList::operator[](int i) {
  __cmem_list* node = ListSeek<CMemList, __cmem_list>(*this, i);
  return node ? &node->Mem : nullptr;
}

CMem* CMemList::ToCMem() const {
  if (!Num) return nullptr;
  CMem* all = new CMem(Size);
  if (Size && !all->Ptr) {
    delete all;
    return nullptr;
  }
  unsigned long long at = 0;
  for (__cmem_list* node = Beg; node; node = node->Next) {
    if (node->Mem.Len) memcpy(all->Ptr + at, node->Mem.Ptr, (size_t)node->Mem.Len);
    at += node->Mem.Len;
  }
  return all;
}

CStr* CMemList::ToCStr() const {
  if (!Num || Size >= 0x7fffffffULL) return nullptr;
  CStr* all = new CStr;
  if (!Size) return all;
  if (!all->SetLen((int)Size)) {
    delete all;
    return nullptr;
  }
  int at = 0;
  for (__cmem_list* node = Beg; node; node = node->Next) {
    if (node->Mem.Len) memcpy(all->Str + at, node->Mem.Ptr, (size_t)node->Mem.Len);
    at += (int)node->Mem.Len;
  }
  all->Str[at] = 0;
  return all;
}

// ---- CCharVect ----

CCharVect::CCharVect(int n) : Num(n < 0 ? 0 : n), Vect(nullptr) {
  Vect = new char*[(size_t)Num + 1]();
}

// Every slot the vector holds is its own copy, so all of them go, not only
// those before the first empty slot.
CCharVect::~CCharVect() {
  for (int i = 0; i < Num; ++i) delete[] Vect[i];
  delete[] Vect;
}

char* CCharVect::Set(int i, const char* s) { return Set(i, s, s ? (int)strlen(s) : 0); }

char* CCharVect::Set(int i, const CStr& s) { return Set(i, s.Str, s.Len); }

char* CCharVect::Set(int i, const char* s, int n) {
  if (i < 0 || i >= Num) return nullptr;
  delete[] Vect[i];
  Vect[i] = nullptr;
  if (!s || n <= 0) return nullptr;
  char* copy = new char[(size_t)n + 1];
  memcpy(copy, s, (size_t)n);
  copy[n] = 0;
  return Vect[i] = copy;
}
