// zncUtil_tables.cpp - error messages, signal names and state names.
#include "zncUtil.hpp"

#include <cerrno>

// Searched in this order. ESRCH and S_znProcess_NOT_RUNNING share one message.
const ZNC_UTIL_ERROR zncUtilErrorMap[kZncUtilErrors] = {
    {S_zncLib_LAYOUT_NOT_FOUND, "File oci-layout not found"},
    {S_zncLib_LAYOUT_INVALID, "Json file oci-layout invalid"},
    {S_zncLib_INDEX_NOT_FOUND, "File index.json not found"},
    {S_zncLib_INDEX_INVALID, "File index.json invalid"},
    {S_zncLib_PLATFORM_NOT_FOUND, "Specified platform or architecture or tag not found"},
    {S_zncLib_CONFIG_NOT_FOUND, "No image config found"},
    {S_zncLib_CONFIG_INVALID, "Image config invalid"},
    {S_zncLib_MANIFEST_NOT_FOUND, "No manifest found"},
    {S_zncLib_MANIFEST_INVALID, "Manifest invalid"},
    {S_zncLib_BUNDLE_CONFIG_PARAM_INVALID, "OCI bundle config.json parameter invalid"},
    {S_zncLib_BUNDLE_ROOTFS_EXISTS, "OCI bundle rootfs already exists"},
    {S_zncLib_BUNDLE_CONFIG_EXISTS, "OCI bundle config.json already exists"},
    {S_zncLib_BUNDLE_CONFIG_NOT_EXIST, "OCI bundle config.json not exists"},
    {S_zncLib_OCI_VERSION_INVALID, "OCI version invalid"},
    {S_zncLib_OCI_ROOT_INVALID, "OCI root parameter invalid"},
    {S_zncLib_OCI_CWD_INVALID, "OCI cwd parameter invalid"},
    {S_zncLib_OCI_ARG_INVALID, "OCI arg parameter invalid"},
    {S_zncLib_RTP_SPAWN_FAILED, "RTP spawn failed"},
    {S_zncLib_RUNTIME_CONFIG_LOAD_FAILED, "OCI runtime config.json not found or load failed"},
    {S_zncLib_MOUNT_FAILED, "Mount failed"},
    {S_zncLib_UNMOUNT_FAILED, "Unmount failed"},
    {ENODEV, "Container does not exist"},
    {EBUSY, "Container in use"},
    {EINVAL, "Invalid parameter"},
    {S_zncLib_CONTAINER_EXISTS, "Container already exists"},
    {S_zncLib_BUNDLE_IN_USE, "The bundle is already in use"},
    {S_zncLib_BUNDLE_PATH_TOO_LONG, "Container bundle path is too long"},
    {S_zncLib_NAMESPACE_CREATE_FAILED, "Container name space ID create failed"},
    {S_zncLib_ROOTFS_CREATE_FAILED, "Container rootfs create failed"},
    {S_zncLib_ADDITIONAL_MOUNT_FAILED, "Container additional mount failed"},
    {S_zncLib_INVALID_FORMAT_OPTION, "invalid format option"},
    {EEXIST, "Target file or directory already exists"},
    {ESRCH, "The process is not running"},
    {S_znProcess_NOT_RUNNING, "The process is not running"},
    {EROFS, "Write to read-only file system"},
    {EISDIR, "Target is a directory"},
    {ENOSPC, "No space left on device"},
    {S_zncLib_DAEMON_NOT_RUNNING, "The daemon is not running"},
    {S_zncLib_SIGNATURE_MISSING, "signature missing for signed container image"},
    {S_zncLib_SIGNATURE_VERIFY_FAILED, "signature verify failed"},
};

const SIGNALMAP signalList[kSignals] = {
    {1, "HUP"},   {2, "INT"},   {3, "QUIT"},  {4, "ILL"},   {5, "TRAP"},   {6, "ABRT"},
    {7, "EMT"},   {8, "FPE"},   {9, "KILL"},  {10, "BUS"},  {11, "SEGV"},  {12, "FMT"},
    {13, "PIPE"}, {14, "ALRM"}, {15, "TERM"}, {16, "CNCL"}, {17, "STOP"},  {18, "TSTP"},
    {19, "CONT"}, {20, "CHLD"}, {21, "TTIN"}, {22, "TTOU"}, {23, "RES1"},  {24, "RES2"},
    {25, "RES3"}, {26, "RES4"}, {27, "RES5"}, {28, "RES6"}, {29, "RES7"},  {30, "USR1"},
    {31, "USR2"}, {32, "POLL"}, {33, "PROF"}, {34, "SYS"},  {35, "URG"},   {36, "VTALRM"},
    {37, "XCPU"}, {38, "XFSZ"}, {39, "EVTS"}, {40, "EVTD"}, {48, "RTMIN"}, {63, "RTMAX"},
};

const char* const zncStateString[kStates] = {"creating", "created", "running", "stopped",
                                             "unknown"};
