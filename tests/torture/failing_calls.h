#ifndef KVUTIL_TESTS_TORTURE_FAILING_CALLS_H
#define KVUTIL_TESTS_TORTURE_FAILING_CALLS_H

#include "sys_calls_impl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <sys/mman.h>
#include <type_traits>
#include <unistd.h>

// Every entry of the table of system calls, replaced by one that counts its calls and fails, or
// does less than it was asked to, when it is told to.

namespace torture {

/// Which call of an entry fails, and how.
struct call_fault_t {
    std::string entry;        ///< as in the table; empty: none fails
    int nth = 1;              ///< 1 = the first
    int times = 1;            ///< how many in a row
    int error = 0;            ///< 0: it does not fail, but comes up short
    std::size_t count = 0;    ///< how many bytes a short one takes at most
    bool is_the_end = false;  ///< whatever is called after it fails, too
};

inline void PrintTo(const call_fault_t& fault, std::ostream* out)
{
    *out << fault.entry << ' ' << fault.nth;
    if (fault.is_the_end || fault.times > 1)
        *out << (fault.is_the_end ? " and everything" : " and those after it");
    if (fault.error != 0)
        *out << ": " << std::strerror(fault.error);
    else
        *out << " takes at most " << fault.count;
}

/// What happens while calls are replaced.
class failing_calls {
public:
    explicit failing_calls(const call_fault_t& what);
    ~failing_calls() { Kvl::sys_calls = g_real; }
    failing_calls(const failing_calls&) = delete;
    failing_calls& operator=(const failing_calls&) = delete;

    /// How many calls were tampered with.
    int faults() const { return g_faults; }

    /// @param calls  of the entry so far
    /// @return       whether this call of it is one to tamper with
    static bool is_hit(const char* entry, int& calls, unsigned long& hits)
    {
        ++calls;
        const bool is_named =
            g_fault.entry == entry && calls >= g_fault.nth && calls - g_fault.nth < g_fault.times;
        const bool hit = is_named || (g_fault.is_the_end && g_faults != 0);
        g_faults += hit;
        hits += hit;
        return hit;
    }

    static inline Kvl::sys_calls_t g_real = Kvl::sys_calls;  // as far as an operation can tell
    static inline call_fault_t g_fault;
    static inline int g_written = -1;  // the descriptor

private:
    static inline int g_faults = 0;
};

/// While it lives, the calls that do not fail are those of another system.
class other_system {
public:
    /// @param change  (Kvl::sys_calls_t& calls): puts the other ones in the place of this system's
    template <class Change>
    explicit other_system(Change change)
    {
        change(failing_calls::g_real);
        Kvl::sys_calls = failing_calls::g_real;
    }
    ~other_system() { Kvl::sys_calls = failing_calls::g_real = real_; }
    other_system(const other_system&) = delete;
    other_system& operator=(const other_system&) = delete;

private:
    const Kvl::sys_calls_t real_ = failing_calls::g_real;
};

// ---- how a function says that it has failed ----

template <class Result>
Result failed()
{
    errno = failing_calls::g_fault.error;
    if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return -1;
}

// Entries have types of their own, by which alone they could not be compared.
template <auto one, auto other>
inline constexpr bool is_same = std::is_same_v<std::integral_constant<decltype(one), one>,
                                               std::integral_constant<decltype(other), other>>;

/// An entry's place in the table, its name, and its type.
template <auto member, class Function>
struct replacement_t;

template <auto member, class Result, class... Parameters>
struct replacement_t<member, Result (*)(Parameters...)> {
    static inline const char* name = nullptr;
    static inline int calls = 0;
    static inline unsigned long hits = 0;  // of all faults

    static Result call(Parameters... arguments)
    {
        if (failing_calls::is_hit(name, calls, hits))
            return tampered(arguments...);
        // Nothing can be seen of a disk that is really waited for.
        if constexpr (is_same<member, &Kvl::sys_calls_t::fsync>)
            return 0;
        if constexpr (is_same<member, &Kvl::sys_calls_t::write>)
            note_written(arguments...);
        if constexpr (is_same<member, &Kvl::sys_calls_t::close>)
            note_closed(arguments...);
        return (failing_calls::g_real.*member)(arguments...);
    }

private:
    static Result tampered([[maybe_unused]] Parameters... arguments)
    {
        [[maybe_unused]] const auto real = failing_calls::g_real.*member;
        const call_fault_t& fault = failing_calls::g_fault;
        if constexpr (is_same<member, &Kvl::sys_calls_t::read> ||
                      is_same<member, &Kvl::sys_calls_t::write>)
            if (fault.error == 0)
                return shortened(real, arguments...);
        // What is reported here is that what was written is lost.
        if constexpr (is_same<member, &Kvl::sys_calls_t::close> ||
                      is_same<member, &Kvl::sys_calls_t::fsync>)
            if (fault.error != EINTR)
                lose(arguments...);
        // As Linux does it: the descriptor is gone, whatever the answer.
        if constexpr (is_same<member, &Kvl::sys_calls_t::close> ||
                      is_same<member, &Kvl::sys_calls_t::dlclose>)
            real(arguments...);
        if constexpr (is_same<member, &Kvl::sys_calls_t::mmap>) {
            errno = fault.error;
            return MAP_FAILED;
        }
        if constexpr (is_same<member, &Kvl::sys_calls_t::pthread_key_create> ||
                      is_same<member, &Kvl::sys_calls_t::pthread_key_delete> ||
                      is_same<member, &Kvl::sys_calls_t::pthread_setspecific>)
            return fault.error;
        return failed<Result>();
    }

    static void note_written(int descriptor, const void*, std::size_t)
    {
        failing_calls::g_written = descriptor;
    }
    static void note_closed(int descriptor)
    {
        if (descriptor == failing_calls::g_written)
            failing_calls::g_written = -1;
    }
    static void lose(int descriptor)
    {
        if (descriptor == failing_calls::g_written && ftruncate(descriptor, 0) != 0)
            ADD_FAILURE() << std::strerror(errno);
        note_closed(descriptor);
    }

    template <class Real, class Bytes>
    static ssize_t shortened(Real real, int descriptor, Bytes* bytes, std::size_t size)
    {
        const std::size_t count = failing_calls::g_fault.count;
        return count == 0 ? 0 : real(descriptor, bytes, std::min(size, count));
    }
};

template <auto member>
void replace(const char* name)
{
    typedef std::remove_reference_t<decltype(Kvl::sys_calls.*member)> function;
    replacement_t<member, function>::name = name;
    replacement_t<member, function>::calls = 0;
    Kvl::sys_calls.*member = replacement_t<member, function>::call;
}

// clang-format off
/// The entries that can fail, in the order of the table. The clock and the process id cannot, and
/// dlerror() only says what has.
#define KVUTIL_ENTRIES_THAT_FAIL(X) \
    X(open) X(close) X(read) \
    X(access) X(mkdir) X(remove) X(rmdir) \
    X(socket) X(ioctl) \
    X(nanosleep) X(mmap) X(munmap) X(madvise) \
    X(write) X(fstat) X(lstat) X(fgetxattr) X(fremovexattr) X(ftruncate) X(mkostemp) X(fchown) \
    X(fchmod) X(fsync) X(rename) X(unlink) \
    X(dlopen) X(dlsym) X(dlclose) X(pthread_key_create) X(pthread_key_delete) X(pthread_setspecific)
// clang-format on

inline constexpr const char* ENTRIES[] = {
#define KVUTIL_NAME(entry) #entry,
    KVUTIL_ENTRIES_THAT_FAIL(KVUTIL_NAME)
#undef KVUTIL_NAME
};

inline failing_calls::failing_calls(const call_fault_t& what)
{
    g_fault = what;
    g_faults = 0;
    g_written = -1;
#define KVUTIL_REPLACE(entry) replace<&Kvl::sys_calls_t::entry>(#entry);
    KVUTIL_ENTRIES_THAT_FAIL(KVUTIL_REPLACE)
#undef KVUTIL_REPLACE
}

/// How many calls of each entry have been tampered with so far.
inline std::map<std::string, unsigned long> hits_of_entries()
{
    return {
#define KVUTIL_HITS(entry)                                                                         \
    {#entry, replacement_t<&Kvl::sys_calls_t::entry, decltype(Kvl::sys_calls.entry)>::hits},
        KVUTIL_ENTRIES_THAT_FAIL(KVUTIL_HITS)
#undef KVUTIL_HITS
    };
}

}  // namespace torture

#endif
