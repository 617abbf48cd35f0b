#include "static_client.h"

#include <kvutil/kvutil.h>

#include <cstdio>
#include <cstdlib>

// A shared library of a client whose static objects use the library at load and at exit.

using namespace Kvl;

namespace {

// Never destroyed: the tables are also used after the end of this library's static objects.
const CriticalSectionLock& lock = *new CriticalSectionLock;

std::string said(bool holds)
{
    return holds ? "yes" : "no";
}

std::string utf8(const UString& text)
{
    return text.utf8_str();
}

std::string published(const UString& text)
{
    return utf8(UString(text.c_str()));
}

void ask_messages(answers_t& answers)
{
    answers["catalogue header"] = kvutil[0];
    answers["catalogue message"] = kvutil[19];
    answers["nil message"] = said(UMessage::nil.is_nil() && UMessage::nil.arguments().empty());
    answers["nil argument"] = std::to_string(UMessage::Arg::nil.kind());
    answers["message with a nil argument"] =
        utf8(UMessage(kvutil, 19, UMessage::Arg::nil, u"/tmp/x").message_string());
}

void ask_strings(answers_t& answers)
{
    bool failed = true;
    answers["default charset"] = said(UString::default_charset()[0] != '\0');
    answers["text of the default charset"] = UString(u"abc").std_str("DEFAULT", failed);
    answers["default conversion failed"] = said(failed);
    answers["text of a named charset"] = utf8(UString("gr\xFC"
                                                      "n",
                                                      "ISO-8859-1"));
}

void ask_tags(answers_t& answers)
{
    XmlTag by_uri(XmlTag::ns_URI(0), u"acl-entry");
    answers["tag by id"] = utf8(XmlTag::lookup(3)->simple_name());
    answers["tag by name"] = std::to_string(XmlTag::lookup(0, u"acl-entry")->id());
    answers["tag by URI"] = std::to_string(XmlTag::lookup(by_uri)->id());
    answers["tag by constant"] = said(&WkTag::ACL_ENTRY == XmlTag::lookup(3));
    answers["tag in words"] = utf8(WkTag::ACL_ENTRY.format(XmlTag::END_TAG));
    answers["namespace by abbreviation"] = std::to_string(XmlTag::ns_lookup_abbreviation(u"ACL:"));
    answers["namespace by id"] = published(XmlTag::ns_abbreviation(20));
    answers["namespace record"] = std::to_string(XmlTag::g_namespace_array[20]->id);
    answers["empty prefix"] = published(XmlTag::EMPTY_NS_PREFIX);

    XmlTag first(u"http://client.example.com/ns", u"first");
    XmlTag second(u"http://client.example.com/ns", u"second");
    answers["first tag of our own"] = std::to_string(XmlTag::lookup(first)->id());
    answers["second tag of our own"] = std::to_string(XmlTag::lookup(second)->id());
    answers["namespace of our own"] = utf8(XmlTag::ns_URI(21));
}

void ask_times(answers_t& answers)
{
    DavTime time;
    time.parse(u"Sun, 06 Nov 1994 08:49:37 GMT");
    answers["time"] = utf8(time.to_string(DavTime::ISO8601));
    answers["offset within a day"] = said(std::labs(DavTime::get_tz_offset(0)) <= 86400);
}

void ask_selectors(answers_t& answers)
{
    const Selector selector(u"vd.file:/src/main.c@/vobs/proj");
    answers["selector"] = utf8(selector.name()) + " in " + utf8(selector.repository());
    answers["selector printed"] = utf8(selector.to_string_with_domain());
    answers["resource type"] = std::to_string(Selector(u"vd.repo.vob:@/vobs/proj").resource_type());
    answers["segment encoded"] = utf8(Selector::encode_segment(u"a/b"));
    answers["namespace text"] = published(Selector::namespace_string(Selector::NS_FILE));
    answers["domain text"] = published(Selector::provider_domain_string(Selector::PD_OB));
    for (const UString* const unit :
         {&Selector::NAMESPACE_FIELD_SEP, &Selector::DOMAIN_FIELD_SEP, &Selector::REPO_FIELD_SEP,
          &Selector::SEGMENT_SEP, &Selector::OTHER_SEGMENT_SEP, &Selector::ESCAPE_CHAR})
        answers["separators"] += published(*unit);
    for (const UString& delimiter : Selector::g_delimiters)
        answers["delimiters"] += published(delimiter);
}

void ask_temporary_files(answers_t& answers)
{
    const CriticalSection section(Fileutl::g_lock);
    const UString file = Fileutl::create_tmp_file(7);
    answers["temporary file"] = said(Fileutl::g_tmp_table.at(file).id == 7);
    Fileutl::set_file_id(file, 8);
    Fileutl::delete_tmp_files(8);
    answers["temporary file deleted"] = said(Fileutl::g_tmp_table.empty());
}

void ask_arm_texts(answers_t& answers)
{
    const char* const pooled = ArmBuffer::pool_string(nullptr, u"pooled");
    answers["ARM text"] = pooled;
    ArmBuffer buffer;
    answers["ARM text shared"] = said(ArmBuffer::pool_string(&buffer, u"pooled") == pooled);
    answers["ARM text found"] = said(ArmBuffer::g_str_pool.at(u"pooled") == pooled);
}

// Never destroyed either, as its operations are measured to the end.
const OperationRegistrar& operation = *new OperationRegistrar(u"operation of a client");

void ask_measurement(answers_t& answers)
{
    answers["operation"] = utf8(operation.name());
    answers["operations are listed"] = said(ArmApplication::g_registrars != nullptr);
    const int code =
        ArmPerThreadOperationStack::start_transaction(operation.tran_id(), nullptr, false);
    answers["operation while off"] = std::to_string(code);
}

void ask_failures(answers_t& answers)
{
    try {
        const Selector rejected(u"vd.file");
    } catch (const StateException& e) {
        answers["rejected selector"] = utf8(e.message().message_string());
    }
    try {
        XmlTag::lookup(-1);
    } catch (const IllegalArgException& e) {
        answers["illegal id"] = utf8(e.message().message_string());
    }
}

class user_t {
public:
    user_t() : at_load(ask_every_table()) {}
    ~user_t()
    {
        if (!tables_are_intact())
            std::_Exit(EXIT_FAILURE);
    }

    const answers_t at_load;
};

const user_t user;

}  // namespace

answers_t ask_every_table()
{
    const CriticalSection section(lock);
    const CriticalSection nested(lock);
    answers_t answers;
    ask_messages(answers);
    ask_strings(answers);
    ask_tags(answers);
    ask_selectors(answers);
    ask_temporary_files(answers);
    ask_times(answers);
    ask_arm_texts(answers);
    ask_measurement(answers);
    ask_failures(answers);
    return answers;
}

const answers_t& answers_at_load()
{
    return user.at_load;
}

bool tables_are_intact()
{
    // Never destroyed either; first reached while `user` lives.
    static const answers_t& expected = *new answers_t(user.at_load);
    const answers_t answers = ask_every_table();
    for (const auto& [use, answer] : expected)
        if (const auto now = answers.find(use); now == answers.end() || now->second != answer)
            std::fprintf(stderr, "%s: no longer \"%s\"\n", use.c_str(), answer.c_str());
    return answers == expected;
}
