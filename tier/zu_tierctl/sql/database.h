#pragma once

#include "zu_tierctl/sql/rows.h"

#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace tierctl {

/* A statement that gives rows. */
class Query {
public:
    Query(sqlite3 *db, const std::string &sql);
    Query(const Query &) = delete;
    Query &operator=(const Query &) = delete;
    ~Query();

    sqlite3_stmt *statement() const { return statement_; }

    /* Goes to the next row; false when there is none. Throws. */
    bool next();

private:
    sqlite3 *db_;
    sqlite3_stmt *statement_ = nullptr;
};

/* An SQLite database in memory whose tables are the metadata of devices. Throws SQLite's sentence
 * when something fails. */
class Database {
public:
    /* The devices must outlive it. */
    explicit Database(const SqlDevices &devices);
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;
    ~Database();

    /* Runs a statement of this program. */
    void run(const std::string &sql);

    /* The names of the tables. */
    std::vector<std::string> tables() const;

    /* From now on statements can only read, and only the tables. */
    void lock();

    /* The only statement of a text by someone else. */
    Query ask(const std::string &sql);

    /* Writes all tables, with indexes, to an empty file that has this name. */
    void write_to(const std::string &path);

    /* What the tables are made of. */
    struct Source;

private:
    SlotCaches caches_;
    FindingLists findings_;
    std::vector<std::unique_ptr<Source>> sources_;
    sqlite3 *db_ = nullptr;
};

} // namespace tierctl
