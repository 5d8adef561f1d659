// The player's start, shared by every front end: options, settings, window
// shaping, the server's set-up and port search, then the first navigation.
#include "player_start.h"

#include <cstdio>
#include <exception>
#include <string>

#include "chttpserver.h"
#include "cgi_pool.h"
#include "cgiwrapper.h"
#include "cmdline.h"
#include "phppool.h"
#include "pl_fs.h"
#include "pl_net.h"
#include "progdir.h"
#include "runwrapper.h"
#include "settings.h"
#include "shell_state.h"

namespace {

PhpPool* Workers = nullptr;  // the PHP workers, while the player runs with them

bool FileExists(const char* path) { return CStr(path).FileExist(); }

// Takes the options into the program-wide state; false after telling the user.
bool ApplyOptions(char* const* words, int count) {
  CmdOptions opts;
  CmdResult r = ReadCmdOptions(words, count, &opts, FileExists);
  if (r != CMD_OK) {
    Error("%s", CmdResultText(r));
    return false;
  }
  if (opts.Ini) IniFile = opts.Ini;
  if (opts.Start) StartPage = opts.Start;
  if (opts.Title) CmdTitle = const_cast<char*>(opts.Title);
  return true;
}

void LocateProgram() {
  std::string path;
  if (PlProgramPath(&path)) ProgDir = path.c_str();
  ProgDir.FilePath();
  if (IniFile.IsEmpty()) IniFile = ProgDir + "/Lumetta.ini";
}

// A fresh key each run: any page in any browser and any program on the
// machine can reach the port, but only the window is given the key.
void CreateServer(bool accessKey) {
  HttpServer = new CHttpServer;
  HttpServer->SetListeningAddr(0x7F000001);
  if (accessKey) {
    CStr key = CHttpServer::NewAccessKey();
    if (key.IsEmpty()) {
      Error("No random numbers could be had from the system for the access key.");
      throw 0;
    }
    HttpServer->SetAccessKey(key.c_str());
  }
  HttpServer->EngsAdd("/run.ebd", RunWrapper, HTTPS_OBJF_ENABLED);
  HttpServer->OnCgi = CgiWrapper;
}

void ApplyTitle(PlayerWindow& w) {
  if (CmdTitle) {
    w.SetCaption(CmdTitle);
    return;
  }
  CStr title;
  ReadIniKey(&title, INI_TITLE);
  w.SetCaption(title.c_str());
}

void ApplyPosition(PlayerWindow& w) {
  if (ReadIniInt(INI_CENTER)) {
    w.SetCentered();
    return;
  }
  w.SetTop(ReadIniInt(INI_TOP));
  w.SetLeft(ReadIniInt(INI_LEFT));
}

void ApplyIcon(PlayerWindow& w) {
  CStr icon;
  ReadIniKey(&icon, INI_ICON);
  if (icon.IsEmpty()) return;
  ExpandTokens(icon);
  if (!icon.FileExist() || !w.LoadIcon(icon.c_str()))
    Error("Unable to load the icon.\nFile not found.");
}

void ApplyCaptionButtons(PlayerWindow& w) {
  bool sysmenu = ReadIniInt(INI_ICON_SYSMENU) != 0;
  bool minimize = true, maximize = true;
  if (sysmenu) {
    minimize = ReadIniInt(INI_ICON_MINIMIZE) != 0;
    maximize = ReadIniInt(INI_ICON_MAXIMIZE) != 0;
  }
  w.SetCaptionButtons(sysmenu, sysmenu && minimize, sysmenu && maximize);
}

void ShapeWindow(PlayerWindow& w) {
  ApplyTitle(w);
  ApplyPosition(w);
  w.ShowStatusBar(ReadIniInt(INI_STATUSBAR) != 0);
  w.SetSizeable(ReadIniInt(INI_SIZEABLE) != 0);
  if (!ReadIniInt(INI_BORDER)) w.SetBorderless();
  w.SetClientWidth(ReadIniInt(INI_CLIENT_WIDTH));
  w.SetBrowserHeight(ReadIniInt(INI_CLIENT_HEIGHT));
  w.SetStayOnTop(ReadIniInt(INI_STAYONTOP) != 0);
  ApplyIcon(w);
  ApplyCaptionButtons(w);
}

// Types the web view needs to see for an application's usual files: a style
// sheet or script sent under a generic type is refused by the browser.
void RegisterMimeTypes(CHttpServer* s) {
  static const char* const table[][4] = {
      {"text/html", "htm", "html", nullptr},
      {"text/css", "css", nullptr, nullptr},
      {"text/javascript", "js", "mjs", nullptr},
      {"application/json", "json", nullptr, nullptr},
      {"text/plain", "txt", "log", nullptr},
      {"text/xml", "xml", nullptr, nullptr},
      {"image/png", "png", nullptr, nullptr},
      {"image/jpeg", "jpg", "jpeg", nullptr},
      {"image/gif", "gif", nullptr, nullptr},
      {"image/svg+xml", "svg", nullptr, nullptr},
      {"image/x-icon", "ico", nullptr, nullptr},
      {"image/webp", "webp", nullptr, nullptr},
      {"font/woff", "woff", nullptr, nullptr},
      {"font/woff2", "woff2", nullptr, nullptr},
      {"font/ttf", "ttf", nullptr, nullptr},
      {"application/pdf", "pdf", nullptr, nullptr},
      {"application/wasm", "wasm", nullptr, nullptr},
      {"audio/mpeg", "mp3", nullptr, nullptr},
      {"video/mp4", "mp4", nullptr, nullptr},
  };
  for (const auto& row : table) {
    CMime* m = s->MimeList->Add();
    m->Type = row[0];
    for (int i = 1; i < 4 && row[i]; i++) m->AddExt(row[i]);
  }
}

// Warm interpreters for the ".php" handler. An interpreter that can't serve
// them still runs every script, one process per request: the log says why,
// the user need not know.
void StartPhpWorkers(const __https_obj* handler) {
  int count = ReadIniInt(INI_PHP_WORKERS);
  if (count <= 0 || !handler) return;
  Workers = new PhpPool;
  if (CgiStartPool(*Workers, handler, count)) return;
  HttpServer->PrintLog(0, "CGI PHP workers not started (%s); one interpreter per request",
                       Workers->FailureText().c_str());
  delete Workers;
  Workers = nullptr;
}

// The ".php" handler. Without an interpreter the player still starts, but
// says so, and PHP pages go to the gateway (which fails to start one)
// rather than being served as source text.
void RegisterPhp() {
  PhpCommand cmd = FindPhpCommand();
  if (cmd.Found) {
    StartPhpWorkers(HttpServer->Vadd("php", cmd.Interpreter.c_str(), cmd.Args.c_str(), HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED));
    return;
  }
  Error("PHP is switched on but no PHP interpreter was found.\n"
        "Looked for %s and for php-cgi on the PATH.", cmd.Interpreter.c_str());
  __https_obj* obj = HttpServer->ObjList->Add();
  obj->Alias = "php";
  obj->Path = cmd.Interpreter;
  obj->Args = cmd.Args;
  obj->Type = HTTPS_OBJ_EXT;
  obj->Flags = HTTPS_OBJF_ENABLED;
}

// HOMEDIR, PORT and PHP, in this order, then the index files and types.
void ConfigureServer() {
  CStr home;
  ReadIniKey(&home, INI_HOMEDIR);
  ExpandTokens(home);
  // A relative home directory is taken from the current directory once, so
  // that later changes of directory (child processes) cannot move it.
  std::string full;
  if (PlRealPath(home.c_str(), &full)) home = full.c_str();
  if (!HttpServer->SetHomeDir(home))
    fprintf(stderr, "Lumetta: home directory not found: %s\n", home.c_str());
  HttpServer->SetPortA(static_cast<unsigned short>(ReadIniInt(INI_PORT)));
  HttpServer->CacheExpire = 0;
  HttpServer->ServerName = "Lumetta Server";
  // Forms of a desktop application carry files: the server's default body
  // limit of 4 KiB would refuse nearly every upload.
  HttpServer->SetMaxPostLen(kPlayerMaxPostLen);
  bool php = ReadIniInt(INI_PHP) != 0;
  if (php) RegisterPhp();
  HttpServer->DefDocs.Add("index.htm");
  HttpServer->DefDocs.Add("index.html");
  if (php) HttpServer->DefDocs.Add("index.php");
  RegisterMimeTypes(HttpServer);
}

bool ListenOn(int port, void*) {
  return HttpServer->SetPortA(static_cast<unsigned short>(port)) && HttpServer->StartListening();
}

// Listens on the first port from PORT upwards that is free. Port 0 means "any
// port" to the system, so the search goes on from 1 after 65535; after one
// full round the player gives up rather than go on forever.
void FindPort() {
  if (SearchPorts(HttpServer->GetPort(), ListenOn, nullptr) == 0) {
    Error("No free port was found to listen on.");
    throw 0;
  }
}

void StartAcceptingOrFail() {
  try {
    if (!HttpServer->StartAccepting()) throw 0;
  } catch (int code) {
    Error("Http server error code %d\n", code);
    throw 0;
  }
}

}  // namespace

int PlayerMain(char* const* words, int count, void (*run)(void* arg), void* arg) {
  if (!PlNetStartup()) {
    Error("WinSock initialization failed");
    return 0;
  }
  if (count == 0 || ApplyOptions(words, count)) {
    try {
      run(arg);
    } catch (int) {
      Error("");  // the start has already said what went wrong
    } catch (const std::exception& e) {
      Error("%s", e.what());
    }
  }
  PlNetCleanup();
  return 0;
}

int SearchPorts(int first, bool (*tryPort)(int port, void* arg), void* arg) {
  int port = first >= 1 && first <= 65535 ? first : 1;
  for (int tries = 0; tries < 65535; tries++) {
    if (tryPort(port, arg)) return port;
    port = port == 65535 ? 1 : port + 1;
  }
  return 0;
}

CStr StartAddress(int port, const CStr& startPage) {
  CStr url;
  url.Printf("http://localhost:%d", port);
  if (!startPage.IsEmpty()) {
    url += "/";
    url += startPage;
  }
  return url;
}

PhpCommand FindPhpCommand() {
  PhpCommand cmd;
  cmd.Found = FindPhpInterpreter(ProgDir, cmd.Interpreter, cmd.Args);
  if (!cmd.Found) {
    cmd.Interpreter = ProgDir + "/Php5/php-cgi";
    cmd.Interpreter.NativePath();
    cmd.Args = CStr("-c \"") + ProgDir + "/Php5/php.ini\"";
  }
  return cmd;
}

CStr KeyAddress(const CStr& address, const CStr& key) {
  if (key.IsEmpty()) return address;
  CStr url = address;
  if (url.FindChar('?') >= 0) {
    url += "&";
  } else {
    // The key is taken from the query of a path; a bare origin gets one.
    if (url.Len >= 8 && CStr(url.c_str() + 7).FindChar('/') < 0) url += "/";
    url += "?";
  }
  url += CHttpServer::AccessKeyName;
  url += "=";
  url += key;
  return url;
}

void StartPlayer(PlayerWindow& window, bool accessKey) {
  LocateProgram();
  CreateServer(accessKey);
  ShapeWindow(window);
  bool popupMenu = ReadIniInt(INI_POPUPMENU) != 0;
  ConfigureServer();
  FindPort();
  StartAcceptingOrFail();
  // The first load fetches the key's cookie; the server then leads the
  // view on to the start address itself.
  CStr start = StartAddress(HttpServer->GetPort(), StartPage);
  window.Navigate(KeyAddress(start, HttpServer->GetAccessKey()).c_str());
  if (!popupMenu) window.SuppressContextMenu();
  if (ReadIniInt(INI_GLASSWIN)) window.MakeTranslucent();
}

void StopPlayer() {
  delete HttpServer;  // its destructor stops listening and accepting
  HttpServer = nullptr;
  // Only now: a request still running holds a worker.
  CgiUsePool(nullptr, nullptr);
  delete Workers;
  Workers = nullptr;
}
