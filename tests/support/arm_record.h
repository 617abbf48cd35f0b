#ifndef KVUTIL_TESTS_SUPPORT_ARM_RECORD_H
#define KVUTIL_TESTS_SUPPORT_ARM_RECORD_H

#include <kvutil/arm4.h>

#include <string>

// Records of the ARM 4.0 binding in words, each with all its fields: as a run-time finds them.

namespace arm_record {

/// A text in quotation marks, or "null".
inline std::string words(const char* text)
{
    return text == nullptr ? "null" : '"' + std::string(text) + '"';
}

inline std::string words(const arm_uint8_t* bytes, std::size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string hexadecimal;
    for (std::size_t i = 0; i < size; ++i)
        (hexadecimal += digits[bytes[i] / 16]) += digits[bytes[i] % 16];
    return hexadecimal;
}

inline std::string words(const arm_id& id)
{
    return words(id.id_u.uint8, sizeof id);
}

inline std::string words(const arm_property& property)
{
    return words(property.name) + "=" + words(property.value);
}

inline std::string words(const arm_metric_binding& binding)
{
    return "slot " + std::to_string(binding.slot) + " " + words(binding.id);
}

inline std::string value_words(const arm_metric& metric)
{
    const auto& value = metric.metric_u;
    switch (metric.format) {
    case ARM_METRIC_FORMAT_COUNTER32:
        return std::to_string(value.counter32);
    case ARM_METRIC_FORMAT_COUNTER64:
        return std::to_string(value.counter64);
    case ARM_METRIC_FORMAT_CNTRDIVR32:
        return std::to_string(value.counterdivisor32.counter) + "/" +
               std::to_string(value.counterdivisor32.divisor);
    case ARM_METRIC_FORMAT_GAUGE32:
        return std::to_string(value.gauge32);
    case ARM_METRIC_FORMAT_GAUGE64:
        return std::to_string(value.gauge64);
    case ARM_METRIC_FORMAT_GAUGEDIVR32:
        return std::to_string(value.gaugedivisor32.gauge) + "/" +
               std::to_string(value.gaugedivisor32.divisor);
    case ARM_METRIC_FORMAT_NUMERICID32:
        return std::to_string(value.numericid32);
    case ARM_METRIC_FORMAT_NUMERICID64:
        return std::to_string(value.numericid64);
    case ARM_METRIC_FORMAT_STRING32:
        return words(value.string32);
    default:
        return "of no known format";
    }
}

inline std::string words(const arm_metric& metric)
{
    return "slot " + std::to_string(metric.slot) + " format " + std::to_string(metric.format) +
           " usage " + std::to_string(metric.usage) + " valid " + std::to_string(metric.valid) +
           " value " + value_words(metric);
}

/// The elements in brackets, or "null".
template <class Element>
std::string words(int count, const Element* array)
{
    if (array == nullptr)
        return count == 0 ? "null" : "null of " + std::to_string(count);
    std::string list = "[";
    for (int i = 0; i < count; ++i)
        list += (i == 0 ? "" : ", ") + words(array[i]);
    return list + "]";
}

template <class Record>
const Record& as(const arm_subbuffer* header)
{
    return *reinterpret_cast<const Record*>(header);
}

template <class Record>
std::string identity_words(const Record& record)
{
    return words(record.identity_property_count, record.identity_property_array) + " " +
           words(record.context_name_count, record.context_name_array);
}

template <class Record>
std::string context_words(const Record& record)
{
    return words(record.context_value_count, record.context_value_array);
}

inline std::string words(const arm_subbuffer_user& record)
{
    return words(record.name) + " id " + std::to_string(record.id_valid) + " " + words(record.id);
}

inline std::string words(const arm_subbuffer_system_address& record)
{
    const std::string address =
        record.address == nullptr
            ? "null"
            : words(record.address, static_cast<std::size_t>(record.address_length));
    return "format " + std::to_string(record.address_format) + " length " +
           std::to_string(record.address_length) + " " + address + " id " +
           std::to_string(record.id_valid) + " " + words(record.id);
}

inline std::string fields(const arm_subbuffer* header)
{
    switch (header->format) {
    case ARM_SUBBUFFER_USER:
        return words(as<arm_subbuffer_user>(header));
    case ARM_SUBBUFFER_ARRIVAL_TIME:
        return std::to_string(as<arm_subbuffer_arrival_time>(header).opaque_time);
    case ARM_SUBBUFFER_METRIC_VALUES: {
        const auto& record = as<arm_subbuffer_metric_values>(header);
        return words(record.count, record.metric_value_array);
    }
    case ARM_SUBBUFFER_SYSTEM_ADDRESS:
        return words(as<arm_subbuffer_system_address>(header));
    case ARM_SUBBUFFER_DIAG_DETAIL:
        return words(as<arm_subbuffer_diag_detail>(header).diag_detail);
    case ARM_SUBBUFFER_APP_IDENTITY:
        return identity_words(as<arm_subbuffer_app_identity>(header));
    case ARM_SUBBUFFER_APP_CONTEXT:
        return context_words(as<arm_subbuffer_app_context>(header));
    case ARM_SUBBUFFER_TRAN_IDENTITY: {
        const auto& record = as<arm_subbuffer_tran_identity>(header);
        return identity_words(record) + " uri " + words(record.uri);
    }
    case ARM_SUBBUFFER_TRAN_CONTEXT: {
        const auto& record = as<arm_subbuffer_tran_context>(header);
        return context_words(record) + " uri " + words(record.uri);
    }
    case ARM_SUBBUFFER_METRIC_BINDINGS: {
        const auto& record = as<arm_subbuffer_metric_bindings>(header);
        return words(record.count, record.metric_binding_array);
    }
    case ARM_SUBBUFFER_CHARSET: {
        const auto& record = as<arm_subbuffer_charset>(header);
        return std::to_string(record.charset) + " flags " + std::to_string(record.flags);
    }
    default:
        return "of no known format";
    }
}

/// One line for each sub-buffer: its format number, a colon, its fields.
inline std::string words(const arm_buffer4& buffer)
{
    std::string lines;
    for (int i = 0; i < buffer.count; ++i) {
        const arm_subbuffer* const header = buffer.subbuffer_array[i];
        lines += std::to_string(header->format) + ": " + fields(header) + "\n";
    }
    return lines;
}

}  // namespace arm_record

#endif
