// CPipeStream: starting the child and its watcher thread first, then ending
// and closing, then reading and writing the pipes.
#include "cpipestream.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "cprintf.h"

// Priority index -> platform class (0 normal, 1 above, 2 below). The last
// entry repeats the normal class on purpose.
static const int PriClass[4] = {0, 1, 2, 0};

// How long CloseAll and Kill give the watcher before ending the child.
static const unsigned kWatcherGraceMs = 6000;

CPipeStream::CPipeStream() : Status(0), ExitCode(0) {
  hChildStdinRd = hChildStdinWr = hChildStdoutRd = hChildStdoutWr = PL_NO_FILE;
  hChildStderrRd = hChildStderrWr = PL_NO_FILE;
  hProcess = nullptr;
  hStartEvent = nullptr;
  hRunThread = nullptr;
  Environ = nullptr;
  StderrOut = 0;
  Set();
}

CPipeStream::~CPipeStream() { CloseAll(); }

void CPipeStream::Set() {
  // Never drop a live child or open pipes on the floor.
  if (hRunThread || hProcess || hChildStdoutRd != PL_NO_FILE || hChildStdinWr != PL_NO_FILE || Environ)
    CloseAll();
  AccFlags = CPIPE_READ;
  Priority = 0;
  Status = 0;
  TextMode = 1;
  TimeOut = 0;
}

void CPipeStream::Open(const char* cmd, const char* curDir, CStrList* env, int accFlags) {
  CloseAll();
  AccFlags = accFlags;
  CurDir = curDir ? curDir : "";
  Status = 0;
  ExitCode = 0;
  // An empty list gives no block, and without a block the child inherits
  // our environment: a caller with nothing to add need not copy ours.
  if (env) Environ = env->ToCharNull();
  if (!PlPipeCreate(&hChildStdoutRd, &hChildStdoutWr, 1)) {
    CloseAll();
    throw (int)CERR_GEN_PIPE;
  }
  if (!PlPipeCreate(&hChildStdinRd, &hChildStdinWr, 0)) {
    CloseAll();
    throw (int)CERR_GEN_PIPE;
  }
  if ((accFlags & CPIPE_STDERR) && !PlPipeCreate(&hChildStderrRd, &hChildStderrWr, 1)) {
    CloseAll();
    throw (int)CERR_GEN_PIPE;
  }
  Cmd = cmd ? cmd : "";
  hStartEvent = new PlEvent;
  hRunThread = PlThreadStart(RunFunc, this);
  // The event lives until CloseAll has joined the watcher: its Set may still
  // be on its way out when our wait returns.
  if (hRunThread) hStartEvent->Wait(PL_INFINITE);
  // The process record, not the running bit, tells whether the start
  // worked: a quick child may already have ended by now.
  if (!hProcess) {
    CloseAll();
    throw (int)CERR_GEN_RUN;
  }
}

unsigned CPipeStream::RunFunc(void* self) {
  static_cast<CPipeStream*>(self)->Watch();
  return 0;
}

bool CPipeStream::StartChild() {
  PlProcessStartInfo info;
  info.CmdLine = Cmd.c_str();
  info.CurDir = CurDir.c_str();
  info.Env = Environ;
  if (AccFlags & CPIPE_READ) {
    info.StdOut = hChildStdoutWr;
    info.StdErr = (AccFlags & CPIPE_STDERR) ? hChildStderrWr : hChildStdoutWr;
  }
  if (AccFlags & CPIPE_WRITE) info.StdIn = hChildStdinRd;
  info.NoWindow = (AccFlags & CPIPE_NOWINDOW) != 0;
  info.Debug = (AccFlags & CPIPE_DEBUG) != 0;
  info.Priority = PriClass[Priority];
  PlProc* proc = PlProcessStart(info);
  if (!proc) return false;
  hProcess = proc;
  delete[] Environ;
  Environ = nullptr;
  return true;
}

void CPipeStream::Watch() {
  if (!StartChild()) {
    Status &= ~CPIPE_ST_RUNNING;
    hStartEvent->Set();
    return;
  }
  Status |= CPIPE_ST_RUNNING;
  hStartEvent->Set();  // Open may return from here on: touch nothing of it but the child's state

  bool debug = (AccFlags & CPIPE_DEBUG) != 0;
  unsigned long long limitMs = (unsigned long long)TimeOut * 1000u;
  unsigned waitMs = TimeOut == 0 ? PL_PROC_INFINITE
                                 : (limitMs >= PL_PROC_INFINITE ? PL_PROC_INFINITE - 1 : (unsigned)limitMs);
  PlWaitResult r = PlProcessWait(hProcess, waitMs);
  if (r == PL_PROC_RUNNING) {
    PlProcessTerminate(hProcess, debug ? CPIPE_DBG_TERMINATE : 1u);
    Status |= CPIPE_ST_TIMEDOUT;
    r = PlProcessWait(hProcess, PL_PROC_INFINITE);
  }
  if (r == PL_PROC_CRASHED) Status |= CPIPE_ST_CRASHED;
  ExitCode = PlProcessExitCode(hProcess);
  Status &= ~CPIPE_ST_RUNNING;
  // Our reads reach the end only once no write end of the output pipe is
  // left open, ours included.
  PlPipeClose(hChildStdoutWr);
  hChildStdoutWr = PL_NO_FILE;
  PlPipeClose(hChildStdinRd);
  hChildStdinRd = PL_NO_FILE;
  PlPipeClose(hChildStderrWr);
  hChildStderrWr = PL_NO_FILE;
}

void CPipeStream::ApplyPriority() { PlProcessSetPriority(hProcess, PriClass[Priority]); }

// Waits for the watcher; a child that outlasts the grace period is ended so
// that the watcher, which holds a pointer to us, is always joined.
void CPipeStream::JoinWatcher(unsigned firstWaitMs) {
  if (!hRunThread) return;
  if (!PlThreadWait(hRunThread, firstWaitMs)) {
    if (hProcess) PlProcessTerminate(hProcess, (AccFlags & CPIPE_DEBUG) ? CPIPE_DBG_TERMINATE : 1u);
    PlThreadWait(hRunThread, PL_INFINITE);
  }
  PlThreadClose(hRunThread);
  hRunThread = nullptr;
}

static void ClosePipeEnd(PlFile& f) {
  PlPipeClose(f);
  f = PL_NO_FILE;
}

void CPipeStream::CloseAll() {
  ClosePipeEnd(hChildStdinWr);  // the child sees the end of its input first
  JoinWatcher(kWatcherGraceMs);
  ClosePipeEnd(hChildStdoutRd);
  ClosePipeEnd(hChildStdoutWr);
  ClosePipeEnd(hChildStdinRd);
  ClosePipeEnd(hChildStderrRd);
  ClosePipeEnd(hChildStderrWr);
  PlProcessClose(hProcess);
  hProcess = nullptr;
  delete hStartEvent;
  hStartEvent = nullptr;
  delete[] Environ;
  Environ = nullptr;
  Status &= ~CPIPE_ST_RUNNING;
}

void CPipeStream::Kill() {
  if (!IsRunning()) return;
  Status |= CPIPE_ST_KILLED;
  Status &= ~CPIPE_ST_RUNNING;
  PlProcessTerminate(hProcess, (AccFlags & CPIPE_DEBUG) ? CPIPE_DBG_TERMINATE : 0u);
  JoinWatcher(kWatcherGraceMs);
}

void CPipeStream::Wait() {
  if (!IsRunning()) return;
  JoinWatcher(PL_INFINITE);
  Status &= ~CPIPE_ST_RUNNING;
}

void CPipeStream::SetPriority(int p) {
  if (p == Priority) return;
  if (p < 0 || p > 3) throw (int)CERR_GEN_PRIORITY;
  Priority = p;
  if (hRunThread && hProcess) ApplyPriority();
}

unsigned int CPipeStream::Read(void* buf, unsigned int len) {
  if (!buf || !len) throw (int)CERR_GEN_MISSINGARGUMENT;
  if (!(AccFlags & CPIPE_READ)) throw (int)CERR_GEN_WRITEONLY;
  int n = PlPipeRead(hChildStdoutRd, buf, len);
  return n > 0 ? (unsigned)n : 0;
}

unsigned int CPipeStream::ReadErr(void* buf, unsigned int len) {
  if (!buf || !len) throw (int)CERR_GEN_MISSINGARGUMENT;
  if (!(AccFlags & CPIPE_STDERR)) throw (int)CERR_GEN_WRITEONLY;
  int n = PlPipeRead(hChildStderrRd, buf, len);
  return n > 0 ? (unsigned)n : 0;
}

int CPipeStream::Getc() {
  if (Status & CPIPE_ST_EOF) return -1;
  unsigned char c;
  if (Read(&c, 1) == 0) {
    Status |= CPIPE_ST_EOF;
    return -1;
  }
  return c;
}

char* CPipeStream::Gets(char* buf, int size) {
  if (!buf || size <= 0) throw (int)CERR_GEN_MISSINGARGUMENT;
  int n = 0;
  bool atEnd = false;
  while (n < size - 1) {
    int c = Getc();
    if (c < 0) {
      atEnd = true;
      break;
    }
    if (c == '\r') {
      buf[n++] = '\n';
      // A CR LF pair is one line end. After a lone CR the next character has
      // been consumed and a pipe cannot step back, so it is dropped; callers
      // have always seen it this way, so it stays.
      Getc();
      break;
    }
    buf[n++] = (char)c;
    if (c == '\n') break;
  }
  if (atEnd && n == 0) return nullptr;
  buf[n] = 0;
  return buf;
}

CStr& CPipeStream::Gets(CStr& line) {
  const int kPiece = 1024;
  char buf[kPiece];
  line.Empty();
  while (Gets(buf, kPiece)) {
    int n = (int)strlen(buf);
    line.Cat(buf, n);
    // Only a piece that filled the buffer without a line end goes on.
    if (n < kPiece - 1 || buf[n - 1] == '\n') break;
  }
  return line;
}

void CPipeStream::Write(const void* buf, unsigned int len) {
  if (!buf || !len) throw (int)CERR_GEN_MISSINGARGUMENT;
  if (!(AccFlags & CPIPE_WRITE)) throw (int)CERR_GEN_READONLY;
  if (!PlPipeWrite(hChildStdinWr, buf, len)) throw (int)CERR_GEN_WRITE;
}

void CPipeStream::WriteConv(const char* buf, unsigned int len) {
  if (AccFlags & CPIPE_BINARY) {
    Write(buf, len);
    return;
  }
  // Text goes byte by byte in principle, so no bytes means nothing to do.
  if (len == 0) return;
  if (!buf) throw (int)CERR_GEN_MISSINGARGUMENT;
  if (TextMode == 0) {
    Write(buf, len);
    return;
  }
  // Converted in one piece rather than byte by byte: the child sees the same
  // bytes with far fewer writes.
  std::string out;
  out.reserve(len + len / 8);
  for (unsigned i = 0; i < len; i++) {
    if (buf[i] != '\n') {
      out += buf[i];
    } else if (TextMode == 1) {
      out += "\r\n";
    } else if (TextMode == 2) {
      out += '\r';
    } else {
      out += '\n';
    }
  }
  Write(out.data(), (unsigned)out.size());
}

void CPipeStream::Puts(const char* s) {
  if (!IsRunning()) throw (int)CERR_GEN_FILENOTOPEN;
  if (!s || !*s) throw (int)CERR_GEN_MISSINGARGUMENT;
  WriteConv(s, (unsigned)strlen(s));
}

void CPipeStream::Printf(const char* fmt, ...) {
  if (!IsRunning()) throw (int)CERR_GEN_FILENOTOPEN;
  va_list ap;
  va_start(ap, fmt);
  char* text = QsVmPrintf(fmt, ap);
  va_end(ap);
  if (!text) throw (int)CERR_GEN_MEMORY;
  struct FreeOnExit {
    char* p;
    ~FreeOnExit() { free(p); }
  } guard{text};
  Puts(text);
}
