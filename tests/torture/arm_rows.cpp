#include "rows.h"
#include "texts.h"

#include "support/fake_arm4_runtime.h"

#include <kvutil/arm.h>

namespace torture {

using namespace Kvl;
typedef ArmPerThreadOperationStack Stack;

namespace {

const std::string UNAVAILABLE = std::to_string(ArmApplication::UNAVAILABLE);

/// The loader finds the run-time by its name from now on.
void open_runtime()
{
    static const fake_runtime_t runtime;
    runtime.record(0);
}

int register_application()
{
    return ArmApplication::register_application(ARM_LEVEL_ON, LONG, nullptr);
}

/// Each registration makes another key for the stacks of all threads.
void register_once()
{
    static const int code = register_application();
    if (code != 0)
        throw std::runtime_error("not registered");
}

}  // namespace

/// What a caller sees of its thread's stack.
struct thread_stack_t {
    explicit thread_stack_t(int depth_before)
    {
        open_runtime();
        register_once();
        if (depth_before >= 0)
            Stack::get_base_correlator();
        for (int i = 0; i < depth_before; ++i)
            Stack::start_transaction(arm_id(), nullptr, true);
    }
    ~thread_stack_t()
    {
        while (Stack::doing_local_operation())
            Stack::stop_transaction(0, nullptr);
    }
};

static std::string words(const thread_stack_t&)
{
    return std::to_string(Stack::doing_local_operation()) + " " +
           std::to_string(Stack::current_local_correlator() != nullptr);
}

namespace {

template <int depth>
std::unique_ptr<thread_stack_t> at_depth()
{
    return std::make_unique<thread_stack_t>(depth);
}

}  // namespace

struct registered_t {
    const OperationRegistrar registrar{OTHER};
};

static std::string words(const registered_t& registered)
{
    return words(registered.registrar.name());
}

namespace {

void add_registrars(rows_t& rows)
{
    static const UString name = alias_of_units();
    rows.add({"OperationRegistrar::OperationRegistrar(UString const&)",
              "OperationRegistrar::user_data(ArmBuffer&) const"},
             [] {
                 ArmBuffer buffer;
                 const OperationRegistrar registrar(name);
                 registrar.OperationRegistrar::user_data(buffer);
                 return buffer.count();
             })
        .and_in_new_processes();
}

void add_application(rows_t& rows)
{
    rows.add({"ArmRuntimeLoader::load_runtime()"}, [] { return ArmRuntimeLoader::load_runtime(); })
        .only_in_new_processes()
        .may_need_none();
    rows.add(
            {"ArmRuntimeLoader::load_runtime()"},
            [] {
                open_runtime();
                return nothing_t();
            },
            [](nothing_t) { return ArmRuntimeLoader::load_runtime(); })
        .only_in_new_processes()
        .may_need_none()
        .refuses_with(UNAVAILABLE);
    rows.add(
            {"ArmApplication::register_application(arm_level_t, UString const&, ArmBuffer "
             "const*)"},
            [] {
                open_runtime();
                return std::make_unique<registered_t>();
            },
            [](auto&) { return register_application(); })
        .only_in_new_processes()
        .refuses_with(UNAVAILABLE);
    rows.add({"ArmApplication::start_application(ArmBuffer const*, UString const&, UString "
              "const&)"},
             at_depth<-1>,
             [](auto&) { return ArmApplication::start_application(nullptr, OTHER, u"x" + LONG); })
        .only_in_new_processes()
        .refuses_with(UNAVAILABLE);
    rows.add(
            {"ArmApplication::register_transaction(char const*, int, arm_buffer4 const*, arm_id*)"},
            at_depth<-1>,
            [](auto&) {
                arm_id id;
                return ArmApplication::register_transaction("x", 0, nullptr, &id);
            })
        .needs_none();
}

void add_stack(rows_t& rows)
{
    rows.add({"ArmPerThreadOperationStack::base_of_this_thread()"}, at_depth<-1>,
             [](auto&) { return Stack::get_base_correlator() != nullptr; })
        .only_in_new_processes()
        .refuses_with("0");
    rows.add({"ArmPerThreadOperationStack::start(arm_id const&, ArmBuffer const*, bool)"},
             at_depth<3>, [](auto&) { return Stack::start_transaction(arm_id(), nullptr, true); })
        .only_in_new_processes()
        .refuses_with(UNAVAILABLE);
    rows.add({"ArmPerThreadOperationStack::stop(int, ArmBuffer const*)",
              "ArmPerThreadOperationStack::top_of_this_thread()",
              "ArmApplication::global_data_t::delete_stack(void*)"},
             at_depth<3>,
             [](auto&) {
                 ArmApplication::global_data_t::delete_stack(nullptr);
                 return Stack::stop_transaction(0, nullptr);
             })
        .needs_none();
}

}  // namespace

rows_t arm_rows()
{
    rows_t rows("arm.h, the application and the stack");
    add_registrars(rows);
    add_application(rows);
    add_stack(rows);
    return rows;
}

}  // namespace torture
