# Cross-compiles for 64-bit ARM on Debian, with the libraries of the architecture arm64 beside the machine's own:
#
#   dpkg --add-architecture arm64 && apt-get update
#   apt-get install crossbuild-essential-arm64 qemu-user-static \
#       qtbase5-dev:arm64 libqt5serialport5-dev:arm64 libqt5sql5-sqlite:arm64 libssl-dev:arm64 libsqlite3-dev:arm64 \
#       libsystemd-dev:arm64
#
# Code generators such as moc stay the machine's own. Tests run under qemu; those that start the daemon need the
# kernel to know qemu, too, which qemu-user-static sees to.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
