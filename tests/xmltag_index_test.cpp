#include "xmltag_impl.h"
#include "xmltag_index_impl.h"

#include "support/memory_fault.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

// The lock-free index and the lists behind the registry, on their own.

namespace {

using namespace Kvl::XmlTagImpl;

struct entry_t {
    std::u16string name;
};

struct traits_t {
    static std::u16string_view name(const entry_t& entry) { return entry.name; }
};

typedef name_index_t<const entry_t, traits_t> index_t;

void add(index_t& index, const entry_t& entry)
{
    index.make_room();
    const index_t::hashed_t hashed(entry.name);
    EXPECT_EQ(index.find(hashed), nullptr);
    index.add(hashed, &entry);
    EXPECT_EQ(index.find(hashed), &entry);
}

constexpr hash_key_t KEY{0x3BD39E10CB0EF593u, 0xC5F4F5AB4B2B7C19u};
constexpr hash_key_t OTHER_START{0x1F4A3C0B5D6E7F80u, KEY.secret};
constexpr hash_key_t OTHER_SECRET{KEY.start, 0x72E1B9A4D05C36F7u};

std::u16string random_name(std::mt19937& random)
{
    std::u16string name(random() % 30, u'\0');
    for (char16_t& unit : name)
        unit = static_cast<char16_t>(random() % 3 + (random() % 50 == 0 ? 0xD7FF : 0));
    return name;
}

TEST(XmlTagHash, IsTheSameAtCompileTimeAndAtRunTime)
{
    static constexpr std::u16string_view TEXT = u"abcdefghijklmnopqrstuvwxyz";
    constexpr auto hashes = [] {
        std::array<std::uint64_t, TEXT.size()> result{};
        for (std::size_t n = 0; n < result.size(); ++n)
            result[n] = hash_of(KEY, TEXT.substr(0, n));
        return result;
    }();
    for (std::size_t n = 0; n < hashes.size(); ++n) {
        const std::u16string copy(TEXT.substr(0, n));
        EXPECT_EQ(hash_of(KEY, copy), hashes[n]);
    }
}

TEST(XmlTagHash, DependsOnEveryUnitTheLengthAndTheKey)
{
    for (std::size_t length = 0; length < 40; ++length) {
        const std::u16string name(length, u'\0');
        std::set<std::uint64_t> hashes = {hash_of(KEY, name), hash_of(OTHER_START, name),
                                          hash_of(OTHER_SECRET, name), hash_of(KEY, name + u'\0')};
        for (std::size_t i = 0; i < length; ++i)
            for (const char16_t unit : {u'\x1', u'\x8000'}) {
                std::u16string changed = name;
                changed[i] = unit;
                hashes.insert(hash_of(KEY, changed));
            }
        EXPECT_EQ(hashes.size(), 4 + length * 2) << length;
    }
}

// Names as programs make them: numbered, in order.
TEST(XmlTagHash, SpreadsNumberedNames)
{
    std::vector<int> buckets(1024);
    for (int i = 0; i < 102'400; ++i) {
        const std::string digits = "property-" + std::to_string(i);
        ++buckets[hash_of(KEY, std::u16string(digits.begin(), digits.end())) % buckets.size()];
    }
    for (const int n : buckets)
        EXPECT_TRUE(n > 40 && n < 180) << n;  // 100 on average, with a deviation of 10
}

TEST(XmlTagHash, ComparesUnitsOfAnyLength)
{
    for (std::size_t length = 0; length < 80; ++length) {
        const std::u16string text(length, u'x');
        EXPECT_TRUE(equal_units(text, std::u16string(length, u'x')));
        EXPECT_FALSE(equal_units(text, text + u'x'));
        EXPECT_TRUE(equal_hashed_units(text, std::u16string(length, u'x')));
        EXPECT_FALSE(equal_hashed_units(text, text + u'x'));
        EXPECT_FALSE(equal_hashed_units(text + u'x', text));
        for (std::size_t i = 0; i < length; ++i) {
            std::u16string other = text;
            other[i] = u'y';
            EXPECT_FALSE(equal_units(text, other));
            EXPECT_FALSE(equal_hashed_units(text, other));
        }
    }
}

// Random checks from few values, so that most words hold equal ones and such as differ by one.
TEST(XmlTagLanes, AreFoundAsOneByOne)
{
    std::mt19937 random(7);
    for (int i = 0; i < 200'000; ++i) {
        std::uint64_t checks = 0;
        std::vector<std::uint64_t> expected;
        for (auto n = random() % (NUM_LANES + 1); n > 0; --n) {
            expected.push_back(check_of(std::uint64_t{random() % 3} << 57));
            checks = with_check(checks, expected.back());
        }
        ASSERT_EQ(num_taken(checks), expected.size());
        ASSERT_EQ(is_full(checks), expected.size() == NUM_LANES);

        const std::uint64_t wanted = check_of(std::uint64_t{random() % 3} << 57);
        std::set<unsigned int> found;
        for (std::uint64_t lanes = lanes_with(checks, wanted); lanes != 0;
             lanes = without_first_lane(lanes))
            found.insert(first_lane(lanes));
        for (unsigned int lane = 0; lane < expected.size(); ++lane)
            ASSERT_TRUE(expected[lane] != wanted || found.count(lane) == 1);
        const bool is_there = std::count(expected.begin(), expected.end(), wanted) != 0;
        ASSERT_EQ(found.empty(), !is_there);
        ASSERT_TRUE(found.empty() || *found.rbegin() < expected.size()) << "a free lane";
    }
}

TEST(XmlTagIndex, FindsWhatAMapFinds)
{
    std::mt19937 random(20240229);
    static index_t index;  // never freed, as in the registry
    std::vector<std::unique_ptr<entry_t>> entries;
    std::set<std::u16string> known;
    for (int i = 0; i < 20'000; ++i) {
        const std::u16string name = random_name(random);
        const entry_t* const found = index.find(name);
        ASSERT_EQ(found != nullptr, known.count(name) == 1);
        if (found != nullptr) {
            ASSERT_EQ(found->name, name);
            continue;
        }
        entries.push_back(std::make_unique<entry_t>(entry_t{name}));
        known.insert(name);
        add(index, *entries.back());
        ASSERT_EQ(index.find(name), entries.back().get());
    }
    EXPECT_GT(known.size(), 10'000u);
}

// A thread that is to end may still register a name, or look for one; it ends afterwards.
TEST(XmlTagIndex, IsMadeByAThreadThatIsBeingCancelled)
{
    static index_t index;  // never freed, as in the registry
    static const entry_t entry{u"name"};
    static std::atomic<bool> is_made{false};
    std::thread thread([] {
        pthread_cancel(pthread_self());
        add(index, entry);
        is_made = true;
    });
    thread.join();
    EXPECT_TRUE(is_made);
    EXPECT_EQ(index.find(u"name"), &entry);
}

TEST(XmlTagIndex, IsUnchangedWhenThereIsNoRoom)
{
    static index_t index;  // never freed, as in the registry
    std::vector<std::unique_ptr<entry_t>> entries;
    for (int i = 0; i < 500; ++i) {
        entries.push_back(
            std::make_unique<entry_t>(entry_t{std::u16string(1, static_cast<char16_t>(i))}));
        EXPECT_GE(for_each_memory_fault(
                      [&] { index.make_room(); },
                      [&] {
                          for (int k = 0; k < i; ++k)
                              ASSERT_NE(index.find(entries[static_cast<std::size_t>(k)]->name),
                                        nullptr);
                      }),
                  0);
        EXPECT_EQ(index.find(entries.back()->name), nullptr);
        add(index, *entries.back());
    }
}

TEST(XmlTagLists, HaveAPlaceForEveryIndex)
{
    unsigned int index = 0;
    for (unsigned int part = 0; part < 12; ++part)
        for (unsigned int offset = 0; offset < size_of_part(part); ++offset, ++index) {
            ASSERT_EQ(place_of(index).part, part);
            ASSERT_EQ(place_of(index).offset, offset);
        }
    const place_t last = place_of(0x7FFFFFFFu);
    EXPECT_EQ(last.part, 25u);
    EXPECT_LT(last.offset, size_of_part(25));
}

TEST(XmlTagLists, KeepTheirElements)
{
    static parted_list_t<int*> list;  // never freed, as in the registry
    std::vector<std::unique_ptr<int>> elements;
    for (unsigned int i = 0; i < 5'000; ++i) {
        elements.push_back(std::make_unique<int>());
        ASSERT_EQ(list.size(), i);
        list.make_room();
        list.push_back(elements.back().get());
    }
    for (unsigned int i = 0; i < 5'000; ++i)
        ASSERT_EQ(list[i], elements[i].get());
}

}  // namespace
