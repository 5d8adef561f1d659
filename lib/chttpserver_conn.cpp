// CHttpServer: the connection thread. Reads exactly one request, fills the
// HTTPS_CLIENT, applies hooks and redirect, dispatches, then closes.
#include "chttpserver.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace {

const char kBlanks[] = "\n\r\t ";

// The server subtracts this instead of a time-zone offset when it reads
// If-Modified-Since; existing clients were tuned against it.
const time_t kModifiedSinceCorrection = 1007298047;

// Value text that starts `skip` characters after the header's colon, or ""
// when the line ends before that point.
const char* HeaderRest(char* name, char* save, int skip) {
  if (!save) return "";  // no colon: the name ran to the end of the line
  char* p = name + strlen(name) + 1;  // just after the colon
  for (int i = 1; i < skip; ++i, ++p)
    if (!*p) return "";
  return p;
}

// Digits only, within an int; anything else (signs, blanks inside, trailing
// text, overflow) is refused rather than guessed at.
bool ParseContentLength(const char* text, int* out) {
  while (*text == ' ' || *text == '\t') text++;
  long long value = 0;
  const char* p = text;
  for (; *p >= '0' && *p <= '9'; p++) {
    value = value * 10 + (*p - '0');
    if (value > 0x7fffffff) return false;
  }
  if (p == text) return false;
  while (*p == ' ' || *p == '\t') p++;
  if (*p) return false;
  *out = (int)value;
  return true;
}

time_t ParseModifiedSince(const char* value) {
  static const char* const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  int day = 0, year = 0, hour = 0, minute = 0, second = 0;
  char month[5] = {0};
  if (sscanf(value, "%*s %d %4s %d %d:%d:%d", &day, month, &year, &hour, &minute, &second) != 6)
    return 0;
  for (int m = 0; m < 12; ++m) {
    if (strcmp(month, kMonths[m]) != 0) continue;
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_mday = day;
    tm.tm_mon = m;
    tm.tm_year = year - 1900;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = 0;
    return mktime(&tm) - kModifiedSinceCorrection;
  }
  return 0;
}

// Keeps the header as "Name: value" for the gateway, which passes every
// header on; the parsing below cuts the line apart.
void KeepHeader(HTTPS_CLIENT* client, const char* line) {
  const char* colon = strchr(line, ':');
  if (!colon || colon == line) return;
  CStr entry(line, (int)(colon - line));
  const char* value = colon + 1;
  value += strspn(value, " \t");
  int len = (int)strlen(value);
  while (len > 0 && (value[len - 1] == ' ' || value[len - 1] == '\t')) len--;
  entry.Cat(": ");
  entry.Cat(value, len);
  client->InHeaders.Add(entry);
}

}  // namespace

const char* HttpsHeader(HTTPS_CLIENT* client, const char* name) {
  size_t n = strlen(name);
  for (int i = 0; i < client->InHeaders.Count(); i++) {
    const char* entry = client->InHeaders[i]->c_str();
    if (strlen(entry) > n && entry[n] == ':' && StrCompareIC(entry, name, (long long)n) == 0)
      return entry + n + 2;
  }
  return nullptr;
}

char* CHttpServer::StrTok(char* text, const char* delims, char** save) {
  char* p = text ? text : *save;
  if (!p) return nullptr;
  p += strspn(p, delims);
  if (!*p) {
    *save = nullptr;
    return nullptr;
  }
  char* end = p + strcspn(p, delims);
  if (*end) {
    *end = 0;
    *save = end + 1;
  } else {
    *save = nullptr;
  }
  return p;
}

unsigned int CHttpServer::ClientEx(void* arg) {
  HTTPS_CLIENT* client = static_cast<HTTPS_CLIENT*>(arg);
  CHttpServer* srv = client->CHttpServerEx;
  // Asked once per thread: the answer costs a system call.
  static thread_local unsigned long threadId = PlThreadCurrentId();
  client->ThreadID = threadId;
  if (!client->LocalIp) {
    unsigned short localPort = 0;
    PlSockLocalAddr(client->Socket->Socket, &client->LocalIp, &localPort);
  }
  // The handshake runs here, not on the accepting thread, so a client that
  // stalls it holds up nobody else; the deadline frees this thread too.
  bool ready = true;
  if (srv->SslEnabled && !client->Socket->Ssl) {
    ready = client->Socket->AcceptTls(srv->SslCtx, CSocket::kTlsHandshakeMs);
    if (!ready && srv->OnSslError) srv->OnSslError(client, 1);
  }
  // This thread is where everything thrown by an engine or the socket stops;
  // the reason goes to the log once, so that a request that got nothing
  // (php-cgi missing, say) can be traced.
  try {
    if (ready) srv->ServeRequest(client);
  } catch (int code) {
    srv->PrintLog(client->Ip, "Request \"%s\" ended by error %d", client->Arg.c_str(), code);
  } catch (const std::exception& e) {
    srv->PrintLog(client->Ip, "Request \"%s\" ended by error: %s", client->Arg.c_str(), e.what());
  } catch (...) {
    srv->PrintLog(client->Ip, "Request \"%s\" ended by an unknown error", client->Arg.c_str());
  }
  try {
    PlSockShutdownSend(client->Socket->Socket);
    delete client->Cgi;
    client->Cgi = nullptr;
    srv->ClientSocketClosing(client);
    delete client->Socket;
  } catch (...) {
  }
  delete client;
  return 0;
}

void CHttpServer::ServeRequest(HTTPS_CLIENT* client) {
  client->Cgi = nullptr;
  client->Flags = 0;
  client->Method = HTTPS_MET_NONE;
  client->ModifiedTm = 0;
  client->PostType = HTTPS_POSTENC_NONE;
  client->PostLen = 0;
  client->Socket->SetDeadline(HeadDeadlineMs);
  bool haveRequest = ReadRequest(client);
  // A head cut off by the deadline is not served in part.
  const bool late = client->Socket->DeadlinePassed();
  client->Socket->SetDeadline(-1);
  HeadDone(client);
  if (late) PrintLog(client->Ip, "Request head not complete in time");
  if (!haveRequest || late) return;
  if (client->Flags & HTTPS_CLIENTF_BADLENGTH) {
    SendBareLine(client, "400 Bad Request", "Content-Length");
    return;
  }
  if (!AccessKey.IsEmpty() && !AdmitRequest(client)) return;

  if (OnRequest && !OnRequest(client)) return;
  if (RedirEnabled && !client->Arg.IsEmpty()) {
    CStr location = RedirLocation + client->Arg;
    PrintLog(client->Ip, "Redirect from \"%s\" to \"%s\"", client->Arg.c_str(), location.c_str());
    SendMoved(client->Socket, location);
    return;
  }
  client->Target = client->Arg;
  int q = client->Arg.FindChar('?');
  if (q >= 0) {
    client->QueryStr = client->Arg.Right(q + 1);
    client->Arg = client->Arg.Left(q);
  }
  client->Arg.UrlDecode();
  SplitPathInfo(client);
  if (!AccessKey.IsEmpty() && !AdmitFromOrigin(client)) return;

  if (client->Method == HTTPS_MET_GET || client->Method == HTTPS_MET_HEAD)
    Get(client);
  else
    DispatchWithBody(client);
}

namespace {

struct MethodName {
  const char* Name;
  int Method;
};
const MethodName kMethods[] = {
    {"GET", CHttpServer::HTTPS_MET_GET},        {"POST", CHttpServer::HTTPS_MET_POST},
    {"HEAD", CHttpServer::HTTPS_MET_HEAD},      {"PUT", CHttpServer::HTTPS_MET_PUT},
    {"PATCH", CHttpServer::HTTPS_MET_PATCH},    {"DELETE", CHttpServer::HTTPS_MET_DELETE},
    {"OPTIONS", CHttpServer::HTTPS_MET_OPTIONS}};

}  // namespace

// Request line and header block. False when the connection is to be closed
// without going further (nothing usable, or a reply was already sent).
// Lines and the whole head are bounded; a request past a bound is refused
// whole rather than read in part.
bool CHttpServer::ReadRequest(HTTPS_CLIENT* client) {
  // Room for a full line, its CR LF and the terminating zero; one byte more
  // tells a line that is exactly full from one that goes on. On the stack
  // and not cleared: only the pages a line reaches are ever touched, which
  // keeps an idle connection small.
  char buf[HTTPS_MAX_LINE_LEN + 3];
  int headBytes = 0;
  while (char* line = client->Socket->Gets(buf, (unsigned)sizeof buf)) {
    int raw = (int)strlen(line);
    bool unfinished = raw == (int)sizeof buf - 1 && line[raw - 1] != '\n';
    line[strcspn(line, "\r\n")] = 0;
    bool first = client->Method == HTTPS_MET_NONE;
    if (unfinished || (int)strlen(line) > HTTPS_MAX_LINE_LEN)
      return first ? RefuseHead(client, ErrMsg414, "request line longer than %d bytes", HTTPS_MAX_LINE_LEN)
                   : RefuseHead(client, ErrMsg431, "header line longer than %d bytes", HTTPS_MAX_LINE_LEN);
    headBytes += raw;
    if (headBytes > HTTPS_MAX_HEAD_LEN)
      return RefuseHead(client, ErrMsg431, "request head longer than %d bytes", HTTPS_MAX_HEAD_LEN);
    if (!line[0]) break;
    if (first) {
      if (!ParseRequestLine(client, line)) return false;
    } else {
      ParseHeader(client, line);
    }
  }
  return client->Method != HTTPS_MET_NONE;
}

bool CHttpServer::ParseRequestLine(HTTPS_CLIENT* client, char* line) {
  char* save = nullptr;
  char* method = StrTok(line, " ", &save);
  char* target = StrTok(nullptr, " ", &save);
  if (!method || !target) return false;
  client->Arg = target;
  for (const MethodName& m : kMethods) {
    if (StrCompareIC(method, m.Name) == 0) {
      client->Method = m.Method;
      return true;
    }
  }
  SendError(client, ErrMsg405, method);
  return false;
}

// Answers a head past its bounds with a bare status line. The rest of the
// head is read and dropped first (up to a bound of its own): closing with
// unread bytes makes the system reset the connection, and the client would
// lose the answer.
bool CHttpServer::RefuseHead(HTTPS_CLIENT* client, HTTPS_ERRMSG& err, const char* whyFormat, int limit) {
  char scrap[4096];
  int dropped = 0;
  while (dropped < 4 * HTTPS_MAX_HEAD_LEN && client->Socket->Gets(scrap, sizeof scrap)) {
    int n = (int)strlen(scrap);
    dropped += n > 0 ? n : 1;
    if (scrap[0] == '\n' || (scrap[0] == '\r' && scrap[1] == '\n')) break;
  }
  CStr why;
  why.Printf(whyFormat, limit);
  SendError(client, err, why.c_str(), HTTPS_ERRF_BARE);
  return false;
}

void CHttpServer::ParseHeader(HTTPS_CLIENT* client, char* line) {
  KeepHeader(client, line);
  char* save = nullptr;
  char* name = StrTok(line, ":", &save);
  if (!name) return;
  if (StrCompareIC(name, "Authorization") == 0) {
    char* scheme = StrTok(nullptr, kBlanks, &save);
    // Other schemes (a bearer token for a script) are the application's
    // business: they reach it as HTTP_AUTHORIZATION.
    if (!scheme || StrCompareIC(scheme, "Basic") != 0) return;
    char* token = StrTok(nullptr, kBlanks, &save);
    int colon = -1;
    CStr credentials;
    if (token) {
      credentials = token;
      credentials.Base64Decode();
      colon = credentials.FindChar(':');
    }
    if (colon < 0) {
      // Answered at once; the request itself is still served afterwards.
      SendError(client, ErrMsg401, nullptr);
      return;
    }
    client->User = credentials.Left(colon);
    client->Password = credentials.Right(colon + 1);
  } else if (StrCompareIC(name, "Host") == 0) {
    char* host = StrTok(nullptr, kBlanks, &save);
    client->Host = host ? host : "";
  } else if (StrCompareIC(name, "Accept") == 0) {
    client->InAccept = HeaderRest(name, save, 1);
  } else if (StrCompareIC(name, "Accept-Language") == 0) {
    client->AcceptLanguage = HeaderRest(name, save, 1);
  } else if (StrCompareIC(name, "Connection") == 0) {
    client->InConnection = HeaderRest(name, save, 2);
    char* token = StrTok(nullptr, "\n\r ,", &save);
    if (token && StrCompareIC(token, "Keep-Alive") == 0) client->Flags |= HTTPS_CLIENTF_KEEPALIVE;
    if (token && StrCompareIC(token, "Close") == 0) client->Flags &= ~HTTPS_CLIENTF_KEEPALIVE;
  } else if (StrCompareIC(name, "Cookie") == 0) {
    client->InCookies = HeaderRest(name, save, 2);
  } else if (StrCompareIC(name, "Referer") == 0) {
    client->Referer = HeaderRest(name, save, 2);
  } else if (StrCompareIC(name, "User-Agent") == 0) {
    client->InUserAgent = HeaderRest(name, save, 2);
  } else if (StrCompareIC(name, "If-Modified-Since") == 0) {
    if (client->Method == HTTPS_MET_GET)
      client->ModifiedTm = ParseModifiedSince(HeaderRest(name, save, 1));
  } else if (StrCompareIC(name, "Origin") == 0) {
    client->InOrigin = HeaderRest(name, save, 2);
  } else if (StrCompareIC(name, "Sec-Fetch-Site") == 0) {
    client->InSecFetchSite = HeaderRest(name, save, 2);
  } else if (StrCompareIC(name, "Content-Length") == 0) {
    // A second length that disagrees makes the body's end ambiguous.
    int len = 0;
    bool ok = ParseContentLength(HeaderRest(name, save, 1), &len);
    if (!HasRequestBody(client->Method)) {
      // Bodies of other methods are never read.
    } else if (!ok || (client->PostLen && client->PostLen != len)) {
      client->Flags |= HTTPS_CLIENTF_BADLENGTH;
    } else {
      client->PostLen = len;
    }
  } else if (StrCompareIC(name, "Content-Type") == 0) {
    if (HasRequestBody(client->Method)) ParseContentType(client, save);
  }
}

void CHttpServer::ParseContentType(HTTPS_CLIENT* client, char* save) {
  char* type = StrTok(nullptr, "&;, ", &save);
  if (!type) return;
  client->ContentType = type;
  if (strcmp(type, "application/x-www-form-urlencoded") == 0) {
    client->PostType = HTTPS_POSTENC_WWWFORM;
  } else if (strcmp(type, "multipart/form-data") == 0) {
    const char* b = save ? strstr(save, "boundary=") : nullptr;
    if (b) {
      b += 9;
      // The stored boundary leaves out its first character; the multipart
      // parser's offsets are built on that.
      if (*b) ++b;
      client->Boundary = CStr(b, (int)strcspn(b, ","));
    }
    client->PostType = HTTPS_POSTENC_MULTIPART;
  }
}

// POST and the other methods that may carry a body. POST keeps its old
// rules (a length is required, engines take it); the others only ever reach
// a CGI script, which gets the body unparsed on its standard input.
void CHttpServer::DispatchWithBody(HTTPS_CLIENT* client) {
  bool post = client->Method == HTTPS_MET_POST;
  const char* method = GetMethodStr(client->Method);
  // A chunked body has no Content-Length; read as an empty one it would be
  // lost without a word, so the client is asked for a length instead.
  if (client->PostLen < 0 || (post && client->PostLen == 0) || HttpsHeader(client, "Transfer-Encoding")) {
    // A negative length is as unusable as a missing one.
    SendError(client, ErrMsg411, method);
    return;
  }
  if (client->Arg.IsEmpty()) {
    SendError(client, ErrMsg400, method);
    return;
  }
  if (client->PostLen > MaxPostLen) {
    client->Socket->Flush(client->PostLen);
    SendError(client, ErrMsg413, method, HTTPS_ERRF_BARE);
    return;
  }
  ResolveDefaultDocument(client);
  int mask = HTTPS_OBJ_VFILE | HTTPS_OBJ_EXT | (post ? HTTPS_OBJ_ENGINE : 0);
  __https_obj* obj = nullptr;
  if (!ParseArgs(obj, client, mask)) return;
  if (!obj) {
    // Nothing here takes the request. Only scripts take the newer methods;
    // a POST to something that exists is refused, to nothing not found.
    CStr local;
    bool isDir = false;
    bool exists = !post || LocalTarget(client->Arg, local, isDir);
    SendError(client, exists ? ErrMsg405 : ErrMsg404, method, HTTPS_ERRF_BARE);
    return;
  }
  if (!CheckAccess(obj, client)) return;
  if (obj->Type & HTTPS_OBJ_ENGINE) {
    try {
      obj->Func(obj, client);
    } catch (...) {
      PrintLog(client->Ip, "EXE %s: Internal error", obj->Alias.c_str());
      SendError(client, ErrMsg500, nullptr);
    }
  } else {
    RunCgi(obj, client);
  }
}
