#include "uses.h"

#include "support/text.h"

#include <kvutil/arm.h>
#include <kvutil/credentials.h>
#include <kvutil/critsec.h>
#include <kvutil/davtime.h>
#include <kvutil/fileutl.h>
#include <kvutil/logadaptor.h>
#include <kvutil/oid.h>
#include <kvutil/selector.h>
#include <kvutil/stpexception.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/xmltag.h>
#include <qmlogger/qmlogger.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>

#include <unistd.h>

namespace {

using namespace Kvl;

/// So many charsets that converters are opened and closed all the time.
// clang-format off
constexpr const char* CHARSETS[] = {
    "EUC-JP", "Shift_JIS", "ISO-2022-JP", "GB18030", "Big5", "EUC-KR", "GBK", "GB2312",
    "windows-949", "windows-936", "windows-950", "EUC-TW", "HZ", "ISO-2022-KR", "ISO-2022-CN",
    "UTF-7", "ISO-2022-JP-1", "ISO-2022-JP-2", "IMAP-mailbox-name", "BOCU-1", "CESU-8",
    "Big5-HKSCS", "ibm-930", "ibm-933", "ibm-935", "ibm-937", "ibm-939", "ibm-942", "ibm-943",
    "ibm-949", "ibm-950", "ibm-964", "ibm-970", "ibm-1363", "ibm-1364", "ibm-1371", "ibm-1388",
    "ibm-1390", "ibm-1399", "ibm-33722"};
// clang-format on

bool uses_charsets(unsigned int n)
{
    const UString text = UString(u"a \u65E5\u672C ") + ustr(std::to_string(n));
    const char* const name = CHARSETS[n % std::size(CHARSETS)];
    bool failed = false;
    const std::string bytes = text.std_str(name, failed);
    return !failed && UString(bytes.c_str(), name) == text;
}

bool uses_default_charset(unsigned int n)
{
    const UString text = ustr(std::to_string(n));
    bool failed = false;
    return text.std_str("DEFAULT", failed) == std::to_string(n) && !failed;
}

bool uses_tags(unsigned int n)
{
    const UString name = ustr("t" + std::to_string(n % 5000));
    const XmlTag* const tag = XmlTag::lookup(2, name);
    return XmlTag::lookup(tag->id()) == tag && tag->simple_name() == name &&
           XmlTag(ustr("urn:" + std::to_string(n % 50)), name).ns_id() >= 21;
}

bool uses_temporary_files(unsigned int)
{
    const UString path = Fileutl::create_tmp_file(1);
    const bool exists = access(path.utf8_str().c_str(), F_OK) == 0;
    Fileutl::delete_tmp_file(path);
    return exists;
}

bool uses_identifiers(unsigned int)
{
    tbs_uuid_s uuid;
    if (brenner_tbs_uuid_gen(&uuid) != 0)
        return false;
    const Oid oid(uuid);
    return Oid::from_string(oid.str(true)) == oid;
}

bool uses_pooled_texts(unsigned int n)
{
    const UString text = ustr("pooled " + std::to_string(n % 5000));
    return ArmBuffer::pool_string(nullptr, text) == text.utf8_str();
}

bool uses_times(unsigned int n)
{
    const std::time_t t = static_cast<std::time_t>(n) * 3600;
    DavTime time;
    time.parse(DavTime(t).to_string(DavTime::RFC1123));
    // In 1970 not every zone was quarters of an hour from UTC.
    return time.value() == t && std::labs(DavTime::get_tz_offset(t)) < 86'400;
}

bool uses_messages(unsigned int n)
{
    try {
        Selector(ustr("vd.file-" + std::to_string(n)));
        return false;
    } catch (const StateException& e) {
        STPException::log(e.message(), 2);
        return !e.message().message_string().empty();
    }
}

bool uses_error_texts(unsigned int n)
{
    const std::string path = "/nowhere/" + std::to_string(n);
    try {
        Credentials().read_from_file(path, true);
        return false;
    } catch (const STPException& e) {
        return e.message().message_string().find(ustr(path)) >= 0;
    }
}

bool uses_log(unsigned int n)
{
    Log::LogAdaptor::initialize("forks", std::getenv("TMP"), "", 1);
    Log::QmLogManager* const manager = Log::LogAdaptor::get_log_manager();
    manager->logger("t" + std::to_string(n % 50))->info("line", 0);
    return true;
}

bool uses_catalogues(unsigned int n)
{
    static const char* empty[] = {"EMPTY 0"};
    static const char* one[] = {"ONE 1", "text"};
    return n % 2 == 0 ? Log::QmMsg::format(empty, 1, nullptr) == nullptr
                      : std::strstr(Log::QmMsg::format(one, 1, nullptr), "text") != nullptr;
}

bool uses_formats(unsigned int n)
{
    cxPrintfArgVal record{};
    record.i = n;
    return Log::QmMsg::format("%d", &record) == std::to_string(n);
}

bool uses_locks(unsigned int)
{
    const CriticalSectionLock lock;
    const CriticalSection section(lock);
    return true;
}

bool uses_registrars(unsigned int n)
{
    const OperationRegistrar registrar(ustr(std::to_string(n)));
    return registrar.name() == ustr(std::to_string(n));
}

constexpr use_t USES[] = {
    {"charsets", uses_charsets},
    {"default charset", uses_default_charset},
    {"tags", uses_tags},
    {"temporary files", uses_temporary_files},
    {"identifiers", uses_identifiers},
    {"pooled texts", uses_pooled_texts},
    {"times", uses_times},
    {"messages", uses_messages},
    {"error texts", uses_error_texts},
    {"log", uses_log},
    {"catalogues", uses_catalogues},
    {"formats", uses_formats},
    {"locks", uses_locks},
    {"registrars", uses_registrars},
};

}  // namespace

std::span<const use_t> all_uses()
{
    return USES;
}

bool is_right(const use_t& use, unsigned int n)
{
    const bool right = use.is_right(n);
    if (!right)
        std::cerr << "wrong in process " << getpid() << ", " << n << ": " << use.name << std::endl;
    return right;
}

bool are_all_right(unsigned int n)
{
    return std::ranges::all_of(all_uses(), [n](const use_t& use) { return is_right(use, n); });
}

// Where the C library has no German, its error texts come from no catalogue.
environment_t::environment_t()
{
    setenv("TMP", directory_.path.c_str(), 1);
    setenv("LANGUAGE", "de", 1);
    std::setlocale(LC_ALL, "C.UTF-8");
    STPException::g_logging_enabled = true;
}
