// GET dispatch: the registry lookup and the decision between a registered
// object, a file or directory below the home directory, a redirect, a
// listing, a default document and the error replies.
//
// Containment: a request may only open what lies inside its root (the home
// directory, or the directory of the virtual directory it matched). The
// local name is checked as text after joining, then opened below the root
// so that no link can lead out of it, and the file is served from that open
// handle: renaming a link between a check and the open gains nothing. A link
// that leads out of the root is refused with 403: the player is a desktop
// tool that users trust with their disk, and a stray link in an application
// folder must not publish the rest of it. Links that stay inside the root are
// served normally.
//
// Order: the registry lookup, path helpers, the one resolve function and
// its users, then GET in its steps (find the target, serve a directory,
// serve a file).
#include "chttpserver.h"

#include <cstring>
#include <string>

#include "pl_path.h"

__https_obj* CHttpServer::ObjGet(int typeMask, const char* name) {
  CStr ext;
  if (typeMask & HTTPS_OBJ_EXT) ext = CStr(name).FileExt();
  CListIterator<__https_obj> it(ObjList);
  while (__https_obj* obj = it.Next()) {
    if (!(obj->Type & typeMask) || !(obj->Flags & HTTPS_OBJF_ENABLED)) continue;
    if ((obj->Type & HTTPS_OBJ_ENGINE) && obj->Alias == name) return obj;
    if ((obj->Type & HTTPS_OBJ_VDIR) && strncmp(name, obj->Alias.c_str(), obj->Alias.Len) == 0)
      return obj;
    if ((obj->Type & HTTPS_OBJ_VFILE) && strcmp(obj->Alias.c_str(), name) == 0) return obj;
    if ((obj->Type & HTTPS_OBJ_EXT) && obj->Alias == ext) return obj;
  }
  return nullptr;
}

namespace {

// Default documents lead back into the dispatch; each pass lengthens the
// path, so this bound is never reached by a sane setup.
const int kMaxDispatchPasses = 8;

// root and a URL-form rest joined into one local name with exactly one
// separator between them (a rest that lost its leading slash in
// simplification must not glue onto the root's last name).
CStr JoinLocal(const CStr& root, const CStr& rest) {
  CStr local = root;
  CStr tail = rest;
  tail.NativePath();
  bool rootEndsSep = root.Len > 0 && PlPathIsSep(root.Last());
  bool tailStartsSep = tail.Len > 0 && PlPathIsSep(tail.First());
  if (tail.Len > 0 && !rootEndsSep && !tailStartsSep) local += PL_PATH_SEP;
  local += tail;
  return local;
}

// A decoded %00 would cut the name that the file system sees short of the
// one that was checked and typed.
bool HasEmbeddedNul(const CStr& s) { return s.Str && (int)strlen(s.Str) != s.Len; }

bool HasDotSegment(const CStr& path) {
  for (int i = 0; i < path.Len; i++) {
    if (path.Str[i] != '/') continue;
    int dots = 0;
    while (i + 1 + dots < path.Len && path.Str[i + 1 + dots] == '.') dots++;
    bool segmentEnds = i + 1 + dots == path.Len || path.Str[i + 1 + dots] == '/';
    if ((dots == 1 || dots == 2) && segmentEnds) return true;
  }
  return false;
}

bool SimplifyRequestPath(const CStr& arg, CStr& path) {
  path = arg;
  return !HasEmbeddedNul(arg) && path.PathSimplify('/');
}

CStr WithoutLeadingSeps(const CStr& s) {
  int i = 0;
  while (i < s.Len && PlPathIsSep(s.Str[i])) i++;
  return i ? s.Right(i) : s;
}

// The engine that stands for a directory without a default document.
CStr DirEngineName(const CStr& path) { return path + "/index.ebd"; }

// Browsers send the port in Host whenever it is not the scheme's default;
// adding ours again would give "host:port:port".
bool HostHasPort(const CStr& host) {
  int colon = -1, bracket = -1;
  for (int i = 0; i < host.Len; i++) {
    if (host.Str[i] == ':') colon = i;
    if (host.Str[i] == ']') bracket = i;
  }
  return colon > bracket;
}

// The decoded request path made fit for a Location header and the link in
// the redirect page: control bytes, blanks and characters that would end or
// change the URL are percent-encoded again.
CStr EncodeUrlPath(const CStr& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (int i = 0; i < path.Len; i++) {
    unsigned char c = (unsigned char)path.Str[i];
    if (c <= 0x20 || c >= 0x7f || strchr("\"#%<>?\\^`{|}", c)) {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += (char)c;
    }
  }
  return CStr(out.c_str(), (int)out.size());
}

}  // namespace

// Opens rel below root (the home directory held open since accepting
// started, when that is the root) and records what it found.
bool CHttpServer::OpenBeneath(const CStr& root, const CStr& rel, HttpsTarget& t) {
  PlRoot* own = nullptr;
  PlRoot* base = nullptr;
  if (!root.IsEmpty()) {
    base = HomeRoot && root == HomeRootPath ? HomeRoot : (own = PlRootOpen(root.c_str()));
    if (!base) return false;
  }
  PlBeneathResult r = PlOpenBeneath(base, root.IsEmpty() ? t.Local.c_str() : rel.c_str(), &t.Handle, &t.Info);
  PlRootClose(own);
  if (r == PL_BENEATH_OUTSIDE) t.What = HttpsTarget::LEADS_OUT;
  else if (r == PL_BENEATH_OPEN) t.What = t.Info.IsDir ? HttpsTarget::DIR : HttpsTarget::FILE;
  return true;
}

// The one way from a request path to a local file. urlPath is decoded;
// obj is the registry entry it matched (a virtual directory or file), or
// null for the home directory. The name is simplified, joined onto its
// root, checked to lie inside it, and opened below it.
void CHttpServer::ResolveTarget(const CStr& urlPath, __https_obj* obj, HttpsTarget& t) {
  t.What = HttpsTarget::MISSING;
  if (!SimplifyRequestPath(urlPath, t.Path)) {
    t.What = HttpsTarget::INVALID;
    return;
  }
  CStr root, rest;
  if (obj && (obj->Type & HTTPS_OBJ_VFILE)) {
    t.Local = obj->Path;  // a file the owner registered by name: no root
  } else if (obj && (obj->Type & HTTPS_OBJ_VDIR)) {
    // The rest of the path follows the directory's own path directly, so
    // "/vdb.txt" under "/vd" names the directory's sibling, which the
    // containment test below then refuses.
    root = obj->Path;
    rest = t.Path.Len > obj->Alias.Len ? t.Path.Right(obj->Alias.Len) : CStr();
    t.Local = root;
    CStr tail = rest;
    tail.NativePath();
    t.Local += tail;
  } else {
    root = HomeDir;
    rest = t.Path;
    t.Local = JoinLocal(root, rest);
  }
  if (!root.IsEmpty() && !PlPathInside(root.c_str(), t.Local.c_str())) {
    t.What = HttpsTarget::OUTSIDE;
    return;
  }
  if (!OpenBeneath(root, WithoutLeadingSeps(rest), t)) t.What = HttpsTarget::MISSING;
}

// The local name below the home directory of a request path, when the path
// stays inside it (links included) and names something.
bool CHttpServer::LocalTarget(const CStr& urlPath, CStr& local, bool& isDir) {
  HttpsTarget t;
  ResolveTarget(urlPath, nullptr, t);
  if (!t.Exists()) return false;
  local = t.Local;
  isDir = t.What == HttpsTarget::DIR;
  return true;
}

// True when path, read as a directory, may be answered by its directory
// engine: that engine acts on requests like any other engine.
bool CHttpServer::ReachesDirEngine(const CStr& urlPath) {
  CStr path;
  return SimplifyRequestPath(urlPath, path) && ObjGet(HTTPS_OBJ_ENGINE, DirEngineName(path).c_str());
}

// Hands a script to the gateway with the file the request names, found by
// the same rules as any file. The gateway is called whether or not there is
// one, and answers a missing script itself.
void CHttpServer::RunCgi(__https_obj* obj, HTTPS_CLIENT* client) {
  if (!OnCgi) return;
  HttpsTarget t;
  ResolveTarget(client->Arg, nullptr, t);
  client->LocalPath = t.What == HttpsTarget::FILE ? t.Local : CStr();
  PlFileClose(t.Handle);  // the interpreter opens the script itself
  t.Handle = PL_NO_FILE;
  OnCgi(obj, client);
}

// The first default document present in the local directory dir, or null.
CStrs* CHttpServer::DefaultDocIn(const CStr& dir) {
  for (int i = 0; i < DefDocs.Count(); i++) {
    CStrs* entry = DefDocs[i];
    if (entry && PlIsFile(JoinLocal(dir, *entry).c_str())) return entry;
  }
  return nullptr;
}

// A request with a body to a directory goes to its default document, as a
// GET would (a login form that posts to "/" reaches index.php). There is no
// redirect to the path with a slash: it would turn the request into a GET
// and lose the body.
void CHttpServer::ResolveDefaultDocument(HTTPS_CLIENT* client) {
  CStr local;
  bool isDir = false;
  if (!LocalTarget(client->Arg, local, isDir) || !isDir) return;
  CStrs* doc = DefaultDocIn(local);
  if (!doc) return;
  if (client->Arg.Last() != '/') client->Arg += "/";
  client->Arg += *doc;
}

// "/app/index.php/users/7" names the script "/app/index.php" and the extra
// path "/users/7", which frameworks route by. The script is the shortest
// leading part that ends in a handled extension and is a file inside the
// home directory; the request then goes on as one for the script alone.
void CHttpServer::SplitPathInfo(HTTPS_CLIENT* client) {
  const CStr& arg = client->Arg;
  for (int i = 1; i < arg.Len; i++) {
    if (arg.Str[i] != '/') continue;
    CStr script = arg.Left(i);
    if (!ObjGet(HTTPS_OBJ_EXT, script.c_str())) continue;
    CStr local;
    bool isDir = true;
    if (!LocalTarget(script, local, isDir) || isDir) continue;
    // "/x.php/../y" is a path to be resolved, not a route for x.php.
    if (HasDotSegment(arg.Right(i))) return;
    client->PathInfo = arg.Right(i);
    client->Arg = script;
    return;
  }
}

void CHttpServer::Get(HTTPS_CLIENT* client) {
  if (client->Arg.IsEmpty()) {
    SendError(client, ErrMsg413, "GET");
    return;
  }
  for (int pass = 0; pass < kMaxDispatchPasses; pass++)
    if (GetPass(client) != GET_AGAIN) return;
  SendError(client, ErrMsg404, nullptr);
}

// One pass over the request path. GET_AGAIN: a default document was added
// to the path, which goes through the registry and its checks again.
CHttpServer::GetOutcome CHttpServer::GetPass(HTTPS_CLIENT* client) {
  __https_obj* obj = nullptr;
  HttpsTarget t;
  GetOutcome step = FindTarget(client, obj, t);
  if (step != GET_SERVE) return step;
  if (t.What == HttpsTarget::DIR) {
    step = ServeDirectory(client, obj, t);
    if (step != GET_SERVE) return step;
  }
  return ServeFile(client, t);
}

// The registry first (engines, scripts, mapped files and directories), then
// the file system. GET_SERVE leaves a target that exists, or one that is
// missing, to be served or refused by the next steps.
CHttpServer::GetOutcome CHttpServer::FindTarget(HTTPS_CLIENT* client, __https_obj*& obj, HttpsTarget& t) {
  // HEAD is answered like GET without the body, for files and scripts only:
  // engines act on requests (the run wrapper starts programs), so they
  // never see one.
  const bool head = client->Method == HTTPS_MET_HEAD;
  CStr path;
  if (!SimplifyRequestPath(client->Arg, path)) {
    PrintLog(client->Ip, "GET: Invalid path \"%s\"", client->Arg.c_str());
    SendError(client, ErrMsg403, "GET");
    return GET_ANSWERED;
  }
  // The bare root skips the registry (and the parsing of the query).
  if (!path.IsEmpty()) {
    if (!ParseArgs(obj, client, HTTPS_OBJ_ANY)) return GET_ANSWERED;
    if (obj) {
      if (!CheckAccess(obj, client)) return GET_ANSWERED;
      if (obj->Type & HTTPS_OBJ_ENGINE) {
        if (head) SendError(client, ErrMsg405, "HEAD", HTTPS_ERRF_BARE);
        else obj->Func(obj, client);
        return GET_ANSWERED;
      }
      if ((obj->Type & HTTPS_OBJ_EXT) || ((obj->Type & HTTPS_OBJ_VFILE) && (obj->Flags & HTTPS_OBJF_CGI))) {
        RunCgi(obj, client);
        return GET_ANSWERED;
      }
      if ((obj->Type & HTTPS_OBJ_VFILE) && client->Arg.Last() == '/') {
        SendError(client, ErrMsg404, nullptr);
        return GET_ANSWERED;
      }
    }
  }
  ResolveTarget(client->Arg, obj, t);
  if (t.What == HttpsTarget::OUTSIDE) {
    SendError(client, ErrMsg403, nullptr);
    return GET_ANSWERED;
  }
  if (t.What == HttpsTarget::LEADS_OUT) {
    PrintLog(client->Ip, "GET: \"%s\" leads out of its directory", client->Arg.c_str());
    SendError(client, ErrMsg403, nullptr);
    return GET_ANSWERED;
  }
  return GET_SERVE;
}

// A path to a directory without its final slash is sent to the one with it,
// so that the page's relative links resolve below the directory. The path
// is percent-encoded again: a raw blank or control byte is not allowed in a
// Location header, and one would end the header early.
void CHttpServer::RedirectToSlash(HTTPS_CLIENT* client) {
  CStr url = SslEnabled ? "https://" : "http://";
  url += client->Host.IsEmpty() ? HostName : client->Host;
  if (Port != (SslEnabled ? 443 : 80) && !HostHasPort(client->Host)) {
    url += ":";
    url += (int)Port;
  }
  url += EncodeUrlPath(client->Arg);
  url += "/";
  SendMoved(client->Socket, url);
}

// Redirect, listing, default document or the directory's engine, in that
// order. GET_SERVE: none applies, and the directory counts as not found.
CHttpServer::GetOutcome CHttpServer::ServeDirectory(HTTPS_CLIENT* client, __https_obj* obj, HttpsTarget& t) {
  const bool head = client->Method == HTTPS_MET_HEAD;
  if (client->Arg.Last() != '/') {
    RedirectToSlash(client);
    return GET_ANSWERED;
  }
  if (obj && (obj->Flags & HTTPS_OBJF_BROWSE)) {
    if (head) {
      SendError(client, ErrMsg405, "HEAD", HTTPS_ERRF_BARE);
      return GET_ANSWERED;
    }
    PrintLog(client->Ip, "BROWSE \"%s\"", client->Arg.c_str());
    DirListFrom(client, t.Path.c_str(), DirLoadFrom(PlDirOpenHandle(t.Handle)));
    return GET_ANSWERED;
  }
  if (CStrs* doc = DefaultDocIn(t.Local)) {
    client->Arg += *doc;
    return GET_AGAIN;
  }
  // The directory's engine stands in for a page; it is reached without the
  // password step, like a default document would be before its own check.
  if (__https_obj* dirEngine = ObjGet(HTTPS_OBJ_ENGINE, DirEngineName(t.Path).c_str())) {
    if (head) SendError(client, ErrMsg405, "HEAD", HTTPS_ERRF_BARE);
    else dirEngine->Func(dirEngine, client);
    return GET_ANSWERED;
  }
  PlFileClose(t.Handle);
  t.Handle = PL_NO_FILE;
  t.What = HttpsTarget::MISSING;
  return GET_SERVE;
}

// The file itself, from the handle that was checked.
CHttpServer::GetOutcome CHttpServer::ServeFile(HTTPS_CLIENT* client, HttpsTarget& t) {
  const bool head = client->Method == HTTPS_MET_HEAD;
  PrintLog(client->Ip, "GET \"%s\"", client->Arg.c_str());
  if (t.What != HttpsTarget::FILE) {
    SendError(client, ErrMsg404, nullptr);
    return GET_ANSWERED;
  }
  if (client->ModifiedTm != 0 && client->ModifiedTm == (time_t)t.Info.MTime) {
    SendNotModified(client->Socket);
    return GET_ANSWERED;
  }
  CStr ext = t.Local.FileExt();
  if (SendHeader(client, (int)t.Info.Size, GetMimeType(ext), nullptr, t.Info.MTime, HTTPS_HEADERF_CACHEABLE) && !head &&
      !SendOpenFile(client, t.Handle, t.Info.Size, t.Local.c_str()))
    SendError(client, ErrMsg404, nullptr);
  return GET_ANSWERED;
}
