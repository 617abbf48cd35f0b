#include <kvutil/arm.h>

#include "sys_calls_impl.h"

#include <atomic>
#include <memory>
#include <new>
#include <utility>

namespace Kvl {

typedef ArmPerThreadOperationStack Stack;

/// With a link back, so that stopping costs the same at any depth.
struct Stack::linked_entry_t : stack_entry_t {
    linked_entry_t* below;
};

namespace {

constexpr int START_FLAGS = ARM_FLAG_TRACE_REQUEST | ARM_FLAG_BIND_THREAD;
constexpr int LOCAL_START_FLAGS = START_FLAGS | ARM_FLAG_CORR_IN_PROCESS;

/// Whether there is a key under which no thread has ever had a stack.
constinit std::atomic<bool> g_key_is_unused = false;

/// The stack that this thread made last and the key under which the C library has it. To ask the C
/// library, twice for each operation, costs as much as all else that is done here.
struct own_stack_t {
    pthread_key_t key;
    Stack* stack;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local own_stack_t own_stack{};

bool has_contents(const ArmBuffer* buffer)
{
    return buffer != nullptr && buffer->count() != 0;
}

/// A run-time that stores no correlator would leave the one of an earlier operation.
void forget(arm_correlator& correlator)
{
    correlator.opaque[0] = 0;  // the length, which says that there is none
    correlator.opaque[1] = 0;
}

}  // namespace

// ---- Stacks and their threads ----

/// A key that no thread used is given back, so that an application may try to register again and
/// again. Any other stays, to free the stacks under it.
bool ArmApplication::create_key() noexcept
{
    pthread_key_t key;
    if (sys_calls.pthread_key_create(&key, global_data_t::delete_stack) != 0)
        return false;
    const pthread_key_t former = std::exchange(g_global_data.key, key);
    if (g_key_is_unused.exchange(true))
        sys_calls.pthread_key_delete(former);
    return true;
}

void ArmApplication::global_data_t::delete_stack(void* stack) noexcept
{
    if (stack == own_stack.stack)
        own_stack.stack = nullptr;
    delete static_cast<Stack*>(stack);
}

/// A stack under a former key counts as none.
Stack* Stack::of_this_thread() noexcept
{
    return own_stack.key == ArmApplication::g_global_data.key ? own_stack.stack : nullptr;
}

/// @return  null when there is no memory
Stack* Stack::create() noexcept
{
    std::unique_ptr<Stack, void (*)(void*)> stack(new (std::nothrow) Stack,
                                                  ArmApplication::global_data_t::delete_stack);
    if (stack == nullptr || stack->first_ == nullptr)
        return nullptr;
    g_key_is_unused = false;
    const pthread_key_t key = ArmApplication::g_global_data.key;
    if (sys_calls.pthread_setspecific(key, stack.get()) != 0)
        return nullptr;
    own_stack = {key, stack.release()};
    return own_stack.stack;
}

Stack::ArmPerThreadOperationStack() noexcept
    : base_correlator_(), first_(new (std::nothrow) linked_entry_t{{}, nullptr}), current_(nullptr)
{
}

Stack::~ArmPerThreadOperationStack()
{
    while (first_ != nullptr) {
        const std::unique_ptr<const linked_entry_t> entry(static_cast<linked_entry_t*>(first_));
        first_ = entry->next;
    }
}

arm_correlator* Stack::base_of_this_thread() noexcept
{
    Stack* stack = of_this_thread();
    if (stack == nullptr)
        stack = create();
    return stack != nullptr ? &stack->base_correlator_ : nullptr;
}

const Stack::stack_entry_t* Stack::top_of_this_thread() noexcept
{
    const Stack* const stack = of_this_thread();
    return stack != nullptr ? stack->current_ : nullptr;
}

// ---- Operations ----

// ARM gets a copy of a buffer, and nothing when there is nothing in it. Who has a copy is a
// function of its own: most operations have none and need no guarded room for it.
int Stack::start(const arm_id& tran_id, const ArmBuffer* buffer, bool local)
{
    return has_contents(buffer) ? start_with_copy(tran_id, *buffer, local)
                                : start_with(tran_id, nullptr, local);
}

[[gnu::noinline]] int Stack::start_with_copy(const arm_id& tran_id, const ArmBuffer& buffer,
                                             bool local)
{
    const arm_buffer4 copy = *buffer.buffer4();
    return start_with(tran_id, &copy, local);
}

int Stack::start_with(const arm_id& tran_id, const arm_buffer4* contents, bool local)
{
    Stack* const stack = of_this_thread();
    stack_entry_t* const entry = stack != nullptr ? stack->entry_above() : nullptr;
    if (entry == nullptr)
        return ArmApplication::UNAVAILABLE;
    forget(entry->correlator);
    const int code = ArmRuntimeLoader::g_fnc_arm_start_transaction(
        ArmApplication::g_app_handle, &tran_id, &stack->parent(),
        local ? LOCAL_START_FLAGS : START_FLAGS, contents, &entry->handle, &entry->correlator);
    if (code >= 0)
        stack->current_ = entry;
    return code;
}

/// The place for the next operation, allocated when its depth is reached for the first time.
/// @return  null when there is no memory
Stack::stack_entry_t* Stack::entry_above() noexcept
{
    stack_entry_t*& above = current_ != nullptr ? current_->next : first_;
    if (above == nullptr)
        above = new (std::nothrow) linked_entry_t{{}, static_cast<linked_entry_t*>(current_)};
    return above;
}

const arm_correlator& Stack::parent() const noexcept
{
    return current_ != nullptr ? current_->correlator : base_correlator_;
}

int Stack::stop(int status, const ArmBuffer* buffer)
{
    return has_contents(buffer) ? stop_with_copy(status, *buffer) : stop_with(status, nullptr);
}

[[gnu::noinline]] int Stack::stop_with_copy(int status, const ArmBuffer& buffer)
{
    const arm_buffer4 copy = *buffer.buffer4();
    return stop_with(status, &copy);
}

int Stack::stop_with(int status, const arm_buffer4* contents)
{
    Stack* const stack = of_this_thread();
    if (stack == nullptr || stack->current_ == nullptr)
        return ArmApplication::UNAVAILABLE;
    const stack_entry_t* const entry = stack->current_;
    stack->current_ = static_cast<const linked_entry_t*>(entry)->below;
    return ArmRuntimeLoader::g_fnc_arm_stop_transaction(entry->handle, status, ARM_FLAG_NONE,
                                                        contents);
}

}  // namespace Kvl
