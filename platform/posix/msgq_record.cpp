// msgq_record.cpp - see msgq_record.hpp.
#include "msgq_record.hpp"

#include "base/failure.hpp"
#include "base/owned.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr mode_t kMode = S_IRUSR | S_IWUSR;
constexpr mode_t kGroupAndOthers = S_IRWXG | S_IRWXO;
constexpr int kTries = 200; // another user may create the name again and again

} // namespace

QueueRecord::~QueueRecord()
{
    const znc::ErrnoSaver keep;
    if (shared_ != nullptr)
        ::munmap(shared_, sizeof *shared_);
}

QueueRecord QueueRecord::map(int object) noexcept
{
    QueueRecord record;
    void* const memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, object, 0);
    if (memory != MAP_FAILED)
        record.shared_ = static_cast<Shared*>(memory);
    return record;
}

QueueRecord QueueRecord::create(const char* name) noexcept
{
    UniqueFd object;
    for (int n = 0; n < kTries && !object; ++n) {
        object.reset(::shm_open(name, O_RDWR | O_CREAT | O_EXCL, kMode));
        if (!object && (errno != EEXIST || !queue_record_remove_foreign(name)))
            break;
    }
    if (!object) {
        if (errno == EACCES || errno == EPERM)
            errno = EEXIST; // another user's, which only its owner and root can remove
        return {};
    }
    // The umask may have cleared mode bits.
    QueueRecord record;
    if (::fchmod(object.get(), kMode) == 0 && ::ftruncate(object.get(), sizeof(Shared)) == 0)
        record = map(object.get());
    if (record) {
        record.shared_->creator = static_cast<std::int32_t>(::getpid());
    } else {
        const znc::ErrnoSaver keep;
        ::shm_unlink(name);
    }
    return record;
}

QueueRecord QueueRecord::find(const char* name) noexcept
{
    const UniqueFd object(::shm_open(name, O_RDWR, 0));
    struct stat st;
    if (!object || ::fstat(object.get(), &st) != 0)
        return {};
    if (st.st_uid != ::geteuid() || (st.st_mode & kGroupAndOthers) != 0) {
        errno = EACCES;
        return {};
    }
    QueueRecord record;
    if (st.st_size >= static_cast<off_t>(sizeof(Shared)))
        record = map(object.get());
    else
        errno = ENOENT; // being created
    return record;
}

void QueueRecord::publish(const char* queue) const noexcept
{
    std::snprintf(shared_->queue, sizeof shared_->queue, "%s", queue);
    shared_->published = 1;
}

bool QueueRecord::is_abandoned() const noexcept
{
    const znc::ErrnoSaver keep;
    return shared_->closed != 0 || (::kill(shared_->creator, 0) != 0 && errno == ESRCH);
}

void QueueRecord::note_closed() const noexcept
{
    if (shared_->creator == static_cast<std::int32_t>(::getpid()))
        shared_->closed = 1;
}

void QueueRecord::note_removed() const noexcept
{
    shared_->closed = 1;
}

bool queue_record_remove_foreign(const char* name) noexcept
{
    const UniqueFd object(::shm_open(name, O_RDONLY, 0));
    if (!object && errno == ENOENT)
        return true;
    struct stat st;
    if (object && ::fstat(object.get(), &st) != 0)
        return false;
    // A record that cannot be opened is another user's: this user's own can be opened.
    if (object && st.st_uid == ::geteuid())
        return znc::fail(EEXIST, false);
    return ::shm_unlink(name) == 0 || errno == ENOENT;
}

} // namespace zn
