// Directory listing: an HTML page with a Parent link and one table row per
// entry (name, size, date), directories first, names in case-blind order.
#include "chttpserver.h"

#include <cctype>
#include <cstring>
#include <ctime>

#include "pl_fs.h"
#include "pl_time.h"

namespace {

const PlStatInfo* EntryInfo(const __cstr_list* node) { return (const PlStatInfo*)node->Str.Object; }

void FreeEntries(CStrList* list) {
  for (__cstr_list* node = list->Beg; node; node = node->Next) {
    delete (PlStatInfo*)node->Str.Object;
    node->Str.Object = nullptr;
  }
  delete list;
}

CStr ListingHead(const char* url, const CStr& css) {
  CStr head =
      "<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//EN"
      "http://www.w3.org/TR/html4/loose.dtd"
      "\">\n<html lang=\"en-gb\">\n<head>\n<meta http-equiv=\"content-language\" content=\"en-gb\">";
  if (!css.IsEmpty()) {
    head += "<link rel=\"stylesheet\" type=\"text/css\" href=\"";
    head += css;
    head += "\">\n";
  }
  head += "<title>\nIndex of ";
  head += url;
  head += "</title>\n</head>\n<body>\n<h1>Index of ";
  head += url;
  head += "</h1><hr>\n";
  return head;
}

CStr ListingTableStart(const CStr& parent) {
  CStr text =
      "<table border=0>\n  <tr>\n    <td><b>Name</b></td>\n    <td><b>Size</b></td>\n"
      "    <td>&nbsp;&nbsp;</td>\n    <td><b>Date</b></td>\n  </tr>\n  <tr>\n    <td><a href=\"";
  text += parent;
  text += "\"><b>Parent</b></a></td>\n    <td></td>\n    <td></td>\n  </tr>\n";
  return text;
}

CStr ListingRow(const char* url, const CStrs& name, const PlStatInfo& info) {
  CStr row = "  <tr>\n    <td><a href=\"";
  row += url;
  row += "/";
  row += name;
  row += "\">";
  if (info.IsDir) {
    row += "<b>";
    row += name;
    row += "</b></a></td>\n    <td></td>\n";
  } else {
    char size[32];
    snprintf(size, sizeof size, "%lld", info.Size);
    row += name;
    row += "</a></td>\n    <td align=\"right\">";
    row += size;
    row += "</td>\n";
  }
  row += "    <td>&nbsp;&nbsp;</td>\n    <td>";
  struct tm local;
  char date[64] = "";
  if (PlLocalTime((time_t)info.MTime, &local)) strftime(date, sizeof date, "%b %d %Y %H:%M", &local);
  row += date;
  row += "</td>\n  </tr>\n";
  return row;
}

}  // namespace

CStrList* CHttpServer::DirLoad(const char* dir) { return DirLoadFrom(PlDirOpen(dir)); }

// The entries of an open search, which it closes; null for none.
CStrList* CHttpServer::DirLoadFrom(PlDir* handle) {
  if (!handle) return nullptr;
  CStrList* list = new CStrList;
  while (const char* name = PlDirNext(handle)) {
    // A link whose target is gone is still an entry of the directory: it
    // is listed with what the search knows of the link itself.
    PlStatInfo info = {0, 0, false};
    if (!PlDirEntryTargetStat(handle, &info)) PlDirEntryStat(handle, &info);
    list->AddObject(name, new PlStatInfo(info));
  }
  PlDirClose(handle);
  return list;
}

int CHttpServer::DirSortFunc(const void* a, const void* b) {
  const __cstr_list* na = *(const __cstr_list* const*)a;
  const __cstr_list* nb = *(const __cstr_list* const*)b;
  bool dirA = EntryInfo(na)->IsDir, dirB = EntryInfo(nb)->IsDir;
  if (dirA != dirB) return dirA ? -1 : 1;
  return StrCompareIC(na->Str.c_str(), nb->Str.c_str());
}

void CHttpServer::DirList(HTTPS_CLIENT* client, const char* url, const char* dir) {
  DirListFrom(client, url, DirLoad(dir));
}

// The listing page of the entries in list, which it frees; none for null.
void CHttpServer::DirListFrom(HTTPS_CLIENT* client, const char* url, CStrList* list) {
  if (!list) return;
  list->Sort(DirSortFunc);
  if (SendHeader(client, 0, nullptr, nullptr, 0, 0)) {
    CStr head = ListingHead(url, DirCss);
    if (SendReply(client, head.Str, head.Len)) {
      CStr parent = CStr(url) + "/..";
      // The top-level page has no parent to climb to, and so gets no table.
      if (parent.PathSimplify('/')) {
        if (parent.IsEmpty()) parent = "/";
        CStr table = ListingTableStart(parent);
        if (SendReply(client, table.Str, table.Len)) {
          for (__cstr_list* node = list->Beg; node; node = node->Next) {
            CStr row = ListingRow(url, node->Str, *EntryInfo(node));
            SendReply(client, row.Str, row.Len);
          }
          client->Socket->Puts("</table>\n");
        }
      }
    }
  }
  FreeEntries(list);
  client->Socket->Puts("<hr>\n</body>\n</html>\n");
}
