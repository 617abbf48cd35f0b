// Answers the texts of selectors the way a server does: in XML, with the properties of each or with
// the message that says why it is rejected.
//
// Every line is the text of one selector and gets one answer, in order, as soon as it is read.
// There are no comments and no blank lines to skip: an empty line is a text that is rejected. A
// carriage return at the end of a line belongs to the line end.
//
// Every accepted selector stands for a new object: it gets an identifier and a creation date. With
// the credentials of a user and the group that may see the objects, each answer says whether that
// user does.
//
// With --arm, every request is measured as an operation with a part, the parsing of its text.

#include "answer.h"
#include "measurement.h"
#include "output.h"
#include "user.h"

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
    std::optional<std::string> output;
    std::optional<std::string> credentials;
    bool make_credentials = false;
    bool is_measured = false;
    std::optional<std::string> group;
    std::vector<std::string> selectors;
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
    // So that an option can be given again behind those of a script.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--log", options.log_directory, "Directory of the log, made when missing")
        ->capture_default_str();
    app.add_option("--file", options.file, "File with one selector a line, in UTF-8");
    app.add_option("--output", options.output,
                   "File for the answers, replaced when all are written");
    CLI::Option* const credentials = app.add_option("--credentials", options.credentials,
                                                    "Credentials file of the user who asks");
    app.add_flag("--make-credentials", options.make_credentials,
                 "Write that file first, with the credentials of who runs this program")
        ->needs(credentials);
    app.add_option("--group", options.group,
                   "Group that may see the objects: a name, or an identity such as 4:02000003e8")
        ->needs(credentials);
    app.add_flag("--arm", options.is_measured,
                 "Measure every request, where a run-time for it is installed");
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

// Nothing when nobody is known to ask, or no group may see the objects.
std::optional<bool> visibility(const options_t& options)
{
    if (!options.credentials)
        return std::nullopt;
    if (options.make_credentials)
        make_credentials(*options.credentials);
    const Kvl::Credentials user = credentials_of(*options.credentials);
    if (!options.group)
        return std::nullopt;
    return user.in_group_list(group_named(*options.group));
}

// Answering a request, from its text to the answer that is written.
const OperationType answering(Kvl::UString(u"answer"),
                              {Kvl::UString(u"source"), Kvl::UString(u"request")});

class Server {
public:
    Server(Output& output, std::optional<bool> is_visible)
        : output_(output), is_visible_(is_visible)
    {
    }

    void answer_one(const std::string& selector, const std::string& source)
    {
        const unsigned long number = accepted_ + rejected_ + 1;
        Operation operation(answering, {source, std::to_string(number)});
        const answer_t reply = answer(selector, is_visible_);
        output_.write(reply.xml);
        operation.set_size(reply.xml.size());
        if (reply.is_accepted)
            operation.succeed();
        ++(reply.is_accepted ? accepted_ : rejected_);
    }

    void answer_lines(std::istream& lines, const std::string& source)
    {
        std::string line;
        while (std::getline(lines, line)) {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            answer_one(line, source);
        }
        if (lines.bad())
            report_unread(source);
    }

    void answer_file(const std::string& path)
    {
        std::ifstream file(path, std::ios::binary);
        if (file)
            answer_lines(file, path);
        else
            report_unread(path);
    }

    void report_outcome() const
    {
        std::cerr << "accepted " << accepted_ << ", rejected " << rejected_ << '\n';
    }

    bool all_was_read() const { return all_was_read_; }

private:
    // What was read before is answered all the same.
    void report_unread(const std::string& source)
    {
        std::cerr << "request: cannot read " << source << ": "
                  << std::generic_category().message(errno) << '\n';
        all_was_read_ = false;
    }

    Output& output_;
    std::optional<bool> is_visible_;
    unsigned long accepted_ = 0;
    unsigned long rejected_ = 0;
    bool all_was_read_ = true;
};

void answer_all(const options_t& options, Server& server)
{
    for (const std::string& selector : options.selectors)
        server.answer_one(selector, "arguments");
    if (options.file)
        server.answer_file(*options.file);
    else if (options.selectors.empty())
        server.answer_lines(std::cin, "standard input");
}

// Says whether every text was answered; a file of answers is left as it was when not. The opening
// goes out before the log is opened: a log must not take the place of a closed output.
bool serve(const options_t& options)
{
    const std::optional<bool> is_visible = visibility(options);
    Output output(options.output);
    output.write(opening());
    start_log(options.log_directory);
    if (options.is_measured)
        start_measurement();
    Server server(output, is_visible);
    answer_all(options, server);
    output.write(closing());
    if (server.all_was_read())
        output.finish();
    server.report_outcome();
    if (options.is_measured)
        std::cerr << measurement_state() << '\n';
    return server.all_was_read();
}

int report(const std::string& error)
{
    std::cerr << "request: " << error << '\n';
    return EXIT_FAILURE;
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
    } catch (const Kvl::STPException& e) {
        return report(e.message().message_string().utf8_str());
    } catch (const std::exception& e) {
        return report(e.what());
    }
}
