// zncTarDryTree.cpp - see zncTarDryTree.hpp.
#include "zncTarDryTree.hpp"

#include "base/failure.hpp"

#include <cstring>
#include <functional>
#include <new>

#include <search.h>

namespace {

bool is_itself(const char* name)
{
    return std::strcmp(name, ".") == 0;
}

} // namespace

namespace znc {

TarDryTree::~TarDryTree()
{
    const ErrnoSaver keep;
    while (newest_ != nullptr) {
        const std::unique_ptr<Node> last(newest_);
        newest_ = last->before;
        ::tdelete(last.get(), &root_, compare);
    }
}

int TarDryTree::compare(const void* a, const void* b) noexcept
{
    const auto& left = *static_cast<const Node*>(a);
    const auto& right = *static_cast<const Node*>(b);
    if (left.parent != right.parent)
        return std::less<>()(left.parent, right.parent) ? -1 : 1;
    return std::strcmp(left.name, right.name);
}

TarDryTree::Node* TarDryTree::find(const char* name) const noexcept
{
    const Node wanted = {here_, nullptr, Kind::kFile, nullptr, name};
    void* const found = ::tfind(&wanted, &root_, compare);
    return found != nullptr ? *static_cast<Node**>(found) : nullptr;
}

bool TarDryTree::enter(const char* name) noexcept
{
    if (is_itself(name))
        return true;
    const Node* const node = find(name);
    if (node != nullptr && node->kind == Kind::kDirectory) {
        here_ = node;
        return true;
    }
    return znc::fail(node != nullptr ? ENOTDIR : ENOENT, false);
}

STATUS TarDryTree::make(const char* name, Kind kind) noexcept
{
    if (is_itself(name))
        return znc::fail(EEXIST);
    MallocPtr<char> text(::strdup(name));
    if (text == nullptr)
        return ERROR;
    const char* const key = text.get();
    std::unique_ptr<Node> node(new (std::nothrow) Node{here_, newest_, kind, std::move(text), key});
    void* const place = node != nullptr ? ::tsearch(node.get(), &root_, compare) : nullptr;
    if (place == nullptr)
        return znc::fail(ENOMEM);
    if (*static_cast<Node**>(place) != node.get())
        return znc::fail(EEXIST);
    newest_ = node.release();
    return OK;
}

STATUS TarDryTree::make_file(const char* name) noexcept
{
    if (is_itself(name))
        return znc::fail(EISDIR);
    Node* const node = find(name);
    if (node == nullptr)
        return make(name, Kind::kFile);
    if (node->kind == Kind::kDirectory)
        return znc::fail(EISDIR);
    node->kind = Kind::kFile;
    return OK;
}

} // namespace znc
