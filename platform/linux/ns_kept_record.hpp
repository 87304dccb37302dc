// ns_kept_record.hpp - the record of a namespace that outlives its owner: which processes and
// sockets it consists of, so that the next owner can check that they are the same, its mounts, and
// the owner's note. Used by ns_keep.cpp. The rest is in the namespace's record (ns_record.hpp).
#ifndef ZN_NS_KEPT_RECORD_HPP
#define ZN_NS_KEPT_RECORD_HPP

#include "kept_file.hpp"
#include "ns_keep.hpp"

#include <cstdint>
#include <string_view>

namespace zn {

// A process by its id and start time; id 0: none.
struct KeptProcess {
    pid_t pid = 0;
    unsigned long long startTime = 0;
};

struct KeptRecord {
    KeptProcess keeper;
    KeptProcess holder;
    KeptProcess program;
    std::uint64_t keeperSocket = 0; // cookies (keep_store.hpp)
    std::uint64_t holderSocket = 0;
    std::uint64_t executable = 0; // inode of the keeper's program
    std::uint64_t pidNamespace = 0;
    std::uint64_t mountNamespace = 0;
    std::string_view mounts;
    std::string_view note;
};

// 0 or an error number.
int kept_record_fill(KeptRecord& record, const NamespaceLinks& links, pid_t program);
int kept_record_write(nsid_t ns, const KeptRecord& record);
// The texts of the record are in `text`. Errors as kept_read's.
int kept_record_read(nsid_t ns, KeptText& text, KeptRecord& record);
void kept_record_remove(nsid_t ns);

// What the process with the keeper's id and start time is.
enum class KeeperIs {
    kRecorded, // it executes the helper and is in the namespaces of the record
    kEnding,   // it executes nothing any more, and waits for the ends of other processes
    kOther
};
KeeperIs keeper_examine(const KeptRecord& record, pid_t pid);

} // namespace zn

#endif
