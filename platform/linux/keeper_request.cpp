#include "keeper_request.hpp"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace zn {

int keeper_tell(Keeper& keeper, wire::Request request, const char* first, const char* second)
{
    char text[4096];
    const std::size_t a = std::strlen(first) + 1;
    const std::size_t b = second != nullptr ? std::strlen(second) + 1 : 0;
    if (a + b > sizeof text)
        return ENAMETOOLONG;
    std::memcpy(text, first, a);
    if (second != nullptr)
        std::memcpy(text + a, second, b);
    request.textLen = static_cast<std::uint32_t>(a + b);
    request.textCount = second != nullptr ? 2 : 1;
    return keeper.ask(request, {text, a + b}, -1);
}

int keeper_tell(Keeper& keeper, wire::Op op, const char* path)
{
    wire::Request request = {};
    request.op = op;
    return keeper_tell(keeper, request, path);
}

namespace {

std::uint32_t type_bits(char type)
{
    return type == 'b' ? S_IFBLK : type == 'p' ? S_IFIFO : S_IFCHR;
}

} // namespace

int keeper_make_device(Keeper& keeper, const Device& device, std::uint32_t uid, std::uint32_t gid)
{
    wire::Request request = {};
    request.op = wire::Op::kDevice;
    request.node = {type_bits(device.type) | (device.mode & 07777), device.major, device.minor, uid,
                    gid};
    return keeper_tell(keeper, request, device.path.get());
}

int keeper_set_parameter(Keeper& keeper, const Sysctl& parameter)
{
    Text path = znc::copy_text(parameter.key.get());
    if (!path)
        return ENOMEM;
    for (char* at = path.get(); *at != '\0'; at++)
        *at = *at == '.' ? '/' : *at == '/' ? '.' : *at;
    wire::Request request = {};
    request.op = wire::Op::kSysctl;
    return keeper_tell(keeper, request, path.get(), parameter.value.get());
}

} // namespace zn
