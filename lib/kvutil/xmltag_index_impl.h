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

/// Finds entries by name without a lock, while one thread at a time adds more.
///
/// A hash table of buckets of seven entries, each a cache line; what a full bucket has no place for
/// stands in the next one that has. On average at most five places of a bucket are taken. Entries
/// are never removed, and a table that has become too small is kept: a reader may still be in it.
/// All tables together take less than twice the memory of the last one.
///
/// Traits gives `name(entry)`. All indexes of one type have one lock for those who add.
template <class Entry, class Traits>
class name_index_t {
public:
    constexpr name_index_t() noexcept = default;
    name_index_t(const name_index_t&) = delete;
    name_index_t& operator=(const name_index_t&) = delete;

    /// The entry, or null. What another thread adds meanwhile may or may not be found.
    Entry* find(std::u16string_view name) const noexcept
    {
        const table_t* const table = table_.load(std::memory_order_acquire);
        return table == nullptr ? nullptr : find(*table, hash_of(key_, name), name);
    }

    /// Makes the next add() possible.
    /// @throws std::bad_alloc  nothing has changed
    void make_room()
    {
        const table_t* const old = table_.load(std::memory_order_relaxed);
        if (key_.secret == 0)
            key_ = random_key();
        if (old == nullptr || size_ >= (old->mask + 1) * 5)
            table_.store(&grown(old), std::memory_order_release);
    }

    /// A name with what is to be known of it, for find() and add() after a make_room().
    struct hashed_t {
        explicit hashed_t(std::u16string_view text) noexcept : name(text), hash(hash_of(key_, text))
        {
        }
        std::u16string_view name;
        std::uint64_t hash;
    };
    Entry* find(const hashed_t& wanted) const noexcept
    {
        return find(*table_.load(std::memory_order_relaxed), wanted.hash, wanted.name);
    }

    /// Adds an entry whose name is new. The make_room() before makes sure that there is a place.
    void add(const hashed_t& name, Entry* entry) noexcept
    {
        put(*table_.load(std::memory_order_relaxed), name.hash, entry);
        ++size_;
    }

private:
    struct alignas(64) bucket_t {
        std::atomic<std::uint64_t> checks{0};  // written after the entry that a new check is of
        std::atomic<Entry*> entries[NUM_LANES]{};
    };

    /// Its buckets come directly behind it.
    struct alignas(64) table_t {
        static table_t& make(std::size_t num_buckets, const table_t* previous)
        {
            static_assert(sizeof(table_t) == sizeof(bucket_t));
            const std::size_t size = (num_buckets + 1) * sizeof(bucket_t);
            std::size_t room = size + alignof(table_t) - 1;
            void* memory = ::operator new(room);
            memory = std::align(alignof(table_t), size, memory, room);
            auto* const table = ::new (memory) table_t{num_buckets - 1, previous};
            std::uninitialized_value_construct_n(table->buckets(), num_buckets);
            return *table;
        }
        bucket_t* buckets() noexcept { return reinterpret_cast<bucket_t*>(this + 1); }
        const bucket_t* buckets() const noexcept
        {
            return reinterpret_cast<const bucket_t*>(this + 1);
        }
        std::size_t mask;
        const table_t* previous;  // keeps the old table reachable
    };

    // Most namespaces have few names, and each has an index.
    static constexpr std::size_t FIRST_NUM_BUCKETS = 2;
    static constexpr std::size_t BUCKETS_AHEAD = 4;

    static Entry* find(const table_t& table, std::uint64_t hash, std::u16string_view name) noexcept
    {
        for (std::size_t i = hash & table.mask;; i = (i + 1) & table.mask) {
            const bucket_t& bucket = table.buckets()[i];
            const std::uint64_t checks = bucket.checks.load(std::memory_order_acquire);
            std::uint64_t lanes = lanes_with(checks, check_of(hash));
            for (; lanes != 0; lanes = without_first_lane(lanes)) {
                Entry* const entry =
                    bucket.entries[first_lane(lanes)].load(std::memory_order_relaxed);
                if (equal_hashed_units(Traits::name(*entry), name)) [[likely]]
                    return entry;
            }
            if (!is_full(checks))
                return nullptr;
        }
    }

    static table_t& grown(const table_t* old)
    {
        table_t& table =
            table_t::make(old == nullptr ? FIRST_NUM_BUCKETS : (old->mask + 1) * 2, old);
        for (std::size_t i = 0; old != nullptr && i <= old->mask; ++i) {
            prefetch(old->buckets()[std::min(i + BUCKETS_AHEAD, old->mask)]);
            for (const std::atomic<Entry*>& entry : old->buckets()[i].entries)
                if (Entry* const known = entry.load(std::memory_order_relaxed))
                    put(table, hash_of(key_, Traits::name(*known)), known);
        }
        return table;
    }

    /// Entries lie in no order of a table's: to wait for each would be most of the time that a
    /// larger table takes.
    static void prefetch(const bucket_t& bucket) noexcept
    {
        for (const std::atomic<Entry*>& entry : bucket.entries)
            __builtin_prefetch(entry.load(std::memory_order_relaxed));
    }

    static void put(table_t& table, std::uint64_t hash, Entry* entry) noexcept
    {
        std::size_t i = hash & table.mask;
        while (is_full(table.buckets()[i].checks.load(std::memory_order_relaxed)))
            i = (i + 1) & table.mask;
        bucket_t& bucket = table.buckets()[i];
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

    // Written before the first table of all is published, never again.
    static inline constinit hash_key_t key_{};

    std::atomic<table_t*> table_{nullptr};
    std::size_t size_ = 0;
};

}  // namespace XmlTagImpl
}  // namespace Kvl

#endif
