// mutex_hold.hpp - locks a pthread mutex for the lifetime of an object.
//
// Used by the library and the platform, which are compiled without exceptions: a failure of
// std::mutex would throw one.
#ifndef ZNC_BASE_MUTEX_HOLD_HPP
#define ZNC_BASE_MUTEX_HOLD_HPP

#include <pthread.h>

namespace znc {

class MutexHold {
  public:
    explicit MutexHold(pthread_mutex_t& mutex) noexcept : mutex_(mutex)
    {
        ::pthread_mutex_lock(&mutex_);
    }
    ~MutexHold() { ::pthread_mutex_unlock(&mutex_); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

} // namespace znc

#endif
