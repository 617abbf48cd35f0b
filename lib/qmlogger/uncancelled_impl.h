#ifndef QMLOGGER_UNCANCELLED_IMPL_H
#define QMLOGGER_UNCANCELLED_IMPL_H

#include <pthread.h>

namespace Log {

/// While one lives, pthread_cancel() does not end the thread: what it does to a file is done whole.
class uncancelled_t {
public:
    uncancelled_t() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~uncancelled_t() { pthread_setcancelstate(before_, nullptr); }
    uncancelled_t(const uncancelled_t&) = delete;
    uncancelled_t& operator=(const uncancelled_t&) = delete;

private:
    int before_ = 0;
};

}  // namespace Log

#endif
