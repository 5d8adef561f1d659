// CLog: daily log files shared by several threads, one stamped line per event,
// a new file at each UTC midnight.
#include "clog.h"
#include "pl_time.h"

#include <cstring>
#include <vector>

#include "pl_net.h"

namespace {

// gmtime's shared result buffer may be in use by other threads at the same
// moment: break times down through the thread-safe platform call.
struct tm UtcBreakdown(time_t when) {
  struct tm t;
  memset(&t, 0, sizeof t);
  PlUtcTime(when, &t);
  t.tm_isdst = 0;
  return t;
}

// A write that fails part-way keeps the log's lock on purpose. So that a
// thread which ends afterwards does not block every other writer for ever,
// the locks it kept are given back when it ends, as the system does with a
// mutex whose owner has gone.
struct KeptLocks {
  std::vector<PlMutex*> Held;  // one entry per lock kept
  ~KeptLocks() {
    for (PlMutex* m : Held) m->Unlock();
  }
};
thread_local KeptLocks tKeptLocks;

void KeepLocked(PlMutex* m) { tKeptLocks.Held.push_back(m); }

// Gives back what the calling thread kept of m (before m is destroyed).
void GiveBackKept(PlMutex* m) {
  std::vector<PlMutex*>& held = tKeptLocks.Held;
  for (size_t i = held.size(); i-- > 0;) {
    if (held[i] != m) continue;
    m->Unlock();
    held.erase(held.begin() + static_cast<long>(i));
  }
}

}  // namespace

CLog::CLog()
    : AutoFlush(true),
      FileNameExt(".log"),
      FileNamePref("def"),
      Path("./"),
      LogLevel(3),
      DoFlush(false),
      FH(nullptr),
      CreationTime(0),
      LastWriteTime(0),
      NextLogTime(0),
      hMutex(new PlMutex) {
  Path.NativePath();
}

CLog::~CLog() {
  hMutex->Lock();
  if (FH) {
    fclose(FH);
    FH = nullptr;
  }
  hMutex->Unlock();
  GiveBackKept(hMutex);
  delete hMutex;
}

// The whole rotation runs under the lock (not just the open): another
// writer must never see the file closed beneath it.
void CLog::New() {
  PlLock lock(*hMutex);
  if (FH) {
    fclose(FH);
    FH = nullptr;
  }
  CreationTime = time(nullptr);
  struct tm now = UtcBreakdown(CreationTime);
  char date[48];
  snprintf(date, sizeof date, "%.4d%.2d%.2d", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday);
  // Tomorrow's UTC date at 00:00:00 handed to mktime, which reads it as
  // local time: the rotation moment follows the local clock by design.
  struct tm next = UtcBreakdown(CreationTime + 86400);
  next.tm_hour = next.tm_min = next.tm_sec = 0;
  NextLogTime = mktime(&next);
  CStr name = Path + "/" + FileNamePref + date + FileNameExt;
  name.NativePath();
  FH = fopen(name.c_str(), "a");
  if (!FH) throw 0;
}

void CLog::CheckTime() {
  PlLock lock(*hMutex);
  LastWriteTime = time(nullptr);
  if (LastWriteTime >= NextLogTime) New();
}

bool CLog::Print(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  bool ok = VPrint(fmt, ap);
  va_end(ap);
  return ok;
}

// The rotation check is made under the lock too, so two writers that both
// reach midnight rotate one after the other instead of closing the file
// under each other.
bool CLog::VPrint(const char* fmt, va_list ap) {
  if (LogLevel == 0) return true;
  hMutex->Lock();
  if (!FH) {
    hMutex->Unlock();
    return false;
  }
  try {
    CheckTime();
  } catch (int) {  // the next file couldn't be opened: this line is lost
    hMutex->Unlock();
    return false;
  }
  struct tm t = UtcBreakdown(LastWriteTime);
  if (fprintf(FH, "%.2d:%.2d:%.2d ", t.tm_hour, t.tm_min, t.tm_sec) < 1 || vfprintf(FH, fmt ? fmt : "", ap) < 1 ||
      fputc('\n', FH) == EOF) {
    KeepLocked(hMutex);  // deliberately left held: see KeptLocks
    return false;
  }
  if (AutoFlush)
    fflush(FH);
  else
    DoFlush = true;
  hMutex->Unlock();
  return true;
}

bool CLog::WinErr() {
  char text[256];
  PlLastErrorText(text, sizeof text);
  return Print("WINDOWS ERROR: %s", text);
}

bool CLog::Flush(void* log) {
  CLog* self = static_cast<CLog*>(log);
  if (!self) return false;
  PlLock lock(*self->hMutex);
  if (!self->FH) return false;
  if (self->DoFlush) {
    fflush(self->FH);
    self->DoFlush = false;
  }
  return true;
}

CStr CLog::FormatIP(unsigned int ip) {
  unsigned h = PlNtohl(ip);
  char buf[32];
  snprintf(buf, sizeof buf, "%d.%d.%d.%d", static_cast<int>(h >> 24), static_cast<int>((h >> 16) & 255),
           static_cast<int>((h >> 8) & 255), static_cast<int>(h & 255));
  return CStr(buf);
}
