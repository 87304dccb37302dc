// Tests that compare the extractor with tar programs on archives that those wrote.
#include "tar_fixture.hpp"

#include <cstdlib>
#include <fcntl.h>
#include <random>

namespace fs = std::filesystem;

namespace {

class TarPrograms : public TarTest {
  protected:
    void SetUp() override
    {
        for (const char* tool : {"tar", "bsdtar", "gzip"})
            if (std::system(
                    (std::string("command -v ") + std::string(tool) + " >/dev/null").c_str()) != 0)
                GTEST_SKIP() << tool << " is not installed";
        source_ = at("source");
        fs::create_directories(source_);
        make_tree();
    }

    void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

    // Extracts an archive of the source tree with the extractor and compares the trees. The command
    // writes to $OUT.
    void compare(const std::string& command)
    {
        const std::string ours = at("ours");
        fs::remove_all(ours);
        fs::create_directory(ours);
        const std::string archive = at("made.tar");
        fs::remove(archive);
        run("cd " + source_ + " && OUT=" + archive + " && " + command);
        ASSERT_EQ(zncTarExtract(archive.c_str(), ours.c_str(), 200, FALSE), OK) << command;
        Tree wanted = snapshot(source_);
        Tree got = snapshot(ours);
        ASSERT_GT(wanted.size(), 300U);
        for (Tree* tree : {&wanted, &got})
            for (auto& [name, entry] : *tree) {
                entry.mtime.tv_nsec = 0;
                if (S_ISLNK(entry.mode))
                    entry.mtime = {};
            }
        for (const auto& [name, entry] : wanted) {
            ASSERT_TRUE(got.contains(name)) << name << ' ' << command;
            EXPECT_EQ(got[name], entry) << name << ' ' << command;
        }
        EXPECT_EQ(got.size(), wanted.size()) << command;
    }

    std::string source_;

  private:
    void add(const std::string& name, std::size_t size, mode_t mode, time_t mtime)
    {
        std::string content(size, '\0');
        for (char& c : content)
            c = static_cast<char>(random_() % 3 == 0 ? random_() : 'x');
        test_tree::write_file(source_ + "/" + name, content);
        finish(name, mode, mtime);
    }
    void finish(const std::string& name, mode_t mode, time_t mtime)
    {
        ASSERT_EQ(chmod((source_ + "/" + name).c_str(), mode), 0);
        const timespec times[2] = {{mtime, 0}, {mtime, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, (source_ + "/" + name).c_str(), times, 0), 0);
    }
    void make_tree()
    {
        const std::string deep =
            std::string("a/") + std::string(60, 'd') + std::string("/") + std::string(70, 'e');
        fs::create_directories(source_ + "/" + deep);
        fs::create_directories(source_ + "/empty");
        for (int i = 0; i < 300; ++i)
            add((i % 3 == 0 ? "a/f" : "f") + std::to_string(i), random_() % 3000,
                i % 2 == 0 ? 0644 : 0755, 1000000000 + i);
        add(deep + std::string("/") + std::string(90, 'n'), 100, 0600, 1);
        add("big", 500000, 0400, 1234567890);
        add("exact", 102400, 0640, 1234567890);
        add("name with spaces \xc3\xa9", 10, 0644, 1234567890);
        fs::create_symlink("a/f0", source_ + "/link");
        fs::create_symlink("../../nowhere", source_ + "/a/dangling");
        finish(deep, 0700, 333333333);
        finish(std::string("a/") + std::string(60, 'd'), 0711, 222222222);
        finish("a", 0755, 111111111);
        finish("empty", 0777, 444444444);
    }
    std::mt19937 random_{3};
};

} // namespace

TEST_F(TarPrograms, GnuTarUstar)
{
    compare("tar --format=ustar -cf $OUT .");
    compare("tar --format=ustar -cf $OUT *");
    compare("tar --format=ustar -b 1 -cf $OUT .");
    compare("tar --format=ustar -b 200 -cf $OUT .");
}

TEST_F(TarPrograms, GnuTarUstarGzipped)
{
    compare("tar --format=ustar -cf - . | gzip -1 > $OUT");
    compare("tar --format=ustar -cf - . | gzip -9 > $OUT");
    compare("tar --format=ustar -czf $OUT .");
}

TEST_F(TarPrograms, BsdtarUstar)
{
    compare("bsdtar --format=ustar -cf $OUT .");
    compare("bsdtar --format=ustar -cf $OUT *");
}

// Writes to a file, because to a pipe bsdtar appends zeros after the gzip member.
TEST_F(TarPrograms, BsdtarUstarGzipped)
{
    compare("bsdtar --format=ustar -czf $OUT .");
}

// Without long names the GNU magic makes no difference.
TEST_F(TarPrograms, GnuFormatWithoutLongNames)
{
    compare("rm -r a/d* && tar --format=gnu -cf $OUT .");
}
