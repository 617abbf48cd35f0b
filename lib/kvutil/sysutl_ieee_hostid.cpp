#include <kvutil/sysutl_ieee_hostid.h>

#include "descriptor_impl.h"
#include "net_device_impl.h"
#include "sys_calls_impl.h"
#include "sysutl_ieee_hostid_impl.h"
#include "uncancelled_impl.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <optional>
#include <pthread.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace Kvl {

using HostIdImpl::address_t;
using HostIdImpl::answer_t;

namespace {

constexpr int FOUND = 0;
constexpr int NOT_FOUND = 1;

ssize_t read_some(int descriptor, void* bytes, std::size_t size_bytes)
{
    return uninterrupted([&] { return sys_calls.read(descriptor, bytes, size_bytes); });
}

// ---- The host's address ----

/// Any socket will do to ask about interfaces. Where there is no IPv6, there is IPv4.
int open_socket()
{
    const int socket = sys_calls.socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return socket >= 0 ? socket : sys_calls.socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

/// The address of an interface, when it is an Ethernet one and not all zero.
std::optional<address_t> address_of(std::string_view interface, int socket)
{
    ifreq request{};
    // Deliberate: a name that fills the field is not terminated; the kernel cuts it.
    std::memcpy(request.ifr_name, interface.data(),
                std::min(interface.size(), sizeof request.ifr_name));
    if (sys_calls.ioctl(socket, SIOCGIFHWADDR, &request) < 0 ||
        request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
        return std::nullopt;
    address_t address;
    std::memcpy(address.data(), request.ifr_hwaddr.sa_data, address.size());
    if (address == address_t{})
        return std::nullopt;
    return address;
}

/// Chooses among the interfaces, in the order in which they are listed.
class choice_t {
public:
    explicit choice_t(int socket) noexcept : socket_(socket) {}

    /// @return  whether to go on: nothing is better than "eth0"
    bool consider(std::string_view interface)
    {
        if (interface == "lo")
            return true;
        const auto address = address_of(interface, socket_);
        const bool is_preferred = address && interface == "eth0";
        if (is_preferred || !address_)
            address_ = address;
        return !is_preferred;
    }

    answer_t answer() const
    {
        return {address_.value_or(address_t{}), address_ ? FOUND : NOT_FOUND};
    }

private:
    const int socket_;
    std::optional<address_t> address_;
};

// A read that fails ends the list: what has been found by then counts.
void consider_listed(int file, choice_t& choice)
{
    const auto consider = [&](std::string_view interface) { return choice.consider(interface); };
    const auto consider_line = [&](std::string_view line) {
        return NetDeviceImpl::visit_names(line, consider);
    };
    NetDeviceImpl::line_reader_t lines;
    char bytes[1024];
    for (;;) {
        const ssize_t count = read_some(file, bytes, sizeof bytes);
        if (count <= 0)
            break;
        if (!lines.take({bytes, static_cast<std::size_t>(count)}, consider_line))
            return;
    }
    lines.finish(consider_line);
}

// ---- Asked once ----

// A call that is interrupted by fork() is made anew in the child.
constinit pthread_once_t once = PTHREAD_ONCE_INIT;
constinit answer_t cached_answer{};

void look_up_once() noexcept
{
    cached_answer = HostIdImpl::look_up();
}

}  // namespace

answer_t HostIdImpl::look_up() noexcept
{
    const uncancelled_t whole;
    const descriptor_t socket(open_socket());
    if (!socket.is_open())
        return {{}, NOT_FOUND};
    const descriptor_t file = open_file("/proc/net/dev", O_RDONLY);
    if (!file.is_open())
        return {{}, NOT_FOUND};
    choice_t choice(socket.number());
    consider_listed(file.number(), choice);
    return choice.answer();
}

void HostIdImpl::forget() noexcept
{
    once = PTHREAD_ONCE_INIT;
}

}  // namespace Kvl

using namespace Kvl;

int brenner_sysutl_my_ieee_hostid(unsigned char addr[6])
{
    pthread_once(&once, look_up_once);
    if (addr != nullptr)
        std::memcpy(addr, cached_answer.address.data(), cached_answer.address.size());
    return cached_answer.status;
}

int brenner_sysutl_get_random_bytes(unsigned char* buf, unsigned int n)
{
    if (n > 32 || (n > 0 && buf == nullptr))
        return 1;
    const uncancelled_t whole;
    const descriptor_t source = open_file("/dev/urandom", O_RDONLY);
    if (!source.is_open())
        return 1;
    while (n > 0) {
        const ssize_t count = read_some(source.number(), buf, n);
        if (count <= 0)
            return 1;
        buf += count;
        n -= static_cast<unsigned int>(count);
    }
    return 0;
}
