// Tests with a full disk: every step of create and of unpack fails once, and operations that need
// no space continue to work.

#include "layered_image.hpp"
#include "system_world.hpp"

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/mount.h>
#include <sys/statvfs.h>

using namespace system_world;

namespace {

constexpr const char* kDisk = "/tmp/little";
constexpr unsigned kPage = 4096;
constexpr unsigned kPlenty = ~0U;

// A small file system that is filled except for this many inodes and pages.
class LittleDisk {
  public:
    LittleDisk()
    {
        fs::create_directories(kDisk);
        if (::mount("little", kDisk, "tmpfs", 0, "size=2m,nr_inodes=400,mode=0700") != 0)
            throw std::runtime_error("cannot mount the little disk");
    }
    ~LittleDisk()
    {
        ::umount2(kDisk, MNT_DETACH);
        fs::remove(kDisk);
    }
    LittleDisk(const LittleDisk&) = delete;
    LittleDisk& operator=(const LittleDisk&) = delete;

    // Bind-mounts one of its directories at `path`, which is created.
    void show_at(const std::string& path)
    {
        const std::string source = kDisk + ("/" + fs::path(path).filename().string());
        fs::create_directories(source);
        fs::create_directories(path);
        if (::mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
            throw std::runtime_error("cannot bind " + path);
    }

    void leave(unsigned inodes, unsigned pages)
    {
        make_room();
        fs::create_directory(filler_);
        const std::string bytes = filler_ + "/bytes";
        const std::string page(kPage, 'x');
        const int fd = ::open(bytes.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        unsigned written = 0;
        while (pages != kPlenty && ::write(fd, page.data(), kPage) == kPage)
            written++;
        if (pages != kPlenty && ::ftruncate(fd, off_t{written - std::min(written, pages)} * kPage))
            throw std::runtime_error("cannot give room back");
        ::close(fd);
        unsigned made = 0;
        while (inodes != kPlenty && ::mknod(inode(made).c_str(), S_IFREG | 0600, 0) == 0)
            made++;
        while (inodes != kPlenty && inodes > 0 && made > 0) {
            fs::remove(inode(--made));
            inodes--;
        }
    }
    void make_room() { fs::remove_all(filler_); }

    [[nodiscard]] static bool is_full()
    {
        struct statvfs st = {};
        ::statvfs(kDisk, &st);
        return st.f_bfree == 0 && st.f_ffree == 0;
    }

  private:
    [[nodiscard]] std::string inode(unsigned n) const { return filler_ + "/" + std::to_string(n); }

    std::string filler_ = std::string(kDisk) + "/filler";
};

class FullDisk : public SystemWorld {
  protected:
    void before_daemon() override
    {
        disk_ = std::make_unique<LittleDisk>();
        disk_->show_at(kStorage);
        disk_->show_at("/run/zarnel");
        if (overlay())
            disk_->show_at("/overlay");
    }
    void after_daemon() override
    {
        for (const char* path : {kStorage, "/run/zarnel", "/overlay"})
            ::umount2(path, MNT_DETACH);
        disk_.reset();
    }
    LittleDisk& disk() { return *disk_; }

    // Repeats create with a little more space each time, until it succeeds.
    void sweep_create(bool inodes);

  private:
    std::unique_ptr<LittleDisk> disk_;
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, FullDisk, testing::Values(false, true), flavour_name);

bool one_of(int number, std::initializer_list<int> allowed)
{
    return std::find(allowed.begin(), allowed.end(), number) != allowed.end();
}

void FullDisk::sweep_create(bool inodes)
{
    constexpr unsigned kEnough = 100;
    unsigned failed = 0;
    for (unsigned left = 0; left < kEnough; left++) {
        disk().leave(inodes ? left : kPlenty, inodes ? kPlenty : left);
        const bool made = zncCreate("web", kBundle, 0, nullptr) == OK;
        const int number = errno;
        EXPECT_TRUE(zncDaemonIsAlive());
        if (made) {
            EXPECT_EQ(zncDelete("web", 0), OK) << left << " " << std::hex << errno;
            break;
        }
        failed++;
        EXPECT_TRUE(one_of(number, {S_zncLib_ROOTFS_CREATE_FAILED})) << std::hex << number;
        EXPECT_EQ(text_of(zncList()), "[]");
        disk().make_room();
        // The container's directory is kept for the next create with its id.
        EXPECT_EQ(left_over("containers/web"), "") << left;
        expect_usable();
        EXPECT_EQ(left_over(), "") << left;
    }
    std::printf("%u creates without room\n", failed);
    EXPECT_GT(failed, 0U);
    EXPECT_LT(failed, kEnough);
    disk().make_room();
}

TEST_P(FullDisk, CreateFailsAtEveryMissingInodeAndLeavesNothing)
{
    sweep_create(true);
}

TEST_P(FullDisk, CreateFailsAtEveryMissingPageAndLeavesNothing)
{
    sweep_create(false);
}

TEST_P(FullDisk, ListStateInspectStartKillAndDeleteNeedNoRoom)
{
    make_bundle(kBundle, {"/bin/sh", "-c", "echo x 2>&- > /etc/new || exit 9; sleep 1000"});
    ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK);
    disk().leave(0, 0);
    ASSERT_TRUE(LittleDisk::is_full());
    EXPECT_EQ(zncStart("web", ZNC_OPT_NO_WAIT), OK) << std::hex << errno;
    if (overlay()) { // its program writes to the disk and gets the error
        int status = 0;
        ASSERT_GT(::waitpid(-1, &status, 0), 0);
        EXPECT_EQ(WEXITSTATUS(status), 9);
    } else {
        EXPECT_EQ(zncStatusGet("web"), STATE_RUNNING);
    }
    EXPECT_NE(text_of(zncList()).find("\"web\""), std::string::npos);
    EXPECT_NE(text_of(zncState("web")).find("\"web\""), std::string::npos);
    EXPECT_NE(text_of(zncContainerInfoGet("web")).find("\"web\""), std::string::npos);
    EXPECT_EQ(zncKill("web", kKill, ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    EXPECT_TRUE(overlay() || ::waitpid(-1, nullptr, 0) > 0);
    EXPECT_EQ(text_of(zncList()), "[]");
    disk().make_room();
    fs::remove(std::string(kBundle) + "/rootfs/etc/new");
    expect_usable();
}

// ------------------------------------------------------------------ unpacking

struct Kind {
    const char* name;
    bool overlay;
    unsigned option;
};

class FullDiskUnpack : public testing::TestWithParam<Kind> {
  protected:
    void SetUp() override
    {
        if (!GetParam().overlay)
            fs::remove("/overlay");
        disk_ = std::make_unique<LittleDisk>();
        ::setenv("ZNC_BASE", kStorage, 1);
        layout_ = std::make_unique<layout::Layout>("/tmp/layout");
        layout_->add(layered_image::image_of(2, 4));
    }
    void TearDown() override
    {
        disk_.reset();
        fs::remove_all("/tmp/layout");
        fs::create_directories("/overlay");
        ::unsetenv("ZNC_BASE");
    }

    static STATUS unpack()
    {
        return zncUnpack(kBundle, "/tmp/layout", nullptr, GetParam().option, nullptr);
    }
    // Returns the path of the tree from the bundle's configuration.
    static std::string tree();
    static void remove_all();
    void sweep(bool inodes);

    static constexpr const char* kStorage = "/tmp/little/storage";
    static constexpr const char* kBundle = "/tmp/little/bundle";
    std::unique_ptr<LittleDisk> disk_;

  private:
    std::unique_ptr<layout::Layout> layout_;
};

constexpr Kind kKinds[] = {
    {"Raw", false, 0}, {"Layered", true, 0}, {"Flattened", true, ZNC_OPT_FLATTEN}};
INSTANTIATE_TEST_SUITE_P(Kinds, FullDiskUnpack, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return kind.param.name; });

std::string FullDiskUnpack::tree()
{
    const std::string config = layout::read_file(std::string(kBundle) + "/config.json");
    const std::string key = "\"path\":";
    std::size_t begin = config.find('"', config.find(key) + key.size()) + 1;
    const std::string path = config.substr(begin, config.find('"', begin) - begin);
    std::istringstream lines(
        layered_image::tree_text(path[0] == '/' ? path : std::string(kBundle) + "/" + path));
    std::string all;
    for (std::string line; std::getline(lines, line);)
        if (line.find("/.tard@#") == std::string::npos) // see below
            all += line + "\n";
    return all;
}

void FullDiskUnpack::remove_all()
{
    EXPECT_EQ(zncImageBundleDelete(kBundle), OK);
    for (const auto& device : fs::directory_iterator(GetParam().overlay ? "/overlay" : "/mnt"))
        EXPECT_EQ(zncRemoveOvlRootfsDev(device.path().c_str()), OK);
    fs::remove_all(kStorage);
}

void FullDiskUnpack::sweep(bool inodes)
{
    constexpr unsigned kEnough = 200;
    ASSERT_EQ(unpack(), OK) << std::hex << errno;
    const std::string expected = tree();
    ASSERT_NE(expected, "");
    remove_all();
    unsigned left = 0;
    for (; left < kEnough; left++) {
        disk_->leave(inodes ? left : kPlenty, inodes ? kPlenty : left);
        if (unpack() == OK)
            break;
        // A failure to write the configuration has its own error number.
        EXPECT_TRUE(errno == ENOSPC || errno == S_zncLib_BUNDLE_CONFIG_PARAM_INVALID)
            << left << " " << errno;
        EXPECT_FALSE(fs::exists(kBundle)) << left;
        // Nothing partial may be left.
        for (const auto& entry : fs::recursive_directory_iterator(kDisk))
            EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
        if (GetParam().overlay) {
            EXPECT_TRUE(fs::is_empty("/overlay")) << left;
        }
        disk_->make_room();
        ASSERT_EQ(unpack(), OK) << left << " " << std::hex << errno;
        EXPECT_EQ(tree(), expected) << left;
        remove_all();
    }
    std::printf("%u unpacks without room\n", left);
    EXPECT_GT(left, 0U);
    ASSERT_LT(left, kEnough);
    EXPECT_EQ(tree(), expected);
    remove_all();
}

TEST_P(FullDiskUnpack, FailsAtEveryMissingInodeAndTheNextOneIsWhole)
{
    sweep(true);
}

TEST_P(FullDiskUnpack, FailsAtEveryMissingPageAndTheNextOneIsWhole)
{
    sweep(false);
}

} // namespace
