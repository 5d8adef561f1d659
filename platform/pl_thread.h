// Threads, a recursive mutex, a manual-reset event, sleeping and clocks.
#ifndef LUMETTA_PL_THREAD_H
#define LUMETTA_PL_THREAD_H

#include <cstddef>
#include <cstdint>

typedef unsigned (*PlThreadFunc)(void* arg);
struct PlThread;  // opaque; one per started thread

// Starts fn(arg) on a new thread. stackSize 0 takes the platform default.
// Returns null when the thread could not be started.
PlThread* PlThreadStart(PlThreadFunc fn, void* arg, size_t stackSize = 0);
// Waits for the thread to end, at most timeoutMs (PL_INFINITE: no limit).
// True when it has ended.
bool PlThreadWait(PlThread* t, unsigned timeoutMs);
// Releases the handle. A thread still running goes on and frees its own state.
void PlThreadClose(PlThread* t);
// Id of the calling thread (for logs and ownership checks).
unsigned long PlThreadCurrentId();

const unsigned PL_INFINITE = 0xFFFFFFFFu;

// Recursive mutex: the owning thread may lock it again.
class PlMutex {
 public:
  PlMutex();
  ~PlMutex();
  void Lock();
  void Unlock();
  bool TryLock();
  PlMutex(const PlMutex&) = delete;
  PlMutex& operator=(const PlMutex&) = delete;
 private:
  void* Impl;
};

class PlLock {
 public:
  explicit PlLock(PlMutex& m) : M(m) { M.Lock(); }
  ~PlLock() { M.Unlock(); }
  PlLock(const PlLock&) = delete;
  PlLock& operator=(const PlLock&) = delete;
 private:
  PlMutex& M;
};

// Manual-reset event.
class PlEvent {
 public:
  PlEvent();
  ~PlEvent();
  void Set();
  void Reset();
  bool Wait(unsigned timeoutMs);  // true when set
  PlEvent(const PlEvent&) = delete;
  PlEvent& operator=(const PlEvent&) = delete;
 private:
  void* Impl;
};

void PlSleepMs(unsigned ms);
uint64_t PlMonotonicMs();

#endif
