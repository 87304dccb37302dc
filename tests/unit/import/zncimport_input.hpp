// zncimport_input.hpp - helpers for tests of an import's input: files made by common tools, and
// failures as text.
#ifndef ZNCIMPORT_INPUT_HPP
#define ZNCIMPORT_INPUT_HPP

#include "front/blob.hpp"
#include "import/source/source.hpp"
#include "test_tree.hpp"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>

namespace import_input {

inline znc::UniqueFd open_file(const std::string& path)
{
    znc::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(file) << path;
    return file;
}

// Runs the commands in the directory; stops at the first that fails.
inline void shell(const test_tree::TempDir& dir, const std::string& commands)
{
    const std::string all = "set -e; cd " + dir.path() + "; " + commands;
    ASSERT_EQ(std::system(all.c_str()), 0) << commands;
}

// Returns "object: message" of the Failure that the function throws, "" if it throws none.
inline std::string failure_of(const std::function<void()>& action)
{
    try {
        action();
        return "";
    } catch (const zncimport::Failure& failure) {
        return failure.object() + ": " + failure.what();
    }
}

inline std::string text_of(std::span<const std::byte> bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline std::string content(zncimport::Reader& reader)
{
    std::string text;
    std::array<std::byte, 4096> part{};
    while (const std::size_t got = reader.read(part))
        text += text_of(std::span(part).first(got));
    return text;
}

inline std::string sha256(const std::string& text)
{
    return zncctl::digest_of(text);
}

// A Reader of a string that returns at most `most` bytes at a time.
class TextReader : public zncimport::Reader {
  public:
    explicit TextReader(std::string text, std::size_t most = SIZE_MAX)
        : text_(std::move(text)), most_(most)
    {
    }
    std::size_t read(std::span<std::byte> out) override
    {
        const std::size_t count = std::min({out.size(), most_, text_.size() - at_});
        for (std::size_t i = 0; i < count; i++)
            out[i] = static_cast<std::byte>(text_[at_ + i]);
        at_ += count;
        return count;
    }
    [[nodiscard]] std::size_t left() const { return text_.size() - at_; }

  private:
    std::string text_;
    std::size_t most_;
    std::size_t at_ = 0;
};

inline bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace import_input

#endif
