// Credentials from files: what is read, with and without texts, also up to the place where a file
// is too short, is what an independent reader of the layout finds there; what was read without
// texts is written as the same bytes. Where memory runs out, what was read before it stays, and a
// file that was to be written is as it was. The input is the failing allocation and the file.

#include <kvutil/credentials.h>
#include <kvutil/stpexception.h>

#include "../tests/support/credentials_model.h"
#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

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

/// What is read when all of `bytes` has been.
/// @return  the size of what was read, when all was there; otherwise 0
std::size_t read_by_model(const std::string& bytes, bool read_strings, Credentials& credentials)
{
    credentials = old_credentials();
    model::reader in(bytes);
    return model::read_file(in, read_strings, credentials) ? in.position() : 0;
}

/// Where the number of groups and each record of the file end.
std::vector<std::size_t> ends_in(const std::string& bytes)
{
    std::vector<std::size_t> ends = {0, 2};
    const auto number_at = [&](std::size_t i) {
        const auto byte = [&](std::size_t j) { return static_cast<unsigned char>(bytes[j]); };
        return i + 1 < bytes.size() ? byte(i) + 256u * byte(i + 1) : 0u;
    };
    const std::size_t identities = 2 + number_at(0);
    while (ends.back() + 2 <= bytes.size()) {
        const bool is_identity = ends.size() - 2 < identities;
        ends.push_back(ends.back() + 2 + (is_identity ? 1 : 0) + number_at(ends.back()));
    }
    return ends;
}

/// Whether a beginning of the file gives these.
bool is_partly_read(const std::string& bytes, bool read_strings, const Credentials& credentials)
{
    for (const std::size_t end : ends_in(bytes)) {
        Credentials expected;
        read_by_model(bytes.substr(0, end), read_strings, expected);
        if (model::same(credentials, expected))
            return true;
    }
    return false;
}

/// @return  the size of what was read, when all was there; otherwise 0
std::size_t check_reading(const memory_file_t& file, const std::string& bytes, bool read_strings,
                          unsigned long fault)
{
    Credentials expected;
    const std::size_t used = read_by_model(bytes, read_strings, expected);
    Credentials credentials = old_credentials();
    const std::string path = file.path();
    const bool is_done = has_memory(fault, [&] {
        try {
            credentials.read_from_file(path, read_strings);
            require(used != 0);
        } catch (const Kvl::RuntimeException& e) {
            require(used == 0 && e.message().index() == 16);
        }
    });
    require(is_done ? model::same(credentials, expected)
                    : is_partly_read(bytes, read_strings, credentials));
    return used;
}

void check_writing(const memory_file_t& file, const std::string& bytes, const std::string& written,
                   unsigned long fault)
{
    Credentials credentials;
    const std::string path = file.path();
    credentials.read_from_file(path, false);
    const bool is_done = has_memory(fault, [&] { credentials.write_to_file(path); });
    require(file.get() == (is_done ? written : bytes));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const memory_file_t file;
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const std::string bytes(input.bytes(size));
    file.set(bytes);
    check_reading(file, bytes, true, fault);
    const std::size_t used = check_reading(file, bytes, false, fault);
    if (fault != 0)
        check_reading(file, bytes, true, 0);
    if (used != 0)
        check_writing(file, bytes, bytes.substr(0, used), fault);
    return 0;
}
