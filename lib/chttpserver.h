// CHttpServer: the small thread-per-connection HTTP/1.1 server that serves
// the player's browser control from a home directory, plus its records: the
// registered objects, the connection record, the request arguments (CCgi),
// error replies and MIME types. One request is served per connection.
#ifndef LUMETTA_CHTTPSERVER_H
#define LUMETTA_CHTTPSERVER_H

#include <ctime>

#include "cerror.h"
#include "clog.h"
#include "cmem.h"
#include "csocket.h"
#include "cstr.h"
#include "pl_fs.h"
#include "pl_net.h"
#include "pl_thread.h"

class CHttpServer;
struct HTTPS_CLIENT;
struct LiveClients;  // connection-thread book-keeping, private to the server

// Engine callback: func(__https_obj* object, HTTPS_CLIENT* client). It writes
// the whole reply itself; the server ignores the result and closes.
typedef bool (*CGI_ENG_FUNC)(void* object, void* client);

// One error reply: the status text after "HTTP/1.1 " and an optional page
// (relative to the home directory) sent in place of the bare status line.
struct HTTPS_ERRMSG {
  CStr Message;
  CStr Url;
};

// One media type and the extensions that map to it.
class CMime {
 public:
  CStr Type;
  CList<CStr> ExtList;

  void AddExt(const char* ext) { *ExtList.Add() = ext; }
  void AddExt(CStr& ext) { *ExtList.Add() = ext; }
};

// One request argument (name and value, the value possibly binary).
struct __cgi_arg {
  __cgi_arg* Next;
  CStr Label;
  CStr Val;
};
typedef __cgi_arg CGI_ARG;

// The arguments of one request in arrival order, plus the raw query or body.
class CCgi {
 public:
  CGI_ARG* Args;
  CStr ArgsRaw;

  CCgi();
  ~CCgi();
  CCgi(const CCgi&) = delete;
  CCgi& operator=(const CCgi&) = delete;

  CGI_ARG* ArgsAdd(char* label, char* value);  // value is URL-decoded
  CGI_ARG* ArgsAddBin(char* label, char* data, int length);
  int ArgsCount();
  void ArgsDelete();

 private:
  int TotArgs;
  CGI_ARG* LastArg;
};

// Kinds of registered objects (__https_obj::Type, one bit each).
enum {
  HTTPS_OBJ_ENGINE = 1,
  HTTPS_OBJ_VDIR = 2,
  HTTPS_OBJ_VFILE = 4,
  HTTPS_OBJ_EXT = 8,
  HTTPS_OBJ_ANY = HTTPS_OBJ_ENGINE | HTTPS_OBJ_VDIR | HTTPS_OBJ_VFILE | HTTPS_OBJ_EXT
};
// __https_obj::Flags bits.
enum {
  HTTPS_OBJF_ENABLED = 1,
  HTTPS_OBJF_CGI = 2,
  HTTPS_OBJF_BROWSE = 4,
  HTTPS_OBJF_PASSWORD = 8
};
// SendHeader flags: a cacheable reply carries public caching headers and an
// Expires CacheExpire seconds ahead.
enum { HTTPS_HEADERF_CACHEABLE = 1 };
// SendError flags: the bare status line even where an error page is set.
enum { HTTPS_ERRF_BARE = 1 };

// A registry entry (engine, mapped directory or file, or handler of an
// extension). CHttpServer::ObjList owns it.
struct __https_obj {
  __https_obj* Next;
  CStr Alias;
  CStr Args;
  CStr Path;
  CStr Password;
  CStr User;
  CGI_ENG_FUNC Func;
  int Type;
  int Flags;
};

// Per-request flag bits (HTTPS_CLIENT::Flags).
enum { HTTPS_CLIENTF_KEEPALIVE = 1, HTTPS_CLIENTF_BADLENGTH = 2 };

// Limits of a request head. A line (request line or header, its line end
// not counted) may hold HTTPS_MAX_LINE_LEN bytes and the whole head, line
// ends included, HTTPS_MAX_HEAD_LEN: past them the request is refused with
// 414 or 431, never cut.
const int HTTPS_MAX_LINE_LEN = 8192;
const int HTTPS_MAX_HEAD_LEN = 65536;

// One connection and its parsed request; owned by the connection thread.
struct HTTPS_CLIENT {
  CCgi* Cgi;
  CHttpServer* CHttpServerEx;
  CSocket* Socket;
  CStr AcceptLanguage;
  CStr Arg;
  CStr Host;
  CStr Password;
  CStr QueryStr;
  CStr Referer;
  CStr User;
  int Flags;
  int Method;
  unsigned int Ip;       // network order
  unsigned short Port;   // host order
  unsigned int LocalIp;  // network order
  CStr Boundary;
  CStr ContentType;
  CStr InAccept;
  CStr InConnection;
  CStr InCookies;
  CStr InUserAgent;
  CStr InOrigin;
  CStr InSecFetchSite;
  int PostLen;
  int PostType;
  // Null: the accepting thread releases the handle at once, because the
  // connection thread may free this record before the handle could be stored.
  PlThread* Thread;
  unsigned long ThreadID;  // set by the connection thread itself
  time_t ModifiedTm;
  CStr Target;      // the request target as sent: not decoded, query included
  CStr PathInfo;    // "/a/b" of "/script.php/a/b"; Arg is then "/script.php"
  CStrList InHeaders;  // every header line as "Name: value", in arrival order
  // The script or file the request path names, found by the dispatcher inside
  // the home directory (links included); empty when there is none. The
  // gateway runs this name and works out no path of its own.
  CStr LocalPath;
};

// Where a request path leads on disk, worked out once per dispatch pass.
struct HttpsTarget {
  enum Kind {
    INVALID,    // the path does not simplify (it climbs above its start)
    OUTSIDE,    // joined onto its root, the name lies outside it
    LEADS_OUT,  // the name is inside, but a link on the way leads out
    MISSING,    // nothing that may be served is there
    FILE,
    DIR
  };
  Kind What = MISSING;
  CStr Path;   // the request path, simplified
  CStr Local;  // the local name in the platform's form
  PlFile Handle = PL_NO_FILE;  // open for FILE and DIR: the thing that was checked
  PlStatInfo Info = {};

  HttpsTarget() = default;
  ~HttpsTarget() { PlFileClose(Handle); }
  HttpsTarget(const HttpsTarget&) = delete;
  HttpsTarget& operator=(const HttpsTarget&) = delete;
  bool Exists() const { return What == FILE || What == DIR; }
};

// The value of the first header called name (any case), blanks around it
// removed; null when the client did not send it.
const char* HttpsHeader(HTTPS_CLIENT* client, const char* name);

class CHttpServer {
 public:
  enum HTTPS_MET {
    HTTPS_MET_NONE = 0,
    HTTPS_MET_GET = 1,
    HTTPS_MET_POST = 2,
    HTTPS_MET_UNK = 3,
    HTTPS_MET_HEAD = 4,
    HTTPS_MET_PUT = 5,
    HTTPS_MET_PATCH = 6,
    HTTPS_MET_DELETE = 7,
    HTTPS_MET_OPTIONS = 8
  } HTTPS_MET;
  enum HTTPS_POSTENC {
    HTTPS_POSTENC_NONE = 0,
    HTTPS_POSTENC_MULTIPART = 1,
    HTTPS_POSTENC_WWWFORM = 2
  } HTTPS_POSTENC;

  CList<CMime>* MimeList;
  CList<__https_obj>* ObjList;
  bool RedirEnabled;
  CStr RedirLocation;
  CStr HostName;
  CStr ServerName;
  CStrList DefDocs;
  int Id;
  bool FreeLog;
  CLog* Log;
  bool SslEnabled;
  CStr SslCertFile;
  CStr SslKeyFile;
  SSL_CTX* SslCtx;
  HTTPS_ERRMSG ErrMsg401;
  HTTPS_ERRMSG ErrMsg403;
  HTTPS_ERRMSG ErrMsg404;
  HTTPS_ERRMSG ErrMsg400;
  HTTPS_ERRMSG ErrMsg405;
  HTTPS_ERRMSG ErrMsg411;
  HTTPS_ERRMSG ErrMsg413;
  HTTPS_ERRMSG ErrMsg500;
  HTTPS_ERRMSG ErrMsg414;
  HTTPS_ERRMSG ErrMsg431;
  time_t CacheExpire;
  CGI_ENG_FUNC OnCgi;
  bool (*OnConnect)(int localAddr, int remoteAddr, int remotePort);
  bool (*OnError)(HTTPS_CLIENT* client, const HTTPS_ERRMSG* err, const char* info, int code);
  bool (*OnExpandPath)(CStr& path);
  bool (*OnRequest)(HTTPS_CLIENT* client);
  void (*OnSslError)(HTTPS_CLIENT* client, int code);

 private:
  bool IsAccepting;
  bool IsListening;
  CStr HomeDir;
  CStr DirCss;
  int MaxConn;
  PlSocket ListeningSock;
  unsigned int ListeningAddr;  // host order
  unsigned short Port;
  int MaxPostLen;
  PlThread* AcceptingThread;
  unsigned long AcceptingThreadID;
  CStr AccessKey;  // empty: every client is served
  int ConnCap;      // open connections allowed at once; set when accepting starts
  int HeadDeadlineMs;
  // Book-keeping of connection threads, so that a finished one can take the
  // next connection and the destructor can wake and wait for them instead of
  // leaving them with a dangling server.
  LiveClients* Live;

  void AcceptOne(PlSocket sock, unsigned remoteAddr, unsigned short remotePort);
  void DrainClients();
  void Register(HTTPS_CLIENT* client);
  void StartAcceptor();
  static unsigned int AcceptorThread(void* server);
  void AcceptAndServe();
  void WaitForAcceptorsToLeave();
  bool Park();
  void WorkerGone();
  void ClientSocketClosing(HTTPS_CLIENT* client);
  void ServeRequest(HTTPS_CLIENT* client);
  bool ReadRequest(HTTPS_CLIENT* client);
  bool ParseRequestLine(HTTPS_CLIENT* client, char* line);
  bool RefuseHead(HTTPS_CLIENT* client, HTTPS_ERRMSG& err, const char* whyFormat, int limit);
  void ParseHeader(HTTPS_CLIENT* client, char* line);
  void ParseContentType(HTTPS_CLIENT* client, char* save);
  void DispatchWithBody(HTTPS_CLIENT* client);
  // Path resolution shared by GET and the methods with a body: the one place
  // that turns a request path into a local name and opens it.
  void ResolveTarget(const CStr& urlPath, __https_obj* obj, HttpsTarget& t);
  bool OpenBeneath(const CStr& root, const CStr& rel, HttpsTarget& t);
  bool LocalTarget(const CStr& urlPath, CStr& local, bool& isDir);
  CStrs* DefaultDocIn(const CStr& dir);
  void ResolveDefaultDocument(HTTPS_CLIENT* client);
  void SplitPathInfo(HTTPS_CLIENT* client);
  void RunCgi(__https_obj* obj, HTTPS_CLIENT* client);
  // The steps of a GET, each ending in one of these.
  enum GetOutcome { GET_ANSWERED, GET_AGAIN, GET_SERVE };
  GetOutcome GetPass(HTTPS_CLIENT* client);
  GetOutcome FindTarget(HTTPS_CLIENT* client, __https_obj*& obj, HttpsTarget& t);
  GetOutcome ServeDirectory(HTTPS_CLIENT* client, __https_obj* obj, HttpsTarget& t);
  GetOutcome ServeFile(HTTPS_CLIENT* client, HttpsTarget& t);
  void RedirectToSlash(HTTPS_CLIENT* client);
  PlRoot* HomeRoot;     // the home directory held open while accepting
  CStr HomeRootPath;    // the HomeDir it was opened for
  bool AdmitConnection();
  void HeadDone(HTTPS_CLIENT* client);
  bool AdmitRequest(HTTPS_CLIENT* client);
  bool AdmitFromOrigin(HTTPS_CLIENT* client);
  bool ReachesDirEngine(const CStr& path);
  bool IsOwnHost(const CStr& host) const;
  bool IsOwnOrigin(const char* url) const;
  void SendKeyCookie(HTTPS_CLIENT* client, const CStr& target);
  void SendKeyMissing(HTTPS_CLIENT* client);
  void SendBareLine(HTTPS_CLIENT* client, const char* status, const char* info);
  bool WriteAll(CSocket* sock, const char* buf, int len);
  void SendErrorPage(HTTPS_CLIENT* client, HTTPS_ERRMSG& err);

 public:
  // Life cycle.
  CHttpServer();
  explicit CHttpServer(CLog* log);
  ~CHttpServer();
  CHttpServer(const CHttpServer&) = delete;
  CHttpServer& operator=(const CHttpServer&) = delete;
  void Init();
  void Start();  // throws 303, 302, or the TLS codes 304-306
  bool StartListening();
  bool StartAccepting();
  bool StopListening();
  static unsigned int StartAcceptingEx(void* server);
  static unsigned int ClientEx(void* client);

  // Registry.
  __https_obj* EngsAdd(const char* name, CGI_ENG_FUNC func, int flags);
  __https_obj* Vadd(const char* alias, const char* path, const char* args, int type, int flags);
  __https_obj* VdirAdd(const char* alias, const char* path, int flags);
  __https_obj* VdirAdd(CStr alias, CStr path, int flags);
  __https_obj* VfileAdd(const char* alias, const char* path, int flags);
  __https_obj* VfileAdd(CStr alias, CStr path, int flags);
  __https_obj* VfileMapAdd(const char* ext, const char* path, const char* args, int flags);
  __https_obj* VfileMapAdd(CStr ext, CStr path, CStr args, int flags);
  __https_obj* ObjGet(int typeMask, const char* name);

  // Access passwords and the check shared by the GET and POST paths.
  void SetPassword(__https_obj* object, const char* user, const char* password);
  void SetPassword(__https_obj* object, CStr& user, CStr& password);
  void RemovePassword(__https_obj* object, const char* user, const char* password);
  void RemovePassword(__https_obj* object, CStr& user, CStr& password);
  // False when the request must stop (a reply has been sent).
  bool CheckAccess(__https_obj* obj, HTTPS_CLIENT* client);

  // The access key: with one set, only requests that carry it in the
  // cookie AccessKeyName (or once, in the query, to receive that cookie) are
  // served, and only under a local Host name. Empty switches it off (the
  // default). False for a key with characters a cookie can't hold.
  static constexpr const char* AccessKeyName = "lumetta_key";
  bool SetAccessKey(const char* key);
  const CStr& GetAccessKey() const { return AccessKey; }
  // A fresh key of 128 random bits from the operating system, as 32 hex
  // digits; empty when the system gave none.
  static CStr NewAccessKey();

  // Settings.
  bool SetPortA(unsigned short port);
  bool SetListeningAddr(unsigned int addr);
  void SetMaxConn(int n);
  void SetMaxPostLen(int n);
  // Time a connection has for its whole request head (15 s unless changed).
  void SetHeadDeadlineMs(int ms);
  // Connections served at once: below the process's open-file limit, taken
  // when accepting starts.
  int GetConnCap() const { return ConnCap; }
  bool SetDir(CStr& field, CStr path);
  bool SetHomeDir(const char* path);
  bool SetHomeDir(CStr path);
  void SetDirCss(const char* css);
  const CStr& GetHomeDir() const { return HomeDir; }
  const CStr& GetDirCss() const { return DirCss; }
  unsigned int GetListeningAddr() const { return ListeningAddr; }
  int GetMaxConn() const { return MaxConn; }
  int GetMaxPostLen() const { return MaxPostLen; }
  unsigned short GetPort() const { return Port; }
  const char* GetMethodStr(int method);
  // Methods whose request may carry a body (read like a POST body).
  static bool HasRequestBody(int method);

  // Request arguments and GET dispatch.
  bool ParseArgs(__https_obj*& object, HTTPS_CLIENT* client, int typeMask);
  void Get(HTTPS_CLIENT* client);

  // Directory listing.
  CStrList* DirLoad(const char* dir);
  static int DirSortFunc(const void* a, const void* b);
  void DirList(HTTPS_CLIENT* client, const char* url, const char* dir);
  // The same for a directory already open (the one the request was checked
  // against): the listing is read through that handle.
  CStrList* DirLoadFrom(PlDir* handle);
  void DirListFrom(HTTPS_CLIENT* client, const char* url, CStrList* list);

  // TLS.
  static bool OpenSSLInit();
  SSL_CTX* OpenSSLCreateCtx();

  // Writers and helpers.
  bool PrintLog(unsigned int ip, const char* format, ...);
  bool SendHeader(HTTPS_CLIENT* client, int len, const char* type, const char* filename,
                  long long mtime, int flags);
  bool SendFile(HTTPS_CLIENT* client, const char* path);
  // Sends len bytes of an open file (path only names it in the log).
  bool SendOpenFile(HTTPS_CLIENT* client, PlFile f, long long len, const char* path);
  bool SendReply(HTTPS_CLIENT* client, char* buf, int len);
  bool SendMoved(CSocket* sock, CStr& url);
  bool SendNotModified(CSocket* sock);
  bool SendAuthenticate(CSocket* sock, CStr& realm);
  void SendError(HTTPS_CLIENT* client, HTTPS_ERRMSG& err, const char* info, int flags);
  void SendError(HTTPS_CLIENT* client, HTTPS_ERRMSG& err, const char* info);
  const char* GetMimeType(CStr& ext);
  static const char* Time(long long* now);
  static char* MemStr(char* buf, int len, char* pat);
  static char* StrTok(char* text, const char* delims, char** save);
};

// Chooses the shared library that OpenSSLInit binds (PL_LIB_SSL unless
// changed); only before the first successful binding, false afterwards.
bool OpenSSLSetLibraryName(const char* name);

#endif
