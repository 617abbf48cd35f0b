// Identities from texts: each is read, or rejected with the message of the first failed check, as
// the rules say a step a line, as far as memory goes; what is read prints in its plain form, which
// is read again. The input is the failing allocation and the text.

#include <kvutil/credentials.h>
#include <kvutil/stpexception.h>

#include "../tests/support/credentials_model.h"
#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstdint>
#include <string_view>

using Kvl::Identity;
using Kvl::UString;

namespace {

/// @return  false when memory ran out
bool check_reading(const UString& text, int message, const Identity& expected, unsigned long fault)
{
    Identity identity;
    int failure = 0;
    const bool is_done = has_memory(fault, [&] {
        try {
            identity = Identity::from_str(text);
        } catch (const Kvl::IllegalArgException& e) {
            failure = e.message().index();
        }
    });
    require(!is_done || (failure == message && (message != 0 || identity == expected)));
    return is_done;
}

void check_copies(const Identity& identity, unsigned long fault)
{
    has_memory(fault, [&] { require(Identity(identity) == identity); });
    const Identity old = model::identity(1, "old");
    Identity target(old);
    const bool is_done = has_memory(fault, [&] { target = identity; });
    require(target == (is_done ? identity : old));
}

void check_printing(const Identity& identity, const UString& text, unsigned long fault)
{
    const UString plain = identity.str();
    has_memory(fault, [&] { require(identity.str() == plain); });
    require(Identity::from_str(plain) == identity);
    // From the colon on there is only one way to write it.
    const auto colon = static_cast<unsigned int>(text.find(UString(u":")));
    const auto plain_colon = static_cast<unsigned int>(plain.find(UString(u":")));
    require(text.substr(colon) == plain.substr(plain_colon));
    check_copies(identity, fault);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    const unsigned long fault = fault_of(input);
    const std::string_view rest = input.bytes(size);
    const UString text = text_of(reinterpret_cast<const std::uint8_t*>(rest.data()), rest.size());
    Identity expected;
    const int message = model::read_text(text, expected);
    check_reading(text, message, expected, fault);
    if (check_reading(text, message, expected, 0) && message == 0)
        check_printing(expected, text, fault);
    return 0;
}
