#include "rows.h"
#include "symbols.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <iterator>

// Every operation of both libraries with every allocation failing: the rows are in the files of
// their headers, what is done with each in torture.h.

namespace torture {
namespace {

const std::vector<rows_t>& table()
{
    static const std::vector<rows_t> rows = [] {
        std::vector<rows_t> all;
        for (const auto rows_of_header :
             {ustring_rows, umessage_rows, pname_rows, stpexception_rows, exception_rows,
              logging_rows, xmltag_rows, selector_rows, oid_rows, credentials_rows, critsec_rows,
              fileutl_rows, davtime_rows, arm_buffer_rows, arm_rows})
            all.push_back(rows_of_header());
        return all;
    }();
    return rows;
}

template <class Visit>
void for_each_row(Visit visit)
{
    for (const rows_t& header : table())
        for (const auto& row : header.rows)
            visit(*row);
}

figures_t g_figures;

// First calls are the first ones of their process, so they come before this one has called
// anything.
TEST(AllocationTorture, LeavesTheResultOrARefusalWithoutTrace)
{
    for_each_row([](const row_t& row) { torture_first_calls(row, g_figures); });
    for_each_row([](const row_t& row) { torture(row, g_figures); });
}

// ---- the table is whole ----

/// The functions that the rows name; those in brackets have no symbol of their own.
names_t functions_of_rows()
{
    names_t names;
    for_each_row([&](const row_t& row) { names.insert(row.symbols.begin(), row.symbols.end()); });
    std::erase_if(names, [](const std::string& name) { return name.back() == ']'; });
    return names;
}

names_t without(const names_t& all, const names_t& some)
{
    names_t rest;
    std::set_difference(all.begin(), all.end(), some.begin(), some.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

TEST(AllocationTable, HasARowForEveryExportedFunction)
{
    const names_t exported = exported_functions();
    EXPECT_GT(exported.size(), 200u);
    EXPECT_THAT(without(exported, functions_of_rows()), testing::IsEmpty())
        << "add a row in the file of its header; a private member belongs into symbols.cpp";
}

TEST(AllocationTable, NamesNothingElse)
{
    EXPECT_THAT(without(functions_of_rows(), exported_functions()), testing::IsEmpty());
}

TEST(AllocationTable, NamesWhatIsCalled)
{
    EXPECT_THAT(without(functions_of_rows(), called_functions()), testing::IsEmpty());
}

/// The last line, for reports.
void print_figures()
{
    const names_t exported = exported_functions();
    std::cout << "allocation torture: rows=" << g_figures.rows
              << " functions=" << exported.size() - without(exported, functions_of_rows()).size()
              << " exported=" << exported.size() << " failed_once=" << g_figures.failed_once
              << " failed_from_there_on=" << g_figures.failed_from_there_on
              << " in_new_processes=" << g_figures.in_new_processes
              << " refusals=" << g_figures.refusals << std::endl;
}

}  // namespace
}  // namespace torture

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
    const int result = RUN_ALL_TESTS();
    torture::print_figures();
    return result;
}
