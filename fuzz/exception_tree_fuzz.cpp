// Trees of causes: whatever is built, copied, moved, assigned, thrown and cloned, each exception
// has the class, the fields and the causes that a plain tree of values has; what memory runs out
// for leaves the target as it was. The input is a letter for each operation, followed by a byte for
// each of its arguments.

#include <kvutil/stpexception.h>
#include <qmlogger/qmlogger.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

using Kvl::STPException;
using Kvl::UMessage;
using Kvl::UString;

namespace {

constexpr std::size_t LARGEST_TREE = 200;

class Named : public Kvl::Resource {
public:
    explicit Named(int number) : number_(number) {}
    Resource* do_clone() const override { return new Named(*this); }
    int number() const { return number_; }

private:
    int number_;
};

/// As a program that uses the library has it.
class OwnException : public STPException {
public:
    using STPException::STPException;
    explicit OwnException(const STPException& o) : STPException(o) {}
    OwnException* clone() const override { return new OwnException(*this); }
};

enum kind_t { STP, RUNTIME, ILLEGAL_ARG, STATE, OWN, NUM_KINDS };

const std::type_info& type_of(kind_t kind)
{
    static const std::type_info* const types[] = {
        &typeid(STPException), &typeid(Kvl::RuntimeException), &typeid(Kvl::IllegalArgException),
        &typeid(Kvl::StateException), &typeid(OwnException)};
    return *types[kind];
}

// ---- The model: values that are never changed, and so can be shared. ----

struct node_t;
typedef std::shared_ptr<const node_t> tree_t;

struct node_t {
    kind_t kind = STP;
    int reason = 0;
    int message = -1;   // the index; -1 for the nil message
    std::string text;   // its argument
    int resource = -1;  // -1 for none
    std::vector<tree_t> causes;
    std::size_t size = 1;  // with all causes
};

tree_t with_kind(const tree_t& tree, kind_t kind)
{
    node_t node(*tree);
    node.kind = kind;
    return std::make_shared<const node_t>(std::move(node));
}

/// What moving leaves behind.
tree_t emptied(const tree_t& tree)
{
    node_t node;
    node.kind = tree->kind;
    node.reason = tree->reason;
    return std::make_shared<const node_t>(std::move(node));
}

// ---- Beside each other. ----

void require_same_fields(const STPException& e, const node_t& node)
{
    require(typeid(e) == type_of(node.kind) && e.stp_reason_code() == node.reason);
    const auto* const resource = dynamic_cast<const Named*>(e.resource());
    require((resource != nullptr ? resource->number() : -1) == node.resource);
    require(e.message().index() == node.message && e.message().is_nil() == (node.message == -1));
    require(e.causes().size() == node.causes.size());
    if (node.message == -1)
        return;
    cxPrintfArgVal record{};
    e.message().arguments().at(0).get_print_val(record);
    require(static_cast<const char*>(record.p) == node.text);
}

void require_same(const STPException& root, const node_t& model)
{
    std::vector<std::pair<const STPException*, const node_t*>> left = {{&root, &model}};
    while (!left.empty()) {
        const auto [e, node] = left.back();
        left.pop_back();
        require_same_fields(*e, *node);
        for (std::size_t i = 0; i < node->causes.size(); ++i)
            left.emplace_back(e->causes()[i], node->causes[i].get());
    }
}

struct slot_t {
    std::unique_ptr<STPException> exception;
    tree_t tree;
};

/// What a constructor is given.
struct parts_t {
    Kvl::stp_reason_code_t reason;
    UMessage message;
    const Named* resource;
    std::vector<STPException*> causes;
};

template <class Class>
STPException* make(const parts_t& parts, bool is_single)
{
    if (is_single)
        return new Class(parts.reason, parts.message, parts.resource,
                         parts.causes.empty() ? nullptr : parts.causes[0], 0);
    return new Class(parts.reason, parts.message, parts.resource, parts.causes, 0);
}

STPException* make(kind_t kind, const parts_t& parts, bool is_single)
{
    switch (kind) {
    case RUNTIME:
        return make<Kvl::RuntimeException>(parts, is_single);
    case ILLEGAL_ARG:
        return make<Kvl::IllegalArgException>(parts, is_single);
    case STATE:
        return make<Kvl::StateException>(parts, is_single);
    case OWN:
        return make<OwnException>(parts, is_single);
    default:
        return make<STPException>(parts, is_single);
    }
}

class run_t {
public:
    void step(input_t& input)
    {
        const step_t next(input);
        fault_ = next.fault;
        operate(next.letter, input);
    }

    void check() const
    {
        for (const slot_t& slot : slots_)
            if (slot.exception != nullptr)
                require_same(*slot.exception, *slot.tree);
    }

private:
    void operate(std::uint8_t letter, input_t& input)
    {
        slot_t& target = slot_of(input);
        if (letter == 'b') {
            build(target, input);
            return;
        }
        slot_t& source = slot_of(input);
        if (source.exception == nullptr)
            return;
        switch (letter) {
        case 'k':
            replace(target, source.tree, [&] { return source.exception->clone(); });
            break;
        case 'c':
            replace(target, with_kind(source.tree, STP),
                    [&] { return new STPException(*source.exception); });
            break;
        case 'o':
            replace(target, with_kind(source.tree, OWN),
                    [&] { return new OwnException(*source.exception); });
            break;
        case 't':
            throw_and_keep(target, source);
            break;
        case '=':
            assign(target, source, input);
            break;
        case 'm':
            move(target, source);
            break;
        case 'M':
            move_own_cause(target, input);
            break;
        case 'd':
            target = slot_t();
            break;
        default:
            break;
        }
    }

    slot_t& slot_of(input_t& input) { return slots_[input.byte() % slots_.size()]; }

    template <class Operation>
    bool done(Operation operation) const
    {
        return has_memory(fault_, operation);
    }

    template <class Make>
    void replace(slot_t& target, const tree_t& tree, Make make_exception)
    {
        std::unique_ptr<STPException> made;
        if (done([&] { made.reset(make_exception()); }))
            target = {std::move(made), tree};
    }

    void build(slot_t& target, input_t& input)
    {
        node_t node;
        const std::uint8_t form = input.byte();
        node.kind = static_cast<kind_t>(form % NUM_KINDS);
        const bool is_single = form >= 128;
        node.reason = input.byte();
        const std::uint8_t detail = input.byte();
        node.message = detail % 32 == 0 ? -1 : detail % 21 + 1;
        node.text.assign(detail % 64, static_cast<char>('a' + detail % 26));
        const Named resource(detail);
        node.resource = detail % 4 == 0 ? detail : -1;
        const UMessage message = node.message == -1
                                     ? UMessage()
                                     : UMessage(kvutil, node.message, UMessage::Arg(node.text));
        parts_t parts{static_cast<Kvl::stp_reason_code_t>(node.reason), message,
                      node.resource == -1 ? nullptr : &resource, causes_of(input, node)};
        if (is_single) {
            const bool has_cause = !parts.causes.empty() && parts.causes[0] != nullptr;
            node.causes.resize(has_cause ? 1 : 0);
        }
        for (const tree_t& cause : node.causes)
            node.size += cause->size;
        if (node.size <= LARGEST_TREE)
            replace(target, std::make_shared<const node_t>(node),
                    [&] { return make(node.kind, parts, is_single); });
    }

    /// Empty slots stand for null elements, which are skipped.
    std::vector<STPException*> causes_of(input_t& input, node_t& node)
    {
        std::vector<STPException*> causes;
        for (int left = input.byte() % 4; left != 0; --left) {
            const slot_t& slot = slot_of(input);
            causes.push_back(slot.exception.get());
            if (slot.exception != nullptr)
                node.causes.push_back(slot.tree);
        }
        return causes;
    }

    void throw_and_keep(slot_t& target, const slot_t& source)
    {
        std::unique_ptr<STPException> caught;
        if (done([&] {
                try {
                    STPException::raise(*source.exception, 7);
                } catch (const STPException& e) {
                    require(typeid(e) == typeid(STPException));
                    caught.reset(e.clone());
                }
            }))
            target = {std::move(caught), with_kind(source.tree, STP)};
    }

    // From another one, or from one of its own causes.
    void assign(slot_t& target, slot_t& source, input_t& input)
    {
        if (target.exception == nullptr)
            return;
        const STPException* from = source.exception.get();
        tree_t tree = source.tree;
        for (unsigned int depth = input.byte() % 4; depth != 0 && !tree->causes.empty(); --depth) {
            const std::size_t i = depth % tree->causes.size();
            from = from->causes()[i];
            tree = tree_t(tree->causes[i]);
        }
        if (done([&] { *target.exception = *from; }))
            target.tree = with_kind(tree, target.tree->kind);
    }

    static void move(slot_t& target, slot_t& source)
    {
        if (&target == &source)
            return;
        if (target.exception == nullptr) {
            const tree_t tree = with_kind(source.tree, STP);
            target = {std::make_unique<STPException>(std::move(*source.exception)), tree};
        } else {
            *target.exception = std::move(*source.exception);
            target.tree = with_kind(source.tree, target.tree->kind);
        }
        source.tree = emptied(source.tree);
    }

    static void move_own_cause(slot_t& target, input_t& input)
    {
        if (target.exception == nullptr || target.tree->causes.empty())
            return;
        const std::size_t i = input.byte() % target.tree->causes.size();
        *target.exception = std::move(*target.exception->causes()[i]);
        target.tree = with_kind(tree_t(target.tree->causes[i]), target.tree->kind);
    }

    std::array<slot_t, 5> slots_;
    unsigned long fault_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    run_t run;
    for (int steps = 0; !input.is_empty(); ++steps) {
        run.step(input);
        if (steps % 4 == 0)
            run.check();
    }
    run.check();
    return 0;
}
