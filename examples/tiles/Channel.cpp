#include "Channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::runtime_error("the path of the socket is too long: " + path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

}  // namespace

int Channel::Listen(const std::string& path) {
    const sockaddr_un address = AddressOf(path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unlink(path.c_str());
    if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        Fail(path);
    }
    return listener;
}

Channel Channel::Accept(int listener, const std::string& path, int seconds) {
    pollfd waiting{listener, POLLIN, 0};
    const int ready = poll(&waiting, 1, seconds * 1000);
    const int descriptor = ready > 0 ? accept(listener, nullptr, nullptr) : -1;
    const int error = ready == 0 ? ETIMEDOUT : errno;
    close(listener);
    unlink(path.c_str());
    if (descriptor < 0) {
        errno = error;
        Fail("no home screen came to " + path);
    }
    return Channel(descriptor);
}

Channel Channel::Connect(const std::string& path, int seconds) {
    const sockaddr_un address = AddressOf(path);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (descriptor < 0) {
            Fail(path);
        }
        if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return Channel(descriptor);
        }
        const int error = errno;
        close(descriptor);
        if (std::chrono::steady_clock::now() >= end) {
            errno = error;
            Fail("no provider at " + path);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

Channel::Channel(Channel&& other) noexcept
    : m_descriptor(other.m_descriptor), m_pending(std::move(other.m_pending)) {
    other.m_descriptor = -1;
}

Channel::~Channel() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

bool Channel::Send(const std::string& line) {
    const std::string bytes = line + "\n";
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = send(m_descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool Channel::Receive(std::string& line) {
    std::size_t end = 0;
    while ((end = m_pending.find('\n')) == std::string::npos) {
        char bytes[4096];
        const ssize_t count = recv(m_descriptor, bytes, sizeof bytes, 0);
        if (count <= 0) {
            return false;
        }
        m_pending.append(bytes, static_cast<std::size_t>(count));
    }
    line = m_pending.substr(0, end);
    m_pending.erase(0, end + 1);
    return true;
}
