// CHttpClient: fetches one resource over plain HTTP/1.1 with GET. Follows
// 302 redirects (only 302), sends Basic credentials when a user name is set,
// reads length-delimited, chunked and close-delimited bodies, and reports
// progress through a callback that can stop the transfer.
//
// Results and failures of Get():
//   200          the body as a new CMem, NULL when it is empty
//   400 to 417   NULL, with the status in ErrCode: the server answered, and
//                the caller decides (404 is an answer, not a failure)
//   302          followed (up to 20 times in a row; one more throws 209)
//   anything else throws 209; ErrCode keeps the status
// Thrown codes: 208 status line not HTTP, 209 unsupported status, 212 no
// host, 213 no (or unsendable) path, 219 receive failed (no status line, or
// the connection ended before the body was complete), 224 send failed,
// 13 the progress callback stopped the transfer (AbortedByUser is then true),
// and the socket's 702/703/708 from connecting.
//
// A body with neither Content-Length nor chunking is read until the server
// closes the connection.
#ifndef LUMETTA_CHTTPCLIENT_H
#define LUMETTA_CHTTPCLIENT_H

#include "cmem.h"
#include "csocket.h"
#include "cstr.h"

// Progress, after every refill of the socket's 4 KiB buffer: (user pointer,
// body bytes received so far, Content-Length or 0 when the length is not
// known in advance). Returning false stops the transfer.
typedef bool (*CHTTPCLIENT_PROGRESS)(void* arg, int done, int total);

class CHttpClient {
 public:
  CHTTPCLIENT_PROGRESS GetCallBack;
  CStr Agent;
  CStr Host;
  CStr Password;
  CStr Uri;
  CStr UserName;
  int ErrCode;
  int TransferEnc;
  void* GetCallBackArg;
  bool AbortedByUser;
  CSocket* Socket;
  long long BlockSize;
  int CurLen;
  int Port;
  int TimeOut;
  int TotalLen;

  CHttpClient();
  ~CHttpClient();
  CHttpClient(const CHttpClient&) = delete;
  CHttpClient& operator=(const CHttpClient&) = delete;

  // "[http://][user[:password]@]host[:port][/path]". A URL that starts with
  // "/" keeps the current host, port and credentials (relative redirects);
  // any other URL replaces all five fields, credentials included.
  void ParseUrl(CStr url);
  CMem* Get();
  CStr* GetStr();

  void SetCallBack(CHTTPCLIENT_PROGRESS fn, void* arg) { GetCallBack = fn, GetCallBackArg = arg; }
  void SetTimeOut(int seconds) { TimeOut = seconds; }
  int GetTimeOut() const { return TimeOut; }
  void SetPortA(int port) { Port = port; }
  int GetPort() const { return Port; }
  void SetBlockSize(long long size) { BlockSize = size > 0 ? size : 65536; }

  // The socket's read observer while the body comes in: counts n more
  // bytes and asks GetCallBack whether to go on.
  static bool _GetCallBack(void* client, int n);

 private:
  void Connect();
  void SendRequest();
  int ReadStatus();
  CStr ReadLocation();
  void ReadHeaders(bool& lengthKnown);
  void WatchProgress();
  [[noreturn]] void FailReceive();
  CMem* ReadBody(bool lengthKnown);
  void ReadChunked(CMemList& body, char* buf);
  void ReadCounted(CMemList& body, char* buf, long long count, bool toEnd);
};

#endif
