#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "FailingNew.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "Sleeps.h"
#include "SqliteFaults.h"
#include "VantryExtras.h"

constexpr int UNKNOWN_ERROR = -1073741824;

using Texts = std::vector<std::string>;

// A table films(_id, title, year, rating, note) without rows in "films.db", an open connection to it, and a second
// one past the library. `note` has no type: it keeps what it is given.
class ExtrasFixture : public testing::Test {
protected:
    ExtrasFixture() {
        m_raw.Exec(
            "CREATE TABLE films (_id INTEGER PRIMARY KEY, title TEXT UNIQUE, year INTEGER, rating REAL, "
            "note)");
        EXPECT_EQ(m_connection.OpenOperation(), 0);
        // Nothing here has to outlive a power cut.
        m_raw.Exec("PRAGMA synchronous = OFF");
        EXPECT_EQ(Run("PRAGMA synchronous = OFF"), 0);
        // The schema is read now, so that a lock is met where the test puts it.
        EXPECT_EQ(Run("SELECT count(*) FROM films"), 0);
    }

    int Run(const std::string& sql) {
        std::string error;
        return m_connection.ExcuteSQL(sql, error);
    }

    // What others see, in the order of the row ids.
    Texts Titles() { return m_raw.Query("SELECT title FROM films ORDER BY _id"); }
    Texts Query(const std::string& sql) { return m_raw.Query(sql); }

    bool InTransaction() const { return sqlite3_get_autocommit(m_connection.m_pDB) == 0; }
    // Statements of the connection that are not finalised.
    int Outstanding() const {
        int count = 0;
        for (sqlite3_stmt* s = sqlite3_next_stmt(m_connection.m_pDB, nullptr); s != nullptr;
             s = sqlite3_next_stmt(m_connection.m_pDB, s)) {
            ++count;
        }
        return count;
    }
    // Lets the file grow by so few pages that a long text no longer fits.
    void FillUp() {
        const int pages = std::stoi(m_raw.Query("PRAGMA page_count")[0]);
        EXPECT_EQ(Run("PRAGMA max_page_count = " + std::to_string(pages)), 0);
    }

    support::TempDir m_dir;
    support::RawDb m_raw{m_dir.File("films.db")};
    support::OpenConnection m_connection{m_dir.Path(), "films.db", 2};
    support::LogCapture m_log;
};

// A statement of another connection that has been stepped once, and so keeps its lock for reading.
class Reader {
public:
    explicit Reader(support::RawDb& db)
        : m_statement(support::Prepare(db.Handle(), "SELECT * FROM sqlite_master")) {
        sqlite3_step(m_statement);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() { Stop(); }

    void Stop() {
        sqlite3_finalize(m_statement);
        m_statement = nullptr;
    }

private:
    sqlite3_stmt* m_statement;
};
