// requirements.hpp - what the daemon needs of the machine. Used by main: all of it for "zncd
// check", and before it serves, so that a missing call is told by its name and not by a failed
// container.
#ifndef ZNCD_REQUIREMENTS_HPP
#define ZNCD_REQUIREMENTS_HPP

namespace zncd {

// Prints a line for each requirement on standard output, "yes" or "no" first. False if one is
// missing that it cannot do without.
bool print_requirements();

// Logs what is missing. False if there is something.
bool meets_requirements();

} // namespace zncd

#endif
