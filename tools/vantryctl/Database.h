#ifndef VANTRY_TOOLS_DATABASE_H
#define VANTRY_TOOLS_DATABASE_H

#include <memory>
#include <string>
#include <vector>

#include "Rows.h"
#include "SQLiteCursor.h"
#include "VantryConnection.h"

// The library's result codes that are told apart here.
constexpr int RESULT_BUSY = -16;
constexpr int RESULT_READ_ONLY = -30;
constexpr int RESULT_END = -34;

// A result that is read once, forward. A row is forgotten when the next one is read: the library's own cursor keeps the
// values of all rows that it has seen, the evicted ones too.
class CForwardCursor : public CSQLiteCursor {
public:
    explicit CForwardCursor(sqlite3_stmt* statement);

    // As MoveNextStep(): 0, RESULT_END, or why the result is not complete.
    int Step();
    // Names and declared types, known before the first row.
    std::vector<Column> Columns() const;
    int Placeholders() const;
    // Where the statement ends within the text that it was made from.
    std::size_t TextLength() const;
    sqlite3* Handle() const { return m_pDB; }
    // Why a step failed, in words.
    std::string Failure(int code) const;
};

// A database that is looked at and stays as it is, byte for byte; nothing appears beside it.
//
// A database with a write-ahead log is opened so that neither the log nor its index are written or made. What can only
// be read after a recovery, which writes, is copied into a temporary directory, and the copy is looked at.
class CLook {
public:
    // Throws CFailure for a file that cannot be read or is no database.
    explicit CLook(std::string file);
    CLook(const CLook&) = delete;
    CLook& operator=(const CLook&) = delete;
    ~CLook();

    CVantryConnection& Connection() { return *m_connection; }
    const std::string& File() const { return m_file; }
    // Why a copy was looked at; empty for the file itself.
    const std::string& WhyCopy() const { return m_whyCopy; }

    // Reads the schema. Returns 0, or the library's code; `message` receives SQLite's words.
    int Probe(std::string& message);
    // The same, for a command that needs an answer: throws CFailure.
    void Require();

    // Prepares a statement of one's own. Throws CFailure.
    std::unique_ptr<CForwardCursor> Select(const std::string& sql,
                                           const std::vector<std::string>& arguments = {});

    // "x.db is busy: ...", by whom.
    std::string BusySentence() const;

private:
    void Open(const std::string& name, int mode);
    void OpenCopy(const std::string& why);
    void RemoveCopy();

    std::string m_file;
    // Without links: where SQLite's side files are.
    std::string m_realFile;
    std::string m_whyCopy;
    std::string m_copyDirectory;
    std::unique_ptr<CVantryConnection> m_connection;
};

// Throws CFailure, in one sentence, unless the file is one that can be read and begins like a database.
void RequireDatabaseFile(const std::string& file);

enum class Health { Sound, Busy, Corrupted, Unreadable };

struct Examination {
    Health health = Health::Sound;
    // The first lines of what SQLite found, or why it could not look.
    std::vector<std::string> findings;
};

constexpr int FINDINGS = 10;
// Asks SQLite for the integrity of a database. `quick` leaves out what compares indexes with their tables.
Examination Examine(CLook& look, bool quick);
// "sound", "corrupted: Page 7: ...", in one line.
std::string Describe(const Examination& examination, const CLook& look);

// A name as SQL.
std::string Quoted(const std::string& name);

#endif
