// settings_json.hpp - typed access to a JSON document: each value is read together with its path,
// which error messages contain. An object is described by a table of its members. Used by the
// readers of the sections.
//
// All functions that return bool return false once something was refused; the first refusal counts.
#ifndef ZN_SETTINGS_JSON_HPP
#define ZN_SETTINGS_JSON_HPP

#include "base/json.hpp"
#include "settings.hpp"
#include "settings_reader.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

namespace zn {

// A value with its place. Nodes live on the stack of the functions that read them.
struct Node {
    const cJSON* value = nullptr;
    const Node* above = nullptr; // null: the document
    const char* name = nullptr;  // null: an element of an array
    std::size_t index = 0;
};

// cJSON holds numbers as doubles. Larger ones could have been rounded.
inline constexpr std::int64_t kExactMax = (std::int64_t{1} << 53) - 1;
inline constexpr std::int64_t kIdMax = 4294967294;       // the largest user and group id
inline constexpr std::int64_t kMajorMax = (1 << 12) - 1; // the largest device numbers
inline constexpr std::int64_t kMinorMax = (1 << 20) - 1;
inline constexpr std::size_t kTextMax = 4095;
inline constexpr std::size_t kMembersMax = 256;

class JsonReader {
  public:
    explicit JsonReader(SettingsFault& fault) : fault_(fault) {}

    // 0, or the error number of the first refusal.
    [[nodiscard]] int error() const { return error_; }

    // These return false.
    bool refuse(const Node& at, const char* reason, ...) __attribute__((format(printf, 3, 4)));
    bool refuse_text(const Node& at, const char* reason); // appends the text
    bool unsupported(const Node& at, const char* reason = "is not supported");
    bool no_memory(const Node& at);

    bool boolean(const Node& at, bool& value);
    bool integer(const Node& at, std::int64_t least, std::int64_t most, std::int64_t& value);
    // A limit: -1, or anything from 2^63, means unlimited and is read as -1.
    bool limit(const Node& at, std::int64_t least, std::int64_t most, std::int64_t& value);
    // A limit that cannot be negative: anything from 2^63 means unlimited, UINT64_MAX.
    bool unsigned_limit(const Node& at, std::uint64_t& value);
    // Without control characters, except for tabs. An empty text is read as null.
    bool text(const Node& at, Text& value);
    bool required_text(const Node& at, Text& value);
    // Begins with "/", has no ".." component.
    bool absolute_path(const Node& at, Text& value);

    bool is_array(const Node& at);
    // At most kMembersMax members, no two names of which are equal or differ in case only.
    bool is_object(const Node& at);

  private:
    bool report(const Node& at, int error);

    SettingsFault& fault_;
    int error_ = 0;
};

// Whether the value asks for nothing: an empty string, array or object.
bool is_empty(const cJSON* value);

// The member of an object with exactly this name; null if it is missing or null.
const cJSON* member_of(const Node& object, const char* name);

// Whether a component of the path is "..", or also ".".
bool has_parent_component(std::string_view path);
bool has_dot_component(std::string_view path);

bool equal_ignoring_case(const char* one, const char* other);

// Calls read(node) for each element of an array.
template <class Read> bool read_elements(JsonReader& reader, const Node& at, Read&& read)
{
    if (!reader.is_array(at))
        return false;
    std::size_t index = 0;
    for (const cJSON* value = at.value->child; value != nullptr; value = value->next)
        if (!read(Node{value, &at, nullptr, index++}))
            return false;
    return true;
}

// Calls read(node) for each member of an object, except for those that are null.
template <class Read> bool read_members(JsonReader& reader, const Node& at, Read&& read)
{
    if (!reader.is_object(at))
        return false;
    for (const cJSON* value = at.value->child; value != nullptr; value = value->next)
        if (cJSON_IsNull(value) == 0 && !read(Node{value, &at, value->string}))
            return false;
    return true;
}

// ---------------------------------------------------------------- objects

enum class Presence { kOptional, kRequired };
// kAnyCase is for names that the library reads, too: it ignores their case.
enum class Spelling { kExact, kAnyCase };
// What happens to other members. A known name in another case is always refused: it is probably a
// mistake.
enum class Others { kRefused, kIgnored };

// A member of an object that is read into a T.
template <class T> struct Member {
    const char* name;
    bool (*read)(JsonReader&, const Node&, T&);
    Presence presence = Presence::kOptional;
    Spelling spelling = Spelling::kExact;
};

template <class T, std::size_t kCount>
bool read_object(JsonReader& reader, const Node& at, const Member<T> (&members)[kCount], T& record,
                 Others others = Others::kRefused)
{
    const auto find = [&members](const char* name) -> const Member<T>* {
        for (const Member<T>& member : members)
            if (member.spelling == Spelling::kAnyCase ? equal_ignoring_case(member.name, name)
                                                      : std::string_view(member.name) == name)
                return &member;
        return nullptr;
    };
    const auto is_near = [&members](const char* name) {
        for (const Member<T>& member : members)
            if (equal_ignoring_case(member.name, name))
                return true;
        return false;
    };
    const auto read = [&](const Node& node) {
        const Member<T>* const member = find(node.name);
        if (member == nullptr)
            return (others == Others::kIgnored && !is_near(node.name)) ||
                   reader.refuse(node, "is unknown");
        return member->read(reader, node, record);
    };
    if (!read_members(reader, at, read))
        return false;
    for (const Member<T>& member : members)
        if (member.presence == Presence::kRequired && member_of(at, member.name) == nullptr)
            return reader.refuse(Node{nullptr, &at, member.name}, "is missing");
    return true;
}

// ---------------------------------------------------------------- members of plain types

template <class> struct FieldTraits;
template <class C, class V> struct FieldTraits<V C::*> {
    using Record = C;
    using Value = V;
};
template <class V> struct PlainTraits {
    using Type = V;
};
template <class V> struct PlainTraits<std::optional<V>> {
    using Type = V;
};
template <auto kField>
using RecordOf = typename FieldTraits<std::remove_cv_t<decltype(kField)>>::Record;
template <auto kField>
using PlainOf =
    typename PlainTraits<typename FieldTraits<std::remove_cv_t<decltype(kField)>>::Value>::Type;

// An object that is read into the record of which it is a member, or into an element of a list.
template <const auto& kMembers, class T> bool read_table(JsonReader& reader, const Node& at, T& to)
{
    return read_object(reader, at, kMembers, to);
}

// A member that has a reader of its own.
template <auto kField, auto kRead>
bool read_with(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    return kRead(reader, at, to.*kField);
}

template <auto kField> bool read_boolean(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    bool value = false;
    if (!reader.boolean(at, value))
        return false;
    to.*kField = value;
    return true;
}

template <auto kField, std::int64_t kLeast, std::int64_t kMost>
bool read_integer(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    std::int64_t value = 0;
    if (!reader.integer(at, kLeast, kMost, value))
        return false;
    to.*kField = static_cast<PlainOf<kField>>(value);
    return true;
}

template <auto kField, std::int64_t kLeast, std::int64_t kMost = kExactMax>
bool read_limit(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    std::int64_t value = 0;
    if (!reader.limit(at, kLeast, kMost, value))
        return false;
    to.*kField = value;
    return true;
}

template <auto kField>
bool read_unsigned_limit(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    return reader.unsigned_limit(at, to.*kField);
}

template <auto kField> bool read_text(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    return reader.text(at, to.*kField);
}

template <auto kField> bool read_path(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    return reader.absolute_path(at, to.*kField);
}

// Reads an array by reading each element into an item of the list.
template <class T>
bool read_list(JsonReader& reader, const Node& at, List<T>& list,
               bool (*read)(JsonReader&, const Node&, T&))
{
    return read_elements(reader, at, [&](const Node& node) {
        T item = {};
        if (!read(reader, node, item))
            return false;
        return list.append(std::move(item)) != nullptr || reader.no_memory(node);
    });
}

template <auto kField, auto kRead>
bool read_list_of(JsonReader& reader, const Node& at, RecordOf<kField>& to)
{
    return read_list(reader, at, to.*kField, kRead);
}

// Elements of lists of texts.
bool read_required_text(JsonReader& reader, const Node& at, Text& value);
bool read_absolute_path(JsonReader& reader, const Node& at, Text& value);

// A word that stands for a value; `what` describes it in refusals: "unknown type".
template <class V> struct Word {
    const char* text;
    V value;
};
template <class V, std::size_t kCount>
bool read_word(JsonReader& reader, const Node& at, const Word<V> (&words)[kCount], const char* what,
               V& value)
{
    Text text;
    if (!reader.required_text(at, text))
        return false;
    for (const Word<V>& word : words)
        if (std::string_view(word.text) == text.get()) {
            value = word.value;
            return true;
        }
    return reader.refuse_text(at, what);
}

// A member that is known, but has no meaning here.
template <class T> bool read_ignored(JsonReader& /*reader*/, const Node& /*at*/, T& /*to*/)
{
    return true;
}

// A member that is not supported. Empty values ask for nothing.
template <class T> bool read_unsupported(JsonReader& reader, const Node& at, T& /*to*/)
{
    return is_empty(at.value) || reader.unsupported(at);
}

} // namespace zn

#endif
