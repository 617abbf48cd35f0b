// Prints the fields of selectors, or why they are rejected.

#include <kvutil/selector.h>
#include <kvutil/stpexception.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using Kvl::Selector;
using Kvl::UString;

void show(const char* field, const UString& text)
{
    std::printf("  %-14s%s\n", field, text.utf8_str().c_str());
}

void show(const char* field, const UString& text, int value)
{
    std::printf("  %-14s%s (%d)\n", field, text.utf8_str().c_str(), value);
}

void show_segments(const UString& name)
{
    for (const UString& segment : Selector::split_segments(name, Selector::SEGMENT_SEP))
        show("  segment", Selector::decode_string(segment));
}

void show(const Selector& selector)
{
    show("domain", Selector::provider_domain_string(selector.domain()), selector.domain());
    show("namespace", Selector::namespace_string(selector.ns()), selector.ns());
    if (selector.resource_type() != 0) {
        const Kvl::XmlTag* const type = Kvl::XmlTag::lookup(selector.resource_type());
        show("resource type", type->simple_name(), type->id());
    }
    show("name", selector.name());
    show_segments(selector.name());
    show("repository", selector.repository());
    show("full form", Selector(selector).to_string_with_domain());
    show("short form", Selector(selector).selector());
    show("parent", selector.parent().to_string_with_domain());
}

/// @return whether the text is a selector
bool show_text(const std::string& text)
{
    std::printf("%s\n", text.c_str());
    try {
        show(Selector(UString(Kvl::Utf8String(text))));
        return true;
    } catch (const Kvl::StateException& e) {
        std::printf("  %s\n", e.message().message_string().utf8_str().c_str());
        return false;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app("Prints the fields of selectors, or why they are rejected. The exit status is 1 "
                 "when one is.");
    std::vector<std::string> texts;
    app.add_option("selector", texts, "as in vd.file:/src/main.c@/vobs/proj, in UTF-8")->required();
    CLI11_PARSE(app, argc, argv);

    bool all_valid = true;
    for (const std::string& text : texts)
        all_valid = show_text(text) && all_valid;
    return all_valid ? 0 : 1;
}
