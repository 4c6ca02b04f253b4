#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <initializer_list>
#include <locale>
#include <string>
#include <vector>

#include "Fixtures.h"
#include "LogCapture.h"
#include "Sleeps.h"
#include "SqliteFaults.h"

namespace support {

using Texts = std::vector<std::string>;

// The log lines of `count` retries of a call, in their order.
inline Texts RetryLines(const std::string& head, const std::string& call, int count) {
    Texts lines;
    for (int attempt = 1; attempt <= count; ++attempt) {
        lines.push_back(head + " > [" + call +
                        "] SQLITE3 busy or locked - Retrying : " + std::to_string(attempt) + " attempts;");
    }
    return lines;
}

inline Texts Joined(std::initializer_list<Texts> parts) {
    Texts all;
    for (const Texts& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// Makes the global C++ locale one that writes 1234 as "1.234".
class GroupedDigits {
public:
    GroupedDigits() : m_before(std::locale::global(std::locale(std::locale::classic(), new Punctuation))) {}
    GroupedDigits(const GroupedDigits&) = delete;
    GroupedDigits& operator=(const GroupedDigits&) = delete;
    ~GroupedDigits() { std::locale::global(m_before); }

private:
    struct Punctuation : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale m_before;
};

// A table t(a, b) with the rows 1|one, 2|two and 3|three in "test.db", and an open connection to it.
class RequestFixture : public ::testing::Test {
protected:
    RequestFixture() {
        m_raw.Exec("CREATE TABLE t (a INTEGER UNIQUE, b TEXT)");
        m_raw.Exec("INSERT INTO t VALUES (1, 'one'), (2, 'two'), (3, 'three')");
        EXPECT_EQ(m_connection.OpenOperation(), 0);
    }

    // Lets the connection read the schema, so that a lock is met by the step and not by the preparation.
    void ReadSchema() {
        std::string error;
        EXPECT_EQ(m_connection.ExcuteSQLInner("SELECT count(*) FROM t", error), 0) << error;
    }

    // Takes the file for the other connection; every call of this one that needs it is then busy.
    void Lock() { m_raw.Exec("BEGIN EXCLUSIVE"); }
    void Unlock() { m_raw.Exec("COMMIT"); }

    // Lets the other connection read until Unlock(): this one may write, and not commit.
    void Read() {
        m_raw.Exec("BEGIN");
        EXPECT_EQ(m_raw.Query("SELECT count(*) FROM t"), Texts{"3"});
    }

    Texts Rows() { return m_raw.Query("SELECT a, b FROM t ORDER BY rowid"); }

    bool HasStatement() const { return sqlite3_next_stmt(m_connection.m_pDB, nullptr) != nullptr; }

    // Runs an operation while the connection's lock is taken; false when it waited for the lock.
    template <typename Operation>
    bool RunsWithoutLock(Operation operation) {
        m_connection.m_pLock->Enter();
        auto done = std::async(std::launch::async, operation);
        const bool ran = done.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        m_connection.m_pLock->Leave();
        done.wait();
        return ran;
    }

    TempDir m_dir;
    RawDb m_raw{m_dir.File("test.db")};
    OpenConnection m_connection{m_dir.Path(), "test.db", 2};
};

}  // namespace support
