// POSIX children through posix_spawn. The Windows-layout command line is
// split into words here; the program is looked up on PATH when it names no
// directory. Every descriptor we create is close-on-exec, so a child started
// by another thread never keeps one of our pipe ends open.
#include "pl_process.h"

#include <errno.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

extern char** environ;

struct PlProc {
  pid_t Pid = -1;
  int PidFd = -1;  // readable once the child has ended; -1 without pidfd support
  bool Debug = false;
  std::mutex M;    // guards the fields below against Terminate from other threads
  bool Reaped = false;
  bool Terminated = false;
  bool Crashed = false;
  unsigned TermCode = 0;
  unsigned ExitCode = 0;
};

// ---------------------------------------------------------------- pipes

// Keeps pipe ends off descriptors 0-2, so that mapping one pipe onto the
// child's standard streams can never overwrite another.
static int MoveAboveStdio(int fd) {
  if (fd > 2) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

bool PlPipeCreate(PlFile* readEnd, PlFile* writeEnd, int /*childEnd*/) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  fds[0] = MoveAboveStdio(fds[0]);
  fds[1] = MoveAboveStdio(fds[1]);
  if (fds[0] < 0 || fds[1] < 0) {
    if (fds[0] >= 0) close(fds[0]);
    if (fds[1] >= 0) close(fds[1]);
    return false;
  }
  *readEnd = fds[0];
  *writeEnd = fds[1];
  return true;
}

// A pipe end is read like any open file.
int PlPipeRead(PlFile f, void* buf, unsigned n) { return PlFileRead(f, buf, n); }

bool PlPipeWrite(PlFile f, const void* buf, unsigned n) {
  // A child that has gone would raise SIGPIPE and end the whole server:
  // block it for this thread and swallow the one our write caused.
  sigset_t pipeSet, oldMask, pending;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  sigpending(&pending);
  bool wasPending = sigismember(&pending, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &pipeSet, &oldMask);
  const char* p = static_cast<const char*>(buf);
  bool ok = true, broken = false;
  while (n > 0) {
    ssize_t w = write((int)f, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      broken = errno == EPIPE;
      ok = false;
      break;
    }
    p += w;
    n -= (unsigned)w;
  }
  if (broken && !wasPending) {
    struct timespec zero = {0, 0};
    sigtimedwait(&pipeSet, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  return ok;
}

void PlPipeClose(PlFile f) {
  if (f != PL_NO_FILE) close((int)f);
}

PlFile PlOpenNullDevice() {
  int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  return fd < 0 ? PL_NO_FILE : MoveAboveStdio(fd);
}

int PlOpenFileLimit() {
  rlimit lim;
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur == RLIM_INFINITY || lim.rlim_cur > 1000000)
    return 1000000;
  return (int)lim.rlim_cur;
}

bool PlSetOpenFileLimit(int n) {
  rlimit lim;
  if (n <= 0 || getrlimit(RLIMIT_NOFILE, &lim) != 0) return false;
  if (lim.rlim_max != RLIM_INFINITY && (rlim_t)n > lim.rlim_max) return false;
  lim.rlim_cur = (rlim_t)n;
  return setrlimit(RLIMIT_NOFILE, &lim) == 0;
}

// ---------------------------------------------------------------- command line

// Windows argument rules: blanks separate words outside quotes; 2n
// backslashes before a quote give n backslashes and the quote delimits;
// 2n+1 give n backslashes and a literal quote; "" inside quotes is a literal
// quote; any other backslash is literal.
static std::vector<std::string> SplitCommandLine(const char* s) {
  std::vector<std::string> words;
  const char* p = s;
  for (;;) {
    while (*p == ' ' || *p == '\t') p++;
    if (!*p) break;
    std::string word;
    bool quoted = false;
    while (*p && (quoted || (*p != ' ' && *p != '\t'))) {
      if (*p == '\\') {
        size_t n = 0;
        while (p[n] == '\\') n++;
        if (p[n] == '"') {
          word.append(n / 2, '\\');
          p += n;
          if (n % 2) {
            word += '"';
            p++;
          }
        } else {
          word.append(n, '\\');
          p += n;
        }
      } else if (*p == '"') {
        if (quoted && p[1] == '"') {
          word += '"';
          p += 2;
        } else {
          quoted = !quoted;
          p++;
        }
      } else {
        word += *p++;
      }
    }
    words.push_back(word);
  }
  return words;
}

static bool IsExecutableFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// A relative name is taken against our own directory, as the Windows loader
// does, not the child's working directory.
static std::string ResolveProgram(const std::string& name) {
  if (name.empty()) return std::string();
  if (name.find('/') != std::string::npos) {
    std::string path = name;
    if (path[0] != '/') {
      char cwd[4096];
      if (!getcwd(cwd, sizeof cwd)) return std::string();
      path = std::string(cwd) + "/" + path;
    }
    return IsExecutableFile(path) ? path : std::string();
  }
  const char* envPath = getenv("PATH");
  std::string dirs = envPath ? envPath : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  for (;;) {
    size_t colon = dirs.find(':', start);
    std::string dir = dirs.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
    if (dir.empty()) dir = ".";
    std::string candidate = dir + "/" + name;
    if (IsExecutableFile(candidate)) return candidate;
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  return std::string();
}

bool PlFindProgram(const char* name, std::string* out) {
  std::string found = ResolveProgram(name ? name : "");
  if (found.empty()) return false;
  *out = found;
  return true;
}

static std::vector<char*> EnvVector(const char* block) {
  std::vector<char*> env;
  for (const char* p = block; *p; p += strlen(p) + 1) env.push_back(const_cast<char*>(p));
  env.push_back(nullptr);
  return env;
}

// ---------------------------------------------------------------- processes

// The argument and environment vectors of exec, pointing into words and
// the caller's block; made before the child exists.
struct ExecVectors {
  std::vector<char*> Argv, Env;
  char** Envp;
  ExecVectors(const PlProcessStartInfo& info, std::vector<std::string>& words) {
    for (std::string& w : words) Argv.push_back(&w[0]);
    Argv.push_back(nullptr);
    if (info.Env) Env = EnvVector(info.Env);
    Envp = info.Env ? Env.data() : environ;
  }
};

static bool SpawnChild(const PlProcessStartInfo& info, const std::string& program,
                       std::vector<std::string>& words, pid_t* pid) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  if (info.StdIn != PL_NO_FILE) posix_spawn_file_actions_adddup2(&actions, (int)info.StdIn, 0);
  if (info.StdOut != PL_NO_FILE) posix_spawn_file_actions_adddup2(&actions, (int)info.StdOut, 1);
  if (info.StdErr != PL_NO_FILE) posix_spawn_file_actions_adddup2(&actions, (int)info.StdErr, 2);
  if (info.CurDir && *info.CurDir) posix_spawn_file_actions_addchdir_np(&actions, info.CurDir);

  // A fresh signal state: our threads may block or ignore signals (SIGPIPE
  // above all) and the child must not inherit that.
  sigset_t noSignals, allSignals;
  sigemptyset(&noSignals);
  sigfillset(&allSignals);
  posix_spawnattr_setsigmask(&attr, &noSignals);
  posix_spawnattr_setsigdefault(&attr, &allSignals);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

  ExecVectors v(info, words);

  int rc = posix_spawn(pid, program.c_str(), &actions, &attr, v.Argv.data(), v.Envp);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  return rc == 0;
}

// Puts fd on the child's descriptor target, close-on-exec cleared.
static bool MapDescriptor(PlFile fd, int target) {
  if (fd == PL_NO_FILE) return true;
  if ((int)fd == target) return fcntl(target, F_SETFD, 0) == 0;
  return dup2((int)fd, target) == target;
}

// fork and exec by hand, for children that must die with us: posix_spawn
// has no way to ask for the parent-death signal. Between fork and exec only
// async-signal-safe calls are made; everything else is prepared before.
static bool ForkChildEndingWithUs(const PlProcessStartInfo& info, const std::string& program,
                                  std::vector<std::string>& words, pid_t* pid) {
  ExecVectors v(info, words);
  const pid_t parent = getpid();
  const char* dir = info.CurDir && *info.CurDir ? info.CurDir : nullptr;

  pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // we died before the tie was made
    if (!MapDescriptor(info.StdIn, 0) || !MapDescriptor(info.StdOut, 1) || !MapDescriptor(info.StdErr, 2))
      _exit(127);
    if (dir && chdir(dir) != 0) _exit(127);
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; sig++) sigaction(sig, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(program.c_str(), v.Argv.data(), v.Envp);
    _exit(127);
  }
  setpgid(child, child);  // also here, so a kill of the group right after start finds it
  *pid = child;
  return true;
}

// Nice values that match the three Windows classes in spirit. Raising
// above normal needs privileges a desktop user rarely has.
static const int kNice[] = {0, -5, 5};

PlProc* PlProcessStart(const PlProcessStartInfo& info) {
  if (!info.CmdLine) return nullptr;
  std::vector<std::string> words = SplitCommandLine(info.CmdLine);
  if (words.empty()) return nullptr;
  std::string program = ResolveProgram(words[0]);
  if (program.empty()) return nullptr;
  // Linux keeps a nice value per thread and a child starts with its
  // parent thread's: lowering the starting thread (a watcher that does
  // nothing else) makes the child low from its first instruction.
  if (info.Priority == 2) setpriority(PRIO_PROCESS, (id_t)syscall(SYS_gettid), kNice[2]);
  pid_t pid;
  bool started = info.EndWithUs ? ForkChildEndingWithUs(info, program, words, &pid)
                                : SpawnChild(info, program, words, &pid);
  if (!started) return nullptr;
  PlProc* p = new PlProc;
  p->Pid = pid;
  p->Debug = info.Debug;
  p->PidFd = (int)syscall(SYS_pidfd_open, pid, 0);
  if (info.Priority == 1) PlProcessSetPriority(p, 1);
  return p;
}

// Only a bad memory access counts as a crash, the counterpart of the access
// violation the Windows debug loop watches for; an abort or a bad
// instruction is an ordinary, if abnormal, end.
static bool IsCrashSignal(int sig) { return sig == SIGSEGV || sig == SIGBUS; }

// Collects the child's status when it has ended. Done under the lock so
// that Terminate never signals a process id that has been handed back.
static bool TryReap(PlProc* p) {
  std::lock_guard<std::mutex> g(p->M);
  if (p->Reaped) return true;
  int st = 0;
  pid_t r;
  do {
    r = waitpid(p->Pid, &st, WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return false;
  p->Reaped = true;
  if (r < 0) return true;  // reaped elsewhere (SIGCHLD ignored): nothing known
  if (WIFEXITED(st)) {
    p->ExitCode = (unsigned)WEXITSTATUS(st);
  } else if (WIFSIGNALED(st)) {
    int sig = WTERMSIG(st);
    if (p->Terminated && sig == SIGKILL) {
      p->ExitCode = p->TermCode;
    } else {
      p->ExitCode = 128u + (unsigned)sig;
      p->Crashed = p->Debug && IsCrashSignal(sig);
    }
  }
  return true;
}

static uint64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

PlWaitResult PlProcessWait(PlProc* p, unsigned timeoutMs) {
  uint64_t deadline = NowMs() + timeoutMs;
  int backoffMs = 1;  // polling step when the kernel has no pidfd
  for (;;) {
    if (TryReap(p)) return p->Crashed ? PL_PROC_CRASHED : PL_PROC_EXITED;
    int slice = -1;
    if (timeoutMs != PL_PROC_INFINITE) {
      uint64_t now = NowMs();
      if (now >= deadline) return PL_PROC_RUNNING;
      slice = (int)(deadline - now);
    }
    if (p->PidFd >= 0) {
      struct pollfd pfd = {p->PidFd, POLLIN, 0};
      poll(&pfd, 1, slice);
    } else {
      if (slice < 0 || slice > backoffMs) slice = backoffMs;
      usleep((useconds_t)slice * 1000u);
      if (backoffMs < 50) backoffMs *= 2;
    }
  }
}

void PlProcessTerminate(PlProc* p, unsigned exitCode) {
  std::lock_guard<std::mutex> g(p->M);
  if (p->Reaped) return;
  p->Terminated = true;
  p->TermCode = exitCode;
  // The whole group: a shell script's own children go with it and release
  // the output pipe.
  if (kill(-p->Pid, SIGKILL) != 0) kill(p->Pid, SIGKILL);
}

bool PlProcessKillId(long long pid) { return pid > 0 && kill((pid_t)pid, SIGKILL) == 0; }

bool PlProcessIdAlive(long long pid) {
  // A zombie still has its /proc entry; its state letter tells.
  FILE* f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
  if (!f) return false;
  char stat[512];
  size_t n = fread(stat, 1, sizeof stat - 1, f);
  fclose(f);
  stat[n] = 0;
  const char* close = strrchr(stat, ')');
  return !close || close[1] == 0 || close[2] != 'Z';
}

unsigned PlProcessExitCode(PlProc* p) {
  std::lock_guard<std::mutex> g(p->M);
  return p->ExitCode;
}

bool PlProcessSetPriority(PlProc* p, int cls) {
  if (cls < 0 || cls > 2) return false;
  std::lock_guard<std::mutex> g(p->M);
  if (p->Reaped) return false;
  return setpriority(PRIO_PROCESS, (id_t)p->Pid, kNice[cls]) == 0;
}

long long PlProcessId(PlProc* p) { return p->Pid; }

void PlProcessClose(PlProc* p) {
  if (!p) return;
  if (!TryReap(p)) {  // never leave a zombie behind
    PlProcessTerminate(p, 1);
    PlProcessWait(p, PL_PROC_INFINITE);
  }
  if (p->PidFd >= 0) close(p->PidFd);
  delete p;
}

bool PlSetEnv(const char* name, const char* value) {
  return (value ? setenv(name, value, 1) : unsetenv(name)) == 0;
}

bool PlProcessAllCollected() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

int PlOpenHandleCount() {
  DIR* d = opendir("/proc/self/fd");
  if (!d) return -1;
  int n = 0;
  while (readdir(d)) n++;
  closedir(d);
  return n - 3;  // ".", ".." and the directory's own descriptor
}
