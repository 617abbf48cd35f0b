#ifndef KVUTIL_OID_H
#define KVUTIL_OID_H

#include <kvutil/export.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/ustring.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <istream>
#include <ostream>
#include <string>

namespace Kvl {

class Oid;

/// A DCE UUID, field by field. It has no order and no hash: an Oid is the key.
/// @par Thread-safety
/// A plain value: one may be read by many threads, distinct ones may be used at once.
/// @see RFC 4122; docs/wire-formats.md
class KVUTIL_EXPORT Uuid {
public:
    /// The nil UUID, all zero. Never throws.
    Uuid() noexcept : fields_() {}
    /// The fields as they are; nothing is checked. Never throws.
    Uuid(const tbs_uuid_s& s) noexcept : fields_(s) {}
    /// @copydoc Uuid(const tbs_uuid_s&)
    Uuid(const tbs_oid_s& s) noexcept : fields_() { std::memcpy(&fields_, &s, sizeof fields_); }
    /// The same as `o.uuid()`. Never throws.
    explicit Uuid(const Oid& o) noexcept;

    /// The fields as they are. Never throws.
    operator tbs_uuid_s() const noexcept { return fields_; }
    /// The same under the other name. Never throws.
    operator tbs_oid_s() const noexcept
    {
        tbs_oid_s s;
        std::memcpy(&s, &fields_, sizeof s);
        return s;
    }

    /// @return  whether all 16 bytes are zero. Never throws.
    bool is_nil() const noexcept { return *this == Uuid(); }

    /// Whether all 16 bytes are equal. Never throws.
    bool operator==(const Uuid& o) const noexcept
    {
        return std::memcmp(&fields_, &o.fields_, sizeof fields_) == 0;
    }
    /// @copydoc operator==(const Uuid&) const
    bool operator!=(const Uuid& o) const noexcept { return !(*this == o); }

    /// A new time-based UUID. Waits up to about 0.1 s where more than 2^18 are asked for within one
    /// such span, see brenner_tbs_uuid_gen().
    /// @throws RuntimeException  PLXSV0651E: brenner_tbs_uuid_gen() failed; its status is the
    ///                           argument
    static Uuid gen();

    /// The text, in lower-case hexadecimal digits, each field with its leading zeros.
    /// @param compact  32 digits; otherwise the 40 characters of the dotted form,
    ///                 "01234567.89abcdef.0123.45:67:89:ab:cd:ef"
    /// @throws std::bad_alloc  no memory for the text
    std::string std_str(bool compact) const;
    /// std_str() as a UString.
    /// @param compact  as above
    /// @throws std::bad_alloc  no memory for the text
    UString str(bool compact) const;

    /// Reads the dotted, the hyphenated (8-4-4-4-12 digits) or the compact form, in this order.
    ///
    /// Deliberate: as lenient as C's sscanf() with "%08x" and "%04hx" for the fields, but with the
    /// C locale's blanks in every locale. A field may be shorter than its width, stand behind
    /// blanks, have a sign or "0x" within its width; a negative one counts from the top. What
    /// follows the last field, and a zero byte and what follows it, is not looked at.
    /// @param s  the text
    /// @throws IllegalArgException  PLXSV0657E: `s` has none of the forms; both arguments are `s`,
    ///                              first as bytes, then decoded from UTF-8
    static Uuid from_string(const std::string& s);

private:
    tbs_uuid_s fields_;
};

/// An object identifier: the 16 bytes of a Uuid as four words, cheap to compare, order and hash.
///
/// Deliberate: the order is that of the words, not of the text forms. time_hi_and_version comes
/// before time_mid, and of the last eight bytes every four compare from the last to the first.
/// Ordered containers rely on it.
/// @par Thread-safety
/// A plain value: one may be read by many threads, distinct ones may be used at once.
/// @see docs/wire-formats.md
class KVUTIL_EXPORT Oid {
public:
    /// The four words, most significant in the order first.
    struct bits {
        std::uint32_t w0;  ///< time_low
        std::uint32_t w1;  ///< time_hi_and_version << 16 | time_mid
        std::uint32_t w2;  ///< bytes 8 to 11 of the UUID, the first one lowest
        std::uint32_t w3;  ///< bytes 12 to 15, the first one lowest
    };

    /// All zero. Never throws.
    Oid() noexcept : bits_() {}
    /// The words as they are. Never throws.
    Oid(const bits& b) noexcept : bits_(b) {}
    /// The words of the UUID's fields. Never throws.
    Oid(const Uuid& u) noexcept : Oid(static_cast<tbs_uuid_s>(u)) {}
    /// @copydoc Oid(const Uuid&)
    Oid(const tbs_oid_s& s) noexcept : Oid(Uuid(s)) {}
    /// @copydoc Oid(const Uuid&)
    Oid(const tbs_uuid_s& s) noexcept
        : bits_{s.time_low, std::uint32_t{s.time_hi_and_version} << 16 | s.time_mid,
                word(s.clock_seq_hi_and_reserved, s.clock_seq_low, s.node[0], s.node[1]),
                word(s.node[2], s.node[3], s.node[4], s.node[5])}
    {
    }

    /// The words as they are. Never throws.
    Oid& operator=(const bits& b) noexcept
    {
        bits_ = b;
        return *this;
    }

    /// The UUID that these words come from. Never throws.
    Uuid uuid() const noexcept
    {
        const std::uint32_t w2 = bits_.w2;
        const std::uint32_t w3 = bits_.w3;
        return tbs_uuid_s{
            bits_.w0,
            static_cast<unsigned short>(bits_.w1),
            static_cast<unsigned short>(bits_.w1 >> 16),
            byte(w2, 0),
            byte(w2, 1),
            {byte(w2, 2), byte(w2, 3), byte(w3, 0), byte(w3, 1), byte(w3, 2), byte(w3, 3)}};
    }
    /// The fields of uuid(). Never throws.
    operator tbs_oid_s() const noexcept { return static_cast<tbs_oid_s>(uuid()); }
    /// The same under the other name. Never throws.
    operator tbs_uuid_s() const noexcept { return static_cast<tbs_uuid_s>(uuid()); }

    /// @return  the words; the reference lives as long as this object and follows its changes
    const bits& words() const noexcept { return bits_; }

    /// @return  whether all four words are zero. Never throws.
    bool is_nil() const noexcept { return (bits_.w0 | bits_.w1 | bits_.w2 | bits_.w3) == 0; }

    /// Whether all four words are equal. Never throws.
    bool operator==(const Oid& o) const noexcept
    {
        return ((bits_.w0 ^ o.bits_.w0) | (bits_.w1 ^ o.bits_.w1) | (bits_.w2 ^ o.bits_.w2) |
                (bits_.w3 ^ o.bits_.w3)) == 0;
    }
    /// @copydoc operator==(const Oid&) const
    bool operator!=(const Oid& o) const noexcept { return !(*this == o); }

    /// The words one by one, as unsigned numbers, w0 first. Never throws.
    bool operator<(const Oid& o) const noexcept
    {
        if (bits_.w0 != o.bits_.w0)
            return bits_.w0 < o.bits_.w0;
        if (bits_.w1 != o.bits_.w1)
            return bits_.w1 < o.bits_.w1;
        if (bits_.w2 != o.bits_.w2)
            return bits_.w2 < o.bits_.w2;
        return bits_.w3 < o.bits_.w3;
    }

    /// @return  the exclusive or of the four words. Never throws.
    unsigned int hash() const noexcept { return bits_.w0 ^ bits_.w1 ^ bits_.w2 ^ bits_.w3; }

    /// Uuid::gen() as an Oid.
    /// @throws RuntimeException  PLXSV0651E: brenner_tbs_uuid_gen() failed; its status is the
    ///                           argument
    static Oid gen();

    /// uuid().std_str().
    /// @param compact  32 digits; otherwise the dotted form
    /// @throws std::bad_alloc  no memory for the text
    std::string std_str(bool compact) const;
    /// uuid().str().
    /// @param compact  32 digits; otherwise the dotted form
    /// @throws std::bad_alloc  no memory for the text
    UString str(bool compact) const;

    /// Uuid::from_string() as an Oid, with all its leniency.
    /// @param s  the text
    /// @throws IllegalArgException  PLXSV0657E: `s` has none of the forms
    static Oid from_string(const std::string& s);
    /// The same of the text in UTF-8, so what follows a U+0000 is not looked at.
    /// @param s  the text
    /// @throws IllegalArgException  PLXSV0657E: `s` has none of the forms, or has an unpaired
    ///                              surrogate, in which case the message shows an empty text
    static Oid from_string(const UString& s);

private:
    static std::uint32_t word(unsigned char lowest, unsigned char second, unsigned char third,
                              unsigned char highest) noexcept
    {
        return std::uint32_t{lowest} | std::uint32_t{second} << 8 | std::uint32_t{third} << 16 |
               std::uint32_t{highest} << 24;
    }
    static unsigned char byte(std::uint32_t word, int position) noexcept
    {
        return static_cast<unsigned char>(word >> 8 * position);
    }

    bits bits_;
};

static_assert(sizeof(Oid) == 16 && sizeof(Uuid) == 16 && sizeof(tbs_uuid_s) == 16 &&
                  sizeof(tbs_oid_s) == 16,
              "plain 16-byte values");

/// Writes the dotted form as one formatted field.
KVUTIL_EXPORT std::wostream& operator<<(std::wostream& os, const Oid& o);

/// Reads one word, delimited by white space, as Oid::from_string() reads texts. A text of no known
/// form sets failbit. When anything fails, `o` keeps its value.
/// @throws std::bad_alloc  no memory for the word; as for a UString, also from a stream that is not
///                         asked to throw
KVUTIL_EXPORT std::wistream& operator>>(std::wistream& is, Oid& o);

}  // namespace Kvl

namespace std {
/// Equal identifiers have equal values.
template <>
struct hash<Kvl::Oid> {
    /// Never throws.
    size_t operator()(const Kvl::Oid& o) const noexcept { return o.hash(); }
};
}  // namespace std

#endif
