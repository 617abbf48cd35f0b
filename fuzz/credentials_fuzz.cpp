// Credentials from files: what is read, with and without texts, also up to the place where a file
// is too short, is what an independent reader of the layout finds there; what was read without
// texts is written as the same bytes.

#include <kvutil/credentials.h>
#include <kvutil/stpexception.h>

#include "../tests/support/credentials_model.h"
#include "property.h"

#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

using Kvl::Credentials;

namespace {

/// A file in memory, and a path to it.
class memory_file_t {
public:
    memory_file_t() : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)) { require(descriptor_ >= 0); }
    ~memory_file_t() { close(descriptor_); }
    memory_file_t(const memory_file_t&) = delete;
    memory_file_t& operator=(const memory_file_t&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

    void set(const std::string& bytes) const
    {
        require(ftruncate(descriptor_, 0) == 0);
        const ssize_t n = pwrite(descriptor_, bytes.data(), bytes.size(), 0);
        require(n == static_cast<ssize_t>(bytes.size()));
    }

    std::string get() const
    {
        std::string bytes(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END)), '\0');
        require(pread(descriptor_, bytes.data(), bytes.size(), 0) ==
                static_cast<ssize_t>(bytes.size()));
        return bytes;
    }

private:
    const int descriptor_;
};

/// What is there before, to see what changes.
Credentials old_credentials()
{
    Credentials credentials;
    credentials.text1 = credentials.text2 = credentials.text3 = u"old";
    credentials.user = model::identity(1, "old");
    credentials.groups.assign(2, credentials.user);
    return credentials;
}

/// @return the size of what was read, when all was there; otherwise 0
std::size_t check_reading(const memory_file_t& file, const std::string& bytes, bool read_strings)
{
    Credentials expected = old_credentials();
    model::reader in(bytes);
    const bool is_whole = model::read_file(in, read_strings, expected);
    Credentials credentials = old_credentials();
    try {
        credentials.read_from_file(file.path(), read_strings);
        require(is_whole);
    } catch (const Kvl::RuntimeException& e) {
        require(!is_whole && e.message().index() == 16);
    }
    require(model::same(credentials, expected));
    return is_whole ? in.position() : 0;
}

void check_writing(const memory_file_t& file, const std::string& bytes)
{
    Credentials credentials;
    credentials.read_from_file(file.path(), false);
    credentials.write_to_file(file.path());
    require(file.get() == bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const memory_file_t file;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    file.set(bytes);
    check_reading(file, bytes, true);
    const std::size_t used = check_reading(file, bytes, false);
    if (used != 0)
        check_writing(file, bytes.substr(0, used));
    return 0;
}
