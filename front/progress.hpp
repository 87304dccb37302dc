// progress.hpp - reports the progress of an unpack on standard error: as a progress bar on a
// terminal, as plain lines, as JSON lines, or not at all. Used by unpack and run.
#ifndef ZNC_FRONT_PROGRESS_HPP
#define ZNC_FRONT_PROGRESS_HPP

#include <chrono>
#include <string_view>

#include "zncontainer.h"

namespace zncctl {

inline constexpr std::string_view kProgressKinds =
    "--progress is \"auto\", \"plain\", \"json\" or \"none\"";

class Progress {
  public:
    // `how` is "auto", "plain", "json" or "none"; known() is false for anything else.
    explicit Progress(std::string_view how);

    [[nodiscard]] bool known() const { return how_ != How::kUnknown; }
    [[nodiscard]] static ZNC_PROGRESS_FUNC listener() { return &on_progress; }
    [[nodiscard]] void* context() { return this; }

    // The number of archive members that were not extracted as the image intends.
    [[nodiscard]] std::uint64_t left_out() const { return left_out_; }

    void end(); // prints a newline after a progress bar

  private:
    enum class How { kBar, kPlain, kJson, kNone, kUnknown };
    using Clock = std::chrono::steady_clock;

    static void on_progress(const ZNC_PROGRESS* progress, void* context);
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
