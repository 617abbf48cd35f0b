#include "support/credentials_failure.h"

#include <kvutil/credentials.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <iostream>
#include <optional>
#include <sys/mman.h>
#include <unistd.h>

// Damaged files of credentials: cut at every byte, with every bit flipped, and with every byte set
// to values that lengths and texts trip over. What becomes of each is compared with a reader that
// has nothing of the library.

using Kvl::Credentials;
using Kvl::Identity;
using namespace std::string_literals;

namespace {

// ---- the format, without the library ----

struct plain_identity_t {
    unsigned char type = 0;
    std::string bits;

    bool operator==(const plain_identity_t&) const = default;
};

struct plain_t {
    plain_identity_t user, primary_group;
    std::vector<plain_identity_t> groups;
    std::u16string first, second, third;  // in the order of the file

    bool operator==(const plain_t&) const = default;
};

/// One character of UTF-8 from the front of `rest`, which becomes shorter.
/// @return nothing when it is malformed: overlong, a surrogate, beyond U+10FFFF, or cut
std::optional<char32_t> take_character(std::string_view& rest)
{
    const auto lead = static_cast<unsigned char>(rest[0]);
    const std::size_t size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || rest.size() < size)
        return std::nullopt;
    char32_t c = size == 1 ? lead : lead & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(rest[i]);
        if (byte >> 6 != 2)
            return std::nullopt;
        c = c << 6 | (byte & 0x3Fu);
    }
    constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < smallest[size] || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000))
        return std::nullopt;
    rest.remove_prefix(size);
    return c;
}

/// A text up to its first zero; empty when a character of it is malformed.
std::u16string decoded(const std::string& bytes)
{
    std::string_view rest(bytes.c_str());
    std::u16string text;
    while (!rest.empty()) {
        const auto c = take_character(rest);
        if (!c)
            return {};
        if (*c < 0x10000) {
            text += static_cast<char16_t>(*c);
        } else {
            text += static_cast<char16_t>(0xD7C0 + (*c >> 10));
            text += static_cast<char16_t>(0xDC00 + (*c & 0x3FF));
        }
    }
    return text;
}

/// Reads a file as far as it goes; what comes later keeps its old value.
class plain_reader {
public:
    explicit plain_reader(const std::string& file) : rest_(file) {}

    /// @return whether all of it was there
    bool read(plain_t& into, bool read_texts)
    {
        std::size_t count;
        if (!number(count))
            return false;
        into.groups.clear();
        if (!identity(into.user) || !identity(into.primary_group))
            return false;
        for (plain_identity_t group; count > 0; --count) {
            if (!identity(group))
                return false;
            into.groups.push_back(group);
        }
        return !read_texts || (text(into.first) && text(into.second) && text(into.third));
    }

private:
    bool bytes(std::size_t size, std::string& result)
    {
        if (rest_.size() < size)
            return false;
        result = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return true;
    }
    bool number(std::size_t& result)
    {
        std::string two;
        if (!bytes(2, two))
            return false;
        result = static_cast<unsigned char>(two[0]) + 256u * static_cast<unsigned char>(two[1]);
        return true;
    }
    bool identity(plain_identity_t& result)
    {
        std::size_t length;
        std::string block;
        if (!number(length) || !bytes(length + 1, block))
            return false;
        result = {static_cast<unsigned char>(block[0]), block.substr(1)};
        return true;
    }
    bool text(std::u16string& result)
    {
        std::size_t size;
        std::string content;
        if (!number(size) || !bytes(size, content))
            return false;
        result = decoded(content);
        return true;
    }

    std::string_view rest_;
};

// ---- the library's ----

plain_identity_t plain(const Identity& identity)
{
    const auto length = static_cast<unsigned short>(identity.length());
    const auto* const bits = reinterpret_cast<const char*>(identity.bits());
    return {identity.type(), bits == nullptr ? "" : std::string(bits, length)};
}

std::u16string plain(const Kvl::UString& text)
{
    return std::u16string(text.getBuffer(), text.length());
}

plain_t plain(const Credentials& credentials)
{
    plain_t all;
    all.user = plain(credentials.user);
    all.primary_group = plain(credentials.primary_group);
    for (const Identity& group : credentials.groups)
        all.groups.push_back(plain(group));
    all.first = plain(credentials.text1);
    all.second = plain(credentials.text3);
    all.third = plain(credentials.text2);
    return all;
}

/// What is in the object before a file is read.
Credentials old_credentials()
{
    Credentials credentials;
    credentials.user = credentials.primary_group = Identity(3, Identity::type_t(9), "old");
    credentials.groups.assign(2, credentials.user);
    credentials.text1 = credentials.text2 = credentials.text3 = u"old";
    return credentials;
}

// ---- golden files ----

std::string number(std::size_t n)
{
    return {static_cast<char>(n & 0xFF), static_cast<char>(n >> 8)};
}

std::string record(char type, const std::string& bits)
{
    return number(bits.size()) + type + bits;
}

std::string text(const std::string& bytes)
{
    return number(bytes.size()) + bytes;
}

// The first and last characters of each length, and those around the surrogates: one bit turns them
// into what is no character.
const std::string LOWER_LIMITS = "\xC2\x80\xE0\xA0\x80\xEE\x80\x80\xF0\x90\x80\x80";
const std::string UPPER_LIMITS = "\xDF\xBF\xED\x9F\xBF\xF4\x8F\xBF\xBF";

const std::string GOLDEN_FILES[] = {
    // Nobody, no groups, no texts.
    number(0) + record(0, "") + record(0, "") + text("") + text("") + text(""),
    // Short records; characters of one to four bytes; a zero within a text, which ends it.
    number(2) + record(1, "user") + record(2, "group") + record(3, "\xFF\x00\x80"s) +
        record(4, "") + text("plain") + text("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80") +
        text("cut\0here"s),
    number(0) + record(1, "") + record(2, "") + text(LOWER_LIMITS) + text(UPPER_LIMITS) +
        text(UPPER_LIMITS + std::string(80, 'l') + LOWER_LIMITS),
    // Lengths whose upper bytes are in use.
    number(3) + record(5, std::string(257, '\x55')) + record(6, std::string(511, '\xAA')) +
        record(7, std::string(256, '\x01')) + record(8, "x") + record(9, std::string(300, '\xFE')) +
        text(std::string(300, 't')) + text("\xF0\x9F\x98\x80" + std::string(260, 'u')) +
        text("end"),
};

class DamagedCredentials : public testing::TestWithParam<std::string> {
public:
    static inline unsigned long files = 0;
    static inline unsigned long rejected = 0;

    DamagedCredentials() : descriptor_(memfd_create("credentials", MFD_CLOEXEC)) {}
    ~DamagedCredentials() override { close(descriptor_); }

protected:
    /// One that is read either way.
    void check(const std::string& file)
    {
        ASSERT_EQ(ftruncate(descriptor_, 0), 0);
        ASSERT_EQ(pwrite(descriptor_, file.data(), file.size(), 0),
                  static_cast<ssize_t>(file.size()));
        for (const bool read_texts : {false, true})
            check(file, read_texts);
    }

private:
    void check(const std::string& file, bool read_texts)
    {
        plain_t expected = plain(old_credentials());
        const bool is_whole = plain_reader(file).read(expected, read_texts);
        Credentials credentials = old_credentials();
        const auto read = [&] { credentials.read_from_file(path_, read_texts); };
        if (is_whole) {
            ASSERT_NO_THROW(read());
        } else {
            expect_failure<Kvl::RuntimeException>(read, file_failure("read", path_, "Success"));
        }
        ASSERT_TRUE(plain(credentials) == expected);
        ++files;
        rejected += !is_whole;
    }

    const int descriptor_;
    const std::string path_ = "/proc/self/fd/" + std::to_string(descriptor_);
};

TEST_P(DamagedCredentials, AreReadWhenWhole)
{
    check(GetParam());
    plain_t whole;
    ASSERT_TRUE(plain_reader(GetParam()).read(whole, true));
}

TEST_P(DamagedCredentials, CutAtEveryByte)
{
    for (std::size_t size = 0; size < GetParam().size(); ++size) {
        check(GetParam().substr(0, size));
        ASSERT_FALSE(HasFailure()) << "of " << size << " bytes";
    }
}

TEST_P(DamagedCredentials, WithEveryBitFlipped)
{
    for (std::size_t bit = 0; bit < 8 * GetParam().size(); ++bit) {
        std::string file = GetParam();
        file[bit / 8] = static_cast<char>(file[bit / 8] ^ 1 << bit % 8);
        check(file);
        ASSERT_FALSE(HasFailure()) << "bit " << bit % 8 << " of byte " << bit / 8;
    }
}

TEST_P(DamagedCredentials, WithEveryByteSet)
{
    for (std::size_t i = 0; i < GetParam().size(); ++i) {
        for (const int value : {0x00, 0x7F, 0x80, 0xFF}) {
            std::string file = GetParam();
            file[i] = static_cast<char>(value);
            check(file);
            ASSERT_FALSE(HasFailure()) << "byte " << i << " is " << value;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Golden, DamagedCredentials, testing::ValuesIn(GOLDEN_FILES),
                         [](const auto& row) { return std::to_string(row.index); });

// Two damages at once: the fields that say how much follows, with all their values that matter.
TEST_F(DamagedCredentials, WithEveryLengthThatMatters)
{
    const std::string tail = record(1, "u") + record(2, "g") + text("t");
    for (const std::size_t count : {0u, 1u, 2u, 3u, 255u, 256u, 32767u, 32768u, 65535u})
        for (const std::size_t length : {0u, 1u, 2u, 255u, 256u, 32767u, 32768u, 65534u, 65535u})
            for (const std::size_t there : {length, length + 1, length + 2})
                check(number(count) + number(length) + std::string(there, 'i') + tail);
}

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    // The last line, for reports.
    std::cout << "file torture: read=" << DamagedCredentials::files
              << " rejected=" << DamagedCredentials::rejected << std::endl;
    return result;
}
