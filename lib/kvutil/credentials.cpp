#include <kvutil/credentials.h>

#include "file_content_impl.h"
#include "file_stream_impl.h"
#include "uncancelled_impl.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace Kvl {

UtlFileIoPtr::~UtlFileIoPtr()
{
    close();
}

std::FILE* UtlFileIoPtr::release() noexcept
{
    return std::exchange(file_, nullptr);
}

int UtlFileIoPtr::close() noexcept
{
    if (file_ == nullptr)
        return 0;
    const uncancelled_t whole;
    return std::fclose(release());
}

Credentials::Credentials() noexcept = default;
Credentials::Credentials(const Credentials& o) = default;
Credentials::Credentials(Credentials&& o) noexcept = default;
Credentials& Credentials::operator=(Credentials&& o) noexcept = default;
Credentials::~Credentials() = default;

Credentials& Credentials::operator=(const Credentials& o)
{
    return *this = Credentials(o);
}

bool Credentials::in_group_list(const Identity& id) const noexcept
{
    return id == primary_group || std::find(groups.begin(), groups.end(), id) != groups.end();
}

// ---- writing ----

namespace {

typedef std::array<unsigned char, 2> number_t;
typedef std::array<unsigned char, 3> record_head_t;

void write_bytes(const std::string& path, std::FILE* file, const unsigned char* bytes,
                 std::size_t size)
{
    if (std::fwrite(bytes, 1, size, file) != size)
        fail_on_file(MSG_FILE_NOT_WRITTEN, path, errno);
}

// Deliberate: a number beyond 65535 loses its upper bits.
number_t little_endian(std::size_t number)
{
    return {static_cast<unsigned char>(number), static_cast<unsigned char>(number >> 8)};
}

void write_record(const std::string& path, std::FILE* file, const Identity& identity)
{
    const std::size_t size = static_cast<unsigned short>(identity.length());
    const number_t length = little_endian(size);
    const record_head_t head = {length[0], length[1], identity.type()};
    write_bytes(path, file, head.data(), head.size());
    if (size != 0)
        write_bytes(path, file, identity.bits(), size);
}

void write_records(const std::string& path, std::FILE* file, const Credentials& credentials)
{
    const number_t count = little_endian(credentials.groups.size());
    write_bytes(path, file, count.data(), count.size());
    write_record(path, file, credentials.user);
    write_record(path, file, credentials.primary_group);
    for (const Identity& group : credentials.groups)
        write_record(path, file, group);
}

/// No file has such a name, but the system would take what precedes the zero for it.
void refuse_zero_byte(const std::string& path)
{
    if (path.find('\0') != path.npos)
        fail_on_file(MSG_FILE_NOT_OPENED, path, ENOENT);
}

}  // namespace

void Credentials::write_to_file(const std::string& path) const
{
    refuse_zero_byte(path);
    set_file_content(path, [&](std::FILE* file) { write_records(path, file, *this); });
}

// ---- reading ----

namespace {

/// @return whether there were so many bytes; otherwise `errno` says why not, and 0 that the file
///         ended
bool read_whole(std::FILE* file, void* to, std::size_t size)
{
    char* rest = static_cast<char*>(to);
    for (;;) {
        errno = 0;
        const std::size_t got = std::fread(rest, 1, size, file);
        if (got == size)
            return true;
        // A signal is no failure.
        if (errno != EINTR || std::ferror(file) == 0)
            return false;
        std::clearerr(file);
        rest += got;
        size -= got;
    }
}

void read_bytes(const std::string& path, std::FILE* file, void* to, std::size_t size)
{
    if (!read_whole(file, to, size))
        fail_on_file(MSG_FILE_NOT_READ, path, errno);
}

std::size_t read_number(const std::string& path, std::FILE* file)
{
    number_t number;
    read_bytes(path, file, number.data(), number.size());
    return static_cast<std::size_t>(number[0] | number[1] << 8);
}

// In the file, as in the block, the bits follow the type.
Identity read_record(const std::string& path, std::FILE* file)
{
    const std::size_t length = read_number(path, file);
    auto block = std::make_unique_for_overwrite<Identity::identity_t[]>(length + 1);
    read_bytes(path, file, block.get(), length + 1);
    // Deliberate: from 32768 on the length becomes negative.
    return Identity(static_cast<short>(length), block.release());
}

void read_records(const std::string& path, std::FILE* file, Credentials& credentials)
{
    const std::size_t count = read_number(path, file);
    credentials.groups.clear();
    credentials.groups.reserve(count);
    credentials.user = read_record(path, file);
    credentials.primary_group = read_record(path, file);
    for (std::size_t i = 0; i < count; ++i)
        credentials.groups.push_back(read_record(path, file));
}

std::FILE* open_to_read(const std::string& path, std::span<char> buffer)
{
    refuse_zero_byte(path);
    descriptor_t descriptor = open_file(path.c_str(), O_RDONLY);
    if (!descriptor.is_open())
        fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
    return stream_over(std::move(descriptor), "r", buffer);
}

}  // namespace

void Credentials::read_from_file(const std::string& path, bool read_strings)
{
    std::array<char, 16384> buffer;
    UtlFileIoPtr file(open_to_read(path, buffer));
    read_records(path, file.get(), *this);
    if (!read_strings)
        return;
    text1 = read_string(path, file);
    // Deliberate: the file has the third text before the second.
    text3 = read_string(path, file);
    text2 = read_string(path, file);
}

UString Credentials::read_string(const std::string& path, UtlFileIoPtr& file)
{
    if (file.get() == nullptr)
        fail_on_file(MSG_FILE_NOT_READ, path, EBADF);
    Utf8String bytes(read_number(path, file.get()), '\0');
    read_bytes(path, file.get(), bytes.data(), bytes.size());
    bytes.resize(std::min(bytes.find('\0'), bytes.size()));
    return UString(bytes);
}

}  // namespace Kvl
