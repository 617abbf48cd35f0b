#ifndef KVUTIL_DESCRIPTOR_IMPL_H
#define KVUTIL_DESCRIPTOR_IMPL_H

#include <sys/types.h>

namespace Kvl {

/// Owns an open descriptor; a negative one is none.
class descriptor_t {
public:
    explicit descriptor_t(int number = -1) noexcept : number_(number) {}
    descriptor_t(descriptor_t&& o) noexcept : number_(o.release()) {}
    descriptor_t& operator=(descriptor_t&& o) noexcept;
    ~descriptor_t();

    bool is_open() const noexcept { return number_ >= 0; }
    int number() const noexcept { return number_; }
    int release() noexcept;

private:
    int number_;
};

/// Opens a file, close-on-exec. A signal that arrives meanwhile is no failure.
/// @return  nothing open, and `errno`, when it cannot be opened
descriptor_t open_file(const char* path, int flags, mode_t mode = 0);

}  // namespace Kvl

#endif
