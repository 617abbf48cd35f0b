#ifndef KVUTIL_TESTS_SUPPORT_FAILURE_H
#define KVUTIL_TESTS_SUPPORT_FAILURE_H

#include <kvutil/stpexception.h>

#include <string>

/// The whole rendered text of an exception's message, as UTF-8.
inline std::string rendered(const Kvl::STPException& e)
{
    return e.message().message_string().utf8_str();
}

#endif
