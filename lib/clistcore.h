// The list design that CStrList and CMemList share: first and last node,
// a count, and a cursor that remembers the last position asked for, so that
// walking the list by index costs one link a step.
#ifndef LUMETTA_CLISTCORE_H
#define LUMETTA_CLISTCORE_H

// Node of position i (NULL when out of range), moving the list's cursor.
template <class List, class Node>
Node* ListSeek(List& list, int i) {
  if (i < 0 || i >= list.Num || !list.Beg) return nullptr;
  if (i == 0) {
    list.IndexPtr = list.Beg;
  } else if (i == list.Num - 1) {
    list.IndexPtr = list.Last;
  } else {
    while (i > list.Index) list.IndexPtr = list.IndexPtr->Next, ++list.Index;
    while (i < list.Index) list.IndexPtr = list.IndexPtr->Prev, --list.Index;
  }
  list.Index = i;
  return list.IndexPtr;
}

// Appends a node; the cursor starts on the first node of an empty list.
template <class List, class Node>
void ListLinkAtEnd(List& list, Node* node) {
  node->Next = nullptr;
  node->Prev = list.Last;
  if (list.Last) {
    list.Last->Next = node;
  } else {
    list.Beg = list.IndexPtr = node;
    list.Index = 0;
  }
  list.Last = node;
  ++list.Num;
}

template <class Node>
void ListFreeNodes(Node* node) {
  while (node) {
    Node* next = node->Next;
    delete node;
    node = next;
  }
}

#endif
