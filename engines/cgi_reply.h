// The transport-free half of the CGI gateway: the environment a script gets
// and the reply built from the interpreter's output. The pipe to a php-cgi
// child uses them, and so can any other way of talking to an interpreter.
#ifndef LUMETTA_CGI_REPLY_H
#define LUMETTA_CGI_REPLY_H

#include <string>
#include <vector>

#include "cfastcgi.h"
#include "chttpserver.h"
#include "cstr.h"

// The interpreter's standard output as a byte stream.
class CgiOutput {
 public:
  virtual ~CgiOutput() {}
  // Up to len bytes into buf, as many as are at hand; 0 once the output
  // has ended.
  virtual int Read(char* buf, int len) = 0;
};

// The header block is gathered up to this size to find its Status and
// Location lines; a longer one (or one that never ends) is relayed as it
// comes, with only a leading Status line honoured.
const int CGI_MAX_HEAD_LEN = 65536;

// Writes the whole reply for the client from the interpreter's output: the
// status line (from a Status header anywhere in the block, 302 for a
// Location without one, else 200), the server's Server and Date lines, the
// interpreter's other headers and the body, streamed as it arrives. A HEAD
// request gets no body. Nothing at all is sent when the output is empty.
void CgiSendReply(CHttpServer* server, HTTPS_CLIENT* client, CgiOutput& out);

// A script's variables: "NAME=value" entries in their order, back to back
// in one buffer, so that building the forty-odd of a request costs no
// allocation per entry.
class CgiEnv {
 public:
  CgiEnv();
  void Add(const char* entry);
  void Add(const char* nameEq, const char* value, size_t valueLen);
  void Add(const char* nameEq, const CStr& value) { Add(nameEq, value.Str ? value.Str : "", (size_t)value.Len); }
  size_t Count() const { return Ends.size(); }
  // The entries as FastCGI parameters, pointing into this object.
  void Params(std::vector<FcgiParam>& params) const;
  // The entries as a list, for a child process's environment.
  void ToList(CStrList& list) const;

 private:
  std::string Text;          // every entry followed by a NUL
  std::vector<size_t> Ends;  // where each entry's NUL is
};

// The variables for the script scriptFile run for client, in their fixed
// order, then the request's other headers as HTTP_ variables.
void CgiBuildEnvironment(CHttpServer* server, HTTPS_CLIENT* client, const CStr& scriptFile, CgiEnv& env);

// The interpreter's error output, cut into lines, each one written to the
// server's log with the script's name: warnings belong there, never in a
// page. Feed it pieces as they come; the last unfinished line is written
// when the object goes.
class CgiErrorLog {
 public:
  CgiErrorLog(CHttpServer* server, unsigned ip, const CStr& script);
  ~CgiErrorLog();
  CgiErrorLog(const CgiErrorLog&) = delete;
  CgiErrorLog& operator=(const CgiErrorLog&) = delete;
  void Add(const char* data, int len);

 private:
  void WriteLine();
  CHttpServer* Server;
  unsigned Ip;
  CStr Script;
  std::string Line;
};

#endif
