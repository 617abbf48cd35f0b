#ifndef KVUTIL_XMLTAG_INDEX_IMPL_H
#define KVUTIL_XMLTAG_INDEX_IMPL_H

#include "xmltag_hash_impl.h"

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
/// A hash table with linear probing, at most two thirds full. Entries are never removed, and a
/// table that has become too small is kept: a reader may still be in it. All tables together take
/// less than twice the memory of the last one.
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
            Entry* const entry = table->slots[i].entry.load(std::memory_order_acquire);
            if (entry == nullptr || (table->slots[i].hash == hash && is(*entry, scope, name)))
                return entry;
        }
    }

    /// Makes the next add() possible.
    /// @throws std::bad_alloc  nothing has changed
    void make_room()
    {
        const table_t* const old = table_.load(std::memory_order_relaxed);
        if (old == nullptr)
            key_ = random_key();
        if (old == nullptr || (size_ + 1) * 3 > (old->mask + 1) * 2)
            table_.store(grown(old), std::memory_order_release);
    }

    /// Adds an entry whose scope and name are new. The make_room() before makes sure that there
    /// is a place.
    void add(Entry* entry) noexcept
    {
        const std::uint64_t hash = hash_of(key_, Traits::scope(*entry), Traits::name(*entry));
        put(*table_.load(std::memory_order_relaxed), hash, entry);
        ++size_;
    }

private:
    struct slot_t {
        std::atomic<Entry*> entry{nullptr};
        std::uint64_t hash = 0;  // written before `entry`, so read only after it
    };

    struct table_t {
        explicit table_t(std::size_t capacity)
            : slots(std::make_unique<slot_t[]>(capacity)), mask(capacity - 1)
        {
        }
        std::unique_ptr<slot_t[]> slots;
        std::size_t mask;
        const table_t* previous = nullptr;  // keeps the old table reachable
    };

    static constexpr std::size_t FIRST_CAPACITY = 64;

    static bool is(const Entry& entry, std::uint32_t scope, std::u16string_view name)
    {
        return Traits::scope(entry) == scope && equal_units(Traits::name(entry), name);
    }

    static table_t* grown(const table_t* old)
    {
        auto table =
            std::make_unique<table_t>(old == nullptr ? FIRST_CAPACITY : (old->mask + 1) * 2);
        for (std::size_t i = 0; old != nullptr && i <= old->mask; ++i)
            if (Entry* const entry = old->slots[i].entry.load(std::memory_order_relaxed))
                put(*table, old->slots[i].hash, entry);
        table->previous = old;
        return table.release();
    }

    static void put(table_t& table, std::uint64_t hash, Entry* entry) noexcept
    {
        std::size_t i = hash & table.mask;
        while (table.slots[i].entry.load(std::memory_order_relaxed) != nullptr)
            i = (i + 1) & table.mask;
        table.slots[i].hash = hash;
        table.slots[i].entry.store(entry, std::memory_order_release);
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
