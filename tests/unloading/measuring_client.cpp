#include <kvutil/arm.h>

// A library of a client. By plain names, for dlsym().

namespace {

const Kvl::OperationRegistrar g_operation(u"operation of a library that is closed");

}  // namespace

/// Registers the process with ARM.
/// @return  the code of the start, which is the last step
extern "C" __attribute__((visibility("default"))) int begin_measurement()
{
    using Kvl::ArmApplication;
    const int code = ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"unloading", nullptr);
    return code < 0 ? code : ArmApplication::start_application(nullptr, u"", u"");
}

/// Starts two operations in the calling thread and leaves them open.
/// @return  the code of the second start
extern "C" __attribute__((visibility("default"))) int measure()
{
    typedef Kvl::ArmPerThreadOperationStack stack_t;
    stack_t::get_base_correlator();
    stack_t::start_transaction(g_operation.tran_id(), nullptr, true);
    return stack_t::start_transaction(g_operation.tran_id(), nullptr, true);
}
