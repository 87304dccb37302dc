// zncImageLib_config.cpp - writes a bundle's "config.json" from the configuration of the chosen
// image. Values of the image are referenced, not copied, so that the document must be deleted
// before the image.
#include "zncImageLib.hpp"

#include "base/failure.hpp"
#include "cJSON_Additions.h"

#include <cstring>

using znc::add;
using znc::kTextBound;

namespace {

constexpr mode_t kConfigMode = 0660;
constexpr char kRtpPrefix[] = "com.quenmark.zarnel.rtp";

cJSON* config_document(OCI_IMAGE* image)
{
    const ZNC_IMAGE_MANIFEST* manifest = znc::chosen_manifest(image);
    return manifest != nullptr ? manifest->manifestConfig.imageConfig.imageConfigJson : nullptr;
}

// The "config" object of the image configuration, which holds the execution parameters; null if
// there is none.
cJSON* execution_section(OCI_IMAGE* image)
{
    return cJSON_GetObjectItem(config_document(image), "config");
}

cJSON* first_member(cJSON* parent, const char* name)
{
    const cJSON* object = cJSON_GetObjectItem(parent, name);
    return object != nullptr ? object->child : nullptr;
}

bool add_text(cJSON* object, const char* key, const char* text)
{
    return add(object, key, znc::CJsonPtr(cJSON_CreateString(text)));
}

bool append(cJSON* array, znc::CJsonPtr item)
{
    if (!item || cJSON_AddItemToArray(array, item.get()) == 0)
        return false;
    (void)item.release();
    return true;
}

// Like cJSON_AddItemReferenceToObject, but without a copy of the key.
bool add_reference(cJSON* object, const char* key, const cJSON* item)
{
    znc::CJsonPtr reference(cJSON_CreateNull());
    if (!reference)
        return false;
    *reference = *item;
    reference->type = (item->type & ~cJSON_StringIsConst) | cJSON_IsReference;
    reference->string = nullptr;
    reference->next = nullptr;
    reference->prev = nullptr;
    return add(object, key, std::move(reference));
}

bool add_member_reference(cJSON* object, const char* key, cJSON* parent, const char* name)
{
    const cJSON* item = cJSON_GetObjectItem(parent, name);
    return item == nullptr || add_reference(object, key, item);
}

bool append_references(cJSON* array, cJSON* parent, const char* name)
{
    for (cJSON* item = first_member(parent, name); item != nullptr; item = item->next)
        if (cJSON_AddItemReferenceToArray(array, item) == 0)
            return false;
    return true;
}

bool is_rtp_label(const cJSON* label)
{
    return label->string != nullptr && strHasPrefix(label->string, kRtpPrefix) == TRUE;
}

bool add_exposed_ports(cJSON* annotations, cJSON* section)
{
    // Several ports produce several members with the same key.
    for (const cJSON* port = first_member(section, "ExposedPorts"); port != nullptr;
         port = port->next)
        if (port->string != nullptr &&
            !add_text(annotations, "org.opencontainers.image.exposedPorts", port->string))
            return false;
    return true;
}

bool add_labels(cJSON* annotations, cJSON* section)
{
    for (const cJSON* label = first_member(section, "Labels"); label != nullptr;
         label = label->next)
        if (label->string != nullptr && !is_rtp_label(label) &&
            !add_reference(annotations, label->string, label))
            return false;
    return true;
}

// The settings of the real-time process come from labels that start with kRtpPrefix. The key is the
// label without the prefix and the separator after it. A label that is just the prefix is ignored.
bool add_rtp_labels(cJSON* rtp, cJSON* section)
{
    for (const cJSON* label = first_member(section, "Labels"); label != nullptr;
         label = label->next) {
        if (!is_rtp_label(label) || label->string[sizeof kRtpPrefix - 1] == '\0')
            continue;
        if (!add_reference(rtp, label->string + sizeof kRtpPrefix, label))
            return false;
    }
    return true;
}

bool build(OCI_IMAGE* image, cJSON* root, const char* rootfs)
{
    return zncCreateOciBundleConfigVersion(image, root) == OK &&
           zncCreateOciBundleConfigProcess(image, root) == OK &&
           zncCreateOciBundleConfigRoot(image, root, rootfs) == OK &&
           zncCreateOciBundleConfigHostname(image, root) == OK &&
           zncCreateOciBundleConfigMounts(image, root) == OK &&
           zncCreateOciBundleConfigAnnotations(image, root) == OK &&
           zncCreateOciBundleConfigZarnel(image, root) == OK;
}

STATUS status(bool good)
{
    return good ? OK : ERROR;
}

// Terminates `text` at its first ":" and returns the rest, or null if there is no ":".
char* split_at_colon(char* text)
{
    char* const colon = text != nullptr ? std::strchr(text, ':') : nullptr;
    if (colon == nullptr)
        return nullptr;
    *colon = '\0';
    return colon + 1;
}

bool append_options(cJSON* array, const char* text)
{
    while (text != nullptr && *text != '\0' && *text != ',') {
        const std::size_t len = std::strcspn(text, ",");
        char piece[kTextBound] = {};
        std::memcpy(piece, text, len);
        if (!append(array, znc::CJsonPtr(cJSON_CreateString(piece))))
            return false;
        text = text[len] == ',' ? text + len + 1 : nullptr;
    }
    return true;
}

} // namespace

BOOL strHasPrefix(const char* s, const char* p)
{
    return std::strncmp(s, p, ::strnlen(p, kTextBound)) == 0 ? TRUE : FALSE;
}

STATUS zncCreateOciBundleConfig(OCI_IMAGE* image, const char* configFile, const char* rootfsPath)
{
    if (::access(configFile, F_OK) == 0)
        return znc::fail(S_zncLib_BUNDLE_CONFIG_EXISTS);
    const znc::CJsonPtr root(cJSON_CreateObject());
    if (!root)
        return ERROR;
    if (build(image, root.get(), rootfsPath) &&
        cJSON_dump_to_file(root.get(), configFile, kConfigMode) >= 0)
        return OK;
    return znc::fail(S_zncLib_BUNDLE_CONFIG_PARAM_INVALID);
}

STATUS zncCreateOciBundleConfigVersion(OCI_IMAGE* /*image*/, cJSON* rootJson)
{
    return status(add_text(rootJson, "ociVersion", "1.0.0"));
}

STATUS zncCreateOciBundleConfigProcess(OCI_IMAGE* image, cJSON* rootJson)
{
    cJSON* const section = execution_section(image);
    if (section == nullptr)
        return OK;
    znc::CJsonPtr process(cJSON_CreateObject());
    znc::CJsonPtr env(cJSON_CreateArray());
    znc::CJsonPtr args(cJSON_CreateArray());
    znc::CJsonPtr usr(cJSON_CreateObject());
    if (!process || !env || !args || !usr || !append_references(env.get(), section, "Env") ||
        !append_references(args.get(), section, "Entrypoint") ||
        !append_references(args.get(), section, "Cmd") ||
        zncImageGetUsrInfo(usr.get(), cJSON_GetStringValue(cJSON_GetObjectItem(section, "User"))) !=
            OK)
        return ERROR;
    return status(add(process.get(), "env", std::move(env)) &&
                  add_member_reference(process.get(), "cwd", section, "WorkingDir") &&
                  add(process.get(), "args", std::move(args)) &&
                  add(process.get(), "usr", std::move(usr)) &&
                  add(rootJson, "process", std::move(process)));
}

STATUS zncCreateOciBundleConfigRoot(OCI_IMAGE* /*image*/, cJSON* rootJson, const char* rootfsPath)
{
    znc::CJsonPtr root(cJSON_CreateObject());
    return status(root && rootfsPath != nullptr && add_text(root.get(), "path", rootfsPath) &&
                  add(root.get(), "readonly", znc::CJsonPtr(cJSON_CreateFalse())) &&
                  add(rootJson, "root", std::move(root)));
}

STATUS zncCreateOciBundleConfigHostname(OCI_IMAGE* /*image*/, cJSON* rootJson)
{
    return status(add_text(rootJson, "hostname", "Zarnel"));
}

STATUS zncCreateOciBundleConfigMounts(OCI_IMAGE* image, cJSON* rootJson)
{
    cJSON* const section = execution_section(image);
    // Unlike the other sections, "mounts" is mandatory: without a "config" object the bundle
    // configuration cannot be written.
    if (section == nullptr)
        return ERROR;
    znc::CJsonPtr mounts(cJSON_CreateArray());
    if (!mounts)
        return ERROR;
    for (cJSON* volume = first_member(section, "Volumes"); volume != nullptr;
         volume = volume->next) {
        znc::CJsonPtr mount(cJSON_CreateObject());
        if (!mount)
            return ERROR;
        if (zncImageGetMountInfo(mount.get(), volume->string) != OK)
            continue;
        if (!append(mounts.get(), std::move(mount)))
            return ERROR;
    }
    return status(add(rootJson, "mounts", std::move(mounts)));
}

STATUS zncCreateOciBundleConfigAnnotations(OCI_IMAGE* image, cJSON* rootJson)
{
    cJSON* const section = execution_section(image);
    if (section == nullptr)
        return OK;
    cJSON* const document = config_document(image);
    znc::CJsonPtr object(cJSON_CreateObject());
    cJSON* const out = object.get();
    return status(
        object && add_exposed_ports(out, section) && add_labels(out, section) &&
        add_member_reference(out, "org.opencontainers.image.author", document, "author") &&
        add_member_reference(out, "org.opencontainers.image.created", document, "created") &&
        add_member_reference(out, "org.opencontainers.image.stopSignal", section, "StopSignal") &&
        add(rootJson, "annotations", std::move(object)));
}

STATUS zncCreateOciBundleConfigZarnel(OCI_IMAGE* image, cJSON* rootJson)
{
    cJSON* const section = execution_section(image);
    if (section == nullptr)
        return OK;
    znc::CJsonPtr zarnel(cJSON_CreateObject());
    znc::CJsonPtr rtp(cJSON_CreateObject());
    return status(zarnel && rtp && add_rtp_labels(rtp.get(), section) &&
                  add(zarnel.get(), "resources", znc::CJsonPtr(cJSON_CreateObject())) &&
                  add(zarnel.get(), "rtp", std::move(rtp)) &&
                  add(rootJson, "zarnel", std::move(zarnel)));
}

STATUS zncImageGetUsrInfo(cJSON* usrJson, const char* usrInfo)
{
    if (usrInfo == nullptr)
        return OK;
    char text[kTextBound] = {};
    (void)znc::copy_end(text, text + sizeof text, usrInfo);
    unsigned long uid = 0;
    unsigned long gid = 0;
    if (text[0] != ':') { // without a user, the group is ignored as well
        const char* group = split_at_colon(text);
        uid = std::strtoul(text, nullptr, 0);
        gid = group != nullptr ? std::strtoul(group, nullptr, 0) : 0;
    }
    return status(
        add(usrJson, "uid", znc::CJsonPtr(cJSON_CreateNumber(static_cast<double>(uid)))) &&
        add(usrJson, "gid", znc::CJsonPtr(cJSON_CreateNumber(static_cast<double>(gid)))));
}

STATUS zncImageGetMountInfo(cJSON* mountJson, const char* mountInfo)
{
    if (mountJson == nullptr || mountInfo == nullptr)
        return ERROR;
    char text[kTextBound] = {};
    (void)znc::copy_end(text, text + sizeof text, mountInfo);
    const char* const source = text;
    char* const destination = split_at_colon(text);
    char* const options = split_at_colon(destination);
    const char* type = split_at_colon(options);
    if (type == nullptr)
        type = options != nullptr ? "" : "unknown";
    znc::CJsonPtr list(cJSON_CreateArray());
    return status(list && append_options(list.get(), options) &&
                  add_text(mountJson, "destination", destination != nullptr ? destination : "") &&
                  add_text(mountJson, "source", source) && add_text(mountJson, "type", type) &&
                  add(mountJson, "options", std::move(list)));
}
