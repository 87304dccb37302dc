// Digests of known messages, of pieces of any length, and as two libraries compute them; built once
// with each provider.
#include "format/digest.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include <mbedtls/md.h>
#include <nettle/sha2.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using znc::Digest;
using znc::DigestAlgorithm;

struct Known {
    std::string message;
    const char* sha256;
    const char* sha512;
};

const Known kKnown[] = {
    {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
     "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
     "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e"},
    {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1",
     "204a8fc6dda82f0a0ced7beb8e08a41657c16ef468b228a8279be331a703c335"
     "96fd15c13b1b07f9aa1d3bea57789ca031ad85c7a71dd70354ec631238ca3445"},
    {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
     "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu",
     "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1",
     "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
     "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909"},
    {std::string(1'000'000, 'a'),
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0",
     "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
     "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b"},
};

std::string text_of(std::string_view message, DigestAlgorithm algorithm = DigestAlgorithm::kSha256)
{
    Digest digest(algorithm);
    digest.add(message.data(), message.size());
    return std::string(digest.text().view());
}

std::string hex(const unsigned char* bytes, std::size_t count)
{
    std::string text;
    for (std::size_t i = 0; i < count; i++) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        text += pair;
    }
    return text;
}

std::string by_mbedtls(std::string_view message, bool wide)
{
    unsigned char out[64];
    const auto* info = mbedtls_md_info_from_type(wide ? MBEDTLS_MD_SHA512 : MBEDTLS_MD_SHA256);
    EXPECT_EQ(mbedtls_md(info, reinterpret_cast<const unsigned char*>(message.data()),
                         message.size(), out),
              0);
    return (wide ? "sha512:" : "sha256:") + hex(out, wide ? 64 : 32);
}

std::string by_nettle(std::string_view message, bool wide)
{
    unsigned char out[64];
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(message.data());
    if (wide) {
        sha512_ctx context;
        sha512_init(&context);
        sha512_update(&context, message.size(), bytes);
        sha512_digest(&context, 64, out);
    } else {
        sha256_ctx context;
        sha256_init(&context);
        sha256_update(&context, message.size(), bytes);
        sha256_digest(&context, 32, out);
    }
    return (wide ? "sha512:" : "sha256:") + hex(out, wide ? 64 : 32);
}

std::string random_bytes(std::size_t count, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(count, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

const std::string computed_before_main = text_of("abc");

TEST(Digest, KnownMessagesHaveTheirValues)
{
    for (const Known& known : kKnown) {
        EXPECT_EQ(text_of(known.message), std::string("sha256:") + known.sha256);
        EXPECT_EQ(text_of(known.message, DigestAlgorithm::kSha512),
                  std::string("sha512:") + known.sha512);
    }
}

TEST(Digest, AMessageInTwoPiecesIsTheSameWhereverItIsCut)
{
    const std::string message = random_bytes(400, 1);
    for (const auto algorithm : {DigestAlgorithm::kSha256, DigestAlgorithm::kSha512}) {
        const std::string whole = text_of(message, algorithm);
        for (std::size_t cut = 0; cut <= message.size(); cut++) {
            Digest digest(algorithm);
            digest.add(message.data(), cut);
            digest.add(message.data() + cut, message.size() - cut);
            ASSERT_EQ(digest.text().view(), whole) << cut;
        }
    }
}

TEST(Digest, AMessageInPiecesOfAnyLengthIsTheSame)
{
    const std::string message = random_bytes(1500, 2);
    for (const auto algorithm : {DigestAlgorithm::kSha256, DigestAlgorithm::kSha512}) {
        const std::string whole = text_of(message, algorithm);
        for (std::size_t piece = 1; piece <= 300; piece++) {
            Digest digest(algorithm);
            for (std::size_t at = 0; at < message.size(); at += piece)
                digest.add(message.data() + at, std::min(piece, message.size() - at));
            ASSERT_EQ(digest.text().view(), whole) << piece;
        }
    }
}

TEST(Digest, BothLibrariesComputeTheSame)
{
    std::vector<std::size_t> lengths;
    for (std::size_t length = 0; length <= 300; length++)
        lengths.push_back(length);
    lengths.insert(lengths.end(), {4095, 4096, 65'537, 1'000'003});
    for (const std::size_t length : lengths) {
        const std::string message = random_bytes(length, static_cast<unsigned>(length));
        ASSERT_EQ(text_of(message), by_nettle(message, false)) << length;
        ASSERT_EQ(text_of(message), by_mbedtls(message, false)) << length;
        ASSERT_EQ(text_of(message, DigestAlgorithm::kSha512), by_nettle(message, true)) << length;
        ASSERT_EQ(text_of(message, DigestAlgorithm::kSha512), by_mbedtls(message, true)) << length;
    }
}

TEST(Digest, FinishWritesTheBinaryDigest)
{
    std::array<unsigned char, Digest::kMax> out = {};
    Digest narrow;
    narrow.add("abc", 3);
    EXPECT_EQ(narrow.size(), 32U);
    ASSERT_TRUE(narrow.finish(out.data()));
    EXPECT_EQ(hex(out.data(), 32), kKnown[1].sha256);
    EXPECT_EQ(out[32], 0); // nothing behind them
    Digest wide(DigestAlgorithm::kSha512);
    wide.add("abc", 3);
    EXPECT_EQ(wide.size(), 64U);
    ASSERT_TRUE(wide.finish(out.data()));
    EXPECT_EQ(hex(out.data(), 64), kKnown[1].sha512);
}

TEST(Digest, DigestCanBeReadOnlyOnce)
{
    std::array<unsigned char, Digest::kMax> out = {};
    Digest digest;
    EXPECT_TRUE(digest.text());
    EXPECT_FALSE(digest.text());
    digest.add("abc", 3);
    EXPECT_FALSE(digest.finish(out.data()));
    EXPECT_EQ(out[0], 0);
}

TEST(Digest, CopyIsIndependentOfTheOriginal)
{
    Digest first;
    first.add("ab", 2);
    Digest second = first;
    first.add("c", 1);
    second.add("d", 1);
    EXPECT_EQ(first.text().view(), text_of("abc"));
    EXPECT_EQ(second.text().view(), text_of("abd"));
}

TEST(Digest, BeforeMainTheValueIsTheSame)
{
    EXPECT_EQ(computed_before_main, text_of("abc"));
}

TEST(Digest, ThreadsDoNotDisturbEachOther)
{
    const std::string message = random_bytes(100'000, 3);
    const std::string want = by_nettle(message, false);
    std::vector<std::string> got(8);
    std::vector<std::thread> threads;
    for (std::string& text : got)
        threads.emplace_back([&] {
            for (int round = 0; round < 20; round++)
                text = text_of(message);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& text : got)
        EXPECT_EQ(text, want);
}

TEST(Digest, ComputationContinuesInAForkedChild)
{
    Digest digest;
    digest.add("ab", 2);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    digest.add("c", 1);
    const bool right = digest.text().view() == text_of("abc");
    if (child == 0)
        ::_exit(right ? 0 : 1);
    EXPECT_TRUE(right);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(DigestText, OnlyWholeDigestsInLowerCaseAreDigests)
{
    const std::string narrow(64, 'a');
    const std::string wide(128, '0');
    EXPECT_TRUE(znc::is_digest("sha256:" + narrow));
    EXPECT_TRUE(znc::is_digest("sha512:" + wide));
    for (const std::string& text :
         {std::string(), std::string("sha256"), std::string("sha256:"), narrow, "sha256:" + wide,
          "sha512:" + narrow, "sha256:" + narrow + "a", "sha256:" + narrow.substr(1),
          "sha256:" + narrow.substr(1) + "g", "sha256:" + narrow.substr(1) + "A",
          "SHA256:" + narrow, "md5:" + narrow.substr(32), "sha384:" + wide.substr(32),
          " sha256:" + narrow, "sha256:" + narrow.substr(1) + "\n",
          "sha256:" + narrow.substr(3) + "/..",
          "sha256:" + narrow.substr(1) + std::string(1, '\0')})
        EXPECT_FALSE(znc::is_digest(text)) << text;
}

TEST(DigestText, TheAlgorithmStandsBeforeTheColon)
{
    EXPECT_EQ(znc::digest_algorithm("sha256"), DigestAlgorithm::kSha256);
    EXPECT_EQ(znc::digest_algorithm("sha512:00"), DigestAlgorithm::kSha512);
    for (const char* text : {"", ":", "sha", "SHA256", "sha2566", "sha384:00", ":sha256", "md5:x"})
        EXPECT_EQ(znc::digest_algorithm(text), std::nullopt) << text;
}

} // namespace
