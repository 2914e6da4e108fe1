#include "tools/quillonctl/Commands.h"

#include "tools/quillonctl/CommandError.h"
#include "tools/quillonctl/PasswordFile.h"
#include "tools/quillonctl/Printer.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace {

termios formerTerminal = {};

/// Ctrl-C while the password is asked for must not leave a terminal that shows nothing.
void restoreAndEnd(int signal)
{
    tcsetattr(STDIN_FILENO, TCSANOW, &formerTerminal);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

/// Keeps what is typed from being shown, until it goes.
class HiddenInput
{
public:
    HiddenInput()
    {
        tcgetattr(STDIN_FILENO, &formerTerminal);
        std::signal(SIGINT, restoreAndEnd);
        termios hidden = formerTerminal;
        hidden.c_lflag &= ~tcflag_t(ECHO);
        // Drops what was typed ahead, and shown.
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~HiddenInput()
    {
        tcsetattr(STDIN_FILENO, TCSANOW, &formerTerminal);
        std::signal(SIGINT, SIG_DFL);
    }
    Q_DISABLE_COPY(HiddenInput)
};

QByteArray readLine()
{
    std::string line;
    if (!std::getline(std::cin, line))
        throw CommandError(QStringLiteral("no password was given"));
    return QByteArray::fromStdString(line);
}

QByteArray askFor(const char *question)
{
    std::fputs(question, stderr);
    QByteArray answer = readLine();
    std::fputc('\n', stderr);
    return answer;
}

QByteArray givenPassword()
{
    if (!isatty(STDIN_FILENO))
        return checkedPassword(readLine());
    const HiddenInput hidden;
    QByteArray password = checkedPassword(askFor("New password for the console: "));
    if (askFor("Once more: ") != password)
        throw CommandError(QStringLiteral("the two are not the same; nothing was changed"));
    return password;
}

void setPassword(const CommandContext &context)
{
    const PasswordFile file(context.open(ConfigFile::ReadOnly).path());
    file.store(givenPassword());
    printLine(
        QStringLiteral("The password of the console is set; whoever is logged in has to log in again."));
}

} // namespace

void addConsoleCommands(CLI::App &app, CommandContext &context)
{
    CLI::App *console = app.add_subcommand("console", "Who may use the web page of quillon-console");
    console->require_subcommand(1);
    CLI::App *password =
        console->add_subcommand("password", "Set the password; asks for it, or reads a line from a pipe");
    password->callback([&context] { setPassword(context); });
}
