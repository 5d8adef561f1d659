// Windows children through CreateProcessA with inherited pipe handles; in
// debug mode the starting thread is the child's debugger and watches for an
// access violation.
#include "pl_process.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

struct PlProc {
  HANDLE Process = nullptr;
  HANDLE Thread = nullptr;
  DWORD Pid = 0;
  bool Debug = false;
  bool Ended = false;
  bool Crashed = false;
  bool Terminated = false;
  unsigned TermCode = 0;
};

static HANDLE H(PlFile f) { return reinterpret_cast<HANDLE>((intptr_t)f); }

bool PlPipeCreate(PlFile* readEnd, PlFile* writeEnd, int childEnd) {
  SECURITY_ATTRIBUTES sa;
  sa.nLength = sizeof sa;
  sa.bInheritHandle = TRUE;
  sa.lpSecurityDescriptor = nullptr;
  HANDLE rd, wr;
  if (!CreatePipe(&rd, &wr, &sa, 0)) return false;
  // Only the child's end may be inherited.
  if (!SetHandleInformation(childEnd == 0 ? wr : rd, HANDLE_FLAG_INHERIT, 0)) {
    CloseHandle(rd);
    CloseHandle(wr);
    return false;
  }
  *readEnd = (PlFile)(intptr_t)rd;
  *writeEnd = (PlFile)(intptr_t)wr;
  return true;
}

int PlPipeRead(PlFile f, void* buf, unsigned n) {
  DWORD got = 0;
  if (!ReadFile(H(f), buf, n, &got, nullptr)) return GetLastError() == ERROR_BROKEN_PIPE ? 0 : -1;
  return (int)got;
}

bool PlPipeWrite(PlFile f, const void* buf, unsigned n) {
  const char* p = static_cast<const char*>(buf);
  while (n > 0) {
    DWORD put = 0;
    if (!WriteFile(H(f), p, n, &put, nullptr) || put == 0) return false;
    p += put;
    n -= put;
  }
  return true;
}

void PlPipeClose(PlFile f) {
  if (f != PL_NO_FILE) CloseHandle(H(f));
}

// One job for every child that must end with us: the system kills its
// members when the last handle to it closes, which happens when we end.
static HANDLE EndWithUsJob() {
  static HANDLE job = [] {
    HANDLE j = CreateJobObjectA(nullptr, nullptr);
    if (j) {
      JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits;
      memset(&limits, 0, sizeof limits);
      limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
      SetInformationJobObject(j, JobObjectExtendedLimitInformation, &limits, sizeof limits);
    }
    return j;
  }();
  return job;
}

PlFile PlOpenNullDevice() {
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};  // children inherit it
  HANDLE h = CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa,
                         OPEN_EXISTING, 0, nullptr);
  return h == INVALID_HANDLE_VALUE ? PL_NO_FILE : (PlFile)(intptr_t)h;
}

// Sockets and handles have no small per-process limit here: the figure is a
// budget of our own, which keeps the server's connection cap at a size the
// machine's memory can carry and which a host may lower.
static std::atomic<int> HandleBudget{16384};

int PlOpenFileLimit() { return HandleBudget; }

bool PlSetOpenFileLimit(int n) {
  if (n <= 0) return false;
  HandleBudget = n;
  return true;
}

PlProc* PlProcessStart(const PlProcessStartInfo& info) {
  if (!info.CmdLine) return nullptr;
  STARTUPINFOA si;
  memset(&si, 0, sizeof si);
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = info.StdIn != PL_NO_FILE ? H(info.StdIn) : GetStdHandle(STD_INPUT_HANDLE);
  si.hStdOutput = info.StdOut != PL_NO_FILE ? H(info.StdOut) : GetStdHandle(STD_OUTPUT_HANDLE);
  si.hStdError = info.StdErr != PL_NO_FILE ? H(info.StdErr) : GetStdHandle(STD_ERROR_HANDLE);
  DWORD flags = 0;
  if (info.Debug) flags |= DEBUG_ONLY_THIS_PROCESS;
  if (info.NoWindow) flags |= CREATE_NO_WINDOW;
  if (info.Priority == 1) flags |= ABOVE_NORMAL_PRIORITY_CLASS;
  if (info.Priority == 2) flags |= BELOW_NORMAL_PRIORITY_CLASS;
  std::vector<char> cmd(info.CmdLine, info.CmdLine + strlen(info.CmdLine) + 1);  // CreateProcessA may write to it
  PROCESS_INFORMATION pi;
  const char* dir = info.CurDir && *info.CurDir ? info.CurDir : nullptr;
  if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, TRUE, flags, (void*)info.Env, dir, &si, &pi))
    return nullptr;
  if (info.EndWithUs && EndWithUsJob()) AssignProcessToJobObject(EndWithUsJob(), pi.hProcess);
  PlProc* p = new PlProc;
  p->Process = pi.hProcess;
  p->Thread = pi.hThread;
  p->Pid = pi.dwProcessId;
  p->Debug = info.Debug;
  return p;
}

// One debug event; true when the child has ended (exit or crash).
static bool HandleDebugEvent(PlProc* p, DEBUG_EVENT& ev) {
  DWORD cont = DBG_CONTINUE;
  switch (ev.dwDebugEventCode) {
    case EXCEPTION_DEBUG_EVENT:
      if (ev.u.Exception.ExceptionRecord.ExceptionCode == EXCEPTION_ACCESS_VIOLATION) {
        TerminateProcess(p->Process, DBG_TERMINATE_PROCESS);
        p->Crashed = true;
        p->Ended = true;
        return true;  // deliberately not continued: the process is gone
      }
      break;
    case CREATE_PROCESS_DEBUG_EVENT:
      if (ev.u.CreateProcessInfo.hFile) CloseHandle(ev.u.CreateProcessInfo.hFile);
      break;
    case LOAD_DLL_DEBUG_EVENT:
      if (ev.u.LoadDll.hFile) CloseHandle(ev.u.LoadDll.hFile);
      break;
    case EXIT_PROCESS_DEBUG_EVENT:
      ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, DBG_CONTINUE);
      p->Ended = true;
      return true;
    default:
      cont = DBG_EXCEPTION_NOT_HANDLED;
      break;
  }
  ContinueDebugEvent(ev.dwProcessId, ev.dwThreadId, cont);
  return false;
}

static PlWaitResult DebugWait(PlProc* p, unsigned timeoutMs) {
  ULONGLONG deadline = GetTickCount64() + timeoutMs;
  for (;;) {
    DWORD slice = INFINITE;
    if (timeoutMs != PL_PROC_INFINITE) {
      ULONGLONG now = GetTickCount64();
      if (now >= deadline) return PL_PROC_RUNNING;
      slice = (DWORD)(deadline - now < 1000 ? deadline - now : 1000);
    }
    DEBUG_EVENT ev;
    if (!WaitForDebugEvent(&ev, slice)) {
      if (GetLastError() == ERROR_SEM_TIMEOUT) continue;
      // No debug session (the debugger detached): fall back to a plain wait.
      if (WaitForSingleObject(p->Process, slice) == WAIT_OBJECT_0) {
        p->Ended = true;
        return PL_PROC_EXITED;
      }
      continue;
    }
    if (HandleDebugEvent(p, ev)) return p->Crashed ? PL_PROC_CRASHED : PL_PROC_EXITED;
  }
}

PlWaitResult PlProcessWait(PlProc* p, unsigned timeoutMs) {
  if (p->Ended) return p->Crashed ? PL_PROC_CRASHED : PL_PROC_EXITED;
  if (p->Debug) return DebugWait(p, timeoutMs);
  DWORD ms = timeoutMs == PL_PROC_INFINITE ? INFINITE : timeoutMs;
  if (WaitForSingleObject(p->Process, ms) != WAIT_OBJECT_0) return PL_PROC_RUNNING;
  p->Ended = true;
  return PL_PROC_EXITED;
}

void PlProcessTerminate(PlProc* p, unsigned exitCode) {
  p->Terminated = true;
  p->TermCode = exitCode;
  TerminateProcess(p->Process, exitCode);
}

bool PlProcessKillId(long long pid) {
  HANDLE h = OpenProcess(PROCESS_TERMINATE, FALSE, (DWORD)pid);
  if (!h) return false;
  bool ended = TerminateProcess(h, 1) != 0;
  CloseHandle(h);
  return ended;
}

bool PlProcessIdAlive(long long pid) {
  HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, (DWORD)pid);
  if (!h) return false;
  bool running = WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  CloseHandle(h);
  return running;
}

unsigned PlProcessExitCode(PlProc* p) {
  DWORD code = 0;
  if (!GetExitCodeProcess(p->Process, &code)) return p->TermCode;
  return (unsigned)code;
}

bool PlProcessSetPriority(PlProc* p, int cls) {
  static const DWORD kClass[] = {NORMAL_PRIORITY_CLASS, ABOVE_NORMAL_PRIORITY_CLASS, BELOW_NORMAL_PRIORITY_CLASS};
  if (cls < 0 || cls > 2) return false;
  return SetPriorityClass(p->Process, kClass[cls]) != 0;
}

long long PlProcessId(PlProc* p) { return p->Pid; }

void PlProcessClose(PlProc* p) {
  if (!p) return;
  if (p->Thread) CloseHandle(p->Thread);
  if (p->Process) CloseHandle(p->Process);
  delete p;
}

bool PlFindProgram(const char* name, std::string* out) {
  if (!name || !*name) return false;
  std::vector<char> buf(MAX_PATH + 1);
  DWORD n = SearchPathA(nullptr, name, ".exe", (DWORD)buf.size(), buf.data(), nullptr);
  if (n == 0 || n >= buf.size()) return false;
  DWORD attrs = GetFileAttributesA(buf.data());
  if (attrs == INVALID_FILE_ATTRIBUTES || (attrs & FILE_ATTRIBUTE_DIRECTORY)) return false;
  out->assign(buf.data(), n);
  return true;
}

bool PlSetEnv(const char* name, const char* value) {
  // The C run-time keeps its own copy (getenv) beside the process block
  // (children): both must change.
  bool crt = _putenv_s(name, value ? value : "") == 0;
  return SetEnvironmentVariableA(name, value) && crt;
}

bool PlProcessAllCollected() { return true; }

int PlOpenHandleCount() {
  DWORD n = 0;
  return GetProcessHandleCount(GetCurrentProcess(), &n) ? int(n) : -1;
}
