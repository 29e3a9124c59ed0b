// Thin RAII layer over SQLite: the connection, prepared statements and transactions.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace callhome::db {

// A bound parameter: integers and texts (texts may hold any bytes).
using Value = std::variant<int64_t, std::string>;

class Row {
  public:
    explicit Row(sqlite3_stmt *stmt) : stmt_(stmt) {}
    int64_t integer(int column) const;
    std::string text(int column) const;

  private:
    sqlite3_stmt *stmt_;
};

class Database {
  public:
    // Throws std::runtime_error when the file can't be opened or created.
    explicit Database(const std::string &path);

    // Runs one statement (or several, without parameters, when params is empty).
    void exec(const std::string &sql, const std::vector<Value> &params = {});
    // Runs a query and calls `each` for every row.
    void query(const std::string &sql, const std::vector<Value> &params,
               const std::function<void(const Row &)> &each);
    int64_t user_version();
    // True when SQLite could open the file for reading only.
    bool read_only() const;

  private:
    friend class Transaction;
    struct Closer {
        void operator()(sqlite3 *db) const;
    };
    std::unique_ptr<sqlite3, Closer> db_;
};

// BEGIN IMMEDIATE on construction; rolled back on destruction unless committed.
class Transaction {
  public:
    explicit Transaction(Database &db);
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    void commit();

  private:
    Database &db_;
    bool done_ = false;
};

} // namespace callhome::db
