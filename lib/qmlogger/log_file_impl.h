#ifndef QMLOGGER_LOG_FILE_IMPL_H
#define QMLOGGER_LOG_FILE_IMPL_H

#include "log_line_impl.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace Log::FileImpl {

/// Owns a file descriptor.
class descriptor_t {
public:
    explicit descriptor_t(int number = -1) noexcept : number_(number) {}
    descriptor_t(descriptor_t&& o) noexcept : number_(std::exchange(o.number_, -1)) {}
    descriptor_t& operator=(descriptor_t&& o) noexcept
    {
        std::swap(number_, o.number_);
        return *this;
    }
    ~descriptor_t();

    int number() const { return number_; }
    bool is_open() const { return number_ >= 0; }

private:
    int number_;
};

/// A log file that is appended to, one write for each line, and rotated. Several processes may
/// append to and rotate the same one. Nothing here throws after it has been opened.
class log_file {
public:
    /// @param limit_bytes  the size that the file does not exceed; 0 for no limit
    /// @return             nothing when the file cannot be opened
    /// @throws std::bad_alloc
    static std::optional<log_file> open(const std::string& program, const std::string& directory,
                                        std::uint64_t limit_bytes);

    /// Appends a whole line.
    /// @param line  in pieces, which are written in one go
    /// @param now  tells when to look after a file that someone else has moved or removed
    /// @return     0, or the error for which the line, or its end, was lost
    int append(const LineImpl::pieces_t& line, std::chrono::system_clock::time_point now) noexcept;

private:
    log_file(descriptor_t directory, const std::string& program, std::uint64_t limit_bytes);

    bool open_anew() noexcept;
    void look_after(std::chrono::system_clock::time_point now) noexcept;
    void follow_name() noexcept;
    bool fits(std::size_t size) const noexcept;
    void make_room(std::size_t size) noexcept;
    bool rename_all() noexcept;
    int write_all(const LineImpl::pieces_t& pieces) noexcept;

    descriptor_t directory_;
    descriptor_t file_;
    std::string names_[6];  // the file's, and those of the old files, newest first
    std::uint64_t limit_bytes_;
    std::uint64_t size_bytes_ = 0;
    bool is_rotated_ = false;  // whether this is a file of which there can be old ones
    bool is_torn_ = false;     // whether the file ends within a line
    std::int64_t looked_after_ = 0;
    bool may_rotate_ = true;  // until the next look, when it failed
};

}  // namespace Log::FileImpl

#endif
