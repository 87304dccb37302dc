// keeper_mask.hpp - what a container must not reach in proc and sysfs is hidden and
// write-protected.
#ifndef ZN_KEEPER_MASK_HPP
#define ZN_KEEPER_MASK_HPP

#include "sys.hpp"

namespace zn {

// All of these return 0 or an error number.

// What hidden paths are covered with: an empty directory and an empty file of one read-only
// filesystem. It is attached over the whole of the directory `place` while copies are taken, since
// the kernel copies attached mounts only; paths below it are reached by descriptor meanwhile.
//
// Taking it away makes the caller wait for all processors. Where `place` is in a tree that goes as
// a whole, that wait is not needed: making a root takes a quarter less time than with covers of
// their own for proc and sysfs.
class Covers {
  public:
    explicit Covers(int place) : place_(place) {}
    int hide(int directory, const char* path);
    int take_away();

  private:
    int make();

    int place_;
    bool attached_ = false;
    sys::Fd root_;
    sys::Fd empty_;
    sys::Fd file_;
};

// In a fresh proc or sysfs that is attached at `directory`.
int mask_proc(int directory, Covers& covers);
int mask_sys(int directory, Covers& covers);

} // namespace zn

#endif
