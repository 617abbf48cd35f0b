#ifndef KVUTIL_TESTS_STATIC_CLIENT_H
#define KVUTIL_TESTS_STATIC_CLIENT_H

#include <map>
#include <string>

/// What each table of the library answered: name of the use, text of the answer.
typedef std::map<std::string, std::string> answers_t;

/// Uses every table that the library builds at load.
answers_t ask_every_table();

/// What the tables answered to this library's static constructors.
const answers_t& answers_at_load();

/// Whether the tables answer as they did at load; what differs goes to the standard error stream.
/// By plain name, for dlsym().
extern "C" bool tables_are_intact();

#endif
