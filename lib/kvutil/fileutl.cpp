#include "failure_impl.h"
#include "fileutl_impl.h"
#include "latin1_impl.h"
#include "platform_text_impl.h"
#include "sys_calls_impl.h"
#include "uncancelled_impl.h"
#include "ustring_impl.h"

#include <kvutil/pname.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Kvl {

using FileutlImpl::change_lock;
using FileutlImpl::table_t;

// ---- the temporary directory ----

namespace {

constexpr char LAST_CANDIDATE[] = "/tmp";

[[noreturn]] void reject_path(const UString& path)
{
    throw_runtime(MSG_CHARSET_CONVERSION, path);
}

bool is_writable(const char* directory)
{
    return sys_calls.access(directory, W_OK) == 0;
}

std::string first_writable_candidate()
{
    for (const char* const variable : {"TMP", "TMPDIR"})
        if (const char* const value = std::getenv(variable); value != nullptr && is_writable(value))
            return value;
    // Deliberate: asked twice before it is given up, which does no harm.
    if (is_writable(LAST_CANDIDATE) || is_writable(LAST_CANDIDATE))
        return LAST_CANDIDATE;
    reject_path(platform_text(LAST_CANDIDATE));
}

UString find_tmpdir()
{
    const std::string candidate = first_writable_candidate();
    Pname directory(UString(candidate.c_str(), "DEFAULT"));
    directory.strip_trailing_separator();
    if (directory.path().empty())
        reject_path(platform_text(candidate));
    return directory.path();
}

// Terminated, so that no copy needs to write into units that it shares with other threads' copies.
std::unique_ptr<const UString> terminated(const UString& text)
{
    auto owned = std::make_unique<const UString>(text);
    owned->c_str();
    return owned;
}

/// Found once, terminated and never changed again.
const UString& tmpdir()
{
    // Never destroyed: other threads may still make files while the process ends.
    static constinit std::atomic<const UString*> cached{nullptr};
    const UString* directory = cached.load(std::memory_order_acquire);
    if (directory == nullptr) {
        auto mine = terminated(find_tmpdir());
        // When another thread was faster, its directory is the one that stays.
        if (cached.compare_exchange_strong(directory, mine.get()))
            directory = mine.release();
    }
    return *directory;
}

}  // namespace

UString Fileutl::sys_tmpdir()
{
    return tmpdir();
}

// ---- new objects ----

namespace {

constexpr char16_t SEPARATOR = u'/';
constexpr int MAX_SUFFIX = 9999;
constexpr int MAX_RETRIES = 9999;

/// The number that the next creation tries first. Threads may advance it under each other's feet:
/// that a path is new is decided by the system.
constinit std::atomic<int> last_suffix{0};

void advance_suffix()
{
    int suffix = last_suffix.load(std::memory_order_relaxed);
    while (!last_suffix.compare_exchange_weak(suffix, suffix < MAX_SUFFIX ? suffix + 1 : 0,
                                              std::memory_order_relaxed)) {
    }
}

// Each returns 0, or the value of errno.

int make_directory(const char* path)
{
    return sys_calls.mkdir(path, 0777) == 0 ? 0 : errno;
}

int make_file(const char* path)
{
    // Cancelled here, the thread would leave a file that nobody removes.
    const uncancelled_t uncancelled;
    const int descriptor = sys_calls.open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor == -1)
        return errno;
    // Nothing was written that a failure could lose, and Linux closes also when it is interrupted.
    sys_calls.close(descriptor);
    return 0;
}

int make_object(const char* path, bool is_dir)
{
    int error = 0;
    do
        error = is_dir ? make_directory(path) : make_file(path);
    while (error == EINTR);
    return error;
}

[[noreturn]] void refuse(const UString& reason)
{
    raise_refusal(MSG_TMP_OBJECT_NOT_CREATED, reason);
}

/// A path in UTF-8. A short one of ASCII, as nearly all are, is copied where it is needed; that
/// takes neither memory nor a conversion, which is half of the work between two system calls.
class utf8_path_t {
public:
    utf8_path_t() = default;
    explicit utf8_path_t(const UString& path) { set(path); }

    void set(const UString& path)
    {
        is_short_ = set_short(view_of(path));
        if (!is_short_)
            long_ = path.utf8_str();
    }

    /// Whether there is no such path, or a text without a form in UTF-8.
    bool empty() const { return *c_str() == '\0'; }
    const char* c_str() const { return is_short_ ? short_.data() : long_.c_str(); }

private:
    /// @return  whether it fits and is ASCII without U+0000
    bool set_short(std::u16string_view path)
    {
        if (path.size() >= short_.size())
            return false;
        const narrowed_t narrowed = narrow(path, LAST_OF_ASCII, short_.data());
        short_[narrowed.units] = '\0';
        return narrowed.units == path.size() && !narrowed.has_zero;
    }

    std::array<char, 96> short_;
    bool is_short_ = false;
    std::string long_;
};

/// The path that has that number.
UString numbered_path(std::u16string_view directory, std::u16string_view prefix, int suffix)
{
    const std::string digits = std::to_string(suffix);
    const std::size_t length = directory.size() + 1 + prefix.size() + digits.size();
    return owned_text_t::make(length, [&](char16_t* to) {
        to = std::copy(directory.begin(), directory.end(), to);
        *to++ = SEPARATOR;
        to = std::copy(prefix.begin(), prefix.end(), to);
        std::copy(digits.begin(), digits.end(), to);
    });
}

/// A new file or directory, removed again unless it is kept.
class new_object_t {
public:
    new_object_t(const UString& prefix, bool is_dir)
    {
        const UString& directory = tmpdir();
        int retries = 0;
        while (const int error = try_next(view_of(directory), view_of(prefix), is_dir)) {
            advance_suffix();
            if (error != EEXIST)
                refuse(error_text(error));
            if (++retries > MAX_RETRIES)
                refuse(UString(u"too many retries"));
        }
    }

    ~new_object_t()
    {
        if (!is_kept_)
            sys_calls.remove(bytes_.c_str());
    }

    new_object_t(const new_object_t&) = delete;
    new_object_t& operator=(const new_object_t&) = delete;

    const UString& path() const { return path_; }

    UString keep() noexcept
    {
        is_kept_ = true;
        return std::move(path_);
    }

private:
    int try_next(std::u16string_view directory, std::u16string_view prefix, bool is_dir)
    {
        path_ = numbered_path(directory, prefix, last_suffix.load(std::memory_order_relaxed));
        bytes_.set(path_);
        return make_object(bytes_.c_str(), is_dir);
    }

    UString path_;
    utf8_path_t bytes_;
    bool is_kept_ = false;
};

void record(const UString& path, Fileutl::tmp_file_info_t info)
{
    UString key = path;
    key.c_str();
    const CriticalSection section(Fileutl::g_lock);
    const CriticalSection change(change_lock);
    Fileutl::g_tmp_table.insert_or_assign(std::move(key), info);
}

}  // namespace

UString Fileutl::make_tmp_object(const UString& prefix, bool is_dir)
{
    return new_object_t(prefix, is_dir).keep();
}

UString Fileutl::create_tmp_file(unsigned int id)
{
    new_object_t file(constant_text_t::make(u"TMP"), false);
    record(file.path(), {.in_dir = false, .id = id});
    return file.keep();
}

UString Fileutl::create_tmp_file(const UString& name, unsigned int id)
{
    new_object_t directory(constant_text_t::make(u"DIR"), true);
    UString path = directory.path();
    path.append(SEPARATOR).append(name);
    record(path, {.in_dir = true, .id = id});
    directory.keep();
    return path;
}

void Fileutl::set_file_id(const UString& path, unsigned int id)
{
    const CriticalSection section(g_lock);
    const auto entry = g_tmp_table.find(path);
    if (entry != g_tmp_table.end())
        entry->second.id = id;
    else
        record(path, {.in_dir = false, .id = id});
}

// ---- deletion ----

namespace {

/// A path as the system takes it.
class platform_path_t {
public:
    platform_path_t() = default;
    explicit platform_path_t(const UString& path)
    {
        if (is_utf8_platform())
            utf8_.set(path);
        // A text keeps its converter, so the one that converts is a copy that does not stay.
        if (utf8_.empty())
            converted_ = UString(path).std_str("DEFAULT", failed_);
    }

    bool failed() const { return failed_; }
    const char* c_str() const { return utf8_.empty() ? converted_.c_str() : utf8_.c_str(); }

private:
    /// Where it is, only what is no text needs a converter.
    static bool is_utf8_platform() { return std::strcmp(UString::default_charset(), "UTF-8") == 0; }

    utf8_path_t utf8_;
    std::string converted_;
    bool failed_ = false;
};

/// What it takes to delete an object, made before anything is deleted: memory cannot run out
/// half-way.
class deletion_t {
public:
    /// @param path   outlives this
    /// @param entry  that of `path`, or the table's end
    deletion_t(const UString& path, table_t::iterator entry) KVUTIL_REQUIRES(Fileutl::g_lock)
        : path_(path), entry_(entry), is_recorded_(entry != Fileutl::g_tmp_table.end()),
          in_dir_(is_recorded_ && entry->second.in_dir), object_(path)
    {
        if (in_dir_)
            directory_ = platform_path_t(directory_of(path));
    }

    void run() const KVUTIL_REQUIRES(Fileutl::g_lock)
    {
        if (object_.failed())
            reject_path(path_);
        sys_calls.remove(object_.c_str());
        if (directory_.failed())
            reject_path(directory_of(path_));
        if (in_dir_)
            sys_calls.rmdir(directory_.c_str());
        if (is_recorded_)
            forget();
    }

private:
    static UString directory_of(const UString& path) { return Pname(path).parent_dir(); }

    void forget() const KVUTIL_REQUIRES(Fileutl::g_lock)
    {
        const CriticalSection change(change_lock);
        Fileutl::g_tmp_table.erase(entry_);
    }

    const UString& path_;
    table_t::iterator entry_;
    bool is_recorded_;
    bool in_dir_;
    platform_path_t object_;
    platform_path_t directory_;
};

}  // namespace

void Fileutl::delete_tmp_file(const UString& path)
{
    const CriticalSection section(g_lock);
    deletion_t(path, g_tmp_table.find(path)).run();
}

void Fileutl::delete_tmp_files(unsigned int id)
{
    const CriticalSection section(g_lock);
    std::vector<deletion_t> deletions;
    for (auto entry = g_tmp_table.begin(); entry != g_tmp_table.end(); ++entry)
        if (id == 0 || entry->second.id == id)
            deletions.emplace_back(entry->first, entry);
    for (const deletion_t& deletion : deletions)
        deletion.run();
}

}  // namespace Kvl
