#include "rows.h"
#include "texts.h"

#include "support/credentials_model.h"
#include "support/files.h"
#include "support/scratch.h"

#include <kvutil/credentials.h>

#include <cstdio>

namespace torture {

using Kvl::Credentials;
using Kvl::Identity;
using Kvl::UString;
using Kvl::UtlFileIoPtr;

namespace {

Identity identity()
{
    return model::identity(3, NARROW);
}

// ---- identities ----

void add_identities(rows_t& rows)
{
    static const Identity source = model::identity(7, OTHER_NARROW + NARROW);
    static const UString text = source.str();
    static const UString bad_text = UString(u"5:") + LONG;
    rows.add({"Identity::Identity()", "Identity::Identity(Identity&&)",
              "Identity::operator=(Identity&&)", "Identity::operator==(Identity const&) const"},
             identity,
             [](Identity& i) {
                 Identity moved(std::move(i));
                 i = Identity();
                 i = std::move(moved);
                 return i == source;
             })
        .needs_none();
    rows.add({"Identity::Identity(short, unsigned char*)"}, [] {
        return Identity(2, new Identity::identity_t[3]{1, 2, 3});
    });
    rows.add({"Identity::Identity(short, Identity::type_t, char const*)"},
             [] { return Identity(100, Identity::type_t(1), NARROW.c_str()); });
    rows.add({"Identity::Identity(Identity const&)"}, [] { return Identity(source); });
    rows.add({"Identity::operator=(Identity const&)"}, identity, [](Identity& i) { i = source; });
    rows.add({"Identity::str() const"}, [] { return source.str(); });
    rows.add({"Identity::from_str(UString const&)"}, [] { return Identity::from_str(text); });
    rows.add({"Identity::from_str(UString const&)"}, [] { return Identity::from_str(bad_text); });
}

// ---- credentials ----

Credentials credentials()
{
    Credentials c;
    c.text1 = alias_of_units();
    c.text2 = alias_of_units();
    c.text3 = alias_of_units();
    c.user = c.primary_group = identity();
    c.groups.assign(3, identity());
    return c;
}

Credentials other_credentials()
{
    Credentials c;
    c.groups.assign(1, identity());
    return c;
}

void add_credentials(rows_t& rows)
{
    static const Credentials source = credentials();
    static const Identity unknown = model::identity(9, OTHER_NARROW);
    rows.add({"Credentials::Credentials()", "Credentials::Credentials(Credentials&&)",
              "Credentials::operator=(Credentials&&)",
              "Credentials::in_group_list(Identity const&) const"},
             credentials,
             [](Credentials& c) {
                 Credentials moved(std::move(c));
                 c = Credentials();
                 c = std::move(moved);
                 return c.in_group_list(unknown);
             })
        .needs_none();
    rows.add({"Credentials::Credentials(Credentials const&)"}, [] { return Credentials(source); });
    rows.add({"Credentials::operator=(Credentials const&)"}, other_credentials,
             [](Credentials& c) { c = source; });
}

// ---- files ----

}  // namespace

/// A directory with one file, or none.
struct files_t {
    files_t() = default;
    explicit files_t(const std::string& content) { set_content(path, content); }
    scratch_t directory;
    const std::string path = directory / NARROW;
};

static std::string words(const files_t& files)
{
    std::string all;
    for (const std::string& name : files.directory.names())
        all += name + content_of(files.directory / name);
    return all;
}

namespace {

std::string whole_file()
{
    const std::string text = model::text_record(NARROW);
    return model::file(credentials()) + text + text + text;
}

void add_writing(rows_t& rows)
{
    static const Credentials source = credentials();
    rows.add(
        {"Credentials::write_to_file(std::string const&) const"},
        [] { return std::make_unique<files_t>("old"); },
        [](const auto& files) { source.write_to_file(files->path); });
    rows.add(
        {"Credentials::write_to_file(std::string const&) const"},
        [] { return std::make_unique<files_t>(); },
        [](const auto& files) { source.write_to_file(files->path); });
    rows.add({"Credentials::write_to_file(std::string const&) const"},
             [] { source.write_to_file("/no/such/" + NARROW); });
}

/// What was read before a failure stays read, so the object is not what is shown; the result is.
void add_reading(rows_t& rows)
{
    static const files_t whole(whole_file());
    static const files_t cut(whole_file().substr(0, 500));
    rows.add({"Credentials::read_from_file(std::string const&, bool)"}, [] {
        Credentials c;
        c.read_from_file(whole.path, true);
        return c;
    });
    rows.add({"Credentials::read_from_file(std::string const&, bool)"},
             [] { Credentials().read_from_file(cut.path, true); });
    rows.add({"Credentials::read_from_file(std::string const&, bool)"},
             [] { Credentials().read_from_file("/no/such/" + NARROW, false); });
}

}  // namespace

struct stream_t {
    const files_t files{model::text_record(NARROW)};
    UtlFileIoPtr file{std::fopen(files.path.c_str(), "rb")};
};

static std::string words(const stream_t& stream)
{
    return stream.file.get() == nullptr ? "closed" : "open";
}

namespace {

void add_streams(rows_t& rows)
{
    rows.add(
        {"Credentials::read_string(std::string const&, UtlFileIoPtr&)"},
        [] { return std::make_unique<stream_t>(); },
        [](auto& stream) {
            std::rewind(stream->file.get());
            return Credentials::read_string(stream->files.path, stream->file);
        });
    rows.add(
            {"UtlFileIoPtr::release()", "UtlFileIoPtr::close()"},
            [] { return std::make_unique<stream_t>(); },
            [](auto& stream) {
                std::FILE* const file = stream->file.release();
                return UtlFileIoPtr(file).close();
            })
        .needs_none();
}

}  // namespace

rows_t credentials_rows()
{
    rows_t rows("credentials.h");
    add_identities(rows);
    add_credentials(rows);
    add_writing(rows);
    add_reading(rows);
    add_streams(rows);
    return rows;
}

}  // namespace torture
