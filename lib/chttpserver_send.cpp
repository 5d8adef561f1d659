// CHttpServer: the response writers, the log line writer and small lookups.
#include "chttpserver.h"
#include "pl_time.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "pl_fs.h"
#include "pl_sendfile.h"

namespace {

// Header blocks are formatted into a fixed buffer; reaching this many
// characters abandons the reply. Two spare bytes take the final CR LF when
// the block stops just short of the limit.
const int kHeaderLimit = 1023;
const int kHeaderBufSize = kHeaderLimit + 1 + 2;
const int kDateSize = 40;
// TLS sockets can't use the kernel's file copy; they go through CSocket in
// pieces of one TLS record.
const int kFileChunk = 16384;

const char* const kMethodNames[] = {"NONE", "GET", "POST", "UNKNOWN", "HEAD",
                                    "PUT", "PATCH", "DELETE", "OPTIONS"};
const int kMethodCount = (int)(sizeof kMethodNames / sizeof kMethodNames[0]);

const char kMovedBodyHead[] =
    "<head><title>Document Moved</title></head><body><h1>Object Moved</h1>"
    "This document may be found <a HREF=\"";
const char kMovedBodyTail[] = "\">here</a></body>";

const char kAuthBody[] =
    "<html>\n<head>\n  <title>401 Authorization Required</title>\n</head>\n<body>\n"
    "  <h1>Authorization Required</h1>\n  <p>This server could not verify that you\n"
    "  are authorized to access the document\n  requested.  Either you supplied the wrong\n"
    "  credentials (e.g., bad password), or your\n  browser doesn't understand how to supply\n"
    "  the credentials required.</p>\n  <hr>\n</body></html>\n";

// Percent-encodes control bytes and the characters that would close the
// redirect page's link; everything else stays as it was.
CStr EncodeHeaderUnsafe(const CStr& url) {
  static const char kHex[] = "0123456789ABCDEF";
  CStr out;
  for (int i = 0; i < url.Len; i++) {
    unsigned char c = (unsigned char)url.Str[i];
    if (c < 0x20 || c == 0x7f || c == '"' || c == '<' || c == '>') {
      const char esc[4] = {'%', kHex[c >> 4], kHex[c & 15], 0};
      out += esc;
    } else {
      out += (char)c;
    }
  }
  return out;
}

// The HTTP date of t, always in English and UTC: the C library's own names
// follow the locale, and its shared broken-down time is not thread-safe.
void FormatHttpDateNow(long long t, char* out) {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  struct tm u;
  if (!PlUtcTime((time_t)t, &u)) {
    out[0] = 0;
    return;
  }
  snprintf(out, kDateSize, "%s, %.2d %s %d %.2d:%.2d:%.2d GMT", kDays[u.tm_wday], u.tm_mday,
           kMonths[u.tm_mon], u.tm_year + 1900, u.tm_hour, u.tm_min, u.tm_sec);
}

// Every reply carries three dates, and within one second they are mostly
// the same few: each thread keeps the last ones it formatted (formatting
// was a quarter of the work of serving a small file).
void FormatHttpDate(long long t, char* out) {
  struct Entry {
    long long T = -1;
    char Text[kDateSize] = {0};
  };
  thread_local Entry cache[4];
  thread_local unsigned next = 0;
  for (Entry& e : cache)
    if (e.T == t) {
      memcpy(out, e.Text, kDateSize);
      return;
    }
  Entry& e = cache[next++ % 4];
  FormatHttpDateNow(t, e.Text);
  e.T = e.Text[0] ? t : -1;
  memcpy(out, e.Text, kDateSize);
}

// Appends to a header block under the overflow rule: the text must end
// before the limit, else the whole reply is abandoned.
bool AppendHeader(char* buf, int& len, const char* fmt, ...) {
  int space = kHeaderLimit - len;
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf + len, (size_t)space + 1, fmt, ap);
  va_end(ap);
  if (n < 0 || n >= space) return false;
  len += n;
  return true;
}

// The same overflow rule for the one header block every file reply sends,
// built by plain copies: formatting it was a fifth of serving a small file.
class HeaderText {
 public:
  explicit HeaderText(char* buf) : Buf(buf) {}
  HeaderText& operator<<(const char* text) { return Add(text, strlen(text)); }
  HeaderText& operator<<(int value) {
    char digits[16];
    char* p = digits + sizeof digits;
    unsigned v = value < 0 ? 0u - (unsigned)value : (unsigned)value;
    do *--p = (char)('0' + v % 10); while (v /= 10);
    if (value < 0) *--p = '-';
    return Add(p, (size_t)(digits + sizeof digits - p));
  }
  bool Fits() const { return Fit; }
  int Len() const { return Used; }

 private:
  HeaderText& Add(const char* text, size_t n) {
    if (Fit && (size_t)(kHeaderLimit - Used) > n) {
      memcpy(Buf + Used, text, n);
      Used += (int)n;
    } else {
      Fit = false;
    }
    return *this;
  }
  char* Buf;
  int Used = 0;
  bool Fit = true;
};

}  // namespace

bool CHttpServer::PrintLog(unsigned int ip, const char* format, ...) {
  if (!Log) return false;
  // A switched-off log accepts every line without writing; skip the
  // formatting that would be thrown away on every request.
  if (Log->LogLevel == 0) return true;
  char msg[kHeaderLimit + 1];
  va_list ap;
  va_start(ap, format);
  int n = vsnprintf(msg, sizeof msg, format, ap);
  va_end(ap);
  if (n <= 0 || n > kHeaderLimit) return false;
  return Log->Print("HTTP %d (%s): %s", Id, CLog::FormatIP(ip).c_str(), msg);
}

bool CHttpServer::WriteAll(CSocket* sock, const char* buf, int len) {
  return sock && sock->Write(buf, len) == len;
}

bool CHttpServer::SendHeader(HTTPS_CLIENT* client, int len, const char* type, const char* filename,
                             long long mtime, int flags) {
  long long now = 0;
  char date[kDateSize], modified[kDateSize], expires[kDateSize];
  memcpy(date, Time(&now), sizeof date);
  if (mtime == 0)
    memcpy(modified, date, sizeof date);
  else
    FormatHttpDate(mtime, modified);
  bool cacheable = flags & HTTPS_HEADERF_CACHEABLE;
  FormatHttpDate(cacheable ? now + (long long)CacheExpire : now, expires);
  if (!type || !*type) type = "text/html";

  char buf[kHeaderBufSize];
  HeaderText h(buf);
  h << "HTTP/1.1 200 OK\r\nServer: " << ServerName.c_str() << "\r\nDate: " << date
    << "\r\nConnection: close\r\nContent-type: " << type << "\r\nLast-Modified: " << modified
    << "\r\nExpires: " << expires << "\r\nCache-Control: " << (cacheable ? "public" : "no-store")
    << "\r\nPragma: " << (cacheable ? "public" : "no-cache") << "\r\n";
  // No length line for 0: engines that stream an unknown length pass 0.
  if (len != 0) h << "Content-length: " << len << "\r\n";
  if (filename) h << "Content-Disposition: attachment; filename=\"" << filename << "\"\r\n";
  int n = h.Len();
  if (h.Fits() && n < kHeaderLimit) {
    memcpy(buf + n, "\r\n", 3);
    n += 2;
  } else {
    PrintLog(client->Ip, "SEND HEADER: Buffer overflow");
    return false;
  }
  if (!WriteAll(client->Socket, buf, n)) {
    PrintLog(client->Ip, "SEND HEADER: Socket error");
    return false;
  }
  return true;
}

bool CHttpServer::SendFile(HTTPS_CLIENT* client, const char* path) {
  PlFile f = PL_NO_FILE;
  PlStatInfo info;
  if (PlOpenBeneath(nullptr, path, &f, &info) != PL_BENEATH_OPEN || info.IsDir) {
    PlFileClose(f);
    PrintLog(client->Ip, "SEND FILE: File \"%s\" not found", path);
    return false;
  }
  bool ok = SendOpenFile(client, f, info.Size, path);
  PlFileClose(f);
  return ok;
}

bool CHttpServer::SendOpenFile(HTTPS_CLIENT* client, PlFile f, long long len, const char* path) {
  bool ok = true;
  CSocket* sock = client->Socket;
  if (!sock->Ssl) {
    // The kernel copies the file to the socket without a user buffer.
    ok = PlSendFile(sock->Socket, f, len) >= 0;
  } else {
    char chunk[kFileChunk];
    int got;
    while (ok && (got = PlFileRead(f, chunk, sizeof chunk)) > 0) ok = sock->Write(chunk, got) == got;
  }
  if (!ok) PrintLog(client->Ip, "SEND FILE: Socket error sending \"%s\"", path);
  return ok;
}

bool CHttpServer::SendReply(HTTPS_CLIENT* client, char* buf, int len) {
  return WriteAll(client->Socket, buf, len);
}

bool CHttpServer::SendMoved(CSocket* sock, CStr& url) {
  // The address may come from the request (the run wrapper's page): a line
  // break in it must not start a header of its own, nor a quote end the link.
  const CStr safe = EncodeHeaderUnsafe(url);
  CStr body = kMovedBodyHead;
  body += safe;
  body += kMovedBodyTail;
  char buf[kHeaderBufSize];
  int n = 0;
  if (!AppendHeader(buf, n,
                    "HTTP/1.1 302 Object Moved\r\nLocation: %s\r\nServer: %s\r\n"
                    "Content-type: text/html\r\nConnection: close\r\nContent-length: %d\r\n\r\n",
                    safe.c_str(), ServerName.c_str(), body.Len))
    return false;
  return WriteAll(sock, buf, n) && WriteAll(sock, body.c_str(), body.Len);
}

bool CHttpServer::SendNotModified(CSocket* sock) {
  char buf[kHeaderBufSize];
  int n = 0;
  if (!AppendHeader(buf, n,
                    "HTTP/1.1 304 Not Modified\r\nServer: %s\r\nDate: %s\r\nConnection: close\r\n\r\n",
                    ServerName.c_str(), Time(nullptr)))
    return false;
  return WriteAll(sock, buf, n);
}

bool CHttpServer::SendAuthenticate(CSocket* sock, CStr& realm) {
  char buf[kHeaderBufSize];
  int n = 0;
  const int bodyLen = (int)sizeof kAuthBody - 1;
  if (!AppendHeader(buf, n,
                    "HTTP/1.1 401 Authorization Required\r\nServer: %s\r\n"
                    "WWW-Authenticate: Basic realm=\"%s\"\r\nContent-type: text/html\r\n"
                    "Connection: close\r\nContent-length: %d\r\n\r\n",
                    ServerName.c_str(), realm.c_str(), bodyLen))
    return false;
  return WriteAll(sock, buf, n) && WriteAll(sock, kAuthBody, bodyLen);
}

void CHttpServer::SendError(HTTPS_CLIENT* client, HTTPS_ERRMSG& err, const char* info) {
  SendError(client, err, info, 0);
}

void CHttpServer::SendError(HTTPS_CLIENT* client, HTTPS_ERRMSG& err, const char* info, int flags) {
  if (OnError && !OnError(client, &err, info, flags)) {
    // The hook has answered.
  } else if (!err.Url.IsEmpty() && !(flags & HTTPS_ERRF_BARE)) {
    SendErrorPage(client, err);
  } else {
    // Just the status line: the client sees the connection close after it.
    CStr line = "HTTP/1.1 ";
    line += err.Message;
    line += "\r\n";
    WriteAll(client->Socket, line.c_str(), line.Len);
  }
  if (info)
    PrintLog(client->Ip, "%s (%s)", err.Message.c_str(), info);
  else
    PrintLog(client->Ip, "%s", err.Message.c_str());
}

// A configured error page goes out as an ordinary, uncached 200 page; a
// missing page sends nothing.
void CHttpServer::SendErrorPage(HTTPS_CLIENT* client, HTTPS_ERRMSG& err) {
  CStr path = HomeDir;
  path.DirFixSep(true);
  path += err.Url;
  path.NativePath();
  PlStatInfo st;
  if (!PlStat(path.c_str(), &st)) return;
  if (SendHeader(client, (int)st.Size, nullptr, nullptr, st.MTime, 0)) SendFile(client, path.c_str());
}

const char* CHttpServer::GetMimeType(CStr& ext) {
  if (ext.IsEmpty()) return "text/plain";
  CListIterator<CMime> mimes(MimeList);
  while (CMime* mime = mimes.Next()) {
    CListIterator<CStr> exts(&mime->ExtList);
    while (CStr* e = exts.Next())
      if (e->CompareIC(ext.c_str()) == 0) return mime->Type.c_str();
  }
  return "application/octet-stream";
}

const char* CHttpServer::GetMethodStr(int method) {
  if (method < 0 || method >= kMethodCount) method = HTTPS_MET_UNK;
  return kMethodNames[method];
}

bool CHttpServer::HasRequestBody(int method) {
  return method == HTTPS_MET_POST || method == HTTPS_MET_PUT || method == HTTPS_MET_PATCH ||
         method == HTTPS_MET_DELETE || method == HTTPS_MET_OPTIONS;
}

const char* CHttpServer::Time(long long* now) {
  // One buffer per thread: connection threads format dates concurrently.
  thread_local char buf[kDateSize];
  long long t = (long long)time(nullptr);
  FormatHttpDate(t, buf);
  if (now) *now = t;
  return buf;
}

char* CHttpServer::MemStr(char* buf, int len, char* pat) {
  if (!*pat) return buf;
  for (int i = 0; i < len; ++i) {
    char* p = buf + i;
    int k = 0;
    while (pat[k] && p[k] == pat[k]) ++k;
    if (!pat[k]) return p;
  }
  return nullptr;
}
