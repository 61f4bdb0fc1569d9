// A peer of the file store: one table in SQLite, in WAL mode, with the statements kept ready.
#pragma once

#include <sqlite3.h>

#include <stdexcept>
#include <string>

#include "bare_json.h"
#include "zelttokenmanager/token_storage.h"

class SqliteStore : public ZELT::TokenManager::TokenStorage {
 public:
  explicit SqliteStore(const std::string& path) {
    if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) throw std::runtime_error("sqlite");
    Execute("PRAGMA journal_mode=WAL");
    Execute("CREATE TABLE IF NOT EXISTS tokens (token TEXT PRIMARY KEY, data TEXT) WITHOUT ROWID");
    insert = Prepare("INSERT INTO tokens VALUES (?, ?)");
    select = Prepare("SELECT data FROM tokens WHERE token = ?");
  }
  ~SqliteStore() override {
    sqlite3_finalize(insert);
    sqlite3_finalize(select);
    sqlite3_close(database);
  }
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  void Execute(const char* sql) {
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) Fail();
  }

  void Insert(const std::string& token, const Json::Value& data) override {
    const std::string text = bare::Write(data);
    Bind(insert, 1, token);
    Bind(insert, 2, text);
    if (sqlite3_step(insert) != SQLITE_DONE) Fail();
    sqlite3_reset(insert);
  }

  void Remove(const std::string& /*token*/) override { throw std::logic_error("not measured"); }

  Json::Value GetAssociatedData(const std::string& token) override {
    Bind(select, 1, token);
    if (sqlite3_step(select) != SQLITE_ROW) Fail();
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
    Json::Value data = bare::Parse(text, text + sqlite3_column_bytes(select, 0));
    sqlite3_reset(select);
    return data;
  }

 private:
  [[noreturn]] void Fail() { throw std::runtime_error(sqlite3_errmsg(database)); }

  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK) Fail();
    return statement;
  }

  static void Bind(sqlite3_stmt* statement, int place, const std::string& text) {
    sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }

  sqlite3* database = nullptr;
  sqlite3_stmt* insert = nullptr;
  sqlite3_stmt* select = nullptr;
};
