// Prints what a run-time library for measurement saw as a tree: each transaction below the one that
// it is a part of, with the time that it took, how it ended, its contexts and its metrics.
//
// Reads the log of tests/fakes/arm4 (FAKE_ARM4_LOG) from standard input.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

// ---- A line of the log ----

/// Finds the end of a part of a line that begins at `at`: where a blank or a closing bracket
/// follows that stands neither in a quoted text nor in brackets opened since.
std::size_t end_of_part(std::string_view line, std::size_t at)
{
    int open = 0;
    bool is_quoted = false;
    for (; at < line.size(); ++at) {
        const char c = line[at];
        if (is_quoted && c == '\\')
            ++at;
        else if (c == '"')
            is_quoted = !is_quoted;
        else if (is_quoted)
            continue;
        else if (c == '[' || c == '(')
            ++open;
        else if (c == ' ' ? open == 0 : (c == ']' || c == ')') && open-- == 0)
            break;
    }
    return std::min(at, line.size());
}

std::vector<std::string_view> parts_of(std::string_view line)
{
    std::vector<std::string_view> parts;
    for (std::size_t at = 0; at < line.size();) {
        const std::size_t end = end_of_part(line, at);
        parts.push_back(line.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

class call_t {
public:
    explicit call_t(std::string_view line) : parts_(parts_of(line)) {}

    bool is_of(std::string_view function) const
    {
        return parts_.size() > FUNCTION && parts_[FUNCTION] == function;
    }

    long long nanoseconds() const { return std::atoll(std::string(parts_.front()).c_str()); }

    /// @param key  with the "="
    /// @return     what follows the last one of that name; empty when there is none
    std::string_view value(std::string_view key) const
    {
        for (auto part = parts_.rbegin(); part != parts_.rend(); ++part)
            if (part->starts_with(key))
                return part->substr(key.size());
        return {};
    }

    /// @param opening  how the wanted part of the buffer's text begins
    /// @return         the list in brackets behind it; empty when there is none
    std::string_view list_in_buffer(std::string_view opening) const
    {
        const std::string_view buffer = value("buffer=");
        const std::size_t at = buffer.find(opening);
        if (at == buffer.npos)
            return {};
        const std::size_t start = at + opening.size();
        return buffer.substr(start, end_of_part(buffer, start) - start);
    }

private:
    static constexpr std::size_t FUNCTION = 2;
    std::vector<std::string_view> parts_;
};

// ---- Transactions ----

struct transaction_t {
    std::string name;
    std::string contexts;
    std::string metrics;
    std::string status = "running";
    long long started_at = 0;
    long long stopped_at = 0;
    bool has_stopped = false;
    std::vector<long long> parts{};  ///< handles
};

/// By handle; 0 stands for what is above the outermost ones.
using transactions_t = std::map<long long, transaction_t>;

long long handle_of(std::string_view text)
{
    if (text.starts_with('#'))
        text.remove_prefix(1);
    return std::atoll(std::string(text).c_str());
}

const char* name_of_status(std::string_view status)
{
    return status == "0"   ? "good"
           : status == "1" ? "aborted"
           : status == "2" ? "failed"
                           : "unknown";
}

void start(transactions_t& transactions, const call_t& call)
{
    const long long handle = handle_of(call.value("handle="));
    if (handle == 0)
        return;
    transactions[handle_of(call.value("parent="))].parts.push_back(handle);
    transaction_t& transaction = transactions[handle];
    transaction.name = call.value("tran_name=");
    transaction.contexts = call.list_in_buffer("tran_context(values=");
    transaction.started_at = call.nanoseconds();
}

void stop(transactions_t& transactions, const call_t& call)
{
    transaction_t& transaction = transactions[handle_of(call.value("handle="))];
    transaction.metrics = call.list_in_buffer("metric_values(");
    transaction.status = name_of_status(call.value("status="));
    transaction.stopped_at = call.nanoseconds();
    transaction.has_stopped = true;
}

constexpr double NANOSECONDS_PER_MICROSECOND = 1000;

std::string time_of(const transaction_t& transaction)
{
    if (!transaction.has_stopped)
        return std::string(12, ' ');
    const auto nanoseconds = static_cast<double>(transaction.stopped_at - transaction.started_at);
    char text[32];
    std::snprintf(text, sizeof text, "%9.1f us", nanoseconds / NANOSECONDS_PER_MICROSECOND);
    return text;
}

void print(const transaction_t& transaction, int depth)
{
    std::printf("%s  %-7s  %*s%s", time_of(transaction).c_str(), transaction.status.c_str(),
                2 * depth, "", transaction.name.c_str());
    for (const std::string& details : {transaction.contexts, transaction.metrics})
        if (!details.empty())
            std::printf(" %s", details.c_str());
    std::printf("\n");
}

void print_parts(const transactions_t& transactions, long long handle, int depth)
{
    for (const long long part : transactions.at(handle).parts) {
        print(transactions.at(part), depth);
        print_parts(transactions, part, depth + 1);
    }
}

}  // namespace

int main(int argc, char* argv[])
{
    CLI::App app("Reads from standard input what the recording run-time of the tests wrote to its "
                 "log, FAKE_ARM4_LOG, and prints it as a tree.");
    CLI11_PARSE(app, argc, argv);
    transactions_t transactions;
    transactions[0] = {};
    std::string line;
    while (std::getline(std::cin, line)) {
        const call_t call(line);
        if (call.is_of("arm_register_application"))
            std::printf("application %s\n", std::string(call.value("app_name=")).c_str());
        else if (call.is_of("arm_register_transaction"))
            std::printf("operation   %s\n", std::string(call.value("tran_name=")).c_str());
        else if (call.is_of("arm_start_transaction"))
            start(transactions, call);
        else if (call.is_of("arm_stop_transaction"))
            stop(transactions, call);
    }
    print_parts(transactions, 0, 0);
}
