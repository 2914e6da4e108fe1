#include "tools/radiosim/PseudoTerminal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

struct Speed
{
    int bitsPerSecond;
    speed_t constant;
};

constexpr std::array speeds{
    Speed{300, B300},
    Speed{600, B600},
    Speed{1200, B1200},
    Speed{2400, B2400},
    Speed{4800, B4800},
    Speed{9600, B9600},
    Speed{19200, B19200},
    Speed{38400, B38400},
    Speed{57600, B57600},
    Speed{115200, B115200},
    Speed{230400, B230400},
    Speed{460800, B460800},
    Speed{921600, B921600},
};

} // namespace

PseudoTerminal::~PseudoTerminal()
{
    close();
}

bool PseudoTerminal::open()
{
    close();
    m_descriptor = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_descriptor < 0)
        return fail("no pseudo-terminal");
    if (!prepareSlave()) {
        fail("pseudo-terminal cannot be used");
        close();
        return false;
    }
    return true;
}

void PseudoTerminal::close()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
    m_slavePath.clear();
}

bool PseudoTerminal::hasListener() const
{
    pollfd state = {m_descriptor, POLLIN, 0};
    return ::poll(&state, 1, 0) >= 0 && (state.revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
}

int PseudoTerminal::lineSpeed() const
{
    termios settings = {};
    if (::tcgetattr(m_descriptor, &settings) != 0)
        return 0;
    const speed_t constant = ::cfgetospeed(&settings);
    const auto *speed = std::find_if(
        speeds.begin(), speeds.end(), [constant](const Speed &known) { return known.constant == constant; });
    return speed == speeds.end() ? 0 : speed->bitsPerSecond;
}

QVector<int> PseudoTerminal::knownSpeeds()
{
    QVector<int> known;
    for (const Speed &speed : speeds)
        known.append(speed.bitsPerSecond);
    return known;
}

QByteArray PseudoTerminal::read() const
{
    std::array<char, 4096> bytes;
    const ssize_t count = ::read(m_descriptor, bytes.data(), bytes.size());
    return count > 0 ? QByteArray(bytes.data(), int(count)) : QByteArray();
}

int PseudoTerminal::write(const QByteArray &bytes) const
{
    const ssize_t count = ::write(m_descriptor, bytes.constData(), size_t(bytes.size()));
    return count > 0 ? int(count) : 0;
}

void PseudoTerminal::discardUnread() const
{
    ::tcflush(m_descriptor, TCOFLUSH); // reaches only what is still on its way to the slave
    termios settings = {};
    if (::tcgetattr(m_descriptor, &settings) == 0)
        ::tcsetattr(m_descriptor, TCSAFLUSH, &settings); // acts on the slave, flushes its input
}

bool PseudoTerminal::prepareSlave()
{
    std::array<char, 64> path = {};
    if (::grantpt(m_descriptor) != 0 || ::unlockpt(m_descriptor) != 0
        || ::ptsname_r(m_descriptor, path.data(), path.size()) != 0)
        return false;
    m_slavePath = QString::fromLocal8Bit(path.data());

    termios settings = {};
    if (::tcgetattr(m_descriptor, &settings) != 0)
        return false;
    ::cfmakeraw(&settings);
    if (::tcsetattr(m_descriptor, TCSANOW, &settings) != 0)
        return false;

    // Only a slave that was open once is reported as hung up while nobody has it open.
    const int slave = ::open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    return slave >= 0 && ::close(slave) == 0;
}

bool PseudoTerminal::fail(const char *what)
{
    m_errorString = QStringLiteral("%1: %2").arg(QString::fromLatin1(what), qt_error_string(errno));
    return false;
}
