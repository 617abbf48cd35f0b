#ifndef KVUTIL_UNCANCELLED_IMPL_H
#define KVUTIL_UNCANCELLED_IMPL_H

#include <pthread.h>

namespace Kvl {

/// While one lives, its thread is not cancelled: for what must not be left half done, or stands
/// where nothing may be thrown.
class uncancelled_t {
public:
    uncancelled_t() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~uncancelled_t() { pthread_setcancelstate(before_, nullptr); }
    uncancelled_t(const uncancelled_t&) = delete;
    uncancelled_t& operator=(const uncancelled_t&) = delete;

private:
    int before_ = 0;
};

}  // namespace Kvl

#endif
