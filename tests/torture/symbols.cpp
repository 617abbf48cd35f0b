#include "symbols.h"

#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace torture {
namespace {

std::string output_of(const std::string& command)
{
    std::FILE* const pipe = popen(command.c_str(), "re");
    if (pipe == nullptr)
        throw std::runtime_error("no pipe");
    std::string all;
    char piece[4096];
    while (const std::size_t size = std::fread(piece, 1, sizeof piece, pipe))
        all.append(piece, size);
    if (pclose(pipe) != 0)
        throw std::runtime_error(command + " failed");
    return all;
}

std::string shortened(std::string name)
{
    static const std::pair<std::regex, const char*> replacements[] = {
        {std::regex("Kvl::"), ""},
        {std::regex("std::__cxx11::"), "std::"},
        {std::regex(R"(\[abi:cxx11\])"), ""},
        {std::regex("std::basic_string<char, std::char_traits<char>, std::allocator<char> >"),
         "std::string"},
        {std::regex(", std::(char_traits|allocator|less)<[^<>]*(<[^<>]*>)?[^<>]*>"), ""},
        {std::regex(" >"), ">"}};
    for (const auto& [what, with] : replacements)
        name = std::regex_replace(name, what, with);
    return name;
}

struct symbol_t {
    char kind;  ///< nm's letter
    std::string name;
};

/// What nm prints of dynamic symbols, unsorted: each line is an address or blanks, the letter, the
/// name.
std::vector<symbol_t> symbols(const std::string& options, const std::string& file)
{
    std::istringstream lines(output_of(NM " -D -p " + options + " '" + file + "'"));
    std::vector<symbol_t> all;
    for (std::string line; std::getline(lines, line);)
        if (line.size() > 19)
            all.push_back({line[17], line.substr(19)});
    return all;
}

// The linker's names of what the standard library defines, whatever types of ours it does that for.
const std::regex STANDARD(R"(_Z(GV|T[VTIS])?Z?N?[VK]*(St|S[absiod]|9__gnu_cxx).*)");

/// @param kinds  of the symbols wanted, as nm's letters
names_t functions(const std::string& options, const std::string& file, const std::string& kinds)
{
    const std::vector<symbol_t> linked = symbols(options, file);
    const std::vector<symbol_t> readable = symbols("-C " + options, file);
    if (linked.size() != readable.size())
        throw std::runtime_error("nm disagrees with itself about " + file);
    names_t names;
    for (std::size_t i = 0; i < linked.size(); ++i)
        if (kinds.find(linked[i].kind) != kinds.npos && !std::regex_match(linked[i].name, STANDARD))
            names.insert(shortened(readable[i].name));
    return names;
}

// ---- what is exported, but for no caller ----

// What compilers add for themselves: the one with the plain name counts lines. Destructors allocate
// nothing, and each row runs those of its objects.
const std::regex NOT_OURS(R"(^(_|virtual thunk|non-virtual thunk|lsan|asan).*|.*~.*|mangle_path)");

// Private members, by their names up to the parameters: the rows of the public operations run them.
const char* const PRIVATE[] = {
    "ArmAppIdentyBuffer::append_identity_prop(",
    "ArmApplication::create_key(",
    "ArmApplication::register_fresh_transaction(",
    "ArmApplication::register_name(",
    "ArmApplication::register_operation(",
    "ArmApplication::register_operations(",
    "ArmApplication::set_level(",
    "ArmPerThreadOperationStack::ArmPerThreadOperationStack(",
    "ArmPerThreadOperationStack::create(",
    "ArmPerThreadOperationStack::entry_above(",
    "ArmPerThreadOperationStack::of_this_thread(",
    "ArmPerThreadOperationStack::parent(",
    "ArmPerThreadOperationStack::start_with",
    "ArmPerThreadOperationStack::stop_with",
    "CriticalSectionLock::CriticalSectionLock(CriticalSectionImpl::",
    "CriticalSectionLock::lock_held_over_fork(",
    "CriticalSectionLock::unlock_held_over_fork(",
    "Pname::forget_parts(",
    "STPException::STPException(UMessage&&",
    "STPException::STPException(stp_reason_code_t, UMessage const&)",
    "STPException::causes_to_copy(",
    "STPException::clone_resource(",
    "STPException::copy_causes(",
    "STPException::copy_postponed_causes(",
    "STPException::delete_causes(",
    "Selector::Selector(SelectorImpl::",
    "Selector::full_text(",
    "Selector::generalise(",
    "Selector::keep(",
    "Selector::short_text(",
    "UMessage::Arg::Arg(int, char const*",
    "UMessage::Arg::Arg(int, long)",
    "UMessage::Arg::fill(",
    "UMessage::Arg::hold(",
    "UMessage::Arg::swap(",
    "UMessage::Arg::take(",
    "UString::UString(UString::",
    "UString::adopt(",
    "UString::assign_converted(",
    "UString::can_overwrite(",
    "UString::charset_for(",
    "UString::decode_utf8(",
    "UString::move_to_capacity(",
    "UString::replace_all(",
    "UString::splice(",
    "XmlTag::XmlTag(XmlTag::Namespace*",
    "XmlTagImpl::IdToTagMap::append_chunk(",
    "XmlTagImpl::IdToTagMap::grow_directory(",
};

bool is_for_callers(const std::string& name)
{
    if (std::regex_match(name, NOT_OURS))
        return false;
    for (const std::string beginning : PRIVATE)
        if (name.rfind(beginning, 0) == 0)
            return false;
    return true;
}

}  // namespace

names_t exported_functions()
{
    names_t names = functions("--defined-only", KVUTIL_LIBRARY, "TWi");
    names.merge(functions("--defined-only", QMLOGGER_LIBRARY, "TWi"));
    std::erase_if(names, [](const std::string& name) { return !is_for_callers(name); });
    return names;
}

names_t called_functions()
{
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    return functions("", program, "UwTW");
}

}  // namespace torture
