// holder.cpp - keeps a user namespace open until its owner is gone or kills this process. It only
// waits: user 0 of the host without capabilities there, one descriptor, no requests.

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
