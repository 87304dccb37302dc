#include "layout_builder.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <mbedtls/md.h>

namespace layout {

namespace {

std::string hash_hex(mbedtls_md_type_t type, std::string_view bytes)
{
    std::array<unsigned char, MBEDTLS_MD_MAX_SIZE> hash = {};
    const mbedtls_md_info_t* info = mbedtls_md_info_from_type(type);
    if (mbedtls_md(info, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                   hash.data()) != 0)
        throw std::runtime_error("hash");
    std::string hex;
    for (unsigned i = 0; i < mbedtls_md_get_size(info); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", hash[i]);
        hex += digits;
    }
    return hex;
}

std::string octal(unsigned long value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "%0*lo", digits, value);
    return text;
}

std::string joined(const std::vector<std::string>& parts)
{
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ",") + part;
    return text;
}

void put(std::string& block, std::size_t at, const std::string& text)
{
    block.replace(at, text.size(), text);
}

} // namespace

std::string sha256_hex(std::string_view bytes)
{
    return hash_hex(MBEDTLS_MD_SHA256, bytes);
}
std::string sha512_hex(std::string_view bytes)
{
    return hash_hex(MBEDTLS_MD_SHA512, bytes);
}

std::string raw_bytes(std::string_view hex)
{
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return bytes;
}

TempDir::TempDir()
{
    char name[] = "/tmp/image_test_XXXXXX";
    if (::mkdtemp(name) == nullptr)
        throw std::runtime_error("mkdtemp");
    path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

Member directory(const std::string& name, unsigned mode)
{
    Member member;
    member.name = name;
    member.type = '5';
    member.mode = mode;
    return member;
}

Member symlink(const std::string& name, const std::string& target)
{
    Member member;
    member.name = name;
    member.type = '2';
    member.link = target;
    member.mode = 0777;
    return member;
}

std::string tar(const std::vector<Member>& members)
{
    std::string archive;
    for (const Member& member : members) {
        std::string block(512, '\0');
        put(block, 0, member.name);
        put(block, 100, octal(member.mode, 7));
        put(block, 108, octal(0, 7));
        put(block, 116, octal(0, 7));
        put(block, 124, octal(member.content.size(), 11));
        put(block, 136, octal(static_cast<unsigned long>(member.mtime), 11));
        put(block, 148, "        ");
        block[156] = member.type;
        put(block, 157, member.link);
        put(block, 257,
            std::string("ustar\0"
                        "00",
                        8));
        unsigned sum = 0;
        for (const char c : block)
            sum += static_cast<unsigned char>(c);
        put(block, 148, octal(sum, 6) + std::string("\0 ", 2));
        archive += block + member.content;
        archive.resize((archive.size() + 511) / 512 * 512, '\0');
    }
    archive.append(1024, '\0');
    return archive;
}

std::string gzip(const std::string& bytes)
{
    const TempDir dir;
    write_file(dir / "plain", bytes);
    const std::string command = "gzip -n " + (dir / "plain");
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("gzip");
    return read_file(dir / "plain.gz");
}

std::string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const fs::path& path, std::string_view bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

std::string json_text(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + '"';
}

std::string descriptor(const std::string& type, const std::string& digest, std::size_t size,
                       const std::string& extra)
{
    return "{\"mediaType\":" + json_text(type) + ",\"digest\":" + json_text(digest) +
           ",\"size\":" + std::to_string(size) + extra + "}";
}

Layout::Layout(fs::path dir) : dir_(std::move(dir))
{
    fs::create_directories(dir_ / "blobs" / "sha256");
    write_file(dir_ / "oci-layout", R"({"imageLayoutVersion":"1.0.0"})");
}

fs::path Layout::blob(const std::string& digest) const
{
    std::string name = digest;
    name.replace(name.find(':'), 1, "/");
    return dir_ / "blobs" / name;
}

std::string Layout::add_blob(std::string_view bytes) const
{
    const std::string digest = "sha256:" + sha256_hex(bytes);
    write_file(blob(digest), bytes);
    return digest;
}

std::string Layout::add_described(std::string_view bytes, const std::string& type) const
{
    return descriptor(type, add_blob(bytes), bytes.size());
}

std::string Layout::config_json(const Image& image) const
{
    std::vector<std::string> ids;
    for (const std::string& id : image.diff_ids)
        ids.push_back(json_text(id));
    if (ids.empty())
        for (const std::string& layer : image.layers)
            ids.push_back(json_text("sha256:" + sha256_hex(layer)));
    const std::string section = image.section.empty() ? "" : ",\"config\":" + image.section;
    return "{\"architecture\":" + json_text(image.arch) + ",\"os\":" + json_text(image.os) +
           section + image.config_extra + R"(,"rootfs":{"type":"layers","diff_ids":[)" +
           joined(ids) + "]}}";
}

std::string Layout::manifest_json(const std::string& config_descriptor,
                                  const std::vector<std::string>& layer_descriptors) const
{
    return "{\"schemaVersion\":2,\"config\":" + config_descriptor + ",\"layers\":[" +
           joined(layer_descriptors) + "]}";
}

void Layout::add(const Image& image)
{
    std::vector<std::string> layers;
    for (const std::string& layer : image.layers)
        layers.push_back(add_described(layer, image.layer_type));
    std::string extra;
    if (!image.name.empty() || !image.annotations_extra.empty()) {
        std::vector<std::string> members;
        if (!image.name.empty())
            members.push_back("\"org.opencontainers.image.ref.name\":" + json_text(image.name));
        if (!image.annotations_extra.empty())
            members.push_back(image.annotations_extra);
        extra += ",\"annotations\":{" + joined(members) + "}";
    }
    if (!image.platform.empty())
        extra += ",\"platform\":" + image.platform;
    add_manifest(manifest_json(add_described(config_json(image), kConfigType), layers), extra);
}

void Layout::add_manifest(const std::string& manifest, const std::string& entry_extra)
{
    add_entry(descriptor(kManifestType, add_blob(manifest), manifest.size(), entry_extra));
}

void Layout::add_entry(const std::string& entry)
{
    entries_.push_back(entry);
    write_index();
}

void Layout::write_index(const std::string& schema_version) const
{
    write_file(dir_ / "index.json", "{\"schemaVersion\":" + schema_version + ",\"manifests\":[" +
                                        joined(entries_) + "]}");
}

} // namespace layout
