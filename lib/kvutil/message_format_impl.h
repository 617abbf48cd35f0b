#ifndef KVUTIL_MESSAGE_FORMAT_IMPL_H
#define KVUTIL_MESSAGE_FORMAT_IMPL_H

#include <qmlogger/qmlogger.h>

#include <cstddef>
#include <forward_list>
#include <string>
#include <vector>

namespace Kvl::MessageFormat {

// The formatter's records carry no kind: its format alone decides how each is read. Formats come
// from translations and from other programs' catalogues, so each conversion is held against its
// argument before the formatter sees either.

/// What an argument holds, as far as a conversion cares.
enum class held_t : unsigned char { NOTHING, CHARACTER, INTEGER, FLOATING, TEXT };

/// An argument: its record, and how that may be read.
struct argument_t {
    cxPrintfArgVal record;
    held_t held;
};

/// All arguments: the records as the formatter takes them, and beside them how each may be read.
class arguments_t {
public:
    arguments_t(const cxPrintfArgVal* records, const held_t* held, std::size_t size)
        : records_(records), held_(held), size_(size)
    {
    }

    std::size_t size() const { return size_; }
    held_t held(std::size_t i) const { return i < size_ ? held_[i] : held_t::NOTHING; }
    /// @return  beyond the arguments one that holds nothing
    argument_t operator[](std::size_t i) const
    {
        return i < size_ ? argument_t{records_[i], held_[i]} : argument_t();
    }

private:
    const cxPrintfArgVal* records_;
    const held_t* held_;
    std::size_t size_;
};

/// Whether the formatter may be given the format as it is, with one record per argument.
/// @param format   the zero-terminated format
/// @param args     the arguments
/// @param records  set to the number of records that the formatter reads; those beyond the
///                 arguments are to be zero
bool agrees(const char* format, const arguments_t& args, std::size_t& records);

/// A format that any printf-style formatter can be given, with one record for each conversion.
struct safe_format_t {
    std::string format;
    std::vector<cxPrintfArgVal> records;
    std::forward_list<std::string> texts;  // what records point to beyond the arguments' own texts
};

/// Rewrites a format so that each conversion fits its argument: conversions take their records in
/// order, widths and precisions are literal, and what is no conversion stands as text.
/// @param format  the zero-terminated format
/// @param args    the arguments, whose texts must outlive the result
safe_format_t make_safe(const char* format, const arguments_t& args);

}  // namespace Kvl::MessageFormat

#endif
