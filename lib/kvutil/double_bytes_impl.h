#ifndef KVUTIL_DOUBLE_BYTES_IMPL_H
#define KVUTIL_DOUBLE_BYTES_IMPL_H

#include <unicode/ucnv.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Kvl {

/// What a charset of one and two bytes a character makes of each character by itself. To look that
/// up takes a fifth of what the converter takes for a text.
///
/// It is learned from the converter in pages of 256 characters, each once texts have needed the
/// converter for it as often as to learn it costs. Only such characters are learned as the
/// converter gives at once, without waiting for what follows: those are the same in every text.
/// There are at most 256 pages of 512 bytes each way. One for which there is no memory is not
/// learned: nothing here throws.
/// @par Thread-safety
/// May be used at once.
class double_bytes_t {
public:
    /// Whether the converter always starts a character where one ends, in no state that lasts.
    static bool can_serve(const UConverter* converter) noexcept;

    /// @param name       of the charset, for converters to learn from; outlives this
    /// @param converter  asked now; not kept
    double_bytes_t(const char* name, UConverter* converter) noexcept;
    ~double_bytes_t();
    double_bytes_t(const double_bytes_t&) = delete;
    double_bytes_t& operator=(const double_bytes_t&) = delete;

    /// @param to  room for as many units as there are bytes
    /// @return    how many units there are; 0 when only the converter knows
    std::size_t decode(std::string_view bytes, char16_t* to) const noexcept;

    /// @param to  room for two bytes for each unit
    /// @return    how many bytes there are; 0 when only the converter knows
    std::size_t encode(std::u16string_view text, char* to) const noexcept;

private:
    // Of each last byte the unit, or of each unit's low byte the one or two bytes as a number. 0 is
    // for what is not known.
    using page_t = std::array<std::uint16_t, 256>;
    struct slot_t {
        std::atomic<const page_t*> page{nullptr};
        std::atomic<std::uint8_t> misses{0};
    };
    using slots_t = std::array<slot_t, 256>;
    using learn_t = page_t (*)(UConverter* converter, unsigned int number) noexcept;

    static page_t learn_single_units(UConverter* converter) noexcept;
    static page_t learn_units(UConverter* converter, unsigned int first_byte) noexcept;
    static page_t learn_bytes(UConverter* converter, unsigned int high_byte) noexcept;

    // What is known of a character; 0 for nothing.
    unsigned int look_up(slots_t& slots, unsigned int number, unsigned int in_page,
                         learn_t learn) const noexcept;
    const page_t* learned(slot_t& slot, unsigned int number, learn_t learn) const noexcept;

    const char* const name_;
    const page_t single_units_;
    mutable slots_t units_;
    mutable slots_t bytes_;
};

}  // namespace Kvl

#endif
