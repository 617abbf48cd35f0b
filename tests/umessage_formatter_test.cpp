// What the message formatter is asked, and what becomes of its answers: this program brings a
// formatter of its own, which takes the place of the logging library's.

#include <kvutil/umessage.h>
#include <qmlogger/qmlogger.h>

#include "support/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

/// The formatter's behaviour in one test, and what it was called with.
struct formatter_t {
    const char* look_up = "format";  // answers of the two forms
    const char* fill = "finished";
    std::size_t num_records = 0;  // how many to keep

    int look_ups = 0;
    const char** catalogue = nullptr;
    int index = 0;
    const char* extra = nullptr;
    int fills = 0;
    const char* format = nullptr;  // the pointer
    std::string format_text;
    std::vector<cxPrintfArgVal> records;
};
formatter_t* formatter = nullptr;

}  // namespace

const char* Log::QmMsg::format(const char** catalogue, int index, const char* extra)
{
    ++formatter->look_ups;
    formatter->catalogue = catalogue;
    formatter->index = index;
    formatter->extra = extra;
    return formatter->look_up;
}

const char* Log::QmMsg::format(const char* format, cxPrintfArgVal* args)
{
    ++formatter->fills;
    formatter->format = format;
    formatter->format_text = format;
    formatter->records.assign(args, args + formatter->num_records);
    return formatter->fill;
}

namespace {

using Kvl::UMessage;
using Kvl::UString;
using Arg = UMessage::Arg;

class UMessageFormatter : public testing::Test {
protected:
    UMessageFormatter() { formatter = &formatter_; }
    ~UMessageFormatter() override { formatter = nullptr; }

    formatter_t formatter_;
};

const UString FALLBACK = ustr("Could not locate Catalog File");

TEST_F(UMessageFormatter, IsAskedForTheFormatAndThenFillsIt)
{
    const char* const extra = "extra";
    formatter_.look_up = "%s: %d";
    formatter_.fill = "finish\xC3\xA9";
    formatter_.num_records = 2;
    const UMessage message(kvutil, 12, "text", 7);
    EXPECT_EQ(message.message_string(extra), ustr("finishé"));
    EXPECT_EQ(formatter_.look_ups, 1);
    EXPECT_EQ(formatter_.catalogue, kvutil);
    EXPECT_EQ(formatter_.index, 12);
    EXPECT_EQ(formatter_.extra, extra);
    EXPECT_EQ(formatter_.fills, 1);
    EXPECT_EQ(formatter_.format, formatter_.look_up) << "a format that fits is not copied";
    EXPECT_STREQ(static_cast<const char*>(formatter_.records[0].p), "text");
    EXPECT_EQ(formatter_.records[1].i, 7);
}

TEST_F(UMessageFormatter, GetsNullForExtraUnlessTheCallerSaysOtherwise)
{
    formatter_.extra = "not null";
    UMessage(kvutil, 2).message_string();
    EXPECT_EQ(formatter_.extra, nullptr);
    formatter_.extra = "not null";
    UMessage::sprintf(kvutil, 2, 1);
    EXPECT_EQ(formatter_.extra, nullptr);
    formatter_.extra = "not null";
    UMessage::sprintf(kvutil, 2, 1, 2);
    EXPECT_EQ(formatter_.extra, nullptr);
}

TEST_F(UMessageFormatter, IsNotAskedForAMessageWithoutCatalogueOrIndex)
{
    EXPECT_EQ(UMessage::nil.message_string(), UString());
    EXPECT_EQ(UMessage(nullptr, 7, "a").message_string(), UString());
    EXPECT_EQ(UMessage(kvutil, -1, "a").message_string(), UString());
    EXPECT_EQ(formatter_.look_ups, 0);
    EXPECT_EQ(formatter_.fills, 0);
}

// It may have texts that are in no array.
TEST_F(UMessageFormatter, IsAskedWithoutAMessageWhateverCatalogueAndIndexAre)
{
    formatter_.fill = "from elsewhere";
    EXPECT_EQ(UMessage::sprintf(static_cast<const char**>(nullptr), 7, "a"),
              ustr("from elsewhere"));
    EXPECT_EQ(formatter_.catalogue, nullptr);
    EXPECT_EQ(formatter_.index, 7);
    EXPECT_EQ(UMessage::sprintf(kvutil, -1, "a"), ustr("from elsewhere"));
    EXPECT_EQ(formatter_.index, -1);
    EXPECT_EQ(formatter_.look_ups, 2);
}

TEST_F(UMessageFormatter, MayHaveNoFormat)
{
    for (const char* const nothing :
         {static_cast<const char*>(nullptr), "default QmLogger message"}) {
        formatter_.look_up = nothing;
        EXPECT_EQ(UMessage(kvutil, 7, "a").message_string(), FALLBACK);
        EXPECT_EQ(UMessage::sprintf(kvutil, 7, "a"), FALLBACK);
        EXPECT_EQ(UMessage::sprintf(kvutil, 7, "a", "b"), FALLBACK);
        EXPECT_EQ(UMessage::sprintf(kvutil, 7, std::vector<const Arg*>()), FALLBACK);
    }
    EXPECT_EQ(formatter_.fills, 0);
}

TEST_F(UMessageFormatter, MayFailToFill)
{
    for (const char* const nothing :
         {static_cast<const char*>(nullptr), "default QmLogger message"}) {
        formatter_.fill = nothing;
        EXPECT_EQ(UMessage(kvutil, 7, "a").message_string(), FALLBACK);
        EXPECT_EQ(UMessage::sprintf("%s", "a"), FALLBACK);
        EXPECT_EQ(UMessage::sprintf(ustr("%s"), "a"), FALLBACK);
        EXPECT_EQ(UMessage::sprintf("%d", "rewritten"), FALLBACK);
    }
}

TEST_F(UMessageFormatter, AnswersThatMerelyBeginLikeAFailureAreTexts)
{
    for (const char* const text : {"default QmLogger message.", "default QmLogger messag",
                                   "Default QmLogger message", "default QmLogger message "}) {
        formatter_.look_up = text;
        formatter_.fill = text;
        EXPECT_EQ(UMessage(kvutil, 7).message_string(), ustr(text));
        EXPECT_EQ(formatter_.format, text);
    }
}

TEST_F(UMessageFormatter, AnswerThatIsNotUtf8IsAnEmptyText)
{
    formatter_.fill = "finished \xC3\x28";
    EXPECT_EQ(UMessage::sprintf("%s", "a"), UString());
}

struct fitting_t {
    const char* format;
    std::vector<Arg> args;
};

TEST_F(UMessageFormatter, GetsAFormatThatFitsUntouched)
{
    const std::vector<fitting_t> rows = {
        {"", {}},
        {"plain %% text", {1}},
        {"%s %s %s %s", {"a", std::string("b"), ustr("c"), u"d"}},
        {"%d %i %u %x %X %o %c", {1, 2L, 3u, 4LL, 5ULL, 'a', 'b'}},
        {"%c %lld %hhd %hd %ld %jd %zd %td", {1, 2, 3, 4, 5, 6, 7, 8}},
        {"%e %E %f %F %g %G %a %A %Lf %lf", {1., 2., 3., 4., 5., 6., 7., 8., 9., 10.}},
        {"%-+ #08.3f %-5s %.3s %-8c %#x %05d", {1.5, "a", "b", 'c', 4, 5}},
        {"%*d %-*.*f %.*s", {5, 1, 8, 2, 1.5, 3, "text"}},
        {"%2$s %1$s %2$s", {"a", "b"}},
        {"%2$*1$d %3$.*1$f", {5, 42, 1.5}},
        {"%s %d %f", {}},  // nothing to read is zero
        {"%65535d %.65535f", {1, 2.}},
        {"%s", {"a", 1, 2.5}},  // arguments may be left over
    };
    for (const fitting_t& row : rows) {
        std::vector<const Arg*> args;
        for (const Arg& arg : row.args)
            args.push_back(&arg);
        UMessage::sprintf(row.format, args);
        EXPECT_EQ(formatter_.format, row.format) << row.format;
    }
}

TEST_F(UMessageFormatter, GetsZeroRecordsForMissingArguments)
{
    formatter_.num_records = 30;
    std::string format;
    for (int i = 0; i < 30; ++i)
        format += "%s";
    const Arg text("a");
    UMessage::sprintf(format.c_str(), text);
    EXPECT_STREQ(static_cast<const char*>(formatter_.records[0].p), "a");
    for (std::size_t i = 1; i < 30; ++i) {
        EXPECT_EQ(formatter_.records[i].i, 0);
        EXPECT_EQ(formatter_.records[i].d, 0.0L);
    }
}

struct rewritten_t {
    const char* format;
    std::vector<Arg> args;
    const char* rewritten;
};

// What any printf-style formatter understands: no order by number, no fields from arguments, no
// undefined flags, and a letter that reads the record as what it is.
TEST_F(UMessageFormatter, GetsAFormatThatDoesNotFitRewritten)
{
    const std::vector<rewritten_t> rows = {
        {"%d", {"a"}, "%s"},
        {"%-+08.3ld|", {"a"}, "%-8s|"},
        {"%s", {1}, "%d"},
        {"%08.3s", {1}, "%8d"},
        {"%s", {'a'}, "%c"},
        {"%s", {1.5}, "%s"},
        {"%d", {1.5}, "%d"},
        {"%08.3ld", {1.5}, "%08.3ld"},
        {"%.2f", {1}, "%.2f"},
        {"%n", {}, "%%n"},
        {"%p", {"a"}, "%%p"},
        {"100% yes %d", {"a"}, "100%% yes %s"},
        {"%% %y", {}, "%% %%y"},
        {"%2$s %1$d", {"a", 1}, "%d %s"},
        {"%*d", {"a", 1}, "%d"},
        {"%*s", {-3, 1}, "%-3d"},
        {"%.*s", {-3, 1}, "%d"},
        {"%70000d", {1}, "%65535d"},
        {"%.70000f", {1.5}, "%.65535f"},
        {"%ls %S %lc %C", {"a", "b", 'c', 'd'}, "%s %s %c %c"},
        {"%'d", {1}, "%d"},
        {"%s %1$s", {"a"}, "%s %s"},
        {"%c", {}, "%s"},
    };
    for (const rewritten_t& row : rows) {
        std::vector<const Arg*> args;
        for (const Arg& arg : row.args)
            args.push_back(&arg);
        UMessage::sprintf(row.format, args);
        EXPECT_EQ(formatter_.format_text, row.rewritten) << row.format;
    }
}

}  // namespace
