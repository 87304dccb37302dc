// Tests with archives that try to write outside the target directory, and with trees that change
// during extraction. After every test the fixture checks the files next to the target.
#include "tar_fixture.hpp"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <thread>

using tarforge::Archive;
using tarforge::Field;
using tarforge::Header;

using TarHostile = TarTest;

namespace fs = std::filesystem;

namespace {

// Targets of hostile links.
const std::vector<std::string> kWays = {
    "../outside",        "..", "/", ".", "../outside/dir", "../outside/new",
    "../outside/secret", "a",  "l"};

// Returns a record of directory times as raw bytes.
std::string record(const std::string& name, time_t mtime)
{
    DIR_TAR raw{};
    std::memcpy(raw.name, name.data(), std::min(name.size(), sizeof raw.name));
    raw.mtime = mtime;
    return {reinterpret_cast<const char*>(&raw), sizeof raw};
}

} // namespace

// A member of any type does not replace an existing directory.
TEST_F(TarHostile, NoMemberReplacesADirectory)
{
    for (const char type : std::string("0123456789xgLKSV")) {
        for (const std::size_t size : {0UL, 5UL}) {
            for (const char* name : {"a", "a/", "a//", "./a", "a\\"}) {
                fs::remove_all(at("a"));
                const Header header = Header(name, type).size(size).target("../outside");
                extract(Archive().dir("a/").member(header, std::string(size, 'x')).end());
                EXPECT_TRUE(is_dir("a")) << type << ' ' << size << ' ' << name;
            }
        }
    }
}

TEST_F(TarHostile, DirectoryThenLinkOfTheSameNameThenFileBelow)
{
    for (const std::string& way : kWays) {
        fs::remove_all(at("a"));
        EXPECT_EQ(extract(Archive().dir("a/").symlink("a", way).file("a/f", "x").end()), ERROR);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_TRUE(fs::is_empty(at("a")));
    }
}

TEST_F(TarHostile, LinkThenDirectoryOfTheSameNameThenFileBelow)
{
    for (const std::string& way : kWays) {
        unlink(at("a").c_str());
        EXPECT_EQ(extract(Archive().symlink("a", way).dir("a/", 0777, 99).file("a/f", "x").end()),
                  ERROR);
        EXPECT_EQ(errno, ENOTDIR);
    }
}

TEST_F(TarHostile, LinkThenFileOfTheSameNameIsNotWrittenThrough)
{
    for (const std::string& way : kWays) {
        fs::remove(at("a"));
        EXPECT_EQ(extract(Archive().symlink("a", way).file("a", "mine", 0777, 99).end()), OK);
        EXPECT_EQ(content("a"), "mine") << way;
        EXPECT_EQ(mode("a"), 0777U);
    }
}

TEST_F(TarHostile, ChainsOfLinksLeadNowhere)
{
    const Archive archive = Archive()
                                .dir("d/")
                                .symlink("d/up", "..")
                                .symlink("d/up2", "up/..")
                                .symlink("d/loop", "loop")
                                .file("d/up2/outside/secret", "x")
                                .end();
    EXPECT_EQ(extract(archive), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(extract(Archive().file("d/loop/f", "x").end()), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(TarHostile, NamesThatOnlyBeginLikeTheTargetStayInside)
{
    fs::rename(target_, dir_ / "out"); // "out" and "outside"
    target_ = dir_ / "out";
    EXPECT_EQ(extract(Archive().file("side/secret", "x").end()), ERROR);
    EXPECT_EQ(extract(Archive().file("../outside/secret", "x").end()), ERROR);
    fs::rename(target_, dir_ / "target");
    target_ = dir_ / "target";
}

TEST_F(TarHostile, TargetItselfIsNeverRetyped)
{
    for (const char* name : {".", "./", "/", "//", "/.", "", "\\", "./."}) {
        for (const char type : std::string("01235x")) {
            const Header header = Header(name, type).mode(0).target("../outside").mtime(99);
            EXPECT_EQ(extract(Archive().member(header).end()), OK) << name;
            EXPECT_TRUE(is_dir(".")) << name << type;
            EXPECT_EQ(mode("."), 0755U) << name << type;
        }
    }
    // A prefix that consists of a separator leaves one for the name.
    for (const char type : std::string("02")) {
        extract(Archive().member(Header("./", type).prefix("/").size(1).target("x"), "x").end());
        EXPECT_TRUE(is_dir("."));
    }
}

// The name of the record file for directory times is predictable, so a member may use it.
TEST_F(TarHostile, MemberNamedLikeTheRecordFileDoesNotReachIt)
{
    tarFaults.nanoseconds = 0x1234;
    const std::string records = record("../outside/secret", 77) + record("../outside", 77) +
                                record("../outside/dir", 77) + record("b", 77);
    for (const char* name : {"a/.tard@#1234.sto", "a\\.tard@#1234.sto", "./a//.tard@#1234.sto"}) {
        fs::remove_all(at("a"));
        fs::remove_all(at("b"));
        ASSERT_EQ(extract(Archive()
                              .dir("a/", 0755, 1111)
                              .dir("b/", 0755, 2222)
                              .dir("c/", 0755, 3333)
                              .file(name, records)
                              .file("a/next", "next")
                              .end()),
                  OK);
        EXPECT_EQ(mtime("a"), 1111);
        EXPECT_EQ(mtime("b"), 2222);
        EXPECT_EQ(content("a/next"), "next");
    }
    fs::remove_all(at("a"));
    Archive archive;
    archive.dir("a/", 0755, 1111);
    archive.member(Header(".tard@#1234.sto").prefix("a/").size(5), "xxxxx");
    ASSERT_EQ(extract(archive.end()), OK);
    EXPECT_EQ(mtime("a"), 1111);
    // If the member is a link or a directory, the name is simply occupied.
    fs::remove_all(at("a"));
    EXPECT_EQ(
        extract(Archive().dir("a/").symlink("a/.tard@#1234.sto", "../../outside/secret").end()),
        ERROR);
    EXPECT_EQ(errno, EEXIST);
    fs::remove_all(at("a"));
    EXPECT_EQ(extract(Archive().dir("a/").dir("a/.tard@#1234.sto/").end()), OK);
}

TEST_F(TarHostile, FileNamedLikeARecordFileElsewhereIsAFile)
{
    mayLeaveRecordFile_ = true;
    tarFaults.nanoseconds = 0x1234;
    ASSERT_EQ(extract(Archive().dir("a/").dir("b/").file("b/.tard@#1234.sto", "kept").end()), OK);
    EXPECT_EQ(content("b/.tard@#1234.sto"), "kept");
    EXPECT_EQ(record_files(target_).size(), 1U);
}

// Even if another process writes to the record file, times are set only inside the target.
TEST_F(TarHostile, RecordsFromSomeoneElseAreConfined)
{
    fs::create_directory(at("a"));
    fs::create_symlink("../outside", at("link"));
    for (const bool viaLink : {false, true}) {
        MT_TAR_SOFT ctrl{};
        ctrl.targetDir = znc::malloc_array<char>(znc::kPathMax);
        ctrl.goodPathCache = znc::malloc_array<char>(kTarCacheSize);
        ctrl.dir_fname = znc::malloc_array<char>(znc::kPathMax);
        ctrl.targetDirLen = target_.size();
        strcpy(ctrl.targetDir.get(), (target_ + "/x").c_str());
        const std::string file = at("a/.tard@#0000.sto");
        strcpy(ctrl.dir_fname.get(), file.c_str());
        ctrl.targetFd.reset(open(target_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ctrl.dir_fd.reset(open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const std::vector<std::string> names =
            viaLink ? std::vector<std::string>{"link", "link/dir", "link/secret", "a/../link/dir"}
                    : std::vector<std::string>{"../outside", "..", "a/../../outside/dir",
                                               "/../outside/secret", std::string(256, 'x')};
        std::string records = record("a", 4444); // the first record: the file is in this directory
        for (const std::string& name : names)
            records += record(name, 77);
        ASSERT_EQ(write(ctrl.dir_fd.get(), records.data(), records.size()),
                  static_cast<ssize_t>(records.size()));
        ctrl.dir_cnt = static_cast<int>(names.size()) + 1;
        EXPECT_EQ(tarProcDirs(&ctrl), OK);
        EXPECT_EQ(mtime("a"), 4444);
        EXPECT_FALSE(fs::exists(file));
        EXPECT_EQ(ctrl.dir_fname, nullptr);
    }
}

TEST_F(TarHostile, RecordFileThatWasCutIsReadAsFarAsItGoes)
{
    fs::create_directory(at("a"));
    MT_TAR_SOFT ctrl{};
    ctrl.targetDir = znc::malloc_array<char>(znc::kPathMax);
    ctrl.goodPathCache = znc::malloc_array<char>(kTarCacheSize);
    ctrl.dir_fname = znc::malloc_array<char>(znc::kPathMax);
    ctrl.targetDirLen = target_.size();
    strcpy(ctrl.targetDir.get(), (target_ + "/x").c_str());
    const std::string file = at("a/.tard@#0000.sto");
    strcpy(ctrl.dir_fname.get(), file.c_str());
    ctrl.targetFd.reset(open(target_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ctrl.dir_fd.reset(open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ctrl.dir_cnt = 5; // none of these directories exists
    EXPECT_EQ(tarProcDirs(&ctrl), OK);
    EXPECT_FALSE(fs::exists(file)); // it is removed nevertheless
}

// Four members with random names and types never write outside the target.
TEST_F(TarHostile, RandomMembersStayInside)
{
    const std::vector<std::string> names = {"a",
                                            "a/",
                                            "a/b",
                                            "a/b/",
                                            "a/b/c",
                                            "l",
                                            "l/",
                                            "l/x",
                                            "l/dir/",
                                            "l/dir/x",
                                            "./",
                                            "/l/secret",
                                            "a/l",
                                            "a/l/",
                                            "a/l/secret",
                                            "a\\l\\dir\\x",
                                            "secret",
                                            ".tard@#0001.sto",
                                            "a/.tard@#0001.sto",
                                            "l/.tard@#0001.sto",
                                            "../outside/secret",
                                            "a/..",
                                            "//a//b"};
    std::mt19937 random(11);
    const auto pick = [&](const auto& from) { return from[random() % from.size()]; };
    tarFaults.nanoseconds = 1;
    for (int round = 0; round < 3000; ++round) {
        Archive archive;
        for (int n = 0; n < 5; ++n) {
            const std::string data = random() % 3 == 0 ? record("../outside/secret", 77) : "";
            Header header(pick(names), "0025512"[random() % 7]);
            header.size(data.size()).mode(static_cast<unsigned>(random() % 01000));
            header.target(pick(kWays)).mtime(random() % 100000);
            if (random() % 8 == 0)
                header.prefix(pick(std::vector<std::string>{"a", "l", "/", "a/", "l/", "./"}));
            archive.member(header, data);
        }
        extract(archive.end());
        ASSERT_TRUE(is_dir("."));
        if (round % 4 == 3) {
            fs::remove_all(target_);
            fs::create_directory(target_);
        }
    }
    fs::remove_all(target_);
    fs::create_directory(target_);
}

// A process that can write to the tree, such as a container, repeatedly replaces a parent directory
// by a link.
TEST_F(TarHostile, TreeThatChangesDuringExtractionLeadsNowhereOutside)
{
    fs::create_directories(at("a/dir"));
    fs::create_directory_symlink("../outside", at("b"));
    std::atomic<bool> stop = false;
    std::thread flipper([&] {
        while (!stop)
            renameat2(AT_FDCWD, at("a").c_str(), AT_FDCWD, at("b").c_str(), RENAME_EXCHANGE);
    });
    Archive archive;
    for (int i = 0; i < 20; ++i) {
        archive.file(std::string("a/f") + std::to_string(i), "x", 0777, 99);
        archive.dir(std::string("a/d") + std::to_string(i) + "/", 0777, 99);
        archive.file(std::string("a/dir/g") + std::to_string(i), "x", 0777, 99);
        archive.file(std::string("f") + std::to_string(i), "x");
        archive.file("a/secret", "x", 0777, 99);
    }
    archive.end();
    for (int round = 0; round < 2000; ++round)
        extract(archive);
    stop = true;
    flipper.join();
    mayLeaveRecordFile_ = true; // in a directory that was moved away during extraction
    // Only the files outside the target matter; the fixture checks them.
    fs::remove_all(at("a"));
    fs::remove_all(at("b"));
}

// ------------------------------------------------------------------ damaged archives

namespace {

Archive golden()
{
    return Archive()
        .dir("d/", 0755, 1111)
        .file("d/small", "content")
        .file("d/large", std::string(3000, 'l'))
        .symlink("link", "d/small")
        .dir("d/e/", 0700, 2222)
        .file("d/e/last", "last");
}

} // namespace

TEST_F(TarHostile, ArchiveCutAnywhereIsAnError)
{
    const std::string whole = golden().bytes();
    for (std::size_t cut = 0; cut <= whole.size(); cut += cut % 512 < 3 ? 1 : 127) {
        fs::remove_all(target_);
        fs::create_directory(target_);
        EXPECT_EQ(extract(whole.substr(0, cut)), ERROR) << cut;
    }
}

TEST_F(TarHostile, GzipArchiveCutAnywhereIsAnErrorUnlessAllDataIsThere)
{
    ASSERT_EQ(extract(golden().end()), OK);
    Tree whole = snapshot(target_);
    const std::string packed = tarforge::gzip(golden().end().bytes());
    for (std::size_t cut = 0; cut < packed.size(); ++cut) {
        fs::remove_all(target_);
        fs::create_directory(target_);
        if (extract(packed.substr(0, cut)) != OK)
            continue;
        Tree got = snapshot(target_);
        whole["link"].mtime = got["link"].mtime; // the times of links are not restored
        EXPECT_EQ(got, whole) << cut;
    }
}

TEST_F(TarHostile, BytesChangedAnywhereDoNoHarm)
{
    const std::string whole = golden().end().bytes();
    std::mt19937 random(5);
    for (int round = 0; round < 1500; ++round) {
        std::string bytes = whole;
        for (auto n = random() % 4 + 1; n > 0; --n) {
            const std::size_t block = random() % (bytes.size() / 512) * 512;
            bytes[block + random() % 512] = static_cast<char>(random());
            // With a correct checksum the change reaches later checks.
            Header header;
            for (int f = 0; f <= static_cast<int>(Field::kPadding); ++f) {
                const auto [offset, length] = tarforge::extent(static_cast<Field>(f));
                header.raw(static_cast<Field>(f),
                           std::string_view(bytes).substr(block + offset, length));
            }
            bytes.replace(block, 512, header.block());
        }
        extract(bytes);
        fs::remove_all(target_);
        fs::create_directory(target_);
    }
}

TEST_F(TarHostile, GarbageIsAnError)
{
    std::mt19937 random(6);
    for (int round = 0; round < 200; ++round) {
        std::string bytes((random() % 8 + 1) * 512, '\0');
        for (char& c : bytes)
            c = static_cast<char>(random());
        EXPECT_EQ(extract(bytes), ERROR);
    }
    EXPECT_TRUE(fs::is_empty(target_));
}

TEST_F(TarHostile, NegativeNumbersAndTimesAreTakenAsTheyAre)
{
    Header header("f");
    header.raw(Field::kMode, "-1").raw(Field::kMtime, "-1");
    ASSERT_EQ(extract(Archive().member(header).end()), OK);
    EXPECT_EQ(mode("f"), 0777U);
    EXPECT_EQ(mtime("f"), -1);
}
