#include "cgi_reply.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>


namespace {

const int kChunk = 4096;
const size_t kNone = std::string::npos;

// ---------------------------------------------------------------- environment

// "NAME=value" assembled in a buffer the thread keeps, then copied once
// into the list: a page's forty-odd variables cost no more allocations
// than the list itself makes.
std::string& EntryBuffer() {
  static thread_local std::string entry;
  return entry;
}

void AddVar(CStrList& env, const char* nameEq, const char* value, size_t valueLen) {
  std::string& entry = EntryBuffer();
  entry.assign(nameEq);
  entry.append(value, valueLen);
  env.Add(entry.c_str());
}

void AddVar(CStrList& env, const char* nameEq, const CStr& value) {
  AddVar(env, nameEq, value.Str ? value.Str : "", (size_t)value.Len);
}

// Decimal digits of v into the end of buf; returns where they start.
char* Digits(unsigned long long v, char* end) {
  *--end = 0;
  do *--end = (char)('0' + v % 10);
  while (v /= 10);
  return end;
}

void AddVar(CStrList& env, const char* nameEq, int value) {
  char buf[24];
  char* p = Digits(value < 0 ? 0ull - (unsigned long long)value : (unsigned long long)value, buf + sizeof buf);
  if (value < 0) *--p = '-';
  AddVar(env, nameEq, p, strlen(p));
}

// The dotted form of an address in network byte order.
void AddAddress(CStrList& env, const char* nameEq, unsigned ip) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(&ip);
  char buf[16];
  char* p = buf;
  for (int i = 0; i < 4; i++) {
    char digits[4];
    for (const char* d = Digits(b[i], digits + sizeof digits); *d;) *p++ = *d++;
    *p++ = i < 3 ? '.' : 0;
  }
  AddVar(env, nameEq, buf, (size_t)(p - 1 - buf));
}

// Copies one of the few variables of our own environment that the
// interpreter may need, and only when it is set.
void AddInherited(CStrList& env, const char* name) {
  const char* value = getenv(name);
  if (!value) return;
  std::string& entry = EntryBuffer();
  entry.assign(name);
  entry += '=';
  entry += value;
  env.Add(entry.c_str());
}

// A header variable exists only when the client sent the header: scripts
// test isset() and take an empty one for a real value.
void AddIfSent(CStrList& env, HTTPS_CLIENT* c, const char* header, const char* nameEq, const CStr& value) {
  if (HttpsHeader(c, header)) AddVar(env, nameEq, value);
}

// Headers with a place of their own in the fixed list, and "Proxy", which
// would become HTTP_PROXY and send the script's own outgoing requests
// through whatever proxy the request names.
const char* const kNotPassedOn[] = {"Accept", "Accept-Language", "Accept-Encoding", "Connection",
                                    "Cookie", "Host",           "Referer",         "User-Agent",
                                    "Content-Type", "Content-Length", "Proxy"};

// Only letters, digits and "-": a name with "_" or other signs could pass
// itself off as another header once "-" has become "_".
bool PassedOn(const char* name, size_t len) {
  if (len == 0) return false;
  for (size_t i = 0; i < len; i++)
    if (!isalnum((unsigned char)name[i]) && name[i] != '-') return false;
  for (const char* skip : kNotPassedOn)
    if (strlen(skip) == len && StrCompareIC(name, skip, (long long)len) == 0) return false;
  return true;
}

// Every other header as HTTP_<NAME>, in the order first sent; a header sent
// twice becomes one variable with the values joined by ", ".
void AddOtherHeaders(CStrList& env, HTTPS_CLIENT* c) {
  std::vector<std::string> vars, values;
  for (int i = 0; i < c->InHeaders.Count(); i++) {
    const char* entry = c->InHeaders[i]->c_str();
    const char* colon = strstr(entry, ": ");
    if (!colon || !PassedOn(entry, (size_t)(colon - entry))) continue;
    std::string var = "HTTP_";
    for (const char* k = entry; k < colon; k++) var += *k == '-' ? '_' : (char)toupper((unsigned char)*k);
    const char* value = colon + 2;
    size_t at = 0;
    while (at < vars.size() && vars[at] != var) at++;
    if (at < vars.size()) {
      values[at] += ", ";
      values[at] += value;
    } else {
      vars.push_back(var);
      values.push_back(value);
    }
  }
  for (size_t i = 0; i < vars.size(); i++) AddVar(env, (vars[i] + "=").c_str(), values[i].data(), values[i].size());
}

// ---------------------------------------------------------------- reply

void SendAll(CSocket* sock, const char* buf, size_t len) {
  while (len > 0) {
    int n = sock->Write(buf, (int)(len > (size_t)kChunk * 16 ? (size_t)kChunk * 16 : len));
    if (n <= 0) return;  // the client is gone; the output is still read to its end
    buf += n;
    len -= (size_t)n;
  }
}

// The status line and the server's own lines, then the first of the
// interpreter's output: one write, so that a small page leaves in one piece.
void SendStatusAndServerLines(CHttpServer* server, CSocket* sock, const CStr& status, const char* first, size_t len) {
  std::string head = "HTTP/1.1 ";
  head.append(status.c_str(), (size_t)status.Len);
  head += "\r\nServer: ";
  head.append(server->ServerName.c_str(), (size_t)server->ServerName.Len);
  head += "\r\nDate: ";
  head += CHttpServer::Time(nullptr);
  head += "\r\n";
  head.append(first, len);
  SendAll(sock, head.data(), head.size());
}

// A "Status:" first line, read the way the gateway always has: the text
// starts one character after the colon, whatever that character is, and
// runs to the first CR (or, failing that, LF); the line end and one more CR
// or LF are dropped. A Status line without any line end is dropped with
// everything after it, under a plain 200. Returns where the rest starts.
size_t ReadLeadingStatus(const std::string& data, CStr& status) {
  if (!StrStartsWithIC(data.data(), data.size(), "Status:")) {
    status = "200 OK";
    return 0;
  }
  size_t eol = data.find('\r');
  if (eol == kNone) eol = data.find('\n');
  if (eol == kNone) {
    status = "200 OK";
    return data.size();
  }
  status.Empty();
  if (eol > 8) status.Cat(data.data() + 8, (int)(eol - 8));
  size_t rest = eol + 1;
  if (rest < data.size() && (data[rest] == '\n' || data[rest] == '\r')) rest++;
  return rest;
}

// Where the header block ends (just past its blank line), or kNone.
size_t FindHeadEnd(const std::string& data) {
  for (size_t pos = 0;;) {
    size_t eol = data.find('\n', pos);
    if (eol == kNone) return kNone;
    if (eol == pos || (eol == pos + 1 && data[pos] == '\r')) return eol + 1;
    pos = eol + 1;
  }
}

// A header block without a leading Status line: the first "Status:" line
// anywhere in it gives the status and is taken out; without one, a
// "Location:" header means a redirect (302 Found, as CGI has it).
void TakeStatusFromHead(std::string& data, size_t& headEnd, CStr& status) {
  bool location = false;
  for (size_t pos = 0; pos < headEnd;) {
    size_t eol = data.find('\n', pos);
    const char* line = data.data() + pos;
    size_t len = eol - pos;
    if (StrStartsWithIC(line, len, "Status:")) {
      size_t from = 7;
      while (from < len && (line[from] == ' ' || line[from] == '\t')) from++;
      size_t to = len;
      while (to > from && (line[to - 1] == '\r' || line[to - 1] == ' ')) to--;
      status = CStr(line + from, (int)(to - from));
      data.erase(pos, eol + 1 - pos);
      headEnd -= eol + 1 - pos;
      return;
    }
    if (StrStartsWithIC(line, len, "Location:")) location = true;
    pos = eol + 1;
  }
  status = location ? "302 Found" : "200 OK";
}

// Reads into data until the header block is complete, the limit is reached
// or the output ends. Returns where the block ends, or kNone.
size_t GatherHead(CgiOutput& out, std::string& data) {
  char buf[kChunk];
  while (data.size() < (size_t)CGI_MAX_HEAD_LEN) {
    int n = out.Read(buf, sizeof buf);
    if (n <= 0) break;
    data.append(buf, (size_t)n);
    size_t end = FindHeadEnd(data);
    if (end != kNone) return end;
  }
  return kNone;
}

}  // namespace

void CgiBuildEnvironment(CHttpServer* server, HTTPS_CLIENT* c, const CStr& scriptFile, CStrList& env) {
  bool body = CHttpServer::HasRequestBody(c->Method);
  char portBuf[24];
  const char* port = Digits((unsigned)server->GetPort(), portBuf + sizeof portBuf);

  AddInherited(env, "COMSPEC");
  if (body) {
    if (c->Method == CHttpServer::HTTPS_MET_POST || HttpsHeader(c, "Content-Length"))
      AddVar(env, "CONTENT_LENGTH=", c->PostLen);
    // As sent: the boundary of a multipart body must reach the script whole.
    if (const char* type = HttpsHeader(c, "Content-Type")) AddVar(env, "CONTENT_TYPE=", type, strlen(type));
  }
  AddVar(env, "QUERY_STRING=", c->QueryStr);
  AddVar(env, "DOCUMENT_ROOT=", server->GetHomeDir());
  env.Add("GATEWAY_INTERFACE=CGI/1.1");
  AddIfSent(env, c, "Accept", "HTTP_ACCEPT=", c->InAccept);
  AddIfSent(env, c, "Accept-Language", "HTTP_ACCEPT_LANGUAGE=", c->AcceptLanguage);
  if (const char* enc = HttpsHeader(c, "Accept-Encoding")) AddVar(env, "HTTP_ACCEPT_ENCODING=", enc, strlen(enc));
  AddIfSent(env, c, "Connection", "HTTP_CONNECTION=", c->InConnection);
  // The server has already taken its own cookies out of this one.
  if (!c->InCookies.IsEmpty()) AddVar(env, "HTTP_COOKIE=", c->InCookies);
  AddIfSent(env, c, "Host", "HTTP_HOST=", c->Host);
  AddIfSent(env, c, "Referer", "HTTP_REFERER=", c->Referer);
  // Present only over TLS: scripts test isset($_SERVER['HTTPS']).
  if (c->Socket && c->Socket->Ssl) env.Add("HTTPS=on");
  AddIfSent(env, c, "User-Agent", "HTTP_USER_AGENT=", c->InUserAgent);
  AddInherited(env, "PATH");
  if (!c->PathInfo.IsEmpty()) {
    AddVar(env, "PATH_INFO=", c->PathInfo);
    CStr translated = server->GetHomeDir();
    translated.Cat(c->PathInfo);
    translated.NativePath();
    AddVar(env, "PATH_TRANSLATED=", translated);
  }
  AddAddress(env, "REMOTE_ADDR=", c->Ip);
  AddAddress(env, "REMOTE_HOST=", c->Ip);
  AddVar(env, "REMOTE_PORT=", (int)c->Port);
  const char* method = server->GetMethodStr(c->Method);
  AddVar(env, "REQUEST_METHOD=", method, strlen(method));
  AddVar(env, "REQUEST_URI=", c->Target.IsEmpty() ? c->Arg : c->Target);
  AddVar(env, "SCRIPT_FILENAME=", scriptFile);
  AddVar(env, "SCRIPT_NAME=", c->Arg);
  AddAddress(env, "SERVER_ADDR=", c->LocalIp);
  env.Add("SERVER_NAME=localhost");
  AddVar(env, "SERVER_PORT=", port, strlen(port));
  env.Add("SERVER_PROTOCOL=HTTP/1.1");
  std::string signature = port;
  signature += "</ADDRESS>";
  AddVar(env, "SERVER_SIGNATURE=<ADDRESS>Lumetta/1.0.3 Server at localhost Port ", signature.data(),
         signature.size());
  env.Add("SERVER_SOFTWARE=Lumetta/1.0.3 (Windows)");
  AddInherited(env, "SystemDrive");
  AddInherited(env, "SystemRoot");
  AddInherited(env, "TEMP");
  AddInherited(env, "TMP");
  AddOtherHeaders(env, c);
}

void CgiSendReply(CHttpServer* server, HTTPS_CLIENT* client, CgiOutput& out) {
  CSocket* sock = client->Socket;
  std::string data;
  size_t headEnd = GatherHead(out, data);
  if (data.empty()) return;  // nothing written: nothing is sent

  CStr status;
  size_t rest = ReadLeadingStatus(data, status);
  bool headOnly = client->Method == CHttpServer::HTTPS_MET_HEAD && headEnd != kNone;
  if (rest == 0 && headEnd != kNone) TakeStatusFromHead(data, headEnd, status);
  size_t sendEnd = headOnly ? headEnd : data.size();
  SendStatusAndServerLines(server, sock, status, data.data() + rest, rest < sendEnd ? sendEnd - rest : 0);

  char buf[kChunk];
  int n;
  while ((n = out.Read(buf, sizeof buf)) > 0)
    if (!headOnly) SendAll(sock, buf, (size_t)n);
}

CgiErrorLog::CgiErrorLog(CHttpServer* server, unsigned ip, const CStr& script)
    : Server(server), Ip(ip), Script(script) {}

CgiErrorLog::~CgiErrorLog() {
  if (!Line.empty()) WriteLine();
}

void CgiErrorLog::Add(const char* data, int len) {
  // A log line has a bounded length anyway; a line without an end must not
  // grow without bound either.
  const size_t kLongest = 4096;
  for (int i = 0; i < len; i++) {
    char ch = data[i];
    if (ch == '\n' || ch == '\r') {
      if (!Line.empty()) WriteLine();
    } else {
      Line += ch;
      if (Line.size() >= kLongest) WriteLine();
    }
  }
}

void CgiErrorLog::WriteLine() {
  Server->PrintLog(Ip, "CGI %s: %s", Script.c_str(), Line.c_str());
  Line.clear();
}
