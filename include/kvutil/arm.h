#ifndef KVUTIL_ARM_H
#define KVUTIL_ARM_H

#include <kvutil/arm4.h>
#include <kvutil/export.h>
#include <kvutil/ustring.h>

#include <map>
#include <pthread.h>
#include <vector>

namespace Kvl {

class ArmBuffer;
struct ArmBufferImpl;  // private to the library

/// Gathers what tells an application from others of its name: identity properties, which are fixed,
/// and the names of context properties, which get their values later.
///
/// Deliberate: 19 properties of both kinds together fill it, fewer than the standard's 20 of each.
///
/// An operation that throws leaves the object as it was. A moved-from object is empty.
/// @par Thread-safety
/// Distinct objects may be used at once; one may be read by many threads.
/// @see ARM 4.0 C Binding, sub-buffer formats 102 and 104
class KVUTIL_EXPORT ArmAppIdentyBuffer {
public:
    /// Context names, each with its index: the place of its text among all texts that were added,
    /// of which a context name is one and an identity property two, its name and its value.
    typedef std::map<UString, int> ctx_index_map_t;

    /// Without properties. Never throws.
    ArmAppIdentyBuffer() noexcept;

    /// A copy is on its own.
    ArmAppIdentyBuffer(const ArmAppIdentyBuffer& o);
    ArmAppIdentyBuffer(ArmAppIdentyBuffer&& o) noexcept;
    ~ArmAppIdentyBuffer();
    ArmAppIdentyBuffer& operator=(const ArmAppIdentyBuffer& o);
    ArmAppIdentyBuffer& operator=(ArmAppIdentyBuffer&& o) noexcept;

    /// Adds an identity property. Nothing looks for another one of its name.
    /// @param name   zero-terminated; null is the empty text
    /// @param value  zero-terminated; null is the empty text
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: the buffer is full
    /// @throws std::bad_alloc  no memory for the texts
    void add_identity_prop(const unsigned short* name, const unsigned short* value);
    /// @copydoc add_identity_prop(const unsigned short*, const unsigned short*)
    void add_identity_prop(const char16_t* name, const char16_t* value);

    /// Adds the name of a context property. A name that is added again is listed again, but a value
    /// for it belongs to where it was added first.
    /// @param name  any text
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: the buffer is full
    /// @throws std::bad_alloc  no memory for the name
    void add_context_prop(const UString& name);

    /// The context names, each once. Never throws.
    /// @return  a reference that lives as long as this object and follows its changes
    const ctx_index_map_t& ctx_indicies() const noexcept { return ctx_indicies_; }

    /// The check that each addition makes first.
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 19 properties,
    ///                         context names counted
    /// @throws std::bad_alloc  no memory for the failure
    void check_max_num_properties() const;

private:
    friend class ArmAppContextBuffer;
    friend class ArmTransIdentyBuffer;
    friend struct ArmBufferImpl;

    void append_identity_prop(UString&& name, UString&& value);

    std::vector<UString> strings_;
    std::vector<int> property_names_;
    std::vector<int> property_values_;
    std::vector<int> context_names_;
    ctx_index_map_t ctx_indicies_;
    UString uri_;
};

/// The same for a transaction, which may have a URI too.
/// @par Thread-safety
/// As ArmAppIdentyBuffer.
/// @see ARM 4.0 C Binding, sub-buffer format 104
class KVUTIL_EXPORT ArmTransIdentyBuffer : public ArmAppIdentyBuffer {
public:
    /// Without properties and URI. Never throws.
    ArmTransIdentyBuffer() noexcept;

    /// @param uri  replaces the one before; empty means that there is none
    /// @throws std::bad_alloc  no memory for the copy; the old one stays
    void set_uri(const UString& uri);
};

/// Gathers values for the context names of an identity buffer. It has a copy of the names, so it
/// is made before the identity buffer is consumed, and may outlive it.
///
/// An operation that throws leaves the object as it was. A moved-from object has no names.
/// @par Thread-safety
/// Distinct objects may be used at once; one may be read by many threads.
/// @see ARM 4.0 C Binding, sub-buffer formats 103 and 105
class KVUTIL_EXPORT ArmAppContextBuffer {
public:
    /// Values go to where `names` has their names, in the order of the indexes.
    ///
    /// Deliberate: a name that the identity buffer lists twice is one name here. Where that may be,
    /// the constructor that takes the buffer itself leaves room for both.
    /// @param names  of an identity buffer; copied
    /// @throws std::bad_alloc  no memory for the copy
    explicit ArmAppContextBuffer(const ArmAppIdentyBuffer::ctx_index_map_t& names);

    /// Values go to where `identity` lists their names.
    /// @param identity  its names are copied
    /// @throws std::bad_alloc  no memory for the copy
    explicit ArmAppContextBuffer(const ArmAppIdentyBuffer& identity);

    /// A copy is on its own.
    ArmAppContextBuffer(const ArmAppContextBuffer& o);
    ArmAppContextBuffer(ArmAppContextBuffer&& o) noexcept;
    ~ArmAppContextBuffer();
    ArmAppContextBuffer& operator=(const ArmAppContextBuffer& o);
    ArmAppContextBuffer& operator=(ArmAppContextBuffer&& o) noexcept;

    /// Sets the value of a context property. The last one set counts.
    /// @param name   one of the names, unit by unit
    /// @param value  any text
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there is no such name
    /// @throws std::bad_alloc  no memory for the value
    void add_ctx_prop(const UString& name, const UString& value);

private:
    friend struct ArmBufferImpl;

    ArmAppIdentyBuffer::ctx_index_map_t names_;
    std::vector<int> listed_;  // the index of each name in the record, in its order
    std::map<int, UString> values_;
};

/// The same for a transaction.
/// @par Thread-safety
/// As ArmAppContextBuffer.
/// @see ARM 4.0 C Binding, sub-buffer format 105
class KVUTIL_EXPORT ArmTransContextBuffer : public ArmAppContextBuffer {
public:
    using ArmAppContextBuffer::ArmAppContextBuffer;
};

/// Gathers values of metrics: numbers for the slots 0 to 5, a text for slot 6. How many there are,
/// and whether a slot is used twice, is not looked at.
///
/// An operation that throws leaves the object as it was. A moved-from object is empty.
/// @par Thread-safety
/// Distinct objects may be used at once; one may be read by many threads.
/// @see ARM 4.0 C Binding, sub-buffer format 5
class KVUTIL_EXPORT ArmMetricValuesBuffer {
public:
    /// One value.
    struct value_t {
        unsigned char slot;    ///< 0 to 6
        unsigned char format;  ///< ARM_METRIC_FORMAT_...
        short usage;           ///< ARM_METRIC_USE_..., or negative
        bool valid;            ///< false: to be disregarded
        /// The value, as `format` says; nothing for a text.
        union {
            int i32;
            long long i64;
            arm_metric_cntrdivr32 cntrdivr32;
            arm_metric_gaugedivr32 gaugedivr32;
        } value;
    };

    /// Without values. Never throws.
    ArmMetricValuesBuffer() noexcept;

    /// A copy is on its own.
    ArmMetricValuesBuffer(const ArmMetricValuesBuffer& o);
    ArmMetricValuesBuffer(ArmMetricValuesBuffer&& o) noexcept;
    ~ArmMetricValuesBuffer();
    ArmMetricValuesBuffer& operator=(const ArmMetricValuesBuffer& o);
    ArmMetricValuesBuffer& operator=(ArmMetricValuesBuffer&& o) noexcept;

    /// The string metric, in slot 6 and format 10. There is one: a second takes the place of the
    /// first.
    /// @param usage  ARM_METRIC_USE_..., or negative
    /// @param valid  false: to be disregarded
    /// @param text   the value; the standard allows 31 characters, which is not checked
    /// @throws std::bad_alloc  no memory for the text
    void add_value(short usage, bool valid, const UString& text);

    /// A gauge with its divisor, in format 6.
    /// @param slot   0 to 5
    /// @param usage  ARM_METRIC_USE_..., or negative
    /// @param valid  false: to be disregarded
    /// @param v      the value
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: `slot` is above 5
    /// @throws std::bad_alloc  no memory for the value
    void add_value(unsigned char slot, short usage, bool valid, arm_metric_gaugedivr32 v);
    /// The same for a counter with its divisor, in format 3.
    /// @param slot   0 to 5
    /// @param usage  ARM_METRIC_USE_..., or negative
    /// @param valid  false: to be disregarded
    /// @param v      the value
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: `slot` is above 5
    /// @throws std::bad_alloc  no memory for the value
    void add_value(unsigned char slot, short usage, bool valid, arm_metric_cntrdivr32 v);

    /// A number, of the format that is given. A 32-bit format takes the low 32 bits.
    /// @param slot    0 to 5
    /// @param format  ARM_METRIC_FORMAT_...; not checked. With the format of a text the text of
    ///                this buffer stands in place of the number
    /// @param usage   ARM_METRIC_USE_..., or negative
    /// @param valid   false: to be disregarded
    /// @param v       the value
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: `slot` is above 5
    /// @throws std::bad_alloc  no memory for the value
    void add_value(unsigned char slot, unsigned char format, short usage, bool valid, long long v);
    /// @copydoc add_value(unsigned char, unsigned char, short, bool, long long)
    void add_value(unsigned char slot, unsigned char format, short usage, bool valid, long v);
    /// @copydoc add_value(unsigned char, unsigned char, short, bool, long long)
    void add_value(unsigned char slot, unsigned char format, short usage, bool valid, int v);

    /// The check that the addition of a number makes first.
    /// @param slot  0 to 5
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: `slot` is above 5
    /// @throws std::bad_alloc  no memory for the failure
    void check_non_string_slot(unsigned char slot) const;

private:
    friend struct ArmBufferImpl;

    std::vector<value_t> values_;
    UString string_value_;
};

/// Gathers which registered metrics the slots of a transaction are for. How many there are, and
/// whether a slot is used twice, is not looked at.
///
/// An operation that throws leaves the object as it was.
/// @par Thread-safety
/// Distinct objects may be used at once; one may be read by many threads.
/// @see ARM 4.0 C Binding, sub-buffer format 106
class KVUTIL_EXPORT ArmMetricBindingsBuffer {
public:
    /// @param slot       0 to 6; not checked
    /// @param metric_id  as the registration of the metric gave it
    /// @throws std::bad_alloc  no memory for the binding
    void add_binding(unsigned char slot, arm_id metric_id);

private:
    friend struct ArmBufferImpl;

    std::vector<arm_metric_binding> bindings_;
};

/// The buffer that ARM calls take: up to four sub-buffers, each a record of the standard, with
/// texts in UTF-8.
///
/// A text ends at its first U+0000, and one with an unpaired surrogate becomes empty, see
/// UString::utf8_str(). Texts are kept in a pool, each distinct one once: in that of the process,
/// or in that of the buffer, which looks in the former first.
///
/// An addition that throws leaves this buffer's records and the collector as they were; texts that
/// were pooled by then stay so.
/// @par Thread-safety
/// Distinct objects may be used at once, also when they share the process's pool. One may be read
/// by many threads.
/// @see ARM 4.0 C Binding, arm_buffer4_t
class KVUTIL_EXPORT ArmBuffer {
public:
    /// Texts, each with its C string, which new[] has made.
    typedef std::map<UString, const char*> str_pool_t;

    /// Without sub-buffers. Never throws.
    /// @param use_global_pool  true: texts go to g_str_pool and stay as long as the process lives;
    ///                         false: they go with the buffer, or with clear()
    explicit ArmBuffer(bool use_global_pool = false) noexcept;
    /// As clear().
    ~ArmBuffer();
    ArmBuffer(const ArmBuffer&) = delete;
    ArmBuffer& operator=(const ArmBuffer&) = delete;

    /// Frees the sub-buffers and the texts of the buffer's own pool. Copies of `*buffer4()` that
    /// were made before must not be used any more. Never throws.
    void clear() noexcept;

    /// Adds what `b` has gathered, as sub-buffer 102, and empties `b`.
    /// @param b  may have no properties
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or its texts
    void add_buffer(ArmAppIdentyBuffer& b);
    /// Adds what `b` has gathered, as sub-buffer 104, and empties `b`, of its URI too.
    /// @param b  may have no properties; without a URI the record's is null
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or its texts
    void add_buffer(ArmTransIdentyBuffer& b);

    /// Adds a value for each context name, null for one without, as sub-buffer 103. `b` loses the
    /// values and keeps the names.
    /// @param b  may have no names
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or its texts
    void add_buffer(ArmAppContextBuffer& b);
    /// The same as sub-buffer 105, whose URI is null.
    /// @param b  may have no names
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or its texts
    void add_buffer(ArmTransContextBuffer& b);

    /// Adds the values, as sub-buffer 5, and empties `b`.
    /// @param b  may have no values
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or its texts
    void add_buffer(ArmMetricValuesBuffer& b);

    /// Adds the bindings, as sub-buffer 106, and empties `b`.
    /// @param b  may have no bindings
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record
    void add_buffer(ArmMetricBindingsBuffer& b);

    /// Adds an arrival time, as sub-buffer 4.
    /// @param arrival_time  as ArmApplication::get_arrival_time() gave it
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record
    void add_buffer(const long long& arrival_time);

    /// Declares UTF-8 as the character set, as sub-buffer 107. A refusal names
    /// "add_charset_buffer".
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record
    void add_buffer();

    /// Adds why a transaction did not end well, as sub-buffer 7.
    /// @param detail  the standard allows 4095 characters, which is not checked
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or the text
    void add_buffer(const UString& detail);

    /// Adds on whose behalf a transaction runs, as sub-buffer 3.
    /// @param user      the name
    /// @param id_valid  whether the run-time is to use `id`
    /// @param id        copied in either case
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record or the text
    void add_buffer(const UString& user, bool id_valid, arm_id& id);

    /// Adds where reported transactions ran, as sub-buffer 6.
    /// @param address_format  ARM_SYSADDR_FORMAT_..., or negative; not checked
    /// @param address_length  bytes of `address`; 0 or less means the local system, and the record
    ///                        then says 0
    /// @param address         copied; null means the local system too
    /// @param id_valid        whether the run-time is to use `id`
    /// @param id              copied in either case
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the record
    void add_buffer(short address_format, short address_length, const unsigned char* address,
                    bool id_valid, arm_id& id);

    /// The C string of a text. It is made by the first call and kept in `map`, unless `map` is
    /// another than g_str_pool and the latter has the text already.
    /// @param text  any; a bogus one counts as the empty one
    /// @param map   g_str_pool, which any number of threads may name at once, or a map of the
    ///              caller's, who then frees with delete[] what it was given
    /// @return      in UTF-8; as long as its pool keeps it, which g_str_pool does for good
    /// @throws std::bad_alloc  no memory for the string; the pool is unchanged
    static const char* pool_string(const UString& text, str_pool_t& map);
    /// The C string of a text in the pool that a buffer was made with.
    /// @param buffer  null means g_str_pool
    /// @param text    any; a bogus one counts as the empty one
    /// @return        in UTF-8; as long as its pool keeps it
    /// @throws std::bad_alloc  no memory for the string; the pool is unchanged
    static const char* pool_string(ArmBuffer* buffer, const UString& text);

    /// The check that each addition makes first.
    /// @param function_name  whom a refusal names
    /// @throws STPException    PLXSV0670E, reason 40, logged as an error: there are 4 sub-buffers
    /// @throws std::bad_alloc  no memory for the failure
    void check_buff_length(const UString& function_name) const;

    /// @return  the number of sub-buffers, 0 to 4. Never throws.
    int count() const noexcept { return buffer4_.count; }

    /// What ARM calls take. Copies of it refer to the same sub-buffers. Never throws.
    /// @return  never null; lives as long as this object and follows its changes
    const arm_buffer4* buffer4() const noexcept { return &buffer4_; }

    /// The texts that live as long as the process. Usable until the process ends. For reading,
    /// while no other thread pools a text.
    static str_pool_t g_str_pool;

private:
    friend struct ArmBufferImpl;

    static constexpr int MAX_SUBBUFFERS = 4;

    bool use_global_pool_;
    arm_buffer4 buffer4_;
    arm_subbuffer* subbuffers_[MAX_SUBBUFFERS];
    str_pool_t str_pool_;
};

// Deliberate: the destructor is not virtual. Registrars are static objects, not deleted by a base.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// An operation to be measured. One object for each, constructed before the application registers,
/// usually a static one. ArmApplication::register_application() then makes the operation known to
/// ARM and keeps the identifier here, with which ArmPerThreadOperationStack starts it.
///
/// Deliberate: the destructor is not virtual, so derive with `final`. g++'s -Wnon-virtual-dtor,
/// which -Wall leaves out, complains of the derived class nonetheless.
/// @par Thread-safety
/// Registrars may be constructed and destroyed by several threads at once, but not while the
/// application registers. tran_id() may be read by many threads after that.
class KVUTIL_EXPORT OperationRegistrar {
public:
    /// Enters the operation in ArmApplication::g_registrars.
    /// @param name  the transaction's name, copied; the standard allows 127 characters, which is
    ///              not checked
    /// @throws std::bad_alloc  no memory for the copy or the entry; nothing is entered
    explicit OperationRegistrar(const UString& name);

    /// Takes the operation out of ArmApplication::g_registrars. To ARM it stays known.
    ~OperationRegistrar();

    OperationRegistrar(const OperationRegistrar&) = delete;
    OperationRegistrar& operator=(const OperationRegistrar&) = delete;

    /// Called while the application registers, to add what ARM is to know of the operation beside
    /// its name: an ArmTransIdentyBuffer, an ArmMetricBindingsBuffer. This one adds nothing.
    ///
    /// Whatever an override throws ends the registration: see
    /// ArmApplication::register_application().
    /// @param buffer  empty; its texts go to ArmBuffer::g_str_pool
    virtual void user_data(ArmBuffer& buffer) const;

    /// @return  the name as given; lives as long as this object. Never throws.
    const UString& name() const noexcept { return name_; }

    /// @return  what ARM knows the operation by; all zero before it is registered. The reference
    ///          lives as long as this object. Never throws.
    const arm_id& tran_id() const noexcept { return tran_id_; }

private:
    friend class ArmApplication;

    UString name_;
    arm_id tran_id_;
};

#pragma GCC diagnostic pop

/// Whether operations are measured. Other values than these two may be given to
/// ArmApplication::register_application() and mean what ARM_LEVEL_ON means.
enum arm_level_t : int {
    ARM_LEVEL_OFF = 0,  ///< every operation is a load and a branch
    ARM_LEVEL_ON = 1    ///< operations are measured
};

/// The ARM run-time, a library that is loaded by its name when the application registers.
/// @par Thread-safety
/// For one thread, before measured work begins. After that the members are only read.
/// @see dlopen(3); ARM 4.0 C Binding
class KVUTIL_EXPORT ArmRuntimeLoader {
public:
    /// Loads "libarm4.so" and finds its seven functions. Once it has succeeded it does nothing
    /// more: the run-time stays loaded. What goes wrong is written to the library's logger, in the
    /// words of the system's loader; the next call then tries again from the start.
    ///
    /// A run-time that lacks one of the functions is closed again. The pointers to those found
    /// before keep their values; nothing calls them. Never throws.
    /// @return  0, or ArmApplication::UNAVAILABLE
    static int load_runtime() noexcept;

    static void* g_arm4_handle;  ///< of the loaded run-time; null while there is none

    // The run-time's functions, in the order in which they are looked up.
    static decltype(&::arm_register_application) g_fnc_arm_register_application;  ///< 1st
    static decltype(&::arm_start_application) g_fnc_arm_start_application;        ///< 2nd
    static decltype(&::arm_start_transaction) g_fnc_arm_start_transaction;        ///< 3rd
    static decltype(&::arm_stop_transaction) g_fnc_arm_stop_transaction;          ///< 4th
    static decltype(&::arm_register_transaction) g_fnc_arm_register_transaction;  ///< 5th
    static decltype(&::arm_get_error_message) g_fnc_arm_get_error_message;        ///< 6th
    static decltype(&::arm_get_arrival_time) g_fnc_arm_get_arrival_time;          ///< 7th
};

/// The process as an application that ARM knows.
///
/// Measurement is off until register_application() succeeds, and stays off when there is no
/// run-time, or when an operation cannot be registered. While it is off nothing is allocated, no
/// lock is taken and nothing outside the library is called.
///
/// Results are codes of ARM: negative means failure, 0 and positive ones mean success. Nothing is
/// thrown.
/// @par Thread-safety
/// register_application() and start_application() are for one thread, once, before measured work
/// begins. After that the members are only read, and the other operations may be called by any
/// number of threads.
/// @see ARM 4.0 C Binding
class KVUTIL_EXPORT ArmApplication {
public:
    typedef Kvl::arm_level_t arm_level_t;                ///< the level by its other name
    typedef Kvl::OperationRegistrar OperationRegistrar;  ///< the class by its other name
    typedef Kvl::ArmRuntimeLoader ArmRuntimeLoader;      ///< the class by its other name

    /// The code for "measurement is off or not to be had", which is none of ARM's own.
    static constexpr int UNAVAILABLE = -21000;

    /// What all threads share to find their stacks.
    struct global_data_t {
        pthread_key_t
            key;  ///< a thread's ArmPerThreadOperationStack; valid while measurement is on

        /// The key's destructor: frees the stack of a thread that ends. Operations that were not
        /// stopped stay so. Never throws.
        /// @param stack  what the thread had under the key
        static void delete_stack(void* stack) noexcept;
    };

    /// Loads the run-time, registers the application, turns measurement on, and registers the
    /// operation of every OperationRegistrar, in the order of their construction.
    ///
    /// The first operation that ARM refuses ends that, without a word in the log, and so does
    /// whatever a registrar's user_data() throws, or memory that runs out, which is logged. Either
    /// turns measurement off.
    ///
    /// Each call that finds a run-time makes a new key for the threads' stacks. A stack made
    /// before is not found any more; it is freed with its thread. So a second call while
    /// other threads start or stop operations is a data race.
    /// @param level   ARM_LEVEL_OFF: nothing is done, and the result is 0
    /// @param name    of the application; the standard allows 127 characters, which is not checked
    /// @param buffer  an application identity, a character set; null and an empty one mean none
    /// @return        the code of the last registration; UNAVAILABLE without a run-time, without a
    ///                key, and after what is logged. Never throws.
    static int register_application(arm_level_t level, const UString& name,
                                    const ArmBuffer* buffer) noexcept;

    /// Tells ARM that an instance of the application begins.
    /// @param buffer    an application context, a system address; null and an empty one mean none
    /// @param group     of instances; may be empty
    /// @param instance  the name of this one; may be empty
    /// @return          ARM's code; UNAVAILABLE while measurement is off, and when memory runs out,
    ///                  which is logged. Never throws.
    static int start_application(const ArmBuffer* buffer, const UString& group,
                                 const UString& instance) noexcept;

    /// Makes one more kind of transaction known to ARM, one that has no OperationRegistrar.
    /// @param name    its name, in UTF-8 unless the application has declared another character set;
    ///                null is the empty text
    /// @param flags   0
    /// @param buffer  a transaction identity, metric bindings; null and an empty one mean none
    /// @param out     gets what ARM knows it by; may be null
    /// @return        ARM's code; UNAVAILABLE while measurement is off, and when there is no fresh
    ///                identifier, which is logged. Never throws.
    static int register_transaction(const char* name, int flags, const arm_buffer4* buffer,
                                    arm_id* out) noexcept;

    /// ARM's words for one of its codes.
    /// @param charset  106 for UTF-8, see ARM_CHARSET_...
    /// @param code     as ARM returned it
    /// @param text     gets the words, zero-terminated; ARM_MSG_BUFFER_LENGTH bytes, 766; may be
    ///                 null
    /// @return         ARM's code; UNAVAILABLE while measurement is off. Throws nothing itself; a
    ///                 cancellation of the thread within the run-time passes.
    static int get_error_message(int charset, int code, char* text)
    {
        arm_message_buffer_t unwanted;
        return is_on() ? ArmRuntimeLoader::g_fnc_arm_get_error_message(
                             charset, code, text != nullptr ? text : unwanted)
                       : UNAVAILABLE;
    }

    /// The time as ARM counts it, for ArmBuffer::add_buffer(const long long&).
    /// @param time  gets it; may be null
    /// @return      ARM's code; UNAVAILABLE while measurement is off. Throws nothing itself; a
    ///              cancellation of the thread within the run-time passes.
    static int get_arrival_time(long long* time)
    {
        long long unwanted = 0;
        return is_on() ? ArmRuntimeLoader::g_fnc_arm_get_arrival_time(time != nullptr ? time
                                                                                      : &unwanted)
                       : UNAVAILABLE;
    }

    /// @return  whether operations are measured, for callers who would gather data for nothing.
    ///          Never throws.
    static bool is_on() noexcept
    {
        // Expected to be off, so that code goes straight on there: to measure costs a call anyway.
        return __builtin_expect(__atomic_load_n(&g_level, __ATOMIC_ACQUIRE) != ARM_LEVEL_OFF, 0);
    }

    static arm_level_t g_level;                  ///< ARM_LEVEL_OFF at first
    static arm_id g_app_id;                      ///< what ARM knows the application by
    static arm_app_start_handle_t g_app_handle;  ///< what ARM knows the running instance by
    /// Every registrar, in the order of construction. Null until there is one, never freed.
    static std::vector<OperationRegistrar*>* g_registrars;
    static global_data_t g_global_data;  ///< where threads find their stacks

private:
    static void set_level(arm_level_t level) noexcept;
    static bool create_key() noexcept;
    static int register_name(const UString& name, const ArmBuffer* buffer);
    static int register_operations(int code);
    static int register_operation(OperationRegistrar& registrar, ArmBuffer& buffer);
    static int register_fresh_transaction(const char* name, int flags, const arm_buffer4* buffer,
                                          arm_id* out);
};

/// The measured operations that the calling thread has started and not yet stopped, one within the
/// other. Each is started as the child of the one below it, the outermost as the child of whatever
/// correlator the thread has put into its base correlator.
///
/// Starting and stopping cost the same at any depth; what a depth needs is allocated when it is
/// first reached and kept until the thread ends. Operations that are open when it ends are not
/// stopped.
/// @par Thread-safety
/// Every operation acts on the calling thread's stack and takes no lock.
/// @see ARM 4.0 C Binding, arm_start_transaction(), arm_stop_transaction()
class KVUTIL_EXPORT ArmPerThreadOperationStack {
public:
    /// An operation in its place on the stack.
    struct stack_entry_t {
        arm_tran_start_handle_t handle;  ///< what ARM knows the started operation by
        arm_correlator correlator;       ///< the parent of what is started within it
        stack_entry_t* next;             ///< the place above, null until it is needed
    };

    /// Where a thread puts the correlator that it received from its own caller, before it starts
    /// the operation that is the caller's child. All zero at first, which means "no caller"; the
    /// library writes nothing into it.
    ///
    /// Deliberate: a thread calls this once before it starts anything, because this is what makes
    /// its stack.
    /// @return  512 bytes that live until the thread ends; null while measurement is off, and when
    ///          there is no memory for the stack. Never throws.
    static arm_correlator* get_base_correlator() noexcept
    {
        return ArmApplication::is_on() ? base_of_this_thread() : nullptr;
    }

    /// Starts an operation and puts it on the stack. When ARM refuses, the stack is as before.
    /// @param tran_id  of an OperationRegistrar
    /// @param buffer   a user, an arrival time, metric values, a transaction context; null and an
    ///                 empty one mean none
    /// @param local    true promises that the operation's correlator does not leave the process
    /// @return         ARM's code; UNAVAILABLE while measurement is off, when the thread has no
    ///                 stack, and when there is no memory for a new depth. Throws nothing itself; a
    ///                 cancellation of the thread within the run-time passes, and the stack is then
    ///                 as before.
    static int start_transaction(const arm_id& tran_id, const ArmBuffer* buffer, bool local)
    {
        return ArmApplication::is_on() ? start(tran_id, buffer, local)
                                       : ArmApplication::UNAVAILABLE;
    }

    /// Takes the top operation off the stack and stops it.
    ///
    /// Deliberate: it is off the stack also when ARM reports a failure.
    /// @param status  ARM_STATUS_...
    /// @param buffer  metric values, a diagnostic detail; null and an empty one mean none
    /// @return        ARM's code; UNAVAILABLE while measurement is off, and when the thread has no
    ///                stack or the stack is empty. Throws nothing itself; a cancellation of the
    ///                thread within the run-time passes, and the operation is then off the stack.
    static int stop_transaction(int status, const ArmBuffer* buffer)
    {
        return ArmApplication::is_on() ? stop(status, buffer) : ArmApplication::UNAVAILABLE;
    }

    /// @return  the handle of the operation on top; 0 when there is none, and while measurement is
    ///          off. Never throws.
    static arm_tran_start_handle_t current_local_operation() noexcept
    {
        const stack_entry_t* const top = ArmApplication::is_on() ? top_of_this_thread() : nullptr;
        return top != nullptr ? top->handle : 0;
    }

    /// @return  the correlator of the operation on top, to be sent along with requests that are a
    ///          part of it; valid until it is stopped. Null when there is none, and while
    ///          measurement is off. Never throws.
    static const arm_correlator* current_local_correlator() noexcept
    {
        const stack_entry_t* const top = ArmApplication::is_on() ? top_of_this_thread() : nullptr;
        return top != nullptr ? &top->correlator : nullptr;
    }

    /// @return  whether measurement is on and the thread has an operation on its stack. Never
    ///          throws.
    static bool doing_local_operation() noexcept
    {
        return ArmApplication::is_on() && top_of_this_thread() != nullptr;
    }

    ArmPerThreadOperationStack(const ArmPerThreadOperationStack&) = delete;
    ArmPerThreadOperationStack& operator=(const ArmPerThreadOperationStack&) = delete;

private:
    friend struct ArmApplication::global_data_t;
    struct linked_entry_t;

    ArmPerThreadOperationStack() noexcept;
    ~ArmPerThreadOperationStack();

    static arm_correlator* base_of_this_thread() noexcept;
    static int start(const arm_id& tran_id, const ArmBuffer* buffer, bool local);
    static int stop(int status, const ArmBuffer* buffer);
    static int start_with(const arm_id& tran_id, const arm_buffer4* contents, bool local);
    static int start_with_copy(const arm_id& tran_id, const ArmBuffer& buffer, bool local);
    static int stop_with(int status, const arm_buffer4* contents);
    static int stop_with_copy(int status, const ArmBuffer& buffer);
    static const stack_entry_t* top_of_this_thread() noexcept;
    static ArmPerThreadOperationStack* of_this_thread() noexcept;
    static ArmPerThreadOperationStack* create() noexcept;

    stack_entry_t* entry_above() noexcept;
    const arm_correlator& parent() const noexcept;

    arm_correlator base_correlator_;
    stack_entry_t* first_;
    stack_entry_t* current_;
};

}  // namespace Kvl

#endif
