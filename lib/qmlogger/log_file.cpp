#include "log_file_impl.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Log::FileImpl {
namespace {

constexpr mode_t FILE_MODE = 0640;
constexpr std::string_view SUFFIX = ".log";
/// What stands before the suffix in the longest of the names.
constexpr std::size_t LONGEST_PROGRAM = NAME_MAX - SUFFIX.size() - 2;

bool is_allowed_in_name(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte != 0x7F && c != '/';
}

/// The file lies in the directory, whatever the program is called.
std::string name_of(const std::string& program)
{
    std::string name = program.empty() ? "kvutil" : program;
    for (char& c : name)
        if (!is_allowed_in_name(c))
            c = '_';
    return name;
}

/// Standard output and its like may be closed in a server; what is printed there later must not
/// end up in the log.
descriptor_t above_standard_ones(descriptor_t descriptor)
{
    if (!descriptor.is_open() || descriptor.number() > STDERR_FILENO)
        return descriptor;
    return descriptor_t(fcntl(descriptor.number(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

descriptor_t open_directory(const std::string& directory)
{
    // A text with a zero byte in it names no directory.
    if (directory.find('\0') != directory.npos)
        return descriptor_t();
    descriptor_t result(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (result.is_open() && faccessat(result.number(), ".", W_OK | X_OK, AT_EACCESS) != 0)
        return descriptor_t();
    return above_standard_ones(std::move(result));
}

/// Devices serve as log files too (/dev/null). The others would block the writer or end it.
bool can_be_written_to(const struct stat& status)
{
    return S_ISREG(status.st_mode) || S_ISCHR(status.st_mode);
}

/// Opened without waiting, because a FIFO would wait for its reader.
descriptor_t open_file(int directory, const std::string& name, struct stat& status)
{
    constexpr int FLAGS = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    descriptor_t file =
        above_standard_ones(descriptor_t(openat(directory, name.c_str(), FLAGS, FILE_MODE)));
    if (!file.is_open() || fstat(file.number(), &status) != 0 || !can_be_written_to(status))
        return descriptor_t();
    fcntl(file.number(), F_SETFL, O_APPEND);
    return file;
}

bool is_same_file(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Keeps other processes from rotating the file too; never waits. Given up when the file is closed.
bool lock_file(int file)
{
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    return fcntl(file, F_SETLK, &whole) == 0;
}

void unlock_file(int file)
{
    struct flock whole = {};
    whole.l_type = F_UNLCK;
    whole.l_whence = SEEK_SET;
    fcntl(file, F_SETLK, &whole);
}

/// The pieces of a line of which a write may take a part.
class unwritten_t {
public:
    explicit unwritten_t(const LineImpl::pieces_t& pieces)
    {
        for (const std::string_view piece : pieces)
            if (!piece.empty())
                pieces_[end_++] = {const_cast<char*>(piece.data()), piece.size()};
    }

    bool is_empty() const { return begin_ == end_; }

    /// Most lines are one piece, for which the simpler call costs less.
    ssize_t write_to(int file) const
    {
        const iovec* const first = pieces_ + begin_;
        return end_ - begin_ == 1 ? ::write(file, first->iov_base, first->iov_len)
                                  : ::writev(file, first, end_ - begin_);
    }

    void remove(std::size_t bytes)
    {
        for (; begin_ < end_ && bytes >= pieces_[begin_].iov_len; ++begin_)
            bytes -= pieces_[begin_].iov_len;
        if (bytes == 0)
            return;
        iovec& first = pieces_[begin_];
        first = {static_cast<char*>(first.iov_base) + bytes, first.iov_len - bytes};
    }

private:
    iovec pieces_[std::tuple_size_v<LineImpl::pieces_t>];
    int begin_ = 0;
    int end_ = 0;
};

std::int64_t second_of(std::chrono::system_clock::time_point time)
{
    return std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
}

}  // namespace

descriptor_t::~descriptor_t()
{
    if (is_open())
        ::close(number_);
}

std::optional<log_file> log_file::open(const std::string& program, const std::string& directory,
                                       std::uint64_t limit_bytes)
{
    if (program.size() > LONGEST_PROGRAM)
        return std::nullopt;
    log_file result(open_directory(directory), name_of(program), limit_bytes);
    if (!result.directory_.is_open() || !result.open_anew())
        return std::nullopt;
    return result;
}

log_file::log_file(descriptor_t directory, const std::string& program, std::uint64_t limit_bytes)
    : directory_(std::move(directory)), limit_bytes_(limit_bytes)
{
    names_[0] = program + std::string(SUFFIX);
    for (std::size_t i = 1; i < std::size(names_); ++i)
        names_[i] = program + "." + std::to_string(i) + std::string(SUFFIX);
}

int log_file::append(const LineImpl::pieces_t& line,
                     std::chrono::system_clock::time_point now) noexcept
{
    const std::size_t size = line[0].size() + line[1].size() + line[2].size();
    look_after(now);
    if (!fits(size))
        make_room(size);
    if (is_torn_) {
        if (const int error = write_all({"\n"}))
            return error;
        is_torn_ = false;
    }
    return write_all(line);
}

/// On failure the present file stays.
bool log_file::open_anew() noexcept
{
    struct stat status = {};
    descriptor_t file = open_file(directory_.number(), names_[0], status);
    if (!file.is_open())
        return false;
    file_ = std::move(file);
    is_rotated_ = S_ISREG(status.st_mode);
    is_torn_ = false;
    size_bytes_ = static_cast<std::uint64_t>(status.st_size);
    return true;
}

/// Once a second at most.
void log_file::look_after(std::chrono::system_clock::time_point now) noexcept
{
    if (second_of(now) == looked_after_)
        return;
    looked_after_ = second_of(now);
    may_rotate_ = true;
    follow_name();
}

/// Another process, or a rotating tool, may have moved the file, or have appended to it.
void log_file::follow_name() noexcept
{
    struct stat named = {};
    struct stat present = {};
    if (fstat(file_.number(), &present) != 0)
        return;
    size_bytes_ = static_cast<std::uint64_t>(present.st_size);
    if (fstatat(directory_.number(), names_[0].c_str(), &named, 0) != 0 ||
        !is_same_file(named, present))
        open_anew();
}

/// A line that is larger than any file may be gets one of its own.
bool log_file::fits(std::size_t size) const noexcept
{
    return limit_bytes_ == 0 || !is_rotated_ || size_bytes_ == 0 ||
           size_bytes_ + size <= limit_bytes_;
}

void log_file::make_room(std::size_t size) noexcept
{
    if (!may_rotate_ || !lock_file(file_.number()))
        return;
    const int locked = file_.number();
    follow_name();
    if (file_.number() == locked && !fits(size))
        may_rotate_ = rename_all() && open_anew();
    if (file_.number() == locked)
        unlock_file(locked);
}

/// Moves every file to the name of the next older one. @return false when the newest stays.
bool log_file::rename_all() noexcept
{
    const int directory = directory_.number();
    for (std::size_t i = std::size(names_) - 1; i > 1; --i)
        renameat(directory, names_[i - 1].c_str(), directory, names_[i].c_str());
    return renameat(directory, names_[0].c_str(), directory, names_[1].c_str()) == 0;
}

int log_file::write_all(const LineImpl::pieces_t& pieces) noexcept
{
    unwritten_t unwritten(pieces);
    while (!unwritten.is_empty()) {
        const ssize_t written = unwritten.write_to(file_.number());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : EIO;
        is_torn_ = true;
        size_bytes_ += static_cast<std::size_t>(written);
        unwritten.remove(static_cast<std::size_t>(written));
    }
    is_torn_ = false;
    return 0;
}

}  // namespace Log::FileImpl
