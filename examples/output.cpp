#include "output.h"

#include <kvutil/fileutl.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using Kvl::Fileutl;
using Kvl::UString;

namespace fs = std::filesystem;

namespace {

constexpr unsigned int ANSWERS = 1;  // the id of their file among the temporary ones

[[noreturn]] void fail()
{
    throw std::system_error(errno, std::generic_category(), "cannot write the answers");
}

// A file can only be renamed within its file system, so the temporary directory is the one that the
// answers go to. This program has no other temporary files. Another directory would be taken
// silently in place of one that cannot be written. The dot stands for the root, which would be
// empty without its "/".
UString temporary_beside(const fs::path& path)
{
    const fs::path directory = path.parent_path() / ".";
    if (access(directory.c_str(), W_OK) != 0 || setenv("TMP", directory.c_str(), 1) != 0)
        fail();
    return Fileutl::create_tmp_file(ANSWERS);
}

mode_t mode_of_new_files()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// A temporary file can be read by its owner alone.
mode_t mode_for(const fs::path& path)
{
    struct stat old {};
    return stat(path.c_str(), &old) == 0 ? old.st_mode & 07777 : mode_of_new_files();
}

// Otherwise a crash of the machine could leave the new name with nothing behind it.
void sync(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || fsync(descriptor) != 0)
        fail();
    close(descriptor);
}

// A link to a file that is not there yet would itself be replaced.
bool is_replaceable(const fs::path& path)
{
    return fs::is_regular_file(path) || !fs::exists(fs::symlink_status(path));
}

}  // namespace

Replacement::Replacement(const fs::path& path)
    : path_(fs::weakly_canonical(path)), temporary_(temporary_beside(path_))
{
}

// After finish() there is nothing left but an entry in the table of temporary files.
Replacement::~Replacement()
{
    try {
        Fileutl::delete_tmp_files(ANSWERS);
    } catch (...) {
        std::cerr << "request: a temporary file was left beside " << path_ << '\n';
    }
}

void Replacement::finish()
{
    const std::string finished = temporary();
    sync(finished);
    if (chmod(finished.c_str(), mode_for(path_)) != 0 ||
        rename(finished.c_str(), path_.c_str()) != 0)
        fail();
}

Output::Output(const std::optional<std::string>& path) : stream_(path ? file_ : std::cout)
{
    if (!path)
        return;
    if (is_replaceable(*path))
        replacement_.emplace(*path);
    file_.open(replacement_ ? replacement_->temporary() : *path, std::ios::binary);
    if (!file_)
        fail();
}

void Output::write(const std::string& text)
{
    if (!(stream_ << text << std::flush))
        fail();
}

void Output::finish()
{
    if (!file_.is_open())
        return;
    file_.close();
    if (!file_)
        fail();
    if (replacement_)
        replacement_->finish();
}
