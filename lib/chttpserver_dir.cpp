// Directory listing: not available yet.
#include "chttpserver.h"

CStrList* CHttpServer::DirLoad(const char*) { return nullptr; }

int CHttpServer::DirSortFunc(const void*, const void*) { return 0; }

void CHttpServer::DirList(HTTPS_CLIENT*, const char*, const char*) {}
