#include "import.hpp"

#include "confine.hpp"
#include "convert.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/layout.hpp"
#include "import/output/layout_writer.hpp"
#include "import/source/documents.hpp"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace zncimport {
namespace {

struct Pipe {
    znc::UniqueFd read;
    znc::UniqueFd write;

    static Pipe make()
    {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            throw Failure("", zncctl::error_text());
        return {znc::UniqueFd(ends[0]), znc::UniqueFd(ends[1])};
    }
};

// The descriptors that the worker process reads from and writes to.
struct Work {
    const Options& options;
    OpenedSource source;
    Spool spool;
    std::vector<NewBlob> blobs;

    [[nodiscard]] std::vector<int> files() const
    {
        std::vector<int> files;
        for (const NewBlob& blob : blobs)
            files.push_back(blob.fd());
        return files;
    }
};

std::string worked(Work& work, int answer)
{
    try {
        const std::vector<int> files = work.files();
        std::vector<int> kept = files;
        kept.insert(kept.end(), {answer, work.source.fd.get(), work.spool.fd()});
        confine(kept, work.source.directory ? work.source.fd.get() : -1);
        if (work.options.list)
            return write_list(list_source(work.options, work.source, work.spool));
        return write_outcome(convert(work.options, work.source, work.spool, files));
    } catch (const Failure& failure) {
        return write_failure(failure);
    } catch (const std::exception& e) {
        return write_failure({"", e.what()});
    }
}

std::string read_answer(int fd)
{
    // limit for the worker's answer, which may contain a long report
    constexpr std::size_t kMost = std::size_t{2} << 30U;
    std::string answer;
    std::array<char, 65536> part{};
    while (answer.size() < kMost) {
        const ssize_t got = ::read(fd, part.data(), part.size());
        if (got > 0)
            answer.append(part.data(), static_cast<std::size_t>(got));
        else if (got == 0 || errno != EINTR)
            break;
    }
    return answer;
}

// Runs the conversion in a worker process, waits for it and returns its answer.
std::string work_apart(Work& work)
{
    Pipe answer = Pipe::make();
    std::fflush(nullptr);
    const pid_t worker = ::fork();
    if (worker < 0)
        throw Failure("", zncctl::error_text());
    if (worker == 0) {
        const std::string text = worked(work, answer.write.get());
        ::_exit(zncctl::write_all(answer.write.get(), text) ? 0 : 1);
    }
    answer.write.reset();
    std::string text = read_answer(answer.read.get());
    answer.read.reset(); // a worker that writes more gets an error instead of blocking
    int status = 0;
    while (::waitpid(worker, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status))
        throw Failure("", fmt::format("the process reading the image was killed by signal {}",
                                      WTERMSIG(status)));
    return text;
}

void put(const LayoutWriter& layout, const Options& options, const Work& work,
         const Outcome& outcome, const std::string& tag)
{
    layout.check_tag(tag, outcome.os, outcome.arch, options.replace);
    if (outcome.layers.size() > work.blobs.size())
        throw Failure("", "the process reading the image returned an invalid result");
    for (std::size_t i = 0; i < outcome.layers.size(); i++)
        layout.keep(work.blobs[i], outcome.layers[i].digest);
    static_cast<void>(layout.add_blob(outcome.config));
    layout.add_to_index({layout.add_blob(outcome.manifest), outcome.manifest.size(), tag,
                         outcome.os, outcome.arch, outcome.variant});
}

// If the library refuses one image, it refuses every image of the layout: warn about such images.
void warn_about_other_images(const std::string& layout)
{
    std::string problem;
    const auto images = zncctl::read_layout(layout, problem);
    if (images && std::all_of(images->begin(), images->end(), zncctl::has_unpackable_types))
        return;
    zncctl::print_hint(fmt::format(
        "the layout also contains an image that cannot be unpacked, and therefore none of its "
        "images can; run 'zncctl image check {}' to find it, or import into another layout",
        layout));
}

// The summary of losses is printed even if the losses make the import fail.
void tell(const Options& options, const Outcome& outcome)
{
    if (!outcome.summary.empty())
        std::fputs(fmt::format("zncctl: {}\n", zncctl::printable(outcome.summary)).c_str(), stderr);
    if (!options.report.empty() &&
        !zncctl::replace_file(AT_FDCWD, options.report.c_str(), outcome.report))
        throw Failure(options.report, zncctl::error_text());
}

} // namespace

int import_image(const Options& options)
{
    Work work = {options, open_source(options.source, options.source_name), Spool(), {}};
    if (options.list)
        return zncctl::print_json(zncctl::compact(read_list(work_apart(work))));
    std::optional<LayoutWriter> layout;
    if (!options.dry_run) {
        layout.emplace(options.layout);
        while (work.blobs.size() < (options.split ? kSplitMax + 1 : 1))
            work.blobs.push_back(layout->begin_blob());
    }
    const Outcome outcome = read_outcome(work_apart(work));
    tell(options, outcome);
    if (options.strict && outcome.losses != 0)
        throw Failure("", "the import would lose data, which --strict forbids");
    if (layout) {
        const std::string own = outcome.tag.empty() ? zncctl::kDefaultTag : outcome.tag;
        put(*layout, options, work, outcome, options.tag.empty() ? own : options.tag);
        warn_about_other_images(options.layout);
    }
    return options.quiet ? zncctl::kExitOk : zncctl::print_result(digest_of(outcome.manifest));
}

} // namespace zncimport
