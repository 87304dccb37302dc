#include "cli/commands/commands.hpp"
#include "cli/containers/signal_number.hpp"
#include "front/output.hpp"
#include "front/parse.hpp"
#include "front/usage.hpp"
#include "front/words.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <set>
#include <string>
#include <vector>

#include "zncontainer.h"

using namespace zncctl;

namespace {

// Builds argv from literals; nothing modifies them.
class Words {
  public:
    Words(std::initializer_list<const char*> words)
    {
        for (const char* word : words)
            pointers_.push_back(const_cast<char*>(word));
    }
    operator std::span<char* const>() const { return pointers_; }

  private:
    std::vector<char*> pointers_;
};

const Command& row(std::initializer_list<const char*> name)
{
    const Words words(name);
    const Found found = find_command(words);
    EXPECT_NE(found.command, nullptr);
    return *found.command;
}

// Returns what a function writes to standard output and standard error.
struct Streams {
    std::string out;
    std::string err;
};

template <class Call> Streams streams_of(Call call)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    call();
    std::fflush(stdout);
    Streams streams;
    streams.err = testing::internal::GetCapturedStderr();
    streams.out = testing::internal::GetCapturedStdout();
    return streams;
}

} // namespace

TEST(CommandTable, NamesAreUniqueAndFoundByTheirOwnWords)
{
    std::set<std::string_view> names;
    for (const Command& command : commands()) {
        EXPECT_TRUE(names.insert(command.name).second) << command.name;
        std::vector<std::string> texts;
        std::string name = command.name;
        for (std::size_t end = name.find(' '); end != name.npos; end = name.find(' ')) {
            texts.push_back(name.substr(0, end));
            name.erase(0, end + 1);
        }
        texts.push_back(name);
        std::vector<char*> words;
        for (std::string& text : texts)
            words.push_back(text.data());
        const Found found = find_command(words);
        EXPECT_EQ(found.command, &command);
        EXPECT_EQ(found.words, words.size());
    }
}

TEST(CommandTable, OptionsOfACommandDoNotCollideAndLeaveHelpAlone)
{
    for (const Command& command : commands()) {
        std::set<std::string_view> names = {"help"};
        std::set<char> letters;
        EXPECT_FALSE(std::string_view(command.help).empty()) << command.name;
        for (const Option& option : command.options) {
            EXPECT_TRUE(names.insert(option.name).second) << command.name << " --" << option.name;
            if (option.letter == 'h') { // elsewhere it is the help
                EXPECT_STREQ(option.name, "hostname") << command.name;
            }
            if (option.letter != 0) {
                EXPECT_TRUE(letters.insert(option.letter).second)
                    << command.name << " -" << option.letter;
            }
        }
    }
}

TEST(CommandTable, OperandsInTheUsageLineMatchTheLimits)
{
    for (const Command& command : commands()) {
        std::size_t required = 0;
        std::size_t all = 0;
        std::string_view rest = command.arguments;
        while (!rest.empty()) {
            const std::size_t end = std::min(rest.find(' '), rest.size());
            all = rest.substr(0, end).find("...") != rest.npos ? kMany : all + 1;
            required += rest[0] != '[' ? 1 : 0;
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        EXPECT_EQ(command.min_operands, required) << command.name;
        EXPECT_EQ(command.max_operands, all) << command.name;
    }
}

TEST(FindCommand, UnknownWordsFindNothing)
{
    EXPECT_EQ(find_command(Words{"creat"}).command, nullptr);
    EXPECT_EQ(find_command(Words{"create2"}).command, nullptr);
    EXPECT_EQ(find_command(Words{""}).command, nullptr);
    EXPECT_EQ(find_command(Words{}).command, nullptr);
}

TEST(FindCommand, ATwoWordNameNeedsBothWords)
{
    EXPECT_EQ(find_command(Words{"image"}).command, nullptr);
    EXPECT_EQ(find_command(Words{"image", "no"}).command, nullptr);
    EXPECT_EQ(find_command(Words{"image inspect"}).command, nullptr);
    EXPECT_EQ(find_command(Words{"image", "inspect", "dir"}).words, 2U);
}

TEST(FindCommand, AnAliasIsTheCommand)
{
    EXPECT_EQ(find_command(Words{"unpause"}).command, &row({"resume"}));
    EXPECT_NE(find_command(Words{"ps"}).command, &row({"list"}));
    EXPECT_EQ(find_command(Words{"ls"}).command, &row({"list"}));
    EXPECT_EQ(find_command(Words{"rm"}).command, &row({"delete"}));
}

TEST(FindCommand, ImageCommandsHaveTheNamesThatEnginesGiveThem)
{
    EXPECT_EQ(find_command(Words{"image", "rm", "x"}).command, &row({"rmi"}));
    EXPECT_EQ(find_command(Words{"image", "rm", "x"}).words, 2U);
    EXPECT_EQ(find_command(Words{"image", "list"}).command, &row({"image", "ls"}));
    for (const char* name : {"tag", "load", "pull", "import"})
        EXPECT_EQ(find_command(Words{"image", name}).command, &row({name})) << name;
}

TEST(Parse, OptionsMayStandBeforeAndBehindOperands)
{
    for (const Words& words : {Words{"-a", "-s", "KILL", "web"}, Words{"web", "-a", "-s", "KILL"},
                               Words{"-a", "web", "-s", "KILL"}}) {
        const Parsed parsed = parse(row({"kill"}), words);
        EXPECT_EQ(parsed.problem, "");
        EXPECT_STREQ(parsed.args.operand(0), "web");
        EXPECT_TRUE(parsed.args.has("all"));
        EXPECT_STREQ(parsed.args.value("signal"), "KILL");
    }
}

TEST(Parse, ValuesMayBeJoinedOrTheNextWord)
{
    for (const Words& words :
         {Words{"w", "-sKILL"}, Words{"w", "-s", "KILL"}, Words{"w", "--signal=KILL"},
          Words{"w", "--signal", "KILL"}, Words{"w", "-asKILL"}}) {
        const Parsed parsed = parse(row({"kill"}), words);
        EXPECT_EQ(parsed.problem, "");
        EXPECT_STREQ(parsed.args.value("signal"), "KILL");
    }
    const Parsed empty = parse(row({"kill"}), Words{"w", "--signal="});
    EXPECT_STREQ(empty.args.value("signal"), "");
}

TEST(Parse, TheLastOfAnOptionGivenTwiceCounts)
{
    const Parsed parsed = parse(row({"kill"}), Words{"w", "-s", "HUP", "-s", "INT"});
    EXPECT_STREQ(parsed.args.value("signal"), "INT");
}

TEST(Parse, AbsentOptionsAndOperandsGiveTheDefault)
{
    const Parsed parsed = parse(row({"create"}), Words{"web"});
    EXPECT_FALSE(parsed.args.has("bundle"));
    EXPECT_STREQ(parsed.args.value("bundle", "."), ".");
    EXPECT_EQ(parsed.args.operand(1), nullptr);
    EXPECT_STREQ(parsed.args.operand(1, "x"), "x");
}

TEST(Parse, TwoDashesEndTheOptions)
{
    const Parsed parsed = parse(row({"delete"}), Words{"-f", "--", "-f"});
    EXPECT_EQ(parsed.problem, "");
    EXPECT_TRUE(parsed.args.has("force"));
    EXPECT_STREQ(parsed.args.operand(0), "-f");
}

TEST(Parse, DashAndEmptyStringAreOperands)
{
    EXPECT_STREQ(parse(row({"state"}), Words{"-"}).args.operand(0), "-");
    EXPECT_STREQ(parse(row({"state"}), Words{""}).args.operand(0), "");
}

TEST(Parse, BadArgumentsAreNamed)
{
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "-x"}).problem, "unknown option '-x'");
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "--alle"}).problem, "unknown option '--alle'");
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "--al"}).problem, "unknown option '--al'");
    EXPECT_EQ(parse(row({"state"}), Words{"w", "-9"}).problem, "unknown option '-9'");
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "--all=1"}).problem, "option '--all' takes no value");
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "-s"}).problem, "option '--signal' needs a value");
    EXPECT_EQ(parse(row({"kill"}), Words{}).problem, "too few arguments");
    EXPECT_EQ(parse(row({"state"}), Words{"a", "b"}).problem, "too many arguments");
    EXPECT_EQ(parse(row({"list"}), Words{"a"}).problem, "too many arguments");
}

TEST(Parse, AnUnknownOptionIsNamedWithASimilarOne)
{
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "--singal=9"}).problem, "unknown option '--singal'");
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "--singal=9"}).hint, "did you mean '--signal'?");
    EXPECT_EQ(parse(row({"list"}), Words{"--no-truncate"}).hint, "did you mean '--no-trunc'?");
    EXPECT_EQ(parse(row({"run"}), Words{"--hlep"}).hint, "did you mean '--help'?");
    EXPECT_EQ(parse(row({"kill"}), Words{"w", "--something-else"}).hint, "");
}

TEST(Parse, ASignalCanBeGivenLikeAnOption)
{
    for (const Words& words : {Words{"-9", "w"}, Words{"w", "-9"}, Words{"-a", "-9", "w"}}) {
        const Parsed parsed = parse(row({"kill"}), words);
        EXPECT_EQ(parsed.problem, "");
        EXPECT_STREQ(parsed.args.value("signal", ""), "9");
        EXPECT_EQ(parsed.args.all_operands(), std::vector<std::string>{"w"});
    }
    EXPECT_STREQ(parse(row({"kill"}), Words{"-KILL", "w"}).args.value("signal", ""), "KILL");
    EXPECT_STREQ(parse(row({"kill"}), Words{"-s", "-9", "w"}).args.value("signal", ""), "-9");
    EXPECT_STREQ(parse(row({"kill"}), Words{"--", "-9"}).args.operand(0), "-9");
    EXPECT_EQ(parse(row({"kill"}), Words{"-aq", "w"}).args.has("signal"), false);
}

TEST(Parse, WordsBehindAnImageBelongToItsProgram)
{
    using Texts = std::vector<std::string>;
    const Parsed run = parse(row({"run"}), Words{"-it", "-hbox", "image", "-h", "--rm", "--", "x"});
    EXPECT_EQ(run.problem, "");
    EXPECT_EQ(run.args.all_operands(), (Texts{"image", "-h", "--rm", "--", "x"}));
    EXPECT_STREQ(run.args.value("hostname", ""), "box");
    EXPECT_FALSE(run.args.has("rm"));
    EXPECT_FALSE(run.help);
    EXPECT_TRUE(parse(row({"run"}), Words{"--help"}).help);
    // The id of a container that is made from a bundle may be followed by options.
    const Parsed bundle = parse(row({"create"}), Words{"id", "-b", "bundle"});
    EXPECT_STREQ(bundle.args.value("bundle", ""), "bundle");
    const Parsed image = parse(row({"create"}), Words{"--name", "id", "image", "-b", "bundle"});
    EXPECT_EQ(image.args.all_operands(), (Texts{"image", "-b", "bundle"}));
}

TEST(Words, AreSimilarByTheirEditDistance)
{
    EXPECT_EQ(split("a::b", ':'), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(split("", ':'), (std::vector<std::string>{""}));
    EXPECT_EQ(edit_distance("", "abc"), 3U);
    EXPECT_EQ(edit_distance("same", "same"), 0U);
    EXPECT_EQ(edit_distance("lsit", "list"), 1U);
    EXPECT_EQ(edit_distance("kitten", "sitting"), 3U);
    EXPECT_EQ(closest_word("delte", {"start", "delete"}), "delete");
    EXPECT_EQ(closest_word("frobnicate", {"start", "delete"}), "");
    EXPECT_EQ(closest_word(std::string(1000, 'x'), {std::string(1000, 'x')}), "");
}

TEST(Parse, OperandsAreTakenAsTheyAre)
{
    for (const char* word : {"[a,b]", "a,b", "{}", "a b", "\"", "--x=y z", "-1"}) {
        const Parsed parsed = parse(row({"state"}), Words{"--", word});
        EXPECT_EQ(parsed.problem, "") << word;
        EXPECT_STREQ(parsed.args.operand(0), word);
    }
    const Parsed value = parse(row({"create"}), Words{"id", "-b", "[a,b]"});
    EXPECT_STREQ(value.args.value("bundle"), "[a,b]");
}

TEST(Parse, TakesAsManyOperandsAsTheTableAllows)
{
    const std::vector<std::string> ids(300, "id");
    std::vector<char*> words;
    for (const std::string& id : ids)
        words.push_back(const_cast<char*>(id.c_str()));
    EXPECT_EQ(parse(row({"delete"}), words).args.operands(), ids.size());
}

TEST(Parse, HelpWinsOverMissingArguments)
{
    for (const Words& words : {Words{"--help"}, Words{"-h"}, Words{"-ah"}}) {
        const Parsed parsed = parse(row({"kill"}), words);
        EXPECT_TRUE(parsed.help);
        EXPECT_EQ(parsed.problem, "");
    }
}

TEST(Usage, ComesFromTheTable)
{
    EXPECT_EQ(usage_line(row({"kill"})), "usage: zncctl kill [OPTION...] ID...\n");
    EXPECT_EQ(usage_line(row({"ping"})), "usage: zncctl ping\n");
    EXPECT_EQ(usage_line(row({"image", "inspect"})), "usage: zncctl image inspect IMAGE\n");
}

TEST(Help, NamesEveryCommandAndEveryOption)
{
    const std::string all = help_text();
    for (const Command& command : commands()) {
        EXPECT_NE(all.find(std::string("\n  ") + command.name + " "), all.npos) << command.name;
        const std::string one = help_text(command);
        for (const Option& option : command.options) {
            EXPECT_NE(one.find(std::string("--") + option.name), one.npos) << option.name;
            EXPECT_NE(one.find(option.help), one.npos) << option.name;
        }
    }
}

TEST(SignalNumber, TakesNamesWithAndWithoutPrefixAndNumbers)
{
    EXPECT_EQ(signal_number("KILL"), 9);
    EXPECT_EQ(signal_number("SIGKILL"), 9);
    EXPECT_EQ(signal_number("kill"), 9);
    EXPECT_EQ(signal_number("sigTerm"), 15);
    EXPECT_EQ(signal_number("9"), 9);
    EXPECT_EQ(signal_number("0"), 0);
}

TEST(SignalNumber, GivesTheSystemsOwnNumbersNotTheHosts)
{
    EXPECT_EQ(signal_number("USR1"), 30);
    EXPECT_EQ(signal_number("SIGUSR2"), 31);
    EXPECT_EQ(signal_number("CHLD"), 20);
    EXPECT_EQ(signal_number("RTMAX"), 63);
}

TEST(SignalNumber, RefusesWhatIsNoSignal)
{
    for (const char* text :
         {"", "SIG", "SIGSIGKILL", "KILLER", "9x", "-9", "+9", " 9", "99999999999999", "NOSUCH"})
        EXPECT_EQ(signal_number(text), -1) << text;
}

TEST(Output, ErrorsArePrintedOnStandardErrorWithTheLibrarysText)
{
    const Streams streams = streams_of([] { daemon_failure(S_zncLib_DAEMON_NOT_RUNNING, "web"); });
    EXPECT_EQ(streams.out, "");
    EXPECT_EQ(streams.err, "zncctl: error: web: The daemon is not running\n"
                           "zncctl: hint: start it as root, with 'zncd &' or 'systemctl start "
                           "zncd'\n");
}

TEST(Output, AFailureWithoutANumberHasATextToo)
{
    const Streams streams = streams_of([] { EXPECT_EQ(daemon_failure(0, ""), kExitNoDaemon); });
    EXPECT_EQ(streams.out, "");
    EXPECT_EQ(streams.err, "zncctl: error: No answer from the daemon\n");
    const Streams local = streams_of([] { EXPECT_EQ(local_failure(0, ""), kExitFailure); });
    EXPECT_EQ(local.err, "zncctl: error: The operation failed\n");
}

TEST(Output, ExitStatusesDependOnTheKindOfFailure)
{
    streams_of([] {
        EXPECT_EQ(daemon_failure(ENODEV, ""), 2);
        EXPECT_EQ(daemon_failure(EBUSY, ""), 3);
        EXPECT_EQ(daemon_failure(S_zncLib_CONTAINER_EXISTS, ""), 3);
        EXPECT_EQ(daemon_failure(S_zncLib_BUNDLE_IN_USE, ""), 3);
        EXPECT_EQ(daemon_failure(S_zncLib_DAEMON_NOT_RUNNING, ""), 4);
        EXPECT_EQ(daemon_failure(EINVAL, ""), 1);
        EXPECT_EQ(local_failure(ENODEV, ""), 1);
    });
}

TEST(Output, WhatTheLibraryPrintsDuringACallGoesToStandardError)
{
    const Streams streams = streams_of([] {
        std::printf("before ");
        const int answer = call_library([] {
            std::printf("progress.\n");
            return 7;
        });
        std::printf("after %d", answer);
    });
    EXPECT_EQ(streams.out, "before after 7");
    EXPECT_EQ(streams.err, "progress.\n");
}

TEST(Output, TheErrorNumberOfACallSurvivesAndStartsAtZero)
{
    errno = EIO;
    EXPECT_EQ(call_library([] { return errno; }), 0);
    call_library([] {
        errno = ENODEV;
        return 0;
    });
    EXPECT_EQ(errno, ENODEV);
}

TEST(Output, AnErrorIsOneLineWhateverTheNameHolds)
{
    const Streams streams = streams_of([] { print_error("a\nb\x1b[2J", "message"); });
    EXPECT_EQ(streams.err, "zncctl: error: a?b?[2J: message\n");
}

TEST(Output, ErrorTextIsTheLibrarysWithoutPrefixAndPeriod)
{
    EXPECT_EQ(message_of(ENODEV, ""), "Container does not exist");
    EXPECT_EQ(message_of(ENOTDIR, ""), "Not a directory");
    EXPECT_EQ(message_of(0, "text"), "text");
}

TEST(Output, ATableIsAsWideAsItsWidestTexts)
{
    EXPECT_EQ(table({{"A", "BB"}, {"long", "x\ty"}}), "A     BB\nlong  x?y\n");
}

TEST(Output, AResultEndsWithExactlyOneLineEnd)
{
    EXPECT_EQ(streams_of([] { EXPECT_EQ(print_result("[]"), kExitOk); }).out, "[]\n");
    EXPECT_EQ(streams_of([] { EXPECT_EQ(print_result("a\nb\n"), kExitOk); }).out, "a\nb\n");
}

TEST(Output, AResultThatCannotBeWrittenIsAFailure)
{
    std::fflush(stdout);
    const znc::UniqueFd saved(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    const znc::UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(saved && full);
    ::dup2(full.get(), STDOUT_FILENO);
    testing::internal::CaptureStderr();
    const int status = print_result("text");
    const std::string error = testing::internal::GetCapturedStderr();
    ::dup2(saved.get(), STDOUT_FILENO);
    EXPECT_EQ(status, kExitFailure);
    EXPECT_EQ(error, "zncctl: error: standard output: No space left on device\n");
}

TEST(Parse, AnOptionKeepsAllItsValuesAndUsesTheLast)
{
    const Parsed parsed =
        parse(row({"exec"}), Words{"-e", "A=1", "--env", "B", "--env=C=[d,e]", "-eD=", "id", "sh"});
    ASSERT_EQ(parsed.problem, "");
    EXPECT_EQ(parsed.args.values("env"), (std::vector<std::string>{"A=1", "B", "C=[d,e]", "D="}));
    EXPECT_STREQ(parsed.args.value("env"), "D=");
    EXPECT_TRUE(parsed.args.values("user").empty());
}

TEST(Parse, WordsBehindTheFirstOperandBelongToTheProgram)
{
    using Texts = std::vector<std::string>;
    const Command& exec = row({"exec"});
    const Texts all = {"id", "sh", "-i", "--odd", "-e", "--"};
    for (const Words& words : {Words{"-t", "id", "sh", "-i", "--odd", "-e", "--"},
                               Words{"-t", "id", "--", "sh", "-i", "--odd", "-e", "--"},
                               Words{"-t", "--", "id", "sh", "-i", "--odd", "-e", "--"}}) {
        const Parsed parsed = parse(exec, words);
        EXPECT_EQ(parsed.problem, "");
        EXPECT_EQ(parsed.args.all_operands(), all);
        EXPECT_TRUE(parsed.args.has("tty"));
        EXPECT_FALSE(parsed.args.has("interactive"));
    }
}

TEST(Parse, ValuesOfOptionsAreNotTheFirstOperand)
{
    using Texts = std::vector<std::string>;
    for (const Words& words : {Words{"-u", "web", "id", "-x"}, Words{"-uweb", "id", "-x"},
                               Words{"--user", "web", "id", "-x"}, Words{"--user=web", "id", "-x"},
                               Words{"-itu", "web", "id", "-x"}}) {
        const Parsed parsed = parse(row({"exec"}), words);
        EXPECT_EQ(parsed.problem, "");
        EXPECT_STREQ(parsed.args.value("user", ""), "web");
        EXPECT_EQ(parsed.args.all_operands(), (Texts{"id", "-x"}));
    }
    EXPECT_EQ(parse(row({"exec"}), Words{"-u"}).problem, "option '--user' needs a value");
    EXPECT_EQ(parse(row({"exec"}), Words{"--odd", "id", "sh"}).problem, "unknown option '--odd'");
    EXPECT_EQ(parse(row({"exec"}), Words{"-t", "id"}).problem, "too few arguments");
}
