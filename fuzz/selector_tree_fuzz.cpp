// Selectors from selectors: children, parents, other names, copies and both text forms, in any
// order, are what the rules say of plain fields and of the text that was asked for first; what
// memory runs out for changes nothing. The input is a letter for each operation, followed by its
// arguments.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include "../tests/support/selector_literal.h"
#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

using Kvl::Selector;
using Kvl::UString;
using Kvl::XmlTag;

namespace {

// ---- The model. ----

UString joined(const std::vector<UString>& segments)
{
    UString result;
    for (std::size_t i = 0; i < segments.size(); ++i)
        result += (i == 0 ? UString() : UString(u"/")) + segments[i];
    return result;
}

std::vector<UString> split(const UString& text)
{
    return literal::split_segments(text, UString(u"/"));
}

const std::map<XmlTag::Id, UString>& tag_names()
{
    static const std::pair<XmlTag::Id, const char16_t*> TAGS[] = {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) {id, u##name},
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
    };
    static const std::map<XmlTag::Id, UString> names(std::begin(TAGS), std::end(TAGS));
    return names;
}

struct model_t {
    literal::outcome_t fields;
    UString cache = {};

    bool is_pseudo() const { return fields.ns == 8 || fields.ns == 23 || fields.ns == 26; }

    UString namespace_text() const
    {
        return Selector::namespace_string(static_cast<Selector::namespace_t>(fields.ns));
    }

    UString domain_text() const { return UString(fields.domain == 0 ? u"vd" : u"ob"); }
    bool has_domain() const { return fields.domain == 0 || fields.domain == 1; }

    /// The name of the kind of repository behind `before`; nothing when no well-known tag has one.
    UString type_text(const char16_t* before) const
    {
        const auto name = tag_names().find(fields.resource_type);
        if (fields.ns != 38 || fields.resource_type == 0 || name == tag_names().end())
            return {};
        return UString(before) + name->second;
    }

    UString full_text()
    {
        if (!cache.empty())
            return cache;
        if (has_domain())
            cache = domain_text() + UString(is_pseudo() ? u":" : u".");
        if (!is_pseudo())
            cache += namespace_text() + type_text(u".") + UString(u":");
        cache += fields.name;
        const bool has_at = !fields.name.empty() || fields.ns == 38;
        if (!fields.repository.empty())
            cache += UString(has_at ? u"@" : u"") + fields.repository;
        return cache;
    }

    UString short_text()
    {
        if (!cache.empty())
            return cache;
        if (is_pseudo())
            return {};
        cache = namespace_text() + type_text(u"/") + UString(u":") + fields.name + UString(u"@");
        if (has_domain())
            cache += domain_text() + UString(u".");
        cache += fields.repository;
        return cache;
    }

    model_t child(const UString& name, int ns) const
    {
        model_t result{fields};
        std::vector<UString> segments = split(fields.name);
        for (const UString& segment : split(name))
            segments.push_back(segment);
        result.fields.name = joined(segments);
        if (ns != 26)
            result.fields.ns = ns;
        return result;
    }

    model_t parent() const
    {
        model_t result{fields};
        std::vector<UString> segments = split(fields.name);
        if (!segments.empty()) {
            segments.pop_back();
            result.fields.name = joined(segments);
            return result;
        }
        // Nothing but separators has no segment, and goes besides.
        result.fields.name.clear();
        segments = split(fields.repository);
        if (!segments.empty()) {
            segments.pop_back();
            result.fields.repository = joined(segments);
            return result;
        }
        result.fields.repository.clear();
        if (result.fields.resource_type != 0)
            result.fields.resource_type = 0;
        else if (result.fields.ns != 26)
            result.fields.ns = 26;
        else
            result.fields.domain = 3;
        return result;
    }

    model_t with_name(const UString& name) const
    {
        model_t result{fields};
        result.fields.name = name;
        return result;
    }

    bool is_nil() const
    {
        return (fields.ns == 8 || fields.ns == 26) && fields.domain == 3 &&
               fields.resource_type == 0 && fields.name.empty() && fields.repository.empty();
    }
};

// ---- The two beside each other. ----

struct pair_t {
    Selector selector;
    model_t model;
};

class run_t {
public:
    void step(input_t& input)
    {
        const step_t next(input);
        fault_ = next.fault;
        operate(next.letter, input);
        for (const pair_t* const pair : {&main_, &other_}) {
            require(literal::fields(pair->selector) == pair->model.fields);
            require(pair->selector.is_nil() == pair->model.is_nil());
        }
    }

private:
    void operate(std::uint8_t letter, input_t& input)
    {
        switch (letter) {
        case 'f':
            compose(input);
            break;
        case 's':
            parse(text_from(input));
            break;
        case 'c':
            add_child(text_from(input), input.byte() % 53);
            break;
        case 'p':
            become([](const Selector& s) { return s.parent(); }, main_.model.parent());
            break;
        case 'n': {
            const UString name = text_from(input);
            become([&](const Selector& s) { return s.recompose_with_name(name); },
                   main_.model.with_name(name));
            break;
        }
        case 'w':
            check_text([](const Selector& s) { return s.to_string_with_domain(); },
                       &model_t::full_text);
            break;
        case 'v':
            check_text([](const Selector& s) { return s.selector(); }, &model_t::short_text);
            break;
        case '=':
            if (done([&] { other_.selector = main_.selector; }))
                other_.model = main_.model;
            break;
        case '2':
            become([](const Selector& s) { return Selector(s); }, main_.model);
            break;
        case 'm':
            other_ = {std::move(main_.selector), main_.model};
            main_ = pair_t();
            break;
        case 'x':
            std::swap(main_, other_);
            break;
        default:
            break;
        }
    }

    template <class Operation>
    bool done(Operation operation) const
    {
        return has_memory(fault_, operation);
    }

    /// A byte for the length, and one for each unit: mostly separators and a few letters.
    static UString text_from(input_t& input)
    {
        std::u16string text = input.units(24);
        for (char16_t& unit : text)
            if (unit < ' ')
                unit = u"a/%@:.b\\"[unit % 8];
        return UString(text);
    }

    void compose(input_t& input)
    {
        static const std::vector<XmlTag::Id> types = {0, 1010, 1023, 1027, 1011, 3, 1154, -1, 9999};
        const auto ns = static_cast<Selector::namespace_t>(input.byte() % 52);
        const auto domain = static_cast<Selector::provider_domain_t>(input.byte() % 4);
        const XmlTag::Id type = types[input.byte() % types.size()];
        const UString name = text_from(input);
        const UString repository = text_from(input);
        model_t model;
        model.fields = {ns, domain, type, name, repository, {}};
        become([&](const Selector&) { return Selector(ns, domain, type, name, repository); },
               model);
    }

    void parse(const UString& text)
    {
        const literal::outcome_t outcome = literal::parse(text);
        const bool is_done = done([&] {
            try {
                main_.selector = Selector(text);
                require(outcome.detail.empty());
            } catch (const Kvl::StateException&) {
                require(!outcome.detail.empty());
            }
        });
        if (is_done && outcome.detail.empty())
            main_.model = {outcome};
    }

    void add_child(const UString& name, int ns)
    {
        const auto with = static_cast<Selector::namespace_t>(ns == 52 ? 26 : ns);
        become([&](const Selector& s) { return s.child(name, with); },
               main_.model.child(name, with));
    }

    template <class Operation>
    void become(Operation operation, model_t model)
    {
        if (done([&] { main_.selector = operation(main_.selector); }))
            main_.model = std::move(model);
    }

    template <class Operation>
    void check_text(Operation operation, UString (model_t::*form)())
    {
        UString text;
        if (done([&] { text = operation(main_.selector); }))
            require(text == (main_.model.*form)());
    }

    pair_t main_;
    pair_t other_;
    unsigned long fault_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    input_t input(data, size);
    run_t run;
    while (!input.is_empty())
        run.step(input);
    return 0;
}
