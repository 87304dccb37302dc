// unpack_driver.cpp - calls the image functions of the shared library from the command line, for
// tests that must not depend on zncctl.
//
// usage: unpack_driver unpack [--tag T] [--os O] [--arch A] [--flatten] LAYOUT BUNDLE
//        unpack_driver inspect LAYOUT
//        unpack_driver delete BUNDLE
#include "zncontainer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

int usage()
{
    std::fputs("usage: unpack_driver unpack|inspect|delete ...\n", stderr);
    return 2;
}

int failed(const char* what)
{
    const int error = errno;
    std::fprintf(stderr, "%s: 0x%x\n", what, static_cast<unsigned>(error));
    zncUtilShowErr(error);
    return 1;
}

int inspect(const char* layout)
{
    struct Free {
        void operator()(char* text) const { std::free(text); }
    };
    const std::unique_ptr<char, Free> text(zncImageInfoGet(layout));
    if (!text)
        return failed("inspect");
    std::puts(text.get());
    return 0;
}

int unpack(int argc, char** argv)
{
    const char* tag = nullptr;
    unsigned option = 0;
    ZNC_BUNDLE_ATTR attr = {};
    int i = 2;
    for (; i < argc - 2; ++i) {
        const std::string_view word = argv[i];
        if (word == "--flatten")
            option |= ZNC_OPT_FLATTEN;
        else if (word == "--tag")
            tag = argv[++i];
        else if (word == "--os")
            attr.platform = argv[++i];
        else if (word == "--arch")
            attr.arch = argv[++i];
        else
            return usage();
    }
    if (i != argc - 2)
        return usage();
    return zncUnpack(argv[i + 1], argv[i], tag, option, &attr) == OK ? 0 : failed("unpack");
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (command == "unpack" && argc >= 4)
        return unpack(argc, argv);
    if (command == "inspect" && argc == 3)
        return inspect(argv[2]);
    if (command == "delete" && argc == 3)
        return zncImageBundleDelete(argv[2]) == OK ? 0 : failed("delete");
    return usage();
}
