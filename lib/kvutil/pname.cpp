#include <kvutil/pname.h>

#include "ustring_impl.h"

#include <algorithm>
#include <utility>

namespace Kvl {

namespace {

const UString& separators()
{
    static const UString PNAME_SEP_CHARSET_USTRING = constant_text_t::make(u"/");
    return PNAME_SEP_CHARSET_USTRING;
}

bool is_separator(unsigned short unit)
{
    return separators().find(unit) != -1;
}

/// The position of the last separator in `path`, or -1.
int last_separator(const UString& path)
{
    int position = -1;
    for (unsigned int i = 0; i < separators().length(); ++i)
        position = std::max(position, path.find_last(separators()[i]));
    return position;
}

/// A text that is handed out by reference is terminated first, so that c_str() on it only reads.
UString terminated(UString text)
{
    text.c_str();
    return text;
}

/// A copy to keep; a bogus text becomes the empty one.
UString kept(const UString& path)
{
    UString copy;
    copy.assign(path);
    return terminated(std::move(copy));
}

}  // namespace

Pname::Pname() : Pname(UString()) {}

Pname::Pname(const UString& path) : path_(kept(path)), leaf_(kept({})), parent_(kept({})) {}

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
    if (path_.empty())
        return;
    const int separator = last_separator(path_);
    UString leaf = terminated(path_.substr(static_cast<unsigned int>(separator + 1)));
    UString parent;
    if (separator > 0)
        parent = path_.substr(0, static_cast<unsigned int>(separator));
    if (parent.length() == 1 && is_separator(parent[0]))
        parent.clear();
    parent.c_str();
    leaf_.swap(leaf);
    parent_.swap(parent);
}

void Pname::strip_trailing_separator()
{
    if (path_.empty() || !is_separator(path_[path_.length() - 1]))
        return;
    UString shorter = terminated(path_.substr(0, path_.length() - 1));
    path_.swap(shorter);
    forget_parts();
}

// Swaps in fresh texts: emptying the old ones could leave shared buffers without a terminator.
void Pname::forget_parts() const noexcept
{
    UString no_leaf;
    UString no_parent;
    no_leaf.c_str();
    no_parent.c_str();
    leaf_.swap(no_leaf);
    parent_.swap(no_parent);
}

}  // namespace Kvl
