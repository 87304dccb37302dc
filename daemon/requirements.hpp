// requirements.hpp - what the daemon needs of the machine. Checked by "zncd check", and before
// serving, so that the log names a missing feature instead of a failed container.
#ifndef ZNCD_REQUIREMENTS_HPP
#define ZNCD_REQUIREMENTS_HPP

namespace zncd {

// Prints one line per requirement on standard output, starting with "yes" or "no". False if a
// mandatory one is not met.
bool print_requirements();

// Logs the mandatory requirements that are not met. False if there are any.
bool meets_requirements();

} // namespace zncd

#endif
