// Path names: whatever is asked of one, in any order, is what the rules say of its path, a plain
// std::u16string, and of what has been split so far; what memory runs out for changes nothing.
// The input is a letter for each operation, followed by its path.

#include <kvutil/pname.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

using Kvl::Pname;
using Kvl::UString;

namespace {

std::u16string units_of(const UString& text)
{
    return {text.getBuffer(), text.length()};
}

/// The three texts of a path name.
struct model_t {
    std::u16string path, leaf, parent;

    void set(const std::u16string& new_path) { *this = {new_path, {}, {}}; }

    void split()
    {
        if (path.empty())
            return;
        const std::size_t slash = path.rfind(u'/');
        leaf = slash == path.npos ? path : path.substr(slash + 1);
        parent = slash == path.npos ? std::u16string() : path.substr(0, slash);
        if (parent == u"/")
            parent.clear();
    }

    void split_if_unknown()
    {
        if (leaf.empty())
            split();
    }

    void strip()
    {
        if (!path.empty() && path.back() == u'/')
            set(path.substr(0, path.size() - 1));
    }
};

struct pair_t {
    Pname name;
    model_t model;
};

class run_t {
public:
    void step(input_t& input)
    {
        const step_t next(input);
        operate(next.letter, input, next.fault);
        require(units_of(main_.name.path()) == main_.model.path);
        require(units_of(other_.name.path()) == other_.model.path);
    }

    // All three texts, without an answer that changes them.
    void finish()
    {
        for (pair_t* const pair : {&main_, &other_}) {
            Pname copy(pair->name);
            pair->model.split_if_unknown();
            require(units_of(copy.leaf()) == pair->model.leaf);
            pair->model.split_if_unknown();
            require(units_of(copy.parent_dir()) == pair->model.parent);
        }
    }

private:
    void operate(std::uint8_t letter, input_t& input, unsigned long fault)
    {
        Pname& name = main_.name;
        model_t& model = main_.model;
        switch (letter) {
        case '=': {
            const std::u16string path = path_of(input);
            const UString text(path);
            if (has_memory(fault, [&] { require(&(name = text) == &name); }))
                model.set(path);
            break;
        }
        case 'n': {
            const std::u16string path = path_of(input);
            const UString text(path);
            has_memory(fault, [&] { require(units_of(Pname(text).path()) == path); });
            break;
        }
        case 'l':
            if (has_memory(fault, [&] { name.leaf(); })) {
                model.split_if_unknown();
                require(units_of(name.leaf()) == model.leaf);
            }
            break;
        case 'p':
            if (has_memory(fault, [&] { name.parent_dir(); })) {
                model.split_if_unknown();
                require(units_of(name.parent_dir()) == model.parent);
            }
            break;
        case 's':
            if (has_memory(fault, [&] { name.split_leaf(); }))
                model.split();
            break;
        case 't':
            if (has_memory(fault, [&] { name.strip_trailing_separator(); }))
                model.strip();
            break;
        case 'c':
            if (has_memory(fault, [&] { other_.name = name; }))
                other_.model = model;
            break;
        case 'm':
            other_.name = std::move(name);
            other_.model = std::exchange(model, {});
            break;
        case 'x':
            std::swap(main_, other_);
            break;
        default:
            assign_part(letter, fault);
            break;
        }
    }

    // From one of its own texts.
    void assign_part(std::uint8_t letter, unsigned long fault)
    {
        Pname& name = main_.name;
        model_t& model = main_.model;
        if (letter == 'L') {
            model.split_if_unknown();
            const UString& leaf = name.leaf();
            if (has_memory(fault, [&] { name = leaf; }))
                model.set(model.leaf);
        } else if (letter == 'P') {
            model.split_if_unknown();
            const UString& parent = name.parent_dir();
            if (has_memory(fault, [&] { name = parent; }))
                model.set(model.parent);
        } else if (letter == 'S') {
            const Pname& same = name;
            if (has_memory(fault, [&] { name = same; }))
                require(units_of(name.path()) == model.path);
        }
    }

    /// A byte for the length, and one for each unit: mostly a few letters and separators.
    static std::u16string path_of(input_t& input)
    {
        std::u16string path = input.units(40);
        for (char16_t& unit : path)
            if (unit < ' ')
                unit = u"ab/./\\/c"[unit % 8];
        return path;
    }

    pair_t main_;
    pair_t other_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    run_t run;
    while (!input.is_empty())
        run.step(input);
    run.finish();
    return 0;
}
