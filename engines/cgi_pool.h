// The gateway's second transport: a script handed to a warm php-cgi worker
// of a PhpPool over FastCGI instead of a php-cgi started for the request.
// The environment and the reply are the CGI path's own (cgi_reply.h).
#ifndef LUMETTA_CGI_POOL_H
#define LUMETTA_CGI_POOL_H

#include "cgi_reply.h"
#include "chttpserver.h"
#include "cstr.h"

class PhpPool;

// Sends the scripts of the extension handler `handler` to pool; a null pool
// (or handler) goes back to one interpreter per request. Set before the
// server accepts and cleared only after it has stopped: the pool must
// outlive every request made on it.
void CgiUsePool(const __https_obj* handler, PhpPool* pool);

// Starts `workers` workers of the interpreter of handler (its program, the
// start-up options in its Args and the variables the player gives it), with
// the gateway's time-out, and registers the pool for handler. False, with
// nothing registered and the reason in the pool's FailureText(), when the
// interpreter does not serve FastCGI or can't be started.
bool CgiStartPool(PhpPool& pool, const __https_obj* handler, int workers);

enum CgiPoolRun {
  CGI_POOL_NOT_USED,  // no pool for this handler, or no worker to be had: nothing was sent
  CGI_POOL_DONE,      // the whole reply was written
  CGI_POOL_TIMED_OUT  // the script was stopped at the time-out; what it wrote was relayed
};

// Runs the script of client's request on the pool registered for handler,
// with env as its variables, and writes the reply. cmd names the script's
// run in the log lines, as on the CGI path.
CgiPoolRun CgiRunOnPool(const __https_obj* handler, HTTPS_CLIENT* client, const CgiEnv& env, const CStr& cmd);

#endif
