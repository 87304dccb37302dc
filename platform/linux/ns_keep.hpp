// ns_keep.hpp - what the namespace service (ns.cpp) and the part of it that keeps namespaces beyond
// the end of their owner (ns_keep.cpp) need of each other. Lock order: the namespace service's
// lock, then that of ns_keep.cpp.
#ifndef ZN_NS_KEEP_HPP
#define ZN_NS_KEEP_HPP

#include "base/list.hpp"
#include "ns_record.hpp"

#include <string_view>

namespace zn {

// The processes of a namespace and the owner's ends of their sockets. A process that has ended, or
// that the namespace does not have, is absent.
struct NamespaceLinks {
    pid_t keeper = -1;
    znc::UniqueFd keeperProcess;
    znc::UniqueFd keeperSocket;
    pid_t holder = -1;
    znc::UniqueFd holderProcess;
    znc::UniqueFd holderSocket;
};

// ---------------------------------------------------------------- ns.cpp

// Copies of the sockets, and the process ids; the list of mounts as text. 0 or an error number:
// EINVAL if there is no such namespace or if it is not complete.
int namespace_links(nsid_t ns, NamespaceLinks& links, znc::List<char>& mounts);

// Adds a namespace that another process created. 0 or an error number.
int namespace_adopt(nsid_t ns, const NsRecord& record, NamespaceLinks links,
                    std::string_view mounts);

// Whether this process owns the namespace.
bool namespace_is_own(nsid_t ns);
// Whether a namespace of this process has this root.
bool namespace_rooted_on(const char* root);

// ---------------------------------------------------------------- ns_keep.cpp

// The namespace is being deleted: it is no longer kept.
void keep_forget(nsid_t ns);
bool keep_has(nsid_t ns);

// Stores everything again if the process that stores it has died.
void keep_check();
// The owner stops: ends the process that stores if it stores nothing. Returns the number of
// namespaces that are kept.
int keep_leave();

} // namespace zn

#endif
