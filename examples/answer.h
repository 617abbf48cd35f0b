#ifndef KVUTIL_EXAMPLES_ANSWER_H
#define KVUTIL_EXAMPLES_ANSWER_H

#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include <optional>
#include <string>

/// What a request is answered with.
struct answer_t {
    bool is_accepted;
    std::string xml;  ///< one element `response`, to stand inside the opening and the closing
};

/// The answer to the text of one selector: its properties and those of the object that is made for
/// it, or the message that says why it is rejected. A rejection is also written to the log.
/// @param selector    the bytes that the client sent, expected to be UTF-8
/// @param is_visible  whether the user may see the object; nothing when nobody is known
/// @throws std::bad_alloc  nothing else: a bad text is an answer, and so is an object that cannot
///                         be given an identifier
answer_t answer(const std::string& selector, std::optional<bool> is_visible);

/// What stands before the first answer: the outermost element and its namespaces.
std::string opening();

/// What stands after the last one.
std::string closing();

#endif
