// CPipeStream: a child process whose standard streams are pipes we read and
// write, watched by a thread of its own that enforces a time-out and records
// how the child ended.
#ifndef LUMETTA_CPIPESTREAM_H
#define LUMETTA_CPIPESTREAM_H

#include <atomic>

#include "cerror.h"
#include "cstr.h"
#include "pl_process.h"
#include "pl_thread.h"

// AccFlags bits.
enum {
  CPIPE_BINARY = 2,    // text writes pass bytes unchanged
  CPIPE_DEBUG = 4,     // watch the child for a crash (a bad memory access)
  CPIPE_NOWINDOW = 8,  // no console window for the child
  CPIPE_READ = 32,     // the child's output and error come to us
  CPIPE_WRITE = 64,    // the child's input comes from us
  CPIPE_STDERR = 128   // with READ: the child's error output has a pipe of its own (ReadErr)
};

// Status bits.
enum {
  CPIPE_ST_CRASHED = 1,
  CPIPE_ST_EOF = 2,
  CPIPE_ST_KILLED = 8,
  CPIPE_ST_RUNNING = 16,
  CPIPE_ST_TIMEDOUT = 32
};

// Exit code given to a child ended in debug mode.
const unsigned CPIPE_DBG_TERMINATE = 0x40010004u;

class CPipeStream {
 public:
  int TextMode;  // line ends of text writes: 0 LF, 1 CR LF, 2 CR
  CStr CurDir;
  int AccFlags;
  int Priority;  // index into the priority table, 0-3
  // Written by the caller's thread and the watcher alike.
  std::atomic<int> Status;
  int StderrOut;  // reserved
  unsigned int TimeOut;  // seconds; 0 is no limit
  char* Environ;         // owned block for the child, or null to inherit ours
  CStr Cmd;
  PlFile hChildStdinRd, hChildStdinWr;
  PlFile hChildStdoutRd, hChildStdoutWr;
  PlFile hChildStderrRd, hChildStderrWr;  // only with CPIPE_STDERR
  PlProc* hProcess;  // owned; freed by CloseAll once the watcher has ended
  PlEvent* hStartEvent;
  PlThread* hRunThread;
  std::atomic<unsigned> ExitCode;  // valid once the child has ended

  CPipeStream();
  ~CPipeStream();
  CPipeStream(const CPipeStream&) = delete;
  CPipeStream& operator=(const CPipeStream&) = delete;

  void Set();
  // Starts the child; throws CERR_GEN_PIPE or CERR_GEN_RUN. A null or empty
  // env lets the child inherit our environment.
  void Open(const char* cmd, const char* curDir, CStrList* env, int accFlags);

  unsigned int Read(void* buf, unsigned int len);
  // The separate error output (CPIPE_STDERR): one blocking read, 0 at its
  // end. Read it from another thread than the output, or a child that fills
  // one pipe while we wait on the other stops both.
  unsigned int ReadErr(void* buf, unsigned int len);
  int Getc();
  char* Gets(char* buf, int size);
  CStr& Gets(CStr& line);
  void Write(const void* buf, unsigned int len);
  void WriteByte(char c) { Write(&c, 1); }
  void WriteConv(const char* buf, unsigned int len);
  void Puts(const char* s);
  void Printf(const char* fmt, ...);

  void Kill();
  void Wait();
  void CloseAll();
  void SetPriority(int p);

  int GetFlags() const { return AccFlags; }
  int GetPriority() const { return Priority; }
  int GetStatus() const { return Status.load(); }
  unsigned int GetTimeOut() const { return TimeOut; }
  void SetTimeOut(unsigned int seconds) { TimeOut = seconds; }
  unsigned GetExitCode() const { return ExitCode.load(); }

 private:
  static unsigned RunFunc(void* self);
  void Watch();
  bool StartChild();
  void JoinWatcher(unsigned firstWaitMs);
  void ApplyPriority();
  bool IsRunning() const { return (Status.load() & CPIPE_ST_RUNNING) != 0; }
};

#endif
