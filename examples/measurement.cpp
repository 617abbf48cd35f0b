#include "measurement.h"

#include <kvutil/oid.h>
#include <kvutil/tbs_version_id.h>

#include <algorithm>
#include <unistd.h>

using Kvl::ArmApplication;
using Kvl::ArmBuffer;
using Kvl::ArmMetricBindingsBuffer;
using Kvl::ArmMetricValuesBuffer;
using Kvl::ArmPerThreadOperationStack;
using Kvl::ArmTransContextBuffer;
using Kvl::ArmTransIdentyBuffer;
using Kvl::UString;
using Kvl::Utf8String;

namespace {

constexpr unsigned int LONGEST_VALUE = 255;
constexpr std::size_t LONGEST_VALUE_BYTES = 4 * LONGEST_VALUE;

// The metrics of every operation: its size, and how it ended in words.
constexpr unsigned char SIZE_SLOT = 0;
constexpr unsigned char OUTCOME_SLOT = 6;

arm_id metric_id(const char16_t* oid)
{
    const tbs_uuid_s uuid = Kvl::Oid::from_string(UString(oid));
    arm_id id;
    static_assert(sizeof id == sizeof uuid);
    std::copy_n(reinterpret_cast<const unsigned char*>(&uuid), sizeof id, id.id_u.uint8);
    return id;
}

// Issued once and for all: a metric keeps its identifier from run to run.
arm_id size_id()
{
    return metric_id(u"5f0b7e26.3d6911f1.9c02.00:01:83:0a:3b:2f");
}

arm_id outcome_id()
{
    return metric_id(u"5f0b7e2a.3d6911f1.9c02.00:01:83:0a:3b:2f");
}

// Malformed bytes are replaced, and what is too long for a value is cut, between characters.
UString shown(std::string_view value)
{
    UString text;
    text.assign(std::string(value.substr(0, LONGEST_VALUE_BYTES)), "utf8");
    if (text.length() <= LONGEST_VALUE)
        return text;
    return text.substr(0, static_cast<unsigned int>(text.getChar32Start(LONGEST_VALUE)));
}

UString version_line()
{
    char line[256];
    libkvutil_sprintf_verid(line);
    return UString(Utf8String(line)).trim();
}

// 0, or the first code that says why not.
int register_all()
{
    Kvl::ArmAppIdentyBuffer identity;
    const UString version = version_line();
    identity.add_identity_prop(UString(u"Library").c_str(), version.c_str());
    ArmBuffer buffer;
    buffer.add_buffer(identity);
    const int code = ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"request", &buffer);
    if (code < 0)
        return code;
    const UString process(Utf8String(std::to_string(getpid())));
    return ArmApplication::start_application(nullptr, u"examples", process);
}

int registration_code = ArmApplication::UNAVAILABLE;

}  // namespace

OperationType::OperationType(const UString& name, const std::vector<UString>& contexts)
    : OperationRegistrar(name), contexts_(contexts)
{
    for (const UString& context : contexts_)
        identity_.add_context_prop(context);
}

void OperationType::user_data(ArmBuffer& buffer) const
{
    ArmTransIdentyBuffer identity = identity_;
    buffer.add_buffer(identity);
    ArmMetricBindingsBuffer metrics;
    metrics.add_binding(SIZE_SLOT, size_id());
    metrics.add_binding(OUTCOME_SLOT, outcome_id());
    buffer.add_buffer(metrics);
}

void OperationType::add_contexts(ArmBuffer& buffer,
                                 std::initializer_list<std::string_view> values) const
{
    ArmTransContextBuffer contexts(identity_);
    auto value = values.begin();
    for (const UString& context : contexts_)
        contexts.add_ctx_prop(context, shown(*value++));
    buffer.add_buffer(contexts);
}

void start_measurement()
{
    registration_code = register_all();
    ArmPerThreadOperationStack::get_base_correlator();
}

std::string measurement_state()
{
    if (registration_code >= 0)
        return "measurement on";
    if (registration_code == ArmApplication::UNAVAILABLE)
        return "measurement off: there is no usable run-time library libarm4.so";
    return "measurement off: the run-time library answered " + std::to_string(registration_code);
}

Operation::Operation(const OperationType& type, std::initializer_list<std::string_view> values)
{
    if (!ArmApplication::is_on())
        return;
    ArmBuffer buffer;
    type.add_contexts(buffer, values);
    is_measured_ =
        ArmPerThreadOperationStack::start_transaction(type.tran_id(), &buffer, true) >= 0;
}

Operation::~Operation()
{
    if (!is_measured_)
        return;
    const int status = has_succeeded_ ? ARM_STATUS_GOOD : ARM_STATUS_FAILED;
    ArmBuffer buffer;
    try {
        add_metrics(buffer);
    } catch (...) {
        // Out of memory, an operation ends without its metrics.
    }
    ArmPerThreadOperationStack::stop_transaction(status, &buffer);
}

void Operation::add_metrics(ArmBuffer& buffer) const
{
    ArmMetricValuesBuffer metrics;
    metrics.add_value(SIZE_SLOT, ARM_METRIC_FORMAT_GAUGE64, ARM_METRIC_USE_TRAN_SIZE, true,
                      static_cast<long long>(size_bytes_));
    metrics.add_value(ARM_METRIC_USE_TRAN_STATUS, true,
                      UString(has_succeeded_ ? u"accepted" : u"rejected"));
    buffer.add_buffer(metrics);
}
