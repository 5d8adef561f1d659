// FastCGI records as a client (the web-server side) writes and reads them:
// building the records of one request, and taking apart the records an
// application sends back. No transport here; the caller moves the bytes.
#ifndef LUMETTA_CFASTCGI_H
#define LUMETTA_CFASTCGI_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "cstr.h"

enum FcgiType {
  FCGI_BEGIN_REQUEST = 1,
  FCGI_ABORT_REQUEST = 2,
  FCGI_END_REQUEST = 3,
  FCGI_PARAMS = 4,
  FCGI_STDIN = 5,
  FCGI_STDOUT = 6,
  FCGI_STDERR = 7,
  FCGI_DATA = 8,
  FCGI_GET_VALUES = 9,
  FCGI_GET_VALUES_RESULT = 10,
  FCGI_UNKNOWN_TYPE = 11
};

const int FCGI_RESPONDER = 1;
const int FCGI_HEADER_LEN = 8;
const size_t FCGI_MAX_CONTENT = 65535;

// Appends records of one stream: data split into pieces that fit a record.
// len 0 appends the one empty record that ends a stream.
void FcgiAddRecord(std::string& out, int type, int requestId, const void* data, size_t len);
// keepConn asks the application to leave the connection open afterwards.
void FcgiAddBeginRequest(std::string& out, int requestId, int role, bool keepConn);
// One pair in the length-prefixed form (1 byte below 128, else 4 bytes).
void FcgiAddNameValue(std::string& out, const char* name, size_t nameLen, const char* value, size_t valueLen);
// One "NAME=value" entry, not necessarily NUL-terminated.
struct FcgiParam {
  const char* Text;
  size_t Len;
};
// The whole PARAMS stream from "NAME=value" entries, kept in their order,
// with its closing empty record. An entry without '=' is a name with an
// empty value. lastFirst sends the list from its end, for an application
// that lists what it received last-first (php-cgi does).
void FcgiAddParams(std::string& out, int requestId, const std::vector<FcgiParam>& env, bool lastFirst = false);
void FcgiAddParams(std::string& out, int requestId, const CStrList& env, bool lastFirst = false);
// The entries of a list, pointing into it.
void FcgiParamsOf(const CStrList& env, std::vector<FcgiParam>& params);

struct FcgiHeader {
  int Type = 0;
  int RequestId = 0;
  size_t ContentLength = 0;
  size_t PaddingLength = 0;
};
// Decodes the 8 header bytes; false when the version is not 1.
bool FcgiParseHeader(const unsigned char* p, FcgiHeader* h);

// The pairs of a name-value body; false when a length runs past the end.
bool FcgiParseNameValues(const void* data, size_t len, std::vector<std::pair<std::string, std::string>>* out);

struct FcgiEndRequest {
  unsigned AppStatus = 0;  // the script's exit status
  int ProtocolStatus = 0;  // 0 complete, 1 can't multiplex, 2 overloaded, 3 unknown role
};
bool FcgiParseEndRequest(const void* data, size_t len, FcgiEndRequest* out);

#endif
