#pragma once

#include <Fixtures.h>
#include <LogCapture.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

// An open connection to a new file with the table t (a UNIQUE), and a second connection past the library.
class Opened : public testing::Test {
protected:
    Opened() {
        m_other.Exec("CREATE TABLE t (a UNIQUE)");
        Reopen();
    }

    // A new connection, which has not read the schema: its next preparation meets locks.
    void Reopen() {
        m_connection = std::make_unique<support::OpenConnection>(m_dir.Path(), "a.db", 6);
        EXPECT_EQ(m_connection->OpenOperation(), 0);
        m_log.Clear();
    }

    // Goes without a handle.
    void Close() {
        m_connection->CloseOperation();
        m_log.Clear();
    }

    sqlite3* Db() const { return m_connection->m_pDB; }

    // Statements of the connection that are not finalised.
    int Outstanding() const {
        int count = 0;
        for (sqlite3_stmt* s = sqlite3_next_stmt(Db(), nullptr); s != nullptr;
             s = sqlite3_next_stmt(Db(), s)) {
            ++count;
        }
        return count;
    }

    support::TempDir m_dir;
    support::RawDb m_other{m_dir.File("a.db")};
    support::LogCapture m_log;
    std::unique_ptr<support::OpenConnection> m_connection;
    std::string m_error = "before";
};
