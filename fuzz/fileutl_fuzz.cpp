// Temporary files under any names: what is created is new, the table holds what a plain map would,
// and once everything is deleted the directory is empty.
// The input is a line for each operation: its letter, a digit for the id, the name.

#include <kvutil/fileutl.h>
#include <kvutil/stpexception.h>

#include "property.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <unistd.h>

using Kvl::CriticalSection;
using Kvl::Fileutl;
using Kvl::UString;

namespace {

namespace fs = std::filesystem;

typedef std::map<UString, unsigned int> model_t;

/// A directory of this process, in memory where there is such a place, which becomes the one for
/// temporary files. Removed at exit.
class directory_t {
public:
    directory_t()
    {
        name_ = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        name_ += "/fileutl-fuzz-XXXXXX";
        require(mkdtemp(name_.data()) != nullptr);
        setenv("TMP", name_.c_str(), 1);
    }
    ~directory_t() { fs::remove_all(name_); }
    bool is_empty() const { return fs::is_empty(name_); }

private:
    std::string name_;
};

/// Kept within its directory: without separators, and with a letter before any dots.
UString name_of(std::string_view bytes)
{
    std::string name = "n";
    for (const char c : bytes)
        name += c == '/' ? '_' : c;
    return UString(Kvl::Utf8String(name));
}

bool is_new(const model_t& model, const UString& path)
{
    return model.find(path) == model.end();
}

void create(model_t& model, char operation, unsigned int id, const UString& name)
{
    try {
        const UString path =
            operation == 'd' ? Fileutl::create_tmp_file(name, id) : Fileutl::create_tmp_file(id);
        require(is_new(model, path));
        model[path] = id;
    } catch (const Kvl::STPException& e) {
        require(e.stp_reason_code() == 40);  // a name that is too long
    }
}

void drop(model_t& model, unsigned int id)
{
    for (auto entry = model.begin(); entry != model.end();)
        entry = id == 0 || entry->second == id ? model.erase(entry) : std::next(entry);
}

void run(model_t& model, std::string_view line)
{
    if (line.size() < 2)
        return;
    const auto id = static_cast<unsigned int>(line[1]) % 4;
    const UString name = name_of(line.substr(2));
    switch (line[0]) {
    case 'c':
    case 'd':
        create(model, line[0], id, name);
        break;
    case 's':
        if (!model.empty())
            Fileutl::set_file_id(model.begin()->first, model.begin()->second = id);
        break;
    case 'r':
        if (!model.empty()) {
            Fileutl::delete_tmp_file(model.begin()->first);
            model.erase(model.begin());
        }
        break;
    case 'x':
        Fileutl::delete_tmp_files(id);
        drop(model, id);
        break;
    default:
        break;
    }
}

void check_table(const model_t& model)
{
    const CriticalSection section(Fileutl::g_lock);
    require(Fileutl::g_tmp_table.size() == model.size());
    auto expected = model.begin();
    for (const auto& [path, info] : Fileutl::g_tmp_table) {
        require(path == expected->first && info.id == expected->second);
        ++expected;
    }
}

// An object that is not recorded is removed by its path, whatever its prefix was.
void check_unrecorded(std::string_view prefix, bool is_dir)
{
    try {
        const UString path = Fileutl::make_tmp_object(name_of(prefix), is_dir);
        Fileutl::delete_tmp_file(path);
    } catch (const Kvl::STPException& e) {
        require(e.stp_reason_code() == 40);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const directory_t directory;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    model_t model;
    for (std::size_t begin = 0; begin < size;) {
        const std::size_t end = std::min(input.find('\n', begin), size);
        run(model, input.substr(begin, end - begin));
        check_table(model);
        begin = end + 1;
    }
    check_unrecorded(input, size % 2 == 0);
    Fileutl::delete_tmp_files(0);
    check_table({});
    require(directory.is_empty());
    return 0;
}
