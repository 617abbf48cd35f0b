// xmltag_list: prints the well-known XML namespaces and tags.

#include <kvutil/stpexception.h>
#include <kvutil/xmltag.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

using Kvl::UString;
using Kvl::XmlTag;

struct options_t {
    std::string abbreviation;  // with or without its colon; empty = all
    std::optional<XmlTag::Id> id;
    std::string containing;  // part of the local name
    bool namespaces = false;
    bool json = false;
};

std::string abbreviation_of(const XmlTag& tag)
{
    return tag.ns_id() < 0 ? "" : XmlTag::ns_abbreviation(tag.ns_id()).utf8_str();
}

bool is_wanted(const XmlTag& tag, const options_t& options)
{
    const std::string abbreviation = abbreviation_of(tag);
    return (options.abbreviation.empty() || abbreviation == options.abbreviation ||
            abbreviation == options.abbreviation + ":") &&
           (!options.id || tag.id() == *options.id) &&
           tag.simple_name().utf8_str().find(options.containing) != std::string::npos;
}

std::vector<const XmlTag*> wanted_tags(const options_t& options)
{
    static const XmlTag* const TAGS[] = {
#define KVUTIL_WK_TAG(id, constant, abbreviation, name) &Kvl::WkTag::constant,
#include <kvutil/xmltag_wk.def>
#undef KVUTIL_WK_TAG
    };
    std::vector<const XmlTag*> result;
    std::copy_if(std::begin(TAGS), std::end(TAGS), std::back_inserter(result),
                 [&](const XmlTag* tag) { return is_wanted(*tag, options); });
    return result;
}

nlohmann::json json_of(const XmlTag& tag)
{
    return {{"id", tag.id()},
            {"nsid", tag.ns_id()},
            {"abbreviation", abbreviation_of(tag)},
            {"uri", tag.ns().utf8_str()},
            {"name", tag.simple_name().utf8_str()}};
}

nlohmann::json json_of(XmlTag::NsId nsid)
{
    const XmlTag::Namespace& ns = *XmlTag::g_namespace_array[nsid];
    return {{"nsid", nsid},
            {"abbreviation", XmlTag::ns_abbreviation(nsid).utf8_str()},
            {"uri", ns.uri.utf8_str()},
            {"tags", ns.wk_tags.size()},
            {"open_names", ns.open_names}};
}

void print_namespaces(const options_t& options)
{
    nlohmann::json rows = nlohmann::json::array();
    for (XmlTag::NsId nsid = 0; nsid < XmlTag::NUM_WK_NAMESPACES; ++nsid)
        rows.push_back(json_of(nsid));
    if (options.json) {
        std::cout << rows.dump(2) << '\n';
        return;
    }
    for (const auto& row : rows)
        std::cout << std::setw(3) << row["nsid"].get<int>() << "  " << std::left << std::setw(14)
                  << row["abbreviation"].get<std::string>() << std::right << std::setw(4)
                  << row["tags"].get<int>() << "  " << row["uri"].get<std::string>() << '\n';
}

void print_tags(const std::vector<const XmlTag*>& tags, const options_t& options)
{
    if (options.json) {
        nlohmann::json rows = nlohmann::json::array();
        for (const XmlTag* const tag : tags)
            rows.push_back(json_of(*tag));
        std::cout << rows.dump(2) << '\n';
        return;
    }
    for (const XmlTag* const tag : tags)
        std::cout << std::setw(5) << tag->id() << "  " << std::left << std::setw(14)
                  << abbreviation_of(*tag) << std::right << tag->simple_name().utf8_str() << '\n';
}

}  // namespace

int main(int argc, char** argv)
{
    options_t options;
    CLI::App app("Prints the well-known XML tags: Id, namespace abbreviation, local name.");
    app.add_option("-n,--namespace", options.abbreviation, "Only this namespace, as ACL or ACL:");
    app.add_option("-i,--id", options.id, "Only the tag with this Id");
    app.add_option("-c,--containing", options.containing, "Only local names with this part");
    app.add_flag("--namespaces", options.namespaces, "The namespaces instead of the tags");
    app.add_flag("--json", options.json, "As a JSON array");
    CLI11_PARSE(app, argc, argv);

    if (options.namespaces) {
        print_namespaces(options);
        return 0;
    }
    const std::vector<const XmlTag*> tags = wanted_tags(options);
    print_tags(tags, options);
    return tags.empty() ? 1 : 0;
}
