#ifndef KVUTIL_PNAME_H
#define KVUTIL_PNAME_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>

namespace Kvl {

/// A path name that splits itself, when first asked, into its parent directory and its leaf (the
/// last component).
///
/// "/" is the only separator; the backslash is an ordinary character. Deliberate: the root as a
/// parent is the empty text, which is also the parent of a name without separator, and a path that
/// ends in "/" has an empty leaf.
///
/// An assignment that throws leaves the path name as it was. A moved-from path name is empty.
/// @par Thread-safety
/// leaf(), parent_dir() and split_leaf() fill caches although they are const: one object must not
/// be used from two threads at once. Distinct objects may.
class KVUTIL_EXPORT Pname {
public:
    /// The empty path.
    Pname();

    /// @param path  the path name, of any form; a bogus text counts as the empty one
    /// @throws std::bad_alloc  no memory for the copy
    Pname(const UString& path);

    /// Copies the path and what has been split so far.
    /// @param o  the path name to copy
    /// @throws std::bad_alloc  no memory for the copy
    Pname(const Pname& o);
    Pname(Pname&& o) noexcept;
    ~Pname();

    /// Sets the path and forgets how the old one was split.
    /// @param path  the new path; may be this object's own path(), leaf() or parent_dir()
    /// @return      this object
    /// @throws std::bad_alloc  no memory for the copy
    Pname& operator=(const UString& path);

    /// Copies the path and what has been split so far.
    /// @param other  the path name to copy; may be this object
    /// @return       this object
    /// @throws std::bad_alloc  no memory for the copies
    Pname& operator=(const Pname& other);
    Pname& operator=(Pname&& other) noexcept;

    /// The whole path name. Never throws.
    /// @return  a reference that lives as long as this object
    const UString& path() const;

    /// The last component, split off when it is not known yet.
    ///
    /// Deliberate: only a non-empty leaf counts as known, so a path that ends in "/" is split again
    /// by every call.
    /// @return  what follows the last "/", the whole path when there is none; a reference that
    ///          lives as long as this object and follows its changes
    /// @throws std::bad_alloc  no memory for the parts; the object is then unchanged
    const UString& leaf() const;

    /// What precedes the last component, split off when the leaf is not known yet, see leaf().
    /// @return  what precedes the last "/"; empty when that is the root, or when there is no "/".
    ///          The reference lives as long as this object and follows its changes
    /// @throws std::bad_alloc  no memory for the parts; the object is then unchanged
    const UString& parent_dir() const;

    /// Splits the path into parent and leaf now, whether or not they are known. An empty path
    /// leaves both as they are.
    /// @throws std::bad_alloc  no memory for the parts; the object is then unchanged
    void split_leaf() const;

    /// Removes one trailing "/", not more, and forgets how the path was split. Without a trailing
    /// "/" nothing changes.
    /// @throws std::bad_alloc  no memory for the shorter path; the object is then unchanged
    void strip_trailing_separator();

private:
    void forget_parts() const noexcept;

    UString path_;
    mutable UString leaf_;
    mutable UString parent_;
};

}  // namespace Kvl

#endif
