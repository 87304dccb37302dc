// holder.cpp - keeps a user namespace open until its owner is gone or kills this process. It has
// the ids of the host's root and no rights there, does nothing, and answers no one.

#include "helper.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <linux/errno.h>
#include <linux/prctl.h>

namespace zn {

void holder_run()
{
    sys::call(__NR_prctl, PR_SET_DUMPABLE, 0);
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(wire::kHolderName));
    char byte;
    long n;
    do {
        n = sys::call(__NR_read, wire::kHolderPipe, sys::arg(&byte), 1);
    } while (n > 0 || n == -EINTR);
    sys::exit_group(0);
}

} // namespace zn
