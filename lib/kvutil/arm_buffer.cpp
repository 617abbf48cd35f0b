#include "arm_buffer_impl.h"
#include "failure_impl.h"
#include "ustring_impl.h"
#include "xmltag_index_impl.h"

#include <kvutil/critsec.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

namespace Kvl {

namespace {

/// Deliberate: identity properties and context names share one limit, which is below the standard's
/// limit of either.
constexpr std::size_t MAX_PROPERTIES = 19;

constexpr unsigned char STRING_SLOT = ARM_METRIC_MAX_ARRAY_INDEX;

// The temporaries of a refusal are gone before it is thrown, which then has less to unwind.

[[gnu::noinline]] STPException arm_refusal(std::u16string_view what)
{
    return refusal(MSG_ARM_ERROR, owned_text_t::make(what));
}

[[gnu::noinline]] STPException full_buffer_refusal(std::u16string_view function_name)
{
    std::u16string what = u"ArmBuffer::";
    what += function_name;
    what += u"():  Max Buffer count exceeded.";  // [sic] two blanks
    return arm_refusal(what);
}

/// A copy to keep. It is terminated, so that c_str() on it only reads; a bogus text becomes the
/// empty one.
UString kept(const UString& text)
{
    UString copy;
    copy.assign(text);
    copy.c_str();
    return copy;
}

template <class Map>
auto find_text(Map& map, const UString& text)
{
    if (text.isBogus())
        return map.find(UString());
    return map.find(text);
}

/// Grows as push_back() does, but leaves nothing to fail for the elements that follow.
template <class T>
void make_room(std::vector<T>& sequence, std::size_t elements)
{
    const std::size_t needed = sequence.size() + elements;
    if (needed > sequence.capacity())
        sequence.reserve(std::max(needed, 2 * sequence.capacity()));
}

/// Never throws where there is room.
int append(std::vector<UString>& texts, UString&& text)
{
    texts.push_back(std::move(text));
    return static_cast<int>(texts.size()) - 1;
}

}  // namespace

// ---- identity ----

ArmAppIdentyBuffer::ArmAppIdentyBuffer() noexcept = default;
ArmAppIdentyBuffer::ArmAppIdentyBuffer(const ArmAppIdentyBuffer& o) = default;
ArmAppIdentyBuffer::ArmAppIdentyBuffer(ArmAppIdentyBuffer&& o) noexcept = default;
ArmAppIdentyBuffer::~ArmAppIdentyBuffer() = default;
ArmAppIdentyBuffer& ArmAppIdentyBuffer::operator=(ArmAppIdentyBuffer&& o) noexcept = default;

ArmAppIdentyBuffer& ArmAppIdentyBuffer::operator=(const ArmAppIdentyBuffer& o)
{
    return *this = ArmAppIdentyBuffer(o);
}

void ArmAppIdentyBuffer::add_identity_prop(const unsigned short* name, const unsigned short* value)
{
    check_max_num_properties();
    append_identity_prop(UString(name), UString(value));
}

void ArmAppIdentyBuffer::add_identity_prop(const char16_t* name, const char16_t* value)
{
    check_max_num_properties();
    append_identity_prop(UString(name), UString(value));
}

void ArmAppIdentyBuffer::append_identity_prop(UString&& name, UString&& value)
{
    make_room(strings_, 2);
    make_room(property_names_, 1);
    make_room(property_values_, 1);
    property_names_.push_back(append(strings_, std::move(name)));
    property_values_.push_back(append(strings_, std::move(value)));
}

void ArmAppIdentyBuffer::add_context_prop(const UString& name)
{
    check_max_num_properties();
    UString text = kept(name);
    make_room(strings_, 1);
    make_room(context_names_, 1);
    // A name that is there keeps its index.
    ctx_indicies_.try_emplace(text, static_cast<int>(strings_.size()));
    context_names_.push_back(append(strings_, std::move(text)));
}

void ArmAppIdentyBuffer::check_max_num_properties() const
{
    if (property_names_.size() + context_names_.size() >= MAX_PROPERTIES)
        throw arm_refusal(u"ArmIdentityBuffer:: trying to register too many properties");
}

ArmTransIdentyBuffer::ArmTransIdentyBuffer() noexcept = default;

void ArmTransIdentyBuffer::set_uri(const UString& uri)
{
    uri_ = kept(uri);
}

// ---- context ----

ArmAppContextBuffer::ArmAppContextBuffer(const ArmAppIdentyBuffer::ctx_index_map_t& names)
    : names_(names)
{
    listed_.reserve(names.size());
    for (const auto& [name, index] : names)
        listed_.push_back(index);
    std::sort(listed_.begin(), listed_.end());
}

ArmAppContextBuffer::ArmAppContextBuffer(const ArmAppIdentyBuffer& identity)
    : names_(identity.ctx_indicies_), listed_(identity.context_names_)
{
}

ArmAppContextBuffer::ArmAppContextBuffer(const ArmAppContextBuffer& o) = default;
ArmAppContextBuffer::ArmAppContextBuffer(ArmAppContextBuffer&& o) noexcept = default;
ArmAppContextBuffer::~ArmAppContextBuffer() = default;
ArmAppContextBuffer& ArmAppContextBuffer::operator=(ArmAppContextBuffer&& o) noexcept = default;

ArmAppContextBuffer& ArmAppContextBuffer::operator=(const ArmAppContextBuffer& o)
{
    return *this = ArmAppContextBuffer(o);
}

void ArmAppContextBuffer::add_ctx_prop(const UString& name, const UString& value)
{
    const auto known = find_text(names_, name);
    if (known == names_.end())
        throw arm_refusal(u"ArmContextBuffer:: trying to add unknown context property");
    values_.insert_or_assign(known->second, kept(value));
}

// ---- metrics ----

ArmMetricValuesBuffer::ArmMetricValuesBuffer() noexcept = default;
ArmMetricValuesBuffer::ArmMetricValuesBuffer(const ArmMetricValuesBuffer& o) = default;
ArmMetricValuesBuffer::ArmMetricValuesBuffer(ArmMetricValuesBuffer&& o) noexcept = default;
ArmMetricValuesBuffer::~ArmMetricValuesBuffer() = default;
ArmMetricValuesBuffer&
ArmMetricValuesBuffer::operator=(ArmMetricValuesBuffer&& o) noexcept = default;

ArmMetricValuesBuffer& ArmMetricValuesBuffer::operator=(const ArmMetricValuesBuffer& o)
{
    return *this = ArmMetricValuesBuffer(o);
}

void ArmMetricValuesBuffer::add_value(short usage, bool valid, const UString& text)
{
    const value_t value = {STRING_SLOT, ARM_METRIC_FORMAT_STRING32, usage, valid, {.i64 = 0}};
    UString copy = kept(text);
    const auto former = std::find_if(values_.begin(), values_.end(),
                                     [](const value_t& v) { return v.slot == STRING_SLOT; });
    if (former != values_.end())
        *former = value;
    else
        values_.push_back(value);
    string_value_ = std::move(copy);
}

void ArmMetricValuesBuffer::add_value(unsigned char slot, short usage, bool valid,
                                      arm_metric_gaugedivr32 v)
{
    check_non_string_slot(slot);
    values_.push_back({slot, ARM_METRIC_FORMAT_GAUGEDIVR32, usage, valid, {.gaugedivr32 = v}});
}

void ArmMetricValuesBuffer::add_value(unsigned char slot, short usage, bool valid,
                                      arm_metric_cntrdivr32 v)
{
    check_non_string_slot(slot);
    values_.push_back({slot, ARM_METRIC_FORMAT_CNTRDIVR32, usage, valid, {.cntrdivr32 = v}});
}

void ArmMetricValuesBuffer::add_value(unsigned char slot, unsigned char format, short usage,
                                      bool valid, long long v)
{
    check_non_string_slot(slot);
    values_.push_back({slot, format, usage, valid, {.i64 = v}});
}

void ArmMetricValuesBuffer::add_value(unsigned char slot, unsigned char format, short usage,
                                      bool valid, long v)
{
    add_value(slot, format, usage, valid, static_cast<long long>(v));
}

void ArmMetricValuesBuffer::add_value(unsigned char slot, unsigned char format, short usage,
                                      bool valid, int v)
{
    // Widened, so that a 64-bit format has the number too. A 32-bit one finds it in the low half.
    static_assert(std::endian::native == std::endian::little);
    add_value(slot, format, usage, valid, static_cast<long long>(v));
}

void ArmMetricValuesBuffer::check_non_string_slot(unsigned char slot) const
{
    if (slot >= STRING_SLOT)
        throw arm_refusal(u"ArmMetricValuesBuffer:: illegal slot # for non-string metric");
}

void ArmMetricBindingsBuffer::add_binding(unsigned char slot, arm_id metric_id)
{
    bindings_.push_back({slot, metric_id});
}

// ---- records ----

namespace {

/// A record of the standard and the arrays that it refers to, in one allocation.
template <class Record>
class new_record_t {
public:
    explicit new_record_t(arm_subbuffer_format_t format, std::size_t arrays_bytes = 0)
        : memory_(std::make_unique<std::byte[]>(sizeof(Record) + arrays_bytes)),
          record_(std::construct_at(reinterpret_cast<Record*>(memory_.get()))),
          free_(memory_.get() + sizeof(Record))
    {
        record_->header.format = format;
    }

    Record* operator->() { return record_; }

    /// The next array, of zeros; null when it has no elements.
    template <class Element>
    Element* array(std::size_t length)
    {
        static_assert(alignof(Element) <= alignof(Record), "arrays follow without a gap");
        if (length == 0)
            return nullptr;
        Element* const elements = reinterpret_cast<Element*>(free_);
        std::uninitialized_value_construct_n(elements, length);
        free_ += length * sizeof(Element);
        return elements;
    }

    arm_subbuffer* release() noexcept
    {
        memory_.release();
        return &record_->header;
    }

private:
    std::unique_ptr<std::byte[]> memory_;
    Record* record_;
    std::byte* free_;
};

/// The header is the first of a record, which is the first in its allocation.
void free_record(arm_subbuffer* record) noexcept
{
    delete[] reinterpret_cast<std::byte*>(record);
}

arm_boolean_t arm_boolean(bool b)
{
    return b ? ARM_TRUE : ARM_FALSE;
}

}  // namespace

/// Each makes the whole record before the buffer has it: what fails on the way leaves no trace.
struct ArmBufferImpl {
    /// The check that an addition makes first, without a text for the name of its function.
    static void check_room(const ArmBuffer& buffer, const char16_t* function_name)
    {
        if (buffer.count() == ArmBuffer::MAX_SUBBUFFERS)
            throw full_buffer_refusal(function_name);
    }

    /// What every addition ends with.
    template <class Record>
    static void append(ArmBuffer& buffer, new_record_t<Record>& record) noexcept
    {
        buffer.subbuffers_[buffer.buffer4_.count++] = record.release();
    }

    template <class Record>
    static new_record_t<Record> identity(ArmBuffer& buffer, arm_subbuffer_format_t format,
                                         const ArmAppIdentyBuffer& b)
    {
        const std::size_t properties = b.property_names_.size();
        const std::size_t contexts = b.context_names_.size();
        new_record_t<Record> record(format, properties * sizeof(arm_property) +
                                                contexts * sizeof(const arm_char_t*));
        record->identity_property_count = static_cast<arm_int32_t>(properties);
        record->identity_property_array =
            property_array(buffer, b, record.template array<arm_property>(properties));
        record->context_name_count = static_cast<arm_int32_t>(contexts);
        record->context_name_array =
            name_array(buffer, b, record.template array<const arm_char_t*>(contexts));
        return record;
    }

    static const arm_property* property_array(ArmBuffer& buffer, const ArmAppIdentyBuffer& b,
                                              arm_property* array)
    {
        const auto pooled = [&](int index) {
            return ArmBuffer::pool_string(&buffer, b.strings_[static_cast<std::size_t>(index)]);
        };
        for (std::size_t i = 0; i < b.property_names_.size(); ++i)
            array[i] = {pooled(b.property_names_[i]), pooled(b.property_values_[i])};
        return array;
    }

    static const arm_char_t** name_array(ArmBuffer& buffer, const ArmAppIdentyBuffer& b,
                                         const arm_char_t** array)
    {
        std::transform(b.context_names_.begin(), b.context_names_.end(), array, [&](int index) {
            return ArmBuffer::pool_string(&buffer, b.strings_[static_cast<std::size_t>(index)]);
        });
        return array;
    }

    static const arm_char_t* uri(ArmBuffer& buffer, const ArmAppIdentyBuffer& b)
    {
        return b.uri_.empty() ? nullptr : ArmBuffer::pool_string(&buffer, b.uri_);
    }

    template <class Record>
    static new_record_t<Record> context(ArmBuffer& buffer, arm_subbuffer_format_t format,
                                        const ArmAppContextBuffer& b)
    {
        const std::size_t count = b.listed_.size();
        new_record_t<Record> record(format, count * sizeof(const arm_char_t*));
        const arm_char_t** const array = record.template array<const arm_char_t*>(count);
        std::transform(b.listed_.begin(), b.listed_.end(), array, [&](int index) {
            const auto value = b.values_.find(index);
            return value == b.values_.end() ? nullptr
                                            : ArmBuffer::pool_string(&buffer, value->second);
        });
        record->context_value_count = static_cast<arm_int32_t>(count);
        record->context_value_array = array;
        return record;
    }

    // What is consumed keeps its room, for what is gathered next.

    static void empty(ArmAppIdentyBuffer& b) noexcept
    {
        b.strings_.clear();
        b.property_names_.clear();
        b.property_values_.clear();
        b.context_names_.clear();
        b.ctx_indicies_.clear();
        b.uri_ = UString();
    }

    static void empty(ArmAppContextBuffer& b) noexcept { b.values_.clear(); }

    static void empty(ArmMetricValuesBuffer& b) noexcept
    {
        b.values_.clear();
        b.string_value_ = UString();
    }

    static void empty(ArmMetricBindingsBuffer& b) noexcept { b.bindings_.clear(); }

    static arm_metric metric(ArmBuffer& buffer, const ArmMetricValuesBuffer& b,
                             const ArmMetricValuesBuffer::value_t& value)
    {
        arm_metric metric{value.slot, value.format, value.usage, arm_boolean(value.valid), {}};
        // By format, not by slot: a number must not be taken for a pointer.
        if (value.format == ARM_METRIC_FORMAT_STRING32) {
            metric.metric_u.string32 = ArmBuffer::pool_string(&buffer, b.string_value_);
        } else {
            static_assert(sizeof metric.metric_u == sizeof value.value);
            std::memcpy(&metric.metric_u, &value.value, sizeof metric.metric_u);
        }
        return metric;
    }

    static new_record_t<arm_subbuffer_metric_values> metric_values(ArmBuffer& buffer,
                                                                   const ArmMetricValuesBuffer& b)
    {
        const std::size_t count = b.values_.size();
        new_record_t<arm_subbuffer_metric_values> record(ARM_SUBBUFFER_METRIC_VALUES,
                                                         count * sizeof(arm_metric));
        arm_metric* const array = record.array<arm_metric>(count);
        std::transform(b.values_.begin(), b.values_.end(), array,
                       [&](const auto& value) { return metric(buffer, b, value); });
        record->count = static_cast<arm_int32_t>(count);
        record->metric_value_array = array;
        return record;
    }

    static new_record_t<arm_subbuffer_metric_bindings>
    metric_bindings(const ArmMetricBindingsBuffer& b)
    {
        const std::size_t count = b.bindings_.size();
        new_record_t<arm_subbuffer_metric_bindings> record(ARM_SUBBUFFER_METRIC_BINDINGS,
                                                           count * sizeof(arm_metric_binding));
        arm_metric_binding* const array = record.array<arm_metric_binding>(count);
        std::copy(b.bindings_.begin(), b.bindings_.end(), array);
        record->count = static_cast<arm_int32_t>(count);
        record->metric_binding_array = array;
        return record;
    }
};

// ---- the buffer ----

ArmBuffer::ArmBuffer(bool use_global_pool) noexcept
    : use_global_pool_(use_global_pool), buffer4_{0, subbuffers_}, subbuffers_{}
{
}

ArmBuffer::~ArmBuffer()
{
    clear();
}

void ArmBuffer::clear() noexcept
{
    while (buffer4_.count != 0)
        free_record(std::exchange(subbuffers_[--buffer4_.count], nullptr));
    for (const auto& [text, string] : str_pool_)
        delete[] string;
    str_pool_.clear();
}

void ArmBuffer::check_buff_length(const UString& function_name) const
{
    if (buffer4_.count == MAX_SUBBUFFERS)
        throw full_buffer_refusal(view_of(function_name));
}

void ArmBuffer::add_buffer(ArmAppIdentyBuffer& b)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    auto record =
        ArmBufferImpl::identity<arm_subbuffer_app_identity>(*this, ARM_SUBBUFFER_APP_IDENTITY, b);
    ArmBufferImpl::append(*this, record);
    ArmBufferImpl::empty(b);
}

void ArmBuffer::add_buffer(ArmTransIdentyBuffer& b)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    auto record =
        ArmBufferImpl::identity<arm_subbuffer_tran_identity>(*this, ARM_SUBBUFFER_TRAN_IDENTITY, b);
    record->uri = ArmBufferImpl::uri(*this, b);
    ArmBufferImpl::append(*this, record);
    ArmBufferImpl::empty(b);
}

void ArmBuffer::add_buffer(ArmAppContextBuffer& b)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    auto record =
        ArmBufferImpl::context<arm_subbuffer_app_context>(*this, ARM_SUBBUFFER_APP_CONTEXT, b);
    ArmBufferImpl::append(*this, record);
    ArmBufferImpl::empty(b);
}

void ArmBuffer::add_buffer(ArmTransContextBuffer& b)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    auto record =
        ArmBufferImpl::context<arm_subbuffer_tran_context>(*this, ARM_SUBBUFFER_TRAN_CONTEXT, b);
    ArmBufferImpl::append(*this, record);
    ArmBufferImpl::empty(b);
}

void ArmBuffer::add_buffer(ArmMetricValuesBuffer& b)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    auto record = ArmBufferImpl::metric_values(*this, b);
    ArmBufferImpl::append(*this, record);
    ArmBufferImpl::empty(b);
}

void ArmBuffer::add_buffer(ArmMetricBindingsBuffer& b)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    auto record = ArmBufferImpl::metric_bindings(b);
    ArmBufferImpl::append(*this, record);
    ArmBufferImpl::empty(b);
}

void ArmBuffer::add_buffer(const long long& arrival_time)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    new_record_t<arm_subbuffer_arrival_time> record(ARM_SUBBUFFER_ARRIVAL_TIME);
    record->opaque_time = arrival_time;
    ArmBufferImpl::append(*this, record);
}

void ArmBuffer::add_buffer()
{
    ArmBufferImpl::check_room(*this, u"add_charset_buffer");
    new_record_t<arm_subbuffer_charset> record(ARM_SUBBUFFER_CHARSET);
    record->charset = ARM_CHARSET_UTF8;
    record->flags = ARM_FLAG_NONE;
    ArmBufferImpl::append(*this, record);
}

void ArmBuffer::add_buffer(const UString& detail)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    new_record_t<arm_subbuffer_diag_detail> record(ARM_SUBBUFFER_DIAG_DETAIL);
    record->diag_detail = pool_string(this, detail);
    ArmBufferImpl::append(*this, record);
}

void ArmBuffer::add_buffer(const UString& user, bool id_valid, arm_id& id)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    new_record_t<arm_subbuffer_user> record(ARM_SUBBUFFER_USER);
    record->name = pool_string(this, user);
    record->id_valid = arm_boolean(id_valid);
    record->id = id;
    ArmBufferImpl::append(*this, record);
}

void ArmBuffer::add_buffer(short address_format, short address_length, const unsigned char* address,
                           bool id_valid, arm_id& id)
{
    ArmBufferImpl::check_room(*this, u"add_buffer");
    const short length = address == nullptr ? short{0} : std::max(address_length, short{0});
    const auto bytes = static_cast<std::size_t>(length);
    new_record_t<arm_subbuffer_system_address> record(ARM_SUBBUFFER_SYSTEM_ADDRESS, bytes);
    arm_uint8_t* const copy = record.array<arm_uint8_t>(bytes);
    std::copy_n(address, bytes, copy);
    record->address_format = address_format;
    record->address_length = length;
    record->address = copy;
    record->id_valid = arm_boolean(id_valid);
    record->id = id;
    ArmBufferImpl::append(*this, record);
}

// ---- pools ----

namespace {

typedef ArmBuffer::str_pool_t::value_type pooled_t;

/// Null when the pool does not have the text.
const char* find_string(const ArmBuffer::str_pool_t& pool, const UString& text)
{
    const auto entry = find_text(pool, text);
    return entry == pool.end() ? nullptr : entry->second;
}

/// In UTF-8.
std::unique_ptr<char[]> c_string(const UString& text)
{
    const Utf8String bytes = text.utf8_str();
    auto string = std::make_unique<char[]>(bytes.size() + 1);
    std::copy(bytes.begin(), bytes.end(), string.get());
    return string;
}

pooled_t& make_string(ArmBuffer::str_pool_t& pool, const UString& text)
{
    auto string = c_string(text);
    pooled_t& pooled = *pool.try_emplace(kept(text)).first;
    pooled.second = string.release();
    return pooled;
}

struct pooled_traits_t {
    static std::u16string_view name(const pooled_t& pooled) { return view_of(pooled.first); }
};

/// Finds the texts of the pool of the process without its lock, in a tenth of the time that the map
/// takes for a thousand texts. Never destroyed, as the pool.
typedef XmlTagImpl::name_index_t<const pooled_t, pooled_traits_t> shared_index_t;
constinit shared_index_t shared_index;

/// How many texts it has. A program may have put further ones into the pool.
constinit std::size_t num_indexed KVUTIL_GUARDED_BY(ArmImpl::str_pool_lock) = 0;

/// What may not be found: a text that another thread adds just now.
const char* find_indexed_string(const UString& text)
{
    const pooled_t* const pooled = shared_index.find(view_of(text));
    return pooled != nullptr ? pooled->second : nullptr;
}

const char* find_shared_string_locked(const UString& text) KVUTIL_REQUIRES(ArmImpl::str_pool_lock)
{
    if (ArmBuffer::g_str_pool.size() == num_indexed)
        return find_indexed_string(text);
    return find_string(ArmBuffer::g_str_pool, text);
}

const char* find_shared_string(const UString& text)
{
    if (const char* const string = find_indexed_string(text))
        return string;
    const CriticalSection section(ArmImpl::str_pool_lock);
    return find_shared_string_locked(text);
}

const char* shared_string(const UString& text)
{
    if (const char* const string = find_indexed_string(text))
        return string;
    const CriticalSection section(ArmImpl::str_pool_lock);
    if (const char* const string = find_shared_string_locked(text))
        return string;
    shared_index.make_room();
    const pooled_t& pooled = make_string(ArmBuffer::g_str_pool, text);
    shared_index.add(shared_index_t::hashed_t(view_of(text)), &pooled);
    ++num_indexed;
    return pooled.second;
}

}  // namespace

const char* ArmBuffer::pool_string(const UString& text, str_pool_t& map)
{
    if (&map == &g_str_pool)
        return shared_string(text);
    if (const char* const string = find_string(map, text))
        return string;
    if (const char* const string = find_shared_string(text))
        return string;
    return make_string(map, text).second;
}

const char* ArmBuffer::pool_string(ArmBuffer* buffer, const UString& text)
{
    const bool is_own = buffer != nullptr && !buffer->use_global_pool_;
    return pool_string(text, is_own ? buffer->str_pool_ : g_str_pool);
}

}  // namespace Kvl
