#include "progress.hpp"

#include "escape.hpp"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zncctl {
namespace {

constexpr std::chrono::milliseconds kRedraw(100);
constexpr std::chrono::seconds kPlainPause(30);

std::string size_text(std::uint64_t bytes)
{
    if (bytes < 1024 * 1024)
        return fmt::format("{} KiB", (bytes + 1023) / 1024);
    return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / (1024 * 1024));
}

// The first characters of a digest are enough to distinguish layers.
std::string short_name(const ZNC_PROGRESS& progress)
{
    return printable(progress.layer).substr(0, 12);
}

std::size_t line_width()
{
    winsize size = {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}

} // namespace

Progress::Progress(std::string_view how) : how_(How::kUnknown)
{
    if (how == "auto")
        how_ = ::isatty(STDERR_FILENO) != 0 ? How::kBar : How::kPlain;
    else if (how == "plain")
        how_ = How::kPlain;
    else if (how == "json")
        how_ = How::kJson;
    else if (how == "none")
        how_ = How::kNone;
}

void Progress::on_progress(const ZNC_PROGRESS* progress, void* context)
{
    static_cast<Progress*>(context)->show(*progress);
}

bool Progress::is_time(std::chrono::milliseconds pause)
{
    const auto now = Clock::now();
    if (now - last_shown_ < pause)
        return false;
    last_shown_ = now;
    return true;
}

void Progress::show(const ZNC_PROGRESS& progress)
{
    left_out_ = progress.leftOut;
    const bool first = progress.done == 0;
    const bool last = progress.done == progress.total;
    if (how_ == How::kBar) {
        if (is_time(kRedraw) || last)
            draw(progress);
    } else if (how_ != How::kNone && (first || last || is_time(kPlainPause))) {
        print_plain(progress, first, last);
    }
}

void Progress::print_plain(const ZNC_PROGRESS& progress, bool first, bool last)
{
    last_shown_ = Clock::now();
    if (how_ == How::kJson)
        fmt::print(stderr,
                   "{{\"layer\":\"{}\",\"index\":{},\"count\":{},\"done\":{},\"total\":{}}}\n",
                   progress.layer, progress.index, progress.count, progress.done, progress.total);
    else
        fmt::print(
            stderr, "layer {}/{} {}: {}\n", progress.index + 1, progress.count,
            short_name(progress),
            last    ? fmt::format("done, {}", size_text(progress.total))
            : first ? fmt::format("unpacking {}", size_text(progress.total))
                    : fmt::format("{} of {}", size_text(progress.done), size_text(progress.total)));
}

void Progress::draw(const ZNC_PROGRESS& progress)
{
    const double part = progress.total != 0 ? static_cast<double>(progress.done) /
                                                  static_cast<double>(progress.total)
                                            : 1;
    const std::string text =
        fmt::format("layer {}/{} {} {:>3.0f}% of {}", progress.index + 1, progress.count,
                    short_name(progress), part * 100, size_text(progress.total));
    const std::size_t width = line_width();
    const std::size_t bar_width =
        width > text.size() + 5 ? std::min<std::size_t>(width - text.size() - 5, 40) : 0;
    const auto filled = static_cast<std::size_t>(part * static_cast<double>(bar_width));
    fmt::print(stderr, "\r\x1b[K{} [{:<{}}]", text, std::string(filled, '='), bar_width);
    std::fflush(stderr);
    open_line_ = true;
}

void Progress::end()
{
    if (open_line_)
        fmt::print(stderr, "\n");
    open_line_ = false;
}

} // namespace zncctl
