#ifndef KVUTIL_TESTS_SUPPORT_CREDENTIALS_MODEL_H
#define KVUTIL_TESTS_SUPPORT_CREDENTIALS_MODEL_H

#include <kvutil/credentials.h>

#include <cstdlib>
#include <string>

/// The rules of texts and files of identities, a step a line, to compare the library with.
namespace model {

/// @param bits  up to 65535 bytes
inline Kvl::Identity identity(unsigned char type, const std::string& bits)
{
    auto* const block = new Kvl::Identity::identity_t[bits.size() + 1];
    block[0] = type;
    for (std::size_t i = 0; i < bits.size(); ++i)
        block[i + 1] = static_cast<unsigned char>(bits[i]);
    return Kvl::Identity(static_cast<short>(bits.size()), block);
}

/// @return the index of the message that rejects the text; 0 when it is read, into `result`
inline int read_text(const Kvl::UString& text, Kvl::Identity& result)
{
    const int colon = text.find(static_cast<unsigned short>(':'));
    if (colon < 0)
        return 8;
    const auto position = static_cast<unsigned int>(colon);
    const std::string prefix = text.substr(0, position).utf8_str();
    const long value = std::strtol(prefix.c_str(), nullptr, 10);
    if (value < 0 || value > 65535)
        return 9;
    if (text.length() != position + 1 + 2 * static_cast<unsigned long>(value) + 2)
        return 10;
    std::string bytes;
    for (unsigned int i = position + 1; i < text.length(); i += 2) {
        int byte = 0;
        for (const unsigned int unit : {text[i], text[i + 1]}) {
            if (unit >= '0' && unit <= '9')
                byte = byte * 16 + static_cast<int>(unit - '0');
            else if (unit >= 'a' && unit <= 'f')
                byte = byte * 16 + static_cast<int>(unit - 'a') + 10;
            else
                return 11;
        }
        bytes += static_cast<char>(byte);
    }
    result = identity(static_cast<unsigned char>(bytes[0]), bytes.substr(1));
    return 0;
}

/// The record of an identity in a file.
inline std::string record(const Kvl::Identity& identity)
{
    const auto length = static_cast<unsigned short>(identity.length());
    std::string bytes;
    bytes += static_cast<char>(length & 0xFF);
    bytes += static_cast<char>(length >> 8);
    bytes += static_cast<char>(identity.type());
    for (unsigned int i = 0; i < length; ++i)
        bytes += static_cast<char>(identity.bits()[i]);
    return bytes;
}

/// The file of credentials.
inline std::string file(const Kvl::Credentials& credentials)
{
    const std::size_t count = credentials.groups.size();
    std::string bytes;
    bytes += static_cast<char>(count & 0xFF);
    bytes += static_cast<char>(count >> 8 & 0xFF);
    bytes += record(credentials.user) + record(credentials.primary_group);
    for (const Kvl::Identity& group : credentials.groups)
        bytes += record(group);
    return bytes;
}

/// The record of a text in a file.
inline std::string text_record(const std::string& bytes)
{
    std::string result;
    result += static_cast<char>(bytes.size() & 0xFF);
    result += static_cast<char>(bytes.size() >> 8);
    return result + bytes;
}

/// Takes bytes from the front of a file.
class reader {
public:
    explicit reader(const std::string& bytes) : bytes_(bytes) {}

    bool number(unsigned int& result)
    {
        std::string two;
        if (!take(2, two))
            return false;
        result = static_cast<unsigned char>(two[0]) + 256u * static_cast<unsigned char>(two[1]);
        return true;
    }

    bool identity_record(Kvl::Identity& result)
    {
        unsigned int length;
        std::string block;
        if (!number(length) || !take(length + 1, block))
            return false;
        result = identity(static_cast<unsigned char>(block[0]), block.substr(1));
        return true;
    }

    bool text(Kvl::UString& result)
    {
        unsigned int size;
        std::string bytes;
        if (!number(size) || !take(size, bytes))
            return false;
        // The bytes are a zero-terminated text.
        result = Kvl::UString(Kvl::Utf8String(bytes.c_str()));
        return true;
    }

    std::size_t position() const { return position_; }

private:
    bool take(std::size_t size, std::string& result)
    {
        if (bytes_.size() - position_ < size)
            return false;
        result = bytes_.substr(position_, size);
        position_ += size;
        return true;
    }

    const std::string& bytes_;
    std::size_t position_ = 0;
};

/// Reads a file into `credentials`.
/// @return whether all of it could be read; what was read before stays
inline bool read_file(reader& in, bool read_strings, Kvl::Credentials& credentials)
{
    unsigned int count;
    if (!in.number(count))
        return false;
    credentials.groups.clear();
    if (!in.identity_record(credentials.user) || !in.identity_record(credentials.primary_group))
        return false;
    for (; count != 0; --count) {
        Kvl::Identity group;
        if (!in.identity_record(group))
            return false;
        credentials.groups.push_back(group);
    }
    // The texts are crossed.
    return !read_strings ||
           (in.text(credentials.text1) && in.text(credentials.text3) && in.text(credentials.text2));
}

inline bool same(const Kvl::Credentials& a, const Kvl::Credentials& b)
{
    return a.user == b.user && a.primary_group == b.primary_group && a.groups == b.groups &&
           a.text1 == b.text1 && a.text2 == b.text2 && a.text3 == b.text3;
}

}  // namespace model

namespace Kvl {
inline void PrintTo(const Identity& identity, std::ostream* out)
{
    *out << identity.str().utf8_str();
}
}  // namespace Kvl

#endif
