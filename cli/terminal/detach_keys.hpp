// detach_keys.hpp - the keys that end a command and leave the program running. Used by attach and
// session.
#ifndef ZNC_CLI_TERMINAL_DETACH_KEYS_HPP
#define ZNC_CLI_TERMINAL_DETACH_KEYS_HPP

#include <optional>
#include <string>
#include <string_view>

namespace zncctl {

inline constexpr const char* kUsualDetachKeys = "ctrl-p,ctrl-q";

class DetachKeys {
  public:
    // Keys separated by commas: a character, or "ctrl-" and a letter or one of @ [ \ ] ^ _. An
    // empty text names none. Nullopt if the text is not valid.
    static std::optional<DetachKeys> parse(std::string_view text);

    [[nodiscard]] bool none() const { return keys_.empty(); }
    // Returns the bytes to pass on, without those that may still become the keys.
    std::string pass(std::string_view typed);
    // Whether the keys have been typed. What followed them was dropped.
    [[nodiscard]] bool typed() const { return !keys_.empty() && matched_ == keys_.size(); }

  private:
    std::string keys_;
    std::size_t matched_ = 0; // how many of them were typed
};

} // namespace zncctl

#endif
