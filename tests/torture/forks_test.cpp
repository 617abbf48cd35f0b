// Processes that fork while their other threads use every table of the library, for the first time
// too. Each child uses them all once more, and has to come to its end.
// usage: forks_torture [processes] [forks of each]

#include "uses.h"

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <new>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr unsigned int SECONDS_A_CHILD = 60;
constexpr unsigned int SECONDS_A_PROCESS = 500;

/// What all processes have done, in memory that they share.
struct figures_t {
    std::atomic<unsigned int> children_well{0};
    std::atomic<unsigned long> operations{0};
};

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
            if (!is_right(all_uses()[n % all_uses().size()], n))
                is_well_ = false;
    }

    figures_t& figures_;
    std::vector<std::thread> threads_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> is_well_{true};
};

/// @return  whether a process of its own, which does that, comes to its end and finds it right
template <class Body>
bool is_well_in_child(const char* name, unsigned int seconds, Body body)
{
    const int status =
        status_of_child(seconds, [&] { return body() ? EXIT_SUCCESS : EXIT_FAILURE; });
    if (status != 0)
        std::cerr << "a " << name << " ended with status " << status << std::endl;
    return status == 0;
}

bool children_are_well(unsigned int forks, figures_t& figures)
{
    const load_t load(3, figures);
    unsigned int well = 0;
    for (unsigned int n = 0; n < forks; ++n)
        well += is_well_in_child("child", SECONDS_A_CHILD, [n] { return are_all_right(n); });
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
    const environment_t environment;
    figures_t& figures = shared_figures();
    unsigned int well = 0;
    for (unsigned int n = 0; n < processes; ++n)
        well += is_well_in_child("process", SECONDS_A_PROCESS,
                                 [&] { return children_are_well(forks, figures); });
    std::cout << "fork torture: processes=" << processes << " forks=" << processes * forks
              << " well=" << figures.children_well << " operations meanwhile=" << figures.operations
              << std::endl;
    return well == processes ? EXIT_SUCCESS : EXIT_FAILURE;
}
