#include <kvutil/arm.h>

#include "support/child.h"
#include "support/fake_arm4_runtime.h"
#include "support/memory_fault.h"
#include "support/sanitizer.h"
#include "support/small_stack.h"
#include "support/text.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstring>
#include <iterator>
#include <random>
#include <thread>

// Measurement is switched on for good, so each of these runs in a process of its own.

namespace {

using Kvl::ArmApplication;
using Kvl::ArmBuffer;
using Kvl::OperationRegistrar;
using Kvl::UString;
typedef Kvl::ArmPerThreadOperationStack Stack;

constexpr int UNAVAILABLE = -21000;

constexpr int SCALE = IS_SANITIZED ? 20 : 1;

typedef std::vector<std::string> calls_t;

/// An application that is measured: registered, with one operation, and started.
class measured_t {
public:
    measured_t() : pay(u"pay")
    {
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
        EXPECT_EQ(ArmApplication::start_application(nullptr, u"", u""), 0);
        runtime.forget();
    }

    int start(bool local = false, const ArmBuffer* buffer = nullptr) const
    {
        return Stack::start_transaction(pay.tran_id(), buffer, local);
    }

    const fake_runtime_t runtime;
    const OperationRegistrar pay;
};

std::string start_call(const std::string& parent, int flags, int handle,
                       const std::string& buffer = "null")
{
    return "arm_start_transaction app_handle=1 tran_id=b0" + std::string(29, '0') +
           "1 parent=" + parent + " flags=" + std::to_string(flags) + " buffer=" + buffer +
           " -> 0 handle=" + std::to_string(handle) + " tran_name=\"pay\"";
}

std::string stop_call(int handle, int status = 0, const std::string& buffer = "null",
                      const std::string& code = "0")
{
    return "arm_stop_transaction handle=" + std::to_string(handle) +
           " status=" + std::to_string(status) + " flags=0 buffer=" + buffer + " -> " + code;
}

void expect_no_operation()
{
    EXPECT_EQ(Stack::current_local_operation(), 0);
    EXPECT_EQ(Stack::current_local_correlator(), nullptr);
    EXPECT_FALSE(Stack::doing_local_operation());
}

void expect_operation(const measured_t& m, long long handle, long long parent)
{
    EXPECT_TRUE(Stack::doing_local_operation());
    EXPECT_EQ(Stack::current_local_operation(), handle);
    ASSERT_NE(Stack::current_local_correlator(), nullptr);
    EXPECT_EQ(m.runtime.handle_of(Stack::current_local_correlator()), handle);
    EXPECT_EQ(m.runtime.parent_of(Stack::current_local_correlator()), parent);
}

TEST(ArmStack, IsMadeByAskingForTheBaseCorrelator)
{
    in_child([] {
        const measured_t m;
        expect_no_operation();
        EXPECT_EQ(m.start(), UNAVAILABLE);
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), UNAVAILABLE);
        EXPECT_EQ(pthread_getspecific(ArmApplication::g_global_data.key), nullptr);
        EXPECT_EQ(m.runtime.count(), 0);

        arm_correlator* const base = Stack::get_base_correlator();
        ASSERT_NE(base, nullptr);
        EXPECT_EQ(Stack::get_base_correlator(), base);
        EXPECT_TRUE(std::all_of(std::begin(base->opaque), std::end(base->opaque),
                                [](unsigned char byte) { return byte == 0; }));
        expect_no_operation();
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), UNAVAILABLE);
        EXPECT_EQ(m.runtime.count(), 0);
        EXPECT_EQ(m.start(), 0);
    });
}

TEST(ArmStack, HandsTheCorrelatorsFromParentToChild)
{
    in_child([] {
        const measured_t m;
        Stack::get_base_correlator();
        EXPECT_EQ(m.start(false), 0);
        expect_operation(m, 1, 0);
        EXPECT_EQ(m.start(true), 0);
        expect_operation(m, 2, 1);
        EXPECT_EQ(Stack::stop_transaction(ARM_STATUS_ABORTED, nullptr), 0);
        expect_operation(m, 1, 0);
        EXPECT_EQ(m.start(true), 0);
        expect_operation(m, 3, 1);
        EXPECT_EQ(m.start(false), 0);
        expect_operation(m, 4, 3);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(Stack::stop_transaction(ARM_STATUS_GOOD, nullptr), 0);
        expect_no_operation();
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), UNAVAILABLE);
        EXPECT_EQ(m.runtime.calls(),
                  (calls_t{start_call("none", 3, 1), start_call("#1", 7, 2), stop_call(2, 1),
                           start_call("#1", 7, 3), start_call("#3", 3, 4), stop_call(4),
                           stop_call(3), stop_call(1)}));
    });
}

TEST(ArmStack, MakesTheOutermostOperationAChildOfTheBaseCorrelator)
{
    in_child([] {
        const measured_t m;
        const unsigned char received[] = {0, 6, 0x11, 0, 0xAB, 0xCD};
        std::memcpy(Stack::get_base_correlator(), received, sizeof received);
        EXPECT_EQ(m.start(), 0);
        EXPECT_EQ(m.start(), 0);
        EXPECT_EQ(std::memcmp(Stack::get_base_correlator(), received, sizeof received), 0);
        EXPECT_EQ(m.runtime.calls(),
                  (calls_t{start_call("00061100abcd", 3, 1), start_call("#1", 3, 2)}));
    });
}

TEST(ArmStack, PassesTheFirst512BytesOfTheBaseCorrelatorAndNoMore)
{
    in_child([] {
        const measured_t m;
        arm_correlator* const base = Stack::get_base_correlator();
        std::memset(base, 0x5A, sizeof *base);
        base->opaque[0] = 2;  // 512 bytes
        base->opaque[1] = 0;
        EXPECT_EQ(m.start(), 0);
        std::string all = "0200";
        for (int i = 2; i < 512; ++i)
            all += "5a";
        EXPECT_EQ(m.runtime.calls(), calls_t{start_call(all, 3, 1)});
    });
}

TEST(ArmStack, PassesBuffersThatHoldSomething)
{
    in_child([] {
        const measured_t m;
        Stack::get_base_correlator();
        ArmBuffer buffer;
        EXPECT_EQ(m.start(false, &buffer), 0);
        EXPECT_EQ(Stack::stop_transaction(0, &buffer), 0);
        buffer.add_buffer(7LL);
        EXPECT_EQ(m.start(false, &buffer), 0);
        buffer.clear();
        buffer.add_buffer(UString(u"no stock"));
        EXPECT_EQ(Stack::stop_transaction(ARM_STATUS_FAILED, &buffer), 0);
        EXPECT_EQ(buffer.count(), 1);
        EXPECT_EQ(m.runtime.calls(), (calls_t{start_call("none", 3, 1), stop_call(1),
                                              start_call("none", 3, 2, "[arrival_time(7)]"),
                                              stop_call(2, 2, "[diag_detail(\"no stock\")]")}));
    });
}

TEST(ArmStack, StaysAsItWasWhenAStartFails)
{
    in_child([] {
        const measured_t m;
        Stack::get_base_correlator();
        m.runtime.plan("arm_start_transaction", 1, -8);
        EXPECT_EQ(m.start(), -8);
        expect_no_operation();
        EXPECT_EQ(m.start(), 0);
        m.runtime.plan("arm_start_transaction", 1, -8);
        EXPECT_EQ(m.start(), -8);
        expect_operation(m, 1, 0);
        EXPECT_EQ(m.start(), 0);
        expect_operation(m, 2, 1);
        EXPECT_EQ(m.runtime.calls()[3], start_call("#1", 3, 2));
    });
}

TEST(ArmStack, TakesAPositiveCodeForSuccess)
{
    in_child([] {
        const measured_t m;
        Stack::get_base_correlator();
        m.runtime.plan("arm_start_transaction", 1, 8);
        EXPECT_EQ(m.start(), 8);
        expect_operation(m, 1, 0);
        m.runtime.plan("arm_stop_transaction", 1, 9);
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), 9);
        expect_no_operation();
    });
}

TEST(ArmStack, HasLostTheOperationWhoseStopFails)
{
    in_child([] {
        const measured_t m;
        Stack::get_base_correlator();
        m.start();
        m.start();
        m.runtime.plan("arm_stop_transaction", 1, -8);
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), -8);
        expect_operation(m, 1, 0);
        m.runtime.plan("arm_stop_transaction", 1, -9);
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), -9);
        expect_no_operation();
        EXPECT_EQ(m.runtime.calls()[2], stop_call(2, 0, "null", "-8"));
        EXPECT_EQ(m.runtime.calls()[3], stop_call(1, 0, "null", "-9"));
    });
}

TEST(ArmStack, AllocatesForANewDepthOnly)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        const unsigned long at_first = allocations_of_this_thread();
        Stack::get_base_correlator();
        EXPECT_GT(allocations_of_this_thread(), at_first);

        const unsigned long before_first = allocations_of_this_thread();
        m.start();
        const arm_correlator* const lowest = Stack::current_local_correlator();
        EXPECT_EQ(allocations_of_this_thread(), before_first) << "made with the stack";
        m.start();
        m.start();
        const arm_correlator* const third = Stack::current_local_correlator();
        EXPECT_EQ(allocations_of_this_thread(), before_first + 2);

        for (int i = 0; i < 3; ++i)
            Stack::stop_transaction(0, nullptr);
        m.start();
        EXPECT_EQ(Stack::current_local_correlator(), lowest);
        m.start();
        m.start();
        EXPECT_EQ(Stack::current_local_correlator(), third);
        EXPECT_EQ(allocations_of_this_thread(), before_first + 2);
    });
}

TEST(ArmStack, IsOffWithTheApplication)
{
    in_child([] {
        const measured_t m;
        Stack::get_base_correlator();
        m.start();
        ArmApplication::g_level = Kvl::ARM_LEVEL_OFF;
        EXPECT_EQ(Stack::get_base_correlator(), nullptr);
        EXPECT_EQ(m.start(), UNAVAILABLE);
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), UNAVAILABLE);
        expect_no_operation();
        EXPECT_EQ(m.runtime.count(), 1);
    });
}

TEST(ArmStack, LacksWhatThereIsNoMemoryFor)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        arm_correlator* base = nullptr;
        for (unsigned long nth = 1; base == nullptr; ++nth) {
            ASSERT_LT(nth, 10u);
            const memory_fault fault(nth);
            base = Stack::get_base_correlator();
            EXPECT_EQ(base == nullptr, fault.struck());
            EXPECT_EQ(pthread_getspecific(ArmApplication::g_global_data.key) == nullptr,
                      fault.struck());
        }
        const memory_fault fault(1, true);
        EXPECT_EQ(m.start(), 0) << "needs none";
        EXPECT_EQ(m.start(), UNAVAILABLE);
        EXPECT_TRUE(fault.struck());
        expect_operation(m, 1, 0);
        EXPECT_EQ(m.start(), UNAVAILABLE);
        EXPECT_EQ(Stack::stop_transaction(0, nullptr), 0);
        expect_no_operation();
    });
}

TEST(ArmStack, BelongsToItsThread)
{
    in_child([] {
        const measured_t m;
        arm_correlator* const base = Stack::get_base_correlator();
        m.start();
        std::thread([&] {
            expect_no_operation();
            EXPECT_EQ(m.start(), UNAVAILABLE);
            EXPECT_NE(Stack::get_base_correlator(), base);
            EXPECT_EQ(m.start(), 0);
            expect_operation(m, 2, 0);
        }).join();
        expect_operation(m, 1, 0);
        EXPECT_EQ(m.runtime.thread(0), 1);
        EXPECT_EQ(m.runtime.thread(1), 2);
        EXPECT_EQ(m.runtime.count(), 2) << "what a thread left open is not stopped";
    });
}

TEST(ArmStack, IsThereForThreadsThatWaitForTheRegistration)
{
    in_child([] {
        const fake_runtime_t runtime;
        std::atomic<bool> is_over = false;
        std::atomic<int> stacks = 0;
        const auto wait = [&] {
            const arm_correlator* base = nullptr;
            for (bool is_last = false; base == nullptr && !is_last;) {
                is_last = is_over.load(std::memory_order_relaxed);
                base = Stack::get_base_correlator();
            }
            stacks += base != nullptr;
        };
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back(wait);
        EXPECT_EQ(ArmApplication::register_application(Kvl::ARM_LEVEL_ON, u"shop", nullptr), 0);
        is_over.store(true, std::memory_order_relaxed);
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(stacks, 4);
    });
}

/// Bytes that the program has allocated. 0 under sanitizers, which say themselves what is not
/// freed.
std::size_t allocated_bytes()
{
    return mallinfo2().uordblks;
}

TEST(ArmStack, IsFreedWithItsThread)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        const auto use = [&m] {
            Stack::get_base_correlator();
            for (int depth = 0; depth < 100; ++depth)
                m.start();
        };
        std::thread(use).join();
        const std::size_t before = allocated_bytes();
        for (int i = 0; i < 200; ++i)
            std::thread(use).join();
        EXPECT_LT(allocated_bytes(), before + 100 * sizeof(Stack::stack_entry_t));
    });
}

TEST(ArmStack, IsMadeAnewByWhoComesAfterItsEnd)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        // Destructors of a thread's data run in the order of their keys, and again for what they
        // set.
        static pthread_key_t late_key;
        static int runs = 0;
        pthread_key_create(&late_key, [](void*) {
            ++runs;
            EXPECT_NE(Stack::get_base_correlator(), nullptr);
            expect_no_operation();
        });
        const auto use = [&m] {
            Stack::get_base_correlator();
            m.start();
            pthread_setspecific(late_key, &late_key);
        };
        std::thread(use).join();
        const std::size_t before = allocated_bytes();
        for (int i = 0; i < 100; ++i)
            std::thread(use).join();
        EXPECT_EQ(runs, 101);
        EXPECT_LT(allocated_bytes(), before + 20 * sizeof(Stack::stack_entry_t));
    });
}

TEST(ArmStack, DeletesNothingForNull)
{
    ArmApplication::global_data_t::delete_stack(nullptr);
}

// Whatever ARM answers, the stack is what these two rules make it: a start that does not fail
// pushes, every stop pops.
TEST(ArmStack, FollowsItsRulesThroughAnySequence)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        Stack::get_base_correlator();
        std::minstd_rand random(1);
        std::vector<long long> open;  // the handles, the outermost first
        for (int step = 0; step < 20'000; ++step) {
            const bool starts = random() % 100 < 51;
            const int code = random() % 4 == 0 ? -static_cast<int>(random() % 100) : 0;
            m.runtime.plan(starts ? "arm_start_transaction" : "arm_stop_transaction", 1, code);
            if (starts) {
                ASSERT_EQ(m.start(), code);
                if (code >= 0) {
                    ASSERT_EQ(m.runtime.parent_of(Stack::current_local_correlator()),
                              open.empty() ? 0 : open.back());
                    open.push_back(Stack::current_local_operation());
                }
            } else {
                ASSERT_EQ(Stack::stop_transaction(0, nullptr), open.empty() ? UNAVAILABLE : code);
                if (!open.empty())
                    open.pop_back();
            }
            ASSERT_EQ(Stack::doing_local_operation(), !open.empty());
            ASSERT_EQ(Stack::current_local_operation(), open.empty() ? 0 : open.back());
        }
    });
}

// Each start and stop that looked at the operations below would take hours here, and a recursion
// would not fit.
TEST(ArmStack, TakesAMillionOperationsWithinEachOther)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        on_small_stack([&m] {
            constexpr int depth = 1'000'000 / SCALE;
            Stack::get_base_correlator();
            for (int i = 0; i < depth; ++i)
                ASSERT_EQ(m.start(), 0);
            expect_operation(m, depth, depth - 1);
            for (int i = 0; i < 100'000; ++i) {
                ASSERT_EQ(Stack::stop_transaction(0, nullptr), 0);
                ASSERT_EQ(m.start(), 0);
            }
            for (int i = 0; i < depth / 2; ++i)
                ASSERT_EQ(Stack::stop_transaction(0, nullptr), 0);
            EXPECT_EQ(Stack::current_local_operation(), depth - depth / 2);
        });  // half of them are still open, and the thread frees the places of all
    });
}

TEST(ArmStack, GivesEveryOperationOfManyThreadsItsOwnParent)
{
    in_child([] {
        const measured_t m;
        m.runtime.record(0);
        constexpr int threads_at_once = 8;
        std::atomic<int> wrong{0};
        // All are there before any of them ends: what the C library keeps for each is then the same
        // next time.
        std::barrier all_there(threads_at_once);
        const auto measure = [&m, &wrong, &all_there] {
            constexpr int operations = 100'000 / SCALE;
            constexpr int deepest = 10;
            Stack::get_base_correlator();
            all_there.arrive_and_wait();
            long long handles[deepest + 1] = {};
            for (int i = 0, depth = 0; i < operations; ++i) {
                wrong += m.start() != 0;
                handles[++depth] = Stack::current_local_operation();
                const arm_correlator* const correlator = Stack::current_local_correlator();
                wrong += m.runtime.handle_of(correlator) != handles[depth];
                wrong += m.runtime.parent_of(correlator) != handles[depth - 1];
                for (const int left = i % deepest; depth > left; --depth)
                    wrong += Stack::stop_transaction(0, nullptr) != 0;
            }
        };
        const auto all_measure = [&measure] {
            std::vector<std::thread> threads;
            for (int i = 0; i < threads_at_once; ++i)
                threads.emplace_back(measure);
            for (std::thread& thread : threads)
                thread.join();
        };
        all_measure();
        const std::size_t before = allocated_bytes();
        all_measure();
        EXPECT_EQ(wrong, 0);
        EXPECT_LT(allocated_bytes(), before + 10'000);
    });
}

/// Runs an operation that is cancelled within the run-time.
template <class Operation>
void in_cancelled_thread(Operation operation)
{
    std::thread thread([&operation] {
        pthread_cancel(pthread_self());
        operation();
        ADD_FAILURE() << "not cancelled";
    });
    thread.join();
}

TEST(ArmStack, IsWholeWhenItsThreadIsCancelledWithinTheRuntime)
{
    in_child([] {
        const measured_t m;
        static long long left_over = -1;
        struct at_end_t {
            ~at_end_t() { left_over = Stack::current_local_operation(); }
        };
        in_cancelled_thread([&m] {
            int before = 0;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
            Stack::get_base_correlator();
            m.start();
            const at_end_t at_end;
            m.runtime.watch([](const char*) { pthread_testcancel(); });
            pthread_setcancelstate(before, nullptr);
            m.start();
        });
        EXPECT_EQ(left_over, 1) << "the one that was started before";
        m.runtime.watch(nullptr);
        in_cancelled_thread([&m] {
            int before = 0;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
            Stack::get_base_correlator();
            m.start();
            m.start();
            const at_end_t at_end;
            m.runtime.watch([](const char*) { pthread_testcancel(); });
            pthread_setcancelstate(before, nullptr);
            Stack::stop_transaction(0, nullptr);
        });
        EXPECT_EQ(left_over, 2) << "the lower one of the two";
    });
}

}  // namespace
