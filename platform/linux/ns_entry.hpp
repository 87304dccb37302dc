// ns_entry.hpp - a namespace into which a client is expected to spawn counts as in use although no
// process is in it yet. Used by the namespace service. The progress of the client is read from the
// namespace's record.
#ifndef ZN_NS_ENTRY_HPP
#define ZN_NS_ENTRY_HPP

#include "zarnel/types.h"

#include <cstdint>
#include <sys/types.h>

namespace zn {

class AwaitedEntry {
  public:
    // The process `caller` (0: unknown) is going to spawn into the namespace. 0, or -1 with errno
    // set.
    int begin(nsid_t ns, pid_t caller);

    // Continues what another owner of the namespace began.
    void resume();

    // Whether the spawn is still expected or in progress. False once it has succeeded or failed,
    // after two seconds, or if the caller ended before it began.
    bool is_open(nsid_t ns);

  private:
    std::int64_t until_ = 0; // 0: no spawn is expected
    pid_t caller_ = 0;
};

} // namespace zn

#endif
