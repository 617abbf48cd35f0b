#include "static_client.h"

#include <gtest/gtest.h>

namespace {

const answers_t expected = {
    {"catalogue header", "kvutil 21"},
    {"catalogue message", "PLXSV0669E Error converting '%s' to default character set."},
    {"nil message", "yes"},
    {"nil argument", "0"},
    {"message with a nil argument",
     "PLXSV0669E Error converting '/tmp/x' to default character set."},
    {"default charset", "yes"},
    {"text of the default charset", "abc"},
    {"default conversion failed", "no"},
    {"text of a named charset", "gr\xC3\xBCn"},
    {"tag by id", "acl-entry"},
    {"tag by name", "3"},
    {"tag by URI", "3"},
    {"tag by constant", "yes"},
    {"tag in words", "</acl-entry>"},
    {"namespace by abbreviation", "0"},
    {"namespace by id", "VENDOR:"},
    {"namespace record", "20"},
    {"empty prefix", ""},
    {"first tag of our own", "1155"},
    {"second tag of our own", "1156"},
    {"namespace of our own", "http://client.example.com/ns"},
    {"selector", "/src/main.c in /vobs/proj"},
    {"selector printed", "vd.file:/src/main.c@/vobs/proj"},
    {"resource type", "1027"},
    {"segment encoded", "a%/b"},
    {"namespace text", "file"},
    {"domain text", "ob"},
    {"time", "1994-11-06T08:49:37Z"},
    {"offset within a day", "yes"},
    {"separators", ":.@/\\%"},
    {"delimiters", "%:@/\\"},
    {"temporary file", "yes"},
    {"temporary file deleted", "yes"},
    {"ARM text", "pooled"},
    {"ARM text shared", "yes"},
    {"ARM text found", "yes"},
    {"operation", "operation of a client"},
    {"operations are listed", "yes"},
    {"operation while off", "-21000"},
    {"rejected selector",
     "PLXSV0671E The selector 'vd.file' is not valid: missing namespace seperator: \":\""},
    {"illegal id", "PLXSV0655E XmlTag::lookup(): called with illegal id value."},
};

TEST(StaticClient, FindsEveryTableCompleteInItsStaticConstructors)
{
    EXPECT_EQ(answers_at_load(), expected);
}

TEST(StaticClient, FindsThemTheSameLater)
{
    EXPECT_EQ(ask_every_table(), expected);
}

// That its static destructors find them too is the exit status of each of these processes.

}  // namespace
