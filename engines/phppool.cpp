// The PHP worker pool at work: starting, probing and replacing workers from a
// supervising thread, lending one to a request over FastCGI, and ending the
// worker of a script that overruns.
#include "phppool.h"

#include <algorithm>
#include <cstring>

#include "pl_fs.h"
#include "pl_process.h"

namespace {

// php-cgi leaves after 500 requests unless PHP_FCGI_MAX_REQUESTS says
// otherwise, and each worker has an opcode cache of its own: a successor
// starts cold, and for a large application its first pages are slow. So
// the workers are told a limit above the pool's own, and the pool retires
// a worker itself (bounding what a leaking script can hold), starting a
// warm successor shortly before.
const int kPhpOwnLimitMargin = 100;
const int kFailedStartsToGiveUp = 3;
// The supervisor is woken for every change a request notices; the tick
// only catches a worker that died while idle before a request finds it.
const unsigned kSuperviseTickMs = 500;
const unsigned kStopWaitMs = 5000;
const int kRequestId = 1;
const size_t kSendPiece = FCGI_MAX_CONTENT;
const size_t kReceivePiece = 65536;
// A receive from a worker waits at most this long before the request's
// deadline is looked at again.
const int kRecvSliceMs = 1000;

unsigned MsLeft(uint64_t deadline) {
  uint64_t now = PlMonotonicMs();
  return now >= deadline ? 0 : (unsigned)(deadline - now);
}

unsigned Smaller(unsigned a, unsigned b) { return a < b ? a : b; }

bool SendWhole(PlSocket s, const std::string& data) {
  size_t pos = 0;
  while (pos < data.size()) {
    int n = PlSockSend(s, data.data() + pos, (int)(data.size() - pos));
    if (n <= 0) return false;
    pos += (size_t)n;
  }
  return true;
}

}  // namespace

struct PhpPool::Worker {
  PlProc* Proc = nullptr;
  std::string SocketPath;
  int Served = 0;
  PlSocket Idle = PL_NO_SOCKET;  // the connection kept open for the next request
};

PhpPool::PhpPool() {}

PhpPool::~PhpPool() { Stop(); }

bool PhpPool::Start(const char* cmdLine, int workers, const CStrList* env) {
  if (Supervisor || workers < 1 || !cmdLine) return false;
  Failure.Empty();
  if (!PlMakePrivateTempDir("lumetta-php-", &SocketDir)) {
    Failure = "no directory for the worker sockets";
    return false;
  }
  CmdLine = cmdLine;
  EnvBlock.clear();
  for (const __cstr_list* n = env ? env->Beg : nullptr; n; n = n->Next) {
    EnvBlock.append(n->Str.Str ? n->Str.Str : "", (size_t)n->Str.Len);
    EnvBlock += '\0';
  }
  EnvBlock += "PHP_FCGI_MAX_REQUESTS=" + std::to_string(RequestsPerWorker + kPhpOwnLimitMargin);
  EnvBlock += '\0';
  Slots.assign((size_t)workers, Slot());
  Stopping = Failed = false;
  FailedStarts = 0;
  Sequence = 0;
  FirstRound.Reset();
  // Workers are started by one long-lived thread: on Linux a child's tie to
  // our life is a tie to the thread that started it.
  Supervisor = PlThreadStart(SupervisorMain, this);
  if (!Supervisor) {
    Failure = "no thread for the worker pool";
    PlRmdir(SocketDir.c_str());
    return false;
  }
  FirstRound.Wait(PL_INFINITE);
  bool ok;
  {
    PlLock g(Lock);
    ok = !Failed;
    Running = ok;
  }
  if (!ok) Stop();
  return ok;
}

void PhpPool::Stop() {
  if (!Supervisor) return;
  {
    PlLock g(Lock);
    Stopping = true;
    Running = false;
    WakeAllWaiters();
    Wake.Set();
  }
  PlThreadWait(Supervisor, PL_INFINITE);
  PlThreadClose(Supervisor);
  Supervisor = nullptr;
  PlRmdir(SocketDir.c_str());
}

std::vector<long long> PhpPool::WorkerPids() {
  std::vector<long long> pids;
  PlLock g(Lock);
  for (Slot& s : Slots)
    for (Worker* w : {s.Current, s.Spare})
      if (w) pids.push_back(PlProcessId(w->Proc));
  return pids;
}

// ---------------------------------------------------------------- supervisor

unsigned PhpPool::SupervisorMain(void* self) {
  static_cast<PhpPool*>(self)->Supervise();
  return 0;
}

void PhpPool::Supervise() {
  bool firstRound = true;
  for (;;) {
    Wake.Reset();
    std::vector<Worker*> retired;
    {
      PlLock g(Lock);
      if (Stopping) break;
      SwapInSpares(retired);
    }
    for (Worker* w : retired) EndWorker(w);
    StartMissingWorkers(firstRound);
    if (firstRound) {
      firstRound = false;
      FirstRound.Set();
    }
    Wake.Wait(kSuperviseTickMs);
  }
  EndAllWorkers();
  FirstRound.Set();
}

// Idle slots whose worker has gone (ended, timed out, near its end with a
// successor ready) get their successor; the old workers are handed back to
// be ended outside the lock.
void PhpPool::SwapInSpares(std::vector<Worker*>& retired) {
  for (Slot& s : Slots) {
    if (s.Spare && PlProcessWait(s.Spare->Proc, 0) != PL_PROC_RUNNING) {
      retired.push_back(s.Spare);
      s.Spare = nullptr;
    }
    if (s.Busy || !s.Current) continue;
    bool gone = s.Broken || PlProcessWait(s.Current->Proc, 0) != PL_PROC_RUNNING;
    bool due = s.Spare && s.Current->Served >= SpareAt();
    if (!gone && !due) continue;
    retired.push_back(s.Current);
    s.Current = s.Spare;
    s.Spare = nullptr;
    s.Broken = false;
  }
  HandOutFreeSlots();
}

void PhpPool::StartMissingWorkers(bool firstRound) {
  for (size_t i = 0; i < Slots.size(); i++) {
    {
      PlLock g(Lock);
      if (Stopping || Failed) return;
      Slot& s = Slots[i];
      bool needSpare = s.Current && !s.Spare && s.Current->Served >= SpareAt();
      if (s.Current && !needSpare) continue;
    }
    CStr why;
    Worker* w = StartWorker((int)i, &why);
    PlLock g(Lock);
    if (!w) {
      // A program that fails at once won't do better later: the callers
      // fall back to one interpreter per request.
      if (firstRound || ++FailedStarts >= kFailedStartsToGiveUp) {
        Failed = true;
        Failure = why;  // before Running: a caller that sees the pool stopped may read it
        Running = false;
        WakeAllWaiters();
      }
      continue;
    }
    FailedStarts = 0;
    Slot& s = Slots[i];
    (s.Current ? s.Spare : s.Current) = w;
    HandOutFreeSlots();
  }
}

PhpPool::Worker* PhpPool::StartWorker(int slotIndex, CStr* why) {
  Worker* w = new Worker;
  w->SocketPath = PlLocalEndpointPath(SocketDir, "w" + std::to_string(slotIndex) + "-" + std::to_string(++Sequence));
  PlSocket listener = PL_NO_SOCKET;
  PlFile endpointIn = PL_NO_FILE;
  std::string cmdLine = CmdLine.c_str();
  if (!PlLocalServeByChild(w->SocketPath.c_str(), &endpointIn, &cmdLine, &listener)) {
    *why = "no local socket for a PHP worker";
    delete w;
    return nullptr;
  }
  PlProcessStartInfo info;
  info.CmdLine = cmdLine.c_str();
  // Only the given variables: php-cgi passes its own on to every script,
  // and a script must see only those of its request and the player's.
  info.Env = EnvBlock.empty() ? "\0" : EnvBlock.c_str();
  info.StdIn = endpointIn;
  // A FastCGI application writes nothing to its standard output; a program
  // that is not one would write its CGI reply there, into our own.
  PlFile nowhere = PlOpenNullDevice();
  info.StdOut = nowhere;
  info.NoWindow = true;
  info.EndWithUs = true;
  w->Proc = PlProcessStart(info);
  if (listener != PL_NO_SOCKET) PlSockCloseHandle(listener);  // the worker holds it now
  PlPipeClose(nowhere);
  if (!w->Proc) {
    *why = "cannot start ";
    why->Cat(CmdLine);
    PlUnlink(w->SocketPath.c_str());
    delete w;
    return nullptr;
  }
  if (!Probe(w, why)) {
    EndWorker(w);
    return nullptr;
  }
  return w;
}

// A worker that makes its endpoint itself (a named pipe on Windows) needs a
// moment after its start before it can be reached.
PlSocket PhpPool::ConnectWhenServed(Worker* w, uint64_t deadline) {
  for (;;) {
    PlSocket s = PlSockLocalConnect(w->SocketPath.c_str());
    if (s != PL_NO_SOCKET || Stopping || MsLeft(deadline) == 0) return s;
    if (PlProcessWait(w->Proc, 0) != PL_PROC_RUNNING) return PL_NO_SOCKET;
    PlSleepMs(10);
  }
}

// One management exchange: a FastCGI application answers the question for
// its limits; a plain CGI program reads nothing useful from the socket and
// exits, or hangs.
bool PhpPool::Probe(Worker* w, CStr* why) {
  uint64_t deadline = PlMonotonicMs() + ProbeTimeOutSec * 1000ull;
  PlSocket s = ConnectWhenServed(w, deadline);
  std::string question;
  std::string pairs;
  FcgiAddNameValue(pairs, "FCGI_MPXS_CONNS", 15, "", 0);
  FcgiAddRecord(question, FCGI_GET_VALUES, 0, pairs.data(), pairs.size());
  bool answered = false;
  if (s != PL_NO_SOCKET && SendWhole(s, question)) {
    std::string got;
    while (got.size() < (size_t)FCGI_HEADER_LEN && !Stopping) {
      unsigned left = MsLeft(deadline);
      if (left == 0 || PlProcessWait(w->Proc, 0) != PL_PROC_RUNNING) break;
      int r = PlSockPoll(s, PL_SOCK_IN, (int)Smaller(left, 50));
      if (r < 0) break;
      if (r == 0) continue;
      char buf[256];
      int n = PlSockRecv(s, buf, sizeof buf);
      if (n <= 0) break;
      got.append(buf, (size_t)n);
    }
    FcgiHeader h;
    answered = got.size() >= (size_t)FCGI_HEADER_LEN &&
               FcgiParseHeader(reinterpret_cast<const unsigned char*>(got.data()), &h) &&
               h.Type == FCGI_GET_VALUES_RESULT;
  }
  PlSockClose(s);
  if (!answered) {
    *why = CmdLine;
    why->Cat(" does not answer as a FastCGI application");
  }
  return answered;
}

void PhpPool::EndWorker(Worker* w) {
  if (w->Idle != PL_NO_SOCKET) PlSockCloseConnected(w->Idle);
  PlProcessTerminate(w->Proc, 1);
  PlProcessWait(w->Proc, PL_PROC_INFINITE);
  PlProcessClose(w->Proc);
  PlUnlink(w->SocketPath.c_str());
  delete w;
}

// Every worker is killed at once; the records go only once no request uses
// them any more (a request in flight sees its connection end first).
void PhpPool::EndAllWorkers() {
  {
    PlLock g(Lock);
    for (Slot& s : Slots)
      for (Worker* w : {s.Current, s.Spare})
        if (w) PlProcessTerminate(w->Proc, 1);
  }
  uint64_t deadline = PlMonotonicMs() + kStopWaitMs;
  for (;;) {
    Lock.Lock();
    bool busy = false;
    for (Slot& s : Slots) busy = busy || s.Busy;
    if (!busy || MsLeft(deadline) == 0) break;
    Lock.Unlock();
    PlSleepMs(10);
  }
  for (Slot& s : Slots) {
    if (s.Busy) continue;  // a request that never came back keeps its record
    for (Worker** w : {&s.Current, &s.Spare}) {
      if (*w) EndWorker(*w);
      *w = nullptr;
    }
  }
  Lock.Unlock();
}

// ---------------------------------------------------------------- slots

int PhpPool::Acquire(unsigned timeoutMs) {
  Waiter me;
  {
    PlLock g(Lock);
    if (!Running) return -1;
    int slot = TakeFreeSlot();
    if (slot >= 0 || timeoutMs == 0) return slot;
    Waiting.push_back(&me);
  }
  me.Ready.Wait(timeoutMs);
  PlLock g(Lock);
  // Handed a slot or not, me leaves the queue before it goes out of scope.
  auto it = std::find(Waiting.begin(), Waiting.end(), &me);
  if (it != Waiting.end()) Waiting.erase(it);
  return me.SlotIndex;
}

// Taken in turn, so every worker stays warm and none reaches its end long
// before the others.
int PhpPool::TakeFreeSlot() {
  if (!Running) return -1;
  for (size_t k = 0; k < Slots.size(); k++) {
    size_t i = (NextSlot + k) % Slots.size();
    Slot& s = Slots[i];
    if (s.Busy || s.Broken || !s.Current || s.Current->Served >= RequestsPerWorker) continue;
    NextSlot = i + 1;
    s.Busy = true;
    if (++s.Current->Served >= SpareAt() && !s.Spare) Wake.Set();
    return (int)i;
  }
  return -1;
}

void PhpPool::HandOutFreeSlots() {
  while (!Waiting.empty()) {
    int slot = TakeFreeSlot();
    if (slot < 0) return;
    Waiter* w = Waiting.front();
    Waiting.pop_front();
    w->SlotIndex = slot;
    w->Ready.Set();  // under Lock: the waiter can't leave before this is done
  }
}

void PhpPool::WakeAllWaiters() {
  for (Waiter* w : Waiting) w->Ready.Set();
  Waiting.clear();
}

void PhpPool::Release(int slot, bool broken, PlSocket keep) {
  PlLock g(Lock);
  Slot& s = Slots[(size_t)slot];
  s.Current->Idle = keep;  // a busy slot's worker stays in place
  s.Busy = false;
  if (broken) s.Broken = true;
  if (broken || s.Spare) Wake.Set();
  HandOutFreeSlots();
}

// ---------------------------------------------------------------- request

PhpRequest::PhpRequest(PhpPool& pool, PhpStderrFunc onStderr, void* context)
    : Pool(pool), OnStderr(onStderr), Context(context) {}

PhpRequest::~PhpRequest() {
  // A reply not read to its end leaves the worker in an unknown state.
  if (SlotIndex >= 0) End(PHP_RUN_WORKER_LOST);
}

bool PhpRequest::Send(const CStrList& env, const void* body, size_t bodyLen) {
  std::vector<FcgiParam> params;
  FcgiParamsOf(env, params);
  return Send(params, body, bodyLen);
}

bool PhpRequest::Send(const std::vector<FcgiParam>& env, const void* body, size_t bodyLen) {
  Deadline = PlMonotonicMs() + Pool.TimeOutSec * 1000ull;
  // Built before a worker is taken, and in a buffer each thread keeps: the
  // records of a page request come to a kilobyte or two.
  static thread_local std::string records;
  records.clear();
  FcgiAddBeginRequest(records, kRequestId, FCGI_RESPONDER, true);
  // php-cgi keeps the parameters in a list it builds by putting each new
  // one in front, and hands them to the script from that list: sent last
  // first, they reach $_SERVER in the order of env, as they do over CGI.
  FcgiAddParams(records, kRequestId, env, true);
  const char* p = static_cast<const char*>(body);
  size_t sent = bodyLen < kSendPiece ? bodyLen : kSendPiece;
  if (sent > 0) FcgiAddRecord(records, FCGI_STDIN, kRequestId, p, sent);
  if (sent == bodyLen) FcgiAddRecord(records, FCGI_STDIN, kRequestId, nullptr, 0);
  bool handedOver = SendFirst(records);
  if (records.capacity() > 4 * kSendPiece) std::string().swap(records);  // after an upload
  if (!handedOver) return false;
  // The rest of a large body goes in pieces, never copied whole.
  std::string piece;
  for (; sent < bodyLen && !Finished && !SendFailed; sent += kSendPiece) {
    size_t n = bodyLen - sent < kSendPiece ? bodyLen - sent : kSendPiece;
    piece.clear();
    FcgiAddRecord(piece, FCGI_STDIN, kRequestId, p + sent, n);
    if (sent + n == bodyLen) FcgiAddRecord(piece, FCGI_STDIN, kRequestId, nullptr, 0);
    SendRecords(piece);
  }
  AllSent = !Finished && !SendFailed;
  return Outcome == PHP_RUN_DONE;
}

// The records of a page request fit the socket's buffer: one send, no wait.
// A kept connection that the worker closed while idle refuses it before
// anything of the request has gone, so it is safe to go again on a new
// one; once the first byte has gone, never.
bool PhpRequest::SendFirst(const std::string& records) {
  for (;;) {
    if (!Connect()) {
      Outcome = PHP_RUN_NO_WORKER;
      return false;
    }
    Outcome = PHP_RUN_DONE;
    int n = PlSockSendSome(Sock, records.data(), (int)records.size());
    if (n < 0 && Kept) {
      DropConnection();
      continue;
    }
    if (n < 0) {
      SendFailed = true;  // the worker stopped reading; its reply may still come
    } else if ((size_t)n < records.size()) {
      SendRecords(records, (size_t)n);
    }
    return Outcome == PHP_RUN_DONE;
  }
}

void PhpRequest::DropConnection() {
  PlSockCloseConnected(Sock);
  Sock = PL_NO_SOCKET;
  Kept = false;
}

// A free worker and a connection to it: the one it kept open, or a new
// one. A worker found dead is marked for replacement and the next one is
// tried.
bool PhpRequest::Connect() {
  for (int attempt = 0; attempt <= Pool.WorkerCount() + 1; attempt++) {
    if (SlotIndex < 0) {
      SlotIndex = Pool.Acquire(Smaller(MsLeft(Deadline), Pool.WaitForWorkerMs));
      if (SlotIndex < 0) return false;
      PlLock g(Pool.Lock);
      Worker = Pool.Slots[(size_t)SlotIndex].Current;
      Sock = Worker->Idle;
      Worker->Idle = PL_NO_SOCKET;
      Kept = Sock != PL_NO_SOCKET;
      RecvSliceMs = kRecvSliceMs;
    }
    if (Sock != PL_NO_SOCKET) return true;
    // The worker's record stays while its slot is ours: no lock needed.
    Sock = PlSockLocalConnect(Worker->SocketPath.c_str());
    if (Sock != PL_NO_SOCKET && PlSockSetRecvTimeoutMs(Sock, kRecvSliceMs)) return true;
    if (Sock != PL_NO_SOCKET) DropConnection();
    Pool.Release(SlotIndex, true);
    SlotIndex = -1;
  }
  return false;
}

// Writes while taking in what comes back: a script may answer before it
// has read its whole input, and neither side must block the other.
void PhpRequest::SendRecords(const std::string& records, size_t from) {
  size_t pos = from;
  while (pos < records.size() && SlotIndex >= 0 && !Finished) {
    unsigned left = MsLeft(Deadline);
    if (left == 0) return End(PHP_RUN_TIMED_OUT);
    int ready = PlSockPoll(Sock, PL_SOCK_IN | PL_SOCK_OUT, (int)left);
    if (ready < 0) {
      SendFailed = true;  // reading will tell what happened
      return;
    }
    if (ready & PL_SOCK_IN) {
      if (!ReceiveSome()) return;
    } else if (ready & PL_SOCK_OUT) {
      size_t piece = records.size() - pos < kSendPiece ? records.size() - pos : kSendPiece;
      int n = PlSockSendSome(Sock, records.data() + pos, (int)piece);
      if (n < 0) {
        SendFailed = true;  // the worker stopped reading; its reply may still come
        return;
      }
      pos += (size_t)n;
    }
  }
}

int PhpRequest::Read(void* buf, int n) {
  for (;;) {
    if (OutPos < Out.size()) {
      size_t k = Out.size() - OutPos;
      if (k > (size_t)n) k = (size_t)n;
      memcpy(buf, Out.data() + OutPos, k);
      OutPos += k;
      if (OutPos == Out.size()) {
        Out.clear();
        OutPos = 0;
      }
      return (int)k;
    }
    if (Finished || SlotIndex < 0) return 0;
    // The receive itself waits, in slices, so no poll goes before it; the
    // last slice ends at the deadline.
    unsigned left = MsLeft(Deadline);
    if (left == 0) {
      End(PHP_RUN_TIMED_OUT);
    } else if (left < (unsigned)RecvSliceMs && !PlSockSetRecvTimeoutMs(Sock, (int)left)) {
      End(PHP_RUN_WORKER_LOST);
    } else {
      RecvSliceMs = left < (unsigned)RecvSliceMs ? (int)left : RecvSliceMs;
      ReceiveSome();
    }
  }
}

bool PhpRequest::ReceiveSome() {
  // Into a buffer of its own: growing In by a whole piece first would clear
  // that many bytes for every read, most of a small page's cost.
  char piece[16384];
  int n = PlSockRecvTimed(Sock, piece, (int)sizeof piece);
  if (n == PL_SOCK_NOTHING_YET) return true;  // a slice passed; the caller checks the deadline
  if (n <= 0) {
    End(PHP_RUN_WORKER_LOST);  // gone before its end record
    return false;
  }
  In.append(piece, (size_t)n);
  TakeRecords();
  return SlotIndex >= 0;
}

// Takes apart every whole record received so far.
void PhpRequest::TakeRecords() {
  while (!Finished && In.size() - InPos >= (size_t)FCGI_HEADER_LEN) {
    FcgiHeader h;
    if (!FcgiParseHeader(reinterpret_cast<const unsigned char*>(In.data() + InPos), &h)) {
      End(PHP_RUN_WORKER_LOST);
      return;
    }
    size_t whole = FCGI_HEADER_LEN + h.ContentLength + h.PaddingLength;
    if (In.size() - InPos < whole) break;
    const char* content = In.data() + InPos + FCGI_HEADER_LEN;
    InPos += whole;
    if (h.RequestId != kRequestId) continue;
    if (h.Type == FCGI_STDOUT) {
      Out.append(content, h.ContentLength);
    } else if (h.Type == FCGI_STDERR) {
      TakeStderr(content, h.ContentLength, false);
    } else if (h.Type == FCGI_END_REQUEST) {
      FcgiEndRequest end;
      if (FcgiParseEndRequest(content, h.ContentLength, &end)) AppStatus = end.AppStatus;
      TakeStderr(nullptr, 0, true);
      End(PHP_RUN_DONE);
    }
  }
  if (InPos == In.size()) {
    In.clear();
    InPos = 0;
  } else if (InPos >= kReceivePiece) {
    In.erase(0, InPos);
    InPos = 0;
  }
}

void PhpRequest::TakeStderr(const char* data, size_t len, bool flush) {
  if (!OnStderr) return;
  ErrLine.append(data ? data : "", len);
  size_t start = 0, eol;
  while ((eol = ErrLine.find('\n', start)) != std::string::npos) {
    size_t stop = eol > start && ErrLine[eol - 1] == '\r' ? eol - 1 : eol;
    OnStderr(Context, ErrLine.data() + start, (int)(stop - start));
    start = eol + 1;
  }
  ErrLine.erase(0, start);
  if (flush && !ErrLine.empty()) {
    OnStderr(Context, ErrLine.data(), (int)ErrLine.size());
    ErrLine.clear();
  }
}

// The request is over: a worker that did not finish cleanly is ended now
// (a timed-out script stops at once) and replaced by the supervisor. A
// clean end leaves the connection open for the worker's next request, as
// long as nothing of this one is left in it either way.
void PhpRequest::End(PhpRunResult outcome) {
  if (SlotIndex < 0) return;
  Outcome = outcome;
  Finished = true;
  bool broken = outcome != PHP_RUN_DONE;
  if (broken) PlProcessTerminate(Worker->Proc, 1);
  bool keep = !broken && AllSent && InPos == In.size() &&
              (RecvSliceMs == kRecvSliceMs || PlSockSetRecvTimeoutMs(Sock, kRecvSliceMs));
  if (!keep) DropConnection();
  Pool.Release(SlotIndex, broken, Sock);
  Sock = PL_NO_SOCKET;
  SlotIndex = -1;
}
