#ifndef KVUTIL_XMLTAG_INDEX_IMPL_H
#define KVUTIL_XMLTAG_INDEX_IMPL_H

#include "xmltag_hash_impl.h"
#include "xmltag_lanes_impl.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kvl {
namespace XmlTagImpl {

/// Finds entries by scope and name without a lock, while one thread at a time adds more.
///
/// A hash table of buckets of seven entries, each a cache line; what a full bucket has no place for
/// stands in the next one that has. On average at most five places of a bucket are taken. Entries
/// are never removed, and a table that has become too small is kept: a reader may still be in it.
/// All tables together take less than twice the memory of the last one.
///
/// Traits gives `scope(entry)` and `name(entry)` of the entries.
template <class Entry, class Traits>
class name_index_t {
public:
    constexpr name_index_t() noexcept = default;
    name_index_t(const name_index_t&) = delete;
    name_index_t& operator=(const name_index_t&) = delete;

    /// The entry, or null. What another thread adds meanwhile may or may not be found.
    Entry* find(std::uint32_t scope, std::u16string_view name) const noexcept
    {
        const table_t* const table = table_.load(std::memory_order_acquire);
        if (table == nullptr)
            return nullptr;
        const std::uint64_t hash = hash_of(key_, scope, name);
        for (std::size_t i = hash & table->mask;; i = (i + 1) & table->mask) {
            const bucket_t& bucket = table->buckets[i];
            const std::uint64_t checks = bucket.checks.load(std::memory_order_acquire);
            std::uint64_t lanes = lanes_with(checks, check_of(hash));
            for (; lanes != 0; lanes = without_first_lane(lanes)) {
                Entry* const entry =
                    bucket.entries[first_lane(lanes)].load(std::memory_order_relaxed);
                if (is(*entry, scope, name))
                    return entry;
            }
            if (!is_full(checks))
                return nullptr;
        }
    }

    /// Makes the next add() possible.
    /// @throws std::bad_alloc  nothing has changed
    void make_room()
    {
        const table_t* const old = table_.load(std::memory_order_relaxed);
        if (old == nullptr)
            key_ = random_key();
        if (old == nullptr || size_ >= (old->mask + 1) * 5)
            table_.store(grown(old), std::memory_order_release);
    }

    /// Adds an entry whose scope and name are new. The make_room() before makes sure that there
    /// is a place.
    void add(Entry* entry) noexcept
    {
        put(*table_.load(std::memory_order_relaxed), entry);
        ++size_;
    }

private:
    struct alignas(64) bucket_t {
        std::atomic<std::uint64_t> checks{0};  // written after the entry that a new check is of
        std::atomic<Entry*> entries[NUM_LANES]{};
    };

    struct table_t {
        explicit table_t(std::size_t num_buckets)
            : memory(std::make_unique<std::byte[]>((num_buckets + 1) * sizeof(bucket_t))),
              mask(num_buckets - 1)
        {
            void* place = memory.get();
            std::size_t size = (num_buckets + 1) * sizeof(bucket_t);
            std::align(alignof(bucket_t), num_buckets * sizeof(bucket_t), place, size);
            buckets = static_cast<bucket_t*>(place);
            std::uninitialized_value_construct_n(buckets, num_buckets);
        }
        std::unique_ptr<std::byte[]> memory;
        bucket_t* buckets;
        std::size_t mask;
        const table_t* previous = nullptr;  // keeps the old table reachable
    };

    static constexpr std::size_t FIRST_NUM_BUCKETS = 16;
    static constexpr std::size_t BUCKETS_AHEAD = 4;

    static bool is(const Entry& entry, std::uint32_t scope, std::u16string_view name)
    {
        return Traits::scope(entry) == scope && equal_units(Traits::name(entry), name);
    }

    table_t* grown(const table_t* old) const
    {
        auto table =
            std::make_unique<table_t>(old == nullptr ? FIRST_NUM_BUCKETS : (old->mask + 1) * 2);
        for (std::size_t i = 0; old != nullptr && i <= old->mask; ++i) {
            prefetch(old->buckets[std::min(i + BUCKETS_AHEAD, old->mask)]);
            for (const std::atomic<Entry*>& entry : old->buckets[i].entries)
                if (Entry* const known = entry.load(std::memory_order_relaxed))
                    put(*table, known);
        }
        table->previous = old;
        return table.release();
    }

    /// Entries lie in no order of a table's: to wait for each would be most of the time that a
    /// larger table takes.
    static void prefetch(const bucket_t& bucket) noexcept
    {
        for (const std::atomic<Entry*>& entry : bucket.entries)
            __builtin_prefetch(entry.load(std::memory_order_relaxed));
    }

    void put(table_t& table, Entry* entry) const noexcept
    {
        const std::uint64_t hash = hash_of(key_, Traits::scope(*entry), Traits::name(*entry));
        std::size_t i = hash & table.mask;
        while (is_full(table.buckets[i].checks.load(std::memory_order_relaxed)))
            i = (i + 1) & table.mask;
        bucket_t& bucket = table.buckets[i];
        const std::uint64_t checks = bucket.checks.load(std::memory_order_relaxed);
        bucket.entries[num_taken(checks)].store(entry, std::memory_order_relaxed);
        bucket.checks.store(with_check(checks, check_of(hash)), std::memory_order_release);
    }

    static hash_key_t random_key() noexcept
    {
        hash_key_t key{};
        // The C library's getrandom() is a cancellation point, where a thread would end half-way.
        if (syscall(SYS_getrandom, &key, sizeof key, GRND_NONBLOCK) !=
            static_cast<long>(sizeof key))
            key.start ^= reinterpret_cast<std::uintptr_t>(&key);  // before the pool is seeded
        key.secret |= 1;
        return key;
    }

    std::atomic<table_t*> table_{nullptr};
    hash_key_t key_{};  // written before the first table is published, never again
    std::size_t size_ = 0;
};

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
