#include "sysutl_ieee_hostid_impl.h"

#include "support/child.h"
#include "support/sanitizer.h"
#include "support/small_stack.h"
#include "support/watched_thread.h"
#include "sys_calls_impl.h"

#include <gtest/gtest.h>
#include <kvutil/sysutl_ieee_hostid.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <list>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using Kvl::HostIdImpl::address_t;
using Kvl::HostIdImpl::answer_t;
using Kvl::HostIdImpl::look_up;

constexpr address_t NONE{};
constexpr address_t A = {0x02, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
constexpr address_t B = {0x02, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5};
constexpr address_t C = {0x02, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5};

const std::string HEADER =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop "
    "fifo colls carrier compressed\n";
const std::string COUNTERS =
    " 396835263   12676    0    0    0     0          0         0   664034\n";

std::string line(const std::string& interface)
{
    return "  " + interface + ":" + COUNTERS;
}

/// What the kernel says about one interface.
struct interface_t {
    address_t address;
    unsigned short family = ARPHRD_ETHER;
    int error = 0;
};

/// Answers the library's system calls while it lives.
class fake_kernel_t {
public:
    fake_kernel_t()
    {
        g_kernel = this;
        Kvl::sys_calls.open = open;
        Kvl::sys_calls.close = close;
        Kvl::sys_calls.read = read;
        Kvl::sys_calls.socket = socket;
        Kvl::sys_calls.ioctl = ioctl;
        Kvl::HostIdImpl::forget();
    }
    ~fake_kernel_t()
    {
        Kvl::sys_calls = real_;
        Kvl::HostIdImpl::forget();
        EXPECT_TRUE(open_descriptors.empty());
    }
    fake_kernel_t(const fake_kernel_t&) = delete;
    fake_kernel_t& operator=(const fake_kernel_t&) = delete;

    // What there is.
    std::string content = HEADER;
    std::map<std::string, interface_t> interfaces;
    std::size_t largest_read = 4096;
    std::set<int> refused_domains;
    int open_error = 0;
    int read_error = 0;     ///< instead of the end of the file
    int interruptions = 0;  ///< of each open() and read()
    void (*while_reading)() = nullptr;

    // What was asked for.
    std::vector<int> domains;
    std::vector<std::string> paths;
    std::vector<std::string> asked;  ///< names, as the kernel sees them
    std::set<int> open_descriptors;
    std::size_t position = 0;
    int calls = 0;

private:
    static constexpr int SOCKET = 1000;
    static constexpr int FILE = 1001;

    static int fail(int error)
    {
        errno = error;
        return -1;
    }

    static bool interrupt()
    {
        if (g_kernel->left_ < 0)
            g_kernel->left_ = g_kernel->interruptions;
        return g_kernel->left_-- > 0;
    }

    static int open(const char* path, int flags, mode_t)
    {
        ++g_kernel->calls;
        EXPECT_EQ(flags & ~O_NOCTTY, O_RDONLY | O_CLOEXEC);
        if (interrupt())
            return fail(EINTR);
        g_kernel->paths.push_back(path);
        g_kernel->position = 0;
        if (g_kernel->open_error != 0)
            return fail(g_kernel->open_error);
        g_kernel->open_descriptors.insert(FILE);
        return FILE;
    }

    static int close(int descriptor)
    {
        ++g_kernel->calls;
        EXPECT_EQ(g_kernel->open_descriptors.erase(descriptor), 1u);
        return 0;
    }

    static ssize_t read(int descriptor, void* bytes, std::size_t size)
    {
        ++g_kernel->calls;
        EXPECT_EQ(descriptor, FILE);
        if (interrupt())
            return fail(EINTR);
        if (g_kernel->while_reading != nullptr)
            g_kernel->while_reading();
        const std::size_t left = g_kernel->content.size() - g_kernel->position;
        const std::size_t count = std::min({left, size, g_kernel->largest_read});
        if (count == 0 && size != 0 && g_kernel->read_error != 0)
            return fail(g_kernel->read_error);
        std::memcpy(bytes, g_kernel->content.data() + g_kernel->position, count);
        g_kernel->position += count;
        return static_cast<ssize_t>(count);
    }

    static int socket(int domain, int type, int protocol)
    {
        ++g_kernel->calls;
        EXPECT_EQ(type, SOCK_STREAM | SOCK_CLOEXEC);
        EXPECT_EQ(protocol, 0);
        g_kernel->domains.push_back(domain);
        if (g_kernel->refused_domains.count(domain) != 0)
            return fail(EAFNOSUPPORT);
        g_kernel->open_descriptors.insert(SOCKET);
        return SOCKET;
    }

    static int ioctl(int descriptor, unsigned long request, void* argument)
    {
        ++g_kernel->calls;
        EXPECT_EQ(descriptor, SOCKET);
        EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFHWADDR));
        auto& r = *static_cast<ifreq*>(argument);
        const std::string name(r.ifr_name, strnlen(r.ifr_name, IFNAMSIZ));
        g_kernel->asked.push_back(name);
        const auto found = g_kernel->interfaces.find(name);
        if (found == g_kernel->interfaces.end())
            return fail(ENODEV);
        r.ifr_hwaddr.sa_family = found->second.family;
        std::memcpy(r.ifr_hwaddr.sa_data, found->second.address.data(), 6);
        return found->second.error == 0 ? 0 : fail(found->second.error);
    }

    static fake_kernel_t* g_kernel;
    const Kvl::sys_calls_t real_ = Kvl::sys_calls;
    int left_ = -1;
};

fake_kernel_t* fake_kernel_t::g_kernel = nullptr;

void expect_found(const address_t& expected)
{
    const answer_t answer = look_up();
    EXPECT_EQ(answer.status, 0);
    EXPECT_EQ(answer.address, expected);
}

void expect_nothing_found()
{
    const answer_t answer = look_up();
    EXPECT_EQ(answer.status, 1);
    EXPECT_EQ(answer.address, NONE);
}

using names_t = std::vector<std::string>;

// ---- Which interface ----

TEST(HostId, IsTheAddressOfTheOnlyInterfaceBesideLo)
{
    fake_kernel_t kernel;
    kernel.content += line("lo") + line("enp3s0");
    kernel.interfaces = {{"lo", {A}}, {"enp3s0", {B}}};
    expect_found(B);
    EXPECT_EQ(kernel.paths, names_t{"/proc/net/dev"});
    EXPECT_EQ(kernel.asked, names_t{"enp3s0"}) << "lo is not even asked for";
}

TEST(HostId, IsThatOfEth0EvenWhenListedLater)
{
    fake_kernel_t kernel;
    kernel.content += line("enp3s0") + line("eth1") + line("eth0") + line("eth2");
    kernel.interfaces = {{"enp3s0", {A}}, {"eth1", {C}}, {"eth0", {B}}, {"eth2", {C}}};
    expect_found(B);
    EXPECT_EQ(kernel.asked.back(), "eth0") << "nothing is looked at after it";
}

TEST(HostId, IsThatOfTheFirstUsableInterfaceWithoutEth0)
{
    fake_kernel_t kernel;
    kernel.content += line("eth1") + line("enp3s0") + line("eth00");
    kernel.interfaces = {{"eth1", {A}}, {"enp3s0", {B}}, {"eth00", {C}}};
    expect_found(A);
}

struct unusable_t {
    const char* why;
    interface_t interface;
};

const unusable_t UNUSABLE[] = {
    {"all zero", {NONE}},
    {"no Ethernet", {A, ARPHRD_LOOPBACK}},
    {"no Ethernet", {A, ARPHRD_NONE}},
    {"the request fails", {A, ARPHRD_ETHER, ENODEV}},
    {"the request fails", {A, ARPHRD_ETHER, EINTR}},
};

TEST(HostId, IsNeverThatOfAnUnusableInterface)
{
    for (const unusable_t& row : UNUSABLE) {
        SCOPED_TRACE(row.why);
        fake_kernel_t kernel;
        kernel.content += line("tun0");
        kernel.interfaces = {{"tun0", row.interface}};
        expect_nothing_found();
        kernel.content += line("eth1");
        kernel.interfaces["eth1"] = {B};
        expect_found(B);
    }
}

TEST(HostId, IsThatOfAnotherInterfaceWhenEth0IsUnusable)
{
    for (const unusable_t& row : UNUSABLE) {
        SCOPED_TRACE(row.why);
        fake_kernel_t kernel;
        kernel.content += line("eth1") + line("eth0") + line("eth2");
        kernel.interfaces = {{"eth1", {A}}, {"eth0", row.interface}, {"eth2", {C}}};
        expect_found(A);
        kernel.interfaces.erase("eth1");
        expect_found(C);
    }
}

TEST(HostId, NeedsOneByteThatIsNotZero)
{
    for (std::size_t i = 0; i < 6; ++i) {
        fake_kernel_t kernel;
        address_t address{};
        address[i] = 1;
        kernel.content += line("eth0");
        kernel.interfaces = {{"eth0", {address}}};
        expect_found(address);
    }
}

TEST(HostId, IsNotFoundWhereThereIsNoInterface)
{
    for (const std::string& content :
         {std::string(), HEADER, HEADER + line("lo"), std::string("\n")}) {
        fake_kernel_t kernel;
        kernel.content = content;
        kernel.interfaces = {{"lo", {A}}, {"", {A}}};
        expect_nothing_found();
        EXPECT_TRUE(kernel.asked.empty());
    }
}

// ---- The names in the file ----

TEST(HostId, ReadsNamesUpToTheFirstColonOfAToken)
{
    const std::vector<std::pair<std::string, names_t>> ROWS = {
        {"eth1:123 4 5\n", {"eth1"}},  // counters right behind the colon
        {"eth1: 1\n", {"eth1"}},
        {"eth1 : 1\n", {}},          // a token of its own, without a name
        {"eth1:1:2 3\n", {"eth1"}},  // the first colon, the rest of the token is counters
        {"::eth1:1\n", {"eth1"}},    // leading colons are skipped
        {":eth1\n", {"eth1"}},
        {":\n", {}},
        {":::\n", {}},
        {"eth1:1 eth2:2\teth3:3\n", {"eth1", "eth2", "eth3"}},  // several in a line
        {"eth1\n:2\n", {"2"}},                                  // a line ends a token
        {"eth1", {}},                                           // no colon
        {"eth1:", {"eth1"}},                                    // no newline
        {"lo:1 lo0:1 l:1 LO:1\n", {"lo0", "l", "LO"}},          // only "lo" itself is skipped
        {"\t eth1:\t1\n\n \neth2:\n", {"eth1", "eth2"}},
        {"eth1\r:\n", {"eth1\r"}},  // blanks, tabs and newlines, nothing else
        {"eth1\v2: \n", {"eth1\v2"}},
    };
    for (const auto& [content, names] : ROWS) {
        for (const std::size_t largest_read : {1u, 2u, 4096u}) {
            fake_kernel_t kernel;
            kernel.content = content;
            kernel.largest_read = largest_read;
            look_up();
            EXPECT_EQ(kernel.asked, names) << testing::PrintToString(content);
        }
    }
}

TEST(HostId, AsksForTheFirstSixteenBytesOfAName)
{
    fake_kernel_t kernel;
    kernel.content = line("0123456789abcdefghij") + line("eth0" + std::string(20, 'x'));
    kernel.interfaces = {{"0123456789abcdef", {A}}, {"eth0", {B}}};
    expect_found(A);
    EXPECT_EQ(kernel.asked, (names_t{"0123456789abcdef", "eth0xxxxxxxxxxxx"}));
}

// A line of the file is read in pieces of 1,023 characters, each of which is a line.
TEST(HostId, CutsLinesAfter1023Characters)
{
    for (const std::size_t largest_read : {1u, 7u, 1024u, 4096u}) {
        fake_kernel_t kernel;
        kernel.largest_read = largest_read;
        kernel.content = std::string(1021, ' ') + "ab:1 cd:2\n" +  // "ab", then ":1"
                         std::string(1023, ' ') + "eth1:1\n" +     // a new line begins
                         std::string(1022, ' ') + "\neth2:1\n" +   // just fits
                         std::string(5000, 'x') + ":1\n";
        look_up();
        EXPECT_EQ(kernel.asked, (names_t{"1", "cd", "eth1", "eth2", std::string(16, 'x')}));
    }
}

TEST(HostId, FindsEth0BehindManyInterfaces)
{
    fake_kernel_t kernel;
    for (int i = 1; i <= 10'000; ++i)
        kernel.content += line("veth" + std::to_string(i));
    kernel.content += line("eth0") + line("eth1");
    kernel.interfaces = {{"veth7", {A}}, {"eth0", {B}}};
    on_small_stack([] { expect_found(B); });
    EXPECT_EQ(kernel.asked.size(), 10'001u);
}

// ---- Failing calls ----

TEST(HostId, AsksThroughIPv4WhereThereIsNoIPv6)
{
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    expect_found(A);
    EXPECT_EQ(kernel.domains, std::vector<int>{AF_INET6});
    kernel.refused_domains = {AF_INET6};
    kernel.domains.clear();
    expect_found(A);
    EXPECT_EQ(kernel.domains, (std::vector<int>{AF_INET6, AF_INET}));
}

TEST(HostId, IsNotFoundWithoutASocket)
{
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    kernel.refused_domains = {AF_INET6, AF_INET};
    expect_nothing_found();
    EXPECT_TRUE(kernel.paths.empty());
}

TEST(HostId, IsNotFoundWhenTheFileCannotBeOpened)
{
    for (const int error : {ENOENT, EACCES, EMFILE}) {
        fake_kernel_t kernel;
        kernel.open_error = error;
        expect_nothing_found();
        EXPECT_EQ(kernel.paths.size(), 1u);
    }
}

TEST(HostId, IsWhatWasReadUntilReadingFails)
{
    fake_kernel_t kernel;
    kernel.content += line("eth1") + "eth2:";
    kernel.interfaces = {{"eth1", {A}}, {"eth2", {B}}};
    kernel.read_error = EIO;
    expect_found(A);
    kernel.interfaces.erase("eth1");
    expect_found(B);
    kernel.content.clear();
    expect_nothing_found();
}

TEST(HostId, IsFoundAlthoughSignalsInterrupt)
{
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    kernel.interruptions = 3;
    kernel.largest_read = 5;
    expect_found(A);
}

// ---- Once ----

answer_t cached_answer()
{
    answer_t answer;
    answer.address.fill(0xEE);
    answer.status = brenner_sysutl_my_ieee_hostid(answer.address.data());
    return answer;
}

TEST(HostIdCache, KeepsAnAddress)
{
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    EXPECT_EQ(cached_answer().address, A);
    const int calls = kernel.calls;
    kernel.interfaces = {{"eth0", {B}}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(cached_answer().address, A);
        EXPECT_EQ(cached_answer().status, 0);
    }
    EXPECT_EQ(brenner_sysutl_my_ieee_hostid(nullptr), 0);
    EXPECT_EQ(kernel.calls, calls);
}

TEST(HostIdCache, KeepsEachFailure)
{
    for (int way = 0; way < 3; ++way) {
        fake_kernel_t kernel;
        if (way == 0)
            kernel.refused_domains = {AF_INET6, AF_INET};
        if (way == 1)
            kernel.open_error = ENOENT;
        EXPECT_EQ(cached_answer().status, 1);
        const int calls = kernel.calls;
        kernel.refused_domains.clear();
        kernel.open_error = 0;
        kernel.content += line("eth0");
        kernel.interfaces = {{"eth0", {A}}};
        EXPECT_EQ(cached_answer().status, 1);
        EXPECT_EQ(cached_answer().address, NONE);
        EXPECT_EQ(brenner_sysutl_my_ieee_hostid(nullptr), 1);
        EXPECT_EQ(kernel.calls, calls);
    }
}

std::list<watched_thread_t> g_others;
std::atomic<int> g_right{0};

void ask()
{
    const answer_t answer = cached_answer();
    g_right += answer.status == 0 && answer.address == A ? 1 : 0;
}

/// Seven other threads ask, and wait for the answer.
void let_others_ask()
{
    if (!g_others.empty())
        return;
    for (int i = 0; i < 7; ++i)
        g_others.emplace_back(ask);
    for (const watched_thread_t& other : g_others)
        EXPECT_TRUE(other.falls_asleep());
}

TEST(HostIdCache, IsFilledByOneOfManyThreads)
{
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    kernel.while_reading = let_others_ask;
    ask();
    for (watched_thread_t& other : g_others)
        other.join();
    EXPECT_EQ(g_right, 8);
    EXPECT_EQ(kernel.paths.size(), 1u);
}

std::atomic<int> g_readers{0};
std::promise<void> g_child_has_ended;

// The child's thread is not the one that looks, and that one is not there.
TEST(HostIdCache, IsFilledByTheChildOfAForkWhileAnotherThreadLooks)
{
    if (HAS_THREAD_SANITIZER)
        GTEST_SKIP() << "the sanitizer's pthread_once() waits for a thread that is not there";
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    kernel.while_reading = [] {
        if (g_readers++ == 0)
            g_child_has_ended.get_future().wait();
    };
    watched_thread_t looking([] { cached_answer(); });
    EXPECT_TRUE(looking.falls_asleep());
    EXPECT_EQ(g_readers, 1);
    in_child([] { EXPECT_EQ(cached_answer().address, A); }, _exit);
    g_child_has_ended.set_value();
    looking.join();
}

TEST(HostIdCache, IsFilledByAThreadThatIsBeingCancelled)
{
    fake_kernel_t kernel;
    kernel.content += line("eth0");
    kernel.interfaces = {{"eth0", {A}}};
    // Both are cancellation points where that is not turned off.
    kernel.while_reading = [] { pthread_testcancel(); };
    pthread_t thread;
    const auto look = [](void*) -> void* {
        pthread_cancel(pthread_self());
        cached_answer();
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, look, nullptr), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(cached_answer().address, A);
    EXPECT_EQ(kernel.paths.size(), 1u);
}

// ---- Random bytes ----

std::string content_of_32_bytes()
{
    return "0123456789abcdefghijklmnopqrstuv";
}

TEST(RandomBytes, AreReadFromTheKernel)
{
    fake_kernel_t kernel;
    kernel.content = content_of_32_bytes() + "more";
    for (unsigned int n = 0; n <= 32; ++n) {
        std::array<unsigned char, 33> bytes;
        bytes.fill(0xEE);
        EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes.data(), n), 0);
        EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + n), kernel.content.substr(0, n));
        EXPECT_EQ(bytes[n], 0xEE);
        EXPECT_EQ(kernel.paths.back(), "/dev/urandom");
    }
}

TEST(RandomBytes, AreRefusedBeyond32WithoutReading)
{
    fake_kernel_t kernel;
    std::array<unsigned char, 64> bytes{};
    for (const unsigned int n : {33u, 64u, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes.data(), n), 1);
    EXPECT_EQ(brenner_sysutl_get_random_bytes(nullptr, 6), 1);
    EXPECT_EQ(kernel.calls, 0);
}

TEST(RandomBytes, AreCollectedFromShortReads)
{
    for (const std::size_t largest_read : {1u, 5u, 31u}) {
        fake_kernel_t kernel;
        kernel.content = content_of_32_bytes();
        kernel.largest_read = largest_read;
        kernel.interruptions = 2;
        unsigned char bytes[32] = {};
        EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes, 32), 0);
        EXPECT_EQ(std::string(bytes, bytes + 32), kernel.content);
    }
}

TEST(RandomBytes, AreNotThereWhenTheSourceCannotBeOpened)
{
    fake_kernel_t kernel;
    kernel.open_error = ENOENT;
    unsigned char bytes[6];
    EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes, 6), 1);
    EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes, 0), 1);
}

TEST(RandomBytes, AreNotThereWhenReadingFailsOrEnds)
{
    for (const int error : {0, EIO, EAGAIN}) {
        fake_kernel_t kernel;
        kernel.content = "12345";
        kernel.read_error = error;
        unsigned char bytes[6];
        EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes, 6), 1);
        EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes, 5), 0);
    }
}

TEST(RandomBytes, AreReadByAThreadThatIsBeingCancelled)
{
    fake_kernel_t kernel;
    kernel.content = content_of_32_bytes();
    kernel.while_reading = [] { pthread_testcancel(); };
    pthread_t thread;
    const auto read = [](void*) -> void* {
        unsigned char bytes[6];
        pthread_cancel(pthread_self());
        return brenner_sysutl_get_random_bytes(bytes, 6) == 0 ? PTHREAD_CANCELED : nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, read, nullptr), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

}  // namespace
