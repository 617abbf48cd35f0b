// Operations within each other: what a run-time is told, in which order, and what the stack then
// says of itself, is what a plain list of started operations says; a run-time that refuses, and
// memory that runs out, leave the stack as it was. The input is a letter for each operation,
// followed by a byte for each of its arguments.

#include <kvutil/arm.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <pthread.h>
#include <vector>

using Kvl::ArmApplication;
using Kvl::ArmBuffer;
using Kvl::ArmRuntimeLoader;
typedef Kvl::ArmPerThreadOperationStack Stack;

namespace {

constexpr int UNAVAILABLE = -21000;
constexpr arm_app_start_handle_t APPLICATION = 0x1234;

// ---- The run-time: keeps its last call. ----

struct call_t {
    bool is_start = false;
    arm_id tran_id{};
    arm_correlator parent{};
    int flags = 0;
    int buffers = 0;
    arm_tran_start_handle_t handle = 0;
    int status = 0;
};

std::optional<call_t> g_call;
int g_code = 0;                        // what it answers
arm_tran_start_handle_t g_handle = 0;  // of the operation that was started last
unsigned int g_length = 0;             // of the correlator that it makes; 0 for none

int buffers_in(const arm_buffer4_t* buffer)
{
    require(buffer == nullptr || buffer->count > 0);
    return buffer == nullptr ? 0 : buffer->count;
}

/// What tells one operation's correlator from another's.
arm_correlator correlator_of(arm_tran_start_handle_t handle, unsigned int length)
{
    arm_correlator correlator{};
    if (length == 0)
        return correlator;
    correlator.opaque[0] = static_cast<unsigned char>(length >> 8);
    correlator.opaque[1] = static_cast<unsigned char>(length);
    for (unsigned int i = 2; i < length; ++i)
        correlator.opaque[i] = static_cast<unsigned char>(handle + i);
    return correlator;
}

/// Their length and as many bytes.
bool same(const arm_correlator& a, const arm_correlator& b)
{
    const unsigned int length = b.opaque[0] * 256u + b.opaque[1];
    return std::memcmp(a.opaque, b.opaque, length < 2 ? 2 : length) == 0;
}

int start(arm_app_start_handle_t application, const arm_id_t* tran_id,
          const arm_correlator_t* parent, arm_int32_t flags, const arm_buffer4_t* buffer,
          arm_tran_start_handle_t* handle, arm_correlator_t* correlator)
{
    require(application == APPLICATION && !g_call);
    g_call = call_t{true, *tran_id, *parent, flags, buffers_in(buffer), 0, 0};
    if (g_code >= 0)
        *handle = ++g_handle;
    const arm_correlator made = correlator_of(g_handle, g_length);
    if (g_code >= 0 && g_length != 0)
        std::memcpy(correlator, &made, g_length);
    return g_code;
}

int stop(arm_tran_start_handle_t handle, arm_int32_t status, arm_int32_t flags,
         const arm_buffer4_t* buffer)
{
    require(flags == 0 && !g_call);
    g_call = call_t{false, {}, {}, 0, buffers_in(buffer), handle, status};
    return g_code;
}

void switch_on()
{
    ArmRuntimeLoader::g_fnc_arm_start_transaction = start;
    ArmRuntimeLoader::g_fnc_arm_stop_transaction = stop;
    require(pthread_key_create(&ArmApplication::g_global_data.key,
                               ArmApplication::global_data_t::delete_stack) == 0);
    ArmApplication::g_app_handle = APPLICATION;
}

// ---- The model: the operations that are open. ----

struct operation_t {
    arm_tran_start_handle_t handle;
    arm_correlator correlator;
};

class run_t {
public:
    run_t() { set_level(true); }

    ~run_t()
    {
        const pthread_key_t key = ArmApplication::g_global_data.key;
        ArmApplication::global_data_t::delete_stack(pthread_getspecific(key));
        pthread_setspecific(key, nullptr);
    }

    void step(input_t& input)
    {
        const step_t next(input);
        fault_ = next.fault;
        g_call.reset();
        operate(next.letter, input);
        check();
    }

private:
    void operate(std::uint8_t letter, input_t& input)
    {
        switch (letter) {
        case 'b':
            make_base(input.byte());
            break;
        case '(':
            start_operation(input);
            break;
        case ')':
            stop_operation(input);
            break;
        case 'o':
            set_level(!is_on_);
            break;
        default:
            break;
        }
    }

    void set_level(bool is_on)
    {
        is_on_ = is_on;
        ArmApplication::g_level = is_on ? Kvl::ARM_LEVEL_ON : Kvl::ARM_LEVEL_OFF;
    }

    void make_base(std::uint8_t content)
    {
        arm_correlator* base = nullptr;
        bool has_failed = false;
        {
            const memory_fault fault(fault_);
            base = Stack::get_base_correlator();
            has_failed = fault.struck();
        }
        if (!is_on_ || (!has_stack_ && has_failed)) {
            require(base == nullptr);
            return;
        }
        require(base != nullptr && same(*base, base_));
        has_stack_ = true;
        *base = base_ = correlator_of(content, content % 3 == 0 ? 0 : 2 + content);
    }

    void start_operation(input_t& input)
    {
        const std::uint8_t form = input.byte();
        arm_id tran_id;
        std::memset(&tran_id, form, sizeof tran_id);
        ArmBuffer buffer(false);
        const int buffers = add_to(buffer, form);
        const bool is_local = form % 2 == 1;
        answer(input);
        int code = 0;
        bool has_failed = false;
        {
            const memory_fault fault(fault_);
            code = Stack::start_transaction(tran_id, form % 8 < 4 ? nullptr : &buffer, is_local);
            has_failed = fault.struck();
        }
        if (!is_on_ || !has_stack_ || has_failed) {
            require(code == UNAVAILABLE && !g_call);
            return;
        }
        require(code == g_code && g_call && g_call->is_start);
        require(std::memcmp(&g_call->tran_id, &tran_id, sizeof tran_id) == 0);
        require(g_call->flags == (is_local ? 7 : 3));
        require(g_call->buffers == (form % 8 < 4 ? 0 : buffers));
        require(same(g_call->parent, open_.empty() ? base_ : open_.back().correlator));
        if (code >= 0)
            open_.push_back({g_handle, correlator_of(g_handle, g_length)});
    }

    void stop_operation(input_t& input)
    {
        const std::uint8_t form = input.byte();
        ArmBuffer buffer(false);
        const int buffers = add_to(buffer, form);
        answer(input);
        const int code = Stack::stop_transaction(form, form % 8 < 4 ? nullptr : &buffer);
        if (!is_on_ || open_.empty()) {
            require(code == UNAVAILABLE && !g_call);
            return;
        }
        require(code == g_code && g_call && !g_call->is_start);
        require(g_call->handle == open_.back().handle && g_call->status == form);
        require(g_call->buffers == (form % 8 < 4 ? 0 : buffers));
        open_.pop_back();
    }

    /// @return  how many sub-buffers there are
    static int add_to(ArmBuffer& buffer, std::uint8_t form)
    {
        const int count = form % 8 < 4 ? 0 : form / 8 % 3;
        for (int i = 0; i < count; ++i)
            buffer.add_buffer();
        return count;
    }

    static void answer(input_t& input)
    {
        const std::uint8_t form = input.byte();
        g_code = form % 4 == 0 ? -form - 1 : form % 4 - 1;
        g_length = form % 8 == 1 ? 0u : 2u + 2u * form;
    }

    void check() const
    {
        const bool is_doing = is_on_ && !open_.empty();
        require(Stack::doing_local_operation() == is_doing);
        require(Stack::current_local_operation() == (is_doing ? open_.back().handle : 0));
        const arm_correlator* const correlator = Stack::current_local_correlator();
        require((correlator != nullptr) == is_doing);
        require(!is_doing || same(*correlator, open_.back().correlator));
    }

    bool is_on_ = false;
    bool has_stack_ = false;
    arm_correlator base_{};
    std::vector<operation_t> open_;
    unsigned long fault_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool is_set_up = (switch_on(), true);
    require(is_set_up);
    input_t input(data, size);
    run_t run;
    while (!input.is_empty())
        run.step(input);
    return 0;
}
