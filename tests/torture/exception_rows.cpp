#include "rows.h"
#include "texts.h"

namespace torture {

using Kvl::Exception;

rows_t exception_rows()
{
    static const Kvl::UString alias = alias_of_units();
    const auto exception = [] { return Exception(LONG); };
    rows_t rows("exception.h");
    rows.add({"Exception::Exception(UString const&)"}, [] { return Exception(alias); });
    rows.add({"Exception::msg() const", "Exception::kind() const"}, exception,
             [](const Exception& e) { return e.Exception::kind() + (e.Exception::msg() == LONG); })
        .needs_none();
    rows.add({"Exception::add(UString const&)"}, exception,
             [](Exception& e) { e.Exception::add(OTHER); });
    rows.add({"Exception::log_throw()"}, exception, [](Exception& e) { e.log_throw(); })
        .needs_none();
    rows.add({"Exception::raise(UString const&)"}, [] { Exception::raise(alias); });
    return rows;
}

}  // namespace torture
