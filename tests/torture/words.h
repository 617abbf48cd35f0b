#ifndef KVUTIL_TESTS_TORTURE_WORDS_H
#define KVUTIL_TESTS_TORTURE_WORDS_H

#include "support/arm_record.h"

#include <kvutil/arm.h>
#include <kvutil/credentials.h>
#include <kvutil/davtime.h>
#include <kvutil/exception.h>
#include <kvutil/oid.h>
#include <kvutil/pname.h>
#include <kvutil/selector.h>
#include <kvutil/xmltag.h>

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

// Objects and results in words: two that show the same words are the same to a caller. What an
// object merely caches is left out.

namespace torture {

/// Stands where a row has no object.
struct nothing_t {};

inline std::string words(nothing_t)
{
    return "nothing";
}

template <class T, class = std::enable_if_t<std::is_arithmetic_v<T> || std::is_enum_v<T>>>
std::string words(T number)
{
    if constexpr (std::is_enum_v<T>)
        return std::to_string(static_cast<int>(number));
    else
        return std::to_string(number);
}

inline std::string words(const std::string& text)
{
    return '"' + text + '"';
}

inline std::string words(const char* text)
{
    return text == nullptr ? "null" : words(std::string(text));
}

/// Unit by unit: also texts that are no UTF-16.
inline std::string words(const Kvl::UString& text)
{
    if (text.isBogus())
        return "bogus";
    std::string all = "\"";
    for (unsigned int i = 0; i < text.length(); ++i)
        all += text[i] < 0x80 ? std::string(1, static_cast<char>(text[i]))
                              : "\\u" + std::to_string(text[i]);
    return all + '"';
}

inline std::string words(const unsigned short* text)
{
    return words(Kvl::UString(text));
}

template <class T>
std::string words(const std::vector<T>& list);
template <class T>
std::string words(const std::unique_ptr<T>& object);

// ---- errors ----

inline std::string words(const Kvl::UMessage& message)
{
    return words(message.message_string());
}

inline std::string words(const Kvl::UMessage::Arg& argument)
{
    return std::to_string(argument.kind()) + " " + words(Kvl::UMessage::sprintf("%s", argument));
}

inline std::string words(const Kvl::UMessage::collection_t& messages)
{
    std::string all;
    for (const Kvl::UMessage& message : messages)
        all += words(message);
    return all;
}

inline std::string words(const Kvl::Resource& resource)
{
    return words(resource.text());
}

inline std::string words(const Kvl::STPException& e)
{
    std::string all = typeid(e).name() + std::to_string(e.stp_reason_code()) + words(e.message());
    if (e.resource() != nullptr)
        all += " about " + words(*e.resource());
    for (const Kvl::STPException* const cause : e.causes())
        all += " because of " + words(*cause);
    return all;
}

inline std::string words(const Kvl::Exception& e)
{
    return "Exception " + words(e.msg());
}

// ---- names ----

inline std::string words(const Kvl::Pname& name)
{
    return words(name.path());
}

inline std::string words(const Kvl::XmlTag& tag)
{
    return words(tag.ns()) + words(tag.simple_name()) + std::to_string(tag.ns_id());
}

inline std::string words(const Kvl::XmlTag* tag)
{
    return tag == nullptr ? "null" : words(*tag);
}

inline std::string words(const Kvl::Selector& selector)
{
    return words(selector.ns()) + words(selector.domain()) + words(selector.resource_type()) +
           words(selector.name()) + words(selector.repository());
}

// ---- identifiers ----

inline std::string words(const Kvl::Oid& oid)
{
    return oid.std_str(false);
}

inline std::string words(const Kvl::Uuid& uuid)
{
    return uuid.std_str(false);
}

inline std::string words(const Kvl::Identity& identity)
{
    return words(identity.str());
}

inline std::string words(const Kvl::Credentials& credentials)
{
    return words(credentials.text1) + words(credentials.text2) + words(credentials.text3) +
           words(credentials.user) + words(credentials.primary_group) + words(credentials.groups);
}

inline std::string words(const Kvl::DavTime& time)
{
    return std::to_string(time.value());
}

// ---- measurement: what a buffer gives to the run-time when it is added ----

inline std::string words(const Kvl::ArmBuffer& buffer)
{
    return arm_record::words(*buffer.buffer4());
}

template <class Collector>
std::string words_of_record(Collector copy)
{
    Kvl::ArmBuffer buffer;
    buffer.add_buffer(copy);
    return words(buffer);
}

inline std::string words(const Kvl::ArmAppIdentyBuffer& buffer)
{
    std::string all = words_of_record(buffer);
    for (const auto& [name, index] : buffer.ctx_indicies())
        all += words(name) + std::to_string(index);
    return all;
}

inline std::string words(const Kvl::ArmTransIdentyBuffer& buffer)
{
    return words_of_record(buffer);
}

inline std::string words(const Kvl::ArmAppContextBuffer& buffer)
{
    return words_of_record(buffer);
}

inline std::string words(const Kvl::ArmMetricValuesBuffer& buffer)
{
    return words_of_record(buffer);
}

inline std::string words(const Kvl::ArmMetricBindingsBuffer& buffer)
{
    return words_of_record(buffer);
}

// ---- several ----

template <class T>
std::string words(const std::vector<T>& list)
{
    std::string all = std::to_string(list.size()) + ":";
    for (const T& element : list)
        all += words(element) + ",";
    return all;
}

template <class T>
std::string words(const std::unique_ptr<T>& object)
{
    return object == nullptr ? "null" : words(*object);
}

template <class T, class U>
std::string words(const std::pair<T, U>& both)
{
    return words(both.first) + " and " + words(both.second);
}

}  // namespace torture

#endif
