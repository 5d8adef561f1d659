// CDatabase: a thin layer over one SQLite database file. The SQLite library
// is bound by name at run time (PL_LIB_SQLITE, "libsqlite3.so.0" on Linux, unless SetLibraryName says
// otherwise), so programs that never use a database run without it; when it
// is missing every operation behaves as on a closed database.
//
// Errors of use are thrown as const char* texts: "Can't open the database",
// "Missing table name", "Missing primary key" and "Database not open"
// (Exec, TableExist, Insert, Update and Delete on a closed database). The
// blob operations return false / NULL instead.
//
// Insert and Update take their columns as pairs of (const char* name,
// const char* value) ended by a NULL name; a NULL value stores SQL NULL:
//
//   db.Insert("people", "name", "Ann", "age", "31", (const char*)NULL);
//
// Values are quoted as SQL text literals, table and column names as quoted
// identifiers, embedded quotes doubled, so nothing a user types can end its
// quotes early. The key of Update and BlobPutID is compared as text (it
// still matches an INTEGER key column through SQLite's affinity); Delete's
// key is compared as a number when it is all digits, else as text.
#ifndef LUMETTA_CDATABASE_H
#define LUMETTA_CDATABASE_H

#include <cstdarg>

#include "cmem.h"
#include "cstr.h"

struct sqlite3;

// Row callback of Exec: user pointer, column count, values, column names.
// A non-zero result stops the statement.
typedef int (*CDB_CALLBACK)(void* arg, int columns, char** values, char** names);

class CDatabase {
 public:
  CDB_CALLBACK CallBack;
  const char* ErrNotOpen;
  CStr DbFile;
  CStr ErrStr;
  CStr PriKeyName;
  sqlite3* Db;
  void* CallBackArg;

  CDatabase();
  ~CDatabase();
  CDatabase(const CDatabase&) = delete;
  CDatabase& operator=(const CDatabase&) = delete;

  void Open(const char* file);  // throws "Can't open the database"
  void Close();
  bool IsOpen() const { return Db != nullptr; }

  // True when the statements ran; otherwise ErrStr holds SQLite's message.
  bool Exec(const char* sql);
  bool Exec(CStr& sql) { return Exec(sql.c_str()); }
  void SetCallBack(CDB_CALLBACK fn, void* arg) { CallBack = fn, CallBackArg = arg; }
  void SetPriKeyName(const char* name) { PriKeyName = name; }
  // Whether the table, which may be qualified ("main.t"), can be selected
  // from (the row callback is not called). False for an empty name.
  bool TableExist(const char* table);
  long long LastRowID();  // 0 when closed

  bool Insert(const char* table, ...);
  // Sets the given columns of the row whose PriKeyName column equals key.
  bool Update(const char* table, const char* key, ...);
  bool Delete(const char* table, const char* key);

  // Blob columns hold EncodeBinary's text. A rowid of 0 means LastRowID().
  bool BlobPut(const char* table, const char* column, long long rowid, const char* data, int len);
  bool BlobPutID(const char* table, const char* column, const char* key, const char* data, int len);
  // The decoded bytes in a new[] block the caller deletes (delete[]), or NULL
  // when there is no such value. A value that does not decode gives its
  // block with len -1; the CMem form then returns false.
  char* BlobGet(const char* table, const char* column, long long rowid, int& len);
  bool BlobGet(const char* table, const char* column, long long rowid, CMem& out);

  // Turns arbitrary bytes into text with no NUL and no single quote. out must
  // hold 257 * n / 254 + 3 bytes; the result is the count before the NUL.
  static int EncodeBinary(const unsigned char* in, int n, unsigned char* out);
  // Reverses EncodeBinary (in place allowed); -1 for a malformed escape.
  static int DecodeBinary(const unsigned char* in, unsigned char* out);

  // SQLite's version text, empty without the library.
  CStr Version();
  const CStr& GetDbFile() const { return DbFile; }
  sqlite3* GetHandle() const { return Db; }

  // Chooses the shared library to bind. Only before the first successful
  // binding in the process (result false afterwards); for tests and for
  // installations that ship the library under another name.
  static bool SetLibraryName(const char* name);
  static bool LibraryBound();

 private:
  void NeedOpen() const;
  bool PutEncoded(const CStr& sql, const char* data, int len);
};

#endif
