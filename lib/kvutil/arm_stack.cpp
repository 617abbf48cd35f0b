#include <kvutil/arm.h>

#include "sys_calls_impl.h"

#include <atomic>
#include <memory>
#include <new>

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

/// A copy of what ARM is given of a buffer: nothing when there is nothing in it.
class contents_t {
public:
    explicit contents_t(const ArmBuffer* buffer) noexcept
        : copy_(buffer != nullptr ? *buffer->buffer4() : arm_buffer4())
    {
    }
    const arm_buffer4* get() const noexcept { return copy_.count > 0 ? &copy_ : nullptr; }

private:
    const arm_buffer4 copy_;
};

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
    const pthread_key_t former = g_global_data.key;
    if (sys_calls.pthread_key_create(&g_global_data.key, global_data_t::delete_stack) != 0)
        return false;
    if (g_key_is_unused.exchange(true))
        sys_calls.pthread_key_delete(former);
    return true;
}

void ArmApplication::global_data_t::delete_stack(void* stack) noexcept
{
    delete static_cast<Stack*>(stack);
}

Stack* Stack::of_this_thread() noexcept
{
    return static_cast<Stack*>(pthread_getspecific(ArmApplication::g_global_data.key));
}

/// @return  null when there is no memory
Stack* Stack::create() noexcept
{
    std::unique_ptr<Stack, void (*)(void*)> stack(new (std::nothrow) Stack,
                                                  ArmApplication::global_data_t::delete_stack);
    if (stack == nullptr || stack->first_ == nullptr)
        return nullptr;
    g_key_is_unused = false;
    if (sys_calls.pthread_setspecific(ArmApplication::g_global_data.key, stack.get()) != 0)
        return nullptr;
    return stack.release();
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

int Stack::start(const arm_id& tran_id, const ArmBuffer* buffer, bool local)
{
    Stack* const stack = of_this_thread();
    stack_entry_t* const entry = stack != nullptr ? stack->entry_above() : nullptr;
    if (entry == nullptr)
        return ArmApplication::UNAVAILABLE;
    forget(entry->correlator);
    const contents_t contents(buffer);
    const int code = ArmRuntimeLoader::g_fnc_arm_start_transaction(
        ArmApplication::g_app_handle, &tran_id, &stack->parent(),
        local ? LOCAL_START_FLAGS : START_FLAGS, contents.get(), &entry->handle,
        &entry->correlator);
    if (code >= 0)
        stack->current_ = entry;
    return code;
}

/// The place for the next operation, allocated when its depth is reached for the first time.
/// @return  null when there is no memory
Stack::stack_entry_t* Stack::entry_above() noexcept
{
    if (current_ == nullptr)
        return first_;
    if (current_->next == nullptr)
        current_->next =
            new (std::nothrow) linked_entry_t{{}, static_cast<linked_entry_t*>(current_)};
    return current_->next;
}

const arm_correlator& Stack::parent() const noexcept
{
    return current_ != nullptr ? current_->correlator : base_correlator_;
}

int Stack::stop(int status, const ArmBuffer* buffer)
{
    Stack* const stack = of_this_thread();
    if (stack == nullptr || stack->current_ == nullptr)
        return ArmApplication::UNAVAILABLE;
    const stack_entry_t* const entry = stack->current_;
    stack->current_ = static_cast<const linked_entry_t*>(entry)->below;
    const contents_t contents(buffer);
    return ArmRuntimeLoader::g_fnc_arm_stop_transaction(entry->handle, status, ARM_FLAG_NONE,
                                                        contents.get());
}

}  // namespace Kvl
