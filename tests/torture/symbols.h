#ifndef KVUTIL_TESTS_TORTURE_SYMBOLS_H
#define KVUTIL_TESTS_TORTURE_SYMBOLS_H

#include <set>
#include <string>

namespace torture {

typedef std::set<std::string> names_t;

// Functions as nm prints them, without "Kvl::" and with the types of the standard library short:
// "UString::assign(std::string const&, char const*)". Constructors and destructors once, whatever
// number of symbols they have.

/// What both libraries export for callers.
names_t exported_functions();

/// What this program takes from shared libraries, or has in common with them: inline functions.
names_t called_functions();

}  // namespace torture

#endif
