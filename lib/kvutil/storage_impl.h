#ifndef KVUTIL_STORAGE_IMPL_H
#define KVUTIL_STORAGE_IMPL_H

#include <unicode/unistr.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <string_view>

/// ICU's own malloc() and free(), which a program may replace. They are in no header for users,
/// though among the names that each version of ICU renames.
extern "C" void* uprv_malloc(std::size_t size);
extern "C" void uprv_free(void* memory);

namespace Kvl {

// What UString must know and do about the storage of its ICU base.
//
// ICU decides by itself whether a write needs memory, which it does for a shared or read-only
// buffer too, and when there is none it lets the text go. To keep the text we must know
// beforehand, and ICU has no public way to ask. An explicit instantiation may name a private
// member; should ICU change it, this does not compile.
template <class Name, auto Member>
struct private_member_t {
    friend constexpr auto member_named_by(Name) { return Member; }
};
struct is_buffer_writable_t {
    friend constexpr auto member_named_by(is_buffer_writable_t);
};
struct set_length_t {
    friend constexpr auto member_named_by(set_length_t);
};
struct set_array_t {
    friend constexpr auto member_named_by(set_array_t);
};
struct copy_from_t {
    friend constexpr auto member_named_by(copy_from_t);
};
struct storage_t {
    friend constexpr auto member_named_by(storage_t);
};
struct storage_flags_t {
    friend constexpr auto member_named_by(storage_flags_t);
};
struct in_itself_t {
    friend constexpr auto member_named_by(in_itself_t);
};
struct counted_t {
    friend constexpr auto member_named_by(counted_t);
};
struct elsewhere_t {
    friend constexpr auto member_named_by(elsewhere_t);
};
struct length_shift_t {
    friend constexpr auto member_named_by(length_shift_t);
};
struct max_short_length_t {
    friend constexpr auto member_named_by(max_short_length_t);
};
template struct private_member_t<is_buffer_writable_t, &icu::UnicodeString::isBufferWritable>;
template struct private_member_t<set_length_t, &icu::UnicodeString::setLength>;
template struct private_member_t<set_array_t, &icu::UnicodeString::setArray>;
template struct private_member_t<copy_from_t, &icu::UnicodeString::copyFrom>;
template struct private_member_t<storage_t, &icu::UnicodeString::fUnion>;
template struct private_member_t<storage_flags_t, icu::UnicodeString::kAllStorageFlags>;
template struct private_member_t<in_itself_t, icu::UnicodeString::kShortString>;
template struct private_member_t<counted_t, icu::UnicodeString::kLongString>;
template struct private_member_t<elsewhere_t, icu::UnicodeString::kReadonlyAlias>;
template struct private_member_t<length_shift_t, icu::UnicodeString::kLengthShift>;
template struct private_member_t<max_short_length_t, icu::UnicodeString::kMaxShortLength>;

/// ICU's own limit of a capacity, of which it makes no constant.
constexpr int MAX_CAPACITY = INT_MAX - 10;

/// Up to here ICU keeps a length and its flags in one number.
constexpr std::size_t MAX_SHORT_LENGTH = member_named_by(max_short_length_t());

/// What fits into a text object itself, of which ICU makes no constant either.
constexpr std::size_t INLINE_UNITS = (UNISTR_OBJECT_SIZE - sizeof(void*) - 2) / sizeof(char16_t);

/// Whether the units may be written where they are: not shared, not read-only, not bogus or open.
inline bool is_exclusive(const icu::UnicodeString& text)
{
    return (text.*member_named_by(is_buffer_writable_t()))() != 0;
}

/// Whether the caller has opened the buffer for writing. ICU ignores edits meanwhile, and so do we.
inline bool is_open(const icu::UnicodeString& text)
{
    return text.getBuffer() == nullptr && !text.isBogus();
}

/// @param text  exclusive
/// @return      its units and the room behind them
inline char16_t* writable(icu::UnicodeString& text)
{
    return const_cast<char16_t*>(text.getBuffer());
}

/// The units of a text and the room behind them: asked for once, where the text object would be
/// asked again and again.
struct unit_room_t {
    /// @param text  exclusive
    explicit unit_room_t(icu::UnicodeString& text)
        : begin(writable(text)), end(begin + text.getCapacity())
    {
    }
    unit_room_t(char16_t* units, std::size_t count) : begin(units), end(units + count) {}
    char16_t* const begin;
    char16_t* const end;
};

/// Sets the length and, where there is room, the terminator.
/// @param room    of this text
/// @param length  which fits
inline void set_length(icu::UnicodeString& text, const unit_room_t& room, std::size_t length)
{
    if (room.begin + length < room.end)
        room.begin[length] = 0;
    (text.*member_named_by(set_length_t()))(static_cast<std::int32_t>(length));
}

/// The same.
/// @param text  exclusive, with a capacity of at least `length`, which ICU's lengths hold
inline void set_length(icu::UnicodeString& text, std::size_t length)
{
    set_length(text, unit_room_t(text), length);
}

/// @return  `units`, if a text can be so long
/// @throws std::bad_alloc it cannot
inline std::int32_t checked_capacity(std::size_t units)
{
    if (units > static_cast<std::size_t>(MAX_CAPACITY))
        throw std::bad_alloc();
    return static_cast<std::int32_t>(units);
}

/// @throws std::bad_alloc there is no memory, or a text cannot be so long
inline icu::UnicodeString empty_text_of_capacity(std::size_t units)
{
    icu::UnicodeString text(checked_capacity(units), 0, 0);
    if (text.isBogus())
        throw std::bad_alloc();
    return text;
}

inline bool is_inside(const void* place, const void* begin, const void* end)
{
    return std::less_equal<>()(begin, place) && std::less<>()(place, end);
}

/// Whether the units are in the text object itself.
inline bool is_inline(const icu::UnicodeString& text)
{
    return is_inside(text.getBuffer(), &text, &text + 1);
}

/// Ends ICU's bogus state, in which it leaves a text that gets no memory.
[[noreturn]] inline void throw_no_memory(icu::UnicodeString& text)
{
    text.remove();
    throw std::bad_alloc();
}

/// Whether there is nothing in the text to keep, share or release, as when it is new.
inline bool is_new(const icu::UnicodeString& text)
{
    // One comparison of what holds the length and all that ICU knows about the storage.
    return (text.*member_named_by(storage_t())).fFields.fLengthAndFlags ==
           member_named_by(in_itself_t());
}

/// Lets a text stand on constant units, as ICU's constructor for that does, but without its call
/// and its questions about them.
/// @param text   is_new()
/// @param units  with a U+0000 behind them; outlive the text and everything moved from it
inline void stand_on(icu::UnicodeString& text, std::u16string_view units)
{
    (text.*member_named_by(storage_t())).fFields.fLengthAndFlags = member_named_by(elsewhere_t());
    const auto length = static_cast<std::int32_t>(units.size());
    (text.*member_named_by(set_array_t()))(const_cast<char16_t*>(units.data()), length, length + 1);
}

/// How many texts share units that are not in the text object itself. ICU counts them in front of
/// the units.
typedef std::atomic<std::int32_t> sharers_t;

inline sharers_t& sharers(char16_t* counted_units)
{
    return reinterpret_cast<sharers_t*>(counted_units)[-1];
}

/// What ICU's allocation makes: whole blocks of 16 bytes for the count, the units and a terminator.
/// @param units  a capacity that is_new() has not
/// @throws std::bad_alloc there is no memory
inline void allocate(icu::UnicodeString& text, std::int32_t units)
{
    const std::size_t size = sizeof(sharers_t) + (std::size_t(units) + 1) * sizeof(char16_t);
    const std::size_t whole = (size + 15) / 16 * 16;
    void* const memory = uprv_malloc(whole);
    if (memory == nullptr)
        throw std::bad_alloc();
    auto& fields = (text.*member_named_by(storage_t())).fFields;
    fields.fArray = reinterpret_cast<char16_t*>(new (memory) sharers_t(1) + 1);
    fields.fCapacity = static_cast<std::int32_t>((whole - sizeof(sharers_t)) / sizeof(char16_t));
    fields.fLengthAndFlags = member_named_by(counted_t());
}

/// Makes the capacity at least `units`, without ICU's questions about what there is.
/// @param text  is_new(); its length is to be set
/// @return      its units and the room behind them
/// @throws std::bad_alloc there is no memory, or a text cannot be so long
inline unit_room_t make_room_in_new(icu::UnicodeString& text, std::size_t units)
{
    auto& storage = text.*member_named_by(storage_t());
    if (units <= INLINE_UNITS)
        return {storage.fStackFields.fBuffer, INLINE_UNITS};
    allocate(text, checked_capacity(units));
    return {storage.fFields.fArray, static_cast<std::size_t>(storage.fFields.fCapacity)};
}

/// The same, and the length and its terminator at once, which saves a twentieth of such a line.
/// @param text    is_new()
/// @param length  beyond INLINE_UNITS, up to MAX_SHORT_LENGTH
/// @return        where the units are to be written
/// @throws std::bad_alloc there is no memory
inline char16_t* allocate_line(icu::UnicodeString& text, std::size_t length)
{
    allocate(text, static_cast<std::int32_t>(length));
    auto& fields = (text.*member_named_by(storage_t())).fFields;
    const std::size_t flags =
        length << member_named_by(length_shift_t()) | member_named_by(counted_t());
    fields.fLengthAndFlags = static_cast<std::int16_t>(flags);
    fields.fArray[length] = 0;
    return fields.fArray;
}

/// Makes the capacity at least `units` in place of a buffer, by ICU's public way.
/// @param text  empty and exclusive
/// @throws std::bad_alloc there is no memory, or a text cannot be so long
inline void make_room_in_empty(icu::UnicodeString& text, std::size_t units)
{
    if (text.getBuffer(checked_capacity(units)) == nullptr)
        throw_no_memory(text);
    text.releaseBuffer(0);
}

/// With room to spare, so that appending unit by unit stays linear.
inline std::size_t grown_capacity(std::size_t units)
{
    constexpr auto most = static_cast<std::size_t>(MAX_CAPACITY);
    return units > most ? units : std::min(units + units / 4 + 128, most);
}

/// ICU copies and moves inline units without what stands behind them. Terminated here, they spare
/// c_str() a write.
inline void terminate_inline(icu::UnicodeString& text)
{
    if (is_inline(text) && text.length() < text.getCapacity())
        writable(text)[text.length()] = 0;
}

/// What ICU's copy constructor does, without its calls for a text that is in the object itself or
/// shared by counting, as nearly all are; and with a terminator behind what is copied.
/// @param to  is_new(); bogus afterwards when `from` is, or when there is no memory
inline void copy_into_new(icu::UnicodeString& to, const icu::UnicodeString& from)
{
    const auto& storage = from.*member_named_by(storage_t());
    auto& copy = to.*member_named_by(storage_t());
    const int flags = storage.fFields.fLengthAndFlags;
    const int kind = flags & member_named_by(storage_flags_t());
    const bool has_units = flags != kind;
    if (kind == member_named_by(counted_t()) && has_units) {
        copy.fFields = storage.fFields;
        sharers(copy.fFields.fArray).fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (kind == member_named_by(in_itself_t())) {
        copy.fStackFields = storage.fStackFields;
        terminate_inline(to);
        return;
    }
    (to.*member_named_by(copy_from_t()))(from, false);
    if (is_exclusive(to))
        set_length(to, static_cast<std::size_t>(to.length()));
}

/// What ICU's destructor does with counted units, without its calls, and without its locked
/// instruction where nobody shares them: that one waits for all that was written before, a quarter
/// of the life of a line of text.
/// @param text  about to be destroyed
inline void release_counted(icu::UnicodeString& text) noexcept
{
    auto& fields = (text.*member_named_by(storage_t())).fFields;
    const int kind = fields.fLengthAndFlags & member_named_by(storage_flags_t());
    if (kind != member_named_by(counted_t()))
        return;
    sharers_t& count = sharers(fields.fArray);
    if (count.load(std::memory_order_acquire) == 1 ||
        count.fetch_sub(1, std::memory_order_acq_rel) == 1)
        uprv_free(&count);
    fields.fLengthAndFlags = member_named_by(in_itself_t());
}

}  // namespace Kvl

#endif
