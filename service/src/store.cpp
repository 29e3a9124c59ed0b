#include "store.hpp"

#include <sqlite3.h>

#include <stdexcept>

namespace callhome::db {
namespace {

struct StmtFinalizer {
    void operator()(sqlite3_stmt *s) const { sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

[[noreturn]] void fail(sqlite3 *db, const std::string &what) {
    throw std::runtime_error(what + ": " + (db ? sqlite3_errmsg(db) : "no database"));
}

Stmt prepare(sqlite3 *db, const std::string &sql, const std::vector<Value> &params) {
    sqlite3_stmt *raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), int(sql.size()), &raw, nullptr) != SQLITE_OK) {
        fail(db, "prepare '" + sql + "'");
    }
    Stmt stmt(raw);
    for (size_t i = 0; i < params.size(); ++i) {
        const int pos = int(i + 1);
        int rc;
        if (const auto *n = std::get_if<int64_t>(&params[i])) {
            rc = sqlite3_bind_int64(raw, pos, *n);
        } else {
            const auto &s = std::get<std::string>(params[i]);
            rc = sqlite3_bind_text(raw, pos, s.data(), int(s.size()), SQLITE_TRANSIENT);
        }
        if (rc != SQLITE_OK) {
            fail(db, "bind");
        }
    }
    return stmt;
}

} // namespace

int64_t Row::integer(int column) const {
    return sqlite3_column_int64(stmt_, column);
}

std::string Row::text(int column) const {
    const auto *p = static_cast<const char *>(sqlite3_column_blob(stmt_, column));
    const int n = sqlite3_column_bytes(stmt_, column);
    return p ? std::string(p, size_t(n)) : std::string();
}

void Database::Closer::operator()(sqlite3 *db) const {
    sqlite3_close_v2(db);
}

Database::Database(const std::string &path) {
    sqlite3 *raw = nullptr;
    const int rc =
        sqlite3_open_v2(path.c_str(), &raw,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(raw);
    if (rc != SQLITE_OK) {
        fail(raw, "open " + path);
    }
    sqlite3_busy_timeout(raw, 2000);
}

void Database::exec(const std::string &sql, const std::vector<Value> &params) {
    if (params.empty()) {
        char *err = nullptr;
        if (sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
            std::string msg = err ? err : "unknown error";
            sqlite3_free(err);
            throw std::runtime_error("exec '" + sql + "': " + msg);
        }
        return;
    }
    Stmt stmt = prepare(db_.get(), sql, params);
    const int rc = sqlite3_step(stmt.get());
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
        fail(db_.get(), "step '" + sql + "'");
    }
}

void Database::query(const std::string &sql, const std::vector<Value> &params,
                     const std::function<void(const Row &)> &each) {
    Stmt stmt = prepare(db_.get(), sql, params);
    for (;;) {
        const int rc = sqlite3_step(stmt.get());
        if (rc == SQLITE_DONE) {
            return;
        }
        if (rc != SQLITE_ROW) {
            fail(db_.get(), "step '" + sql + "'");
        }
        each(Row(stmt.get()));
    }
}

bool Database::read_only() const {
    return sqlite3_db_readonly(db_.get(), "main") == 1;
}

int64_t Database::user_version() {
    int64_t v = 0;
    query("PRAGMA user_version", {}, [&](const Row &r) { v = r.integer(0); });
    return v;
}

Transaction::Transaction(Database &db) : db_(db) {
    db_.exec("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (!done_) {
        // Nothing useful can be done about a failed rollback here; the connection
        // rolls back by itself when the next statement finds the transaction broken.
        sqlite3_exec(db_.db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit() {
    db_.exec("COMMIT");
    done_ = true;
}

} // namespace callhome::db
