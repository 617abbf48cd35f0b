#ifndef KVUTIL_EXCEPTION_H
#define KVUTIL_EXCEPTION_H

#include <kvutil/export.h>
#include <kvutil/stpexception.h>  // so that either header gives the whole family

namespace Kvl {

/// A failure described by a text alone.
///
/// Deliberate: a root class, unrelated to STPException and to std::exception.
/// @par Thread-safety
/// Distinct objects may be used at once, and one object may be read by several threads.
class KVUTIL_EXPORT Exception {
public:
    /// @param text  the description; copied
    /// @throws std::bad_alloc  no memory
    explicit Exception(const UString& text);

    Exception(const Exception& o) = default;
    Exception& operator=(const Exception& o) = default;
    virtual ~Exception();

    /// The text.
    /// @return a copy
    /// @throws std::bad_alloc  no memory
    virtual UString msg() const;

    /// Appends detail to the text, with nothing in between, so that a handler can add what it knows
    /// before it throws the exception again.
    /// @param s  the detail
    /// @return   this exception
    /// @throws std::bad_alloc  no memory; the text is then as it was
    virtual Exception& add(const UString& s);

    /// A number by which handlers tell derived classes apart. Never throws.
    /// @return 0; a derived class may return its own
    virtual int kind() const;

    /// Called by raise() just before it throws. Deliberate: does nothing. Never throws.
    void log_throw();

    /// Throws an Exception.
    /// @param text  the description; copied
    /// @throws Exception  always, unless std::bad_alloc
    [[noreturn]] static void raise(const UString& text);

private:
    UString text_;
};

}  // namespace Kvl

#endif
