#include "ends.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

namespace {

const char *const answers[][2] = {
    {"*GET,INFO,ESN", "*NTF,INFO,ESN,28940001"},
    {"*GET,INFO,COMMENT,1", "*NTF,INFO,COMMENT,"},
    {"*GET,INFO,COMMENT,2", "*NTF,INFO,COMMENT,"},
    {"*GET,INFO,DREV", "*NTF,INFO,DREV,1.02,DSP"},
    {"*GET,INFO,REV", "*NTF,INFO,REV,1.0,$AB12,SIM"},
    {"*GET,INFO,FREV", "*NTF,INFO,FREV,1.00,FRONT"},
};

} // namespace

void fail(const char *what)
{
    std::perror(what);
    std::exit(1);
}

long nowNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::string frame(int number)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%07d", number % 10'000'000);
    return std::string("\x02*NTF,DPMR,RXVCALL,IND,0047312,1200003,") + digits + ",30\x03";
}

int openRadio(const char *link)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        fail("pseudo-terminal");
    termios settings = {};
    tcgetattr(master, &settings);
    cfmakeraw(&settings);
    tcsetattr(master, TCSANOW, &settings);
    unlink(link);
    if (symlink(ptsname(master), link) != 0)
        fail(link);
    // Held open, so that the gateway may come and go.
    if (open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC) < 0)
        fail("device");
    return master;
}

/// Answers queries until the driver says that the measurement begins.
void beRadio(int master)
{
    std::string heard;
    for (;;) {
        pollfd events[] = {{master, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(events, 2, -1) < 0)
            fail("poll");
        if (events[1].revents)
            return;
        char bytes[512];
        const ssize_t count = read(master, bytes, sizeof bytes);
        if (count <= 0)
            fail("radio");
        heard.append(bytes, size_t(count));
        for (size_t end = heard.find('\x03'); end != std::string::npos; end = heard.find('\x03')) {
            const std::string line = heard.substr(1, end - 1);
            heard.erase(0, end + 1);
            std::fprintf(stderr, "%s\n", line.c_str());
            for (const auto &answer : answers) {
                const std::string reply = std::string("\x02") + answer[1] + '\x03';
                if (line == answer[0] && write(master, reply.data(), reply.size()) < 0)
                    fail("radio");
            }
        }
    }
}

int listenOn(int port)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || listen(listener, 1) != 0)
        fail("listen");
    return listener;
}

int connectTo(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    for (int tries = 0; tries < 500; ++tries) {
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(client, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
            return client;
        close(client);
        usleep(20'000);
    }
    fail("connect");
}

int joinStream(const std::string &place)
{
    if (place.rfind("http:", 0) == 0) {
        const std::string port = place.substr(5);
        const int client = connectTo(std::stoi(port));
        const std::string request = "GET /api/events HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n\r\n";
        if (write(client, request.data(), request.size()) < 0)
            fail("console");
        return client;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", place.c_str());
    const int client = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(client, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        fail(place.c_str());
    return client;
}

void drainWaiting(int descriptor)
{
    char bytes[65536];
    for (pollfd event = {descriptor, POLLIN, 0}; poll(&event, 1, 300) > 0;) {
        if (read(descriptor, bytes, sizeof bytes) <= 0)
            return;
    }
}

void Pieces::read()
{
    char bytes[65536];
    const ssize_t count = recv(m_descriptor, bytes, sizeof bytes, 0);
    if (count <= 0)
        fail("socket");
    m_bytes.append(bytes, size_t(count));
}

std::optional<std::string> Pieces::next()
{
    const size_t end = m_bytes.find(m_end);
    if (end == std::string::npos)
        return {};
    const std::string piece = m_bytes.substr(0, end);
    m_bytes.erase(0, end + 1);
    return piece;
}

bool Pieces::waits(int ms) const
{
    pollfd event = {m_descriptor, POLLIN, 0};
    return poll(&event, 1, ms) > 0;
}
