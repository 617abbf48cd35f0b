#include <kvutil/kvutil_msg.h>

#include <gtest/gtest.h>

#include <cctype>
#include <iterator>
#include <string>

namespace {

TEST(KvutilMsg, HeaderNamesTheCatalogueAndCountsItsMessages)
{
    EXPECT_STREQ(kvutil[0], "kvutil 21");
    EXPECT_EQ(std::size(kvutil), 22u);
    EXPECT_EQ(sizeof kvutil, 22 * sizeof(const char*));
}

TEST(KvutilMsg, EveryMessageBeginsWithItsNumberAndABlank)
{
    for (int index = 1; index <= 21; ++index) {
        const std::string id = "PLXSV0" + std::to_string(650 + index) + "E ";
        EXPECT_EQ(std::string(kvutil[index]).substr(0, id.size()), id);
    }
}

TEST(KvutilMsg, TextsAreTheContract)
{
    const char* const texts[] = {
        ("PLXSV0651E Can't generate a UUID (possible network/adapter configuration problem) - "
         "UuidCreate error %d"),
        "PLXSV0652E The UUID generator can't get the IEEE 802 (ethernet) address for this computer",
        "PLXSV0653E Internal error: %s(), at line: %s in file: '%s'",
        "PLXSV0654E %s(): called with illegal value.",
        "PLXSV0655E XmlTag::lookup(): called with illegal id value.",
        "PLXSV0656E XmlTag::lookup(): called with illegal ns value.",
        "PLXSV0657E Invalid Oid/Uuid format for arg: '%s' with value: '%s'",
        "PLXSV0658E Invalid Identity length format for arg: '%s' with value: '%s'",
        "PLXSV0659E Invalid Identity length string for arg: '%s' with value: '%s'",
        "PLXSV0660E Invalid Identity - bad string size for arg: '%s' with value: '%s'",
        "PLXSV0661E Invalid Identity - hex conversion error for arg: '%s' with value: '%s'",
        "PLXSV0662E The URI '%s' is not valid: %s",
        "PLXSV0663E Invalid escape sequence in URI '%s'",
        "PLXSV0664E Cannot create temporary file system object: %s",
        "PLXSV0665E Unable to open file '%s': %s.",
        "PLXSV0666E Unable to read file '%s': %s.",
        "PLXSV0667E Unable to write file '%s': %s.",
        "PLXSV0668E Unable to close file '%s': %s.",
        "PLXSV0669E Error converting '%s' to default character set.",
        "PLXSV0670E Application Resource Measurement (ARM) error: %s.",
        "PLXSV0671E The selector '%s' is not valid: %s",
    };
    ASSERT_EQ(std::size(texts), 21u);
    for (std::size_t i = 0; i < std::size(texts); ++i)
        EXPECT_STREQ(kvutil[i + 1], texts[i]);
}

TEST(KvutilMsg, ClientsMayReplaceAnEntry)
{
    const char* const saved = kvutil[2];
    kvutil[2] = "replaced";
    EXPECT_STREQ(kvutil[2], "replaced");
    kvutil[2] = saved;
}

}  // namespace
