// Request arguments: the CCgi list of name/value pairs and ParseArgs, which
// reads a POST body, finds the object a request names and, for engines,
// splits a query string, a url-encoded form or a multipart upload into
// arguments.
#include "chttpserver.h"

#include <cstring>
#include <memory>
#include <new>

CCgi::CCgi() : Args(nullptr), TotArgs(0), LastArg(nullptr) {}

CCgi::~CCgi() { ArgsDelete(); }

CGI_ARG* CCgi::ArgsAdd(char* label, char* value) {
  CGI_ARG* arg = ArgsAddBin(label, value, value ? (int)strlen(value) : 0);
  arg->Val.UrlDecode();
  return arg;
}

CGI_ARG* CCgi::ArgsAddBin(char* label, char* data, int length) {
  CGI_ARG* arg = new CGI_ARG;
  arg->Next = nullptr;
  arg->Label = label;
  if (data && length > 0) arg->Val.Set(data, length);
  if (LastArg) LastArg->Next = arg;
  else Args = arg;
  LastArg = arg;
  TotArgs++;
  return arg;
}

int CCgi::ArgsCount() { return TotArgs; }

void CCgi::ArgsDelete() {
  while (Args) {
    CGI_ARG* next = Args->Next;
    delete Args;
    Args = next;
  }
  LastArg = nullptr;
  TotArgs = 0;
}

namespace {

// The text that ParseArgs works on: the query or the body, zero-terminated,
// followed by a zeroed margin. The margin lets the boundary search read a
// pattern's length past the data without leaving the block.
class WorkBuffer {
 public:
  WorkBuffer(const char* data, int len, int margin) : Len(len) {
    Buf = new char[len + margin + 1]();
    if (data && len > 0) memcpy(Buf, data, len);
  }
  // Takes over a block that already has the zeroed margin.
  WorkBuffer(char* block, int len) : Buf(block), Len(len) {}
  ~WorkBuffer() { delete[] Buf; }
  char* Release() {
    char* b = Buf;
    Buf = nullptr;
    return b;
  }
  WorkBuffer(const WorkBuffer&) = delete;
  WorkBuffer& operator=(const WorkBuffer&) = delete;

  char* Buf;
  int Len;
};

// A body is read into a block that grows as the bytes come: what a client
// merely announces costs nothing. Doubling from kBodyFirstBlock, the block
// goes straight to the full length once that is at most four times what
// has arrived, so a copy never holds more than a quarter of the body twice.
const int kBodyFirstBlock = 64 * 1024;

int NextBodyCapacity(int capacity, int len) {
  long long next = (long long)capacity * 2;
  if (next > len / 4 || next > len) next = len;
  return (int)next;
}

// The body's len bytes followed by margin + 1 zeros, in a new[] block;
// null when the input ends first or memory runs out.
char* ReadBody(CSocket* sock, int len, int margin) {
  int capacity = len < kBodyFirstBlock ? len : kBodyFirstBlock;
  std::unique_ptr<char[]> block(new (std::nothrow) char[(size_t)capacity + margin + 1]);
  int got = 0;
  while (block) {
    got += sock->Read(block.get() + got, capacity - got);
    if (got < capacity) return nullptr;
    if (got == len) {
      memset(block.get() + len, 0, (size_t)margin + 1);
      return block.release();
    }
    capacity = NextBodyCapacity(capacity, len);
    std::unique_ptr<char[]> larger(new (std::nothrow) char[(size_t)capacity + margin + 1]);
    if (larger) memcpy(larger.get(), block.get(), (size_t)got);
    block = std::move(larger);
  }
  return nullptr;
}

// "a=1&b=&c=3" style text. Names are kept as they are, values are decoded by
// ArgsAdd. A name followed directly by "&" has an empty value; a trailing
// name without "=" becomes one argument without a value.
void ParseUrlEncoded(CCgi* cgi, char* text) {
  char empty[1] = {0};
  char* save = nullptr;
  char* name = CHttpServer::StrTok(text, "=", &save);
  while (name) {
    if (save && *save == '&') {
      cgi->ArgsAdd(name, empty);
      name = CHttpServer::StrTok(nullptr, "=", &save);
      if (name && *name == '&') name++;
      continue;
    }
    char* value = save ? CHttpServer::StrTok(nullptr, "&", &save) : nullptr;
    cgi->ArgsAdd(name, value ? value : empty);
    if (!value || !save) break;
    name = CHttpServer::StrTok(nullptr, "=", &save);
  }
}

// One part of a multipart body: where its data starts and what it is called.
struct PartHead {
  char* Name;
  char* Data;
  bool IsFile;       // has a non-empty file name
  bool IsEmptyFile;  // a file field sent without a file
};

// The name="..." parameter in a part's header text, not the tail of
// filename="...", whichever of the two comes first.
char* FindNameParam(char* header) {
  for (char* p = header; (p = strstr(p, "name=\"")) != nullptr; p += 6) {
    char before = p == header ? ' ' : p[-1];
    if (before == ' ' || before == '\t' || before == ';') return p;
  }
  return nullptr;
}

// Reads the headers of the part that starts at p. The header text is cut
// in place (the name's closing quote and the blank line become zeros).
bool ReadPartHead(char* p, PartHead& part) {
  char* disp = strstr(p, "Content-Disposition:");
  if (!disp) return false;
  char* blank = strstr(disp, "\r\n\r\n");
  if (!blank) return false;
  *blank = 0;  // the searches below stay inside this part's header
  char* name = FindNameParam(disp + 20);
  char* quote = name ? strchr(name + 6, '"') : nullptr;
  if (!quote) {
    *blank = '\r';  // leave the text whole so later parts are still found
    return false;
  }
  *quote = 0;
  // filename= may come after the name or before it, never inside its value.
  char* fileName = strstr(quote + 1, "filename=");
  if (!fileName) {
    *name = 0;
    fileName = strstr(disp + 20, "filename=");
    *name = 'n';
  }
  part.Name = name + 6;
  part.Data = blank + 4;
  part.IsFile = fileName && fileName[10] != '"';
  part.IsEmptyFile = fileName && !part.IsFile;
  return true;
}

// Splits a multipart/form-data body into arguments. The stored boundary
// lacks the first character of the header's value, so a match lands one
// character into the "CR LF - - boundary" delimiter: the data of a part ends
// exactly 5 bytes before it. Text fields are cut at the line end before the
// delimiter and decoded like url-encoded values; files keep their exact bytes.
void ParseMultipart(CCgi* cgi, char* body, int len, const CStr& boundary) {
  const char* bnd = boundary.c_str();
  char* p = body;
  while ((p = strstr(p, bnd)) != nullptr) {
    p += boundary.Len;
    if (*p == '\r') p++;
    if (*p == '\n') p++;
    PartHead part;
    if (!ReadPartHead(p, part)) continue;
    if (part.IsEmptyFile) {
      // The cut header would stop the next search short: go on past it.
      p = part.Data;
      continue;
    }
    int left = len - (int)(part.Data - body);
    char* end = CHttpServer::MemStr(part.Data, left > 0 ? left : 0, (char*)bnd);
    if (part.IsFile) {
      // An upload whose closing delimiter never came is incomplete: dropping
      // it is better than handing on a truncated file.
      if (!end) return;
      cgi->ArgsAddBin(part.Name, part.Data, (int)(end - part.Data) - 5);
    } else {
      if (end) {
        char* cut = end;
        while (cut > part.Data && *cut != '\n') cut--;
        if (*cut == '\n') {
          if (cut > part.Data && cut[-1] == '\r') cut--;
          *cut = 0;
        }
      }
      cgi->ArgsAdd(part.Name, part.Data);
      if (!end) return;
    }
    p = end;
  }
}

}  // namespace

bool CHttpServer::ParseArgs(__https_obj*& object, HTTPS_CLIENT* client, int typeMask) {
  object = nullptr;
  bool isPost = HasRequestBody(client->Method);  // any body is read like a POST body
  if (!isPost && client->QueryStr.IsEmpty()) {
    object = ObjGet(typeMask, client->Arg.c_str());
    return true;
  }
  if (isPost && client->PostLen < 0) {
    // A negative length cannot be read; treat it like a missing one.
    SendError(client, ErrMsg411, "POST");
    return false;
  }
  int len = isPost ? client->PostLen : client->QueryStr.Len;
  const int margin = client->Boundary.Len + 1;
  char* body = nullptr;
  if (isPost) {
    PrintLog(client->Ip, "%s \"%s\"", GetMethodStr(client->Method), client->Arg.c_str());
    body = ReadBody(client->Socket, len, margin);
    if (!body) {
      SendError(client, ErrMsg413, "Incomplete POST");
      return false;
    }
  }
  WorkBuffer work = isPost ? WorkBuffer(body, len) : WorkBuffer(client->QueryStr.Str, len, margin);

  object = ObjGet(typeMask, client->Arg.c_str());
  if (!object) return true;
  if ((object->Type & HTTPS_OBJ_VFILE) && !(object->Flags & HTTPS_OBJF_CGI)) {
    object = nullptr;
    return true;
  }

  CCgi* cgi = new CCgi;
  bool result = true;
  if (!(object->Type & HTTPS_OBJ_ENGINE)) {
    // Handed on as it came: an upload to PHP is held once, not copied.
    cgi->ArgsRaw.Adopt(work.Release(), len);
  } else {
    cgi->ArgsRaw.Set(work.Buf, len);  // a copy: parsing cuts the work text
    if (!isPost || client->PostType == HTTPS_POSTENC_WWWFORM) {
      ParseUrlEncoded(cgi, work.Buf);
    } else if (client->PostType == HTTPS_POSTENC_MULTIPART && !client->Boundary.IsEmpty()) {
      ParseMultipart(cgi, work.Buf, len, client->Boundary);
    } else {
      result = false;
    }
  }
  // A default document is dispatched a second time; the arguments of the
  // first pass are replaced, not leaked.
  delete client->Cgi;
  client->Cgi = cgi;
  return result;
}
