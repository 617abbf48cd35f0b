// The registry of XML names: whatever is looked up, in any order, has the Id, the namespace and the
// object that plain maps say it has; what is refused, and what memory runs out for, registers
// nothing. The registry and its model live as long as the process, so names and URIs come from
// bounded sets. The input is a letter for each operation, followed by its arguments.

#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include "allocation_fault.h"
#include "input.h"
#include "property.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using Kvl::UString;
using Kvl::XmlTag;

namespace {

/// Units, which are quicker to compare in great numbers.
std::u16string units_of(const UString& text)
{
    return {text.getBuffer(), text.length()};
}

struct well_known_t {
    XmlTag::Id id;
    const char16_t* abbreviation;
    const char16_t* name;
};

const well_known_t WELL_KNOWN[] = {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) {id, u##abbreviation, u##name},
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
};

// ---- The model. ----

class model_t {
public:
    model_t()
    {
        for (XmlTag::NsId nsid = 0; nsid < XmlTag::NUM_WK_NAMESPACES; ++nsid) {
            uris_.push_back(units_of(XmlTag::ns_URI(nsid)));
            nsids_[uris_.back()] = nsid;
        }
        for (const well_known_t& tag : WELL_KNOWN)
            add_well_known(tag.id, tag.abbreviation, tag.name);
        next_id_ = XmlTag::NUM_WK_IDS;
    }

    XmlTag::Id next_id() const { return next_id_; }
    int num_namespaces() const { return static_cast<int>(uris_.size()); }
    bool is_namespace(XmlTag::NsId nsid) const { return nsid >= 0 && nsid < num_namespaces(); }
    const std::u16string& uri(XmlTag::NsId nsid) const
    {
        return uris_[static_cast<std::size_t>(nsid)];
    }

    /// @return  -1 for one that has none
    XmlTag::NsId nsid(const std::u16string& uri) const
    {
        const auto known = nsids_.find(uri);
        return known == nsids_.end() ? -1 : known->second;
    }

    void add_namespace(const std::u16string& uri)
    {
        nsids_[uri] = num_namespaces();
        uris_.push_back(uri);
    }

    /// @return  0 for one that is not registered
    XmlTag::Id id(XmlTag::NsId nsid, const std::u16string& name) const
    {
        const auto known = ids_.find({nsid, name});
        return known == ids_.end() ? 0 : known->second;
    }

    void add_tag(XmlTag::NsId nsid, const std::u16string& name) { ids_[{nsid, name}] = next_id_++; }

    bool is_assigned(XmlTag::Id id) const
    {
        return id >= XmlTag::NUM_WK_IDS ? id < next_id_ : is_well_known_.count(id) != 0;
    }

    /// An Id stands for one object.
    void require_object(XmlTag::Id id, const XmlTag* tag)
    {
        require(objects_.try_emplace(id, tag).first->second == tag);
    }

private:
    void add_well_known(XmlTag::Id id, const std::u16string& abbreviation,
                        const std::u16string& name)
    {
        is_well_known_[id] = true;
        for (XmlTag::NsId nsid = 0; nsid < XmlTag::NUM_WK_NAMESPACES; ++nsid)
            if (units_of(XmlTag::ns_abbreviation(nsid)) == abbreviation && !name.empty())
                ids_.try_emplace({nsid, name}, id);
    }

    std::vector<std::u16string> uris_;
    std::map<std::u16string, XmlTag::NsId> nsids_;
    std::map<std::pair<XmlTag::NsId, std::u16string>, XmlTag::Id> ids_;
    std::map<XmlTag::Id, bool> is_well_known_;
    std::map<XmlTag::Id, const XmlTag*> objects_;
    XmlTag::Id next_id_ = 0;
};

// ---- What an input chooses from. ----

std::u16string numbered(const char16_t* before, unsigned int number)
{
    std::u16string text(before);
    for (const char digit : std::to_string(number))
        text += static_cast<char16_t>(digit);
    return text;
}

std::u16string name_of(input_t& input)
{
    const unsigned int kind = input.byte();
    const unsigned int number = input.byte() + 256u * (kind % 8);
    switch (kind / 8 % 4) {
    case 0:
        return WELL_KNOWN[number % std::size(WELL_KNOWN)].name;
    case 1:
        return numbered(u"name-", number);
    case 2:
        return std::u16string(number % 64, static_cast<char16_t>(0xD7F0 + kind % 32));
    default:
        return std::u16string(WELL_KNOWN[number % std::size(WELL_KNOWN)].name) +
               static_cast<char16_t>(number % 4 == 0 ? 0 : u'x');
    }
}

std::u16string uri_of(input_t& input, const model_t& model)
{
    const std::uint8_t byte = input.byte();
    if (byte < 32)
        return model.uri(byte % XmlTag::NUM_WK_NAMESPACES);
    if (byte < 64)
        return model.uri(byte % XmlTag::NUM_WK_NAMESPACES) + u"/x";
    return byte % 32 == 0 ? std::u16string() : numbered(u"urn:", byte);
}

XmlTag::NsId nsid_of(input_t& input)
{
    static constexpr XmlTag::NsId odd[] = {-1, INT_MIN, INT_MAX, -2};
    const std::uint8_t byte = input.byte();
    return byte < 252 ? byte : odd[byte - 252];
}

XmlTag::Id id_of(input_t& input, const model_t& model)
{
    static constexpr XmlTag::Id odd[] = {-1, INT_MIN, INT_MAX, 1154};
    const std::uint8_t high = input.byte();
    const std::uint8_t low = input.byte();
    if (high < 200)
        return high % 8 * 256 + low;
    return high < 252 ? model.next_id() + high - 226 : odd[high - 252];
}

// ---- The two beside each other. ----

/// The index of the message with which `operation` fails; 0 when it does not.
template <class Operation>
int failure_of(Operation operation)
{
    try {
        operation();
    } catch (const Kvl::IllegalArgException& e) {
        return e.message().index();
    } catch (const Kvl::StateException& e) {
        return -e.message().index();
    }
    return 0;
}

class run_t {
public:
    explicit run_t(model_t& model) : model_(model) {}

    void step(input_t& input)
    {
        const step_t next(input);
        fault_ = next.fault;
        operate(next.letter, input);
        require(XmlTag::g_num_defined_tags == model_.next_id());
        require(XmlTag::g_sorted_namespace_vector->size() ==
                static_cast<std::size_t>(model_.num_namespaces()));
    }

private:
    void operate(std::uint8_t letter, input_t& input)
    {
        switch (letter) {
        case 't':
            make_tag(uri_of(input, model_), name_of(input));
            break;
        case 'r':
            look_up_tag();
            break;
        case 'n': {
            const XmlTag::NsId nsid = nsid_of(input);
            look_up_name(nsid, name_of(input));
            break;
        }
        case 'i':
            look_up_id(id_of(input, model_));
            break;
        case 'u':
            look_up_uri(nsid_of(input));
            break;
        case 'a':
            look_up_abbreviation(nsid_of(input));
            break;
        case 'w': {
            const std::u16string uri = uri_of(input, model_);
            const XmlTag::NsId nsid = model_.nsid(uri);
            require(XmlTag::is_well_known_namespace(UString(uri)) ==
                    (nsid >= 0 && nsid < XmlTag::NUM_WK_NAMESPACES));
            break;
        }
        case 'x':
            std::swap(tag_, other_);
            break;
        default:
            break;
        }
        compare();
    }

    template <class Operation>
    bool done(Operation operation) const
    {
        return has_memory(fault_, operation);
    }

    void make_tag(const std::u16string& uri, const std::u16string& name)
    {
        const UString uri_text(uri);
        const UString name_text(name);
        std::optional<XmlTag> made;
        if (!done([&] { made.emplace(uri_text, name_text); }))
            return;
        if (model_.nsid(uri) == -1)
            model_.add_namespace(uri);
        const XmlTag::NsId nsid = model_.nsid(uri);
        require(made->id() == 0 && made->ns_id() == nsid && made->ns() == uri_text);
        require(made->simple_name() == name_text && made->to_string() == UString(u"<nil-tag>"));
        require(made->is_well_known_namespace() == (nsid < XmlTag::NUM_WK_NAMESPACES));
        tag_ = std::move(*made);
    }

    void require_registered(const XmlTag* tag, XmlTag::NsId nsid, const std::u16string& name)
    {
        if (model_.id(nsid, name) == 0)
            model_.add_tag(nsid, name);
        const XmlTag::Id id = model_.id(nsid, name);
        require(tag->id() == id && tag->ns_id() == nsid && tag->simple_name() == UString(name));
        require(units_of(tag->ns()) == model_.uri(nsid));
        require(units_of(tag->to_string()) == model_.uri(nsid) + u"/" + name);
        model_.require_object(id, tag);
        require(XmlTag::lookup(id) == tag);
    }

    // Deliberate: the argument's Id is written when a new one is assigned and not otherwise.
    void look_up_tag()
    {
        const XmlTag* tag = nullptr;
        const XmlTag::NsId nsid = tag_.ns_id();
        const XmlTag::Id old_id = tag_.id();
        int failure = 0;
        const bool is_done =
            done([&] { failure = failure_of([&] { tag = XmlTag::lookup(tag_); }); });
        if (!is_done || nsid == -1) {
            require(tag_.id() == old_id && failure == (is_done ? 6 : 0));
            return;
        }
        const std::u16string name = units_of(tag_.simple_name());
        const bool is_new = model_.id(nsid, name) == 0;
        require_registered(tag, nsid, name);
        require(tag_.id() == (is_new ? tag->id() : old_id));
    }

    void look_up_name(XmlTag::NsId nsid, const std::u16string& name)
    {
        const UString text(name);
        const XmlTag* tag = nullptr;
        int failure = 0;
        if (!done([&] { failure = failure_of([&] { tag = XmlTag::lookup(nsid, text); }); }))
            return;
        require(failure == (model_.is_namespace(nsid) ? 0 : 6));
        if (failure == 0)
            require_registered(tag, nsid, name);
    }

    void look_up_id(XmlTag::Id id)
    {
        const XmlTag* tag = nullptr;
        int failure = 0;
        if (!done([&] { failure = failure_of([&] { tag = XmlTag::lookup(id); }); }))
            return;
        const bool is_fixed = id >= 0 && id < XmlTag::NUM_WK_IDS;
        require(failure == (model_.is_assigned(id) ? 0 : is_fixed ? -3 : 5));
        if (tag == nullptr)
            return;
        require(tag->id() == id);
        model_.require_object(id, tag);
        if (tag->ns_id() != -1)
            require(model_.id(tag->ns_id(), units_of(tag->simple_name())) == id ||
                    !tag->is_well_known_namespace() || is_fixed);
    }

    void look_up_uri(XmlTag::NsId nsid)
    {
        std::u16string uri;
        int failure = 0;
        if (!done([&] { failure = failure_of([&] { uri = units_of(XmlTag::ns_URI(nsid)); }); }))
            return;
        require(failure == (model_.is_namespace(nsid) ? 0 : 4));
        require(failure != 0 || uri == model_.uri(nsid));
    }

    void look_up_abbreviation(XmlTag::NsId nsid)
    {
        XmlTag::NsId found = -1;
        int failure = 0;
        if (!done([&] {
                failure = failure_of(
                    [&] { found = XmlTag::ns_lookup_abbreviation(XmlTag::ns_abbreviation(nsid)); });
            }))
            return;
        const bool is_well_known = nsid >= 0 && nsid < XmlTag::NUM_WK_NAMESPACES;
        require(failure == (is_well_known ? 0 : 4));
        require(found == (is_well_known ? nsid : -1));
    }

    void compare() const
    {
        const bool same_namespace = tag_.ns_id() == other_.ns_id();
        const bool same = same_namespace && tag_.simple_name() == other_.simple_name();
        require((tag_ == other_) == same && (tag_ != other_) == !same);
        require(same ? !(tag_ < other_) && !(other_ < tag_) : (tag_ < other_) != (other_ < tag_));
        if (same_namespace)
            require((tag_ < other_) == (tag_.simple_name() < other_.simple_name()));
    }

    model_t& model_;
    XmlTag tag_ = *XmlTag::lookup(0);
    XmlTag other_ = *XmlTag::lookup(3);
    unsigned long fault_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static auto& model = *new model_t;
    input_t input(data, size);
    run_t run(model);
    while (!input.is_empty())
        run.step(input);
    return 0;
}
