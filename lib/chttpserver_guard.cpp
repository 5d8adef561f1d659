// CHttpServer: who may use the server. The listening address is reachable by
// every program and every web page on the machine; with an access key set,
// only clients that were given the key are served, under a local Host name,
// and requests that change something must come from our own pages.
#include "chttpserver.h"

#include <cstdio>
#include <cstring>

#include "pl_random.h"

namespace {

const int kKeyBytes = 16;

const char kKeyMissingBody[] =
    "<!DOCTYPE html><html><head><title>403 Forbidden</title></head><body>"
    "<h1>Forbidden</h1><p>This application only answers its own window.</p>"
    "<p>Open it in the player, or through the address that lumetta-serve printed "
    "when it started (the one that carries the key).</p></body></html>\n";

bool IsKeyChar(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
         c == '_';
}

// Compares without stopping at the first difference, so the time taken says
// nothing about how much of a guess was right.
bool SameSecret(const CStr& a, const CStr& b) {
  if (a.Len != b.Len || a.Len == 0) return false;
  unsigned char diff = 0;
  for (int i = 0; i < a.Len; i++) diff |= (unsigned char)(a.Str[i] ^ b.Str[i]);
  return diff == 0;
}

// Splits "a=1; name=v; b=2" and takes out every pair called name; the last
// value found is returned, the rest of the pairs stay in their order.
CStr TakeCookie(CStr& cookies, const char* name) {
  CStr kept, value;
  const size_t nameLen = strlen(name);
  const char* p = cookies.c_str();
  while (*p) {
    while (*p == ' ' || *p == ';') p++;
    const char* end = strchr(p, ';');
    if (!end) end = p + strlen(p);
    int len = (int)(end - p);
    while (len > 0 && p[len - 1] == ' ') len--;
    if (len == 0) {
      p = end;
      continue;
    }
    if ((size_t)len > nameLen && strncmp(p, name, nameLen) == 0 && p[nameLen] == '=') {
      value = CStr(p + nameLen + 1, len - (int)nameLen - 1);
    } else {
      if (!kept.IsEmpty()) kept += "; ";
      kept += CStr(p, len);
    }
    p = end;
  }
  cookies = kept;
  return value;
}

// Takes the parameter name out of the query part of target ("/p?a=1&name=v"
// becomes "/p?a=1"; a query left empty loses its "?"). Returns its value.
CStr TakeQueryParam(CStr& target, const char* name, bool* found) {
  *found = false;
  int q = target.FindChar('?');
  if (q < 0) return CStr();
  CStr rest = target.Right(q + 1);
  CStr kept, value;
  const size_t nameLen = strlen(name);
  const char* p = rest.c_str();
  while (*p) {
    const char* end = strchr(p, '&');
    if (!end) end = p + strlen(p);
    int len = (int)(end - p);
    if ((size_t)len >= nameLen && strncmp(p, name, nameLen) == 0 &&
        ((size_t)len == nameLen || p[nameLen] == '=')) {
      *found = true;
      if ((size_t)len > nameLen) value = CStr(p + nameLen + 1, len - (int)nameLen - 1);
    } else if (len > 0) {
      if (!kept.IsEmpty()) kept += "&";
      kept += CStr(p, len);
    }
    p = *end ? end + 1 : end;
  }
  target = target.Left(q);
  if (!kept.IsEmpty()) target += CStr("?") + kept;
  return value;
}

bool HasControlChar(const CStr& s) {
  for (int i = 0; i < s.Len; i++)
    if ((unsigned char)s.Str[i] < 0x20 || s.Str[i] == 0x7f) return true;
  return false;
}

}  // namespace

bool CHttpServer::SetAccessKey(const char* key) {
  CStr k = key ? key : "";
  for (int i = 0; i < k.Len; i++)
    if (!IsKeyChar(k.Str[i])) return false;
  AccessKey = k;
  return true;
}

CStr CHttpServer::NewAccessKey() {
  unsigned char raw[kKeyBytes];
  if (!PlRandomBytes(raw, kKeyBytes)) return CStr();
  static const char kHex[] = "0123456789abcdef";
  char text[kKeyBytes * 2 + 1];
  for (int i = 0; i < kKeyBytes; i++) {
    text[2 * i] = kHex[raw[i] >> 4];
    text[2 * i + 1] = kHex[raw[i] & 15];
  }
  text[kKeyBytes * 2] = 0;
  return CStr(text);
}

// localhost, 127.0.0.1 or [::1], each with our port; the port may only be
// left out when it is the scheme's own. Anything else is a name that some
// other site may point at this machine (DNS rebinding).
bool CHttpServer::IsOwnHost(const CStr& host) const {
  static const char* const kNames[] = {"localhost", "127.0.0.1", "[::1]"};
  const int defaultPort = SslEnabled ? 443 : 80;
  for (const char* name : kNames) {
    const int n = (int)strlen(name);
    if (host.Len < n || StrCompareIC(host.c_str(), name, n) != 0) continue;
    const char* rest = host.c_str() + n;
    if (!*rest) return Port == defaultPort;
    if (*rest != ':') continue;
    char port[16];
    snprintf(port, sizeof port, "%d", Port);
    return strcmp(rest + 1, port) == 0;
  }
  return false;
}

// True when url starts with one of our own origins ("http://localhost:PORT"
// and the others) followed by its end or a path.
bool CHttpServer::IsOwnOrigin(const char* url) const {
  const char* scheme = SslEnabled ? "https://" : "http://";
  const size_t schemeLen = strlen(scheme);
  if (strncmp(url, scheme, schemeLen) != 0) return false;
  const char* host = url + schemeLen;
  size_t hostLen = strcspn(host, "/?#");
  return IsOwnHost(CStr(host, (int)hostLen));
}

// Cookies go with requests from every site and every port of localhost; the
// browser's own statements of where a request comes from tell a page of the
// application from a foreign one. Requests without any of them (other
// programs) have already proven they hold the key.
bool CHttpServer::AdmitFromOrigin(HTTPS_CLIENT* client) {
  const bool reads = client->Method == HTTPS_MET_GET || client->Method == HTTPS_MET_HEAD;
  const bool changes = !reads || ObjGet(HTTPS_OBJ_ENGINE, client->Arg.c_str()) != nullptr ||
                       ReachesDirEngine(client->Arg);
  if (!changes) return true;
  const CStr& site = client->InSecFetchSite;
  bool foreign = !site.IsEmpty() && site.CompareIC("same-origin") != 0 && site.CompareIC("none") != 0;
  if (!client->InOrigin.IsEmpty() && !IsOwnOrigin(client->InOrigin.c_str())) foreign = true;
  if (!client->Referer.IsEmpty() && !IsOwnOrigin(client->Referer.c_str())) foreign = true;
  if (!foreign) return true;
  SendError(client, ErrMsg403, "request from another origin", HTTPS_ERRF_BARE);
  return false;
}

// Runs before any dispatch. False when a refusal (or the key's cookie) has
// been sent.
bool CHttpServer::AdmitRequest(HTTPS_CLIENT* client) {
  if (!IsOwnHost(client->Host)) {
    SendError(client, ErrMsg403, "foreign Host", HTTPS_ERRF_BARE);
    return false;
  }
  bool inQuery = false;
  CStr target = client->Arg;
  CStr queryKey = TakeQueryParam(target, AccessKeyName, &inQuery);
  CStr cookieKey = TakeCookie(client->InCookies, AccessKeyName);
  if (inQuery && SameSecret(queryKey, AccessKey) && client->Method == HTTPS_MET_GET &&
      !HasControlChar(target)) {
    SendKeyCookie(client, target);
    return false;
  }
  if (inQuery || !SameSecret(cookieKey, AccessKey)) {
    SendKeyMissing(client);
    return false;
  }
  return true;
}

// Hands the key over as a cookie that scripts can't read and other sites
// can't send, and leads on to the address without it, so that the key stays
// out of the address bar and the history.
void CHttpServer::SendKeyCookie(HTTPS_CLIENT* client, const CStr& target) {
  CStr body = "<!DOCTYPE html><html><body><a href=\"";
  body += target;
  body += "\">Continue</a></body></html>\n";
  CStr head;
  head.Printf("HTTP/1.1 302 Found\r\nLocation: %s\r\nSet-Cookie: %s=%s; HttpOnly; SameSite=Strict; "
              "Path=/\r\nServer: %s\r\nCache-Control: no-store\r\nContent-type: text/html\r\n"
              "Connection: close\r\nContent-length: %d\r\n\r\n",
              target.c_str(), AccessKeyName, AccessKey.c_str(), ServerName.c_str(), body.Len);
  if (WriteAll(client->Socket, head.c_str(), head.Len)) WriteAll(client->Socket, body.c_str(), body.Len);
  PrintLog(client->Ip, "Access key given");
}

void CHttpServer::SendKeyMissing(HTTPS_CLIENT* client) {
  const int len = (int)sizeof kKeyMissingBody - 1;
  CStr head;
  head.Printf("HTTP/1.1 403 Forbidden\r\nServer: %s\r\nContent-type: text/html\r\n"
              "Connection: close\r\nContent-length: %d\r\n\r\n",
              ServerName.c_str(), len);
  if (WriteAll(client->Socket, head.c_str(), head.Len)) WriteAll(client->Socket, kKeyMissingBody, len);
  PrintLog(client->Ip, "403 Forbidden (no access key)");
}

void CHttpServer::SendBareLine(HTTPS_CLIENT* client, const char* status, const char* info) {
  HTTPS_ERRMSG err;
  err.Message = status;
  SendError(client, err, info, HTTPS_ERRF_BARE);
}
