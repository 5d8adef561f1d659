// Threads on Windows with a timed join, a mutex, a manual-reset event,
// sleeping and the tick clock.
#include "pl_thread.h"

#include <windows.h>
#include <process.h>

struct PlThread {
  HANDLE Handle;
  PlThreadFunc Fn;
  void* Arg;
  volatile LONG Refs;  // the thread itself and the handle
};

static void ReleaseThreadState(PlThread* t) {
  if (InterlockedDecrement(&t->Refs) == 0) delete t;
}

static unsigned __stdcall ThreadMain(void* p) {
  PlThread* t = static_cast<PlThread*>(p);
  unsigned rc = t->Fn(t->Arg);
  ReleaseThreadState(t);
  return rc;
}

PlThread* PlThreadStart(PlThreadFunc fn, void* arg, size_t stackSize) {
  PlThread* t = new PlThread;
  t->Fn = fn;
  t->Arg = arg;
  t->Refs = 2;
  unsigned id;
  t->Handle = (HANDLE)_beginthreadex(nullptr, (unsigned)stackSize, ThreadMain, t, 0, &id);
  if (!t->Handle) {
    delete t;
    return nullptr;
  }
  return t;
}

bool PlThreadWait(PlThread* t, unsigned timeoutMs) {
  if (!t) return true;
  return WaitForSingleObject(t->Handle, timeoutMs == PL_INFINITE ? INFINITE : timeoutMs) == WAIT_OBJECT_0;
}

void PlThreadClose(PlThread* t) {
  if (!t) return;
  CloseHandle(t->Handle);
  ReleaseThreadState(t);
}

unsigned long PlThreadCurrentId() { return GetCurrentThreadId(); }

PlMutex::PlMutex() : Impl(CreateMutexA(nullptr, FALSE, nullptr)) {}
PlMutex::~PlMutex() { CloseHandle((HANDLE)Impl); }
void PlMutex::Lock() { WaitForSingleObject((HANDLE)Impl, INFINITE); }
void PlMutex::Unlock() { ReleaseMutex((HANDLE)Impl); }
bool PlMutex::TryLock() { return WaitForSingleObject((HANDLE)Impl, 0) == WAIT_OBJECT_0; }

PlEvent::PlEvent() : Impl(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
PlEvent::~PlEvent() { CloseHandle((HANDLE)Impl); }
void PlEvent::Set() { SetEvent((HANDLE)Impl); }
void PlEvent::Reset() { ResetEvent((HANDLE)Impl); }
bool PlEvent::Wait(unsigned timeoutMs) {
  return WaitForSingleObject((HANDLE)Impl, timeoutMs == PL_INFINITE ? INFINITE : timeoutMs) == WAIT_OBJECT_0;
}

void PlSleepMs(unsigned ms) { Sleep(ms); }
uint64_t PlMonotonicMs() { return GetTickCount64(); }
