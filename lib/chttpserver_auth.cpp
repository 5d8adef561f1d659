// Access passwords: registration only; every request is let through for now.
#include "chttpserver.h"

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

bool CHttpServer::CheckAccess(__https_obj*, HTTPS_CLIENT*) { return true; }
