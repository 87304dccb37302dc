// keeper_mask.hpp - hides and write-protects parts of procfs and sysfs.
#ifndef ZN_KEEPER_MASK_HPP
#define ZN_KEEPER_MASK_HPP

#include "sys.hpp"

namespace zn {

// These functions return 0 or an error number.

// The covers of hidden paths: an empty directory and an empty file in one read-only tmpfs. The
// tmpfs is attached over the directory `place` while covers are cloned from it, since only attached
// mounts can be cloned; paths below `place` remain accessible by descriptor.
//
// detach() unmounts the tmpfs, which waits for all processors. If `place` is in a tree that is
// itself unmounted later, it need not be called: one tmpfs then serves both procfs and sysfs
// without that wait.
class Covers {
  public:
    explicit Covers(int place) : place_(place) {}
    int hide(int directory, const char* path);
    int cover(int target); // an open file or directory
    int detach();

  private:
    int make();

    int place_;
    bool attached_ = false;
    sys::Fd root_;
    sys::Fd empty_;
    sys::Fd file_;
};

// Mask a new procfs or sysfs that is attached at `directory`.
int mask_proc(int directory, Covers& covers);
int mask_sys(int directory, Covers& covers);

} // namespace zn

#endif
