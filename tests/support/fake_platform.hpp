// fake_platform.hpp - a namespace service and overlay devices that only record the calls.
//
// A test program that lists tests/support/fake_platform.cpp in SOURCES gets these functions instead
// of the real znns and znOvl functions. Every call is recorded, and any can be made to fail.
// Namespaces and devices are tracked, so that a test can detect leaks. Thread-safe.
#ifndef FAKE_PLATFORM_HPP
#define FAKE_PLATFORM_HPP

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fake {

struct Call {
    std::string op; // the function's name
    int32_t ns = 0; // if the call has one
    int number = 0; // flags, signal number, hasUpper
    int handle = 0; // znnsProcessKill
    std::string root;
    std::string name;
    std::string source, destination, type; // "<null>" for a null pointer
    std::vector<std::string> list;         // mount options, overlay directories
    bool list_is_null = false;

    bool operator==(const Call&) const = default;
};

// What znnsKeep was given for a namespace.
struct Kept {
    int program = 0;
    std::string note;
};
std::map<int32_t, Kept> kept();
// Replaces the note of a namespace that is kept.
void set_note(int32_t ns, const std::string& note);

// Resets all calls, failures, namespaces and devices.
void reset();

// Makes the nth call of `op` from now on (1: the next) fail with `error`.
void fail(const std::string& op, unsigned nth, int error);

// Sets what znnsInUse reports (FALSE after a reset).
void set_in_use(bool in_use);

std::vector<Call> calls();
std::vector<Call> calls_of(const std::string& op);
std::vector<std::string> ops(); // only the names

// The namespaces that exist: created and not deleted since.
std::set<int32_t> namespaces();
std::set<std::string> devices();

} // namespace fake

#endif
