// Owning byte buffers and lists: CMem (counted block), CMemList (pieces
// adopted without copying and flattened once), CCharVect (NULL-terminated
// string vector) and the intrusive list template CList / CListIterator.
#ifndef LUMETTA_CMEM_H
#define LUMETTA_CMEM_H

class CStr;

class CMem {
 public:
  char* Ptr;  // owned, allocated with new[]; NULL when empty
  unsigned long long Len;

  CMem();
  explicit CMem(unsigned long long n);
  CMem(const char* s);
  CMem(const CStr& s);
  CMem(const void* p, unsigned long long n);
  ~CMem();
  CMem(const CMem&) = delete;
  CMem& operator=(const CMem&) = delete;

  void Alloc(unsigned long long n);
  void Empty();
  void Set(void* p, unsigned long long n);  // adopts p (new[] block) without copying
  char* Data() const { return Ptr; }
  unsigned long long Length() const { return Len; }
  bool IsEmpty() const { return Len == 0; }
  char& operator[](unsigned long long i) { return Ptr[i]; }
  bool LoadFromFile(const char* name);
  bool SaveToFile(const char* name) const;
};

struct __cmem_list {
  __cmem_list* Next;
  __cmem_list* Prev;
  CMem Mem;
};
typedef __cmem_list CMEMLIST;

class CMemList {
 public:
  __cmem_list* Beg;
  __cmem_list* IndexPtr;
  __cmem_list* Last;
  int Index;
  int Num;
  unsigned long long Size;

  CMemList();
  ~CMemList();
  CMemList(const CMemList&) = delete;
  CMemList& operator=(const CMemList&) = delete;

  int Add(void* p, unsigned long long n);  // adopts p (new[] block)
  int AddCopy(const void* p, unsigned long long n);
  int Count() const { return Num; }
  unsigned long long GetSize() const { return Size; }
  CMem* operator[](int i);  // NULL when out of range
  CMem* ToCMem() const;     // NULL for an empty list; caller deletes
  CStr* ToCStr() const;     // NULL for an empty list; caller deletes
  void Clear();

 private:
  void Clr();
  void Reset();
  void LinkAtEnd(__cmem_list* node);
};

class CCharVect {
 public:
  int Num;
  char** Vect;  // Num + 1 slots, the last always NULL

  explicit CCharVect(int n);
  ~CCharVect();  // frees every non-NULL slot, then the array
  CCharVect(const CCharVect&) = delete;
  CCharVect& operator=(const CCharVect&) = delete;

  // Frees slot i and stores a copy of s (NULL for NULL or ""); returns the
  // stored pointer, NULL when i is out of range. Slots are new[] blocks.
  char* Set(int i, const char* s);
  char* Set(int i, const CStr& s);
  char* Set(int i, const char* s, int n);  // copies exactly n bytes
  char* operator[](int i) const { return (i < 0 || i >= Num) ? nullptr : Vect[i]; }
  int GetNum() const { return Num; }
  char** GetVect() const { return Vect; }
};

// Intrusive doubly linked list: each item links both ways and knows its
// position; the list tracks its ends, a current item and how many it holds.
// Add puts a fresh default value at the end and hands it back.
template <class T>
struct CListItem {
  CListItem* Prev;
  CListItem* Next;
  T Value;
  int Index;
  CListItem() : Prev(nullptr), Next(nullptr), Value(), Index(0) {}
};

template <class T>
class CList {
 public:
  CListItem<T>* First = nullptr;
  CListItem<T>* LastItem = nullptr;
  CListItem<T>* Current = nullptr;
  int Num = 0;

  CList() {}
  ~CList() { Clear(); }
  CList(const CList&) = delete;
  CList& operator=(const CList&) = delete;

  T* Add() {
    CListItem<T>* item = new CListItem<T>;
    item->Prev = LastItem;
    item->Index = Num;
    if (LastItem) LastItem->Next = item; else First = item;
    LastItem = item;
    Current = item;
    ++Num;
    return &item->Value;
  }
  int Count() const { return Num; }
  T* Get(int i) const {
    if (i < 0 || i >= Num) return nullptr;
    CListItem<T>* item = First;
    while (item && item->Index != i) item = item->Next;
    return item ? &item->Value : nullptr;
  }
  void Clear() {
    CListItem<T>* item = First;
    while (item) {
      CListItem<T>* next = item->Next;
      delete item;
      item = next;
    }
    First = LastItem = Current = nullptr;
    Num = 0;
  }
};

// Walks a CList from its first item: each Next() gives the following value,
// NULL past the end. Reset() starts over.
template <class T>
class CListIterator {
 public:
  explicit CListIterator(CList<T>* list = nullptr) : List(list), Item(nullptr), Started(false) {}
  void Set(CList<T>* list) { List = list; Reset(); }
  void Reset() { Item = nullptr; Started = false; }
  T* Next() {
    if (!List) return nullptr;
    Item = Started ? (Item ? Item->Next : nullptr) : List->First;
    Started = true;
    return Item ? &Item->Value : nullptr;
  }
  T* Current() const { return Item ? &Item->Value : nullptr; }
  // Positions the iterator on item i (NULL when out of range).
  T* Seek(int i) {
    Reset();
    T* v = nullptr;
    for (int k = 0; k <= i; ++k)
      if (!(v = Next())) break;
    return v;
  }

 private:
  CList<T>* List;
  CListItem<T>* Item;
  bool Started;
};

#endif
