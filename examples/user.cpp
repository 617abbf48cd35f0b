#include "user.h"

#include <cerrno>
#include <cstdint>
#include <grp.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <vector>

using Kvl::Credentials;
using Kvl::Identity;
using Kvl::UString;

namespace {

constexpr auto USER = Identity::type_t(1);
constexpr auto GROUP = Identity::type_t(2);

Identity identity(Identity::type_t type, std::uint32_t number)
{
    const char bits[] = {static_cast<char>(number >> 24), static_cast<char>(number >> 16),
                         static_cast<char>(number >> 8), static_cast<char>(number)};
    return Identity(sizeof bits, type, bits);
}

std::vector<gid_t> further_groups()
{
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> groups(count < 0 ? 0 : static_cast<std::size_t>(count));
    if (count < 0 || getgroups(count, groups.data()) < 0)
        throw std::system_error(errno, std::generic_category(), "cannot tell the user's groups");
    return groups;
}

}  // namespace

void make_credentials(const std::string& path)
{
    Credentials credentials;
    credentials.user = identity(USER, getuid());
    credentials.primary_group = identity(GROUP, getgid());
    for (const gid_t group : further_groups())
        credentials.groups.push_back(identity(GROUP, group));
    credentials.write_to_file(path);
}

Identity group_named(const std::string& name)
{
    if (name.find(':') != std::string::npos)
        return Identity::from_str(UString{Kvl::Utf8String(name)});
    const group* const entry = getgrnam(name.c_str());
    if (entry == nullptr)
        throw std::runtime_error("there is no group '" + name + "'");
    return identity(GROUP, entry->gr_gid);
}

Credentials credentials_of(const std::string& path)
{
    Credentials credentials;
    credentials.read_from_file(path, false);
    return credentials;
}
