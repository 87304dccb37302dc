// posix_2024.h - included before all code with ZNC_POSIX_ONLY: what POSIX.1-2024 has and glibc 2.36
// declares with _GNU_SOURCE only.
#ifndef ZNC_POSIX_2024_H
#define ZNC_POSIX_2024_H

// libstdc++ would call syscall().
#include <bits/c++config.h>
#undef _GLIBCXX_HAVE_LINUX_FUTEX

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#ifndef F_OFD_SETLK
#define F_OFD_GETLK 36
#define F_OFD_SETLK 37
#define F_OFD_SETLKW 38
#endif

extern "C" {
int ppoll(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
int pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
int pthread_mutex_clocklock(pthread_mutex_t*, clockid_t, const struct timespec*) noexcept;
}

#endif
