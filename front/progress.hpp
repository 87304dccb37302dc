// progress.hpp - how an unpack reports on standard error: a redrawn line on a terminal, lines for
// what is no terminal, JSON lines, or nothing. Used by unpack and run.
#ifndef ZNC_FRONT_PROGRESS_HPP
#define ZNC_FRONT_PROGRESS_HPP

#include <chrono>
#include <string>
#include <string_view>

#include "zncontainer.h"

namespace zncctl {

class Progress {
  public:
    // "auto", "plain", "json" or "none"; of anything else known() is false.
    explicit Progress(std::string_view how);

    [[nodiscard]] bool known() const { return how_ != How::kUnknown; }
    [[nodiscard]] static ZNC_PROGRESS_FUNC listener() { return &heard; }
    [[nodiscard]] void* context() { return this; }

    // Members that the unpack extracted otherwise than their maker meant.
    [[nodiscard]] std::uint64_t left_out() const { return left_out_; }

    void end(); // ends a line that is being redrawn

  private:
    enum class How { kBar, kPlain, kJson, kNone, kUnknown };
    using Clock = std::chrono::steady_clock;

    static void heard(const ZNC_PROGRESS* progress, void* context);
    void show(const ZNC_PROGRESS& progress);
    void draw(const ZNC_PROGRESS& progress);
    void print_plain(const ZNC_PROGRESS& progress, bool first, bool last);
    bool is_time(std::chrono::milliseconds pause);

    How how_;
    Clock::time_point last_shown_;
    bool open_line_ = false;
    std::uint64_t left_out_ = 0;
};

} // namespace zncctl

#endif
