#ifndef KVUTIL_DAVTIME_H
#define KVUTIL_DAVTIME_H

#include <kvutil/export.h>
#include <kvutil/ustring.h>

#include <ctime>

namespace Kvl {

/// A point in time as the DAV protocol writes it, held as whole seconds since
/// 1970-01-01T00:00:00Z.
///
/// Deliberate: 0 also stands for "no time" after a failed parse, so callers cannot tell that from
/// the epoch itself. Neither form depends on the time zone or the locale of the process.
/// @par Thread-safety
/// Distinct objects may be used at once. get_tz_offset() holds the library's lock for the C
/// library's time functions.
/// @see ISO 8601:2004 4.3.2; RFC 1123 5.2.14
class KVUTIL_EXPORT DavTime {
public:
    /// The two forms.
    enum Format : int {
        ISO8601 = 0,  ///< 1994-11-06T08:49:37Z, as of creation dates
        RFC1123 = 1   ///< Sun, 06 Nov 1994 08:49:37 GMT, as of last-modified dates
    };

    /// The epoch, or "no time". Never throws.
    DavTime() noexcept = default;

    /// Never throws.
    /// @param t  seconds since 1970-01-01T00:00:00Z, of either sign
    explicit DavTime(std::time_t t) noexcept : seconds_(t) {}

    /// Reads either form; a comma as the fourth byte in UTF-8 means RFC 1123.
    ///
    /// Deliberate: it is as lenient as sscanf() with
    ///
    ///     "%4d-%2d-%2dT%2d:%2d:%2dZ"
    ///     "%3s, %2d %3s %4d %2d:%2d:%2d GMT"
    ///
    /// Blanks may stand before each field and a sign counts into its width; the name of the day is
    /// not looked at; what follows the seconds may be missing or anything else. Fields out of their
    /// range count on into the next, as in timegm(): the 30th of February is a day in March.
    ///
    /// Any other text sets the value to 0: one of less than four bytes, one with an unpaired
    /// surrogate, an unknown month. Allocates nothing and never throws.
    /// @param text  the stamp, in UTC, up to its end or its first U+0000; the names of months match
    ///              case-sensitively
    void parse(const UString& text) noexcept;

    /// The text in UTC. The year has no leading zeros in ISO8601 and at least four characters, its
    /// sign counted, in RFC1123; parse() reads years from -999 to 9999.
    /// @param f  the form
    /// @return   empty for another value of Format, and for a year that overflows `tm_year`
    /// @throws std::bad_alloc  no memory for the text
    UString to_string(Format f) const;

    /// Seconds since 1970-01-01T00:00:00Z; 0 also after a failed parse(). Never throws.
    std::time_t value() const noexcept { return seconds_; }

    /// The offset from UTC of the time zone that TZ names now.
    ///
    /// Deliberate: it is the difference of the two times of day, a day added to the one that is on
    /// the following weekday. So it is wrong for a zone that is more than a day away from UTC.
    ///
    /// The C library reads a zone when TZ has changed. Where it has no memory for that it takes
    /// UTC, says nothing, and does not read again until TZ has changed once more.
    /// @param t  an instant, in seconds since 1970-01-01T00:00:00Z
    /// @return   seconds, positive east of Greenwich; 0 when a year overflows `tm_year`. Never
    /// throws
    static long get_tz_offset(long t);

    /// "Jan" to "Dec".
    static const char* const MONTHNAMES[12];
    /// "Sun" to "Sat", as `tm_wday` counts.
    static const char* const DAYNAMES[7];

private:
    std::time_t seconds_ = 0;
};

}  // namespace Kvl

#endif
