#ifndef VANTRY_TOOLS_COMMAND_H
#define VANTRY_TOOLS_COMMAND_H

#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

// Exit codes.
constexpr int GOOD = 0;
constexpr int NEGATIVE = 1;
constexpr int WRONG_USE = 2;

// Why a command ends: one sentence for standard error, and the exit code.
class CFailure : public std::runtime_error {
public:
    explicit CFailure(const std::string& sentence, int code = NEGATIVE)
        : std::runtime_error(sentence), m_code(code) {}

    int Code() const { return m_code; }

private:
    int m_code;
};

// One sentence on standard error that does not end the command.
void Tell(const std::string& sentence);

// Each adds a command with its options and its help; when it is called, `code` becomes the exit code.
void AddQuery(CLI::App& app, int& code);
void AddCheck(CLI::App& app, int& code);
void AddBackup(CLI::App& app, int& code);
void AddRestore(CLI::App& app, int& code);
void AddShm(CLI::App& app, int& code);
void AddScreen(CLI::App& app, int& code);

#endif
