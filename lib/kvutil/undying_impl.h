#ifndef KVUTIL_UNDYING_IMPL_H
#define KVUTIL_UNDYING_IMPL_H

/// For functions that run while the library is loaded or unloaded: their code lies together, so
/// that fewer of its pages come in.
#define KVUTIL_AT_LOAD [[gnu::section(".text.startup")]]

namespace Kvl {

/// Room for an object that is constructed when the library is loaded and never destroyed, because
/// other threads may use it while the process exits.
template <class T>
union undying_t {
    constexpr undying_t() noexcept : none{} {}
    constexpr ~undying_t() {}
    char none;
    T value;
};

}  // namespace Kvl

#endif
