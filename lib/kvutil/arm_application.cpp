#include <kvutil/arm.h>
#include <kvutil/critsec.h>
#include <kvutil/oid.h>

#include "arm_log_impl.h"
#include "critsec_lock_impl.h"
#include "uncancelled_impl.h"

#include <bit>
#include <memory>
#include <vector>

namespace Kvl {

constinit arm_level_t ArmApplication::g_level = ARM_LEVEL_OFF;
constinit arm_id ArmApplication::g_app_id{};
constinit arm_app_start_handle_t ArmApplication::g_app_handle = 0;
constinit std::vector<OperationRegistrar*>* ArmApplication::g_registrars = nullptr;
constinit ArmApplication::global_data_t ArmApplication::g_global_data{};

namespace {

constinit CriticalSectionImpl::immortal_mutex_t g_registrars_mutex;

/// What ARM is given of a buffer: nothing when there is nothing in it.
const arm_buffer4* contents(const arm_buffer4* buffer)
{
    return buffer != nullptr && buffer->count > 0 ? buffer : nullptr;
}

const arm_buffer4* contents(const ArmBuffer* buffer)
{
    return buffer != nullptr ? contents(buffer->buffer4()) : nullptr;
}

/// A C string for which ARM may come back as long as the process lives.
const char* pooled(const UString& text)
{
    return ArmBuffer::pool_string(nullptr, text);
}

arm_id fresh_id()
{
    return std::bit_cast<arm_id>(Oid::gen());
}

}  // namespace

// ---- Operations ----

OperationRegistrar::OperationRegistrar(const UString& name) : tran_id_()
{
    name_.assign(name);
    name_.c_str();  // terminated, so that c_str() on it only reads
    typedef std::vector<OperationRegistrar*> registrars_t;
    const CriticalSectionLock lock(g_registrars_mutex);
    const CriticalSection section(lock);
    if (ArmApplication::g_registrars != nullptr)
        ArmApplication::g_registrars->push_back(this);
    else
        ArmApplication::g_registrars = std::make_unique<registrars_t>(1, this).release();
}

OperationRegistrar::~OperationRegistrar()
{
    const CriticalSectionLock lock(g_registrars_mutex);
    const CriticalSection section(lock);
    std::erase(*ArmApplication::g_registrars, this);
}

void OperationRegistrar::user_data(ArmBuffer&) const {}

// ---- Registration ----

int ArmApplication::register_application(arm_level_t level, const UString& name,
                                         const ArmBuffer* buffer) noexcept
{
    constexpr const char* function = "ArmApplication::register_application";
    if (level == ARM_LEVEL_OFF)
        return 0;
    const uncancelled_t whole;
    if (ArmRuntimeLoader::load_runtime() < 0) {
        ArmLog::write(function, "Failed to load ARM runtime. ARM is disabled.");
        return UNAVAILABLE;
    }
    if (!create_key())
        return UNAVAILABLE;
    try {
        const int code = register_name(name, buffer);
        if (code < 0)
            return code;
        set_level(level);
        return register_operations(code);
    } catch (...) {
        set_level(ARM_LEVEL_OFF);
        ArmLog::write_current_exception(function);
        return UNAVAILABLE;
    }
}

int ArmApplication::register_name(const UString& name, const ArmBuffer* buffer)
{
    const arm_id id = fresh_id();
    return ArmRuntimeLoader::g_fnc_arm_register_application(pooled(name), &id, ARM_FLAG_NONE,
                                                            contents(buffer), &g_app_id);
}

/// @param code  the result so far
/// @return      that of the last registration
int ArmApplication::register_operations(int code)
{
    // By index, and as many as there are now: user_data() is the caller's code, and may construct
    // and destroy registrars.
    const std::size_t count = g_registrars != nullptr ? g_registrars->size() : 0;
    ArmBuffer buffer(true);
    for (std::size_t i = 0; i < count && i < g_registrars->size(); ++i) {
        code = register_operation(*(*g_registrars)[i], buffer);
        if (code < 0) {
            // Deliberate: the text is fetched and goes nowhere.
            arm_message_buffer_t text{};
            get_error_message(ARM_CHARSET_UTF8, code, text);
            set_level(ARM_LEVEL_OFF);
            break;
        }
        buffer.clear();
    }
    return code;
}

int ArmApplication::register_operation(OperationRegistrar& registrar, ArmBuffer& buffer)
{
    registrar.user_data(buffer);
    return register_fresh_transaction(pooled(registrar.name()), ARM_FLAG_NONE, contents(&buffer),
                                      &registrar.tran_id_);
}

int ArmApplication::register_transaction(const char* name, int flags, const arm_buffer4* buffer,
                                         arm_id* out) noexcept
{
    if (!is_on())
        return UNAVAILABLE;
    const uncancelled_t whole;
    arm_id unwanted{};
    try {
        return register_fresh_transaction(name != nullptr ? name : "", flags, contents(buffer),
                                          out != nullptr ? out : &unwanted);
    } catch (...) {
        ArmLog::write_current_exception("ArmApplication::register_transaction");
        return UNAVAILABLE;
    }
}

int ArmApplication::register_fresh_transaction(const char* name, int flags,
                                               const arm_buffer4* buffer, arm_id* out)
{
    const arm_id id = fresh_id();
    return ArmRuntimeLoader::g_fnc_arm_register_transaction(&g_app_id, name, &id, flags, buffer,
                                                            out);
}

int ArmApplication::start_application(const ArmBuffer* buffer, const UString& group,
                                      const UString& instance) noexcept
{
    if (!is_on())
        return UNAVAILABLE;
    const uncancelled_t whole;
    try {
        return ArmRuntimeLoader::g_fnc_arm_start_application(&g_app_id, pooled(group),
                                                             pooled(instance), ARM_FLAG_NONE,
                                                             contents(buffer), &g_app_handle);
    } catch (...) {
        ArmLog::write_current_exception("ArmApplication::start_application");
        return UNAVAILABLE;
    }
}

/// Whoever sees measurement on sees what was stored before.
void ArmApplication::set_level(arm_level_t level) noexcept
{
    __atomic_store_n(&g_level, level, __ATOMIC_RELEASE);
}

}  // namespace Kvl
