#ifndef KVUTIL_UMESSAGE_H
#define KVUTIL_UMESSAGE_H

#include <cstddef>
#include <cstdint>
#include <kvutil/export.h>
#include <kvutil/kvutil_msg.h>
#include <kvutil/resource.h>
#include <kvutil/ustring.h>
#include <memory>
#include <string>
#include <vector>

union cxPrintfArgVal;

namespace Kvl {

class MessageArguments;

using ::cxPrintfArgVal;

/// A message that is named now and rendered later: a catalogue, an index into it and up to ten
/// typed arguments, which the message owns as deep copies.
///
/// Rendering obtains the format from the message formatter of the logging library, which may
/// translate it, and fills its conversions with the arguments in order. The finished text is taken
/// as UTF-8. What rendering promises, whatever the format says:
///
/// | conversion                | argument           | prints                                    |
/// |---------------------------|--------------------|-------------------------------------------|
/// | integers: d i o u x X     | character, integer | the number                                |
/// | integers                  | floating value     | it, cut towards zero; beyond 64 bits as s |
/// | floating: e f g a E F G A | floating value     | the number                                |
/// | floating                  | character, integer | the number                                |
/// | c                         | character, integer | the low byte; zero ends the text          |
/// | c                         | floating value     | as s                                      |
/// | s                         | text, resource     | the text                                  |
/// | s                         | character          | the character                             |
/// | s                         | integer            | its decimal text                          |
/// | s                         | floating value     | its shortest decimal text                 |
/// | any but s                 | text, resource     | the text                                  |
/// | integers, floating        | none               | 0                                         |
/// | s                         | none               | "(null)"                                  |
/// | c                         | none               | nothing                                   |
///
/// `%2$s` and `*2$` name arguments by number, and are safe to mix with conversions that take the
/// next one. Width and precision are capped at 65,535. "%n" is never carried out: it stays in the
/// text and takes no argument, as does every "%" that begins none of the conversions d i o u x X c
/// s e E f F g G a A and "%%" (C and S count as c and s). A flag, precision or length that C leaves
/// undefined for a conversion is ignored, and so is the grouping flag, which depends on the host's
/// locale. A format that needs none of this reaches the formatter untouched.
///
/// Deliberate: a byte that is not UTF-8, in the format or in a narrow argument, empties the whole
/// text, because the text is decoded at once. Arguments given as UString never do that.
///
/// Every assignment leaves its target as it was when it throws. A moved-from message is nil.
/// @par Thread-safety
/// Distinct messages may be used at once. One message may be rendered by several threads at once
/// unless one of its resources may not.
class KVUTIL_EXPORT UMessage {
public:
    /// One message argument: a tagged value that owns what it was made from.
    ///
    /// | kind | holds                              | printf record                  |
    /// |------|------------------------------------|--------------------------------|
    /// | 0    | nothing                            | left untouched                 |
    /// | 1    | `char`                             | sign-extended to 64 bits       |
    /// | 2    | 32-bit integer                     | sign-extended to 64 bits       |
    /// | 3    | 32-bit integer made from a `long`  | sign-extended to 64 bits       |
    /// | 4    | 64-bit integer                     | the value                      |
    /// | 5    | `double`                           | widened to `long double`       |
    /// | 6    | narrow text, `char*`               | pointer to the text            |
    /// | 7    | narrow text, `char*`               | pointer to the text            |
    /// | 8    | UTF-8 text, `char*`                | pointer to the text            |
    /// | 9    | `Resource*`                        | pointer to its text in UTF-8   |
    ///
    /// A text of up to 95 bytes stands in the argument, a longer one in an array. It ends at its
    /// first zero byte when it is printed. A moved-from argument is of kind 0.
    /// @par Thread-safety
    /// Distinct arguments may be used at once. get_print_val() of one argument of kind 9 must not
    /// run in two threads at once.
    class KVUTIL_EXPORT Arg {
    public:
        /// The value alone. The constructors make the owned copy; whoever holds the union frees it:
        /// `delete[] cstr`, `delete str`, `delete res`. An Arg keeps every text as `cstr` and every
        /// integer as `i64`.
        union arg_union_t {
            char c;            ///< kind 1
            std::int32_t i32;  ///< kinds 2 and 3
            std::int64_t i64;  ///< kind 4
            double d;          ///< kind 5
            char* cstr;        ///< kinds 6 to 8, an owned array; a short text's place in an Arg
            std::string* str;  ///< of a std::string or a UTF-16 text, owned; in no Arg
            Resource* res;     ///< kind 9, owned; null when the resource copied to nothing

            /// All zero.
            constexpr arg_union_t() noexcept : i64(0) {}
            /// Copies a zero-terminated text.
            /// @param s  the text; null counts as ""
            /// @throws std::bad_alloc  no memory for the copy
            explicit arg_union_t(const char* s);
            /// Copies a text.
            /// @param s  the text
            /// @throws std::bad_alloc  no memory for the copy
            explicit arg_union_t(const std::string& s);
            /// Copies a text as UTF-8, see UString::utf8_str().
            /// @param s  the text
            /// @throws std::bad_alloc  no memory for the copy
            explicit arg_union_t(const UString& s);
            /// Copies a zero-terminated UTF-16 text as UTF-8.
            /// @param s  the text; null counts as ""
            /// @throws std::bad_alloc  no memory for the copy
            explicit arg_union_t(const unsigned short* s);
            explicit arg_union_t(const char16_t* s);
            /// Clones a resource.
            /// @param r  the resource
            /// @throws  whatever Resource::do_clone() throws
            explicit arg_union_t(const Resource& r);
        };

        /// Kind 0: stands for "no argument".
        constexpr Arg() noexcept : kind_(0), value_(), short_text_{} {}

        /// Kind 1.
        /// @param c  the character
        Arg(char c);

        /// Kind 2. `bool`, the character types of C++ but `char` and `char32_t`, `short` and
        /// unscoped enumerations arrive here.
        /// @param i  the number
        Arg(int i);

        /// Kind 3 when the value fits 32 bits, otherwise kind 4.
        /// @param i  the number
        Arg(long i);

        /// Kind 4. Deliberate: above 2^63 - 1 the bit pattern is kept, so "%d" prints a negative
        /// number and "%u" the value, the last 2^31 values excepted: these it takes for 32 bits.
        /// @param i  the number
        Arg(unsigned int i);
        Arg(unsigned long i);
        Arg(long long i);
        Arg(unsigned long long i);

        /// Kind 5; a `long double` is rounded to a `double`, a `float` promotes.
        /// @param d  the number
        Arg(double d);
        Arg(long double d);

        /// Kind 6: a narrow text, which should be UTF-8.
        /// @param s  the zero-terminated text; null counts as ""
        /// @throws std::bad_alloc  no memory for the copy
        Arg(const char* s);

        /// Kind 7: a narrow text, which should be UTF-8. Utf8String arrives here.
        /// @param s  the text
        /// @throws std::bad_alloc  no memory for the copy
        Arg(const std::string& s);

        /// Kind 8: a text, kept as UTF-8.
        /// @param s  the text; the pointers are zero-terminated, null counts as ""
        /// @throws std::bad_alloc  no memory for the copy
        Arg(const UString& s);
        Arg(const unsigned short* s);
        Arg(const char16_t* s);

        /// Kind 9: a resource, cloned now; its text is asked for each time a message is rendered.
        /// @param r  the resource
        /// @throws  whatever Resource::do_clone() throws
        Arg(const Resource& r);

        /// A deep copy.
        /// @param o  the argument to copy
        /// @throws std::bad_alloc  no memory for the copy; also whatever Resource::do_clone()
        /// throws
        Arg(const Arg& o);
        Arg(Arg&& o) noexcept;

        /// Takes a deep copy and releases what this argument owned; when the copy fails, this
        /// argument stays as it was.
        /// @param o  the argument to copy; may be this one
        /// @return   this argument
        /// @throws std::bad_alloc  no memory for the copy; also whatever Resource::do_clone()
        /// throws
        Arg& operator=(const Arg& o);
        Arg& operator=(Arg&& o) noexcept;

        /// The one virtual operation.
        virtual ~Arg();

        /// Which kind of value is held.
        /// @return  0 to 9, see the table
        int kind() const;

        /// Fills one record of the message formatter.
        ///
        /// Pointers in it live as long as this argument does and is not assigned to or moved from.
        /// The text of a resource is asked for by each call; the pointer that an earlier call gave
        /// stays good as long as the text is the same.
        /// @param v  the record; kind 0 leaves it untouched, the others write what the table says
        /// @throws std::bad_alloc  no memory for a resource's text; also whatever Resource::text()
        ///                         throws
        void get_print_val(cxPrintfArgVal& v) const;

        /// The argument of kind 0, for parameters that are not used. Constant-initialised, so the
        /// static constructors of any library may use it; it stays readable during exit.
        static const Arg nil;

    private:
        friend class MessageArguments;  // keeps a resource's text for one rendering

        Arg(int kind, std::int64_t i) noexcept;
        Arg(int kind, const char* text, std::size_t size);
        bool is_text() const noexcept { return kind_ >= 6 && kind_ <= 8; }
        void hold(const char* text, std::size_t size);
        void take(Arg& o) noexcept;
        void fill(cxPrintfArgVal& v) const;

        int kind_;
        arg_union_t value_;  // of every text `cstr`: an owned array, or `short_text_`
        mutable std::unique_ptr<std::string> printed_text_;  // kind 9: handed out last
        char short_text_[96];
    };
    /// Either spelling works.
    typedef Arg::arg_union_t arg_union_t;

    /// A sequence of messages.
    /// @par Thread-safety
    /// As std::vector: distinct sequences may be used at once, and one may be read by many.
    class KVUTIL_EXPORT collection_t {
    public:
        /// As std::vector has them.
        typedef UMessage value_type;
        typedef std::vector<UMessage>::iterator iterator;
        typedef std::vector<UMessage>::const_iterator const_iterator;

        /// Empty at first; copies are deep.
        /// @throws std::bad_alloc  no memory for a copy; a target is unchanged
        collection_t();
        collection_t(const collection_t& o);
        collection_t(collection_t&& o) noexcept;
        collection_t& operator=(const collection_t& o);
        collection_t& operator=(collection_t&& o) noexcept;
        ~collection_t();

        /// The messages in order. Never throw.
        iterator begin();
        iterator end();
        const_iterator begin() const;
        const_iterator end() const;

        /// How many messages there are.
        /// @return  their number, or whether there is none
        unsigned int size() const;
        bool empty() const;

        /// One message.
        /// @param i  position from 0; not checked, so it must be below size()
        /// @return   the message there
        UMessage& operator[](unsigned int i);
        const UMessage& operator[](unsigned int i) const;

        /// Removes all messages. Never throws.
        void clear();

        /// @param n  number of messages to make room for
        /// @throws std::bad_alloc  no memory; the sequence is unchanged
        void reserve(unsigned int n);

        /// @param m  the message to append a copy of; may be one of this sequence
        /// @throws std::bad_alloc  no memory; the sequence is unchanged
        void push_back(const UMessage& m);

        /// Appends copies of all messages of another sequence, in order.
        /// @param o  the other sequence; may be this one, which then doubles
        /// @return   this sequence
        /// @throws std::bad_alloc  no memory; the sequence is unchanged
        collection_t& operator+=(const collection_t& o);

    private:
        std::vector<UMessage> messages_;
    };

    /// The nil message.
    UMessage();

    /// Names a message. Arguments of kind 0 are left out one by one, wherever they stand: those
    /// after them move up.
    /// @param catalogue  array of texts whose entry 0 is the header; kept as a pointer, so it must
    ///                   outlive the message; null for none
    /// @param index      index of the message in the catalogue, from 1; -1 for none
    /// @param a1         the first argument, copied
    /// @param a2         the second argument, copied
    /// @throws std::bad_alloc  no memory for the copies; also whatever Resource::do_clone() throws
    UMessage(const char** catalogue, int index, const Arg& a1 = Arg::nil, const Arg& a2 = Arg::nil);

    /// The same with up to ten arguments.
    UMessage(const char** catalogue, int index, const Arg& a1, const Arg& a2, const Arg& a3,
             const Arg& a4 = Arg::nil, const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
             const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil, const Arg& a9 = Arg::nil,
             const Arg& a10 = Arg::nil);

    /// The same, without the copies, when every argument is a temporary: `UMessage(kvutil, 15,
    /// path, reason)` makes its two arguments once.
    UMessage(const char** catalogue, int index, Arg&& a1);
    UMessage(const char** catalogue, int index, Arg&& a1, Arg&& a2);
    UMessage(const char** catalogue, int index, Arg&& a1, Arg&& a2, Arg&& a3);

    /// Copies the arguments deeply.
    /// @param o  the message to copy
    /// @throws std::bad_alloc  no memory for the copies; also whatever Resource::do_clone() throws
    UMessage(const UMessage& o);
    UMessage(UMessage&& o) noexcept;
    UMessage& operator=(const UMessage& o);
    UMessage& operator=(UMessage&& o) noexcept;
    ~UMessage();

    /// The message without catalogue, index and arguments.
    static const UMessage nil;

    /// Whether this names no message: it is UMessage::nil, or has neither catalogue nor index.
    /// Deliberate: arguments do not count.
    bool is_nil() const;

    /// @return  the catalogue as given; null for none
    const char** catalogue() const;

    /// @return  the index as given; -1 for none
    int index() const;

    /// @return  the arguments that were kept, in order
    const std::vector<Arg>& arguments() const;

    /// Renders the message.
    /// @param extra  passed to the formatter's catalogue look-up as it is; the library itself
    ///               passes null
    /// @return  the text; empty when there is no catalogue or no index; "Could not locate Catalog
    ///          File" when the formatter has no text for the message
    /// @throws std::bad_alloc  no memory for the text; also whatever Resource::text() throws
    UString message_string(const char* extra = nullptr) const;

    /// @name Rendering without a message
    /// All forms return the finished text, or "Could not locate Catalog File" when the formatter
    /// has none. The format is a narrow UTF-8 text, a UString, or an entry of a catalogue. The
    /// forms with single arguments leave out those of kind 0. In a vector an argument of kind 0,
    /// and a null pointer, counts as a place without argument.
    /// @throws std::bad_alloc  no memory for the text; also whatever Resource::text() throws
    /// @{
    static UString sprintf(const char* format, const std::vector<const Arg*>& args);
    static UString sprintf(const char* format, const Arg& a1);
    static UString sprintf(const char* format, const Arg& a1, const Arg& a2,
                           const Arg& a3 = Arg::nil, const Arg& a4 = Arg::nil,
                           const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
                           const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil,
                           const Arg& a9 = Arg::nil, const Arg& a10 = Arg::nil);
    static UString sprintf(const UString& format, const std::vector<const Arg*>& args);
    static UString sprintf(const UString& format, const Arg& a1);
    static UString sprintf(const UString& format, const Arg& a1, const Arg& a2,
                           const Arg& a3 = Arg::nil, const Arg& a4 = Arg::nil,
                           const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
                           const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil,
                           const Arg& a9 = Arg::nil, const Arg& a10 = Arg::nil);
    static UString sprintf(const char** catalogue, int index, const std::vector<const Arg*>& args,
                           const char* extra = nullptr);
    static UString sprintf(const char** catalogue, int index, const Arg& a1);
    static UString sprintf(const char** catalogue, int index, const Arg& a1, const Arg& a2,
                           const Arg& a3 = Arg::nil, const Arg& a4 = Arg::nil,
                           const Arg& a5 = Arg::nil, const Arg& a6 = Arg::nil,
                           const Arg& a7 = Arg::nil, const Arg& a8 = Arg::nil,
                           const Arg& a9 = Arg::nil, const Arg& a10 = Arg::nil);
    /// @}

private:
    const char** catalogue_;
    int index_;
    std::vector<Arg> arguments_;
};

}  // namespace Kvl

#endif
