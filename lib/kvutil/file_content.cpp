#include "file_content_impl.h"

#include "file_failure_impl.h"
#include "sys_calls_impl.h"
#include "uncancelled_impl.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace Kvl {

// ---- what the path names ----

namespace {

constexpr mode_t NEW_FILE_MODE = 0600;
constexpr mode_t MODE_BITS = 07777;

struct target_t {
    descriptor_t
        descriptor;  // open for writing, the content untouched; closed when nothing is there
    struct stat status = {};  // of the descriptor
    bool is_replaceable = false;
};

bool is_same_file(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

constexpr char ACCESS_CONTROL_LIST[] = "system.posix_acl_access";

bool has_access_control_list(const descriptor_t& descriptor)
{
    return sys_calls.fgetxattr(descriptor.number(), ACCESS_CONTROL_LIST, nullptr, 0) >= 0;
}

/// Whether another file can take the place of this one without anybody noticing: it has no other
/// name, is not reached through a symbolic link, its owner is the one whom a new file gets, and
/// it has no access control list, whose mask would become the rights of the group.
bool is_replaceable_file(const std::string& path, const target_t& target)
{
    struct stat named;
    return S_ISREG(target.status.st_mode) && target.status.st_nlink == 1 &&
           target.status.st_uid == geteuid() && sys_calls.lstat(path.c_str(), &named) == 0 &&
           is_same_file(named, target.status) && !has_access_control_list(target.descriptor);
}

/// Whether the path is free; a symbolic link to nowhere is not.
bool is_new_name(const std::string& path)
{
    struct stat named;
    const bool has_leaf = !path.empty() && path.back() != '/';
    return has_leaf && sys_calls.lstat(path.c_str(), &named) < 0 && errno == ENOENT;
}

// A file that may not be written cannot be opened for it. So it is never replaced either.
target_t open_target(const std::string& path)
{
    target_t target;
    target.descriptor = open_file(path.c_str(), O_WRONLY);
    if (target.descriptor.is_open()) {
        if (sys_calls.fstat(target.descriptor.number(), &target.status) < 0)
            fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
        target.is_replaceable = is_replaceable_file(path, target);
    } else {
        if (errno != ENOENT)
            fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
        target.is_replaceable = is_new_name(path);
    }
    return target;
}

}  // namespace

// ---- content ----

namespace {

enum class durability_t { SYNCED, BUFFERED };

/// @return whether the content has reached the disk; otherwise `errno` says why not
bool sync(int descriptor)
{
    return uninterrupted([&] { return sys_calls.fsync(descriptor); }) == 0;
}

/// Writes the content and closes the descriptor.
void fill(const std::string& path, descriptor_t descriptor, const write_content_t& write,
          durability_t durability)
{
    file_sink_t sink(std::move(descriptor));
    write(sink);
    const bool is_synced = durability == durability_t::SYNCED;
    if (!sink.flush() || (is_synced && !sync(sink.number())) || !sink.close())
        fail_on_file(MSG_FILE_NOT_CLOSED, path, errno);
}

/// @return whether there is nothing in it now; otherwise `errno` says why not
bool truncate(int descriptor)
{
    return uninterrupted([&] { return sys_calls.ftruncate(descriptor, 0); }) == 0;
}

void write_in_place(const std::string& path, target_t& target, const write_content_t& write)
{
    if (!target.descriptor.is_open())
        target.descriptor = open_file(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, NEW_FILE_MODE);
    if (!target.descriptor.is_open())
        fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
    if (S_ISREG(target.status.st_mode) && !truncate(target.descriptor.number()))
        fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
    fill(path, std::move(target.descriptor), write, durability_t::BUFFERED);
}

}  // namespace

// ---- replacing ----

namespace {

/// The name of the directory that holds `path`, with a separator behind it.
std::string directory_of(const std::string& path)
{
    const std::size_t separator = path.rfind('/');
    return separator == path.npos ? "./" : path.substr(0, separator + 1);
}

/// A file with a name of its own beside another one. It is removed unless it has taken the other
/// one's place.
class temporary_t {
public:
    explicit temporary_t(const std::string& path)
        : directory_(directory_of(path)), name_(directory_ + PATTERN)
    {
    }
    temporary_t(const temporary_t&) = delete;
    temporary_t& operator=(const temporary_t&) = delete;
    ~temporary_t()
    {
        const int error = errno;  // of the failure that brought us here
        if (is_there_)
            sys_calls.unlink(name_.c_str());
        errno = error;
    }

    /// @return nothing open, and `errno`, when it cannot be created
    descriptor_t create()
    {
        const uncancelled_t whole;
        descriptor_t descriptor(uninterrupted([&] {
            name_.replace(directory_.size(), name_.npos, PATTERN);
            return sys_calls.mkostemp(name_.data(), O_CLOEXEC);
        }));
        is_there_ = descriptor.is_open();
        return descriptor;
    }

    /// @return whether it has become `path`; otherwise `errno` says why not
    bool become(const std::string& path)
    {
        if (sys_calls.rename(name_.c_str(), path.c_str()) < 0)
            return false;
        is_there_ = false;
        sync_directory();
        return true;
    }

private:
    static constexpr char PATTERN[] = ".kvutil-XXXXXX";  // short, so that it is valid anywhere

    // What has been renamed is in place, whether or not the directory reaches the disk in time.
    void sync_directory() const
    {
        const descriptor_t descriptor = open_file(directory_.c_str(), O_RDONLY | O_DIRECTORY);
        if (descriptor.is_open())
            sys_calls.fsync(descriptor.number());
    }

    const std::string directory_;
    std::string name_;
    bool is_there_ = false;
};

/// A directory may give every new file a list. The mode that would be set next would become its
/// mask, so that the list took effect.
bool drop_access_control_list(const descriptor_t& descriptor)
{
    return !has_access_control_list(descriptor) ||
           sys_calls.fremovexattr(descriptor.number(), ACCESS_CONTROL_LIST) == 0;
}

/// Gives a new file owner, group and mode of the one that it is to replace, if there is one.
bool take_rights(const descriptor_t& descriptor, const target_t& target)
{
    if (!target.descriptor.is_open())
        return true;
    const int number = descriptor.number();
    const struct stat& status = target.status;
    const auto change_owner = [&] {
        return sys_calls.fchown(number, status.st_uid, status.st_gid);
    };
    const auto change_mode = [&] { return sys_calls.fchmod(number, status.st_mode & MODE_BITS); };
    return drop_access_control_list(descriptor) && uninterrupted(change_owner) == 0 &&
           uninterrupted(change_mode) == 0;
}

/// Whether `errno` says that here no file can be replaced, although it may be written: the
/// directory is not ours, the path is too long for another name, the file is a mount point, or the
/// file system does not do such things.
bool is_not_allowed_here(int error)
{
    return error == EACCES || error == EPERM || error == ENAMETOOLONG || error == EBUSY ||
           error == EROFS || error == EXDEV || error == ENOSYS || error == EOPNOTSUPP;
}

/// @return whether it could be done; otherwise the file is to be written where it is
bool replace(const std::string& path, const target_t& target, const write_content_t& write)
{
    temporary_t temporary(path);
    descriptor_t descriptor = temporary.create();
    if (!descriptor.is_open() || !take_rights(descriptor, target)) {
        // In /proc, whose names cannot be added to, a new one is said not to exist.
        if (is_not_allowed_here(errno) || errno == ENOENT)
            return false;
        fail_on_file(MSG_FILE_NOT_OPENED, path, errno);
    }
    fill(path, std::move(descriptor), write, durability_t::SYNCED);
    if (!temporary.become(path)) {
        if (is_not_allowed_here(errno))
            return false;
        fail_on_file(MSG_FILE_NOT_CLOSED, path, errno);
    }
    return true;
}

}  // namespace

void set_file_content(const std::string& path, const write_content_t& write)
{
    target_t target = open_target(path);
    if (!target.is_replaceable || !replace(path, target, write))
        write_in_place(path, target, write);
}

}  // namespace Kvl
