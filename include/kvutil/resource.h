#ifndef KVUTIL_RESOURCE_H
#define KVUTIL_RESOURCE_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>

namespace Kvl {

/// Any addressable resource, as failures and messages see it: something that can be copied and
/// that has a text.
///
/// The concrete classes belong to the programs that use the library. The virtual operations stand
/// in slot order: destructor, do_clone(), text(); derived classes append theirs.
/// @par Thread-safety
/// The class holds no data; a derived class says what holds for its own.
class KVUTIL_EXPORT Resource {
public:
    virtual ~Resource();

    /// The copy operation that clone() calls.
    /// @return  a new object of the same class, which the caller deletes
    /// @throws  whatever the derived class throws; the library passes it on
    virtual Resource* do_clone() const = 0;

    /// What stands for the resource in a message.
    /// @return  the text; the base version returns the empty text
    /// @throws  whatever the derived class throws; the library passes it on
    virtual UString text() const;

    /// Copies the resource without naming its class.
    /// @return  what do_clone() returns: a heap copy, which the caller deletes. The library also
    ///          bears a null pointer, as a resource without text
    /// @throws  whatever do_clone() throws
    Resource* clone() const;

protected:
    Resource() = default;
    Resource(const Resource&) = default;
    Resource& operator=(const Resource&) = default;
};

}  // namespace Kvl

#endif
