#include <kvutil/credentials.h>

#include "failure_impl.h"
#include "hex_impl.h"
#include "ustring_impl.h"
#include "utf8_impl.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace Kvl {

namespace {

/// The true number of bits bytes.
std::size_t size_of(const Identity& identity)
{
    return static_cast<unsigned short>(identity.length());
}

}  // namespace

Identity::Identity() noexcept = default;

Identity::Identity(short length, identity_t* block) noexcept
    : block_(block), length_(block == nullptr ? short{0} : length)
{
}

Identity::Identity(short length, type_t type, const char* bits)
{
    const std::size_t size = bits == nullptr || length < 0 ? 0 : static_cast<std::size_t>(length);
    if (size == 0 && type == TYPE_0)
        return;
    block_ = std::make_unique_for_overwrite<identity_t[]>(size + 1);
    block_[0] = type;
    std::copy_n(bits, size, block_.get() + 1);
    length_ = static_cast<short>(size);
}

Identity::Identity(const Identity& o)
{
    *this = o;
}

Identity::Identity(Identity&& o) noexcept
    : block_(std::move(o.block_)), length_(std::exchange(o.length_, short{0}))
{
}

Identity& Identity::operator=(const Identity& o)
{
    if (this == &o)
        return *this;
    if (o.block_ == nullptr) {
        block_.reset();
    } else {
        const std::size_t size = size_of(o) + 1;
        if (block_ == nullptr || size_of(*this) + 1 < size)
            block_ = std::make_unique_for_overwrite<identity_t[]>(size);
        std::copy_n(o.block_.get(), size, block_.get());
    }
    length_ = o.length_;
    return *this;
}

Identity& Identity::operator=(Identity&& o) noexcept
{
    Identity taken(std::move(o));
    block_.swap(taken.block_);
    std::swap(length_, taken.length_);
    return *this;
}

Identity::~Identity() = default;

bool Identity::operator==(const Identity& o) const noexcept
{
    if (length_ != o.length_)
        return false;
    if (length_ == 0)
        return type() == o.type();
    return std::memcmp(block_.get(), o.block_.get(), size_of(*this) + 1) == 0;
}

// ---- text form, out ----

UString Identity::str() const
{
    char number[8];
    const char* const number_end = std::to_chars(number, std::end(number), size_of(*this)).ptr;
    const auto number_size = static_cast<std::size_t>(number_end - number);
    const std::size_t length_units = number_size + 1 + 2 * (size_of(*this) + 1);

    return owned_text_t::make(length_units, [&](char16_t* to) {
        to = std::copy(static_cast<const char*>(number), number_end, to);
        *to++ = u':';
        constexpr identity_t no_block = 0;
        print_hex(block_ == nullptr ? &no_block : block_.get(), size_of(*this) + 1, to);
    });
}

// ---- text form, in ----

namespace {

constexpr int LENGTH_MAX = 65535;

bool is_space(char16_t unit)
{
    return unit == u' ' || (unit >= u'\t' && unit <= u'\r');
}

// As strtol() in the C locale on the text in UTF-8, whose conversion is left out: what is not ASCII
// ends the number. But a text with an unpaired surrogate has no UTF-8 and converts to nothing.
/// @return the number; LENGTH_MAX + 1 or its negative for what is beyond
int leading_number(std::u16string_view text)
{
    if (!utf8_size_of(text))
        return 0;
    auto unit = std::find_if_not(text.begin(), text.end(), is_space);
    const bool is_negative = unit != text.end() && *unit == u'-';
    if (unit != text.end() && (*unit == u'-' || *unit == u'+'))
        ++unit;
    int number = 0;
    for (; unit != text.end() && *unit >= u'0' && *unit <= u'9'; ++unit)
        number = std::min(10 * number + (*unit - u'0'), LENGTH_MAX + 1);
    return is_negative ? -number : number;
}

/// @param digits  two for each byte
/// @return        null when another character is among them
std::unique_ptr<Identity::identity_t[]> block_of(std::u16string_view digits)
{
    auto block = std::make_unique_for_overwrite<Identity::identity_t[]>(digits.size() / 2);
    if (!read_hex(digits, block.get()))
        block.reset();
    return block;
}

}  // namespace

Identity Identity::from_str(const UString& s)
{
    const std::u16string_view text = view_of(s);
    const std::size_t colon = text.find(u':');
    if (colon == text.npos)
        throw_illegal_arg(MSG_IDENTITY_LENGTH_FORMAT, "str", s);
    const int length = leading_number(text.substr(0, colon));
    if (length < 0 || length > LENGTH_MAX)
        throw_illegal_arg(MSG_IDENTITY_LENGTH_STRING, "str", s);
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    const std::u16string_view digits = text.substr(colon + 1);
    if (digits.size() != 2 * size)
        throw_illegal_arg(MSG_IDENTITY_STRING_SIZE, "str", s);
    auto block = block_of(digits);
    if (block == nullptr)
        throw_illegal_arg(MSG_IDENTITY_HEX, "str", s);
    // Deliberate: from 32768 on the length becomes negative.
    return Identity(static_cast<short>(length), block.release());
}

}  // namespace Kvl
