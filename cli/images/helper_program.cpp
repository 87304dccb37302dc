#include "helper_program.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "front/output.hpp"

#include "zarnel/process_list.h"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ; // NOLINT(readability-redundant-declaration): not in every <unistd.h>

namespace zncctl {
namespace {

namespace fs = std::filesystem;

constexpr const char* kImport = "zncctl-import";

// The standard streams of the program.
class Streams : znc::NotCopied {
  public:
    Streams(int input, Output output)
    {
        ::posix_spawn_file_actions_init(&actions_);
        if (input >= 0)
            ::posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO);
        else
            ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (output == Output::kDiscarded)
            ::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        else if (output == Output::kKept)
            keep_output(STDOUT_FILENO);
        else
            ::posix_spawn_file_actions_adddup2(&actions_, STDERR_FILENO, STDOUT_FILENO);
        if (output == Output::kErrorsKept)
            keep_output(STDERR_FILENO);
    }
    ~Streams() { ::posix_spawn_file_actions_destroy(&actions_); }

    [[nodiscard]] const posix_spawn_file_actions_t* actions() const { return &actions_; }

    // Reads what the program prints, up to the limit. If there is more, sets `too_much`; the
    // program then ends with SIGPIPE when it continues to write.
    std::string read(bool& too_much)
    {
        constexpr std::size_t kMost = std::size_t{16} << 20U;
        writer_.reset();
        std::string text;
        std::array<char, 65536> part{};
        while (reader_ && !too_much) {
            const ssize_t got = ::read(reader_.get(), part.data(), part.size());
            if (got > 0)
                text.append(part.data(), static_cast<std::size_t>(got));
            else if (got == 0 || errno != EINTR)
                break;
            too_much = text.size() > kMost;
        }
        reader_.reset();
        return text;
    }

  private:
    void keep_output(int stream)
    {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category());
        reader_.reset(ends[0]);
        writer_.reset(ends[1]);
        ::posix_spawn_file_actions_adddup2(&actions_, writer_.get(), stream);
    }

    posix_spawn_file_actions_t actions_ = {};
    znc::UniqueFd reader_;
    znc::UniqueFd writer_;
};

} // namespace

std::string import_program()
{
    std::array<char, 4096> path{};
    if (znProgramPath(path.data(), path.size()) != OK)
        throw std::system_error(errno, std::generic_category());
    const fs::path here = fs::path(path.data()).parent_path();
    const fs::path built = here / kImport;
    return fs::exists(built) ? built : here.parent_path() / ZNC_LIBEXEC / kImport;
}

std::vector<char*> argument_vector(std::vector<std::string>& words)
{
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

ProgramEnd run_program(const std::string& program, const std::vector<std::string>& arguments,
                       int input, Output output)
{
    std::vector<std::string> words = {fs::path(program).filename()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<char*> argv = argument_vector(words);
    Streams streams(input, output);
    ProgramEnd end;
    pid_t pid = -1;
    end.error =
        ::posix_spawnp(&pid, program.c_str(), streams.actions(), nullptr, argv.data(), environ);
    if (end.error != 0)
        return end;
    end.output = streams.read(end.too_much);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    end.status = WIFEXITED(status) ? WEXITSTATUS(status) : kExitSignalBase + WTERMSIG(status);
    return end;
}

} // namespace zncctl
