// image_users.hpp - which containers were made from an image. Used by rmi and image prune.
#ifndef ZNC_CLI_CONTAINERS_IMAGE_USERS_HPP
#define ZNC_CLI_CONTAINERS_IMAGE_USERS_HPP

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zncctl {

// Writes into a bundle from which image it is made, by the digest of the manifest. False with errno
// set.
bool write_image_of_bundle(const std::string& bundle, const std::string& manifest);

// The digest; "" for a bundle that is not made from an image.
std::string image_of_bundle(const std::string& bundle);

// The ids of all containers made from images, by the digest of the manifest; none without a daemon.
// Nullopt with errno set if the daemon sends no list.
std::optional<std::map<std::string, std::vector<std::string>>> containers_of_images();

} // namespace zncctl

#endif
