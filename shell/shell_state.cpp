// The program-wide state of the player declared in shell_state.h.
#include "shell_state.h"

CStr IniFile;
CStr StartPage;
char* CmdTitle = nullptr;
CHttpServer* HttpServer = nullptr;
void* MainWindowHandle = nullptr;
