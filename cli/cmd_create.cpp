#include "container.hpp"
#include "record.hpp"

int zncctl::cmd_create(const Arguments& args)
{
    if (args.has("bundle") && args.operands() > 1)
        return usage_failure("the bundle is given twice");
    const char* bundle = args.operand(1, args.value("bundle", "."));
    const char* id = args.operand(0);
    if (call_library([&] { return zncCreate(id, bundle, 0, nullptr); }) != OK)
        return daemon_failure(errno, id);
    remove_record(id); // of an earlier container that had this id
    return kExitOk;
}
