#ifndef KVUTIL_EXAMPLES_ANSWER_H
#define KVUTIL_EXAMPLES_ANSWER_H

#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include <string>

/// What a request is answered with.
struct answer_t {
    bool is_accepted;
    std::string xml;  ///< one element `response`, to stand inside the opening and the closing
};

/// The answer to the text of one selector: its properties, or the message that says why it is
/// rejected. A rejection is also written to the log.
/// @param selector  the bytes that the client sent, expected to be UTF-8
/// @throws std::bad_alloc  nothing else: a bad text is an answer
answer_t answer(const std::string& selector);

/// What stands before the first answer: the outermost element and its namespaces.
std::string opening();

/// What stands after the last one.
std::string closing();

#endif
