#include "shell_state.h"

CStr IniFile;
CStr StartPage;
char* CmdTitle = nullptr;
CHttpServer* HttpServer = nullptr;
