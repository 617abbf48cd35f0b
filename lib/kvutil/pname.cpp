#include <kvutil/pname.h>

#include "pname_impl.h"
#include "ustring_impl.h"

#include <cstddef>
#include <string_view>
#include <utility>

namespace Kvl {

using PnameImpl::PNAME_SEP_CHARSET_USTRING;

namespace {

bool is_separator(char16_t unit)
{
    return view_of(PNAME_SEP_CHARSET_USTRING).find(unit) != std::u16string_view::npos;
}

// What is handed out by reference is terminated first, so that c_str() on it only reads.

/// A copy to keep, which shares long units; a bogus text becomes the empty one.
UString kept(const UString& path)
{
    UString copy;
    copy.assign(path);
    copy.c_str();
    return copy;
}

/// The same of a part of a path.
UString kept(std::u16string_view part)
{
    UString copy = owned_text_t::make(part);
    copy.c_str();
    return copy;
}

/// The empty text, which nothing ever writes to.
UString no_part() noexcept
{
    return constant_text_t::make(u"");
}

/// What precedes the separator at a position, if there is one; the root is the empty text.
std::u16string_view parent_of(std::u16string_view path, std::size_t separator)
{
    if (separator == std::u16string_view::npos)
        return {};
    const std::u16string_view parent = path.substr(0, separator);
    return parent.size() == 1 && is_separator(parent[0]) ? std::u16string_view() : parent;
}

}  // namespace

Pname::Pname() : Pname(UString()) {}

Pname::Pname(const UString& path) : path_(kept(path)), leaf_(no_part()), parent_(no_part()) {}

Pname::Pname(const Pname& o) : path_(kept(o.path_)), leaf_(kept(o.leaf_)), parent_(kept(o.parent_))
{
}

Pname::Pname(Pname&& o) noexcept = default;

Pname::~Pname() = default;

Pname& Pname::operator=(const UString& path)
{
    UString copy = kept(path);
    path_.swap(copy);
    forget_parts();
    return *this;
}

Pname& Pname::operator=(const Pname& other)
{
    return *this = Pname(other);
}

Pname& Pname::operator=(Pname&& other) noexcept
{
    Pname taken(std::move(other));
    path_.swap(taken.path_);
    leaf_.swap(taken.leaf_);
    parent_.swap(taken.parent_);
    return *this;
}

const UString& Pname::path() const
{
    return path_;
}

const UString& Pname::leaf() const
{
    if (leaf_.empty())
        split_leaf();
    return leaf_;
}

const UString& Pname::parent_dir() const
{
    // Deliberate: the leaf alone says whether the parts are known; an empty parent can be one.
    if (leaf_.empty())
        split_leaf();
    return parent_;
}

void Pname::split_leaf() const
{
    const std::u16string_view path = view_of(path_);
    if (path.empty())
        return;
    const std::size_t separator = path.find_last_of(view_of(PNAME_SEP_CHARSET_USTRING));
    UString leaf = kept(path.substr(separator + 1));  // without a separator that is position 0
    UString parent = kept(parent_of(path, separator));
    leaf_ = std::move(leaf);
    parent_ = std::move(parent);
}

void Pname::strip_trailing_separator()
{
    if (path_.empty() || !is_separator(path_[path_.length() - 1]))
        return;
    UString shorter = kept(view_of(path_).substr(0, path_.length() - 1));
    path_.swap(shorter);
    forget_parts();
}

// Swaps in fresh texts: emptying the old ones could leave shared buffers without a terminator.
void Pname::forget_parts() const noexcept
{
    leaf_ = no_part();
    parent_ = no_part();
}

}  // namespace Kvl
