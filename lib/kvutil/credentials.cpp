#include <kvutil/credentials.h>

#include "file_content_impl.h"
#include "file_failure_impl.h"
#include "file_source_impl.h"
#include "uncancelled_impl.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <optional>
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

void write_bytes(const std::string& path, file_sink_t& sink, const unsigned char* bytes,
                 std::size_t size)
{
    if (!sink.write(bytes, size))
        fail_on_file(MSG_FILE_NOT_WRITTEN, path, errno);
}

// Deliberate: a number beyond 65535 loses its upper bits.
number_t little_endian(std::size_t number)
{
    return {static_cast<unsigned char>(number), static_cast<unsigned char>(number >> 8)};
}

void write_record(const std::string& path, file_sink_t& sink, const Identity& identity)
{
    const std::size_t size = static_cast<unsigned short>(identity.length());
    const number_t length = little_endian(size);
    const record_head_t head = {length[0], length[1], identity.type()};
    write_bytes(path, sink, head.data(), head.size());
    if (size != 0)
        write_bytes(path, sink, identity.bits(), size);
}

void write_records(const std::string& path, file_sink_t& sink, const Credentials& credentials)
{
    const number_t count = little_endian(credentials.groups.size());
    write_bytes(path, sink, count.data(), count.size());
    write_record(path, sink, credentials.user);
    write_record(path, sink, credentials.primary_group);
    for (const Identity& group : credentials.groups)
        write_record(path, sink, group);
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
    set_file_content(path, [&](file_sink_t& sink) { write_records(path, sink, *this); });
}

// ---- reading ----

namespace {

// Each says whether all of it was there; otherwise `errno` says why not, and 0 that the file ended.
// Only who has closed the file throws, so that there is little to unwind.

/// A C stream as a source like file_source_t.
class stream_source_t {
public:
    explicit stream_source_t(std::FILE* file) noexcept : file_(file) {}

    bool read(void* to, std::size_t size)
    {
        char* rest = static_cast<char*>(to);
        for (;;) {
            errno = 0;
            const std::size_t got = std::fread(rest, 1, size, file_);
            if (got == size)
                return true;
            // A signal is no failure.
            if (errno != EINTR || std::ferror(file_) == 0)
                return false;
            std::clearerr(file_);
            rest += got;
            size -= got;
        }
    }

private:
    std::FILE* const file_;
};

template <class Source>
bool read_number(Source& source, std::size_t& result)
{
    number_t number;
    const bool is_whole = source.read(number.data(), number.size());
    result = static_cast<std::size_t>(number[0] | number[1] << 8);
    return is_whole;
}

// In the file, as in the block, the bits follow the type.
bool read_record(file_source_t& source, Identity& result)
{
    std::size_t length = 0;
    if (!read_number(source, length))
        return false;
    auto block = std::make_unique_for_overwrite<Identity::identity_t[]>(length + 1);
    if (!source.read(block.get(), length + 1))
        return false;
    // Deliberate: from 32768 on the length becomes negative.
    result = Identity(static_cast<short>(length), block.release());
    return true;
}

bool read_records(file_source_t& source, Credentials& credentials)
{
    std::size_t count = 0;
    if (!read_number(source, count))
        return false;
    credentials.groups.clear();
    credentials.groups.reserve(count);
    if (!read_record(source, credentials.user) || !read_record(source, credentials.primary_group))
        return false;
    for (; count > 0; --count) {
        Identity group;
        if (!read_record(source, group))
            return false;
        credentials.groups.push_back(std::move(group));
    }
    return true;
}

template <class Source>
bool read_text(Source& source, UString& result)
{
    std::size_t size = 0;
    if (!read_number(source, size))
        return false;
    Utf8String bytes(size, '\0');
    if (!source.read(bytes.data(), bytes.size()))
        return false;
    bytes.resize(std::min(bytes.find('\0'), bytes.size()));
    result = UString(bytes);
    return true;
}

// Deliberate: the file has the third text before the second.
bool read_texts(file_source_t& source, Credentials& credentials)
{
    return read_text(source, credentials.text1) && read_text(source, credentials.text3) &&
           read_text(source, credentials.text2);
}

descriptor_t open_to_read(const std::string& path)
{
    refuse_zero_byte(path);
    descriptor_t descriptor = open_file(path.c_str(), O_RDONLY);
    if (!descriptor.is_open())
        fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
    return descriptor;
}

/// Opens, reads and closes.
/// @return  nothing, or `errno` of what ended the reading
std::optional<int> read_file(const std::string& path, bool read_strings, Credentials& result)
{
    file_source_t source(open_to_read(path));
    if (read_records(source, result) && (!read_strings || read_texts(source, result)))
        return std::nullopt;
    return errno;
}

}  // namespace

void Credentials::read_from_file(const std::string& path, bool read_strings)
{
    if (const std::optional<int> error = read_file(path, read_strings, *this))
        fail_on_file(MSG_FILE_NOT_READ, path, *error);
}

UString Credentials::read_string(const std::string& path, UtlFileIoPtr& file)
{
    if (file.get() == nullptr)
        fail_on_file(MSG_FILE_NOT_READ, path, EBADF);
    stream_source_t source(file.get());
    UString text;
    if (!read_text(source, text))
        fail_on_file(MSG_FILE_NOT_READ, path, errno);
    return text;
}

}  // namespace Kvl
