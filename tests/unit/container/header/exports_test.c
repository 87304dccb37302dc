/*
 * exports_test.c - the functions that the public headers declare, the list checked in and the
 * shared library's exports are one and the same.
 *
 * usage: exports_test LIBRARY LIST
 */
#include "zncprotocol.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef void (*Function)(void);

typedef struct Export {
    const char* name;
    Function declared;
} Export;

/* clang-format off */
#define EXPORT(name) {#name, (Function)(name)}
/* clang-format on */

static const Export exports[] = {
    EXPORT(ugzclose),
    EXPORT(ugzopen),
    EXPORT(ugzread),
    EXPORT(zncBasePathGet),
    EXPORT(zncCall),
    EXPORT(zncCallQ),
    EXPORT(zncConfigCheck),
    EXPORT(zncConfigToArray),
    EXPORT(zncContainerCreate),
    EXPORT(zncContainerDelete),
    EXPORT(zncContainerInfoGet),
    EXPORT(zncContainerInit),
    EXPORT(zncContainerKill),
    EXPORT(zncContainerNext),
    EXPORT(zncContainerStart),
    EXPORT(zncContainerStateGet),
    EXPORT(zncContainerStorePidHandle),
    EXPORT(zncCreate),
    EXPORT(zncCreateOciBundleConfig),
    EXPORT(zncCreateOciBundleConfigAnnotations),
    EXPORT(zncCreateOciBundleConfigHostname),
    EXPORT(zncCreateOciBundleConfigMounts),
    EXPORT(zncCreateOciBundleConfigProcess),
    EXPORT(zncCreateOciBundleConfigRoot),
    EXPORT(zncCreateOciBundleConfigVersion),
    EXPORT(zncCreateOciBundleConfigZarnel),
    EXPORT(zncCreateOvlRootfsDev),
    EXPORT(zncDaemonIsAlive),
    EXPORT(zncDaemonTask),
    EXPORT(zncDelete),
    EXPORT(zncDestroyRuntimeSpec),
    EXPORT(zncGzArchiveCreate),
    EXPORT(zncGzArchiveDelete),
    EXPORT(zncImageBundleDelete),
    EXPORT(zncImageGetMountInfo),
    EXPORT(zncImageGetUsrInfo),
    EXPORT(zncImageInfoGet),
    EXPORT(zncImageInspect),
    EXPORT(zncImageUnpack),
    EXPORT(zncInitializeRuntimeSpec),
    EXPORT(zncInspectContainer),
    EXPORT(zncInspectContainerConfig),
    EXPORT(zncInspectContainerState),
    EXPORT(zncInspectHostConfig),
    EXPORT(zncInspectImageConfig),
    EXPORT(zncInspectImageContainer),
    EXPORT(zncJsonCopy),
    EXPORT(zncKill),
    EXPORT(zncLayerCheck),
    EXPORT(zncList),
    EXPORT(zncMsgLvlSet),
    EXPORT(zncMsgQnameSet),
    EXPORT(zncOvlFsAvailable),
    EXPORT(zncParamObjDestroy),
    EXPORT(zncParamObjGet),
    EXPORT(zncParamObjInit),
    EXPORT(zncParamValueGetByName),
    EXPORT(zncRemoveOvlRootfsDev),
    EXPORT(zncReplyMessage),
    EXPORT(zncResponseCheck),
    EXPORT(zncSendMsg),
    EXPORT(zncStart),
    EXPORT(zncStartPid),
    EXPORT(zncState),
    EXPORT(zncStatusGet),
    EXPORT(zncStoreCollect),
    EXPORT(zncTarExtract),
    EXPORT(zncUnpack),
    EXPORT(zncUnpackDirs),
    EXPORT(zncUnpackProgressSet),
    EXPORT(zncUtilBinToHex),
    EXPORT(zncUtilCredGetFromStdin),
    EXPORT(zncUtilShowErr),
    EXPORT(zncUtilSignalNo),
    EXPORT(zncUtilStateIdToString),
    EXPORT(zncUtilUntar),
    EXPORT(zncUtilXdelete),
    EXPORT(zncVersionGet),
};
enum { EXPORTS = sizeof exports / sizeof exports[0] };

static int failures;

static void complain(const char* name, const char* what)
{
    fprintf(stderr, "%s: %s\n", name, what);
    failures++;
}

static Function look_up(void* library, const char* name)
{
    void* object = dlsym(library, name);
    Function function;
    memcpy(&function, &object, sizeof function); /* ISO C knows no other way */
    return function;
}

static void check_list(const char* list)
{
    FILE* in = fopen(list, "r");
    if (in == NULL) {
        perror(list);
        exit(2);
    }
    char line[128];
    size_t row = 0;
    while (fgets(line, sizeof line, in) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        if (row >= EXPORTS || strcmp(line, exports[row].name) != 0) {
            complain(line, "in the list, but not at this place of the headers' table");
            break;
        }
        row++;
    }
    fclose(in);
    if (row < EXPORTS)
        complain(exports[row].name, "declared in a header, but not at this place of the list");
}

/* Loaded by its file, the library gives each name, and the one that the program was linked to. */
static void check_library(const char* file)
{
    void* library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        exit(2);
    }
    for (size_t i = 0; i < EXPORTS; i++) {
        Function found = look_up(library, exports[i].name);
        if (found == NULL)
            complain(exports[i].name, "not exported");
        else if (found != exports[i].declared)
            complain(exports[i].name, "exported, but the program got another one");
    }
    if (look_up(library, "zncUtilNameIsDir") != NULL || look_up(library, "znMsgQOpen") != NULL)
        complain("zncUtilNameIsDir, znMsgQOpen", "internal, but exported");
    dlclose(library);
}

/* A few calls from C that need nothing. */
static void check_calls(void)
{
    char hex[3];
    uint8_t byte = 0xab;
    if (zncUtilBinToHex(hex, sizeof hex, &byte, 1) != OK || strcmp(hex, "ab") != 0)
        complain("zncUtilBinToHex", "wrong text");
    if (zncUtilSignalNo("USR1") != 30)
        complain("zncUtilSignalNo", "wrong number");
    if (strcmp(zncUtilStateIdToString(STATE_STOPPED), "stopped") != 0)
        complain("zncUtilStateIdToString", "wrong text");
    if (strcmp(zncVersionGet(), ZNC_VERSION) != 0)
        complain("zncVersionGet", "not the version of the header");
    if (ugzopen("/nonexistent", "rb") != NULL || ugzclose(NULL) != -1)
        complain("ugzopen, ugzclose", "opened a missing file or closed none");
    if (zncInitializeRuntimeSpec("/nonexistent") != NULL)
        complain("zncInitializeRuntimeSpec", "read a missing file");
    zncDestroyRuntimeSpec(NULL);
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: exports_test LIBRARY LIST\n");
        return 2;
    }
    check_list(argv[2]);
    check_library(argv[1]);
    check_calls();
    printf("%d exports, %d failures\n", (int)EXPORTS, failures);
    return failures == 0 ? 0 : 1;
}
