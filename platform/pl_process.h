// Child processes with redirected standard streams, and the anonymous pipes
// that carry them. A command line is one string in the Windows layout: on
// POSIX it is split into words by the same rules, so callers write one form.
#ifndef LUMETTA_PL_PROCESS_H
#define LUMETTA_PL_PROCESS_H

#include <string>

#include "pl_fs.h"  // PlFile

// Creates an anonymous pipe. childEnd names the end a child will receive
// (0 the read end, 1 the write end); our own end is never inherited.
bool PlPipeCreate(PlFile* readEnd, PlFile* writeEnd, int childEnd);
// One blocking read: bytes read, 0 at the end (or a broken pipe), -1 on error.
int PlPipeRead(PlFile f, void* buf, unsigned n);
// Writes all n bytes; false when the pipe broke or failed. Never raises
// SIGPIPE in the caller.
bool PlPipeWrite(PlFile f, const void* buf, unsigned n);
void PlPipeClose(PlFile f);
// The null device opened for reading and writing, for a child's stream
// that must go nowhere; close it with PlPipeClose. PL_NO_FILE on failure.
PlFile PlOpenNullDevice();

// How many files and sockets this process may hold open at once (the soft
// limit); where the system sets none, a budget of our own, generous at start.
int PlOpenFileLimit();
// Changes that soft limit (not above the hard one) or our own budget; false
// when refused.
bool PlSetOpenFileLimit(int n);

struct PlProcessStartInfo {
  const char* CmdLine = nullptr;  // program and arguments, Windows quoting rules
  const char* CurDir = nullptr;   // null or empty: the caller's directory
  const char* Env = nullptr;      // "A=1\0B=2\0\0" block; null inherits ours
  PlFile StdIn = PL_NO_FILE;      // PL_NO_FILE: the child inherits ours
  PlFile StdOut = PL_NO_FILE;
  PlFile StdErr = PL_NO_FILE;
  bool NoWindow = false;          // no console window (Windows only)
  bool Debug = false;             // watch for a crash of the child
  int Priority = 0;               // class as in PlProcessSetPriority, from the first instruction
  // The child is killed when we end, also by a crash or a kill: for helper
  // processes that must never outlive us. On Linux the tie is to the thread
  // that starts the child, so start such children from a thread that lives
  // as long as they should.
  bool EndWithUs = false;
};

struct PlProc;  // opaque; one per started child

// Where a program called name lies: a name with a separator is a path (a
// relative one against our current directory); a bare name is looked for on
// the search path (PATH), as the platform's own loader would. False when no
// such program file exists.
bool PlFindProgram(const char* name, std::string* out);

// Starts a child. Null when it could not be started (program not found, not
// executable, bad directory). On POSIX the child leads a process group of its
// own, so a time-out also ends whatever it started.
PlProc* PlProcessStart(const PlProcessStartInfo& info);

enum PlWaitResult {
  PL_PROC_RUNNING = 0,  // the time ran out, the child still runs
  PL_PROC_EXITED = 1,
  PL_PROC_CRASHED = 2   // ended by a bad memory access (debug mode only)
};
// Waits for the child at most timeoutMs (PL_PROC_INFINITE: no limit). Only the
// thread that started the child may wait for it (the Windows debug loop).
PlWaitResult PlProcessWait(PlProc* p, unsigned timeoutMs);
const unsigned PL_PROC_INFINITE = 0xFFFFFFFFu;

// Ends the child at once; exitCode is what PlProcessExitCode reports. Safe
// to call from any thread, also after the child has ended (then a no-op).
void PlProcessTerminate(PlProc* p, unsigned exitCode);
// Exit code once the child has ended; 128 + signal for a POSIX signal death.
unsigned PlProcessExitCode(PlProc* p);
// cls: 0 normal, 1 above normal, 2 below normal. False when refused.
bool PlProcessSetPriority(PlProc* p, int cls);
// The system's id of the child.
long long PlProcessId(PlProc* p);
// Ends the process with that system id at once, whoever started it; false
// when there is none or it may not be ended.
bool PlProcessKillId(long long pid);
// True while the process with that system id runs (one that has ended but
// is not yet collected by its parent counts as ended).
bool PlProcessIdAlive(long long pid);
// Releases the record. The child must have been waited for.
void PlProcessClose(PlProc* p);

// Sets (value non-null) or removes (value null) a variable of our own
// environment, which children started with an inherited environment get.
bool PlSetEnv(const char* name, const char* value);

// Number of open descriptors (POSIX) or handles (Windows) of this process,
// -1 when it cannot be told; for tests that look for leaks.
int PlOpenHandleCount();

// True when no ended child of this process is left uncollected (POSIX
// zombies). Windows keeps no such state: always true there.
bool PlProcessAllCollected();

#endif
