#include <kvutil/sysutl_ieee_hostid.h>
#include <kvutil/tbs_uuid_gen.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sched.h>
#include <set>
#include <string>
#include <vector>

namespace {

using address_t = std::array<unsigned char, 6>;

struct answer_t {
    int status;
    address_t address;
};

answer_t host_id()
{
    answer_t answer{};
    answer.address.fill(0xEE);
    answer.status = brenner_sysutl_my_ieee_hostid(answer.address.data());
    return answer;
}

// ---- In a network of its own ----

constexpr int NOT_PERMITTED = 77;
constexpr int NO_COMMAND = 78;

bool run(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool enter_new_network()
{
    const uid_t uid = getuid();
    if (unshare(CLONE_NEWNET) == 0)
        return true;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    std::ofstream map("/proc/self/uid_map");
    map << "0 " << uid << " 1\n" << std::flush;
    return map.good();
}

/// Runs `body` in a child process whose network has just "lo" and what `ip` adds.
/// @return  the child's exit status, 0 when `body` returns true
int in_new_network(const std::vector<std::string>& ip_commands, const std::function<bool()>& body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(200);
        if (!enter_new_network())
            _exit(NOT_PERMITTED);
        if (!run("ip link show lo"))
            _exit(NO_COMMAND);
        for (const std::string& command : ip_commands)
            if (!run("ip " + command))
                _exit(NOT_PERMITTED);
        _exit(body() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// The name of the first interface that the kernel lists, "lo" apart.
std::string first_listed()
{
    std::ifstream file("/proc/net/dev");
    for (std::string word; file >> word;)
        if (word.back() == ':' && word != "lo:")
            return word.substr(0, word.size() - 1);
    return "";
}

// Addresses end in the number of the interface: 1, 2 and so on, or 0xEE for eth0.
const std::string PAIR = "link add kv1 address 02:00:00:00:00:01 type veth peer name kv2 "
                         "address 02:00:00:00:00:02";
const std::string PAIR_WITH_ETH0 =
    "link add eth0 address 02:00:00:00:00:ee type veth peer name kv3 "
    "address 02:00:00:00:00:03";

void skip_or_expect_success(int status)
{
    if (status == NOT_PERMITTED)
        GTEST_SKIP() << "no network namespace with interfaces can be made here";
    if (status == NO_COMMAND)
        GTEST_SKIP() << "the command ip is not installed";
    EXPECT_EQ(status, 0);
}

// These come first and ask in their children only: a process looks once, and its children know what
// it found.
class HostIdInItsOwnNetwork : public testing::Test {};

TEST_F(HostIdInItsOwnNetwork, IsNotFoundWithLoAlone)
{
    skip_or_expect_success(in_new_network({"link set lo up"}, [] {
        const answer_t host = host_id();
        tbs_uuid_s uuid;
        const int status = brenner_tbs_uuid_gen(&uuid);
        return host.status == 1 && host.address == address_t{} && status == 0 &&
               uuid.node[0] >= 0x80;
    }));
}

TEST_F(HostIdInItsOwnNetwork, IsThatOfTheFirstListedInterface)
{
    skip_or_expect_success(in_new_network({PAIR}, [] {
        const auto number = static_cast<unsigned char>(first_listed() == "kv1" ? 1 : 2);
        const answer_t host = host_id();
        return host.status == 0 && host.address == address_t{2, 0, 0, 0, 0, number};
    }));
}

TEST_F(HostIdInItsOwnNetwork, IsThatOfEth0ListedLater)
{
    skip_or_expect_success(in_new_network({PAIR, PAIR_WITH_ETH0}, [] {
        const bool is_later = first_listed() != "eth0";
        const answer_t host = host_id();
        tbs_uuid_s uuid;
        const int status = brenner_tbs_uuid_gen(&uuid);
        return is_later && host.status == 0 && host.address == address_t{2, 0, 0, 0, 0, 0xEE} &&
               status == 0 && std::memcmp(uuid.node, host.address.data(), 6) == 0;
    }));
}

TEST_F(HostIdInItsOwnNetwork, StaysWhenTheInterfaceIsGone)
{
    skip_or_expect_success(in_new_network({PAIR_WITH_ETH0}, [] {
        const answer_t before = host_id();
        const bool is_gone = run("ip link delete eth0");
        const answer_t after = host_id();
        return is_gone && before.status == 0 && after.status == 0 &&
               after.address == before.address;
    }));
}

// ---- In this network ----

TEST(HostId, IsTheSameInEveryCall)
{
    const answer_t first = host_id();
    EXPECT_TRUE(first.status == 0 || first.status == 1);
    EXPECT_EQ(first.address == address_t{}, first.status == 1);
    for (int i = 0; i < 3; ++i) {
        const answer_t next = host_id();
        EXPECT_EQ(next.status, first.status);
        EXPECT_EQ(next.address, first.address);
    }
    EXPECT_EQ(brenner_sysutl_my_ieee_hostid(nullptr), first.status);
}

TEST(HostId, IsTheNodeOfIdentifiers)
{
    const answer_t host = host_id();
    tbs_uuid_s uuid;
    ASSERT_EQ(brenner_tbs_uuid_gen(&uuid), 0);
    if (host.status == 0)
        EXPECT_EQ(std::memcmp(uuid.node, host.address.data(), 6), 0);
    else
        EXPECT_GE(uuid.node[0], 0x80);
}

TEST(RandomBytes, AreGivenUpTo32)
{
    std::set<std::array<unsigned char, 32>> seen;
    for (int i = 0; i < 10; ++i) {
        std::array<unsigned char, 32> bytes{};
        EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes.data(), 32), 0);
        EXPECT_TRUE(seen.insert(bytes).second);
    }
    std::array<unsigned char, 33> bytes{};
    EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes.data(), 33), 1);
    EXPECT_EQ(bytes, (std::array<unsigned char, 33>{}));
    EXPECT_EQ(brenner_sysutl_get_random_bytes(bytes.data(), 0), 0);
    EXPECT_EQ(brenner_sysutl_get_random_bytes(nullptr, 0), 0);
    EXPECT_EQ(brenner_sysutl_get_random_bytes(nullptr, 1), 1);
}

}  // namespace
