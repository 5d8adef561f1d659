// Sending a gateway request to a warm worker of the PHP pool: which pool serves
// which handler, starting one for a handler, and the single log line when a
// request falls back to a php-cgi of its own.
#include "cgi_pool.h"

#include <atomic>

#include "cgi_reply.h"
#include "cgiwrapper.h"
#include "php_options.h"
#include "phppool.h"
#include "pl_thread.h"

namespace {

// The one pool and the handler it serves. Connection threads read it for
// every request; the player sets it before accepting and clears it after.
struct PoolChoice {
  PlMutex Lock;
  const __https_obj* Handler = nullptr;
  PhpPool* Pool = nullptr;
  std::atomic<bool> BusyLogged{false};  // each said once
  std::atomic<bool> GoneLogged{false};
};

PoolChoice& Choice() {
  static PoolChoice choice;
  return choice;
}

PhpPool* PoolFor(const __https_obj* handler) {
  PoolChoice& c = Choice();
  PlLock g(c.Lock);
  return handler && handler == c.Handler ? c.Pool : nullptr;
}

// The worker's output, read straight from its FastCGI records.
class WorkerOutput : public CgiOutput {
 public:
  explicit WorkerOutput(PhpRequest& request) : Request(request) {}
  int Read(char* buf, int len) override { return Request.Read(buf, len); }

 private:
  PhpRequest& Request;
};

void ToErrorLog(void* log, const char* line, int len) {
  CgiErrorLog* errors = static_cast<CgiErrorLog*>(log);
  errors->Add(line, len);
  errors->Add("\n", 1);
}

void LogFallbackOnce(CHttpServer* server, HTTPS_CLIENT* client, PhpPool& pool) {
  PoolChoice& c = Choice();
  if (pool.IsRunning()) {
    if (!c.BusyLogged.exchange(true))
      server->PrintLog(client->Ip, "CGI PHP workers all busy; such requests run an interpreter of their own");
  } else if (!c.GoneLogged.exchange(true)) {
    server->PrintLog(client->Ip, "CGI PHP workers unavailable (%s); one interpreter per request from now",
                     pool.FailureText().c_str());
  }
}

}  // namespace

void CgiUsePool(const __https_obj* handler, PhpPool* pool) {
  PoolChoice& c = Choice();
  PlLock g(c.Lock);
  c.Handler = pool ? handler : nullptr;
  c.Pool = handler ? pool : nullptr;
  c.BusyLogged = false;
  c.GoneLogged = false;
}

bool CgiStartPool(PhpPool& pool, const __https_obj* handler, int workers) {
  if (!handler) return false;
  // The workers get no script on their command line: each request names
  // its own through SCRIPT_FILENAME.
  CStr cmd("\"");
  cmd.Cat(handler->Path);
  cmd.Cat("\" ");
  CStr options;
  options.Printf(handler->Args.c_str(), "");  // the argument text is a format with '%' doubled
  cmd.Cat(options);
  CStrList env;
  PhpAddOptionsEnvironment(handler->Path, env);
  pool.TimeOutSec = CgiTimeOut;
  if (!pool.Start(cmd.c_str(), workers, &env)) return false;
  CgiUsePool(handler, &pool);
  return true;
}

CgiPoolRun CgiRunOnPool(const __https_obj* handler, HTTPS_CLIENT* client, const CgiEnv& env, const CStr& cmd) {
  PhpPool* pool = PoolFor(handler);
  if (!pool) return CGI_POOL_NOT_USED;
  CHttpServer* server = client->CHttpServerEx;
  const char* body = nullptr;
  size_t bodyLen = 0;
  if (CHttpServer::HasRequestBody(client->Method) && client->Cgi && client->PostLen > 0) {
    int len = client->PostLen < client->Cgi->ArgsRaw.Len ? client->PostLen : client->Cgi->ArgsRaw.Len;
    body = client->Cgi->ArgsRaw.Str;
    bodyLen = len > 0 ? (size_t)len : 0;
  }
  CgiErrorLog errors(server, client->Ip, client->Arg);
  {
    PhpRequest request(*pool, ToErrorLog, &errors);
    std::vector<FcgiParam> params;
    env.Params(params);
    request.Send(params, body, bodyLen);
    if (request.Result() == PHP_RUN_NO_WORKER) {
      LogFallbackOnce(server, client, *pool);
      return CGI_POOL_NOT_USED;
    }
    server->PrintLog(client->Ip, "CGI Start %s", cmd.c_str());
    WorkerOutput output(request);
    CgiSendReply(server, client, output);
    if (request.Result() == PHP_RUN_TIMED_OUT) {
      server->PrintLog(client->Ip, "CGI Time-out %s", cmd.c_str());
      return CGI_POOL_TIMED_OUT;
    }
    if (request.Result() == PHP_RUN_WORKER_LOST) server->PrintLog(client->Ip, "CGI Worker lost %s", cmd.c_str());
  }
  return CGI_POOL_DONE;
}
