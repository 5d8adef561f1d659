// Threads on POSIX with a timed join, a recursive mutex, a manual-reset
// event, sleeping and the monotonic clock.
#include "pl_thread.h"

#include <pthread.h>
#include <time.h>
#include <errno.h>
#include <unistd.h>
#include <sys/syscall.h>

#include <condition_variable>
#include <chrono>
#include <mutex>

// A thread's shared state lives until both the thread and its handle are done.
struct PlThread {
  PlThreadFunc Fn;
  void* Arg;
  std::mutex M;
  std::condition_variable Cv;
  bool Done = false;
  int Refs = 2;  // the thread itself and the handle
};

static void ReleaseThreadState(PlThread* t) {
  bool last;
  {
    std::lock_guard<std::mutex> g(t->M);
    last = --t->Refs == 0;
  }
  if (last) delete t;
}

static void* ThreadMain(void* p) {
  PlThread* t = static_cast<PlThread*>(p);
  t->Fn(t->Arg);
  {
    std::lock_guard<std::mutex> g(t->M);
    t->Done = true;
  }
  t->Cv.notify_all();
  ReleaseThreadState(t);
  return nullptr;
}

PlThread* PlThreadStart(PlThreadFunc fn, void* arg, size_t stackSize) {
  PlThread* t = new PlThread;
  t->Fn = fn;
  t->Arg = arg;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (stackSize) {
    if (stackSize < (size_t)PTHREAD_STACK_MIN) stackSize = (size_t)PTHREAD_STACK_MIN;
    pthread_attr_setstacksize(&attr, stackSize);
  }
  pthread_t id;
  int rc = pthread_create(&id, &attr, ThreadMain, t);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete t;
    return nullptr;
  }
  return t;
}

bool PlThreadWait(PlThread* t, unsigned timeoutMs) {
  if (!t) return true;
  std::unique_lock<std::mutex> g(t->M);
  if (timeoutMs == PL_INFINITE) {
    t->Cv.wait(g, [t] { return t->Done; });
    return true;
  }
  return t->Cv.wait_for(g, std::chrono::milliseconds(timeoutMs), [t] { return t->Done; });
}

void PlThreadClose(PlThread* t) {
  if (t) ReleaseThreadState(t);
}

unsigned long PlThreadCurrentId() { return static_cast<unsigned long>(syscall(SYS_gettid)); }

PlMutex::PlMutex() : Impl(new std::recursive_mutex) {}
PlMutex::~PlMutex() { delete static_cast<std::recursive_mutex*>(Impl); }
void PlMutex::Lock() { static_cast<std::recursive_mutex*>(Impl)->lock(); }
void PlMutex::Unlock() { static_cast<std::recursive_mutex*>(Impl)->unlock(); }
bool PlMutex::TryLock() { return static_cast<std::recursive_mutex*>(Impl)->try_lock(); }

namespace {
struct EventState {
  std::mutex M;
  std::condition_variable Cv;
  bool Signalled = false;
};
}  // namespace

PlEvent::PlEvent() : Impl(new EventState) {}
PlEvent::~PlEvent() { delete static_cast<EventState*>(Impl); }

void PlEvent::Set() {
  EventState* e = static_cast<EventState*>(Impl);
  {
    std::lock_guard<std::mutex> g(e->M);
    e->Signalled = true;
  }
  e->Cv.notify_all();
}

void PlEvent::Reset() {
  EventState* e = static_cast<EventState*>(Impl);
  std::lock_guard<std::mutex> g(e->M);
  e->Signalled = false;
}

bool PlEvent::Wait(unsigned timeoutMs) {
  EventState* e = static_cast<EventState*>(Impl);
  std::unique_lock<std::mutex> g(e->M);
  if (timeoutMs == PL_INFINITE) {
    e->Cv.wait(g, [e] { return e->Signalled; });
    return true;
  }
  return e->Cv.wait_for(g, std::chrono::milliseconds(timeoutMs), [e] { return e->Signalled; });
}

void PlSleepMs(unsigned ms) {
  struct timespec ts;
  ts.tv_sec = ms / 1000;
  ts.tv_nsec = (long)(ms % 1000) * 1000000L;
  while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
  }
}

uint64_t PlMonotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}
