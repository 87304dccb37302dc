// image_user.hpp - the user in a bundle that was unpacked from an image. The library writes the
// image's "User" to "process.usr" in config.json, with numbers only; it is meant for Zarnel and has
// no effect here. This module looks the user up in the image's own passwd and group files and
// writes it to "process.user", which the daemon applies. Used by image_bundle.
#ifndef ZNC_CLI_CONTAINERS_IMAGE_USER_HPP
#define ZNC_CLI_CONTAINERS_IMAGE_USER_HPP

#include <string>

namespace zncctl {

// Writes the user, and HOME unless the image sets it, into the config.json of a bundle that was
// just unpacked, and syncs it. False with a message in `problem` if there is no such user or the
// file cannot be written.
bool set_image_user(const std::string& bundle, const std::string& user, std::string& problem);

// Lets all users of a container just created enter its root. Directories of the layer store are
// closed to other users of the host, and the root of a container with overlayfs has the mode of
// such a directory. Changes only the container's own root, if the root of its bundle is from the
// store; /overlay is closed to other users of the host as well. False with errno set.
bool open_root_to_users(const std::string& id, const std::string& bundle);

} // namespace zncctl

#endif
