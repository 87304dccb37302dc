// ns_entry.hpp - a namespace that was handed out to be entered: while its first process is awaited
// it counts as in use although nobody lives in it yet. Used by the namespace service; what happened
// in another process is read from the namespace's record.
#ifndef ZN_NS_ENTRY_HPP
#define ZN_NS_ENTRY_HPP

#include "zarnel/types.h"

#include <cstdint>
#include <sys/types.h>

namespace zn {

class AwaitedEntry {
  public:
    // `caller` is going to spawn into the namespace; 0 if it is not known. 0, or -1 with errno set.
    int begin(nsid_t ns, pid_t caller);

    // Whether the spawn has neither succeeded nor failed yet. No longer after two seconds, nor when
    // the caller ended before it began.
    bool is_open(nsid_t ns);

  private:
    std::int64_t until_ = 0; // 0: nobody is awaited
    pid_t caller_ = 0;
};

} // namespace zn

#endif
