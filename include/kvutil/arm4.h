#ifndef ARM4_H_INCLUDED
#define ARM4_H_INCLUDED

/// @file
/// The C binding of Application Response Measurement (ARM) 4.0, as far as it is used here: its
/// types, its constants, and the types of seven of its functions. For C and C++.
///
/// Names are the standard's, and so is the guard: of this header and the standard's own `arm4.h`,
/// the one that is included first counts, and either serves.
///
/// Nothing here is implemented by the library. The functions are those of an ARM run-time
/// (`libarm4.so`), to be taken from it with dlsym(); the library never refers to them by name.
/// @see The Open Group, Technical Standard C041: Application Response Measurement, Issue 4.0,
///      C Binding

#ifdef __cplusplus
extern "C" {
#endif

// ---- Scalars ----

typedef char arm_char_t;                  ///< a unit of text
typedef signed char arm_int8_t;           ///< 8 bits, signed
typedef unsigned char arm_uint8_t;        ///< 8 bits, unsigned
typedef short arm_int16_t;                ///< 16 bits, signed
typedef unsigned short arm_uint16_t;      ///< 16 bits, unsigned
typedef int arm_int32_t;                  ///< 32 bits, signed
typedef unsigned int arm_uint32_t;        ///< 32 bits, unsigned
typedef long long arm_int64_t;            ///< 64 bits, signed; never `long`, which is another type
typedef unsigned long long arm_uint64_t;  ///< 64 bits, unsigned

typedef arm_int32_t arm_boolean_t;            ///< ARM_FALSE or ARM_TRUE
typedef arm_int32_t arm_error_t;              ///< result of a function; negative means failure
typedef arm_int32_t arm_tran_status_t;        ///< how a transaction ended, ARM_STATUS_...
typedef arm_int32_t arm_charset_t;            ///< a character set by its IANA MIBenum number
typedef arm_int32_t arm_sysaddr_format_t;     ///< ARM_SYSADDR_FORMAT_...; records hold 16 bits
typedef arm_int32_t arm_subbuffer_format_t;   ///< ARM_SUBBUFFER_...
typedef arm_uint8_t arm_metric_format_t;      ///< ARM_METRIC_FORMAT_...
typedef arm_uint8_t arm_metric_slot_t;        ///< 0 to 6; 6 is for the string metric
typedef arm_int16_t arm_metric_usage_t;       ///< ARM_METRIC_USE_..., or negative
typedef arm_int64_t arm_arrival_time_t;       ///< a time stamp of the run-time, opaque
typedef arm_int64_t arm_stop_time_t;          ///< milliseconds since 1970-01-01T00:00:00Z
typedef arm_int64_t arm_response_time_t;      ///< nanoseconds
typedef arm_int64_t arm_app_start_handle_t;   ///< a started application, in this process
typedef arm_int64_t arm_tran_start_handle_t;  ///< a started transaction, in this process
typedef arm_int64_t arm_tran_block_handle_t;  ///< a blocked transaction, in this process
typedef arm_int16_t arm_correlator_length_t;  ///< bytes of a correlator, 0 to 512

typedef arm_int32_t arm_metric_counter32_t;       ///< value of a counter
typedef arm_int64_t arm_metric_counter64_t;       ///< value of a counter
typedef arm_int32_t arm_metric_gauge32_t;         ///< value of a gauge
typedef arm_int64_t arm_metric_gauge64_t;         ///< value of a gauge
typedef arm_int32_t arm_metric_divisor32_t;       ///< what a counter or gauge is divided by
typedef arm_int32_t arm_metric_numericID32_t;     ///< a number that names something
typedef arm_int64_t arm_metric_numericID64_t;     ///< a number that names something
typedef const arm_char_t* arm_metric_string32_t;  ///< at most 31 characters

// ---- Constants ----

/// The two values of arm_boolean_t.
#define ARM_FALSE 0
#define ARM_TRUE 1

/// The band of result codes that the standard keeps to itself.
#define ARM_ERROR_CODE_RESERVED_MIN (-20999)
#define ARM_ERROR_CODE_RESERVED_MAX (-20000)

/// Lengths of texts: in characters, and in bytes with the terminator at three bytes a character.
#define ARM_NAME_MAX_CHARS 127
#define ARM_NAME_MAX_LENGTH (ARM_NAME_MAX_CHARS * 3 + 1)
#define ARM_PROPERTY_NAME_MAX_CHARS 127
#define ARM_PROPERTY_NAME_MAX_LENGTH (ARM_PROPERTY_NAME_MAX_CHARS * 3 + 1)
#define ARM_PROPERTY_VALUE_MAX_CHARS 255
#define ARM_PROPERTY_VALUE_MAX_LENGTH (ARM_PROPERTY_VALUE_MAX_CHARS * 3 + 1)
#define ARM_PROPERTY_URI_MAX_CHARS 4095
#define ARM_PROPERTY_URI_MAX_LENGTH (ARM_PROPERTY_URI_MAX_CHARS * 3 + 1)
#define ARM_DIAG_DETAIL_MAX_CHARS 4095
#define ARM_DIAG_DETAIL_MAX_LENGTH (ARM_DIAG_DETAIL_MAX_CHARS * 3 + 1)
#define ARM_METRIC_STRING32_MAX_CHARS 31
#define ARM_METRIC_STRING32_MAX_LENGTH (ARM_METRIC_STRING32_MAX_CHARS * 3 + 1)
#define ARM_MSG_BUFFER_CHARS 255
#define ARM_MSG_BUFFER_LENGTH (ARM_MSG_BUFFER_CHARS * 3 + 1)

/// Bytes of the longest correlator.
#define ARM_CORR_MAX_LENGTH 512

/// Flags of a correlator, by their numbers. They are not masks.
#define ARM_CORR_FLAGNUM_APP_TRACE 1
#define ARM_CORR_FLAGNUM_AGENT_TRACE 2

/// Character sets, by their numbers in the IANA registry. Every run-time knows the first two.
#define ARM_CHARSET_ASCII 3
#define ARM_CHARSET_UTF8 106
#define ARM_CHARSET_UTF16BE 1013
#define ARM_CHARSET_UTF16LE 1014
#define ARM_CHARSET_UTF16 1015

/// Flags of calls. They are bits and combine.
#define ARM_FLAG_NONE 0x00000000
#define ARM_FLAG_TRACE_REQUEST 0x00000001
#define ARM_FLAG_BIND_THREAD 0x00000002
#define ARM_FLAG_CORR_IN_PROCESS 0x00000004

/// How a transaction ended.
#define ARM_STATUS_GOOD 0
#define ARM_STATUS_ABORTED 1
#define ARM_STATUS_FAILED 2
#define ARM_STATUS_UNKNOWN 3

/// What the value of a metric is. 9 was a text of 8 bytes, which is withdrawn.
#define ARM_METRIC_FORMAT_RESERVED 0
#define ARM_METRIC_FORMAT_COUNTER32 1
#define ARM_METRIC_FORMAT_COUNTER64 2
#define ARM_METRIC_FORMAT_CNTRDIVR32 3
#define ARM_METRIC_FORMAT_GAUGE32 4
#define ARM_METRIC_FORMAT_GAUGE64 5
#define ARM_METRIC_FORMAT_GAUGEDIVR32 6
#define ARM_METRIC_FORMAT_NUMERICID32 7
#define ARM_METRIC_FORMAT_NUMERICID64 8
#define ARM_METRIC_FORMAT_STRING32 10

/// What a metric is for. Negative values are free for applications.
#define ARM_METRIC_USE_GENERAL 0
#define ARM_METRIC_USE_TRAN_SIZE 1
#define ARM_METRIC_USE_TRAN_STATUS 2

/// The slots of metrics. The last one is for a text, the others for numbers.
#define ARM_METRIC_MIN_ARRAY_INDEX 0
#define ARM_METRIC_MAX_ARRAY_INDEX 6
#define ARM_METRIC_MAX_COUNT (ARM_METRIC_MAX_ARRAY_INDEX + 1)

/// The places of identity properties, and those of context names.
#define ARM_PROPERTY_MIN_ARRAY_INDEX 0
#define ARM_PROPERTY_MAX_ARRAY_INDEX 19
#define ARM_PROPERTY_MAX_COUNT (ARM_PROPERTY_MAX_ARRAY_INDEX + 1)

/// The formats of sub-buffers.
#define ARM_SUBBUFFER_USER 3
#define ARM_SUBBUFFER_ARRIVAL_TIME 4
#define ARM_SUBBUFFER_METRIC_VALUES 5
#define ARM_SUBBUFFER_SYSTEM_ADDRESS 6
#define ARM_SUBBUFFER_DIAG_DETAIL 7
#define ARM_SUBBUFFER_APP_IDENTITY 102
#define ARM_SUBBUFFER_APP_CONTEXT 103
#define ARM_SUBBUFFER_TRAN_IDENTITY 104
#define ARM_SUBBUFFER_TRAN_CONTEXT 105
#define ARM_SUBBUFFER_METRIC_BINDINGS 106
#define ARM_SUBBUFFER_CHARSET 107

/// The formats of system addresses. Negative ones are free for run-times.
#define ARM_SYSADDR_FORMAT_RESERVED 0
#define ARM_SYSADDR_FORMAT_IPV4 1
#define ARM_SYSADDR_FORMAT_IPV4PORT 2
#define ARM_SYSADDR_FORMAT_IPV6 3
#define ARM_SYSADDR_FORMAT_IPV6PORT 4
#define ARM_SYSADDR_FORMAT_SNA 5
#define ARM_SYSADDR_FORMAT_X25 6
#define ARM_SYSADDR_FORMAT_HOSTNAME 7
#define ARM_SYSADDR_FORMAT_UUID 8

// ---- Identifiers and correlators ----

/// 16 opaque bytes. All bits 0 and all bits 1 are no identifiers.
typedef struct arm_id {
    /// Three views of the same bytes.
    union {
        arm_uint8_t uint8[16];
        arm_uint32_t uint32[4];
        arm_uint64_t uint64[2];
    } id_u;
} arm_id_t;

/// What one transaction hands to those it causes. Opaque but for its length, the first two bytes
/// in network order; all zero is "none".
typedef struct arm_correlator {
    arm_uint8_t opaque[ARM_CORR_MAX_LENGTH];  ///< of the run-time
} arm_correlator_t;

/// Room for the text of a result code.
typedef arm_char_t arm_message_buffer_t[ARM_MSG_BUFFER_LENGTH];

// ---- Buffers ----
// Each record of a format begins with `header`, whose address is what a buffer holds.

/// The beginning of every sub-buffer.
typedef struct arm_subbuffer {
    arm_subbuffer_format_t format;  ///< ARM_SUBBUFFER_...
} arm_subbuffer_t;

/// What a call takes besides its parameters. Of each format the first one counts.
typedef struct arm_buffer4 {
    arm_int32_t count;                  ///< of the sub-buffers
    arm_subbuffer_t** subbuffer_array;  ///< their headers
} arm_buffer4_t;

/// A name and its value.
typedef struct arm_property {
    const arm_char_t* name;   ///< at most 127 characters
    const arm_char_t* value;  ///< at most 255 characters
} arm_property_t;

/// A counter and what it is divided by.
typedef struct arm_metric_cntrdivr32 {
    arm_metric_counter32_t counter;  ///< what is divided
    arm_metric_divisor32_t divisor;  ///< by what
} arm_metric_cntrdivr32_t;

/// A gauge and what it is divided by.
typedef struct arm_metric_gaugedivr32 {
    arm_metric_gauge32_t gauge;      ///< what is divided
    arm_metric_divisor32_t divisor;  ///< by what
} arm_metric_gaugedivr32_t;

/// A measured value.
typedef struct arm_metric {
    arm_metric_slot_t slot;      ///< 0 to 6
    arm_metric_format_t format;  ///< ARM_METRIC_FORMAT_...
    arm_metric_usage_t usage;    ///< ARM_METRIC_USE_..., or negative
    arm_boolean_t valid;         ///< ARM_FALSE: to be disregarded on this call
    /// The value, as `format` says.
    union {
        arm_metric_counter32_t counter32;
        arm_metric_counter64_t counter64;
        arm_metric_cntrdivr32_t counterdivisor32;
        arm_metric_gauge32_t gauge32;
        arm_metric_gauge64_t gauge64;
        arm_metric_gaugedivr32_t gaugedivisor32;
        arm_metric_numericID32_t numericid32;
        arm_metric_numericID64_t numericid64;
        arm_metric_string32_t string32;
    } metric_u;
} arm_metric_t;

/// Which registered metric a slot is for.
typedef struct arm_metric_binding {
    arm_metric_slot_t slot;  ///< 0 to 6
    arm_id_t id;             ///< as the registration of the metric gave it
} arm_metric_binding_t;

/// ARM_SUBBUFFER_USER: on whose behalf a transaction runs.
typedef struct arm_subbuffer_user {
    arm_subbuffer_t header;  ///< its format, ARM_SUBBUFFER_USER
    const arm_char_t* name;  ///< at most 127 characters; null for none
    arm_boolean_t id_valid;  ///< whether there is an `id`
    arm_id_t id;             ///< stands for the name
} arm_subbuffer_user_t;

/// ARM_SUBBUFFER_ARRIVAL_TIME: when a transaction really began.
typedef struct arm_subbuffer_arrival_time {
    arm_subbuffer_t header;          ///< its format, ARM_SUBBUFFER_ARRIVAL_TIME
    arm_arrival_time_t opaque_time;  ///< a time stamp of the run-time
} arm_subbuffer_arrival_time_t;

/// ARM_SUBBUFFER_METRIC_VALUES: up to ARM_METRIC_MAX_COUNT values.
typedef struct arm_subbuffer_metric_values {
    arm_subbuffer_t header;                  ///< its format, ARM_SUBBUFFER_METRIC_VALUES
    arm_int32_t count;                       ///< of the values
    const arm_metric_t* metric_value_array;  ///< null when there are none
} arm_subbuffer_metric_values_t;

/// ARM_SUBBUFFER_SYSTEM_ADDRESS: where reported transactions ran.
typedef struct arm_subbuffer_system_address {
    arm_subbuffer_t header;      ///< its format, ARM_SUBBUFFER_SYSTEM_ADDRESS
    arm_int16_t address_format;  ///< ARM_SYSADDR_FORMAT_..., or negative
    arm_int16_t address_length;  ///< bytes; 0 means the local system
    const arm_uint8_t* address;  ///< its bytes; null means the local system
    arm_boolean_t id_valid;      ///< whether there is an `id`
    arm_id_t id;                 ///< stands for the address
} arm_subbuffer_system_address_t;

/// ARM_SUBBUFFER_DIAG_DETAIL: why a transaction did not end well.
typedef struct arm_subbuffer_diag_detail {
    arm_subbuffer_t header;         ///< its format, ARM_SUBBUFFER_DIAG_DETAIL
    const arm_char_t* diag_detail;  ///< at most 4095 characters
} arm_subbuffer_diag_detail_t;

/// ARM_SUBBUFFER_APP_IDENTITY: what tells an application from others of its name.
typedef struct arm_subbuffer_app_identity {
    arm_subbuffer_t header;                         ///< its format, ARM_SUBBUFFER_APP_IDENTITY
    arm_int32_t identity_property_count;            ///< at most 20
    const arm_property_t* identity_property_array;  ///< null when there are none
    arm_int32_t context_name_count;                 ///< at most 20
    const arm_char_t** context_name_array;          ///< null when there are none
} arm_subbuffer_app_identity_t;

/// ARM_SUBBUFFER_APP_CONTEXT: values for the context names, one by one.
typedef struct arm_subbuffer_app_context {
    arm_subbuffer_t header;                  ///< its format, ARM_SUBBUFFER_APP_CONTEXT
    arm_int32_t context_value_count;         ///< as many as there are names
    const arm_char_t** context_value_array;  ///< null elements for names without one
} arm_subbuffer_app_context_t;

/// ARM_SUBBUFFER_TRAN_IDENTITY: what tells a transaction from others of its name.
typedef struct arm_subbuffer_tran_identity {
    arm_subbuffer_t header;                         ///< its format, ARM_SUBBUFFER_TRAN_IDENTITY
    arm_int32_t identity_property_count;            ///< at most 20
    const arm_property_t* identity_property_array;  ///< null when there are none
    arm_int32_t context_name_count;                 ///< at most 20
    const arm_char_t** context_name_array;          ///< null when there are none
    const arm_char_t* uri;                          ///< at most 4095 characters; null for none
} arm_subbuffer_tran_identity_t;

/// ARM_SUBBUFFER_TRAN_CONTEXT: values for the context names, one by one.
typedef struct arm_subbuffer_tran_context {
    arm_subbuffer_t header;                  ///< its format, ARM_SUBBUFFER_TRAN_CONTEXT
    arm_int32_t context_value_count;         ///< as many as there are names
    const arm_char_t** context_value_array;  ///< null elements for names without one
    const arm_char_t* uri;                   ///< as in the identity, or longer; null for none
} arm_subbuffer_tran_context_t;

/// ARM_SUBBUFFER_METRIC_BINDINGS: up to ARM_METRIC_MAX_COUNT bindings.
typedef struct arm_subbuffer_metric_bindings {
    arm_subbuffer_t header;  ///< its format, ARM_SUBBUFFER_METRIC_BINDINGS
    arm_int32_t count;       ///< of the bindings
    const arm_metric_binding_t* metric_binding_array;  ///< null when there are none
} arm_subbuffer_metric_bindings_t;

/// ARM_SUBBUFFER_CHARSET: the character set of all texts of an application.
typedef struct arm_subbuffer_charset {
    arm_subbuffer_t header;  ///< its format, ARM_SUBBUFFER_CHARSET
    arm_charset_t charset;   ///< ARM_CHARSET_...
    arm_int32_t flags;       ///< 0
} arm_subbuffer_charset_t;

/// What a buffer's array holds for the record `x`.
#define ARM_SB(x) (&(x).header)

/// As the time at which a transaction ended: now.
#define ARM_USE_CURRENT_TIME ((arm_stop_time_t)-1)

/// For parameters that may be left out.
#define ARM_CORR_NONE ((arm_correlator_t*)0)
#define ARM_BUF4_NONE ((arm_buffer4_t*)0)
#define ARM_ID_NONE ((arm_id_t*)0)
#define ARM_STRING_NONE ((arm_char_t*)0)

// ---- Functions ----
// The types that dlsym()'s results are converted to, and declarations of those types, for decltype
// and for who implements a run-time.

/// Declares an application.
typedef arm_error_t arm_register_application_function_t(const arm_char_t* app_name,
                                                        const arm_id_t* input_app_id,
                                                        arm_int32_t flags,
                                                        const arm_buffer4_t* buffer4,
                                                        arm_id_t* output_app_id);

/// An instance of an application begins.
typedef arm_error_t
arm_start_application_function_t(const arm_id_t* app_id, const arm_char_t* app_group,
                                 const arm_char_t* app_instance, arm_int32_t flags,
                                 const arm_buffer4_t* buffer4, arm_app_start_handle_t* app_handle);

/// Measurement of a transaction begins.
typedef arm_error_t
arm_start_transaction_function_t(arm_app_start_handle_t app_handle, const arm_id_t* tran_id,
                                 const arm_correlator_t* parent_correlator, arm_int32_t flags,
                                 const arm_buffer4_t* buffer4, arm_tran_start_handle_t* tran_handle,
                                 arm_correlator_t* current_correlator);

/// Measurement of a transaction ends.
typedef arm_error_t arm_stop_transaction_function_t(arm_tran_start_handle_t tran_handle,
                                                    arm_tran_status_t tran_status,
                                                    arm_int32_t flags,
                                                    const arm_buffer4_t* buffer4);

/// Declares a type of transactions.
typedef arm_error_t
arm_register_transaction_function_t(const arm_id_t* app_id, const arm_char_t* tran_name,
                                    const arm_id_t* input_tran_id, arm_int32_t flags,
                                    const arm_buffer4_t* buffer4, arm_id_t* output_tran_id);

/// The text of a result code, of at most ARM_MSG_BUFFER_LENGTH bytes.
typedef arm_error_t arm_get_error_message_function_t(arm_charset_t charset, arm_error_t code,
                                                     arm_message_buffer_t msg);

/// The run-time's time stamp of now.
typedef arm_error_t arm_get_arrival_time_function_t(arm_arrival_time_t* opaque_time);

/// As its type says.
arm_register_application_function_t arm_register_application;
arm_start_application_function_t arm_start_application;
arm_start_transaction_function_t arm_start_transaction;
arm_stop_transaction_function_t arm_stop_transaction;
arm_register_transaction_function_t arm_register_transaction;
arm_get_error_message_function_t arm_get_error_message;
arm_get_arrival_time_function_t arm_get_arrival_time;

#ifdef __cplusplus
}
#endif

#endif
