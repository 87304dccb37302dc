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
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(wire::kHolderName));
    char byte = 0;
    for (;;) {
        const long n = sys::call(__NR_read, wire::kHolderSocket, sys::arg(&byte), 1);
        if (n == -EINTR)
            continue;
        if (n <= 0)
            sys::exit_group(0);
        // The mapping files of a process that is not dumpable belong to root of the host until user
        // 0 is mapped. There is no other process in the namespace before this is answered.
        sys::call(__NR_prctl, PR_SET_DUMPABLE, 0);
        sys::call(__NR_write, wire::kHolderSocket, sys::arg(&byte), 1);
    }
}

} // namespace zn
