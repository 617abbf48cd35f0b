#ifndef KVUTIL_TESTS_TORTURE_TEXTS_H
#define KVUTIL_TESTS_TORTURE_TEXTS_H

#include <kvutil/ustring.h>

#include <string>

// Texts that are too long to stand within an object, so that whatever holds one allocates.

namespace torture {

inline const std::string NARROW(100, 'n');
inline const std::string OTHER_NARROW(70, 'o');
inline const std::u16string UNITS(100, u'u');
inline const std::u16string LONGER_UNITS(500, u'v');
inline const Kvl::UString LONG(std::u16string(100, u'l'));
inline const Kvl::UString OTHER(std::u16string(80, u'o'));
inline const Kvl::UString BLANKS(u" " + std::u16string(100, u'b') + u" ");
inline const Kvl::Utf8String LONG_UTF8(std::string(500, '8'));

/// A text of its own, with no room left.
inline Kvl::UString own_text()
{
    Kvl::UString text(UNITS);
    while (text.length() < text.capacity())
        text += u'u';
    return text;
}

/// A text that shares its units with another one.
inline Kvl::UString shared_text()
{
    return LONG;
}

/// A text whose units lie elsewhere, and which its copies cannot share.
inline Kvl::UString alias_of_units()
{
    Kvl::UString text;
    text.setTo(true, UNITS.c_str(), static_cast<int>(UNITS.size()));
    return text;
}

/// The same without a terminator after them.
inline Kvl::UString unterminated_alias()
{
    Kvl::UString text;
    text.setTo(false, UNITS.c_str(), static_cast<int>(UNITS.size()) - 1);
    return text;
}

/// A text that has not been seen. To whoever compares, all of them are the same.
struct fresh_text_t {
    fresh_text_t() : text(LONG)
    {
        static int count = 0;
        for (const char digit : std::to_string(++count))
            text += static_cast<unsigned short>(digit);
    }
    Kvl::UString text;
};

inline std::string words(const fresh_text_t&)
{
    return "fresh";
}

inline fresh_text_t fresh_text()
{
    return {};
}

inline Kvl::Utf8String utf8_text()
{
    return NARROW;
}

inline const unsigned short* units(const std::u16string& text)
{
    return reinterpret_cast<const unsigned short*>(text.c_str());
}

}  // namespace torture

#endif
