// Identities from texts: each is read, or rejected with the message of the first failed check, as
// the rules say a step a line; what is read prints in its plain form, which is read again.

#include <kvutil/credentials.h>
#include <kvutil/stpexception.h>

#include "../tests/support/credentials_model.h"
#include "property.h"

#include <cstdint>
#include <string>

using Kvl::Identity;
using Kvl::UString;

namespace {

void check_printing(const Identity& identity, const UString& text)
{
    const UString plain = identity.str();
    require(Identity::from_str(plain) == identity);
    // From the colon on there is only one way to write it.
    const auto colon = static_cast<unsigned int>(text.find(UString(u":")));
    const auto plain_colon = static_cast<unsigned int>(plain.find(UString(u":")));
    require(text.substr(colon) == plain.substr(plain_colon));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const UString text = text_of(data, size);
    Identity expected;
    const int message = model::read_text(text, expected);
    try {
        const Identity identity = Identity::from_str(text);
        require(message == 0 && identity == expected);
        check_printing(identity, text);
    } catch (const Kvl::IllegalArgException& e) {
        require(e.message().index() == message);
    }
    return 0;
}
