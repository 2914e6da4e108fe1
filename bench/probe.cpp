// The two ends of a gateway: a radio on a pseudo-terminal and a socket.
//
//   probe latency LINK accept|connect PORT COUNT [MS]
//      each frame's way from radio to socket, in ns, one a line; a frame every so many ms
//   probe among LINK accept PORT COUNT
//      the same while other radios speak; last, how many numbered frames of theirs came
//   probe beside LINK accept PORT COUNT STREAM
//      the same for the socket and for the stream: two numbers a line
//   probe flood LINK accept|connect PORT COUNT [DRAIN...]
//      seconds for COUNT frames sent without a pause
//   probe clients STREAM COUNT
//      so many clients of a stream; on a line of input, what each has read
//   probe stuck STREAM
//      a client that reads nothing until a line of input comes
//
// LINK becomes a link to the radio's device. The radio answers queries; a line on standard input says when to
// begin. With "accept" the gateway is to connect to PORT, with "connect" it listens there. What comes to the
// ports DRAIN is read and counted: bytes of each on a line of their own. Frames have 50 bytes. STREAM is the
// path of a Unix socket, or "http:PORT" for the events of a console.

#include "ends.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr long intervalNs = 5'000'000; // between the frames whose latency is measured
constexpr long lineIntervalNs = 1'000'000'000 / 70; // the same at 38400 bit/s

timespec nextTick(timespec due, long interval = intervalNs)
{
    due.tv_nsec += interval;
    due.tv_sec += due.tv_nsec / 1'000'000'000;
    due.tv_nsec %= 1'000'000'000;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
    return due;
}

long sendFrame(int master, const std::string &sent)
{
    const long start = nowNs();
    if (write(master, sent.data(), sent.size()) != ssize_t(sent.size()))
        fail("radio");
    return start;
}

void measureLatency(int master, int client, int count, long interval)
{
    timespec due = {};
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (int number = 1; number <= count; ++number) {
        due = nextTick(due, interval);
        const std::string sent = frame(number);
        const long start = sendFrame(master, sent);
        char received[frameSize];
        if (recv(client, received, frameSize, MSG_WAITALL) != frameSize)
            fail("socket");
        const long end = nowNs();
        if (sent != std::string(received, frameSize))
            fail("another frame was received");
        std::printf("%ld\n", end - start);
    }
}

/// Whether a simulated radio's running number stands in it.
bool isOthers(const std::string &piece)
{
    return piece.find(",N0") != std::string::npos;
}

void measureAmong(int master, int client, int count)
{
    Pieces frames(client, '\x03');
    long others = 0;
    timespec due = {};
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (int number = 1; number <= count; ++number) {
        due = nextTick(due, lineIntervalNs);
        const std::string sent = frame(number);
        const long start = sendFrame(master, sent);
        for (std::optional<std::string> piece; !piece || *piece + '\x03' != sent;) {
            piece = frames.next();
            if (!piece)
                frames.read();
            others += piece && isOthers(*piece);
        }
        std::printf("%ld\n", nowNs() - start);
    }
    std::fprintf(stderr, "measured\n");
    while (frames.waits(3000)) {
        frames.read();
        while (const std::optional<std::string> piece = frames.next())
            others += isOthers(*piece);
    }
    std::printf("%ld\n", others);
}

/// When the piece with this text has come at one and at the other, beginning with whichever is first.
void measureBeside(int master, int client, int stream, int count)
{
    Pieces both[] = {{client, '\x03'}, {stream, '\n'}};
    timespec due = {};
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (int number = 1; number <= count; ++number) {
        due = nextTick(due);
        const std::string sent = frame(number);
        const std::string text = sent.substr(1, sent.size() - 2);
        const long start = sendFrame(master, sent);
        long taken[] = {0, 0};
        while (!taken[0] || !taken[1]) {
            pollfd events[] = {{client, POLLIN, 0}, {stream, POLLIN, 0}};
            if (poll(events, 2, 10'000) <= 0)
                fail("frame did not come");
            for (int i = 0; i < 2; ++i) {
                if (!events[i].revents)
                    continue;
                both[i].read();
                const long now = nowNs();
                while (const std::optional<std::string> piece = both[i].next()) {
                    if (piece->find(text) != std::string::npos)
                        taken[i] = now - start;
                }
            }
        }
        std::printf("%ld %ld\n", taken[0], taken[1]);
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

/// Reads the records of all clients until a line of input comes; then frames and gaps of each, one client a
/// line.
void beClients(const char *path, int count)
{
    struct Client
    {
        Pieces records;
        long frames;
        long gaps;
    };
    std::vector<Client> clients;
    std::vector<pollfd> events{{STDIN_FILENO, POLLIN, 0}};
    for (int i = 0; i < count; ++i) {
        clients.push_back({Pieces(joinStream(path), '\n'), 0, 0});
        events.push_back({clients.back().records.descriptor(), POLLIN, 0});
    }
    std::fprintf(stderr, "ready\n");
    while (poll(events.data(), events.size(), -1) > 0 && !events.front().revents) {
        for (size_t i = 0; i < clients.size(); ++i) {
            if (!events[i + 1].revents)
                continue;
            Client &client = clients[i];
            client.records.read();
            while (const std::optional<std::string> line = client.records.next()) {
                client.frames += line->find("\"record\":\"frame\"") != std::string::npos;
                client.gaps += line->find("\"record\":\"lost\"") != std::string::npos
                    || line->find("event: missed") != std::string::npos;
            }
        }
    }
    for (const Client &client : clients)
        std::printf("%ld %ld\n", client.frames, client.gaps);
}

void beStuck(const char *path)
{
    joinStream(path);
    std::fprintf(stderr, "ready\n");
    std::getchar();
}

/// A radio, and the listeners of the outputs.
void measure(int argc, char *argv[])
{
    const std::string kind = argv[1];
    const bool accepts = std::strcmp(argv[3], "accept") == 0;
    const int port = std::atoi(argv[4]);
    const int count = std::atoi(argv[5]);
    std::vector<long> drained(size_t(argc), 0);
    for (int i = 6; kind == "flood" && i < argc; ++i)
        std::thread(countBytes, listenOn(std::atoi(argv[i])), &drained[size_t(i)]).detach();
    const int listener = accepts ? listenOn(port) : -1;
    const int master = openRadio(argv[2]);
    std::fprintf(stderr, "ready\n");
    beRadio(master);

    const int client = accepts ? accept(listener, nullptr, nullptr) : connectTo(port);
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (kind != "among")
        drainWaiting(client);
    if (kind == "latency")
        measureLatency(master, client, count, argc > 6 ? std::atol(argv[6]) * 1'000'000 : intervalNs);
    else if (kind == "among")
        measureAmong(master, client, count);
    else if (kind == "beside")
        measureBeside(master, client, joinStream(argv[6]), count);
    else
        flood(master, client, count);
    if (kind == "flood" && argc > 6)
        usleep(500'000);
    for (int i = 6; kind == "flood" && i < argc; ++i)
        std::printf("%ld\n", drained[size_t(i)]);
    std::fflush(stdout);
    unlink(argv[2]);
    std::_Exit(0);
}

} // namespace

int main(int argc, char *argv[])
{
    const std::string kind = argc > 1 ? argv[1] : "";
    if (kind == "clients" && argc == 4)
        beClients(argv[2], std::atoi(argv[3]));
    else if (kind == "stuck" && argc == 3)
        beStuck(argv[2]);
    else if (argc >= 6)
        measure(argc, argv);
    else
        return 2;
}
