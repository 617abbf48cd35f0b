#ifndef KVUTIL_EXAMPLES_OUTPUT_H
#define KVUTIL_EXAMPLES_OUTPUT_H

#include <kvutil/ustring.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

/// A file that is complete when it appears: a temporary file beside it takes its place at the end,
/// or is removed when that is not reached.
class Replacement {
public:
    /// @param path  a regular file, or nothing yet; of a symbolic link the file that it leads to is
    ///              replaced
    /// @throws std::system_error, STPException  no file can be made beside it
    explicit Replacement(const std::filesystem::path& path);
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    /// @return  where to write until then
    std::string temporary() const { return temporary_.utf8_str(); }

    /// Takes the place of the file, with its permissions.
    /// @throws std::system_error  it cannot: the file stays as it was
    void finish();

private:
    std::filesystem::path path_;
    Kvl::UString temporary_;
};

/// Where the answers go: standard output, or a file that is replaced at the end. What is no regular
/// file (a device, a pipe, a link to nothing) is written where it is.
class Output {
public:
    /// @param path  the file; standard output without one
    /// @throws std::system_error, STPException  it cannot be written
    explicit Output(const std::optional<std::string>& path);

    /// Each text goes out at once, so that memory stays constant and a full disk is noticed.
    /// @throws std::system_error  it cannot be written
    void write(const std::string& text);

    /// Everything has been written.
    /// @throws std::system_error  it cannot be stored
    void finish();

private:
    std::optional<Replacement> replacement_;
    std::ofstream file_;
    std::ostream& stream_;
};

#endif
