// The two ends of a gateway: a radio on a pseudo-terminal and a TCP socket.
//
//   probe latency LINK accept|connect PORT COUNT    each frame's way from radio to socket, in ns, one a line
//   probe flood LINK accept|connect PORT COUNT [DRAIN...]    seconds for COUNT frames sent without a pause
//
// LINK becomes a link to the radio's device. The radio answers queries; a line on standard input says when to
// begin. With "accept" the gateway is to connect to PORT, with "connect" it listens there. What comes to the
// ports DRAIN is read and counted: bytes of each on a line of their own. Frames have 50 bytes.

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <termios.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int frameSize = 50;
constexpr long intervalNs = 5'000'000; // between the frames whose latency is measured

const char *const answers[][2] = {
    {"*GET,INFO,ESN", "*NTF,INFO,ESN,28940001"},
    {"*GET,INFO,COMMENT,1", "*NTF,INFO,COMMENT,"},
    {"*GET,INFO,COMMENT,2", "*NTF,INFO,COMMENT,"},
    {"*GET,INFO,DREV", "*NTF,INFO,DREV,1.02,DSP"},
    {"*GET,INFO,REV", "*NTF,INFO,REV,1.0,$AB12,SIM"},
    {"*GET,INFO,FREV", "*NTF,INFO,FREV,1.00,FRONT"},
};

[[noreturn]] void fail(const char *what)
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

void drainWaiting(int descriptor)
{
    char bytes[65536];
    for (pollfd event = {descriptor, POLLIN, 0}; poll(&event, 1, 300) > 0;) {
        if (read(descriptor, bytes, sizeof bytes) <= 0)
            return;
    }
}

void measureLatency(int master, int client, int count)
{
    timespec due = {};
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (int number = 1; number <= count; ++number) {
        due.tv_nsec += intervalNs;
        due.tv_sec += due.tv_nsec / 1'000'000'000;
        due.tv_nsec %= 1'000'000'000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
        const std::string sent = frame(number);
        const long start = nowNs();
        if (write(master, sent.data(), sent.size()) != frameSize)
            fail("radio");
        char received[frameSize];
        if (recv(client, received, frameSize, MSG_WAITALL) != frameSize)
            fail("socket");
        const long end = nowNs();
        if (sent != std::string(received, frameSize))
            fail("another frame was received");
        std::printf("%ld\n", end - start);
    }
}

void sendAll(int master, int count)
{
    std::string block;
    for (int number = 1; number <= count; ++number) {
        block += frame(number);
        if (block.size() < 4000 && number < count)
            continue;
        for (size_t done = 0; done < block.size();) {
            const ssize_t written = write(master, block.data() + done, block.size() - done);
            if (written < 0)
                fail("radio");
            done += size_t(written);
        }
        block.clear();
    }
}

/// The time until every frame has come, in order.
void flood(int master, int client, int count)
{
    const long start = nowNs();
    std::thread sender(sendAll, master, count);
    char received[frameSize];
    for (int number = 1; number <= count; ++number) {
        if (recv(client, received, frameSize, MSG_WAITALL) != frameSize)
            fail("socket");
        if (frame(number) != std::string(received, frameSize))
            fail("another frame was received");
    }
    std::printf("%.6f\n", double(nowNs() - start) / 1e9);
    sender.join();
}

void countBytes(int listener, long *bytes)
{
    const int client = accept(listener, nullptr, nullptr);
    char received[65536];
    for (ssize_t count = 1; count > 0; *bytes += count)
        count = read(client, received, sizeof received);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 6)
        return 2;
    const bool accepts = std::strcmp(argv[3], "accept") == 0;
    const int port = std::atoi(argv[4]);
    const int count = std::atoi(argv[5]);
    std::vector<long> drained(size_t(argc), 0);
    for (int i = 6; i < argc; ++i)
        std::thread(countBytes, listenOn(std::atoi(argv[i])), &drained[size_t(i)]).detach();
    const int listener = accepts ? listenOn(port) : -1;
    const int master = openRadio(argv[2]);
    std::fprintf(stderr, "ready\n");
    beRadio(master);

    const int client = accepts ? accept(listener, nullptr, nullptr) : connectTo(port);
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    drainWaiting(client);
    if (std::strcmp(argv[1], "latency") == 0)
        measureLatency(master, client, count);
    else
        flood(master, client, count);
    if (argc > 6)
        usleep(500'000);
    for (int i = 6; i < argc; ++i)
        std::printf("%ld\n", drained[size_t(i)]);
    std::fflush(stdout);
    unlink(argv[2]);
    std::_Exit(0);
}
