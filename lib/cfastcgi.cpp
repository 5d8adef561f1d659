// Encoding the FastCGI records of a request (begin, parameters, input) and
// decoding record headers, name-value pairs and the end-of-request record.
#include "cfastcgi.h"

#include <cstring>

namespace {

void AddHeader(std::string& out, int type, int requestId, size_t contentLen, size_t paddingLen) {
  unsigned char h[FCGI_HEADER_LEN] = {1,
                                      (unsigned char)type,
                                      (unsigned char)(requestId >> 8),
                                      (unsigned char)requestId,
                                      (unsigned char)(contentLen >> 8),
                                      (unsigned char)contentLen,
                                      (unsigned char)paddingLen,
                                      0};
  out.append(reinterpret_cast<char*>(h), sizeof h);
}

// Writes the length in its 1- or 4-byte form; returns the bytes written.
size_t PutLength(char* p, size_t len) {
  if (len < 128) {
    p[0] = (char)len;
    return 1;
  }
  p[0] = (char)(0x80 | ((len >> 24) & 0x7F));
  p[1] = (char)(len >> 16);
  p[2] = (char)(len >> 8);
  p[3] = (char)len;
  return 4;
}

bool TakeLength(const unsigned char*& p, const unsigned char* end, size_t* len) {
  if (p >= end) return false;
  if (!(*p & 0x80)) {
    *len = *p++;
    return true;
  }
  if (end - p < 4) return false;
  *len = ((size_t)(p[0] & 0x7F) << 24) | ((size_t)p[1] << 16) | ((size_t)p[2] << 8) | p[3];
  p += 4;
  return true;
}

}  // namespace

void FcgiAddRecord(std::string& out, int type, int requestId, const void* data, size_t len) {
  const char* p = static_cast<const char*>(data);
  do {
    size_t piece = len < FCGI_MAX_CONTENT ? len : FCGI_MAX_CONTENT;
    // Padding to a multiple of 8 keeps the application's reads aligned;
    // it is optional, but cheap.
    size_t padding = (8 - piece % 8) % 8;
    AddHeader(out, type, requestId, piece, padding);
    if (piece) out.append(p, piece);
    out.append(padding, '\0');
    p += piece;
    len -= piece;
  } while (len > 0);
}

void FcgiAddBeginRequest(std::string& out, int requestId, int role, bool keepConn) {
  const unsigned char body[8] = {(unsigned char)(role >> 8), (unsigned char)role, (unsigned char)(keepConn ? 1 : 0),
                                 0, 0, 0, 0, 0};
  FcgiAddRecord(out, FCGI_BEGIN_REQUEST, requestId, body, sizeof body);
}

namespace {

size_t EncodedLength(size_t len) { return len < 128 ? 1 : 4; }

size_t NameValueSize(size_t nameLen, size_t valueLen) {
  return EncodedLength(nameLen) + EncodedLength(valueLen) + nameLen + valueLen;
}

// Writes one pair at p, which has room for it; returns its end.
char* PutNameValue(char* p, const char* name, size_t nameLen, const char* value, size_t valueLen) {
  p += PutLength(p, nameLen);
  p += PutLength(p, valueLen);
  memcpy(p, name, nameLen);
  memcpy(p + nameLen, value, valueLen);
  return p + nameLen + valueLen;
}

}  // namespace

void FcgiAddNameValue(std::string& out, const char* name, size_t nameLen, const char* value, size_t valueLen) {
  size_t at = out.size();
  out.resize(at + NameValueSize(nameLen, valueLen));
  PutNameValue(&out[at], name, nameLen, value, valueLen);
}

namespace {

// Calls fn(name, nameLen, value, valueLen) for every entry, in the order
// asked for. An entry without '=' is a name with an empty value.
template <class Fn>
void ForEachParam(const std::vector<FcgiParam>& env, bool lastFirst, Fn fn) {
  for (size_t i = 0; i < env.size(); i++) {
    const FcgiParam& param = env[lastFirst ? env.size() - 1 - i : i];
    const char* entry = param.Text;
    size_t len = param.Len;
    const char* eq = static_cast<const char*>(memchr(entry, '=', len));
    size_t nameLen = eq ? (size_t)(eq - entry) : len;
    const char* value = eq ? eq + 1 : entry + len;
    fn(entry, nameLen, value, len - nameLen - (eq ? 1 : 0));
  }
}

}  // namespace

void FcgiParamsOf(const CStrList& env, std::vector<FcgiParam>& params) {
  params.clear();
  params.reserve((size_t)env.Count());
  for (const __cstr_list* n = env.Beg; n; n = n->Next)
    params.push_back(FcgiParam{n->Str.Str ? n->Str.Str : "", (size_t)n->Str.Len});
}

void FcgiAddParams(std::string& out, int requestId, const CStrList& env, bool lastFirst) {
  std::vector<FcgiParam> params;
  FcgiParamsOf(env, params);
  FcgiAddParams(out, requestId, params, lastFirst);
}

void FcgiAddParams(std::string& out, int requestId, const std::vector<FcgiParam>& env, bool lastFirst) {
  size_t total = 0;
  ForEachParam(env, lastFirst, [&total](const char*, size_t nameLen, const char*, size_t valueLen) {
    total += NameValueSize(nameLen, valueLen);
  });
  if (total > 0) {
    // Written straight into their place: the usual case is one record.
    const bool oneRecord = total <= FCGI_MAX_CONTENT;
    std::string pairs;
    std::string& into = oneRecord ? out : pairs;
    size_t padding = (8 - total % 8) % 8;
    if (oneRecord) AddHeader(out, FCGI_PARAMS, requestId, total, padding);
    size_t at = into.size();
    into.resize(at + total);
    char* p = &into[at];
    ForEachParam(env, lastFirst, [&p](const char* name, size_t nameLen, const char* value, size_t valueLen) {
      p = PutNameValue(p, name, nameLen, value, valueLen);
    });
    // Otherwise a pair may straddle two records: the application joins the
    // stream before it reads the pairs.
    if (oneRecord)
      out.append(padding, '\0');
    else
      FcgiAddRecord(out, FCGI_PARAMS, requestId, pairs.data(), pairs.size());
  }
  FcgiAddRecord(out, FCGI_PARAMS, requestId, nullptr, 0);
}

bool FcgiParseHeader(const unsigned char* p, FcgiHeader* h) {
  if (p[0] != 1) return false;
  h->Type = p[1];
  h->RequestId = (p[2] << 8) | p[3];
  h->ContentLength = ((size_t)p[4] << 8) | p[5];
  h->PaddingLength = p[6];
  return true;
}

bool FcgiParseNameValues(const void* data, size_t len, std::vector<std::pair<std::string, std::string>>* out) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  const unsigned char* end = p + len;
  while (p < end) {
    size_t nameLen, valueLen;
    if (!TakeLength(p, end, &nameLen) || !TakeLength(p, end, &valueLen)) return false;
    if ((size_t)(end - p) < nameLen || (size_t)(end - p) - nameLen < valueLen) return false;
    out->emplace_back(std::string(reinterpret_cast<const char*>(p), nameLen),
                      std::string(reinterpret_cast<const char*>(p) + nameLen, valueLen));
    p += nameLen + valueLen;
  }
  return true;
}

bool FcgiParseEndRequest(const void* data, size_t len, FcgiEndRequest* out) {
  if (len < 8) return false;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  out->AppStatus = ((unsigned)p[0] << 24) | ((unsigned)p[1] << 16) | ((unsigned)p[2] << 8) | p[3];
  out->ProtocolStatus = p[4];
  return true;
}
