// descriptor_store.hpp - descriptors that the service manager holds while the daemon is restarted
// (FDSTORE of the sd_notify protocol, LISTEN_FDS). Used by main.
#ifndef ZNCD_DESCRIPTOR_STORE_HPP
#define ZNCD_DESCRIPTOR_STORE_HPP

#include "zarnel/ns_keep.h"

#include <vector>

namespace zncd {

class DescriptorStore {
  public:
    // Takes the descriptors with names of ours that the manager has handed to this process. To be
    // called before any descriptor is opened, once.
    DescriptorStore();

    // For the platform. Its functions are null if there is no manager; it then only holds what an
    // earlier daemon has stored.
    [[nodiscard]] znKeepManager manager() const;

  private:
    std::vector<int> held_;
};

} // namespace zncd

#endif
