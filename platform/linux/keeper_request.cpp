#include "keeper_request.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace zn {

bool RequestText::add(const char* text, const char* prefix)
{
    const std::size_t before = std::strlen(prefix);
    const std::size_t size = std::strlen(text) + 1;
    if (size > sizeof text_ - len_ || before > sizeof text_ - len_ - size)
        return false;
    std::memcpy(text_ + len_, prefix, before);
    std::memcpy(text_ + len_ + before, text, size);
    len_ += static_cast<std::uint32_t>(before + size);
    count_++;
    return true;
}

bool RequestText::add(std::span<const char> texts, std::uint32_t count)
{
    if (texts.size() > sizeof text_ - len_)
        return false;
    std::copy(texts.begin(), texts.end(), text_ + len_);
    len_ += static_cast<std::uint32_t>(texts.size());
    count_ += count;
    return true;
}

bool RequestText::add_all(std::initializer_list<const char*> texts)
{
    return std::all_of(texts.begin(), texts.end(), [this](const char* one) { return add(one); });
}

wire::Request RequestText::of(wire::Request request) const
{
    request.textLen = len_;
    request.textCount = count_;
    return request;
}

int keeper_tell(Keeper& keeper, wire::Request request, const char* first, const char* second)
{
    RequestText text;
    if (!text.add(first) || (second != nullptr && !text.add(second)))
        return ENAMETOOLONG;
    return keeper.ask(text.of(request), text.all(), -1);
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
