#ifndef KVUTIL_EXAMPLES_MEASUREMENT_H
#define KVUTIL_EXAMPLES_MEASUREMENT_H

#include <kvutil/arm.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

/// A kind of operation that is measured. A static object: it must exist before measurement starts.
class OperationType final : public Kvl::OperationRegistrar {
public:
    /// @param name      as it is reported
    /// @param contexts  what is told about each operation when it starts, by name
    OperationType(const Kvl::UString& name, const std::vector<Kvl::UString>& contexts);

    void user_data(Kvl::ArmBuffer& buffer) const override;

    /// @param values  one for each context, in their order; in UTF-8
    void add_contexts(Kvl::ArmBuffer& buffer, std::initializer_list<std::string_view> values) const;

private:
    std::vector<Kvl::UString> contexts_;
    Kvl::ArmTransIdentyBuffer identity_;
};

/// Makes this program and its types of operations known to the run-time that measures, if there is
/// one. To be called once, by the thread that performs the operations.
void start_measurement();

/// Whether operations are measured, and why not: one line for people.
std::string measurement_state();

/// An operation of the calling thread, which is performed while the object lives. One that starts
/// meanwhile is a part of it. Without measurement it costs next to nothing.
class Operation {
public:
    /// @param type    must live as long
    /// @param values  of the type's contexts
    Operation(const OperationType& type, std::initializer_list<std::string_view> values);
    ~Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    void set_size(std::size_t bytes) noexcept { size_bytes_ = bytes; }
    /// Without it, the operation has failed.
    void succeed() noexcept { has_succeeded_ = true; }

private:
    void add_metrics(Kvl::ArmBuffer& buffer) const;

    bool is_measured_ = false;
    bool has_succeeded_ = false;
    std::size_t size_bytes_ = 0;
};

#endif
