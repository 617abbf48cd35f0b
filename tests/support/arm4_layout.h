#ifndef KVUTIL_TESTS_ARM4_LAYOUT_H
#define KVUTIL_TESTS_ARM4_LAYOUT_H

/* The records of kvutil/arm4.h as a run-time for x86-64 Linux reads them, checked by the compiler.
   For C and C++. */

#include <kvutil/arm4.h>

#include <stddef.h>

#ifdef __cplusplus
#define HOLDS(condition) static_assert(condition, #condition)
#define ALIGNMENT(type) alignof(type)
#else
#define HOLDS(condition) extern char arm4_holds[(condition) ? 1 : -1]
#define ALIGNMENT(type)                                                                            \
    offsetof(                                                                                      \
        struct {                                                                                   \
            char first;                                                                            \
            type second;                                                                           \
        },                                                                                         \
        second)
#endif

#define TYPE(type, size) HOLDS(sizeof(type) == (size))
#define SIGNED(type, size) HOLDS(sizeof(type) == (size) && (type)-1 < 1)
#define UNSIGNED(type, size) HOLDS(sizeof(type) == (size) && (type)-1 > 0)
/* Each record by its tag and by its typedef. */
#define RECORD(tag, size, alignment)                                                               \
    HOLDS(sizeof(struct tag) == (size) && sizeof(tag##_t) == (size));                              \
    HOLDS(ALIGNMENT(tag##_t) == (alignment))
#define FIELD(tag, field, offset, size)                                                            \
    HOLDS(offsetof(struct tag, field) == (offset) && sizeof(((struct tag*)0)->field) == (size))

/* clang-format off */
TYPE(arm_char_t, 1);
SIGNED(arm_int8_t, 1);
UNSIGNED(arm_uint8_t, 1);
SIGNED(arm_int16_t, 2);
UNSIGNED(arm_uint16_t, 2);
SIGNED(arm_int32_t, 4);
UNSIGNED(arm_uint32_t, 4);
SIGNED(arm_int64_t, 8);
UNSIGNED(arm_uint64_t, 8);
SIGNED(arm_boolean_t, 4);
SIGNED(arm_error_t, 4);
SIGNED(arm_tran_status_t, 4);
SIGNED(arm_charset_t, 4);
SIGNED(arm_sysaddr_format_t, 4);
SIGNED(arm_subbuffer_format_t, 4);
UNSIGNED(arm_metric_format_t, 1);
UNSIGNED(arm_metric_slot_t, 1);
SIGNED(arm_metric_usage_t, 2);
SIGNED(arm_arrival_time_t, 8);
SIGNED(arm_stop_time_t, 8);
SIGNED(arm_response_time_t, 8);
SIGNED(arm_app_start_handle_t, 8);
SIGNED(arm_tran_start_handle_t, 8);
SIGNED(arm_tran_block_handle_t, 8);
SIGNED(arm_correlator_length_t, 2);
SIGNED(arm_metric_counter32_t, 4);
SIGNED(arm_metric_counter64_t, 8);
SIGNED(arm_metric_gauge32_t, 4);
SIGNED(arm_metric_gauge64_t, 8);
SIGNED(arm_metric_divisor32_t, 4);
SIGNED(arm_metric_numericID32_t, 4);
SIGNED(arm_metric_numericID64_t, 8);
TYPE(arm_metric_string32_t, 8);
TYPE(arm_message_buffer_t, 766);

RECORD(arm_id, 16, 8);
FIELD(arm_id, id_u, 0, 16);
RECORD(arm_correlator, 512, 1);
FIELD(arm_correlator, opaque, 0, 512);
RECORD(arm_buffer4, 16, 8);
FIELD(arm_buffer4, count, 0, 4);
FIELD(arm_buffer4, subbuffer_array, 8, 8);
RECORD(arm_subbuffer, 4, 4);
FIELD(arm_subbuffer, format, 0, 4);
RECORD(arm_property, 16, 8);
FIELD(arm_property, name, 0, 8);
FIELD(arm_property, value, 8, 8);
RECORD(arm_metric_cntrdivr32, 8, 4);
FIELD(arm_metric_cntrdivr32, counter, 0, 4);
FIELD(arm_metric_cntrdivr32, divisor, 4, 4);
RECORD(arm_metric_gaugedivr32, 8, 4);
FIELD(arm_metric_gaugedivr32, gauge, 0, 4);
FIELD(arm_metric_gaugedivr32, divisor, 4, 4);
RECORD(arm_metric, 16, 8);
FIELD(arm_metric, slot, 0, 1);
FIELD(arm_metric, format, 1, 1);
FIELD(arm_metric, usage, 2, 2);
FIELD(arm_metric, valid, 4, 4);
FIELD(arm_metric, metric_u, 8, 8);
RECORD(arm_metric_binding, 24, 8);
FIELD(arm_metric_binding, slot, 0, 1);
FIELD(arm_metric_binding, id, 8, 16);
RECORD(arm_subbuffer_user, 40, 8);
FIELD(arm_subbuffer_user, header, 0, 4);
FIELD(arm_subbuffer_user, name, 8, 8);
FIELD(arm_subbuffer_user, id_valid, 16, 4);
FIELD(arm_subbuffer_user, id, 24, 16);
RECORD(arm_subbuffer_arrival_time, 16, 8);
FIELD(arm_subbuffer_arrival_time, header, 0, 4);
FIELD(arm_subbuffer_arrival_time, opaque_time, 8, 8);
RECORD(arm_subbuffer_metric_values, 16, 8);
FIELD(arm_subbuffer_metric_values, header, 0, 4);
FIELD(arm_subbuffer_metric_values, count, 4, 4);
FIELD(arm_subbuffer_metric_values, metric_value_array, 8, 8);
RECORD(arm_subbuffer_system_address, 40, 8);
FIELD(arm_subbuffer_system_address, header, 0, 4);
FIELD(arm_subbuffer_system_address, address_format, 4, 2);
FIELD(arm_subbuffer_system_address, address_length, 6, 2);
FIELD(arm_subbuffer_system_address, address, 8, 8);
FIELD(arm_subbuffer_system_address, id_valid, 16, 4);
FIELD(arm_subbuffer_system_address, id, 24, 16);
RECORD(arm_subbuffer_diag_detail, 16, 8);
FIELD(arm_subbuffer_diag_detail, header, 0, 4);
FIELD(arm_subbuffer_diag_detail, diag_detail, 8, 8);
RECORD(arm_subbuffer_app_identity, 32, 8);
FIELD(arm_subbuffer_app_identity, header, 0, 4);
FIELD(arm_subbuffer_app_identity, identity_property_count, 4, 4);
FIELD(arm_subbuffer_app_identity, identity_property_array, 8, 8);
FIELD(arm_subbuffer_app_identity, context_name_count, 16, 4);
FIELD(arm_subbuffer_app_identity, context_name_array, 24, 8);
RECORD(arm_subbuffer_app_context, 16, 8);
FIELD(arm_subbuffer_app_context, header, 0, 4);
FIELD(arm_subbuffer_app_context, context_value_count, 4, 4);
FIELD(arm_subbuffer_app_context, context_value_array, 8, 8);
RECORD(arm_subbuffer_tran_identity, 40, 8);
FIELD(arm_subbuffer_tran_identity, header, 0, 4);
FIELD(arm_subbuffer_tran_identity, identity_property_count, 4, 4);
FIELD(arm_subbuffer_tran_identity, identity_property_array, 8, 8);
FIELD(arm_subbuffer_tran_identity, context_name_count, 16, 4);
FIELD(arm_subbuffer_tran_identity, context_name_array, 24, 8);
FIELD(arm_subbuffer_tran_identity, uri, 32, 8);
RECORD(arm_subbuffer_tran_context, 24, 8);
FIELD(arm_subbuffer_tran_context, header, 0, 4);
FIELD(arm_subbuffer_tran_context, context_value_count, 4, 4);
FIELD(arm_subbuffer_tran_context, context_value_array, 8, 8);
FIELD(arm_subbuffer_tran_context, uri, 16, 8);
RECORD(arm_subbuffer_metric_bindings, 16, 8);
FIELD(arm_subbuffer_metric_bindings, header, 0, 4);
FIELD(arm_subbuffer_metric_bindings, count, 4, 4);
FIELD(arm_subbuffer_metric_bindings, metric_binding_array, 8, 8);
RECORD(arm_subbuffer_charset, 12, 4);
FIELD(arm_subbuffer_charset, header, 0, 4);
FIELD(arm_subbuffer_charset, charset, 4, 4);
FIELD(arm_subbuffer_charset, flags, 8, 4);
/* clang-format on */

#undef FIELD
#undef RECORD
#undef UNSIGNED
#undef SIGNED
#undef TYPE
#undef ALIGNMENT

/* Each constant with the number that a run-time knows it by. */
HOLDS(ARM_FALSE == 0);
HOLDS(ARM_TRUE == 1);
HOLDS(ARM_ERROR_CODE_RESERVED_MIN == -20999);
HOLDS(ARM_ERROR_CODE_RESERVED_MAX == -20000);
HOLDS(ARM_NAME_MAX_CHARS == 127);
HOLDS(ARM_NAME_MAX_LENGTH == 382);
HOLDS(ARM_PROPERTY_NAME_MAX_CHARS == 127);
HOLDS(ARM_PROPERTY_NAME_MAX_LENGTH == 382);
HOLDS(ARM_PROPERTY_VALUE_MAX_CHARS == 255);
HOLDS(ARM_PROPERTY_VALUE_MAX_LENGTH == 766);
HOLDS(ARM_PROPERTY_URI_MAX_CHARS == 4095);
HOLDS(ARM_PROPERTY_URI_MAX_LENGTH == 12286);
HOLDS(ARM_DIAG_DETAIL_MAX_CHARS == 4095);
HOLDS(ARM_DIAG_DETAIL_MAX_LENGTH == 12286);
HOLDS(ARM_METRIC_STRING32_MAX_CHARS == 31);
HOLDS(ARM_METRIC_STRING32_MAX_LENGTH == 94);
HOLDS(ARM_MSG_BUFFER_CHARS == 255);
HOLDS(ARM_MSG_BUFFER_LENGTH == 766);
HOLDS(ARM_CORR_MAX_LENGTH == 512);
HOLDS(ARM_CORR_FLAGNUM_APP_TRACE == 1);
HOLDS(ARM_CORR_FLAGNUM_AGENT_TRACE == 2);
HOLDS(ARM_CHARSET_ASCII == 3);
HOLDS(ARM_CHARSET_UTF8 == 106);
HOLDS(ARM_CHARSET_UTF16BE == 1013);
HOLDS(ARM_CHARSET_UTF16LE == 1014);
HOLDS(ARM_CHARSET_UTF16 == 1015);
HOLDS(ARM_FLAG_NONE == 0);
HOLDS(ARM_FLAG_TRACE_REQUEST == 1);
HOLDS(ARM_FLAG_BIND_THREAD == 2);
HOLDS(ARM_FLAG_CORR_IN_PROCESS == 4);
HOLDS(ARM_STATUS_GOOD == 0);
HOLDS(ARM_STATUS_ABORTED == 1);
HOLDS(ARM_STATUS_FAILED == 2);
HOLDS(ARM_STATUS_UNKNOWN == 3);
HOLDS(ARM_METRIC_FORMAT_RESERVED == 0);
HOLDS(ARM_METRIC_FORMAT_COUNTER32 == 1);
HOLDS(ARM_METRIC_FORMAT_COUNTER64 == 2);
HOLDS(ARM_METRIC_FORMAT_CNTRDIVR32 == 3);
HOLDS(ARM_METRIC_FORMAT_GAUGE32 == 4);
HOLDS(ARM_METRIC_FORMAT_GAUGE64 == 5);
HOLDS(ARM_METRIC_FORMAT_GAUGEDIVR32 == 6);
HOLDS(ARM_METRIC_FORMAT_NUMERICID32 == 7);
HOLDS(ARM_METRIC_FORMAT_NUMERICID64 == 8);
HOLDS(ARM_METRIC_FORMAT_STRING32 == 10);
HOLDS(ARM_METRIC_USE_GENERAL == 0);
HOLDS(ARM_METRIC_USE_TRAN_SIZE == 1);
HOLDS(ARM_METRIC_USE_TRAN_STATUS == 2);
HOLDS(ARM_METRIC_MIN_ARRAY_INDEX == 0);
HOLDS(ARM_METRIC_MAX_ARRAY_INDEX == 6);
HOLDS(ARM_METRIC_MAX_COUNT == 7);
HOLDS(ARM_PROPERTY_MIN_ARRAY_INDEX == 0);
HOLDS(ARM_PROPERTY_MAX_ARRAY_INDEX == 19);
HOLDS(ARM_PROPERTY_MAX_COUNT == 20);
HOLDS(ARM_SUBBUFFER_USER == 3);
HOLDS(ARM_SUBBUFFER_ARRIVAL_TIME == 4);
HOLDS(ARM_SUBBUFFER_METRIC_VALUES == 5);
HOLDS(ARM_SUBBUFFER_SYSTEM_ADDRESS == 6);
HOLDS(ARM_SUBBUFFER_DIAG_DETAIL == 7);
HOLDS(ARM_SUBBUFFER_APP_IDENTITY == 102);
HOLDS(ARM_SUBBUFFER_APP_CONTEXT == 103);
HOLDS(ARM_SUBBUFFER_TRAN_IDENTITY == 104);
HOLDS(ARM_SUBBUFFER_TRAN_CONTEXT == 105);
HOLDS(ARM_SUBBUFFER_METRIC_BINDINGS == 106);
HOLDS(ARM_SUBBUFFER_CHARSET == 107);
HOLDS(ARM_SYSADDR_FORMAT_RESERVED == 0);
HOLDS(ARM_SYSADDR_FORMAT_IPV4 == 1);
HOLDS(ARM_SYSADDR_FORMAT_IPV4PORT == 2);
HOLDS(ARM_SYSADDR_FORMAT_IPV6 == 3);
HOLDS(ARM_SYSADDR_FORMAT_IPV6PORT == 4);
HOLDS(ARM_SYSADDR_FORMAT_SNA == 5);
HOLDS(ARM_SYSADDR_FORMAT_X25 == 6);
HOLDS(ARM_SYSADDR_FORMAT_HOSTNAME == 7);
HOLDS(ARM_SYSADDR_FORMAT_UUID == 8);
HOLDS(ARM_USE_CURRENT_TIME == -1);

#undef HOLDS

#endif
