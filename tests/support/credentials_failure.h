#ifndef KVUTIL_TESTS_SUPPORT_CREDENTIALS_FAILURE_H
#define KVUTIL_TESTS_SUPPORT_CREDENTIALS_FAILURE_H

#include "failure.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <typeinfo>

/// Runs `operation`, which must fail with class `E`, reason 39 and this text, and nothing else.
template <class E, class Operation>
void expect_failure(Operation operation, const std::string& text)
{
    try {
        operation();
        ADD_FAILURE() << "succeeded instead of: " << text;
    } catch (const Kvl::STPException& e) {
        EXPECT_TRUE(typeid(e) == typeid(E));
        EXPECT_EQ(e.stp_reason_code(), 39);
        EXPECT_EQ(rendered(e), text);
        EXPECT_EQ(e.resource(), nullptr);
        EXPECT_TRUE(e.causes().empty());
    }
}

/// The text of message `verb`, "open", "read", "write" or "close", for a path and a reason.
inline std::string file_failure(const std::string& verb, const std::string& path,
                                const std::string& reason)
{
    const std::string numbers[][2] = {{"open", "PLXSV0665E"},
                                      {"read", "PLXSV0666E"},
                                      {"write", "PLXSV0667E"},
                                      {"close", "PLXSV0668E"}};
    for (const auto& [name, number] : numbers) {
        if (name == verb)
            return number + " Unable to " + verb + " file '" + path + "': " + reason + ".";
    }
    return "no such message";
}

inline std::string file_failure(const std::string& verb, const std::string& path, int error)
{
    return file_failure(verb, path, std::string(std::strerror(error)));
}

#endif
