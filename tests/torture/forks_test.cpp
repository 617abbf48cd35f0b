// Processes that fork while their other threads use every table of the library, for the first time
// too. Each child uses them all once more, and has to come to its end.
// usage: forks_torture [processes] [forks of each]

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

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Kvl;

constexpr unsigned int SECONDS_A_CHILD = 60;

// ---- One use of each table. What threads do at a time differs, so that they meet in all of them.
// ----

/// So many charsets that converters are opened and closed all the time.
constexpr const char* CHARSETS[] = {"EUC-JP",
                                    "Shift_JIS",
                                    "ISO-2022-JP",
                                    "GB18030",
                                    "Big5",
                                    "EUC-KR",
                                    "GBK",
                                    "GB2312",
                                    "windows-949",
                                    "windows-936",
                                    "windows-950",
                                    "EUC-TW",
                                    "HZ",
                                    "ISO-2022-KR",
                                    "ISO-2022-CN",
                                    "UTF-7",
                                    "ISO-2022-JP-1",
                                    "ISO-2022-JP-2",
                                    "IMAP-mailbox-name",
                                    "BOCU-1",
                                    "CESU-8",
                                    "Big5-HKSCS",
                                    "ibm-930",
                                    "ibm-933",
                                    "ibm-935",
                                    "ibm-937",
                                    "ibm-939",
                                    "ibm-942",
                                    "ibm-943",
                                    "ibm-949",
                                    "ibm-950",
                                    "ibm-964",
                                    "ibm-970",
                                    "ibm-1363",
                                    "ibm-1364",
                                    "ibm-1371",
                                    "ibm-1388",
                                    "ibm-1390",
                                    "ibm-1399"};

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
    try {
        Credentials().read_from_file("/nowhere/" + std::to_string(n), true);
        return false;
    } catch (const STPException& e) {
        return e.message().message_string().find(ustr(std::strerror(ENOENT))) >= 0;
    }
}

struct use_t {
    const char* name;
    bool (*is_right)(unsigned int n);
};

constexpr use_t USES[] = {{"charsets", uses_charsets},
                          {"default charset", uses_default_charset},
                          {"tags", uses_tags},
                          {"temporary files", uses_temporary_files},
                          {"identifiers", uses_identifiers},
                          {"pooled texts", uses_pooled_texts},
                          {"times", uses_times},
                          {"messages", uses_messages},
                          {"error texts", uses_error_texts}};

// ---- Load and children ----

/// What all processes have done, in memory that they share.
struct figures_t {
    std::atomic<unsigned int> children_well{0};
    std::atomic<unsigned long> operations{0};
};

bool is_right(const use_t& use, unsigned int n)
{
    const bool right = use.is_right(n);
    if (!right)
        std::cerr << "wrong in process " << getpid() << ", " << n << ": " << use.name << std::endl;
    return right;
}

bool uses_all(unsigned int n)
{
    return std::all_of(std::begin(USES), std::end(USES),
                       [n](const use_t& use) { return is_right(use, n); });
}

/// Threads that use the tables as long as this lives.
class load_t {
public:
    load_t(unsigned int num_threads, figures_t& figures) : figures_(figures)
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

    bool is_well() const { return is_well_; }

private:
    void work(unsigned int n)
    {
        for (; !stop_; ++n, ++figures_.operations)
            if (!is_right(USES[n % std::size(USES)], n))
                is_well_ = false;
    }

    figures_t& figures_;
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> is_well_{true};
};

/// @return  whether the body, in a process of its own, comes to its end and finds everything right
template <class Body>
bool is_well_in_child(const char* name, Body body)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body() ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = -1;
    const bool well = pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
    if (!well)
        std::cerr << name << ' ' << pid << " ended with status " << status << std::endl;
    return well;
}

bool children_are_well(unsigned int forks, figures_t& figures)
{
    Log::LogAdaptor::initialize("forks", std::getenv("TMP"), "", 1);
    STPException::g_logging_enabled = true;
    const load_t load(3, figures);
    unsigned int well = 0;
    for (unsigned int n = 0; n < forks; ++n)
        well += is_well_in_child("child", [n] {
            alarm(SECONDS_A_CHILD);
            return uses_all(n);
        });
    figures.children_well += well;
    return well == forks && load.is_well();
}

figures_t& shared_figures()
{
    void* const memory =
        mmap(nullptr, sizeof(figures_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return *new (memory) figures_t;
}

unsigned int argument(const std::vector<const char*>& arguments, std::size_t n,
                      unsigned int otherwise)
{
    return n < arguments.size() ? static_cast<unsigned int>(std::atoi(arguments[n])) : otherwise;
}

}  // namespace

// Itself it leaves the library alone, so that each process begins as if it had just been started.
int main(int argc, char** argv)
{
    const std::vector<const char*> arguments(argv, argv + argc);
    const unsigned int processes = argument(arguments, 1, 60);
    const unsigned int forks = argument(arguments, 2, 5);
    const scratch_t directory;
    setenv("TMP", directory.path.c_str(), 1);
    figures_t& figures = shared_figures();
    unsigned int well = 0;
    for (unsigned int n = 0; n < processes; ++n)
        well += is_well_in_child("process", [&] { return children_are_well(forks, figures); });
    std::cout << "fork torture: processes=" << processes << " forks=" << processes * forks
              << " well=" << figures.children_well << " operations meanwhile=" << figures.operations
              << std::endl;
    return well == processes ? EXIT_SUCCESS : EXIT_FAILURE;
}
