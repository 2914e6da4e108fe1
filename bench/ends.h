#pragma once

#include <optional>
#include <string>

// The ends of a gateway: a simulated radio on a pseudo-terminal, sockets, and the frames between them.

constexpr int frameSize = 50;

[[noreturn]] void fail(const char *what);
long nowNs();
std::string frame(int number);

/// Makes `link` a link to a new radio's device; returns the radio's end.
int openRadio(const char *link);
/// Answers queries until the driver says that the measurement begins.
void beRadio(int master);

int listenOn(int port);
/// Tries for ten seconds.
int connectTo(int port);
/// A client of a stream: of the Unix socket with this path, or of the console's events with "http:PORT".
int joinStream(const std::string &place);
/// Reads and drops what comes until nothing has come for 300 ms.
void drainWaiting(int descriptor);

/// What comes at a socket, cut into pieces at a byte.
class Pieces
{
public:
    Pieces(int descriptor, char end) : m_descriptor(descriptor), m_end(end) { }
    /// Waits for bytes.
    void read();
    /// The next whole piece, without its end.
    std::optional<std::string> next();
    bool waits(int ms) const;
    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor;
    char m_end;
    std::string m_bytes;
};
