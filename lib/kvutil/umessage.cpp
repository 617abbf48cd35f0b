#include <kvutil/umessage.h>

#include "copy_bytes_impl.h"
#include "latin1_impl.h"
#include "message_format_impl.h"
#include "undying_impl.h"
#include "ustring_impl.h"
#include "utf8_impl.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace Kvl {

// ---- Arg: values ----

namespace {

constexpr const char* text_or_empty(const char* text)
{
    return text == nullptr ? "" : text;
}

char* copy_of(const char* text)
{
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(new char[size], text, size));
}

Utf8String text_of(const Resource* resource)
{
    return resource == nullptr ? Utf8String() : resource->text().utf8_str();
}

}  // namespace

UMessage::Arg::arg_union_t::arg_union_t(const char* s) : cstr(copy_of(text_or_empty(s))) {}

UMessage::Arg::arg_union_t::arg_union_t(const std::string& s) : str(new std::string(s)) {}

UMessage::Arg::arg_union_t::arg_union_t(const UString& s) : str(new std::string(s.utf8_str())) {}

UMessage::Arg::arg_union_t::arg_union_t(const unsigned short* s) : arg_union_t(UString(s)) {}

UMessage::Arg::arg_union_t::arg_union_t(const char16_t* s) : arg_union_t(UString(s)) {}

UMessage::Arg::arg_union_t::arg_union_t(const Resource& r) : res(r.clone()) {}

UMessage::Arg::Arg(int kind, std::int64_t i) noexcept : kind_(kind)
{
    value_.i64 = i;
}

UMessage::Arg::Arg(char c) : Arg(1, static_cast<signed char>(c)) {}

UMessage::Arg::Arg(int i) : Arg(2, i) {}

UMessage::Arg::Arg(long i) : Arg(i == static_cast<std::int32_t>(i) ? 3 : 4, i) {}

UMessage::Arg::Arg(unsigned int i) : Arg(static_cast<long long>(i)) {}

UMessage::Arg::Arg(unsigned long i) : Arg(static_cast<long long>(i)) {}

UMessage::Arg::Arg(long long i) : Arg(4, i) {}

UMessage::Arg::Arg(unsigned long long i) : Arg(static_cast<long long>(i)) {}

UMessage::Arg::Arg(double d) : kind_(5)
{
    value_.d = d;
}

UMessage::Arg::Arg(long double d) : Arg(static_cast<double>(d)) {}

// A text is one array, or stands in the argument when it is short.
UMessage::Arg::Arg(int kind, const char* text, std::size_t size) : kind_(kind)
{
    hold(text, size);
}

void UMessage::Arg::hold(const char* text, std::size_t size)
{
    char* const place = size < sizeof short_text_ ? short_text_ : new char[size + 1];
    copy_bytes(place, text, size);
    place[size] = '\0';
    value_.cstr = place;
}

UMessage::Arg::Arg(const char* s) : Arg(6, text_or_empty(s), s == nullptr ? 0 : std::strlen(s)) {}

UMessage::Arg::Arg(const std::string& s) : Arg(7, s.data(), s.size()) {}

/// Holds the text as utf8_str() gives it. Up to this length it is converted on the stack and copied
/// once, to its place.
UMessage::Arg::Arg(const UString& s) : kind_(8)
{
    constexpr std::size_t FEW_UNITS = 256;
    const std::u16string_view units = view_of(s);
    if (units.size() <= FEW_UNITS) {
        std::array<char, utf8_room_for(FEW_UNITS)> bytes;
        bool has_zero = false;
        const char* const end = utf16_to_utf8(units, bytes.data(), has_zero);
        hold(bytes.data(), end == nullptr ? 0 : static_cast<std::size_t>(end - bytes.data()));
    } else {
        const Utf8String bytes = s.utf8_str();
        hold(bytes.data(), bytes.size());
    }
}

UMessage::Arg::Arg(const unsigned short* s) : Arg(UString(s)) {}

UMessage::Arg::Arg(const char16_t* s) : Arg(UString(s)) {}

UMessage::Arg::Arg(const Resource& r) : kind_(9), value_(r) {}

UMessage::Arg::Arg(const Arg& o) : kind_(o.kind_), value_(o.value_)
{
    if (is_text())
        hold(o.value_.cstr, std::strlen(o.value_.cstr));
    else if (kind_ == 9 && value_.res != nullptr)
        value_.res = o.value_.res->clone();
}

UMessage::Arg::Arg(Arg&& o) noexcept : kind_(0)
{
    take(o);
}

UMessage::Arg& UMessage::Arg::operator=(const Arg& o)
{
    return *this = Arg(o);
}

UMessage::Arg& UMessage::Arg::operator=(Arg&& o) noexcept
{
    Arg taken(std::move(o));
    const Arg released(std::move(*this));
    take(taken);
    return *this;
}

KVUTIL_AT_LOAD UMessage::Arg::~Arg()
{
    if (kind_ == 9)
        delete value_.res;
    else if (is_text() && value_.cstr != short_text_)
        delete[] value_.cstr;
}

/// Takes over what `o` holds; this argument holds nothing.
void UMessage::Arg::take(Arg& o) noexcept
{
    kind_ = std::exchange(o.kind_, 0);
    value_ = o.value_;
    printed_text_ = std::move(o.printed_text_);
    if (is_text() && value_.cstr == o.short_text_) {
        std::memcpy(short_text_, o.short_text_, sizeof short_text_);
        value_.cstr = short_text_;
    }
}

int UMessage::Arg::kind() const
{
    return kind_;
}

void UMessage::Arg::get_print_val(cxPrintfArgVal& v) const
{
    if (kind_ != 9) {
        fill(v);
        return;
    }
    // A record filled earlier points to the text of then, which is replaced only by another one.
    std::string text = text_of(value_.res);
    if (printed_text_ == nullptr)
        printed_text_ = std::make_unique<std::string>(std::move(text));
    else if (*printed_text_ != text)
        *printed_text_ = std::move(text);
    v.p = printed_text_->c_str();
}

/// Fills a record for every kind but 9, whose text does not exist yet.
void UMessage::Arg::fill(cxPrintfArgVal& v) const
{
    if (is_text())
        v.p = value_.cstr;
    else if (kind_ == 5)
        v.d = value_.d;
    else if (kind_ != 0)
        v.i = value_.i64;
}

// ---- collection_t ----

UMessage::collection_t::collection_t() = default;
UMessage::collection_t::collection_t(const collection_t& o) = default;
UMessage::collection_t::collection_t(collection_t&& o) noexcept = default;
UMessage::collection_t& UMessage::collection_t::operator=(collection_t&& o) noexcept = default;
UMessage::collection_t::~collection_t() = default;

UMessage::collection_t& UMessage::collection_t::operator=(const collection_t& o)
{
    return *this = collection_t(o);
}

UMessage::collection_t::iterator UMessage::collection_t::begin()
{
    return messages_.begin();
}

UMessage::collection_t::iterator UMessage::collection_t::end()
{
    return messages_.end();
}

UMessage::collection_t::const_iterator UMessage::collection_t::begin() const
{
    return messages_.begin();
}

UMessage::collection_t::const_iterator UMessage::collection_t::end() const
{
    return messages_.end();
}

unsigned int UMessage::collection_t::size() const
{
    return static_cast<unsigned int>(messages_.size());
}

bool UMessage::collection_t::empty() const
{
    return messages_.empty();
}

UMessage& UMessage::collection_t::operator[](unsigned int i)
{
    return messages_[i];
}

const UMessage& UMessage::collection_t::operator[](unsigned int i) const
{
    return messages_[i];
}

void UMessage::collection_t::clear()
{
    messages_.clear();
}

void UMessage::collection_t::reserve(unsigned int n)
{
    messages_.reserve(n);
}

void UMessage::collection_t::push_back(const UMessage& m)
{
    messages_.push_back(m);
}

UMessage::collection_t& UMessage::collection_t::operator+=(const collection_t& o)
{
    // Copied before anything changes: `o` may be this sequence, and a copy may fail.
    std::vector<UMessage> added(o.messages_);
    messages_.insert(messages_.end(), std::make_move_iterator(added.begin()),
                     std::make_move_iterator(added.end()));
    return *this;
}

// ---- UMessage ----

namespace {

constexpr std::size_t MAX_ARGUMENTS = 10;
constexpr std::size_t FEW_ARGUMENTS = 2;

std::vector<UMessage::Arg> copies(std::size_t room, std::initializer_list<const UMessage::Arg*> all)
{
    std::vector<UMessage::Arg> kept;
    kept.reserve(room);
    for (const UMessage::Arg* arg : all) {
        if (arg->kind() != 0)
            kept.push_back(*arg);
    }
    return kept;
}

std::vector<UMessage::Arg> moved(std::size_t room, std::initializer_list<UMessage::Arg*> all)
{
    std::vector<UMessage::Arg> kept;
    kept.reserve(room);
    for (UMessage::Arg* arg : all) {
        if (arg->kind() != 0)
            kept.push_back(std::move(*arg));
    }
    return kept;
}

}  // namespace

KVUTIL_AT_LOAD UMessage::UMessage() : catalogue_(nullptr), index_(-1) {}

UMessage::UMessage(const char** catalogue, int index, const Arg& a1, const Arg& a2)
    : catalogue_(catalogue), index_(index), arguments_(copies(FEW_ARGUMENTS, {&a1, &a2}))
{
}

UMessage::UMessage(const char** catalogue, int index, const Arg& a1, const Arg& a2, const Arg& a3,
                   const Arg& a4, const Arg& a5, const Arg& a6, const Arg& a7, const Arg& a8,
                   const Arg& a9, const Arg& a10)
    : catalogue_(catalogue), index_(index),
      arguments_(copies(MAX_ARGUMENTS, {&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10}))
{
}

UMessage::UMessage(const char** catalogue, int index, Arg&& a1)
    : catalogue_(catalogue), index_(index), arguments_(moved(FEW_ARGUMENTS, {&a1}))
{
}

UMessage::UMessage(const char** catalogue, int index, Arg&& a1, Arg&& a2)
    : catalogue_(catalogue), index_(index), arguments_(moved(FEW_ARGUMENTS, {&a1, &a2}))
{
}

UMessage::UMessage(const char** catalogue, int index, Arg&& a1, Arg&& a2, Arg&& a3)
    : catalogue_(catalogue), index_(index), arguments_(moved(MAX_ARGUMENTS, {&a1, &a2, &a3}))
{
}

UMessage::UMessage(const UMessage& o) = default;

UMessage::UMessage(UMessage&& o) noexcept
    : catalogue_(std::exchange(o.catalogue_, nullptr)), index_(std::exchange(o.index_, -1)),
      arguments_(std::move(o.arguments_))
{
}

UMessage& UMessage::operator=(const UMessage& o)
{
    return *this = UMessage(o);
}

UMessage& UMessage::operator=(UMessage&& o) noexcept
{
    UMessage taken(std::move(o));
    std::swap(catalogue_, taken.catalogue_);
    std::swap(index_, taken.index_);
    arguments_.swap(taken.arguments_);
    return *this;
}

KVUTIL_AT_LOAD UMessage::~UMessage() = default;

bool UMessage::is_nil() const
{
    return this == &nil || (catalogue_ == nullptr && index_ == -1);
}

const char** UMessage::catalogue() const
{
    return catalogue_;
}

int UMessage::index() const
{
    return index_;
}

const std::vector<UMessage::Arg>& UMessage::arguments() const
{
    return arguments_;
}

// ---- Rendering ----

/// The arguments of one rendering as conversions see them. The texts of resources are asked for
/// once each and live here, not in the arguments, so that threads may render one message at once.
class MessageArguments {
public:
    /// @param all  those of kind 0 are left out
    explicit MessageArguments(std::initializer_list<const UMessage::Arg*> all);
    explicit MessageArguments(const std::vector<UMessage::Arg>& all);
    /// @param all  null, as kind 0, is a place without argument
    explicit MessageArguments(const std::vector<const UMessage::Arg*>& all);
    MessageArguments(const MessageArguments&) = delete;
    MessageArguments& operator=(const MessageArguments&) = delete;

    MessageFormat::arguments_t get() const { return {records_, held_, count_}; }

    /// @param num_records  how many the formatter reads; those beyond the arguments become zero
    cxPrintfArgVal* records(std::size_t num_records);

private:
    void make_room(std::size_t num_records);
    void put(std::size_t i, const UMessage::Arg& arg);
    // Rare, and so no part of its caller.
    [[gnu::noinline]] const char* resource_text(const UMessage::Arg& arg);

    /// What hardly any message needs.
    struct rest_t {
        std::vector<cxPrintfArgVal> records;
        std::vector<MessageFormat::held_t> held;
        std::forward_list<std::string> resource_texts;
    };
    rest_t& rest();

    cxPrintfArgVal few_records_[2 * MAX_ARGUMENTS];
    MessageFormat::held_t few_held_[2 * MAX_ARGUMENTS];
    std::unique_ptr<rest_t> rest_;
    std::size_t count_ = 0;
    std::size_t room_ = std::size(few_records_);
    cxPrintfArgVal* records_ = few_records_;
    MessageFormat::held_t* held_ = few_held_;
};

namespace {

using MessageFormat::held_t;

constexpr held_t HELD[] = {held_t::NOTHING, held_t::CHARACTER, held_t::INTEGER, held_t::INTEGER,
                           held_t::INTEGER, held_t::FLOATING,  held_t::TEXT,    held_t::TEXT,
                           held_t::TEXT,    held_t::TEXT};

UString fallback()
{
    return UString(u"Could not locate Catalog File");
}

/// Whether the formatter had nothing to say. A text that merely begins like this is a real one.
bool is_missing(const char* text)
{
    constexpr const char* NO_TEXT = "default QmLogger message";
    return text == nullptr || (*text == *NO_TEXT && std::strcmp(text, NO_TEXT) == 0);
}

UString decoded_long(std::string_view bytes)
{
    if (bytes.size() > INT_MAX)
        throw std::bad_alloc();
    const std::size_t length = utf16_length_of(bytes);
    if (length == 0)
        return UString();
    return owned_text_t::make(
        length, [bytes, length](char16_t* to) { utf8_to_utf16(bytes, length, to, to + length); });
}

/// Nearly all messages are ASCII, which one pass shows and converts. There is room for all else,
/// which takes no more units than bytes.
UString decoded_short(std::string_view bytes)
{
    return owned_text_t::make_at_most(bytes.size(), [bytes](char16_t* to) {
        const char16_t* const limit = to + bytes.size();
        if (widen_if_ascii(bytes, to, limit))
            return to + bytes.size();
        const std::size_t length = utf16_length_of(bytes);
        if (length != 0)
            utf8_to_utf16(bytes, length, to, limit);
        return to + length;
    });
}

/// Decodes straight from the formatter's buffer, see UString::utf8_assign().
UString decoded(std::string_view bytes)
{
    constexpr std::size_t FEW_BYTES = 256;
    return bytes.size() <= FEW_BYTES ? decoded_short(bytes) : decoded_long(bytes);
}

UString finished(const char* text)
{
    return is_missing(text) ? fallback() : decoded(text);
}

UString fill_safely(const char* format, const MessageFormat::arguments_t& args)
{
    MessageFormat::safe_format_t safe = MessageFormat::make_safe(format, args);
    return finished(Log::QmMsg::format(safe.format.c_str(), safe.records.data()));
}

/// @param all  what MessageArguments is made from
template <class Arguments>
UString render(const char* format, const Arguments& all)
{
    MessageArguments arguments(all);
    std::size_t num_records = 0;
    format = text_or_empty(format);
    if (MessageFormat::agrees(format, arguments.get(), num_records))
        return finished(Log::QmMsg::format(format, arguments.records(num_records)));
    return fill_safely(format, arguments.get());
}

template <class Arguments>
UString render(const char** catalogue, int index, const Arguments& all, const char* extra)
{
    const char* const format = Log::QmMsg::format(catalogue, index, extra);
    return is_missing(format) ? fallback() : render(format, all);
}

using argument_list_t = std::initializer_list<const UMessage::Arg*>;

/// Whether these are default arguments, as those behind the third nearly always are.
template <class... Args>
bool are_left_out(const Args&... args)
{
    return ((&args == &UMessage::Arg::nil) && ...);
}

}  // namespace

MessageArguments::MessageArguments(std::initializer_list<const UMessage::Arg*> all)
{
    std::size_t count = 0;
    for (const UMessage::Arg* arg : all) {
        if (arg->kind_ != 0)
            put(count++, *arg);
    }
    count_ = count;
}

MessageArguments::MessageArguments(const std::vector<UMessage::Arg>& all)
{
    std::size_t count = 0;
    for (const UMessage::Arg& arg : all)
        put(count++, arg);
    count_ = count;
}

MessageArguments::MessageArguments(const std::vector<const UMessage::Arg*>& all)
{
    make_room(all.size());
    std::size_t count = 0;
    for (const UMessage::Arg* arg : all)
        put(count++, arg == nullptr ? UMessage::Arg::nil : *arg);
    count_ = count;
}

void MessageArguments::make_room(std::size_t num_records)
{
    if (num_records <= room_)
        return;
    std::vector<cxPrintfArgVal> records(num_records);
    std::vector<MessageFormat::held_t> held(num_records);
    std::copy_n(records_, count_, records.begin());
    std::copy_n(held_, count_, held.begin());
    rest().records.swap(records);
    rest().held.swap(held);
    records_ = rest().records.data();
    held_ = rest().held.data();
    room_ = num_records;
}

void MessageArguments::put(std::size_t i, const UMessage::Arg& arg)
{
    cxPrintfArgVal& record = records_[i];
    // All of it: an initialiser need not zero more than the first member.
    std::memset(&record, 0, sizeof record);
    held_[i] = HELD[arg.kind_];
    if (arg.kind_ != 9)
        arg.fill(record);
    else
        record.p = resource_text(arg);
}

const char* MessageArguments::resource_text(const UMessage::Arg& arg)
{
    return rest().resource_texts.emplace_front(text_of(arg.value_.res)).c_str();
}

MessageArguments::rest_t& MessageArguments::rest()
{
    if (rest_ == nullptr)
        rest_ = std::make_unique<rest_t>();
    return *rest_;
}

cxPrintfArgVal* MessageArguments::records(std::size_t num_records)
{
    if (num_records == count_)
        return records_;
    make_room(num_records);
    if (num_records > count_)
        std::memset(records_ + count_, 0, (num_records - count_) * sizeof *records_);
    return records_;
}

UString UMessage::message_string(const char* extra) const
{
    if (catalogue_ == nullptr || index_ == -1)
        return UString();
    return render(catalogue_, index_, arguments_, extra);
}

UString UMessage::sprintf(const char* format, const std::vector<const Arg*>& args)
{
    return render(format, args);
}

UString UMessage::sprintf(const char* format, const Arg& a1)
{
    return render(format, argument_list_t{&a1});
}

UString UMessage::sprintf(const char* format, const Arg& a1, const Arg& a2, const Arg& a3,
                          const Arg& a4, const Arg& a5, const Arg& a6, const Arg& a7, const Arg& a8,
                          const Arg& a9, const Arg& a10)
{
    if (are_left_out(a4, a5, a6, a7, a8, a9, a10))
        return render(format, argument_list_t{&a1, &a2, &a3});
    return render(format, argument_list_t{&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10});
}

UString UMessage::sprintf(const UString& format, const std::vector<const Arg*>& args)
{
    return render(format.utf8_str().c_str(), args);
}

UString UMessage::sprintf(const UString& format, const Arg& a1)
{
    return render(format.utf8_str().c_str(), argument_list_t{&a1});
}

UString UMessage::sprintf(const UString& format, const Arg& a1, const Arg& a2, const Arg& a3,
                          const Arg& a4, const Arg& a5, const Arg& a6, const Arg& a7, const Arg& a8,
                          const Arg& a9, const Arg& a10)
{
    return render(format.utf8_str().c_str(),
                  argument_list_t{&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10});
}

UString UMessage::sprintf(const char** catalogue, int index, const std::vector<const Arg*>& args,
                          const char* extra)
{
    return render(catalogue, index, args, extra);
}

UString UMessage::sprintf(const char** catalogue, int index, const Arg& a1)
{
    return render(catalogue, index, argument_list_t{&a1}, nullptr);
}

UString UMessage::sprintf(const char** catalogue, int index, const Arg& a1, const Arg& a2,
                          const Arg& a3, const Arg& a4, const Arg& a5, const Arg& a6, const Arg& a7,
                          const Arg& a8, const Arg& a9, const Arg& a10)
{
    if (are_left_out(a4, a5, a6, a7, a8, a9, a10))
        return render(catalogue, index, argument_list_t{&a1, &a2, &a3}, nullptr);
    return render(catalogue, index,
                  argument_list_t{&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10}, nullptr);
}

}  // namespace Kvl
