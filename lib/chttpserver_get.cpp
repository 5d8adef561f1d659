// GET dispatch: the registry lookup and the decision between a registered
// object, a file or directory below the home directory, a redirect, a
// listing, a default document and the error replies.
//
// Containment: a request may only open what lies inside its root (the home
// directory, or the directory of the virtual directory it matched). The
// final local name is checked twice: as text, after joining, and once it
// exists, with every symbolic link resolved (the root resolved too). A link
// that leads out of the root is refused with 403: the player is a desktop
// tool that users trust with their disk, and a stray link in an application
// folder must not publish the rest of it. Links that stay inside the root are
// served normally.
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

bool ResolvesInside(const CStr& root, const CStr& local) {
  std::string realRoot, realLocal;
  if (!PlRealPath(root.c_str(), &realRoot) || !PlRealPath(local.c_str(), &realLocal)) return false;
  return PlPathInside(realRoot.c_str(), realLocal.c_str());
}

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

// The local name below the home directory of a request path, when the path
// stays inside it (as text and once links are resolved) and names something.
bool CHttpServer::LocalTarget(const CStr& urlPath, CStr& local, bool& isDir) {
  CStr path = urlPath;
  if (HasEmbeddedNul(urlPath) || !path.PathSimplify('/')) return false;
  local = JoinLocal(HomeDir, path);
  PlStatInfo info;
  if (!PlPathInside(HomeDir.c_str(), local.c_str()) || !PlStat(local.c_str(), &info) ||
      !ResolvesInside(HomeDir, local))
    return false;
  isDir = info.IsDir;
  return true;
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
  // HEAD is answered like GET without the body, for files and scripts only:
  // engines act on requests (the run wrapper starts programs), so they
  // never see one.
  bool head = client->Method == HTTPS_MET_HEAD;
  if (client->Arg.IsEmpty()) {
    SendError(client, ErrMsg413, "GET");
    return;
  }
  for (int pass = 0; pass < kMaxDispatchPasses; pass++) {
    CStr path = client->Arg;
    if (HasEmbeddedNul(client->Arg) || !path.PathSimplify('/')) {
      PrintLog(client->Ip, "GET: Invalid path \"%s\"", client->Arg.c_str());
      SendError(client, ErrMsg403, "GET");
      return;
    }

    __https_obj* obj = nullptr;
    CStr local, root;
    if (path.IsEmpty()) {
      local = root = HomeDir;
    } else {
      if (!ParseArgs(obj, client, 15)) return;
      if (obj) {
        if (!CheckAccess(obj, client)) return;
        if (obj->Type & HTTPS_OBJ_ENGINE) {
          if (head) SendError(client, ErrMsg405, "HEAD", 1);
          else obj->Func(obj, client);
          return;
        }
        if (!(obj->Type & HTTPS_OBJ_VDIR)) {
          if ((obj->Type & HTTPS_OBJ_EXT) || (obj->Flags & HTTPS_OBJF_CGI)) {
            if (OnCgi) OnCgi(obj, client);
            return;
          }
          if (client->Arg.Last() == '/') {
            SendError(client, ErrMsg404, nullptr);
            return;
          }
          local = obj->Path;  // a file the owner registered by name: no root
        } else {
          root = obj->Path;
          local = JoinLocal(root, path.Len > obj->Alias.Len ? path.Right(obj->Alias.Len) : CStr());
        }
      } else {
        root = HomeDir;
        local = JoinLocal(root, path);
      }
      if (!root.IsEmpty() && !PlPathInside(root.c_str(), local.c_str())) {
        SendError(client, ErrMsg403, nullptr);
        return;
      }
    }

    PlStatInfo info;
    bool found = PlStat(local.c_str(), &info);
    if (found && !root.IsEmpty() && !ResolvesInside(root, local)) {
      PrintLog(client->Ip, "GET: \"%s\" leads out of its directory", client->Arg.c_str());
      SendError(client, ErrMsg403, nullptr);
      return;
    }

    if (found && info.IsDir) {
      if (client->Arg.Last() != '/') {
        CStr url = SslEnabled ? "https://" : "http://";
        url += client->Host.IsEmpty() ? HostName : client->Host;
        if (Port != (SslEnabled ? 443 : 80) && !HostHasPort(client->Host)) {
          url += ":";
          url += (int)Port;
        }
        url += EncodeUrlPath(client->Arg);
        url += "/";
        SendMoved(client->Socket, url);
        return;
      }
      if (obj && (obj->Flags & HTTPS_OBJF_BROWSE)) {
        if (head) {
          SendError(client, ErrMsg405, "HEAD", 1);
          return;
        }
        PrintLog(client->Ip, "BROWSE \"%s\"", client->Arg.c_str());
        DirList(client, path.c_str(), local.c_str());
        return;
      }
      CStrs* doc = DefaultDocIn(local);
      if (doc) {
        client->Arg += *doc;
        continue;  // the document goes through the registry and its checks
      }
      __https_obj* dirEngine = ObjGet(HTTPS_OBJ_ENGINE, (path + "/index.ebd").c_str());
      if (dirEngine) {
        if (head) SendError(client, ErrMsg405, "HEAD", 1);
        else if (CheckAccess(dirEngine, client)) dirEngine->Func(dirEngine, client);
        return;
      }
      found = false;
    }

    PrintLog(client->Ip, "GET \"%s\"", client->Arg.c_str());
    if (!found) {
      SendError(client, ErrMsg404, nullptr);
      return;
    }
    if (client->ModifiedTm != 0 && client->ModifiedTm == (time_t)info.MTime) {
      SendNotModified(client->Socket);
      return;
    }
    CStr ext = local.FileExt();
    if (SendHeader(client, (int)info.Size, GetMimeType(ext), nullptr, info.MTime, 1) && !head &&
        !SendFile(client, local.c_str()))
      SendError(client, ErrMsg404, nullptr);
    return;
  }
  SendError(client, ErrMsg404, nullptr);
}
