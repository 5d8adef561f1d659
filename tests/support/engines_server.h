// A real server on 127.0.0.1 for the gateway and run-wrapper tests, set up
// the way the player sets up its own, and a raw HTTP client for it.
#ifndef LUMETTA_TESTS_ENGINES_SERVER_H
#define LUMETTA_TESTS_ENGINES_SERVER_H

#include <string>
#include <vector>

class CHttpServer;
class CLog;

struct EnginesReply {
  std::string Raw;
  std::string StatusLine;          // without the line end
  std::vector<std::string> Heads;  // header lines after the status line
  std::string Body;
  // Value of the first header of that name (case-blind); empty when absent.
  std::string Header(const std::string& name) const;
};

// Sends the request bytes as they are and reads until the server closes.
EnginesReply EnginesHttp(unsigned short port, const std::string& request);
// A GET of target with optional extra header lines (each ending in CRLF).
EnginesReply EnginesGet(unsigned short port, const std::string& target, const std::string& heads = "");
EnginesReply EnginesPost(unsigned short port, const std::string& target, const std::string& type,
                         const std::string& body, const std::string& heads = "");

// The server with the CGI gateway as OnCgi, the run wrapper on "/run.ebd",
// and "php" registered for the interpreter that FindPhpInterpreter picks.
class EnginesServer {
 public:
  explicit EnginesServer(const std::string& homeDir, bool withPhp = true, CLog* log = nullptr);
  ~EnginesServer();
  EnginesServer(const EnginesServer&) = delete;
  EnginesServer& operator=(const EnginesServer&) = delete;
  bool Start();  // listens on the first free port from a random base
  unsigned short Port() const;
  CHttpServer* Server;
};

#endif
