// GET dispatch: registry lookup; for now only engines are served.
#include "chttpserver.h"

#include <cstring>

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

void CHttpServer::Get(HTTPS_CLIENT* client) {
  __https_obj* obj = ObjGet(HTTPS_OBJ_ENGINE, client->Arg.c_str());
  if (obj && CheckAccess(obj, client)) {
    obj->Func(obj, client);
    return;
  }
  if (!obj) SendError(client, ErrMsg404, nullptr);
}
