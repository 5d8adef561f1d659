// Building a script's CGI environment from the request, and turning the
// interpreter's output (its header block, status and body) into the reply
// the client gets.
#include "cgi_reply.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>


namespace {

// The most the relay takes from the interpreter's output at a time, and so
// the most it sends at once: a reader that has more at hand (a worker's
// records) passes it on in fewer, larger sends.
const int kRelayPiece = 16384;
const int kLargestWrite = 65536;
const size_t kNone = std::string::npos;

// ---------------------------------------------------------------- environment

// Decimal digits of v into the end of buf; returns where they start.
char* Digits(unsigned long long v, char* end) {
  *--end = 0;
  do *--end = (char)('0' + v % 10);
  while (v /= 10);
  return end;
}

void AddNumber(CgiEnv& env, const char* nameEq, int value) {
  char buf[24];
  char* p = Digits(value < 0 ? 0ull - (unsigned long long)value : (unsigned long long)value, buf + sizeof buf);
  if (value < 0) *--p = '-';
  env.Add(nameEq, p, strlen(p));
}

// The dotted form of an address in network byte order.
void AddAddress(CgiEnv& env, const char* nameEq, unsigned ip) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(&ip);
  char buf[16];
  char* p = buf;
  for (int i = 0; i < 4; i++) {
    char digits[4];
    for (const char* d = Digits(b[i], digits + sizeof digits); *d;) *p++ = *d++;
    *p++ = i < 3 ? '.' : 0;
  }
  env.Add(nameEq, buf, (size_t)(p - 1 - buf));
}

// Copies one of the few variables of our own environment that the
// interpreter may need, and only when it is set. nameEq: "NAME=".
void AddInherited(CgiEnv& env, const char* nameEq) {
  char name[16];
  size_t len = strlen(nameEq) - 1;
  if (len >= sizeof name) return;
  memcpy(name, nameEq, len);
  name[len] = 0;
  if (const char* value = getenv(name)) env.Add(nameEq, value, strlen(value));
}

// Headers with a place of their own in the fixed list, and "Proxy", which
// would become HTTP_PROXY and send the script's own outgoing requests
// through whatever proxy the request names.
enum KnownHeader {
  H_ACCEPT, H_ACCEPT_LANGUAGE, H_ACCEPT_ENCODING, H_CONNECTION, H_COOKIE, H_HOST,
  H_REFERER, H_USER_AGENT, H_CONTENT_TYPE, H_CONTENT_LENGTH, H_PROXY, H_KNOWN
};
const char* const kKnownHeaders[H_KNOWN] = {"Accept",  "Accept-Language", "Accept-Encoding", "Connection",
                                            "Cookie",  "Host",            "Referer",         "User-Agent",
                                            "Content-Type", "Content-Length", "Proxy"};

// What the client sent, taken apart in one pass over its headers.
struct SentHeaders {
  const char* Known[H_KNOWN] = {};  // the first value of each, null when not sent
  // Every other header as HTTP_<NAME>, in the order first sent; a header
  // sent twice becomes one variable with the values joined by ", ".
  std::vector<std::pair<std::string, std::string>> Others;
};

// Only letters, digits and "-": a name with "_" or other signs could pass
// itself off as another header once "-" has become "_".
bool FitForAVariable(const char* name, size_t len) {
  if (len == 0) return false;
  for (size_t i = 0; i < len; i++)
    if (!isalnum((unsigned char)name[i]) && name[i] != '-') return false;
  return true;
}

void AddOther(SentHeaders& sent, const char* name, size_t len, const char* value) {
  std::string var = "HTTP_";
  for (size_t k = 0; k < len; k++) var += name[k] == '-' ? '_' : (char)toupper((unsigned char)name[k]);
  for (auto& other : sent.Others) {
    if (other.first != var) continue;
    other.second += ", ";
    other.second += value;
    return;
  }
  sent.Others.emplace_back(var, value);
}

void ReadHeaders(HTTPS_CLIENT* c, SentHeaders& sent) {
  for (int i = 0; i < c->InHeaders.Count(); i++) {
    const char* entry = c->InHeaders[i]->c_str();
    const char* colon = strstr(entry, ": ");
    if (!colon) continue;
    size_t len = (size_t)(colon - entry);
    int known = 0;
    while (known < H_KNOWN && (strlen(kKnownHeaders[known]) != len ||
                               StrCompareIC(entry, kKnownHeaders[known], (long long)len) != 0))
      known++;
    if (known < H_KNOWN) {
      if (!sent.Known[known]) sent.Known[known] = colon + 2;
    } else if (FitForAVariable(entry, len)) {
      AddOther(sent, entry, len, colon + 2);
    }
  }
}

// A header variable exists only when the client sent the header: scripts
// test isset() and take an empty one for a real value.
void AddIfSent(CgiEnv& env, const SentHeaders& sent, KnownHeader h, const char* nameEq, const CStr& value) {
  if (sent.Known[h]) env.Add(nameEq, value);
}

// ---------------------------------------------------------------- reply

void SendAll(CSocket* sock, const char* buf, size_t len) {
  while (len > 0) {
    int n = sock->Write(buf, (int)(len > (size_t)kLargestWrite ? (size_t)kLargestWrite : len));
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
  char buf[kRelayPiece];
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

void CgiBuildEnvironment(CHttpServer* server, HTTPS_CLIENT* c, const CStr& scriptFile, CgiEnv& env) {
  bool body = CHttpServer::HasRequestBody(c->Method);
  SentHeaders sent;
  ReadHeaders(c, sent);
  char portBuf[24];
  const char* port = Digits((unsigned)server->GetPort(), portBuf + sizeof portBuf);

  AddInherited(env, "COMSPEC=");
  if (body) {
    if (c->Method == CHttpServer::HTTPS_MET_POST || sent.Known[H_CONTENT_LENGTH])
      AddNumber(env, "CONTENT_LENGTH=", c->PostLen);
    // As sent: the boundary of a multipart body must reach the script whole.
    if (const char* type = sent.Known[H_CONTENT_TYPE]) env.Add("CONTENT_TYPE=", type, strlen(type));
  }
  env.Add("QUERY_STRING=", c->QueryStr);
  env.Add("DOCUMENT_ROOT=", server->GetHomeDir());
  env.Add("GATEWAY_INTERFACE=CGI/1.1");
  AddIfSent(env, sent, H_ACCEPT, "HTTP_ACCEPT=", c->InAccept);
  AddIfSent(env, sent, H_ACCEPT_LANGUAGE, "HTTP_ACCEPT_LANGUAGE=", c->AcceptLanguage);
  if (const char* enc = sent.Known[H_ACCEPT_ENCODING]) env.Add("HTTP_ACCEPT_ENCODING=", enc, strlen(enc));
  AddIfSent(env, sent, H_CONNECTION, "HTTP_CONNECTION=", c->InConnection);
  // The server has already taken its own cookies out of this one.
  if (!c->InCookies.IsEmpty()) env.Add("HTTP_COOKIE=", c->InCookies);
  AddIfSent(env, sent, H_HOST, "HTTP_HOST=", c->Host);
  AddIfSent(env, sent, H_REFERER, "HTTP_REFERER=", c->Referer);
  // Present only over TLS: scripts test isset($_SERVER['HTTPS']).
  if (c->Socket && c->Socket->Ssl) env.Add("HTTPS=on");
  AddIfSent(env, sent, H_USER_AGENT, "HTTP_USER_AGENT=", c->InUserAgent);
  AddInherited(env, "PATH=");
  if (!c->PathInfo.IsEmpty()) {
    env.Add("PATH_INFO=", c->PathInfo);
    CStr translated = server->GetHomeDir();
    translated.Cat(c->PathInfo);
    translated.NativePath();
    env.Add("PATH_TRANSLATED=", translated);
  }
  AddAddress(env, "REMOTE_ADDR=", c->Ip);
  AddAddress(env, "REMOTE_HOST=", c->Ip);
  AddNumber(env, "REMOTE_PORT=", (int)c->Port);
  const char* method = server->GetMethodStr(c->Method);
  env.Add("REQUEST_METHOD=", method, strlen(method));
  env.Add("REQUEST_URI=", c->Target.IsEmpty() ? c->Arg : c->Target);
  env.Add("SCRIPT_FILENAME=", scriptFile);
  env.Add("SCRIPT_NAME=", c->Arg);
  AddAddress(env, "SERVER_ADDR=", c->LocalIp);
  env.Add("SERVER_NAME=localhost");
  env.Add("SERVER_PORT=", port, strlen(port));
  env.Add("SERVER_PROTOCOL=HTTP/1.1");
  std::string signature = port;
  signature += "</ADDRESS>";
  env.Add("SERVER_SIGNATURE=<ADDRESS>Lumetta/1.0.3 Server at localhost Port ", signature.data(), signature.size());
  env.Add("SERVER_SOFTWARE=Lumetta/1.0.3 (Windows)");
  AddInherited(env, "SystemDrive=");
  AddInherited(env, "SystemRoot=");
  AddInherited(env, "TEMP=");
  AddInherited(env, "TMP=");
  for (const auto& other : sent.Others) env.Add((other.first + "=").c_str(), other.second.data(), other.second.size());
}

CgiEnv::CgiEnv() {
  // Room for a page request's variables without growing.
  Text.reserve(2048);
  Ends.reserve(48);
}

void CgiEnv::Add(const char* entry) { Add(entry, "", 0); }

void CgiEnv::Add(const char* nameEq, const char* value, size_t valueLen) {
  Text += nameEq;
  Text.append(value, valueLen);
  Ends.push_back(Text.size());
  Text += '\0';
}

void CgiEnv::Params(std::vector<FcgiParam>& params) const {
  params.clear();
  params.reserve(Ends.size());
  size_t start = 0;
  for (size_t end : Ends) {
    params.push_back(FcgiParam{Text.data() + start, end - start});
    start = end + 1;
  }
}

void CgiEnv::ToList(CStrList& list) const {
  size_t start = 0;
  for (size_t end : Ends) {
    list.Add(CStr(Text.data() + start, (int)(end - start)));
    start = end + 1;
  }
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

  char buf[kRelayPiece];
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
