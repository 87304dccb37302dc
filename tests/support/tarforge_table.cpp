#include "tarforge_table.hpp"

#include "tarforge.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>

namespace tarforge {

namespace {

[[noreturn]] void mistake(const std::string& what)
{
    throw std::runtime_error(what);
}

std::uint64_t number(const std::string& text)
{
    std::size_t end = 0;
    const std::uint64_t value = std::stoull(text, &end, 0);
    if (end != text.size())
        mistake("no number: " + text);
    return value;
}

std::int64_t signed_number(const std::string& text)
{
    std::size_t end = 0;
    const std::int64_t value = std::stoll(text, &end, 0);
    if (end != text.size())
        mistake("no number: " + text);
    return value;
}

// ------------------------------------------------------------------ words

// Splits a line into words.
class Scanner {
  public:
    explicit Scanner(const std::string& line) : line_(line) {}

    bool next(Word& word)
    {
        while (at_ < line_.size() && std::isspace(static_cast<unsigned char>(line_[at_])))
            ++at_;
        if (at_ == line_.size() || line_[at_] == '#')
            return false;
        word = Word();
        while (at_ < line_.size() && !std::isspace(static_cast<unsigned char>(line_[at_])))
            piece(word);
        return true;
    }

  private:
    void piece(Word& word)
    {
        std::string& out = word.join == Word::Join::kNone ? word.text : word.value;
        if (line_[at_] == '"')
            out += quoted();
        else if (word.join == Word::Join::kNone && line_[at_] == '=')
            join(word, Word::Join::kEquals, 1);
        else if (word.join == Word::Join::kNone && line_.compare(at_, 2, "->") == 0)
            join(word, Word::Join::kArrow, 2);
        else
            out += line_[at_++];
    }

    void join(Word& word, Word::Join how, std::size_t length)
    {
        word.join = how;
        at_ += length;
    }

    std::string quoted()
    {
        std::string text;
        for (++at_; at_ < line_.size() && line_[at_] != '"'; ++at_)
            text += line_[at_] == '\\' ? escape() : line_[at_];
        if (at_++ >= line_.size())
            mistake("no closing quote");
        if (at_ == line_.size() || line_[at_] != '*')
            return text;
        std::size_t count = 0;
        for (++at_; at_ < line_.size() && std::isdigit(static_cast<unsigned char>(line_[at_]));
             ++at_)
            count = count * 10 + static_cast<std::size_t>(line_[at_] - '0');
        std::string all;
        for (; count > 0; --count)
            all += text;
        return all;
    }

    char escape()
    {
        static const std::map<char, char> kSimple = {{'n', '\n'}, {'t', '\t'}, {'\\', '\\'},
                                                     {'"', '"'},  {'0', '\0'}, {'r', '\r'}};
        const char c = at_ + 1 < line_.size() ? line_[++at_] : '\0';
        if (const auto found = kSimple.find(c); found != kSimple.end())
            return found->second;
        if (c != 'x' || at_ + 2 >= line_.size())
            mistake("unknown escape");
        at_ += 2;
        return static_cast<char>(std::stoi(line_.substr(at_ - 1, 2), nullptr, 16));
    }

    const std::string& line_;
    std::size_t at_ = 0;
};

// ------------------------------------------------------------------ members

const std::map<std::string, Field>& fields()
{
    static const std::map<std::string, Field> kFields = {
        {"name", Field::kName},     {"mode", Field::kMode},       {"uid", Field::kUid},
        {"gid", Field::kGid},       {"size", Field::kSize},       {"mtime", Field::kMtime},
        {"chksum", Field::kChksum}, {"type", Field::kType},       {"target", Field::kLinkname},
        {"magic", Field::kMagic},   {"version", Field::kVersion}, {"uname", Field::kUname},
        {"gname", Field::kGname},   {"major", Field::kMajor},     {"minor", Field::kMinor},
        {"prefix", Field::kPrefix}, {"padding", Field::kPadding}};
    return kFields;
}

bool is_number(Field field)
{
    static const std::vector<Field> kNumbers = {Field::kMode, Field::kUid,   Field::kGid,
                                                Field::kSize, Field::kMtime, Field::kMajor,
                                                Field::kMinor};
    return std::find(kNumbers.begin(), kNumbers.end(), field) != kNumbers.end();
}

void set_checksum(Header& header, const std::string& form, const std::string& value)
{
    if (form == "off")
        header.checksum_off_by(static_cast<int>(signed_number(value)));
    else if (form == "signed")
        header.checksum_signed();
    else if (form == "raw")
        header.checksum(value);
    else
        mistake("unknown form of the checksum: " + form);
}

void set_field(Header& header, const std::string& key, const std::string& value)
{
    const std::size_t colon = key.find(':');
    const std::string form = colon == std::string::npos ? "" : key.substr(colon + 1);
    const auto found = fields().find(key.substr(0, colon));
    if (found == fields().end())
        mistake("unknown key: " + key);
    const Field field = found->second;
    if (field == Field::kChksum)
        set_checksum(header, form, value);
    else if (form == "raw" || (form.empty() && !is_number(field)))
        header.raw(field, value);
    else if (form.empty())
        header.octal(field, number(value));
    else if (form == "full")
        header.octal_unterminated(field, number(value));
    else if (form == "base256")
        header.base256(field, signed_number(value));
    else
        mistake("unknown form of a number: " + form);
}

void add_member(Archive& archive, const std::string& keyword, const std::vector<Word>& words)
{
    static const std::map<std::string, char> kTypes = {
        {"file", '0'}, {"dir", '5'}, {"symlink", '2'}, {"hardlink", '1'}, {"header", '0'}};
    Header header;
    std::string data;
    std::size_t at = 0;
    header.type(kTypes.at(keyword));
    if (keyword == "dir")
        header.mode(0755);
    if (keyword != "header") {
        header.name(words.at(at).text);
        if (words[at].join == Word::Join::kArrow)
            header.target(words[at].value);
        ++at;
    }
    for (; at < words.size(); ++at) {
        if (words[at].text == "data")
            header.size((data = words[at].value).size());
        else
            set_field(header, words[at].text, words[at].value);
    }
    archive.member(header, data);
}

Gzip gzip_options(const std::vector<Word>& words)
{
    Gzip options;
    using Set = std::function<void(const std::string&)>;
    const auto number32 = [](const std::string& v) {
        return static_cast<std::uint32_t>(number(v));
    };
    const std::map<std::string, Set> keys = {
        {"level", [&](auto& v) { options.level = static_cast<int>(number(v)); }},
        {"strategy", [&](auto& v) { options.strategy = static_cast<int>(number(v)); }},
        {"method", [&](auto& v) { options.method = static_cast<std::uint8_t>(number(v)); }},
        {"flags", [&](auto& v) { options.flags = static_cast<std::uint8_t>(number(v)); }},
        {"extra", [&](auto& v) { options.extra = v; }},
        {"name", [&](auto& v) { options.name = v; }},
        {"comment", [&](auto& v) { options.comment = v; }},
        {"hcrc", [&](auto& v) { options.headerCrc = number(v) != 0; }},
        {"crc", [&](auto& v) { options.crc = number32(v); }},
        {"size", [&](auto& v) { options.size = number32(v); }},
        {"behind", [&](auto& v) { options.behind = v; }},
        {"body", [&](auto& v) { options.body = v; }}};
    for (const Word& word : words) {
        const auto found = keys.find(word.text);
        if (found == keys.end())
            mistake("unknown key of gzip: " + word.text);
        found->second(word.value);
    }
    return options;
}

// ------------------------------------------------------------------ cases

// Builds the archives of one case, statement by statement.
class Forge {
  public:
    // Returns false if this is not a statement about an archive.
    bool take(const std::string& keyword, const std::vector<Word>& words)
    {
        static const std::vector<std::string> kMembers = {"file", "dir", "symlink", "hardlink",
                                                          "header"};
        if (std::find(kMembers.begin(), kMembers.end(), keyword) != kMembers.end())
            add_member(plain_, keyword, words);
        else if (keyword == "raw")
            plain_.raw(words.at(0).text);
        else if (keyword == "end")
            plain_.end(words.empty() ? 2 : static_cast<unsigned>(number(words[0].text)));
        else if (keyword == "gzip")
            pack(words);
        else if (keyword == "cut")
            cut(number(words.at(0).text));
        else if (keyword == "layer")
            finish_layer();
        else
            return false;
        return true;
    }

    std::vector<std::string> finish()
    {
        finish_layer();
        return std::move(layers_);
    }

  private:
    void pack(const std::vector<Word>& words)
    {
        packed_ += gzip(plain_.bytes(), gzip_options(words));
        plain_ = Archive();
    }
    void cut(std::uint64_t count)
    {
        packed_ += plain_.bytes();
        plain_ = Archive();
        packed_.resize(packed_.size() - std::min<std::size_t>(count, packed_.size()));
    }
    void finish_layer()
    {
        layers_.push_back(packed_ + plain_.bytes());
        packed_.clear();
        plain_ = Archive();
    }

    std::vector<std::string> layers_;
    std::string packed_;
    Archive plain_;
};

// Processes one line, which belongs to the last element of `cases`.
void take_line(const std::string& line, const std::string& where, std::vector<Case>& cases,
               Forge& forge)
{
    Scanner scanner(line);
    Word word;
    if (!scanner.next(word))
        return;
    const std::string keyword = word.text;
    std::vector<Word> words;
    while (scanner.next(word))
        words.push_back(word);
    if (keyword == "case") {
        if (!cases.empty())
            cases.back().layers = forge.finish();
        forge = Forge();
        cases.push_back({words.at(0).text, where, {}, {}});
    } else if (cases.empty()) {
        mistake("no case yet");
    } else if (!forge.take(keyword, words)) {
        cases.back().notes.push_back({keyword, words});
    }
}

} // namespace

std::vector<Case> parse_cases(const std::string& text, const std::string& file)
{
    std::vector<Case> cases;
    Forge forge;
    std::istringstream lines(text);
    std::string line;
    for (int count = 1; std::getline(lines, line); ++count) {
        const std::string where = file + ':' + std::to_string(count);
        try {
            take_line(line, where, cases, forge);
        } catch (const std::exception& error) {
            mistake(where + ": " + error.what());
        }
    }
    if (!cases.empty())
        cases.back().layers = forge.finish();
    return cases;
}

std::vector<Case> read_cases(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in)
        mistake("cannot read " + path);
    return parse_cases(text.str(), std::filesystem::path(path).filename());
}

std::vector<Case> read_case_directory(const std::string& dir)
{
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        if (entry.path().extension() == ".txt")
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::vector<Case> all;
    for (const std::string& file : files)
        for (Case& one : read_cases(file))
            all.push_back(std::move(one));
    return all;
}

} // namespace tarforge
