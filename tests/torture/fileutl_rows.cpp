#include "rows.h"
#include "texts.h"

#include "support/scratch.h"

#include <kvutil/fileutl.h>

namespace torture {

using Kvl::Fileutl;
using Kvl::UString;

namespace {

/// The temporary directory of the process.
const scratch_t& directory()
{
    static const scratch_t made;
    return made;
}

std::size_t objects()
{
    return directory().names().size();
}

}  // namespace

/// What there is in the directory and in the table; a recorded object when it says so.
struct objects_t {
    explicit objects_t(bool with_one) : path(with_one ? Fileutl::create_tmp_file(LONG, 7) : LONG) {}
    ~objects_t() { Fileutl::delete_tmp_files(0); }
    const UString path;
};

static std::string words(const objects_t&)
{
    return std::to_string(objects()) + " objects";
}

/// Removes what was made outside of the table.
struct unrecorded_t {
    ~unrecorded_t()
    {
        for (const std::string& name : directory().names())
            std::filesystem::remove(directory() / name);
    }
};

static std::string words(const unrecorded_t&)
{
    return std::to_string(objects()) + " objects";
}

namespace {

std::unique_ptr<objects_t> none()
{
    return std::make_unique<objects_t>(false);
}

std::unique_ptr<objects_t> one()
{
    return std::make_unique<objects_t>(true);
}

}  // namespace

// Each creation begins at the number of the last one, so what is made is shown by its length.
rows_t fileutl_rows()
{
    setenv("TMP", directory().path.c_str(), 1);
    rows_t rows("fileutl.h");
    rows.add({"Fileutl::sys_tmpdir()"}, [] { return Fileutl::sys_tmpdir(); })
        .and_in_new_processes()
        .may_need_none();
    rows.add(
        {"Fileutl::make_tmp_object(UString const&, bool)"},
        [] { return std::make_unique<unrecorded_t>(); },
        [](auto&) { Fileutl::make_tmp_object(LONG, false); });
    rows.add(
        {"Fileutl::make_tmp_object(UString const&, bool)"},
        [] { return std::make_unique<unrecorded_t>(); },
        [](auto&) { Fileutl::make_tmp_object(LONG, true); });
    rows.add({"Fileutl::make_tmp_object(UString const&, bool)"},
             [] { Fileutl::make_tmp_object(u"no/such/directory/" + LONG, true); });
    rows.add({"Fileutl::create_tmp_file(unsigned int)"}, none,
             [](auto&) { Fileutl::create_tmp_file(1); })
        .changes_the_world();
    rows.add({"Fileutl::create_tmp_file(UString const&, unsigned int)"}, none,
             [](auto&) { Fileutl::create_tmp_file(LONG, 1); })
        .changes_the_world();
    rows.add({"Fileutl::set_file_id(UString const&, unsigned int)"}, none,
             [](auto& o) { Fileutl::set_file_id(o->path, 5); })
        .changes_the_world();
    rows.add({"Fileutl::set_file_id(UString const&, unsigned int)"}, one,
             [](auto& o) { Fileutl::set_file_id(o->path, 5); })
        .changes_the_world()
        .may_need_none();
    rows.add({"Fileutl::delete_tmp_file(UString const&)"}, one,
             [](auto& o) { Fileutl::delete_tmp_file(o->path); })
        .changes_the_world();
    rows.add({"Fileutl::delete_tmp_files(unsigned int)"}, one,
             [](auto&) { Fileutl::delete_tmp_files(7); })
        .changes_the_world();
    return rows;
}

}  // namespace torture
