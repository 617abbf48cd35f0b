#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include "support/sanitizer.h"
#include "support/text.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <future>
#include <new>
#include <thread>
#include <vector>

namespace {

/// While set, the next allocation of the thread reports itself and waits: a registration can be
/// stopped half-way, with the registry's lock held.
struct stop_t {
    std::promise<void> reached;
    std::promise<void> go_on;
};
thread_local stop_t* stop_at_next_allocation = nullptr;

void* allocate(std::size_t size)
{
    if (stop_t* const stop = std::exchange(stop_at_next_allocation, nullptr)) {
        stop->reached.set_value();
        stop->go_on.get_future().wait();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

}  // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

using Kvl::UString;
using Kvl::XmlTag;

template <class Body>
void on_threads(int count, Body body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t)
        threads.emplace_back([=] { body(t); });
    for (std::thread& thread : threads)
        thread.join();
}

UString numbered(const char* stem, int n)
{
    return ustr(stem + std::to_string(n));
}

TEST(XmlTagThreads, RegisterOverlappingNamesOnceEach)
{
    constexpr int THREADS = 8;
    constexpr int NAMES = 100'000;
    const XmlTag::Id first = XmlTag::g_num_defined_tags;
    const UString uri = ustr("urn:overlap");
    std::vector<std::vector<const XmlTag*>> found(THREADS, std::vector<const XmlTag*>(NAMES));
    on_threads(THREADS, [&](int t) {
        for (int i = 0; i < NAMES; ++i) {
            const int n = (i + t % 4 * (NAMES / 4)) % NAMES;  // pairs of threads race for each name
            XmlTag tag(uri, numbered("n", n));
            found[static_cast<std::size_t>(t)][static_cast<std::size_t>(n)] = XmlTag::lookup(tag);
        }
    });
    EXPECT_EQ(XmlTag::g_num_defined_tags, first + NAMES);
    for (const auto& of_thread : found)
        ASSERT_EQ(of_thread, found[0]);
    std::vector<bool> seen(NAMES);
    for (int n = 0; n < NAMES; ++n) {
        const XmlTag* const tag = found[0][static_cast<std::size_t>(n)];
        ASSERT_EQ(tag->simple_name(), numbered("n", n));
        ASSERT_TRUE(tag->id() >= first && tag->id() < first + NAMES);
        ASSERT_EQ(XmlTag::lookup(tag->id()), tag);
        seen[static_cast<std::size_t>(tag->id() - first)] = true;
    }
    EXPECT_EQ(seen, std::vector<bool>(NAMES, true));
    EXPECT_EQ(XmlTag::g_nsid_to_namespace_map->back()->tags.size(), std::size_t{NAMES});
}

TEST(XmlTagThreads, CreateOverlappingNamespacesOnceEach)
{
    constexpr int THREADS = 8;
    constexpr int URIS = 1'000;
    const auto first = static_cast<XmlTag::NsId>(XmlTag::g_sorted_namespace_vector->size());
    std::vector<std::vector<XmlTag::NsId>> found(THREADS, std::vector<XmlTag::NsId>(URIS));
    on_threads(THREADS, [&](int t) {
        for (int i = 0; i < URIS; ++i) {
            const int n = (i + t % 4 * (URIS / 4)) % URIS;
            const XmlTag tag(numbered("urn:many:", n), UString());
            found[static_cast<std::size_t>(t)][static_cast<std::size_t>(n)] = tag.ns_id();
            ASSERT_EQ(XmlTag::ns_URI(tag.ns_id()), tag.ns());
            ASSERT_EQ(XmlTag::lookup(tag.ns_id(), ustr("x"))->ns_id(), tag.ns_id());
        }
    });
    EXPECT_EQ(XmlTag::g_sorted_namespace_vector->size(), static_cast<std::size_t>(first + URIS));
    for (const auto& of_thread : found)
        ASSERT_EQ(of_thread, found[0]);
    for (int n = 0; n < URIS; ++n) {
        const XmlTag::NsId nsid = found[0][static_cast<std::size_t>(n)];
        ASSERT_TRUE(nsid >= first && nsid < first + URIS);
        ASSERT_EQ(XmlTag::ns_URI(nsid), numbered("urn:many:", n));
    }
}

// Readers see each tag whole from the moment its Id is assigned. This one sees all of them.
TEST(XmlTagThreads, ReadTagsByIdWhileOthersRegister)
{
    constexpr int NAMES = 20'000;
    const XmlTag::Id first = XmlTag::lookup(2, ustr("before"))->id() + 1;
    std::thread reader([&] {
        XmlTag::Id id = first;
        while (id < first + NAMES)
            try {
                const XmlTag* const tag = XmlTag::lookup(id);
                ASSERT_EQ(tag->id(), id);
                ASSERT_EQ(tag->simple_name(), numbered("r", id - first));
                ASSERT_EQ(tag->simple_name().c_str()[tag->simple_name().length()], 0);
                ASSERT_EQ(XmlTag::lookup(2, tag->simple_name()), tag);
                ++id;
            } catch (const Kvl::IllegalArgException&) {
                std::this_thread::yield();  // not assigned yet
            }
    });
    for (int n = 0; n < NAMES; ++n)
        XmlTag::lookup(2, numbered("r", n));
    reader.join();
}

// The tag stays where it is, but the list in which it is found by Id is replaced by larger ones: a
// reader may meet a new one before it has seen the registration that needed it.
TEST(XmlTagThreads, ReadAKnownTagByIdWhileTheListOfTagsGrows)
{
    constexpr int NAMES = 10'000;
    const XmlTag* const known = XmlTag::lookup(2, ustr("known-before"));
    const XmlTag::Id id = known->id();
    std::atomic<bool> done{false};
    std::atomic<int> read{0};
    std::thread reader([&] {
        for (; !done.load(std::memory_order_relaxed); read.fetch_add(1, std::memory_order_relaxed))
            ASSERT_EQ(XmlTag::lookup(id), known);
    });
    for (int n = 0; n < NAMES; ++n) {
        while (read.load(std::memory_order_relaxed) < n / 100 && !HasFailure())
            std::this_thread::yield();
        XmlTag::lookup(2, numbered("growing", n));
    }
    done = true;
    reader.join();
}

// What is handed out by reference is terminated already, so that c_str() and copies only read.
TEST(XmlTagThreads, ReadAndCopyTheSameTexts)
{
    const UString short_name = ustr("short");
    const UString long_name(std::u16string(100, u'n'));
    const UString uri(std::u16string(100, u'u'));
    const XmlTag copied(uri, long_name);
    const XmlTag copy = copied;
    const UString* const texts[] = {
        &XmlTag::EMPTY_NS_PREFIX,
        &XmlTag::lookup(0)->ns(),
        &XmlTag::lookup(3)->simple_name(),
        &XmlTag::lookup(3)->ns(),
        &XmlTag::ns_abbreviation(3),
        &XmlTag::lookup(2, short_name)->simple_name(),
        &XmlTag::lookup(2, long_name)->simple_name(),
        &copied.ns(),
        &copied.simple_name(),
        &copy.simple_name(),
    };
    on_threads(4, [&](int) {
        for (int i = 0; i < 500; ++i)
            for (const UString* const text : texts) {
                ASSERT_EQ(text->c_str()[text->length()], 0);
                const UString own = *text;
                ASSERT_EQ(own, *text);
                ASSERT_EQ(own.c_str()[own.length()], 0);
            }
    });
}

TEST(XmlTagThreads, DoNotWaitForARegistrationToLookUpWhatIsKnown)
{
    const UString name = ustr("known");
    const UString uri = ustr("urn:known");
    XmlTag tag(uri, name);
    const XmlTag* const known = XmlTag::lookup(tag);
    stop_t stop;
    std::thread registering([&] {
        const UString other = ustr("other");
        stop_at_next_allocation = &stop;
        XmlTag::lookup(2, other);
    });
    stop.reached.get_future().wait();
    EXPECT_EQ(XmlTag::lookup(known->ns_id(), name), known);
    EXPECT_EQ(XmlTag::lookup(known->id()), known);
    EXPECT_EQ(XmlTag::lookup(tag), known);
    EXPECT_EQ(XmlTag(uri, name).ns_id(), known->ns_id());
    EXPECT_EQ(XmlTag::ns_URI(known->ns_id()), uri);
    EXPECT_TRUE(XmlTag::is_well_known_namespace(XmlTag::ns_URI(4)));
    EXPECT_EQ(XmlTag::lookup(0, ustr("acl-entry"))->id(), 3);
    stop.go_on.set_value();
    registering.join();
}

/// Whether every run-time tag can be found by Id and by name, and every map agrees.
bool registry_is_whole()
{
    std::size_t tags = 0;
    for (const XmlTag::Namespace* const ns : *XmlTag::g_sorted_namespace_vector) {
        tags += ns->tags.size();
        for (const auto& [name, tag] : ns->tags)
            if (XmlTag::lookup(tag->id()) != tag || XmlTag::lookup(ns->id, name) != tag ||
                tag->simple_name() != name)
                return false;
    }
    return tags == static_cast<std::size_t>(XmlTag::g_num_defined_tags - 1155) &&
           XmlTag::g_sorted_namespace_vector->size() ==
               21 + XmlTag::g_nsid_to_namespace_map->size();
}

/// What a child does with the registry it was born with; 0 when all is well.
int use_registry_after_fork()
{
    if (!registry_is_whole())
        return 1;
    const XmlTag::Id next = XmlTag::g_num_defined_tags;
    if (XmlTag::lookup(8, ustr("born-after-the-fork"))->id() != next)
        return 2;
    const auto nsid = static_cast<XmlTag::NsId>(XmlTag::g_sorted_namespace_vector->size());
    if (XmlTag(ustr("urn:born-after-the-fork"), UString()).ns_id() != nsid)
        return 3;
    return registry_is_whole() ? 0 : 4;
}

TEST(XmlTagFork, GivesTheChildAWholeRegistryWhateverOtherThreadsDo)
{
    if (HAS_ADDRESS_SANITIZER)
        GTEST_SKIP() << "its allocator may stay locked in the child";
    std::atomic<bool> done{false};
    std::atomic<int> registered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            const UString uri = numbered("urn:fork:", t);
            for (int n = 0; !done && n < 20'000; ++n, ++registered) {
                XmlTag tag(n % 10 == 0 ? numbered("urn:forks:", n) : uri, numbered("f", n));
                XmlTag::lookup(tag);
            }
        });
    for (int i = 0; i < 10; ++i) {
        while (registered < i * 200)
            std::this_thread::yield();
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(200);
            // Past every exit hook: a sanitizer would report the parent's threads as lost.
            syscall(SYS_exit_group, use_registry_after_fork());
        }
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    done = true;
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
