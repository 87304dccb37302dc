/*
 * zncontainer.h - the container runtime library: containers, bundles, images.
 *
 * Conventions
 *
 *  1. Errors. A function of type STATUS returns OK or ERROR; one that returns a pointer returns
 *     NULL on failure. Unless said otherwise a failure sets `errno`: an S_zncLib_ code of this
 *     header or a number of <errno.h>. `errno` is meaningless after success. zncUtilShowErr prints
 *     the message for either.
 *  2. Ownership. Text returned as `char*` is malloc'd and freed by the caller with free().
 *     `const char*` results are constant and never freed. Arguments are not kept after the call.
 *  3. Threads. Functions are thread-safe, unless their group says that they belong to the daemon's
 *     thread ("task" means thread in this header). No function changes process-wide state: no
 *     signal handlers, working directory, locale or umask.
 *  4. Blocking. Functions that talk to the daemon wait without a time limit for room in its queue
 *     of 32 requests, and then up to 5 seconds for each piece of the reply. zncStart without
 *     ZNC_OPT_NO_WAIT waits for the container's process. Functions that read, extract or delete
 *     images, archives or trees take time in proportion to their size. zncDaemonTask and
 *     zncUtilCredGetFromStdin block until they end or have input. All others return quickly.
 *  5. Text is bytes ended by NUL; JSON is UTF-8. Paths have at most 1023 bytes, container
 *     ids at most 255.
 *  6. Only zncUtilShowErr, zncUtilCredGetFromStdin and the functions that talk to the daemon print
 *     anything. The latter print the progress texts of the daemon, each as "text.\n" on standard
 *     output, unless the environment variable ZNC_VERBOSE is "0".
 *  7. Signal numbers are those of the library (see zncUtilSignalNo), not those of the host.
 *  8. Names and struct layouts in this header do not change while the soname is
 *     libzncontainer.so.1. New functions may be added; ZNC_VERSION_NUMBER shows at compile time
 *     whether one is declared.
 *  9. ZNC_NODISCARD marks functions whose result must not be ignored: it owns a resource (memory, a
 *     process, a file), or the caller cannot continue correctly without checking it.
 * 10. The header is C89 with <stdint.h> and <stdbool.h>, any later C, and C++98 and later.
 *
 * The wire format and the JSON document builders are in zncprotocol.h.
 */
#ifndef ZNCONTAINER_H
#define ZNCONTAINER_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

/* ------------------------------------------------------------------ version */

/* The version of the project. The build reads it from here. */
#define ZNC_VERSION_MAJOR 1
#define ZNC_VERSION_MINOR 1
#define ZNC_VERSION_PATCH 0

/* The version as one number that grows with each version, and as a string: "MAJOR.MINOR.PATCH". */
#define ZNC_VERSION_NUMBER                                                                         \
    (ZNC_VERSION_MAJOR * 1000000 + ZNC_VERSION_MINOR * 1000 + ZNC_VERSION_PATCH)
#define ZNC_VERSION                                                                                \
    ZNC_VERSION_TEXT(ZNC_VERSION_MAJOR)                                                            \
    "." ZNC_VERSION_TEXT(ZNC_VERSION_MINOR) "." ZNC_VERSION_TEXT(ZNC_VERSION_PATCH)
#define ZNC_VERSION_TEXT(number) ZNC_VERSION_TEXT_OF(number)
#define ZNC_VERSION_TEXT_OF(number) #number

/* ------------------------------------------------------------------ compilers */

/* A warning for a caller that ignores the result. */
#if defined(__cplusplus) && __cplusplus >= 201703L
#define ZNC_NODISCARD [[nodiscard]]
#elif defined(__GNUC__)
#define ZNC_NODISCARD __attribute__((warn_unused_result))
#else
#define ZNC_NODISCARD
#endif

/* Around declarations of functions with C linkage that the shared library exports. */
#if defined(__cplusplus) && defined(__GNUC__)
#define ZNC_BEGIN_DECLS                                                                            \
    _Pragma("GCC visibility push(default)") extern "C"                                             \
    {
#define ZNC_END_DECLS                                                                              \
    }                                                                                              \
    _Pragma("GCC visibility pop")
#elif defined(__cplusplus)
#define ZNC_BEGIN_DECLS extern "C" {
#define ZNC_END_DECLS }
#elif defined(__GNUC__)
#define ZNC_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define ZNC_END_DECLS _Pragma("GCC visibility pop")
#else
#define ZNC_BEGIN_DECLS
#define ZNC_END_DECLS
#endif

ZNC_BEGIN_DECLS
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions" /* bool in C89 */
#endif

/* ------------------------------------------------------------------ basic types */

typedef int STATUS;   /* OK or ERROR */
typedef int32_t BOOL; /* TRUE or FALSE */
typedef uint8_t UINT8;
typedef uint32_t UINT32;
typedef int32_t OBJ_HANDLE; /* a process, by its id */
typedef int32_t nsid_t;     /* a namespace; -1: none */

#ifndef OK
#define OK 0
#endif
#ifndef ERROR
#define ERROR (-1)
#endif
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
/* Compile-time check: another header may define these macros, too, but with the same values. */
typedef char zncCheckResultMacros[OK == 0 && ERROR == -1 && TRUE == 1 && FALSE == 0 ? 1 : -1];

struct cJSON; /* a JSON tree of the cJSON library */

/* ------------------------------------------------------------------ error codes */

#define M_zncLib (0xdf << 16)

#define S_zncLib_LAYOUT_NOT_FOUND (M_zncLib | 0x01)
#define S_zncLib_LAYOUT_INVALID (M_zncLib | 0x02)
#define S_zncLib_INDEX_NOT_FOUND (M_zncLib | 0x03)
#define S_zncLib_INDEX_INVALID (M_zncLib | 0x04)
#define S_zncLib_PLATFORM_NOT_FOUND (M_zncLib | 0x05)
#define S_zncLib_CONFIG_NOT_FOUND (M_zncLib | 0x06)
#define S_zncLib_CONFIG_INVALID (M_zncLib | 0x07)
#define S_zncLib_MANIFEST_NOT_FOUND (M_zncLib | 0x08)
#define S_zncLib_MANIFEST_INVALID (M_zncLib | 0x09)
#define S_zncLib_BUNDLE_PATH_TOO_LONG (M_zncLib | 0x0a)
#define S_zncLib_BUNDLE_CONFIG_PARAM_INVALID (M_zncLib | 0x0b)
#define S_zncLib_BUNDLE_ROOTFS_EXISTS (M_zncLib | 0x0c)
#define S_zncLib_BUNDLE_CONFIG_EXISTS (M_zncLib | 0x0d)
#define S_zncLib_BUNDLE_CONFIG_NOT_EXIST (M_zncLib | 0x0e)
#define S_zncLib_OCI_VERSION_INVALID (M_zncLib | 0x0f)
#define S_zncLib_OCI_ROOT_INVALID (M_zncLib | 0x10)
#define S_zncLib_OCI_CWD_INVALID (M_zncLib | 0x11)
#define S_zncLib_OCI_ARG_INVALID (M_zncLib | 0x12)
#define S_zncLib_RTP_SPAWN_FAILED (M_zncLib | 0x13)
#define S_zncLib_RUNTIME_CONFIG_LOAD_FAILED (M_zncLib | 0x14)
#define S_zncLib_MOUNT_FAILED (M_zncLib | 0x15)
#define S_zncLib_UNMOUNT_FAILED (M_zncLib | 0x16)
#define S_zncLib_CONTAINER_EXISTS (M_zncLib | 0x17)
#define S_zncLib_BUNDLE_IN_USE (M_zncLib | 0x18)
#define S_zncLib_NAMESPACE_CREATE_FAILED (M_zncLib | 0x19)
#define S_zncLib_ROOTFS_CREATE_FAILED (M_zncLib | 0x1a)
#define S_zncLib_ADDITIONAL_MOUNT_FAILED (M_zncLib | 0x1b)
/* 0x1c and 0x1d are not assigned. */
#define S_zncLib_INVALID_FORMAT_OPTION (M_zncLib | 0x1e)
#define S_zncLib_DAEMON_NOT_RUNNING (M_zncLib | 0x1f)
#define S_zncLib_SIGNATURE_MISSING (M_zncLib | 0x20)
#define S_zncLib_SIGNATURE_VERIFY_FAILED (M_zncLib | 0x21)

/* Error code of the platform's process functions: no such process. */
#define S_znProcess_NOT_RUNNING 0xb20004

/* ------------------------------------------------------------------ containers: types */

/* The state of a container. Appears as a number in the JSON of zncState. */
typedef enum containerStatus {
    STATE_CREATING = 0, /* being created; never reported to clients */
    STATE_CREATED = 1,  /* ready to be started */
    STATE_RUNNING = 2,  /* started; its namespace has processes */
    STATE_STOPPED = 3,  /* has no processes any more; cannot be started again */
    STATE_UNKNOWN = 4   /* not known, or no such container */
} CONTAINER_STATUS;

/* Attributes of a container to create. Has no effect. */
typedef struct zncAttr {
    const char* reserve;
} ZNC_ATTR;

/* Which image of a layout to unpack. */
typedef struct zncBundleAttr {
    const char* platform; /* operating system; NULL: "zarnel" */
    const char* arch;     /* architecture; NULL: "amd64" */
} ZNC_BUNDLE_ATTR;

/* Option bits of the client functions. */
#define ZNC_OPT_WHOLE_NAMESPACE 0x2u /* zncKill: all processes; zncDelete: even if running */
#define ZNC_OPT_NO_WAIT 0x4u         /* zncStart: return once the process runs */
#define ZNC_OPT_DRY_RUN 0x1u         /* zncStoreCollect: report, but remove nothing */
#define ZNC_OPT_FLATTEN 0x1u         /* zncUnpack: one flattened tree instead of layers */

/* ------------------------------------------------------------------ containers: client functions
 *
 * Each function sends one request to the daemon and waits for the reply. In addition to the errors
 * given, each can fail with S_zncLib_DAEMON_NOT_RUNNING, with ENOMEM (also if the arguments exceed
 * one request, 1843 bytes of JSON), and with 0 if the request or its reply was lost (no reply
 * within 5 s) or the queues for them could not be created. A reply that is not JSON is a failure,
 * too; errno is then unchanged or, where listed below, EBADMSG.
 */

/*
 * Create container `containerId` (1 to 255 bytes, no "/" or "\", not "." or "..") from the bundle
 * directory `bundlePath`; a relative path is resolved by this function. `option` is sent to the
 * daemon, which ignores it; `pAttr` (may be NULL) is ignored. On OK the container is in
 * STATE_CREATED. An id of 255 bytes is truncated to its first 254, and later calls must be
 * given these. Errors: EINVAL, S_zncLib_CONTAINER_EXISTS, S_zncLib_BUNDLE_IN_USE (without the
 * overlay filesystem a bundle serves one container), S_zncLib_BUNDLE_CONFIG_NOT_EXIST,
 * S_zncLib_RUNTIME_CONFIG_LOAD_FAILED, S_zncLib_OCI_VERSION_INVALID, S_zncLib_OCI_ROOT_INVALID,
 * S_zncLib_OCI_CWD_INVALID, S_zncLib_OCI_ARG_INVALID, S_zncLib_ROOTFS_CREATE_FAILED,
 * S_zncLib_NAMESPACE_CREATE_FAILED, S_zncLib_ADDITIONAL_MOUNT_FAILED, or an error of realpath().
 */
ZNC_NODISCARD STATUS zncCreate(const char* containerId, const char* bundlePath, unsigned int option,
                               const ZNC_ATTR* pAttr);

/*
 * Start a created container. Its process is a child of the caller and has the caller's standard
 * streams. With ZNC_OPT_NO_WAIT returns OK at once and the caller reaps the child; without
 * it, waits and returns the child's process id (not OK), or ERROR. Test for ERROR. Errors: EINVAL,
 * ENODEV (no such container), EBUSY (not in STATE_CREATED), S_zncLib_RTP_SPAWN_FAILED, EBADMSG.
 * After S_zncLib_RTP_SPAWN_FAILED the container cannot be started again: delete it.
 */
ZNC_NODISCARD STATUS zncStart(const char* containerId, unsigned int option);

/*
 * As zncStart with ZNC_OPT_NO_WAIT, and stores the process id of the program, a child of the
 * caller, in `pPid`, or 0 if the daemon returned empty parameters, so that nothing was started. On
 * ERROR `pPid` is 0, unless the program was spawned but its process id could not be sent to the
 * daemon: the program has then been sent TERM, and the caller must reap it. Errors as for zncStart;
 * EINVAL also if `pPid` is NULL.
 */
ZNC_NODISCARD STATUS zncStartPid(const char* containerId, unsigned int option, pid_t* pPid);

/*
 * Send a signal (the library's number) to the container's process, or with
 * ZNC_OPT_WHOLE_NAMESPACE to all of its processes. If it is not running, do nothing and return OK.
 * Errors: EINVAL, ENODEV, ESRCH (the process is gone or not yet known).
 */
STATUS zncKill(const char* containerId, int signo, unsigned int option);

/*
 * Delete a container and everything that zncCreate made. A running container requires
 * ZNC_OPT_WHOLE_NAMESPACE, and its processes are killed. Errors: EINVAL, ENODEV, EBUSY (running),
 * S_zncLib_UNMOUNT_FAILED.
 */
STATUS zncDelete(const char* containerId, unsigned int option);

/*
 * The state of a container as JSON: "ociVersion", "id", "status" (a CONTAINER_STATUS number),
 * "bundle". NULL with EINVAL, ENODEV or EBADMSG.
 */
ZNC_NODISCARD char* zncState(const char* containerId);

/* Only the status of a container. STATE_UNKNOWN on every failure, with errno set. */
CONTAINER_STATUS zncStatusGet(const char* containerId);

/* All containers, as a JSON array of states in ascending order of ids; "[]" if there are none. */
ZNC_NODISCARD char* zncList(void);

/*
 * Describe a container in full: a JSON array with one inspection document. NULL with EINVAL, ENODEV
 * or EBADMSG.
 */
ZNC_NODISCARD char* zncContainerInfoGet(const char* containerId);

/* Whether a daemon answers. */
BOOL zncDaemonIsAlive(void);

/* ------------------------------------------------------------------ images: client functions */

/*
 * Unpack an image of the OCI layout directory `ociPath` into the bundle directory `bundlePath`: a
 * root filesystem and a "config.json". The image is the first whose platform is that of
 * `pAttr` (may be NULL) and whose name is `tag` (NULL: "latest", which unnamed images match
 * too). Needs no daemon. The bundle directory may exist; "rootfs" and "config.json" in it must not
 * exist; a directory created by this call is removed again on failure. Layers are kept under the
 * storage base (zncBasePathGet) and shared between bundles where the overlay filesystem is
 * available. Exactly the verified bytes are extracted, even if the layout changes during the call.
 * On OK the bundle and everything it needs have been written to disk. Errors: EINVAL (also
 * ZNC_OPT_FLATTEN without the overlay filesystem), the image codes S_zncLib_LAYOUT_NOT_FOUND to
 * S_zncLib_MANIFEST_INVALID, S_zncLib_BUNDLE_ codes, EEXIST (the image's overlay device exists
 * already, or another image with the same diff IDs but different layers occupies the name of its
 * tree or device), EBUSY (the store stayed locked for ten seconds), ENAMETOOLONG, errors of
 * zncTarExtract and of system calls; 0 for a layer whose archive is damaged.
 */
ZNC_NODISCARD STATUS zncUnpack(const char* bundlePath, const char* ociPath, const char* tag,
                               unsigned int option, const ZNC_BUNDLE_ATTR* pAttr);

/*
 * Describe every image of a layout, verified, as a JSON array with one object per manifest. Needs
 * no daemon. NULL with EINVAL, ENOMEM, or an image code.
 */
ZNC_NODISCARD char* zncImageInfoGet(const char* ociPath);

/* The progress of an unpack. `layer` is valid only during the call. */
typedef struct zncProgress {
    const char* layer; /* the name of the layer's file, which is its digest in hexadecimal */
    uint32_t index;    /* index of the layer, from 0 */
    uint32_t count;    /* number of layers of the image */
    uint64_t done;     /* bytes of the layer's file that were read */
    uint64_t total;    /* size of the layer's file in bytes */
    uint64_t leftOut;  /* number of members, since `func` was set, that were not extracted as the
                          archive specifies: hard links and other types that are not created
                          (except those in dev), and whiteouts */
} ZNC_PROGRESS;

typedef void (*ZNC_PROGRESS_FUNC)(const ZNC_PROGRESS* progress, void* context);

/*
 * Call `func` while the calling task unpacks: when a layer begins (`done` is 0), while its file is
 * read, and when it is complete (`done` is `total`; immediately if the layer is stored already).
 * NULL removes the callback. Affects only the calling task. `func` is called on that task; it must
 * not unpack, and may change errno.
 */
void zncUnpackProgressSet(ZNC_PROGRESS_FUNC func, void* context);

/* A directory "/a/b" that a layer names, with the mode that it has in the archive, up to 07777. */
typedef void (*ZNC_DIRECTORY_FUNC)(const char* path, uint32_t mode, void* context);

/*
 * Like zncUnpack; also reports the directories in the layers. Extraction sets only the mode bits in
 * 0777; a caller may want to set others where that is safe. When the bundle is complete `func`
 * (NULL: as zncUnpack) is called by the calling task, for the bottom layer first and in the order
 * of each archive. The reported data was covered by the layer's digest, also for a layer that was
 * already in the store.
 */
STATUS zncUnpackDirs(const char* bundlePath, const char* ociPath, const char* tag,
                     unsigned int option, const ZNC_BUNDLE_ATTR* pAttr, ZNC_DIRECTORY_FUNC func,
                     void* context);

/* As zncUnpack, without checking the arguments. */
ZNC_NODISCARD STATUS zncImageUnpack(const char* bundlePath, const char* ociPath, const char* tag,
                                    unsigned int option, const ZNC_BUNDLE_ATTR* pAttr);

/*
 * Remove a bundle directory with all its content. Symbolic links in it are removed, never
 * followed. ERROR without errno if the path is NULL or does not exist; ENAMETOOLONG, without
 * removing anything, if it has 1024 or more characters.
 */
STATUS zncImageBundleDelete(const char* pBundlePath);

/* How zncCreate treats a member of a bundle's "config.json". */
typedef enum zncConfigVerdict {
    ZNC_CONFIG_REFUSED = 0,    /* missing or invalid: zncCreate fails */
    ZNC_CONFIG_MISREAD = 1,    /* read differently from what it says: a list is cut before this
                                  element, an object is used as a list, or only the leading number
                                  of a string is used */
    ZNC_CONFIG_IGNORED = 2,    /* wrong type: treated as missing */
    ZNC_CONFIG_NO_EFFECT = 3,  /* read and shown by inspection, no effect */
    ZNC_CONFIG_UNKNOWN = 4,    /* it is not read */
    ZNC_CONFIG_NOT_ALLOWED = 5 /* it gives the container more than the defaults: create fails unless
                                  the daemon allows it */
} ZNC_CONFIG_VERDICT;

/* What a member must be. */
typedef enum zncConfigType {
    ZNC_CONFIG_ANY = 0, /* nothing in particular */
    ZNC_CONFIG_STRING = 1,
    ZNC_CONFIG_BOOLEAN = 2,
    ZNC_CONFIG_OBJECT = 3,
    ZNC_CONFIG_STRINGS = 4,       /* an array of strings */
    ZNC_CONFIG_STRING_MAP = 5,    /* an object of strings */
    ZNC_CONFIG_OBJECTS = 6,       /* an array of objects */
    ZNC_CONFIG_NUMBER_STRING = 7, /* a string that is a number, in any base of C */
    ZNC_CONFIG_VERSION = 8,       /* a string of 1 to 63 bytes */
    ZNC_CONFIG_PATH = 9,          /* a string that is not empty */
    ZNC_CONFIG_ABSOLUTE_PATH = 10,
    ZNC_CONFIG_PROGRAM = 11 /* an array of strings whose first element is not empty */
} ZNC_CONFIG_TYPE;

typedef struct zncConfigFinding {
    ZNC_CONFIG_VERDICT verdict;
    const char* path; /* "process.args[0]"; "" for the whole document */
    ZNC_CONFIG_TYPE expected;
    const char* found; /* "nothing", "null", "a string", "a number", "a boolean", "an array" or
                          "an object"; the reason, if the platform refused the member */
    const char* value; /* the text of a string, else NULL */
} ZNC_CONFIG_FINDING;

typedef void (*ZNC_CONFIG_FUNC)(const ZNC_CONFIG_FINDING* finding, void* context);

/*
 * Read `len` bytes of JSON as zncCreate's daemon reads a bundle's "config.json", and call `func`
 * for each member that would be refused, misread or ignored. OK without a call if there is none. Of
 * members whose keys differ in case only, the first is read. Members that the platform reads
 * (users, rights, limits, "linux") are checked by it if nothing else is refused, and only the first
 * that it refuses is reported. What is passed to `func` is valid only during the call. Errors:
 * EINVAL (NULL, or not JSON), ENOMEM; `func` may have been called before.
 */
STATUS zncConfigCheck(const char* text, size_t len, ZNC_CONFIG_FUNC func, void* context);

/* What zncStoreCollect can remove. */
typedef enum zncStoreKind {
    ZNC_STORE_LAYER = 0,
    ZNC_STORE_TREE = 1,   /* a flattened tree, current or replaced */
    ZNC_STORE_DEVICE = 2, /* the overlay device of an image */
    ZNC_STORE_BUNDLE = 3  /* a bundle in the base's own directory "bundles" */
} ZNC_STORE_KIND;

typedef void (*ZNC_STORE_FUNC)(ZNC_STORE_KIND kind, const char* path, void* context);

/*
 * Remove everything that is not needed from the storage base (zncBasePathGet): layers, flattened
 * trees, overlay devices of images, and bundles in the base's directory "bundles". The base records
 * the bundles that were unpacked; one without its "config.json" counts as deleted. The caller must
 * name everything else that is in use, as `inUseNum` paths of bundles, roots, layers, trees or
 * devices: the bundles of all containers and the lower directories of their overlay devices.
 * Bundles in the base are kept only if they are named. `func`, which may be NULL, is called for
 * each item that is removed, or with ZNC_OPT_DRY_RUN in `option`, which removes nothing, for each
 * that would be. If something cannot be removed, continues and returns ERROR with the first errno.
 * Removes nothing and fails with EBUSY during an unpack, and with EBADMSG if a record cannot be
 * read.
 */
STATUS zncStoreCollect(const char* const* inUse, uint32_t inUseNum, unsigned int option,
                       ZNC_STORE_FUNC func, void* context);

/* ------------------------------------------------------------------ errors and utilities */

/*
 * The version of the library that is loaded, in the form of ZNC_VERSION. (ZNC_VERSION is the
 * version of the header that the program was compiled with.) Never NULL.
 */
const char* zncVersionGet(void);

/* Print "Error: <message>.\n" on standard output; nothing for 0. errno is not changed. */
void zncUtilShowErr(int errCode);

/*
 * Delete a file or a directory tree. WARNING: symbolic links to directories are followed: the files
 * in the target are deleted, and the call never returns, because the link itself is not removed.
 * Use zncImageBundleDelete for trees that may contain links. Nor does the call return if a
 * directory below `source` cannot be emptied or removed. ERROR with EINVAL for NULL, otherwise with
 * the errno of the failing system call. Failure to remove `source` itself, if it is a directory, is
 * not reported.
 */
STATUS zncUtilXdelete(const char* source);

/*
 * Print `prompt_info` and read one line from the terminal on standard input, with echo turned off,
 * into `credential` (at most `credential_size` - 1 bytes; the rest stays unread). Echo stays off
 * afterwards. Blocks. ERROR with ENOTTY without a terminal, without errno at end of input.
 */
ZNC_NODISCARD STATUS zncUtilCredGetFromStdin(char* credential, size_t credential_size,
                                             const char* prompt_info);

/* The library's number of a signal, by its name without "SIG" ("KILL" is 9); -1 if unknown or NULL.
 */
int zncUtilSignalNo(const char* sigstr);

/* "creating", "created", "running" or "stopped"; "unknown" for every other number. */
const char* zncUtilStateIdToString(int state);

/*
 * Write `len` bytes as 2 x `len` lower-case hexadecimal digits and a NUL. ERROR with EINVAL for
 * NULL pointers, zero sizes, or a buffer of less than 2 x `len` + 1 bytes.
 */
STATUS zncUtilBinToHex(char* output, size_t outBufSize, uint8_t* input, size_t len);

/* Extract a layer archive, plain or gzip, into an existing directory: zncTarExtract, 200 blocks. */
ZNC_NODISCARD STATUS zncUtilUntar(const char* srcTarFile, const char* desPath);

/* ------------------------------------------------------------------ archives */

/*
 * Extract the ustar archive `pTape`, plain or gzip-compressed, into the existing directory
 * `targetDir`, reading `bfactor` blocks of 512 bytes at a time (0: 20). Nothing is ever written
 * outside the directory: ".." is refused (EPERM), absolute names are taken relative to it, and no
 * member is written through a symbolic link (ENOTDIR, also if a component of the path is a file).
 * Regular files, directories (their names end with "/") and symbolic links are created; other
 * members are skipped. On ERROR, members that were already extracted are not removed. Errors:
 * EINVAL, ENAMETOOLONG, EFBIG (a member of 4 GiB or more), those of system calls; errno is not set
 * for a damaged archive. `verbose` has no effect.
 */
ZNC_NODISCARD STATUS zncTarExtract(const char* pTape, const char* targetDir, size_t bfactor,
                                   BOOL verbose);

/* What zncLayerCheck finds. */
typedef enum zncLayerFinding {
    /* left out or changed; the rest is extracted */
    ZNC_LAYER_MODE = 0,            /* set-id or sticky bits are not set */
    ZNC_LAYER_OWNER = 1,           /* its owner is not root, and is not set */
    ZNC_LAYER_WHITEOUT = 2,        /* a whiteout is extracted as an ordinary file */
    ZNC_LAYER_NOT_MADE = 3,        /* member of a type that is not extracted */
    ZNC_LAYER_NO_FILE = 4,         /* a file whose name is an existing directory: skipped */
    ZNC_LAYER_DATA_AS_MEMBERS = 5, /* not extracted, and its data is parsed as members */
    ZNC_LAYER_SIZE_FORM = 6,       /* its size is not in octal digits: read as 0, and its data
                                      is parsed as members */
    ZNC_LAYER_LENGTH = 7,          /* of the archive: not a multiple of 512; ERROR unless the
                                      end mark has been read before */
    /* extracting ends here with ERROR */
    ZNC_LAYER_COMPRESSION = 16, /* of the archive: compressed, but not by gzip; `member` is
                                   the name of the format */
    ZNC_LAYER_CHECKSUM = 17,    /* the header is damaged */
    ZNC_LAYER_TOO_LARGE = 18,   /* 4 GiB or more */
    ZNC_LAYER_NAME = 19,        /* ".." in the name */
    ZNC_LAYER_NO_PARENT = 20,   /* its parent directory is missing */
    ZNC_LAYER_PARENT = 21,      /* a link or a file where its directory should be */
    ZNC_LAYER_LINK_EXISTS = 22, /* a symbolic link whose name exists already */
    ZNC_LAYER_LINK_EMPTY = 23,  /* a symbolic link without a target */
    ZNC_LAYER_CUT = 24,         /* the archive ends within it */
    ZNC_LAYER_NO_END = 25,      /* of the archive: there is no end mark */
    /* of the archive */
    ZNC_LAYER_DIGEST = 32, /* does not match `digest`: ignore all other findings */
    ZNC_LAYER_DIFF_ID = 33 /* the decompressed archive does not match `diffId` */
} ZNC_LAYER_FINDING;

typedef struct zncLayerReport {
    ZNC_LAYER_FINDING finding;
    const char* member; /* its name in the archive; "" for the archive itself */
    char type;          /* its type in the archive */
    BOOL directory;     /* it would become a directory, whatever its type */
    uint32_t mode;      /* its mode in the archive, with the bits above 0777 */
} ZNC_LAYER_REPORT;

/* `report` and its text are valid only during the call. */
typedef void (*ZNC_LAYER_FUNC)(const ZNC_LAYER_REPORT* report, void* context);

/*
 * Perform a dry run: read the layer archive `layerFile` as an extraction by zncUtilUntar, as root
 * into an empty directory, would, create nothing, and call `func` for each loss or error, in the
 * order of the archive. The file is read once and compared with `digest`, its decompressed content
 * with `diffId` (NULL: not known); both are "sha256:" or "sha512:" and digits. The names of all
 * members are kept in memory during the call. OK if the archive would be extracted and matches the
 * digests; otherwise ERROR with the errno of the extraction (0 for a damaged archive),
 * S_zncLib_MANIFEST_INVALID (the digest differs or is invalid), S_zncLib_CONFIG_INVALID (the diff
 * ID differs or is invalid), EINVAL (`layerFile` or `func` is NULL; not a regular file), ENOMEM.
 */
STATUS zncLayerCheck(const char* layerFile, const char* digest, const char* diffId,
                     ZNC_LAYER_FUNC func, void* context);

/* A source of archive bytes. `read` is called with a pointer to this structure. */
typedef struct tarCompress {
    /* Up to `maxbytes` bytes into `buffer`: their number, 0 at the end, -1 on error. */
    ssize_t (*read)(void* handle, void* buffer, size_t maxbytes);
} TAR_COMPRESS;

typedef struct gzFile_s* gzFile;
typedef struct gzArchive GZ_ARCHIVE; /* begins with a TAR_COMPRESS */

/*
 * Read a gzip file of one member. ugzopen returns NULL (without errno) if the file is not gzip;
 * `mode` must not be NULL and is ignored. ugzread reads up to `len` bytes and returns their number,
 * 0 at the end, -1 for NULL arguments or a `len` of 0; it trusts the length in the trailer and does
 * not report damaged data. ugzclose returns 0, or -1 for NULL. One task at a time per file.
 */
ZNC_NODISCARD gzFile ugzopen(const char* fileName, const char* mode);
int ugzread(gzFile file, void* buf, unsigned int len);
int ugzclose(gzFile file);

/* A gzip file as a source for archive readers. NULL if the file is not gzip. Delete accepts NULL.
 */
ZNC_NODISCARD GZ_ARCHIVE* zncGzArchiveCreate(const char* fileName);
void zncGzArchiveDelete(void* handle);

/* ------------------------------------------------------------------ storage and overlay devices */

typedef enum zncBasePathType {
    ZNC_LAYER_PATH = 0,      /* <base>/layers */
    ZNC_FLATTENED_PATH = 1,  /* <base>/flattened/ */
    ZNC_CONTAINERS_PATH = 2, /* <base>/containers/ */
    ZNC_VFSDEV_PATH = 3      /* not supported */
} zncBasePathType;

/*
 * Write the directory of a storage area into `path` and create it. The base is the environment
 * variable ZNC_BASE if it is an absolute path, else the default of the build: "/ram0/znc" unless it
 * was configured, as packages are. Returns the length of the text, or 0 with ENOTSUP (no such
 * area), ENAMETOOLONG, EPERM (another user owns a directory of the path or can write to it) or an
 * error of mkdir().
 */
ZNC_NODISCARD size_t zncBasePathGet(char* path, size_t bufLen, uint32_t type);

/* Whether overlay devices can be created, that is, whether "/overlay" can be opened. Checked in
 * each call. */
BOOL zncOvlFsAvailable(void);

/*
 * Create the overlay device `pDevName` from `dirNum` directories, topmost first. With `hasUpper`
 * the first one is writable. Requires the right to mount. ERROR with EEXIST if the device exists,
 * or the errno of a system call.
 */
ZNC_NODISCARD STATUS zncCreateOvlRootfsDev(const char* pDevName, const char** pDirsPath,
                                           uint32_t dirNum, BOOL hasUpper);

/* Detach an overlay device. ERROR with the errno of the system call. */
STATUS zncRemoveOvlRootfsDev(const char* pDevName);

/* ------------------------------------------------------------------ bundle configuration */

/*
 * A bundle's "config.json" in memory. All text points into `tree` and lives as long as the record.
 * Counts of absent arrays are 0. Lists of text end with NULL beyond their count; an element that
 * is not text is NULL.
 */
typedef struct runtimeSpecConfigAnnotations {
    char** k;
    char** v;
    int32_t count;
    struct cJSON* tree;
} runtimeSpecConfigAnnotations;

typedef struct runtimeSpecConfigProcess {
    char** args;
    int32_t argCount;
    char** env; /* NULL: absent */
    int32_t envCount;
    char* cwd;
    bool terminal;
    struct cJSON* tree;
} runtimeSpecConfigProcess;

typedef struct runtimeHookNodeFunc {
    char* rtpPath;
    char** args;
    int32_t argsCnt;
    char** env;
    int32_t envCnt;
} runtimeHookNode;

typedef struct runtimeSpecConfigHook {
    int32_t nodeCnt;
    runtimeHookNode** hookNode;
    struct cJSON* tree;
} runtimeSpecConfigHook;

typedef struct runtimeSpecConfigRoot {
    char* path;
    bool ro;
    struct cJSON* tree;
} runtimeSpecConfigRoot;

/*
 * Settings of the process, from the member "zarnel"."rtp". Each value is a string (decimal, 0x...
 * or 0...); other types leave the default. The values are checked when the program is started.
 */
typedef struct runtimeSpecConfigZarnel {
    int32_t option;   /* "rtpOptions", default 0: process options, no meaning on Linux */
    int32_t priority; /* "rtpPriority", default 100: 0 most urgent to 255; 100 is nice 0 on Linux */
    int32_t stackSize;  /* "rtpStackSize", default 8192: bytes of stack at least */
    int32_t taskOption; /* "rtpTaskOptions", default 0: task options, no meaning on Linux */
    struct cJSON* tree; /* the member "zarnel"; NULL if it is absent */
} runtimeSpecConfigZarnel;

typedef struct runtimeSpecConfigMount {
    char* src;
    char* dst;
    char** opt;
    size_t optLen; /* not set; `opt` ends with NULL */
    char* type;
} runtimeSpecConfigMount;

typedef struct runtimeSpecConfigMounts {
    int32_t count;
    runtimeSpecConfigMount** mount;
    struct cJSON* tree;
} runtimeSpecConfigMounts;

/* Hook kinds: prestart, createRuntime, createContainer, startContainer, poststart, poststop. */
#define RUNTIME_HOOK_KINDS 6

typedef struct runtimeSpecConfig {
    char* version;
    char* hostName;
    runtimeSpecConfigAnnotations* annotations;
    runtimeSpecConfigProcess* process; /* never NULL */
    runtimeSpecConfigHook* hooks[RUNTIME_HOOK_KINDS];
    runtimeSpecConfigRoot* root;
    runtimeSpecConfigZarnel* zarnel; /* never NULL */
    runtimeSpecConfigMounts* mounts;
    struct cJSON* tree; /* the document */
} runtimeSpecConfig;

/*
 * Read the file `path`. NULL with errno set if it is missing (ENOENT) or cannot be read, EINVAL if
 * it is not JSON or has no "process" with "args", or ENOMEM. The caller frees the record, with
 * everything that it points to, by zncDestroyRuntimeSpec; NULL is allowed. Only one task may use a
 * record at a time.
 */
ZNC_NODISCARD runtimeSpecConfig* zncInitializeRuntimeSpec(const char* path);
void zncDestroyRuntimeSpec(runtimeSpecConfig* config);

/* ------------------------------------------------------------------ the daemon's side
 *
 * For the process that embeds the daemon. The registry belongs to the daemon's task; other tasks of
 * the same process may call it too, but a container whose process handle was stored stays locked by
 * the daemon task: other tasks cannot find it (ENODEV).
 */

/*
 * Serve requests on "/znc" until receiving fails; the caller runs it on a task of its own and ends
 * it with the platform's stop descriptor (znTaskStopFdSet; not available to users of the public
 * headers). Always returns ERROR, with EEXIST if the queue exists already.
 */
STATUS zncDaemonTask(void);

typedef struct containerState {
    char* owner;               /* always NULL */
    int32_t status;            /* a CONTAINER_STATUS */
    struct containerCtx* pCtx; /* the container; only inside the daemon */
    time_t createdTime;        /* when it was created: seconds since 1970-01-01 00:00 UTC */
    char ver[64];              /* "ociVersion" of its config.json */
    char containerId[255];     /* cut to 254 bytes */
    char bundlePath[1024];     /* an absolute path */
} CONTAINER_STATE;

/*
 * How to spawn a container's process. The strings and lists belong to the container and are valid
 * until it is deleted.
 */
typedef struct containerStartParm {
    const char* appPath; /* the program, as a path of the host below the container's root */
    int32_t option;      /* these four: see runtimeSpecConfigZarnel */
    int32_t priority;
    int32_t stackSize; /* bytes */
    int32_t taskOption;
    nsid_t nsId;        /* the namespace to spawn it in */
    const char* cwd;    /* its working directory, an absolute path inside the root */
    int16_t posixFlags; /* spawn flags, always 0x180; no meaning on Linux */
    char** arg;         /* its arguments, the first is its name; NULL-terminated */
    int32_t argNum;     /* not counting the NULL */
    char** env;         /* "NAME=value", NULL-terminated; NULL itself: an empty environment */
    int32_t envNum;     /* not counting the NULL */
} CONTAINER_START_PARM;

/* Initialise the registry. Call before the functions below; further calls have no effect. ERROR
 * with ENOMEM. */
STATUS zncContainerInit(void);

/*
 * Carry out the requests of zncCreate, zncKill and zncDelete, with the same errors. They return
 * when all mounts and namespaces have been created or removed; large directories of a deleted
 * container are removed later by a background thread.
 */
ZNC_NODISCARD STATUS zncContainerCreate(const char* containerId, const char* bundlePath,
                                        unsigned int option, ZNC_ATTR* pAttr);
STATUS zncContainerKill(const char* containerId, int signo, unsigned int option);
STATUS zncContainerDelete(const char* containerId, unsigned int option);

/*
 * Mark a created container as running and fill `param` with the parameters for spawning its
 * process. On ERROR `param` is unchanged: EINVAL (NULL), ENODEV, EBUSY (not in STATE_CREATED).
 */
ZNC_NODISCARD STATUS zncContainerStart(const char* containerId, CONTAINER_START_PARM* param);

/*
 * Record the spawned process. On OK the calling task intentionally keeps the container locked (the
 * lock is recursive). Errors: EINVAL, ENODEV.
 */
STATUS zncContainerStorePidHandle(const char* containerId, OBJ_HANDLE pidHandle);

/*
 * Copy the state of a container. If it is marked running but has no processes any more, its state
 * is first changed to STATE_STOPPED. On ERROR `pState` is unchanged: EINVAL, ENODEV.
 */
ZNC_NODISCARD STATUS zncContainerStateGet(char* containerId, CONTAINER_STATE* pState);

/*
 * Replace the id in a buffer of 256 bytes by the next one in ascending order; start with "". FALSE
 * at the end, or with EINVAL for NULL or an overlong id.
 */
BOOL zncContainerNext(char* containerId);

#ifdef __clang__
#pragma clang diagnostic pop
#endif
ZNC_END_DECLS
#endif
