// CDatabase over a run-time-bound SQLite library.
#include "cdatabase.h"

#include "pl_dl.h"

#include <cstdio>
#include <cstring>

#include "dll.h"
#include "pl_thread.h"

namespace {

struct sqlite3_stmt_;
struct sqlite3_blob_;
typedef sqlite3_stmt_ Stmt;
typedef sqlite3_blob_ Blob;

const int kSqliteOk = 0;
const int kSqliteDone = 101;

// The fourteen entry points, bound in this order by one DllGetAddresses call.
struct SqliteApi {
  int (*bind_blob)(Stmt*, int, const void*, int, void (*)(void*));
  int (*blob_bytes)(Blob*);
  int (*blob_close)(Blob*);
  int (*blob_open)(sqlite3*, const char*, const char*, const char*, long long, int, Blob**);
  int (*blob_read)(Blob*, void*, int, int);
  int (*close)(sqlite3*);
  int (*exec)(sqlite3*, const char*, CDB_CALLBACK, void*, char**);
  int (*finalize)(Stmt*);
  void (*free)(void*);
  long long (*last_insert_rowid)(sqlite3*);
  void* (*malloc)(int);
  int (*open)(const char*, sqlite3**);
  int (*prepare)(sqlite3*, const char*, int, Stmt**, const char**);
  int (*step)(Stmt*);
};

SqliteApi Api;
DLLHANDLE ApiHandle = nullptr;
CStr ApiLibName(PL_LIB_SQLITE);
PlMutex ApiMutex;

// Binds the library on first use; a failed attempt is retried by the next
// database object, so a library installed later is still found.
bool BindApi() {
  PlLock lock(ApiMutex);
  if (ApiHandle) return true;
  return DllGetAddresses(&ApiHandle, ApiLibName.c_str(),
      (void**)&Api.bind_blob, "sqlite3_bind_blob", (void**)&Api.blob_bytes, "sqlite3_blob_bytes",
      (void**)&Api.blob_close, "sqlite3_blob_close", (void**)&Api.blob_open, "sqlite3_blob_open",
      (void**)&Api.blob_read, "sqlite3_blob_read", (void**)&Api.close, "sqlite3_close",
      (void**)&Api.exec, "sqlite3_exec", (void**)&Api.finalize, "sqlite3_finalize",
      (void**)&Api.free, "sqlite3_free", (void**)&Api.last_insert_rowid, "sqlite3_last_insert_rowid",
      (void**)&Api.malloc, "sqlite3_malloc", (void**)&Api.open, "sqlite3_open",
      (void**)&Api.prepare, "sqlite3_prepare", (void**)&Api.step, "sqlite3_step", (void**)nullptr);
}

// Wraps text in quote characters, doubling the quote inside, which is how
// SQL keeps a value or a name from ending early.
CStr Quoted(const char* text, char quote) {
  CStr out;
  out += quote;
  for (const char* p = text; *p; ++p) {
    const char* q = strchr(p, quote);
    if (!q) {
      out += p;
      break;
    }
    out.Cat(p, (int)(q - p + 1));
    out += quote;
    p = q;
  }
  out += quote;
  return out;
}

CStr Ident(const char* name) { return Quoted(name, '"'); }
CStr Literal(const char* value) { return value ? Quoted(value, '\'') : CStr("NULL"); }

bool Missing(const char* s) { return !s || !*s; }

// A possibly qualified table name ("main.t"), each part a quoted identifier.
CStr TableRef(const char* table) {
  CStr ref;
  for (const char* part = table;;) {
    const char* dot = strchr(part, '.');
    CStr name;
    name.Cat(part, dot ? (int)(dot - part) : (int)strlen(part));
    ref += Ident(name.c_str());
    if (!dot) return ref;
    ref += ".";
    part = dot + 1;
  }
}

// Digits with an optional minus sign, short enough to stay an integer.
bool LooksInteger(const char* s) {
  if (*s == '-') ++s;
  size_t digits = strspn(s, "0123456789");
  return digits > 0 && digits <= 18 && s[digits] == 0;
}

// A key written bare compares as a number, also against a column without a
// declared type; only digits are let through bare, anything else is quoted.
CStr NumberOrLiteral(const char* key) { return LooksInteger(key) ? CStr(key) : Literal(key); }

// "name" = 'value' pairs, or names and values in two lists, from the
// NULL-ended (name, value) arguments.
void CollectColumns(va_list ap, CStr& names, CStr& values, CStr& assignments) {
  for (;;) {
    const char* name = va_arg(ap, const char*);
    if (!name) break;
    const char* value = va_arg(ap, const char*);
    if (!names.IsEmpty()) names += ",", values += ",", assignments += ",";
    names += Ident(name);
    values += Literal(value);
    assignments += Ident(name) + " = " + Literal(value);
  }
}

int VersionRow(void* arg, int columns, char** values, char**) {
  if (columns > 0 && values[0]) *static_cast<CStr*>(arg) = values[0];
  return 0;
}

}  // namespace

CDatabase::CDatabase()
    : CallBack(nullptr), ErrNotOpen("Database not open"), Db(nullptr), CallBackArg(nullptr) {
  BindApi();
}

CDatabase::~CDatabase() { Close(); }

bool CDatabase::SetLibraryName(const char* name) {
  PlLock lock(ApiMutex);
  if (ApiHandle || Missing(name)) return false;
  ApiLibName = name;
  return true;
}

bool CDatabase::LibraryBound() {
  PlLock lock(ApiMutex);
  return ApiHandle != nullptr;
}

void CDatabase::Open(const char* file) {
  Close();
  if (Missing(file) || !BindApi() || Api.open(file, &Db) != kSqliteOk) {
    Close();  // SQLite hands out a handle even when the open fails
    throw "Can't open the database";
  }
  DbFile = file;
}

void CDatabase::Close() {
  if (Db) Api.close(Db);
  Db = nullptr;
  DbFile.Empty();
}

void CDatabase::NeedOpen() const {
  if (!Db) throw ErrNotOpen;
}

bool CDatabase::Exec(const char* sql) {
  NeedOpen();
  char* err = nullptr;
  bool ok = Api.exec(Db, sql ? sql : "", CallBack, CallBackArg, &err) == kSqliteOk;
  if (err) {
    ErrStr = err;
    Api.free(err);
  } else if (ok) {
    ErrStr.Empty();
  }
  return ok;
}

bool CDatabase::TableExist(const char* table) {
  if (Missing(table)) return false;
  NeedOpen();
  CStr sql = CStr("SELECT * FROM ") + TableRef(table) + " LIMIT 0;";
  CDB_CALLBACK saved = CallBack;
  CallBack = nullptr;
  bool ok = Exec(sql);
  CallBack = saved;
  return ok;
}

long long CDatabase::LastRowID() { return Db ? Api.last_insert_rowid(Db) : 0; }

bool CDatabase::Insert(const char* table, ...) {
  if (Missing(table)) throw "Missing table name";
  NeedOpen();
  CStr names, values, assignments;
  va_list ap;
  va_start(ap, table);
  CollectColumns(ap, names, values, assignments);
  va_end(ap);
  CStr sql = CStr("INSERT INTO ") + Ident(table) + " (" + names + ") VALUES (" + values + ");";
  return Exec(sql);
}

bool CDatabase::Update(const char* table, const char* key, ...) {
  if (Missing(table)) throw "Missing table name";
  if (!key || PriKeyName.IsEmpty()) throw "Missing primary key";
  NeedOpen();
  CStr names, values, assignments;
  va_list ap;
  va_start(ap, key);
  CollectColumns(ap, names, values, assignments);
  va_end(ap);
  // The key is compared as text here, unlike Delete's.
  CStr sql = CStr("UPDATE ") + Ident(table) + " SET " + assignments + " WHERE " +
             Ident(PriKeyName.c_str()) + " = " + Literal(key) + ";";
  return Exec(sql);
}

bool CDatabase::Delete(const char* table, const char* key) {
  if (Missing(table)) throw "Missing table name";
  if (!key || PriKeyName.IsEmpty()) throw "Missing primary key";
  NeedOpen();
  CStr sql = CStr("DELETE FROM ") + Ident(table) + " WHERE " + Ident(PriKeyName.c_str()) + " = " +
             NumberOrLiteral(key) + ";";
  return Exec(sql);
}

// Encodes data into an SQLite-owned buffer and binds it as parameter 1 of sql;
// SQLite frees the buffer whatever happens after the bind.
bool CDatabase::PutEncoded(const CStr& sql, const char* data, int len) {
  long long room = 257LL * len / 254 + 3;
  if (room > 0x7fffffff) return false;
  unsigned char* buf = static_cast<unsigned char*>(Api.malloc((int)room));
  if (!buf) return false;
  int n = EncodeBinary(reinterpret_cast<const unsigned char*>(data), len, buf);
  Stmt* stmt = nullptr;
  if (Api.prepare(Db, sql.c_str(), -1, &stmt, nullptr) != kSqliteOk || !stmt) {
    if (stmt) Api.finalize(stmt);
    Api.free(buf);
    return false;
  }
  bool ok = Api.bind_blob(stmt, 1, buf, n, Api.free) == kSqliteOk && Api.step(stmt) == kSqliteDone;
  Api.finalize(stmt);
  return ok;
}

bool CDatabase::BlobPut(const char* table, const char* column, long long rowid, const char* data,
                        int len) {
  if (!Db || Missing(table) || Missing(column) || !data || len <= 0) return false;
  if (rowid == 0) rowid = LastRowID();
  CStr sql = CStr("UPDATE ") + Ident(table) + " SET " + Ident(column) + " = ? WHERE rowid = ";
  char num[32];
  snprintf(num, sizeof num, "%lld;", rowid);
  sql += num;
  return PutEncoded(sql, data, len);
}

bool CDatabase::BlobPutID(const char* table, const char* column, const char* key, const char* data,
                          int len) {
  if (!Db || Missing(table) || Missing(column) || !key || PriKeyName.IsEmpty() || !data || len <= 0)
    return false;
  // As in Update, the key is compared as text.
  CStr sql = CStr("UPDATE ") + Ident(table) + " SET " + Ident(column) + " = ? WHERE " +
             Ident(PriKeyName.c_str()) + " = " + Literal(key) + ";";
  return PutEncoded(sql, data, len);
}

char* CDatabase::BlobGet(const char* table, const char* column, long long rowid, int& len) {
  len = 0;
  if (!Db || Missing(table) || Missing(column)) return nullptr;
  if (rowid == 0) rowid = LastRowID();
  Blob* blob = nullptr;
  if (Api.blob_open(Db, "main", table, column, rowid, 0, &blob) != kSqliteOk || !blob) {
    if (blob) Api.blob_close(blob);
    return nullptr;
  }
  int bytes = Api.blob_bytes(blob);
  char* buf = new char[(size_t)(bytes > 0 ? bytes : 0) + 1];
  bool ok = bytes <= 0 || Api.blob_read(blob, buf, bytes, 0) == kSqliteOk;
  Api.blob_close(blob);
  buf[ok && bytes > 0 ? bytes : 0] = 0;
  unsigned char* bytesIn = reinterpret_cast<unsigned char*>(buf);
  if (!ok) {
    delete[] buf;
    return nullptr;
  }
  // A value that does not decode still comes back, with len -1, so that the
  // caller can tell it from a missing row.
  len = DecodeBinary(bytesIn, bytesIn);
  return buf;
}

bool CDatabase::BlobGet(const char* table, const char* column, long long rowid, CMem& out) {
  int len = 0;
  char* data = BlobGet(table, column, rowid, len);
  if (data && len < 0) {
    delete[] data;
    data = nullptr;
  }
  if (!data) return false;
  out.Set(data, (unsigned long long)len);
  return true;
}

int CDatabase::EncodeBinary(const unsigned char* in, int n, unsigned char* out) {
  if (n <= 0) {
    out[0] = 'x';
    out[1] = 0;
    return 1;
  }
  int count[256] = {0};
  for (int i = 0; i < n; ++i) ++count[in[i]];
  // The offset that leaves the fewest bytes needing an escape (0, 1 and the
  // quote after subtraction); the quote itself is never an offset.
  int best = n, e = 0;
  for (int i = 1; i < 256 && best > 0; ++i) {
    if (i == '\'') continue;
    int score = count[i] + count[(i + 1) & 0xff] + count[(i + '\'') & 0xff];
    if (score < best) best = score, e = i;
  }
  int j = 0;
  out[j++] = (unsigned char)e;
  for (int i = 0; i < n; ++i) {
    int y = (in[i] - e) & 0xff;
    if (y == 0 || y == 1) out[j++] = 1, out[j++] = (unsigned char)(y + 1);
    else if (y == '\'') out[j++] = 1, out[j++] = 3;
    else out[j++] = (unsigned char)y;
  }
  out[j] = 0;
  return j;
}

int CDatabase::DecodeBinary(const unsigned char* in, unsigned char* out) {
  int e = in[0];
  if (e == 0) return 0;
  int i = 1, j = 0, c;
  while ((c = in[i++]) != 0) {
    if (c == 1) {
      c = in[i++];
      if (c == 1) c = 0;
      else if (c == 2) c = 1;
      else if (c == 3) c = '\'';
      else return -1;
    }
    out[j++] = (unsigned char)((c + e) & 0xff);
  }
  return j;
}

CStr CDatabase::Version() {
  CStr version;
  if (!BindApi()) return version;
  sqlite3* db = Db;
  if (!db && Api.open(":memory:", &db) != kSqliteOk) {
    if (db) Api.close(db);
    return version;
  }
  Api.exec(db, "SELECT sqlite_version();", VersionRow, &version, nullptr);
  if (db != Db) Api.close(db);
  return version;
}
