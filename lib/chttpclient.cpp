// CHttpClient: one GET per call over CSocket, with its redirects.
#include "chttpclient.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "cerror.h"

namespace {

const int kMaxRedirects = 20;
const long long kMaxBlock = 16 << 20;

[[noreturn]] void Fail(int code) { throw code; }

bool StartsWithIC(const CStr& line, const char* prefix) {
  return StrStartsWithIC(line.c_str(), (size_t)line.Len, prefix);
}

// Text after a header's name, without surrounding blanks and line end.
CStr HeaderValue(const CStr& line, const char* name) {
  CStr value = line.Right((int)strlen(name));
  value.Trim(" \t\r\n");
  return value;
}

bool IsBlankLine(const CStr& line) { return line == "\r\n" || line == "\n"; }

}  // namespace

CHttpClient::CHttpClient()
    : GetCallBack(nullptr),
      Agent("Mozilla/4.0 (compatible; CHttpClient)"),
      Host("localhost"),
      Uri("/"),
      ErrCode(0),
      TransferEnc(0),
      GetCallBackArg(nullptr),
      AbortedByUser(false),
      Socket(nullptr),
      BlockSize(65536),
      CurLen(0),
      Port(80),
      TimeOut(300),
      TotalLen(0) {}

CHttpClient::~CHttpClient() { delete Socket; }

void CHttpClient::ParseUrl(CStr url) {
  url.Trim(" \t\r\n");
  // A Location that is only a path names another resource on the same server.
  // Servers send such relative targets and HTTP allows them, so the redirect
  // is followed with host, port and credentials kept.
  if (url.First() == '/') {
    Uri = url;
  } else {
    if (StartsWithIC(url, "http://")) url = url.Right(7);
    int slash = url.FindChar('/');
    CStr authority = slash < 0 ? url : url.Left(slash);
    Uri = slash < 0 ? CStr("/") : url.Right(slash);
    UserName.Empty();
    Password.Empty();
    const char* at = authority.IsEmpty() ? nullptr : strrchr(authority.c_str(), '@');
    if (at) {
      int atPos = (int)(at - authority.c_str());
      CStr user = authority.Left(atPos);
      authority = authority.Right(atPos + 1);
      int colon = user.FindChar(':');
      UserName = colon < 0 ? user : user.Left(colon);
      if (colon >= 0) Password = user.Right(colon + 1);
    }
    int colon = authority.FindChar(':');
    Host = colon < 0 ? authority : authority.Left(colon);
    int port = colon < 0 ? 80 : authority.Right(colon + 1).ToInt();
    Port = port > 0 && port < 65536 ? port : 80;
  }
  int hash = Uri.FindChar('#');  // fragments stay with the client
  if (hash >= 0) Uri = Uri.Left(hash);
  if (Uri.IsEmpty()) Uri = "/";
}

bool CHttpClient::_GetCallBack(void* client, int n) {
  CHttpClient* self = static_cast<CHttpClient*>(client);
  self->CurLen += n;
  if (!self->GetCallBack) return true;
  self->AbortedByUser = !self->GetCallBack(self->GetCallBackArg, self->CurLen, self->TotalLen);
  return !self->AbortedByUser;
}

void CHttpClient::Connect() {
  delete Socket;
  Socket = nullptr;
  AbortedByUser = false;
  Socket = new CSocket();
  Socket->SetTimeOut(TimeOut);
  Socket->Connect(Host, Port);
}

void CHttpClient::SendRequest() {
  CStr req = CStr("GET ") + Uri + " HTTP/1.1\r\nHost: " + Host + "\r\nConnection: close\r\nUser-Agent: " +
             Agent + "\r\nAccept: */*\r\n";
  if (!UserName.IsEmpty()) {
    CStr credentials = UserName + ":" + Password;
    credentials.Base64Encode();
    req += CStr("Authorization: Basic ") + credentials + "\r\n";
  }
  req += "\r\n";
  if (Socket->Write(req.Data(), req.Length()) != req.Length()) Fail(CERR_HTTPCLI_SEND);
}

int CHttpClient::ReadStatus() {
  CStr line;
  Socket->Gets(line);
  if (line.IsEmpty()) Fail(CERR_HTTPCLI_RECV);
  if (!StartsWithIC(line, "HTTP")) Fail(CERR_HTTPCLI_NOTHTTP);
  ErrCode = line.Word(1).ToInt();
  return ErrCode;
}

CStr CHttpClient::ReadLocation() {
  CStr line;
  for (;;) {
    Socket->Gets(line);
    if (line.IsEmpty() || IsBlankLine(line)) Fail(CERR_HTTPCLI_STATUS);  // 302 without a target
    if (StartsWithIC(line, "Location:")) return HeaderValue(line, "Location:");
  }
}

void CHttpClient::ReadHeaders(bool& lengthKnown) {
  lengthKnown = false;
  CStr line;
  for (;;) {
    Socket->Gets(line);
    if (line.IsEmpty()) Fail(CERR_HTTPCLI_RECV);  // the headers never ended
    if (IsBlankLine(line)) return;
    if (StartsWithIC(line, "Content-Length:")) {
      CStr value = HeaderValue(line, "Content-Length:");
      char* end = nullptr;
      long long n = strtoll(value.c_str(), &end, 10);
      lengthKnown = end != value.c_str() && n >= 0 && n <= 0x7fffffff;
      TotalLen = lengthKnown ? (int)n : 0;
    } else if (StartsWithIC(line, "Transfer-Encoding:") &&
               HeaderValue(line, "Transfer-Encoding:").FindIC("chunked") >= 0) {
      TransferEnc = 1;
    }
  }
}

// The input ended early: the callback's refusal, or a lost connection.
void CHttpClient::FailReceive() { Fail(AbortedByUser ? CERR_GEN_ABORTED : CERR_HTTPCLI_RECV); }

// Reads count bytes (or, with toEnd, everything until the connection
// closes) into body. Progress comes from the socket's refills.
void CHttpClient::ReadCounted(CMemList& body, char* buf, long long count, bool toEnd) {
  int block = (int)(BlockSize < kMaxBlock ? BlockSize : kMaxBlock);
  while (toEnd || count > 0) {
    int want = toEnd || count > block ? block : (int)count;
    int got = Socket->Read(buf, want);
    if (got > 0) body.AddCopy(buf, (unsigned long long)got);
    if (got < want) {
      if (toEnd && !AbortedByUser) return;
      FailReceive();  // the connection ended inside the body
    }
    count -= got;
  }
}

void CHttpClient::ReadChunked(CMemList& body, char* buf) {
  CStr line;
  for (;;) {
    Socket->Gets(line);
    line.Trim(" \t\r\n");
    char* end = nullptr;
    if (line.IsEmpty()) FailReceive();
    long long size = strtoll(line.c_str(), &end, 16);
    if (size < 0 || end == line.c_str() || (*end && *end != ';' && *end != ' ')) Fail(CERR_HTTPCLI_RECV);
    if (size == 0) break;
    ReadCounted(body, buf, size, false);
    Socket->Gets(line);  // the line end after the chunk's data
  }
  // Trailer fields up to the blank line; a server that just closes is fine.
  do Socket->Gets(line);
  while (!line.IsEmpty() && !IsBlankLine(line));
}

// Progress follows the socket: the callback hears of every refill of its
// 4 KiB input buffer (chunk framing included). The refill that ended the
// headers may already hold body bytes; they are reported first.
void CHttpClient::WatchProgress() {
  CurLen = 0;
  Socket->ReadCallBack = _GetCallBack;
  Socket->ReadCallBackArg = this;
  int buffered = Socket->GetBufFree();
  if (buffered > 0 && !_GetCallBack(this, buffered)) Fail(CERR_GEN_ABORTED);
}

// The body, or NULL when it is empty.
CMem* CHttpClient::ReadBody(bool lengthKnown) {
  WatchProgress();
  int block = (int)(BlockSize < kMaxBlock ? BlockSize : kMaxBlock);
  std::unique_ptr<char[]> buf(new char[(size_t)block]);
  CMemList body;
  if (TransferEnc) ReadChunked(body, buf.get());
  else ReadCounted(body, buf.get(), TotalLen, !lengthKnown);
  return body.ToCMem();
}

CMem* CHttpClient::Get() {
  ErrCode = 0;
  int redirects = 0;
  while (!Host.IsEmpty()) {
    // A path that would end the request line early can't be sent.
    if (Uri.IsEmpty() || Uri.FindChar('\r') >= 0 || Uri.FindChar('\n') >= 0) Fail(CERR_HTTPCLI_NOPATH);
    Connect();
    SendRequest();
    int status = ReadStatus();
    if (status == 200) {
      TotalLen = 0;
      TransferEnc = 0;
      bool lengthKnown = false;
      ReadHeaders(lengthKnown);
      CMem* body = ReadBody(lengthKnown);
      delete Socket;
      Socket = nullptr;
      return body;
    }
    if (status == 302) {
      if (++redirects > kMaxRedirects) Fail(CERR_HTTPCLI_STATUS);
      ParseUrl(ReadLocation());
      continue;
    }
    if (status >= 400 && status <= 417) {
      delete Socket;
      Socket = nullptr;
      return nullptr;
    }
    Fail(CERR_HTTPCLI_STATUS);
  }
  Fail(CERR_HTTPCLI_NOHOST);
}

CStr* CHttpClient::GetStr() {
  CMem* body = Get();
  if (!body) return nullptr;
  CStr* text = new CStr(body->Data(), (int)body->Length());
  delete body;
  return text;
}
