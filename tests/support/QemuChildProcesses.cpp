// Preloaded when the tests run under qemu, whose user mode of Debian 12 lets Qt find out that the kernel has
// descriptors for processes, but cannot make a process with one: QProcess then starts nothing. Told that
// there are none, Qt starts processes the older way.

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// Programs of the machine's own, such as a shell, would complain about it. Those under qemu get it from
/// qemu.
__attribute__((constructor)) static void keepFromChildren()
{
    ::unsetenv("LD_PRELOAD");
}

extern "C" long syscall(long number, ...) noexcept
{
    static const auto next = reinterpret_cast<decltype(&syscall)>(dlsym(RTLD_NEXT, "syscall"));
    long arguments[6];
    va_list list;
    va_start(list, number);
    for (long &argument : arguments)
        argument = va_arg(list, long);
    va_end(list);

    if (number == SYS_waitid && arguments[0] == P_PIDFD) {
        errno = ENOSYS;
        return -1;
    }
    return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
