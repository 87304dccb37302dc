// store.cpp - holds descriptors of namespaces while no owner runs: the owner's ends of their
// sockets. It closes them when it is told to, or when it is killed.

#include "helper.hpp"
#include "request.hpp"
#include "sys.hpp"
#include "wire.hpp"

#include <linux/errno.h>
#include <linux/prctl.h>

namespace zn {
namespace {

int serve(const wire::Request& request, sys::Fd& descriptor, std::uint64_t* value)
{
    if (request.op == wire::Op::kStore) {
        if (!descriptor.valid()) // the kernel drops a descriptor for which there is no number left
            return EMFILE;
        *value = static_cast<std::uint64_t>(descriptor.release());
        return 0;
    }
    if (request.op != wire::Op::kDrop || request.value <= wire::kStoreOwner ||
        request.value > 0x7fffffff)
        return EINVAL;
    const long result = sys::call(__NR_close, static_cast<long>(request.value));
    return static_cast<int>(-result);
}

} // namespace

void store_run()
{
    sys::call(__NR_prctl, PR_SET_NAME, sys::arg(wire::kStoreName));
    sys::call(__NR_prctl, PR_SET_DUMPABLE, 0);
    sys::call(__NR_setsid);
    Incoming in;
    for (;;) {
        sys::Fd descriptor;
        if (!request_receive(wire::kStoreSocket, in, descriptor))
            sys::exit_group(0);
        wire::Answer answer = {};
        answer.error = serve(in.request, descriptor, &answer.value);
        request_answer(wire::kStoreSocket, in.request, answer);
    }
}

} // namespace zn
