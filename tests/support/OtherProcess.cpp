#include "OtherProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>

namespace support {

namespace {

constexpr unsigned CHILD_SECONDS = 240;
constexpr int EXCEPTION_LEFT_THE_WORK = 99;

void WriteTo(const char* path, const std::string& text) { std::ofstream(path) << text; }

void Require(bool good, const char* what) {
    if (!good) {
        std::perror(what);
        std::abort();
    }
}

[[noreturn]] void RunChild(const OtherWork& work, int report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(CHILD_SECONDS);
    int code = EXCEPTION_LEFT_THE_WORK;
    try {
        code = work(report);
    } catch (...) {
        std::fputs("an exception left a child's work\n", stderr);
    }
    _exit(code);
}

}  // namespace

OtherProcess::OtherProcess(const OtherWork& work) {
    int ends[2];
    Require(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    std::fflush(nullptr);
    m_id = fork();
    Require(m_id >= 0, "fork");
    if (m_id == 0) {
        close(ends[0]);
        RunChild(work, ends[1]);
    }
    close(ends[1]);
    m_report = ends[0];
}

OtherProcess::~OtherProcess() {
    if (m_end.empty()) {
        Kill();
        Wait();
    }
    close(m_report);
}

std::string OtherProcess::ReadLine() {
    std::string line;
    char letter = '\0';
    ssize_t got = 0;
    while ((got = read(m_report, &letter, 1)) == 1 || (got < 0 && errno == EINTR)) {
        if (got == 1 && letter == '\n') {
            break;
        }
        line.append(got == 1 ? 1U : 0U, letter);
    }
    return line;
}

std::string OtherProcess::ReadAll() {
    std::string all;
    char letters[4096];
    ssize_t got = 0;
    while ((got = read(m_report, letters, sizeof letters)) > 0 || (got < 0 && errno == EINTR)) {
        all.append(letters, got > 0 ? static_cast<std::size_t>(got) : 0U);
    }
    return all;
}

void OtherProcess::Kill() { kill(m_id, SIGKILL); }

std::string OtherProcess::Wait() {
    int status = 0;
    while (m_end.empty()) {
        if (waitpid(m_id, &status, 0) == m_id) {
            m_end = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                        : "exit " + std::to_string(WEXITSTATUS(status));
        } else {
            Require(errno == EINTR, "waitpid");
        }
    }
    return m_end;
}

void Report(int report, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(report, text.data() + done, text.size() - done);
        Require(written > 0 || errno == EINTR, "report");
        done += written > 0 ? static_cast<std::size_t>(written) : 0U;
    }
}

bool EnterOwnMounts() {
    const auto user = getuid();
    const auto group = getgid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        // Without a name of its own there it could make no file.
        WriteTo("/proc/self/setgroups", "deny");
        WriteTo("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        WriteTo("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

SharedNumbers::SharedNumbers(std::size_t count) : m_count(count) {
    void* const bytes = mmap(nullptr, count * sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Require(bytes != MAP_FAILED, "mmap");
    m_numbers = static_cast<std::atomic<int>*>(bytes);
    for (std::size_t i = 0; i < count; ++i) {
        new (m_numbers + i) std::atomic<int>(0);
    }
}

SharedNumbers::~SharedNumbers() { munmap(m_numbers, m_count * sizeof(std::atomic<int>)); }

bool SharedNumbers::Await(std::size_t position, int value) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (m_numbers[position] < value) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        sched_yield();
    }
    return true;
}

}  // namespace support
