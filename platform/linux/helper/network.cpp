// network.cpp - brings up the loopback interface of a network namespace. Done by a spare keeper or
// by the spawner, not by a keeper that serves requests: the kernel's lock of all network
// configuration can be held for seconds on a busy machine, which must not delay the daemon.

#include "helper.hpp"
#include "sys.hpp"

namespace zn {
namespace {

constexpr long kFamilyUnix = 1; // interface flags can be set through any socket
constexpr long kSocketDatagram = 2;
constexpr long kSocketCloexec = 02000000;
constexpr long kGetFlags = 0x8913; // SIOCGIFFLAGS
constexpr long kSetFlags = 0x8914; // SIOCSIFFLAGS
constexpr short kInterfaceUp = 1;  // IFF_UP

struct InterfaceRequest { // struct ifreq
    char name[16];
    short flags;
    char rest[22];
};

} // namespace

int loopback_up()
{
    const sys::Fd socket(sys::call(__NR_socket, kFamilyUnix, kSocketDatagram | kSocketCloexec, 0));
    if (!socket.valid())
        return socket.error();
    InterfaceRequest request = {};
    memcpy(request.name, "lo", 3);
    int error =
        static_cast<int>(-sys::call(__NR_ioctl, socket.get(), kGetFlags, sys::arg(&request)));
    if (error != 0 || (request.flags & kInterfaceUp) != 0)
        return error;
    request.flags = static_cast<short>(request.flags | kInterfaceUp);
    error = static_cast<int>(-sys::call(__NR_ioctl, socket.get(), kSetFlags, sys::arg(&request)));
    return error;
}

} // namespace zn
