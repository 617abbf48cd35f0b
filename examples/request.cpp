// Answers the texts of selectors the way a server does: in XML, with the properties of each or with
// the message that says why it is rejected.
//
// Every line is the text of one selector and gets one answer, in order, as soon as it is read.
// There are no comments and no blank lines to skip: an empty line is a text that is rejected. A
// carriage return at the end of a line belongs to the line end.

#include "answer.h"

#include <kvutil/logadaptor.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <system_error>
#include <vector>

namespace {

struct options_t {
    std::string log_directory = "build/demo-log";
    std::optional<std::string> file;
    std::vector<std::string> selectors;
};

struct outcome_t {
    unsigned long accepted = 0;
    unsigned long rejected = 0;
    bool all_was_read = true;
};

// Deliberate: not a positional of CLI11, which splits "[a,b]" at the comma.
std::vector<std::string> selector_arguments(const std::vector<std::string>& arguments)
{
    std::vector<std::string> selectors;
    bool options_have_ended = false;
    for (const std::string& argument : arguments) {
        if (options_have_ended || argument.empty() || argument.front() != '-')
            selectors.push_back(argument);
        else if (argument == "--")
            options_have_ended = true;
        else
            throw CLI::ExtrasError({argument});
    }
    return selectors;
}

options_t parse_options(CLI::App& app, int argc, char* argv[])
{
    options_t options;
    app.add_option("--log", options.log_directory, "Directory of the log, made when missing")
        ->capture_default_str();
    app.add_option("--file", options.file, "File with one selector a line, in UTF-8");
    app.allow_extras();
    app.footer("Further arguments are selectors. Without any, and without --file, they are read "
               "from standard input, one a line.");
    app.parse(argc, argv);
    options.selectors = selector_arguments(app.remaining());
    return options;
}

// Deliberate: requests are answered without a log too, as a server would do.
void start_log(const std::string& directory)
{
    std::error_code ignored;
    std::filesystem::create_directories(directory, ignored);
    Log::LogAdaptor::initialize("request", directory.c_str(), "", 0);
    Kvl::STPException::g_logging_enabled = true;
    if (Log::LogAdaptor::get_log_manager() == nullptr)
        std::cerr << "request: no log can be written in " << directory << '\n';
}

// Each text goes out at once, so that memory stays constant and a full disk is noticed.
void write(const std::string& xml)
{
    if (!(std::cout << xml << std::flush))
        throw std::system_error(errno, std::generic_category(), "cannot write the answers");
}

void answer_one(const std::string& selector, outcome_t& outcome)
{
    const answer_t reply = answer(selector);
    write(reply.xml);
    ++(reply.is_accepted ? outcome.accepted : outcome.rejected);
}

// What was read before is answered all the same.
void report_unread(const std::string& source, outcome_t& outcome)
{
    std::cerr << "request: cannot read " << source << ": " << std::generic_category().message(errno)
              << '\n';
    outcome.all_was_read = false;
}

void answer_lines(std::istream& lines, const std::string& source, outcome_t& outcome)
{
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        answer_one(line, outcome);
    }
    if (lines.bad())
        report_unread(source, outcome);
}

void answer_file(const std::string& path, outcome_t& outcome)
{
    std::ifstream file(path, std::ios::binary);
    if (file)
        answer_lines(file, path, outcome);
    else
        report_unread(path, outcome);
}

outcome_t answer_all(const options_t& options)
{
    outcome_t outcome;
    for (const std::string& selector : options.selectors)
        answer_one(selector, outcome);
    if (options.file)
        answer_file(*options.file, outcome);
    else if (options.selectors.empty())
        answer_lines(std::cin, "standard input", outcome);
    return outcome;
}

// Says whether every text was answered. The opening goes out before the log is opened: a log must
// not take the place of a closed output.
bool serve(const options_t& options)
{
    write(opening());
    start_log(options.log_directory);
    const outcome_t outcome = answer_all(options);
    write(closing());
    std::cerr << "accepted " << outcome.accepted << ", rejected " << outcome.rejected << '\n';
    return outcome.all_was_read;
}

}  // namespace

int main(int argc, char* argv[])
{
    std::ios::sync_with_stdio(false);
    CLI::App app("Answers selectors in XML and prints to standard error how many were accepted.");
    try {
        return serve(parse_options(app, argc, argv)) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    } catch (const std::exception& e) {
        std::cerr << "request: " << e.what() << '\n';
        return EXIT_FAILURE;
    }
}
