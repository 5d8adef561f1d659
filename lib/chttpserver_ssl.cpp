// TLS context: the run-time binding is not available yet, so a configured
// certificate pair cannot start.
#include "chttpserver.h"

bool CHttpServer::OpenSSLInit() { return false; }

SSL_CTX* CHttpServer::OpenSSLCreateCtx() {
  if (SslCertFile.IsEmpty() || SslKeyFile.IsEmpty()) return nullptr;
  throw (int)CERR_HTTPSRV_SSL_INIT;
}
