#ifndef KVUTIL_EXAMPLES_USER_H
#define KVUTIL_EXAMPLES_USER_H

#include <kvutil/credentials.h>

#include <string>

/// Writes the credentials of the user that runs this process: user, group and further groups. An
/// identity is the system's number in four bytes, the highest first, of type 1 for a user and of
/// type 2 for a group.
/// @param path  the file to make or to replace
/// @throws RuntimeException  PLXSV0665E, PLXSV0667E or PLXSV0668E: it cannot be written
/// @throws std::system_error  the system does not tell the user's groups
void make_credentials(const std::string& path);

/// @param name  an identity as text, such as "4:02000003e8", or the name of one of the system's
///              groups
/// @return      the identity of that group
/// @throws IllegalArgException  PLXSV0659E to PLXSV0661E: a text with ":" that is no identity
/// @throws std::runtime_error   there is no group of that name
Kvl::Identity group_named(const std::string& name);

/// @param path  a credentials file
/// @return      the credentials in it
/// @throws RuntimeException  PLXSV0665E or PLXSV0666E: it cannot be read
Kvl::Credentials credentials_of(const std::string& path);

#endif
