// fields.hpp - reads the members of a document by their types. A member of another type is refused
// with its name, as the platform refuses those that it reads; one that is null is absent.
#ifndef ZNC_OCI_FIELDS_HPP
#define ZNC_OCI_FIELDS_HPP

#include "context.hpp"
#include "front/json.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zncrun {

using zncctl::Json;

class Fields {
  public:
    // `where` is the name of the object; "" is the document.
    Fields(const Json& object, std::string where);

    [[nodiscard]] std::string name(const char* key) const;

    // Null if it is absent. One whose name differs in case is refused: it would be ignored.
    [[nodiscard]] const Json* find(const char* key) const;

    // "" or false if it is absent.
    [[nodiscard]] std::string text(const char* key) const;
    [[nodiscard]] bool boolean(const char* key) const;
    [[nodiscard]] std::optional<std::int64_t> number(const char* key, std::int64_t least,
                                                     std::int64_t most) const;
    [[nodiscard]] std::optional<Fields> object(const char* key) const;

    // For each element of an array, with its name; none if it is absent.
    using Visit = std::function<void(const Json& element, const std::string& where)>;
    void each(const char* key, const Visit& visit) const;
    void each_text(const char* key, const std::function<void(const std::string&)>& visit) const;

  private:
    const Json* object_;
    std::string where_;
};

} // namespace zncrun

#endif
