#include "torture.h"

#include "support/files.h"

#include <kvutil/fileutl.h>
#include <kvutil/logadaptor.h>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace torture {
namespace {

std::string name_of(const row_t& row)
{
    return row.header + ", row " + std::to_string(row.number) + ": " + row.symbols.front();
}

// ---- one run ----

bool may_change_the_world(const row_t& row)
{
    return row.is_growing || row.is_changing || !row.is_for_this_process;
}

std::string difference(const char* what, const std::string& found, const std::string& expected)
{
    return found == expected ? "" : std::string(what) + ": " + found + "\ninstead of: " + expected;
}

/// @return what is wrong with a run; empty when it is as it must be
std::string judged(const row_t& row, const run_t& run, const run_t& reference, bool try_again)
{
    std::string all;
    if (run.is_refused || !may_change_the_world(row))
        all += difference("what is shared", run.world_after, run.world_before);
    if (!run.is_refused)
        return all + difference("the result", run.result, reference.result) +
               difference("the object", run.after, reference.after);
    all += difference("the object after a refusal", run.after, run.before);
    if (try_again)
        all += difference("the second result", run.second_result, reference.result) +
               difference("the object after the second call", run.second_after, reference.after);
    return all;
}

void complain(const row_t& row, const fault_t& fault, const std::string& what)
{
    ADD_FAILURE() << name_of(row) << ", allocation " << fault.nth
                  << (fault.and_after ? " and all after it" : "") << ": " << what;
}

/// A run, and what it left on the heap.
struct measured_t {
    bool has_struck = false;
    bool is_refused = false;
    bool is_fine = false;
    long blocks_left = 0;
};

measured_t measured(const row_t& row, const fault_t& fault, const run_t& reference,
                    bool try_again = true)
{
    measured_t result;
    const long before = live_blocks_of_this_thread();
    {
        const run_t run = row.run(fault, try_again);
        result.has_struck = run.has_struck;
        result.is_refused = run.is_refused;
        const std::string fault_found = judged(row, run, reference, try_again);
        result.is_fine = fault_found.empty();
        if (!result.is_fine)
            complain(row, fault, fault_found);
    }
    result.blocks_left = live_blocks_of_this_thread() - before;
    return result;
}

/// A run in which the nth allocation fails. What grows needs memory only now and then, so it is
/// called until it does.
measured_t measured_with_patience(const row_t& row, const fault_t& fault, const run_t& reference)
{
    constexpr int patience = 100;
    measured_t result = measured(row, fault, reference);
    for (int i = 0; row.is_growing && !result.has_struck && result.is_fine && i < patience; ++i)
        result = measured(row, fault, reference);
    return result;
}

void count(const fault_t& fault, bool is_refused, figures_t& figures)
{
    ++(fault.and_after ? figures.failed_from_there_on : figures.failed_once);
    figures.refusals += is_refused;
}

// ---- this process ----

/// Fills what is kept between calls.
void warm_up(const row_t& row, const run_t& reference)
{
    constexpr int enough = 8;
    for (int i = 0; i < enough; ++i) {
        const measured_t run = measured(row, {}, reference);
        if (!run.is_fine || run.blocks_left == 0)
            return;
    }
    if (!row.is_growing)
        ADD_FAILURE() << name_of(row) << ": each call leaves something on the heap";
}

/// Whether a refused call and its repetition leave more than one call does. A table that grows just
/// now leaves one more, but not again and again.
bool parts_leak(const row_t& row, const fault_t& fault, const run_t& reference)
{
    constexpr int enough = 3;
    for (int i = 0; i < enough; ++i)
        if (measured(row, fault, reference).blocks_left == measured(row, {}, reference).blocks_left)
            return false;
    return true;
}

/// What a table has got for a call that is refused may stay there for the next one. But then the
/// next one leaves nothing.
bool leaks(const row_t& row, const fault_t& fault, const run_t& reference)
{
    if (row.keeps_parts)
        return parts_leak(row, fault, reference);
    constexpr int enough = 8;
    for (int i = 0; i < enough; ++i) {
        const measured_t run = measured(row, fault, reference, false);
        if (!run.is_refused || run.blocks_left <= 0)
            return false;
    }
    return true;
}

/// @return how many allocations were made to fail
unsigned long torture_here(const row_t& row, bool and_after, const run_t& reference,
                           figures_t& figures)
{
    for (fault_t fault = {1, and_after};; ++fault.nth) {
        const measured_t run = measured_with_patience(row, fault, reference);
        if (!run.has_struck || !run.is_fine)
            return fault.nth - 1;
        count(fault, run.is_refused, figures);
        if (row.is_growing ? leaks(row, fault, reference) : run.blocks_left != 0) {
            complain(row, fault, std::to_string(run.blocks_left) + " blocks are leaked");
            return fault.nth;
        }
    }
}

void expect_that_another_thread_can_call(const row_t& row, const run_t& reference)
{
    std::thread([&] { measured(row, {}, reference); }).join();
}

void torture_here(const row_t& row, figures_t& figures)
{
    const run_t reference = row.run({});
    if (reference.is_refused) {
        complain(row, {}, "refused with memory: " + reference.result);
        return;
    }
    const auto descriptors = open_descriptors();
    warm_up(row, reference);
    const unsigned long points = torture_here(row, false, reference, figures);
    torture_here(row, true, reference, figures);
    EXPECT_TRUE(row.is_unknown || (points != 0) != row.is_frugal)
        << name_of(row) << " makes " << points << " allocations";
    expect_that_another_thread_can_call(row, reference);
    EXPECT_EQ(open_descriptors(), descriptors) << name_of(row);
}

// ---- new processes ----

enum child_t { WAS_STRUCK = 0, WAS_REFUSED = 1, WAS_SPARED = 2, FAILED = 3 };

/// A first call. What it should have resulted in is what the next one does.
child_t first_call(const row_t& row, const fault_t& fault)
{
    const run_t run = row.run(fault);
    const run_t next = row.run({});
    const std::string fault_found = judged(row, run, next, true);
    if (!fault_found.empty()) {
        complain(row, fault, "first call: " + fault_found);
        return FAILED;
    }
    return !run.has_struck ? WAS_SPARED : run.is_refused ? WAS_REFUSED : WAS_STRUCK;
}

child_t first_call_in_new_process(const row_t& row, const fault_t& fault)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const child_t result = first_call(row, fault);
        std::fflush(nullptr);
        _exit(result);
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) != FAILED)
        return child_t(WEXITSTATUS(status));
    complain(row, fault, "first call: the process ended with " + std::to_string(status));
    return FAILED;
}

void torture_in_new_processes(const row_t& row, figures_t& figures)
{
    for (const bool and_after : {false, true}) {
        for (fault_t fault = {1, and_after};; ++fault.nth) {
            const child_t child = first_call_in_new_process(row, fault);
            if (child == WAS_SPARED || child == FAILED) {
                EXPECT_TRUE(fault.nth > 1 || row.is_unknown)
                    << name_of(row) << " needs no memory at its first call";
                break;
            }
            count(fault, child == WAS_REFUSED, figures);
            ++figures.in_new_processes;
        }
    }
}

// ---- what hangs ----

const char* name_of_running = "";

/// A lock that is held for ever hangs the program; then at least it says where.
void watch(const std::string& name)
{
    static std::string kept;
    kept = name + " hangs\n";
    name_of_running = kept.c_str();
    std::signal(SIGALRM, [](int) {
        [[maybe_unused]] const auto written =
            write(STDERR_FILENO, name_of_running, std::char_traits<char>::length(name_of_running));
        _exit(EXIT_FAILURE);
    });
    alarm(200);
}

std::string sizes_of_namespaces()
{
    std::string all;
    for (const Kvl::XmlTag::Namespace* const ns : *Kvl::XmlTag::g_sorted_namespace_vector)
        all += std::to_string(ns->tags.size()) + "+" + std::to_string(ns->wk_tags.size()) + " ";
    return all;
}

std::string temporary_files() KVUTIL_NO_THREAD_SAFETY_ANALYSIS
{
    std::string all;
    for (const auto& [path, info] : Kvl::Fileutl::g_tmp_table)
        all += words(path) + std::to_string(info.id) + " ";
    return all;
}

}  // namespace

std::string world()
{
    typedef Log::LogAdaptor A;
    const void* const loggers[] = {A::log_manager, A::logger_stprpc, A::logger_kvl, A::logger_vdrpc,
                                   A::logger_obrpc};
    std::string all = "tags " + std::to_string(Kvl::XmlTag::g_num_defined_tags) + " run-time ns " +
                      std::to_string(Kvl::XmlTag::g_nsid_to_namespace_map->size()) + " ns " +
                      sizes_of_namespaces() + "files " + temporary_files() + "arm " +
                      std::to_string(Kvl::ArmApplication::g_level) + " registrars " +
                      std::to_string(Kvl::ArmApplication::g_registrars == nullptr
                                         ? 0
                                         : Kvl::ArmApplication::g_registrars->size()) +
                      " logging " + std::to_string(Kvl::STPException::g_logging_enabled);
    for (const void* const logger : loggers)
        all += logger == nullptr ? " none" : " one";
    return all;
}

void torture_first_calls(const row_t& row, figures_t& figures)
{
    watch(name_of(row));
    if (row.is_for_new_processes)
        torture_in_new_processes(row, figures);
    alarm(0);
}

void torture(const row_t& row, figures_t& figures)
{
    watch(name_of(row));
    ++figures.rows;
    if (row.is_for_this_process)
        torture_here(row, figures);
    alarm(0);
}

}  // namespace torture
