#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>

namespace support {

// What a forked child does. It may write to the descriptor that it is given; what it returns is its exit code.
using OtherWork = std::function<int(int report)>;

// A forked child of the test program. It runs none of the exit handlers of its parent, dies with it, and is
// killed and reaped when this object goes.
class OtherProcess {
public:
    explicit OtherProcess(const OtherWork& work);
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    ~OtherProcess();

    pid_t Id() const { return m_id; }
    // The next line that the child reports, without its end; empty when no more can come. Waits for it.
    std::string ReadLine();
    // All that the child reports until it ends.
    std::string ReadAll();
    void Kill();
    // Waits for the end: "exit 0", "signal 9" and so on.
    std::string Wait();

private:
    pid_t m_id = -1;
    int m_report = -1;
    std::string m_end;
};

// Writes a text to the descriptor of a child's report.
void Report(int report, const std::string& text);

// Gives this process mounts of its own; an ordinary user may have them where there are user namespaces. Tells whether it
// is allowed.
bool EnterOwnMounts();

// Numbers that a test shares with the children that it forks afterwards; all are 0 at first.
class SharedNumbers {
public:
    explicit SharedNumbers(std::size_t count);
    SharedNumbers(const SharedNumbers&) = delete;
    SharedNumbers& operator=(const SharedNumbers&) = delete;
    ~SharedNumbers();

    std::atomic<int>& operator[](std::size_t position) { return m_numbers[position]; }
    // Waits until a number has reached a value; gives up when that takes more than a minute.
    bool Await(std::size_t position, int value);

private:
    std::size_t m_count;
    std::atomic<int>* m_numbers;
};

}  // namespace support
