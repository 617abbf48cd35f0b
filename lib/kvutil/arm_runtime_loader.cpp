#include <kvutil/arm.h>

#include "arm_log_impl.h"
#include "platform_text_impl.h"
#include "sys_calls_impl.h"
#include "uncancelled_impl.h"

#include <kvutil/critsec.h>

#include <dlfcn.h>

namespace Kvl {

constinit void* ArmRuntimeLoader::g_arm4_handle = nullptr;
#define KVUTIL_ARM_FUNCTION(name)                                                                  \
    constinit decltype(&::name) ArmRuntimeLoader::g_fnc_##name = nullptr
KVUTIL_ARM_FUNCTION(arm_register_application);
KVUTIL_ARM_FUNCTION(arm_start_application);
KVUTIL_ARM_FUNCTION(arm_start_transaction);
KVUTIL_ARM_FUNCTION(arm_stop_transaction);
KVUTIL_ARM_FUNCTION(arm_register_transaction);
KVUTIL_ARM_FUNCTION(arm_get_error_message);
KVUTIL_ARM_FUNCTION(arm_get_arrival_time);
#undef KVUTIL_ARM_FUNCTION

namespace {

constexpr const char* RUNTIME = "libarm4.so";

/// From the C library's catalogue of error texts, as those of system calls are.
const char* loader_text()
{
    const CriticalSection section(error_text_lock);
    return sys_calls.dlerror();
}

/// @param function  stays what it was when there is none of that name
template <class Function>
bool find(void* runtime, const char* name, Function*& function)
{
    void* const found = sys_calls.dlsym(runtime, name);
    if (found == nullptr)
        return false;
    function = reinterpret_cast<Function*>(found);
    return true;
}

bool find_functions(void* runtime)
{
    typedef ArmRuntimeLoader L;
    return find(runtime, "arm_register_application", L::g_fnc_arm_register_application) &&
           find(runtime, "arm_start_application", L::g_fnc_arm_start_application) &&
           find(runtime, "arm_start_transaction", L::g_fnc_arm_start_transaction) &&
           find(runtime, "arm_stop_transaction", L::g_fnc_arm_stop_transaction) &&
           find(runtime, "arm_register_transaction", L::g_fnc_arm_register_transaction) &&
           find(runtime, "arm_get_error_message", L::g_fnc_arm_get_error_message) &&
           find(runtime, "arm_get_arrival_time", L::g_fnc_arm_get_arrival_time);
}

}  // namespace

int ArmRuntimeLoader::load_runtime() noexcept
{
    if (g_arm4_handle != nullptr)
        return 0;
    const uncancelled_t whole;
    void* const runtime = sys_calls.dlopen(RUNTIME, RTLD_NOW);
    if (runtime != nullptr && find_functions(runtime)) {
        g_arm4_handle = runtime;
        return 0;
    }

    ArmLog::write_system_text("ArmRuntimeLoader::load_runtime", loader_text());
    if (runtime != nullptr)
        sys_calls.dlclose(runtime);
    return ArmApplication::UNAVAILABLE;
}

}  // namespace Kvl
