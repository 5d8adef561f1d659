// Access passwords: one user name and password per registered object, asked
// for with the Basic scheme. Files under the home directory that no object
// covers are never guarded.
#include "chttpserver.h"

#include <cstring>

void CHttpServer::SetPassword(__https_obj* object, const char* user, const char* password) {
  if (!object) return;
  if (user && *user) object->User = user;
  if (password && *password) object->Password = password;
  object->Flags |= HTTPS_OBJF_PASSWORD;
}

void CHttpServer::SetPassword(__https_obj* object, CStr& user, CStr& password) {
  SetPassword(object, user.c_str(), password.c_str());
}

void CHttpServer::RemovePassword(__https_obj* object, const char*, const char*) {
  if (!object) return;
  object->User.Empty();
  object->Password.Empty();
  object->Flags &= ~HTTPS_OBJF_PASSWORD;
}

void CHttpServer::RemovePassword(__https_obj* object, CStr& user, CStr& password) {
  RemovePassword(object, user.c_str(), password.c_str());
}

bool CHttpServer::CheckAccess(__https_obj* obj, HTTPS_CLIENT* client) {
  if (!obj || !(obj->Flags & HTTPS_OBJF_PASSWORD)) return true;
  // Guarded without a user name: nobody can ever log in, so refuse outright.
  if (obj->User.IsEmpty()) {
    SendError(client, ErrMsg403, nullptr);
    return false;
  }
  // Plain byte comparison: CStr treats two empty strings as different, but an
  // empty password sent for an object without one must match.
  bool userOk = strcmp(client->User.c_str(), obj->User.c_str()) == 0;
  bool passwordOk = strcmp(client->Password.c_str(), obj->Password.c_str()) == 0;
  if (userOk && passwordOk) return true;
  CStr realm = obj->Alias.Len > 1 ? obj->Alias.Right(1) : CStr();
  SendAuthenticate(client->Socket, realm);
  if (!client->User.IsEmpty())
    PrintLog(client->Ip, "POST: Invalid user name %s or password", client->User.c_str());
  return false;
}
