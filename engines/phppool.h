// A pool of persistent php-cgi workers spoken to over FastCGI: each worker
// is one php-cgi process listening on a local socket of its own, serving
// one request at a time, so that a stuck script can be stopped by ending
// exactly its process. Starting an interpreter per request costs far more
// than the page; a warm worker answers in a fraction of a millisecond.
#ifndef LUMETTA_PHPPOOL_H
#define LUMETTA_PHPPOOL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "cfastcgi.h"
#include "cstr.h"
#include "pl_net.h"
#include "pl_thread.h"

struct PlProc;

// How one request through the pool ended.
enum PhpRunResult {
  PHP_RUN_DONE = 0,     // the script ran to its end, whatever its exit status
  PHP_RUN_TIMED_OUT,    // stopped at the time-out; its worker is replaced
  PHP_RUN_WORKER_LOST,  // the worker died or broke the protocol mid-request; replaced
  PHP_RUN_NO_WORKER     // nothing was sent: no worker can be had; run the script another way
};

// Receives each line the script's interpreter writes to its error stream,
// without the line end.
typedef void (*PhpStderrFunc)(void* context, const char* line, int len);

class PhpPool {
 public:
  PhpPool();
  // Stops the pool. Requests still running end as lost; the pool itself must
  // outlive every PhpRequest made on it (stop the server first).
  ~PhpPool();
  PhpPool(const PhpPool&) = delete;
  PhpPool& operator=(const PhpPool&) = delete;

  // Starts `workers` interpreters from cmdLine (the program and its start-up
  // options, Windows quoting) and checks that each speaks FastCGI. env: the
  // workers' whole environment ("NAME=value" entries, none when null); every
  // script sees it beside its request's variables. False,
  // with nothing left running and FailureText() telling why, when the
  // program can't be started or does not answer as a FastCGI application.
  bool Start(const char* cmdLine, int workers, const CStrList* env = nullptr);
  // Ends every worker and waits for them; requests in flight end as lost.
  void Stop();
  // False also once the pool gave up replacing workers that can no longer
  // be started; FailureText() then tells why.
  bool IsRunning() const { return Running; }
  const CStr& FailureText() const { return Failure; }
  int WorkerCount() const { return (int)Slots.size(); }

  // Seconds a request may take, counted from Send (a wait for a free
  // worker included), before its worker is ended.
  unsigned TimeOutSec = 600;
  // Milliseconds a request waits for a worker while all are busy before
  // Send gives up (PHP_RUN_NO_WORKER) and the caller runs the script another
  // way: scripts that run long (long polling, big imports) must not hold up
  // every other page.
  unsigned WaitForWorkerMs = 1000;
  // Seconds a new worker gets to answer its first FastCGI exchange.
  unsigned ProbeTimeOutSec = 5;
  // Requests a worker serves before it is replaced (set before Start). The
  // workers' environment carries PHP_FCGI_MAX_REQUESTS above it, so scripts
  // on a worker see that one variable more than over CGI.
  int RequestsPerWorker = 10000;

  // Process ids of the live workers, for tests and diagnostics.
  std::vector<long long> WorkerPids();

 private:
  friend class PhpRequest;
  struct Worker;
  struct Slot {
    Worker* Current = nullptr;  // null while its worker is being started
    Worker* Spare = nullptr;    // warm successor for a worker near its end
    bool Busy = false;
    bool Broken = false;        // Current must go: dead, timed out or lost
  };

  static unsigned SupervisorMain(void* self);
  void Supervise();
  Worker* StartWorker(int slotIndex, CStr* why);
  PlSocket ConnectWhenServed(Worker* w, uint64_t deadline);
  bool Probe(Worker* w, CStr* why);
  void StartMissingWorkers(bool firstRound);
  void SwapInSpares(std::vector<Worker*>& retired);
  void EndWorker(Worker* w);
  void EndAllWorkers();

  int SpareAt() const { return RequestsPerWorker - RequestsPerWorker / 5; }
  // A request waiting for a worker; a freed slot is handed to the one that
  // has waited longest, and only that one is woken.
  struct Waiter {
    PlEvent Ready;
    int SlotIndex = -1;
  };
  int Acquire(unsigned timeoutMs);  // a slot index, -1 when none
  int TakeFreeSlot();               // with Lock held; -1 when none is free
  void HandOutFreeSlots();          // with Lock held
  void WakeAllWaiters();            // with Lock held: the pool has stopped
  // keep: the request's connection, left open for the worker's next request.
  void Release(int slot, bool broken, PlSocket keep = PL_NO_SOCKET);

  PlMutex Lock;
  PlEvent Wake;         // the supervisor has work
  PlEvent FirstRound;   // the first workers are up (or failed)
  PlThread* Supervisor = nullptr;
  std::vector<Slot> Slots;
  std::deque<Waiter*> Waiting;  // oldest first
  CStr CmdLine;
  std::string EnvBlock;  // "A=1\0B=2\0" and the final NUL of c_str()
  std::string SocketDir;
  unsigned Sequence = 0;
  size_t NextSlot = 0;
  int FailedStarts = 0;  // in a row; too many and the pool gives up
  std::atomic<bool> Running{false};
  std::atomic<bool> Stopping{false};
  bool Failed = false;
  CStr Failure;
};

// One request on one worker: Send, then Read until it gives 0, then
// Result. Stream order is kept: the script's output comes out of Read as
// the interpreter wrote it, error lines go to the callback as they come.
// A worker's connection stays open from one request to the next (FastCGI's
// keep-connection flag), so neither side connects, accepts or closes per
// request.
class PhpRequest {
 public:
  explicit PhpRequest(PhpPool& pool, PhpStderrFunc onStderr = nullptr, void* context = nullptr);
  ~PhpRequest();  // gives the worker back (replacing it if the reply was not read to its end)
  PhpRequest(const PhpRequest&) = delete;
  PhpRequest& operator=(const PhpRequest&) = delete;

  // env: "NAME=value" entries in order (they become the FastCGI
  // parameters); body: the request body (the script's standard input).
  // False when the request could not be handed over; Result() says why.
  bool Send(const std::vector<FcgiParam>& env, const void* body, size_t bodyLen);
  bool Send(const CStrList& env, const void* body, size_t bodyLen);
  // Up to n bytes of the script's output; 0 at its end, after a time-out or
  // a lost worker.
  int Read(void* buf, int n);
  // Read for readers that take a context pointer (the request).
  static int ReadFrom(void* request, void* buf, int n) { return static_cast<PhpRequest*>(request)->Read(buf, n); }
  PhpRunResult Result() const { return Outcome; }
  unsigned ExitStatus() const { return AppStatus; }

 private:
  bool Connect();
  bool SendFirst(const std::string& records);
  void DropConnection();
  void SendRecords(const std::string& records, size_t from = 0);
  bool ReceiveSome();  // false once the request has ended
  void TakeRecords();
  void TakeStderr(const char* data, size_t len, bool flush);
  void End(PhpRunResult outcome);

  PhpPool& Pool;
  PhpStderrFunc OnStderr;
  void* Context;
  int SlotIndex = -1;
  PhpPool::Worker* Worker = nullptr;  // the slot's worker, ours while the slot is
  PlSocket Sock = PL_NO_SOCKET;
  bool Kept = false;     // Sock served an earlier request
  int RecvSliceMs = 0;   // the receive time-out Sock has now
  bool AllSent = false;  // every record of the request went out
  uint64_t Deadline = 0;
  std::string In;        // received bytes not yet taken apart
  size_t InPos = 0;
  std::string Out;       // script output not yet read
  size_t OutPos = 0;
  std::string ErrLine;   // an error line still waiting for its end
  bool Finished = false;
  bool SendFailed = false;
  PhpRunResult Outcome = PHP_RUN_NO_WORKER;
  unsigned AppStatus = 0;
};

#endif
