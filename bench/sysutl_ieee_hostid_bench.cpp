// The host's address, which is looked up once, and random bytes, against what a caller would use
// instead: the C++ library and the system.

#include <kvutil/sysutl_ieee_hostid.h>

#include "contest.h"

#include <array>
#include <cstring>
#include <random>
#include <sys/random.h>

namespace {

using address_t = std::array<unsigned char, 6>;

void address_kvutil(benchmark::State& state)
{
    address_t address{};
    const int first = brenner_sysutl_my_ieee_hostid(address.data());
    require_agreement(state, brenner_sysutl_my_ieee_hostid(address.data()) == first);
    for (auto _ : state) {
        benchmark::DoNotOptimize(brenner_sysutl_my_ieee_hostid(address.data()));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(address_kvutil)
    ->Name("further, identifiers and dates: address of the host, known/kvutil");

constexpr unsigned int SIZE = 32;
using bytes_t = std::array<unsigned char, SIZE>;

/// @param fill  fills the bytes; says whether it could
template <class Fill>
void time_random(benchmark::State& state, Fill fill)
{
    bytes_t one{};
    bytes_t other{};
    require_agreement(state, fill(one) && fill(other) && one != other);
    for (auto _ : state) {
        benchmark::DoNotOptimize(fill(one));
        benchmark::DoNotOptimize(one);
    }
}

void random_kvutil(benchmark::State& state)
{
    time_random(state, [](bytes_t& bytes) {
        return brenner_sysutl_get_random_bytes(bytes.data(), SIZE) == 0;
    });
}
BENCHMARK(random_kvutil)->Name("further, identifiers and dates: 32 random bytes/kvutil");

// Opens the system's source too.
void random_device(benchmark::State& state)
{
    time_random(state, [](bytes_t& bytes) {
        std::random_device source("/dev/urandom");
        for (std::size_t i = 0; i < bytes.size(); i += sizeof(unsigned int)) {
            const unsigned int word = source();
            std::memcpy(&bytes[i], &word, sizeof word);
        }
        return true;
    });
}
BENCHMARK(random_device)->Name("further, identifiers and dates: 32 random bytes/random_device");

void random_getrandom(benchmark::State& state)
{
    time_random(state, [](bytes_t& bytes) {
        return getrandom(bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
    });
}
BENCHMARK(random_getrandom)->Name("further, identifiers and dates: 32 random bytes/getrandom");

}  // namespace
