#include "fake_arm4.h"

#include <kvutil/arm4.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace {

// ---- Texts ----

std::string hex(const unsigned char* bytes, std::size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string text_of(const arm_id_t* id)
{
    return id == nullptr ? "null" : hex(id->id_u.uint8, sizeof id->id_u.uint8);
}

std::string escaped(unsigned char c)
{
    if (c == '"' || c == '\\')
        return {'\\', static_cast<char>(c)};
    return c < ' ' ? "\\x" + hex(&c, 1) : std::string(1, static_cast<char>(c));
}

std::string text_of(const arm_char_t* text)
{
    if (text == nullptr)
        return "null";
    std::string quoted = "\"";
    for (; *text != '\0'; ++text)
        quoted += escaped(static_cast<unsigned char>(*text));
    return quoted + '"';
}

// ---- Correlators ----

// Those of this library use all the room that there is: length, format, flags, the transaction's
// handle, its parent's, and a pattern up to the end.
constexpr unsigned char OUR_FORMAT = 0x7F;
constexpr std::size_t HANDLE_OFFSET = 4;
constexpr std::size_t PARENT_OFFSET = 12;
constexpr std::size_t PATTERN_OFFSET = 20;

std::size_t length_of(const arm_correlator_t& c)
{
    return static_cast<std::size_t>(c.opaque[0] << 8 | c.opaque[1]);
}

void put(arm_correlator_t& c, std::size_t offset, long long number)
{
    for (int shift = 56; shift >= 0; shift -= 8)
        c.opaque[offset++] = static_cast<unsigned char>(number >> shift);
}

long long number_at(const arm_correlator_t& c, std::size_t offset)
{
    unsigned long long number = 0;
    for (int i = 0; i < 8; ++i)
        number = number << 8 | c.opaque[offset++];
    return static_cast<long long>(number);
}

void make_correlator(arm_correlator_t& c, long long handle, long long parent)
{
    c.opaque[0] = ARM_CORR_MAX_LENGTH >> 8;
    c.opaque[1] = ARM_CORR_MAX_LENGTH & 0xFF;
    c.opaque[2] = OUR_FORMAT;
    c.opaque[3] = 0;
    put(c, HANDLE_OFFSET, handle);
    put(c, PARENT_OFFSET, parent);
    std::memset(&c.opaque[PATTERN_OFFSET], static_cast<int>(handle % 251 + 1),
                sizeof c.opaque - PATTERN_OFFSET);
}

bool is_ours(const arm_correlator_t& c)
{
    return length_of(c) == ARM_CORR_MAX_LENGTH && c.opaque[2] == OUR_FORMAT;
}

bool is_whole(const arm_correlator_t& c)
{
    arm_correlator_t expected;
    make_correlator(expected, number_at(c, HANDLE_OFFSET), number_at(c, PARENT_OFFSET));
    return std::memcmp(&c, &expected, sizeof c) == 0;
}

std::string text_of(const arm_correlator_t* c)
{
    if (c == nullptr)
        return "null";
    if (length_of(*c) == 0)
        return "none";
    if (!is_ours(*c))
        return hex(c->opaque, std::min(length_of(*c), sizeof c->opaque));
    return is_whole(*c) ? '#' + std::to_string(number_at(*c, HANDLE_OFFSET)) : "damaged";
}

// ---- Buffers ----

/// Elements with commas between them.
class list_t {
public:
    void add(const std::string& element) { text_ += (text_.empty() ? "" : ", ") + element; }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

template <class T, class Print>
std::string listed(arm_int32_t count, const T* elements, Print print)
{
    list_t list;
    for (arm_int32_t i = 0; i < count; ++i)
        list.add(print(elements[i]));
    return elements == nullptr ? "null*" + std::to_string(count) : '[' + list.text() + ']';
}

template <class T>
const T& as(const arm_subbuffer_t& s)
{
    return reinterpret_cast<const T&>(s);
}

std::string alias(arm_boolean_t valid, const arm_id_t& id)
{
    return valid == ARM_FALSE ? "none" : text_of(&id);
}

std::string property(const arm_property_t& p)
{
    return text_of(p.name) + ": " + text_of(p.value);
}

std::string string(const arm_char_t* s)
{
    return text_of(s);
}

template <class Record>
std::string identity(const Record& r)
{
    return "properties=" + listed(r.identity_property_count, r.identity_property_array, property) +
           " names=" + listed(r.context_name_count, r.context_name_array, string);
}

template <class Record>
std::string context(const Record& r)
{
    return "values=" + listed(r.context_value_count, r.context_value_array, string);
}

std::string divided(long long dividend, long long divisor)
{
    return std::to_string(dividend) + '/' + std::to_string(divisor);
}

std::string metric_value(const arm_metric_t& m)
{
    switch (m.format) {
    case ARM_METRIC_FORMAT_COUNTER32:
        return std::to_string(m.metric_u.counter32);
    case ARM_METRIC_FORMAT_COUNTER64:
        return std::to_string(m.metric_u.counter64);
    case ARM_METRIC_FORMAT_CNTRDIVR32:
        return divided(m.metric_u.counterdivisor32.counter, m.metric_u.counterdivisor32.divisor);
    case ARM_METRIC_FORMAT_GAUGE32:
        return std::to_string(m.metric_u.gauge32);
    case ARM_METRIC_FORMAT_GAUGE64:
        return std::to_string(m.metric_u.gauge64);
    case ARM_METRIC_FORMAT_GAUGEDIVR32:
        return divided(m.metric_u.gaugedivisor32.gauge, m.metric_u.gaugedivisor32.divisor);
    case ARM_METRIC_FORMAT_NUMERICID32:
        return std::to_string(m.metric_u.numericid32);
    case ARM_METRIC_FORMAT_NUMERICID64:
        return std::to_string(m.metric_u.numericid64);
    case ARM_METRIC_FORMAT_STRING32:
        return text_of(m.metric_u.string32);
    default:
        return "?";
    }
}

std::string metric(const arm_metric_t& m)
{
    return "slot " + std::to_string(m.slot) + " format " + std::to_string(m.format) + " usage " +
           std::to_string(m.usage) + (m.valid == ARM_FALSE ? " invalid " : " ") + metric_value(m);
}

std::string binding(const arm_metric_binding_t& b)
{
    return "slot " + std::to_string(b.slot) + ' ' + text_of(&b.id);
}

std::string address(const arm_subbuffer_system_address_t& a)
{
    const auto length = static_cast<std::size_t>(a.address_length < 0 ? 0 : a.address_length);
    return "format=" + std::to_string(a.address_format) +
           " length=" + std::to_string(a.address_length) +
           " bytes=" + (a.address == nullptr ? "null" : hex(a.address, length)) +
           " id=" + alias(a.id_valid, a.id);
}

std::string text_of(const arm_subbuffer_user_t& u)
{
    return "name=" + text_of(u.name) + " id=" + alias(u.id_valid, u.id);
}

std::string text_of(const arm_subbuffer_t* s)
{
    if (s == nullptr)
        return "null";
    switch (s->format) {
    case ARM_SUBBUFFER_USER:
        return "user(" + text_of(as<arm_subbuffer_user_t>(*s)) + ')';
    case ARM_SUBBUFFER_ARRIVAL_TIME:
        return "arrival_time(" + std::to_string(as<arm_subbuffer_arrival_time_t>(*s).opaque_time) +
               ')';
    case ARM_SUBBUFFER_METRIC_VALUES: {
        const auto& values = as<arm_subbuffer_metric_values_t>(*s);
        return "metric_values(" + listed(values.count, values.metric_value_array, metric) + ')';
    }
    case ARM_SUBBUFFER_SYSTEM_ADDRESS:
        return "system_address(" + address(as<arm_subbuffer_system_address_t>(*s)) + ')';
    case ARM_SUBBUFFER_DIAG_DETAIL:
        return "diag_detail(" + text_of(as<arm_subbuffer_diag_detail_t>(*s).diag_detail) + ')';
    case ARM_SUBBUFFER_APP_IDENTITY:
        return "app_identity(" + identity(as<arm_subbuffer_app_identity_t>(*s)) + ')';
    case ARM_SUBBUFFER_APP_CONTEXT:
        return "app_context(" + context(as<arm_subbuffer_app_context_t>(*s)) + ')';
    case ARM_SUBBUFFER_TRAN_IDENTITY: {
        const auto& r = as<arm_subbuffer_tran_identity_t>(*s);
        return "tran_identity(" + identity(r) + " uri=" + text_of(r.uri) + ')';
    }
    case ARM_SUBBUFFER_TRAN_CONTEXT: {
        const auto& r = as<arm_subbuffer_tran_context_t>(*s);
        return "tran_context(" + context(r) + " uri=" + text_of(r.uri) + ')';
    }
    case ARM_SUBBUFFER_METRIC_BINDINGS: {
        const auto& bindings = as<arm_subbuffer_metric_bindings_t>(*s);
        return "metric_bindings(" + listed(bindings.count, bindings.metric_binding_array, binding) +
               ')';
    }
    case ARM_SUBBUFFER_CHARSET: {
        const auto& charset = as<arm_subbuffer_charset_t>(*s);
        return "charset(" + std::to_string(charset.charset) +
               " flags=" + std::to_string(charset.flags) + ')';
    }
    default:
        return '?' + std::to_string(s->format);
    }
}

std::string text_of(const arm_buffer4_t* buffer)
{
    if (buffer == nullptr)
        return "null";
    std::string text = "[";
    for (arm_int32_t i = 0; i < buffer->count; ++i) {
        text += i == 0 ? "" : " ";
        text += text_of(buffer->subbuffer_array[i]);
    }
    return text + ']';
}

// ---- The recording ----

std::int64_t nanoseconds()
{
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

const std::int64_t g_loaded_at = nanoseconds();

struct recorded_t {
    std::string call;
    int thread;
};

// Never destroyed: threads may call while the process ends.
std::mutex& g_mutex = *new std::mutex;
std::deque<recorded_t>& g_calls = *new std::deque<recorded_t>;
std::map<std::string, std::string>& g_names = *new std::map<std::string, std::string>;
std::atomic<bool> g_is_recording{true};
std::atomic<void (*)(const char*)> g_watcher{nullptr};

std::atomic<int> g_threads{0};

int this_thread()
{
    thread_local const int number = ++g_threads;
    return number;
}

int opened_log()
{
    const char* const name = std::getenv("FAKE_ARM4_LOG");
    if (name == nullptr)
        return -1;
    if (std::strcmp(name, "-") == 0)
        return STDERR_FILENO;
    return open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
}

void log(std::int64_t began_at, const std::string& call)
{
    static const int descriptor = opened_log();
    if (descriptor < 0)
        return;
    const std::string line = std::to_string(began_at - g_loaded_at) + ' ' +
                             std::to_string(this_thread()) + ' ' + call + '\n';
    // One call a line: lines of several threads and processes stay whole.
    [[maybe_unused]] const ssize_t ignored = write(descriptor, line.data(), line.size());
}

void keep(std::int64_t began_at, const std::string& call)
{
    const std::lock_guard hold(g_mutex);
    g_calls.push_back({call, this_thread()});
    log(began_at, call);
}

// ---- Planned codes ----

struct plan_t {
    const char* function;
    std::atomic<int> calls_left{0};
    std::atomic<int> code{0};
};

plan_t g_plans[] = {{"arm_register_application"}, {"arm_start_application"},
                    {"arm_start_transaction"},    {"arm_stop_transaction"},
                    {"arm_register_transaction"}, {"arm_get_error_message"},
                    {"arm_get_arrival_time"}};

int planned_code(const char* function)
{
    for (plan_t& plan : g_plans)
        if (std::strcmp(plan.function, function) == 0)
            return plan.calls_left > 0 && --plan.calls_left == 0 ? plan.code.load() : 0;
    std::abort();
}

/// One call, from its beginning to its end.
class call_t {
public:
    explicit call_t(const char* function)
        : code(planned_code(function)), is_recorded_(g_is_recording),
          began_at_(is_recorded_ ? nanoseconds() : 0)
    {
        if (void (*const watcher)(const char*) = g_watcher; watcher != nullptr)
            watcher(function);
        if (is_recorded_)
            call_ = function;
    }

    template <class T>
    call_t& in(const char* key, const T& value)
    {
        if (is_recorded_)
            call_ += std::string(" ") + key + '=' + text(value);
        return *this;
    }

    /// What the call gives; nothing when it fails.
    template <class T>
    call_t& out(const char* key, const T& value)
    {
        if (is_recorded_ && code >= 0)
            given_ += std::string(" ") + key + '=' + text(value);
        return *this;
    }

    bool fails() const { return code < 0; }
    bool is_recorded() const { return is_recorded_; }

    arm_error_t end()
    {
        if (is_recorded_)
            keep(began_at_, call_ + " -> " + std::to_string(code) + given_);
        return code;
    }

    const int code;

private:
    static std::string text(long long number) { return std::to_string(number); }
    static std::string text(int number) { return std::to_string(number); }
    template <class T>
    static std::string text(const T* value)
    {
        return text_of(value);
    }

    const bool is_recorded_;
    const std::int64_t began_at_;
    std::string call_;
    std::string given_;
};

// ---- What is given ----

std::atomic<unsigned char> g_applications{0};
std::atomic<unsigned char> g_transactions{0};
std::atomic<long long> g_application_handles{0};
std::atomic<long long> g_transaction_handles{0};
std::atomic<long long> g_arrivals{0};

arm_id_t id_of(unsigned char kind, unsigned char number)
{
    arm_id_t id{};
    id.id_u.uint8[0] = kind;
    id.id_u.uint8[15] = number;
    return id;
}

void name(const arm_id_t& id, const char* tran_name)
{
    const std::lock_guard hold(g_mutex);
    g_names[text_of(&id)] = tran_name;
}

std::string name_of(const arm_id_t& id)
{
    const std::lock_guard hold(g_mutex);
    return g_names[text_of(&id)];
}

}  // namespace

// ---- The entry points ----

#define ENTRY extern "C" __attribute__((visibility("default")))

ENTRY arm_error_t arm_register_application(const arm_char_t* app_name, const arm_id_t* input_app_id,
                                           arm_int32_t flags, const arm_buffer4_t* buffer,
                                           arm_id_t* output_app_id)
{
    call_t call("arm_register_application");
    call.in("app_name", app_name).in("input_app_id", input_app_id);
    call.in("flags", flags).in("buffer", buffer);
    if (!call.fails())
        *output_app_id = id_of(0xA0, ++g_applications);
    return call.out("app_id", output_app_id).end();
}

ENTRY arm_error_t arm_start_application(const arm_id_t* app_id, const arm_char_t* app_group,
                                        const arm_char_t* app_instance, arm_int32_t flags,
                                        const arm_buffer4_t* buffer,
                                        arm_app_start_handle_t* app_handle)
{
    call_t call("arm_start_application");
    call.in("app_id", app_id).in("app_group", app_group).in("app_instance", app_instance);
    call.in("flags", flags).in("buffer", buffer);
    if (!call.fails())
        *app_handle = ++g_application_handles;
    return call.out("app_handle", *app_handle).end();
}

ENTRY arm_error_t arm_register_transaction(const arm_id_t* app_id, const arm_char_t* tran_name,
                                           const arm_id_t* input_tran_id, arm_int32_t flags,
                                           const arm_buffer4_t* buffer, arm_id_t* output_tran_id)
{
    call_t call("arm_register_transaction");
    call.in("app_id", app_id).in("tran_name", tran_name).in("input_tran_id", input_tran_id);
    call.in("flags", flags).in("buffer", buffer);
    if (!call.fails()) {
        *output_tran_id = id_of(0xB0, ++g_transactions);
        if (call.is_recorded())
            name(*output_tran_id, tran_name);
    }
    return call.out("tran_id", output_tran_id).end();
}

ENTRY arm_error_t arm_start_transaction(arm_app_start_handle_t app_handle, const arm_id_t* tran_id,
                                        const arm_correlator_t* parent_correlator,
                                        arm_int32_t flags, const arm_buffer4_t* buffer,
                                        arm_tran_start_handle_t* tran_handle,
                                        arm_correlator_t* current_correlator)
{
    call_t call("arm_start_transaction");
    call.in("app_handle", app_handle).in("tran_id", tran_id).in("parent", parent_correlator);
    call.in("flags", flags).in("buffer", buffer);
    if (!call.fails()) {
        const long long parent = fake_arm4_handle_of(parent_correlator);
        *tran_handle = ++g_transaction_handles;
        make_correlator(*current_correlator, *tran_handle, parent);
    }
    call.out("handle", *tran_handle);
    if (call.is_recorded())
        call.out("tran_name", name_of(*tran_id).c_str());
    return call.end();
}

ENTRY arm_error_t arm_stop_transaction(arm_tran_start_handle_t tran_handle,
                                       arm_tran_status_t tran_status, arm_int32_t flags,
                                       const arm_buffer4_t* buffer)
{
    call_t call("arm_stop_transaction");
    call.in("handle", tran_handle).in("status", tran_status);
    return call.in("flags", flags).in("buffer", buffer).end();
}

ENTRY arm_error_t arm_get_error_message(arm_charset_t charset, arm_error_t code, arm_char_t* msg)
{
    call_t call("arm_get_error_message");
    call.in("charset", charset).in("code", code);
    if (!call.fails()) {  // as long a text as there may be
        std::memset(msg, 'x', ARM_MSG_BUFFER_LENGTH);
        msg[ARM_MSG_BUFFER_LENGTH - 1] = '\0';
    }
    return call.end();
}

ENTRY arm_error_t arm_get_arrival_time(arm_arrival_time_t* opaque_time)
{
    call_t call("arm_get_arrival_time");
    if (!call.fails())
        *opaque_time = ++g_arrivals;
    return call.out("time", *opaque_time).end();
}

// ---- For tests ----

ENTRY void fake_arm4_forget()
{
    const std::lock_guard hold(g_mutex);
    g_calls.clear();
    for (plan_t& plan : g_plans)
        plan.calls_left = 0;
}

ENTRY void fake_arm4_record(int on)
{
    g_is_recording = on != 0;
}

ENTRY int fake_arm4_count()
{
    const std::lock_guard hold(g_mutex);
    return static_cast<int>(g_calls.size());
}

ENTRY const char* fake_arm4_call(int index)
{
    const std::lock_guard hold(g_mutex);
    const bool is_there = index >= 0 && index < static_cast<int>(g_calls.size());
    return is_there ? g_calls[static_cast<std::size_t>(index)].call.c_str() : nullptr;
}

ENTRY int fake_arm4_thread(int index)
{
    const std::lock_guard hold(g_mutex);
    const bool is_there = index >= 0 && index < static_cast<int>(g_calls.size());
    return is_there ? g_calls[static_cast<std::size_t>(index)].thread : 0;
}

ENTRY void fake_arm4_plan(const char* function, int nth, int code)
{
    for (plan_t& plan : g_plans)
        if (std::strcmp(plan.function, function) == 0) {
            plan.code = code;
            plan.calls_left = nth;
        }
}

ENTRY void fake_arm4_watch(void (*watcher)(const char* function))
{
    g_watcher = watcher;
}

ENTRY long long fake_arm4_handle_of(const void* correlator)
{
    const auto& c = *static_cast<const arm_correlator_t*>(correlator);
    return is_ours(c) && is_whole(c) ? number_at(c, HANDLE_OFFSET) : 0;
}

ENTRY long long fake_arm4_parent_of(const void* correlator)
{
    const auto& c = *static_cast<const arm_correlator_t*>(correlator);
    return is_ours(c) && is_whole(c) ? number_at(c, PARENT_OFFSET) : 0;
}
