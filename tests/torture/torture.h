#ifndef KVUTIL_TESTS_TORTURE_TORTURE_H
#define KVUTIL_TESTS_TORTURE_TORTURE_H

#include "words.h"

#include "support/memory_fault.h"

#include <exception>
#include <functional>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

// Each operation of the library, with each of its allocations failing: the first, the second, ...
// until none is left to fail, once alone and once with all that follow.
//
// Allowed are the result that it has with memory and a refusal: std::bad_alloc or, where nothing is
// thrown, the value that stands for failure. After a refusal the object and everything that is
// shared are as before, nothing is leaked, and the same call succeeds, also on another thread.

namespace torture {

/// Which allocation fails, 1 = the first; 0: none.
struct fault_t {
    unsigned long nth = 0;
    bool and_after = false;  ///< every later one, too
};

/// What one call came to, and what could be seen before and after it.
struct run_t {
    bool has_struck = false;
    bool is_refused = false;
    std::string result;
    std::string before, after;                // the object
    std::string world_before, world_after;    // what is shared
    std::string second_result, second_after;  // of the same call after a refusal
};

/// The tables and settings of the process, in words. The pool of strings for measurement is not
/// among them: what was converted before a refusal waits there for the next call.
std::string world();

/// The symbols that a row exercises, as nm prints them, without "Kvl::" and with std::string and
/// std::vector<T> short.
typedef std::vector<std::string> symbols_t;

class row_t {
public:
    row_t(std::string its_header, std::size_t its_number, symbols_t its_symbols)
        : header(std::move(its_header)), number(its_number), symbols(std::move(its_symbols))
    {
    }
    virtual ~row_t() = default;
    row_t(const row_t&) = delete;
    row_t& operator=(const row_t&) = delete;

    /// One call on a new object with a fault.
    /// @param try_again  whether a refused call is repeated without one
    virtual run_t run(const fault_t& fault, bool try_again = true) const = 0;

    // ---- what is special about a row ----

    /// The result that stands for failure, in words.
    row_t& refuses_with(const std::string& words)
    {
        refusal = words;
        return *this;
    }
    /// What it adds to shared tables stays.
    row_t& grows()
    {
        is_growing = true;
        return *this;
    }
    /// What a refused call has added to shared tables stays for the next one, which adds the rest.
    row_t& grows_in_parts()
    {
        keeps_parts = true;
        return grows();
    }
    /// It fills what the process keeps: every allocation also fails in a process that has not
    /// called it yet.
    row_t& and_in_new_processes()
    {
        is_for_new_processes = true;
        return *this;
    }
    /// It changes the process for good, so that one process can call it but a few times.
    row_t& only_in_new_processes()
    {
        is_for_new_processes = true;
        is_for_this_process = false;
        return *this;
    }
    /// It is there to change what is shared; that goes with the object.
    row_t& changes_the_world()
    {
        is_changing = true;
        return *this;
    }
    /// Whether it needs memory is not for a caller to know.
    row_t& may_need_none()
    {
        is_unknown = true;
        return *this;
    }
    /// It works without any memory.
    row_t& needs_none()
    {
        is_frugal = true;
        return *this;
    }

    const std::string header;
    const std::size_t number;  // among those of the header, 1 = the first
    const symbols_t symbols;
    std::string refusal;
    bool is_growing = false;
    bool keeps_parts = false;
    bool is_for_new_processes = false;
    bool is_for_this_process = true;
    bool is_changing = false;
    bool is_unknown = false;
    bool is_frugal = false;
};

/// The result of a call, constructed where it stands: no move of the test's own may allocate.
template <class T>
class place_t {
public:
    place_t() = default;
    ~place_t() { forget(); }
    place_t(const place_t&) = delete;
    place_t& operator=(const place_t&) = delete;

    template <class Call>
    void fill(Call call)
    {
        object_ = ::new (static_cast<void*>(room_)) T(call());
    }
    void forget()
    {
        if (object_ != nullptr)
            std::exchange(object_, nullptr)->~T();
    }
    std::string text() const { return object_ == nullptr ? "" : words(*object_); }

private:
    alignas(T) std::byte room_[sizeof(T)];
    T* object_ = nullptr;
};

template <class T>
class place_t<T&> {
public:
    template <class Call>
    void fill(Call call)
    {
        object_ = &call();
    }
    std::string text() const { return object_ == nullptr ? "" : words(*object_); }

private:
    T* object_ = nullptr;
};

template <>
class place_t<void> {
public:
    template <class Call>
    void fill(Call call)
    {
        call();
    }
    std::string text() const { return "done"; }
};

/// What was thrown, in words.
inline std::string words(const std::exception_ptr& thrown)
{
    try {
        std::rethrow_exception(thrown);
    } catch (const Kvl::STPException& e) {
        return "throws " + words(e);
    } catch (const Kvl::Exception& e) {
        return "throws " + words(e);
    } catch (const std::exception& e) {
        return std::string("throws ") + typeid(e).name() + e.what();
    }
}

template <class Make, class Operate>
class row_of final : public row_t {
public:
    row_of(std::string its_header, std::size_t its_number, symbols_t its_symbols, Make make,
           Operate operate)
        : row_t(std::move(its_header), its_number, std::move(its_symbols)), make_(make),
          operate_(operate)
    {
    }

    run_t run(const fault_t& fault, bool try_again) const override
    {
        run_t run;
        auto object = make_();
        run.before = words(object);
        run.world_before = world();
        run.result = call(object, fault, run);
        run.after = words(object);
        run.world_after = world();
        if (run.is_refused && try_again) {
            run_t second;
            run.second_result = call(object, {}, second);
            run.second_after = words(object);
        }
        return run;
    }

private:
    template <class Object>
    std::string call(Object& object, const fault_t& fault, run_t& run) const
    {
        place_t<decltype(operate_(object))> place;
        std::exception_ptr thrown;
        bool is_out_of_memory = false;
        {
            const memory_fault on(fault.nth, fault.and_after);
            try {
                place.fill([&]() -> decltype(auto) { return operate_(object); });
            } catch (const std::bad_alloc&) {
                is_out_of_memory = true;
            } catch (...) {
                thrown = std::current_exception();
            }
            run.has_struck = on.struck();
        }
        if (is_out_of_memory) {
            run.is_refused = true;
            return "out of memory";
        }
        const std::string result = thrown != nullptr ? words(thrown) : place.text();
        run.is_refused = !refusal.empty() && result == refusal;
        return result;
    }

    const Make make_;
    const Operate operate_;
};

/// The rows of one header.
class rows_t {
public:
    explicit rows_t(std::string header) : header_(std::move(header)) {}

    /// @param make     makes the object
    /// @param operate  the operation on it; its result must show the same words each time
    template <class Make, class Operate>
    row_t& add(symbols_t symbols, Make make, Operate operate)
    {
        rows.push_back(std::make_unique<row_of<Make, Operate>>(
            header_, rows.size() + 1, std::move(symbols), std::move(make), std::move(operate)));
        return *rows.back();
    }

    /// An operation without an object.
    template <class Operate>
    row_t& add(symbols_t symbols, Operate operate)
    {
        return add(
            std::move(symbols), [] { return nothing_t(); },
            [operate](nothing_t&) -> decltype(auto) { return operate(); });
    }

    std::vector<std::unique_ptr<row_t>> rows;

private:
    std::string header_;
};

/// What was done, for the line at the end.
struct figures_t {
    unsigned long rows = 0;
    unsigned long failed_once = 0;           // allocations, alone
    unsigned long failed_from_there_on = 0;  // allocations, with all that follow
    unsigned long in_new_processes = 0;      // those of both that belong to a first call
    unsigned long refusals = 0;              // calls of both that were refused
};

// Both report what was not as it must be.

/// First calls, in processes that have not called it before; for the rows that ask for it.
void torture_first_calls(const row_t& row, figures_t& figures);

/// Any other call.
void torture(const row_t& row, figures_t& figures);

}  // namespace torture

#endif
