#pragma once

#include <string>

// One connection over a local socket, carrying texts of one line each.
class Channel {
public:
    // Waits for the one client of a socket at `path`, `seconds` at most; `ready` is called once it can be reached.
    // Throws std::runtime_error.
    template <typename Ready>
    static Channel Serve(const std::string& path, int seconds, Ready ready) {
        const int listener = Listen(path);
        ready();
        return Accept(listener, path, seconds);
    }
    // Connects to a socket, trying for `seconds`. Throws std::runtime_error.
    static Channel Connect(const std::string& path, int seconds);

    Channel(Channel&& other) noexcept;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel();

    // False once the other side has gone.
    bool Send(const std::string& line);
    bool Receive(std::string& line);

private:
    explicit Channel(int descriptor) : m_descriptor(descriptor) {}
    static int Listen(const std::string& path);
    static Channel Accept(int listener, const std::string& path, int seconds);

    int m_descriptor;
    std::string m_pending;
};
