// A process that forks while its other threads use every table of the library. Each child uses them
// all once more, and has to come to its end.

#include "support/scratch.h"
#include "support/text.h"

#include <kvutil/arm.h>
#include <kvutil/credentials.h>
#include <kvutil/davtime.h>
#include <kvutil/fileutl.h>
#include <kvutil/logadaptor.h>
#include <kvutil/oid.h>
#include <kvutil/selector.h>
#include <kvutil/stpexception.h>
#include <kvutil/tbs_uuid_gen.h>
#include <kvutil/xmltag.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Kvl;

constexpr unsigned int SECONDS_A_CHILD = 60;

// ---- One use of each table. What threads do at a time differs, so that they meet in all of them.
// ----

bool uses_charsets(unsigned int n)
{
    constexpr const char* NAMES[] = {"EUC-JP", "Shift_JIS", "ISO-2022-JP", "GB18030"};
    const UString text = UString(u"a \u65E5\u672C ") + ustr(std::to_string(n));
    const char* const name = NAMES[n % std::size(NAMES)];
    bool failed = false;
    const std::string bytes = text.std_str(name, failed);
    return !failed && UString(bytes.c_str(), name) == text;
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

typedef bool (*use_t)(unsigned int);
constexpr use_t USES[] = {uses_charsets,     uses_tags,  uses_temporary_files, uses_identifiers,
                          uses_pooled_texts, uses_times, uses_messages};

bool uses_all(unsigned int n)
{
    for (const use_t use : USES)
        if (!use(n))
            return false;
    return true;
}

// ---- Load and children ----

/// Threads that use the tables as long as this lives.
class load_t {
public:
    explicit load_t(unsigned int num_threads)
    {
        for (unsigned int t = 0; t < num_threads; ++t)
            threads_.emplace_back([this, t] { work(t); });
    }
    ~load_t()
    {
        stop_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }
    load_t(const load_t&) = delete;
    load_t& operator=(const load_t&) = delete;

    unsigned long operations() const { return operations_; }
    bool is_right() const { return is_right_; }

private:
    void work(unsigned int n)
    {
        for (; !stop_; ++n, ++operations_)
            if (!USES[n % std::size(USES)](n))
                is_right_ = false;
    }

    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> is_right_{true};
    std::atomic<unsigned long> operations_{0};
};

/// @return  whether a child that uses everything comes to its end, and finds everything right
bool child_is_well(unsigned int n)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(SECONDS_A_CHILD);
        _exit(uses_all(n) ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = -1;
    return pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const auto forks = static_cast<unsigned int>(argc > 1 ? std::atoi(argv[1]) : 300);
    const scratch_t directory;
    setenv("TMP", directory.path.c_str(), 1);
    Log::LogAdaptor::initialize("forks", directory.path.c_str(), "", 1);
    STPException::g_logging_enabled = true;
    load_t load(3);
    unsigned int well = 0;
    for (unsigned int n = 0; n < forks; ++n)
        well += child_is_well(n) ? 1u : 0u;
    std::cout << "fork torture: forks=" << forks << " well=" << well
              << " operations meanwhile=" << load.operations() << std::endl;
    return well == forks && load.is_right() ? EXIT_SUCCESS : EXIT_FAILURE;
}
