#include <kvutil/resource.h>

#include "support/text.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <type_traits>

namespace {

using Kvl::Resource;
using Kvl::UString;

class File : public Resource {
public:
    explicit File(UString name) : name_(std::move(name)) {}
    File* do_clone() const override { return new File(*this); }
    UString text() const override { return name_; }

private:
    UString name_;
};

class Nameless : public Resource {
public:
    Resource* do_clone() const override { return nullptr; }
};

class Uncopyable : public Resource {
public:
    Resource* do_clone() const override { throw std::runtime_error("no copy"); }
};

TEST(Resource, CloneIsAnIndependentObjectOfTheSameClass)
{
    std::unique_ptr<Resource> copy;
    {
        const File original(ustr("/vobs/src"));
        copy.reset(original.clone());
        EXPECT_NE(copy.get(), &original);
    }
    ASSERT_NE(dynamic_cast<File*>(copy.get()), nullptr);
    EXPECT_EQ(copy->text(), ustr("/vobs/src"));
}

TEST(Resource, CloneReturnsWhatTheVirtualCopyReturns)
{
    EXPECT_EQ(Nameless().clone(), nullptr);
}

TEST(Resource, CloneLetsExceptionsOfTheVirtualCopyPass)
{
    EXPECT_THROW(Uncopyable().clone(), std::runtime_error);
}

TEST(Resource, TextIsEmptyUnlessAClassSaysOtherwise)
{
    EXPECT_EQ(Nameless().text(), UString());
}

TEST(Resource, IsDestroyedThroughItsBase)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<Resource>);
    EXPECT_TRUE(std::is_abstract_v<Resource>);
}

/// The operations of the table behind an object's first word, in slot order. The destructor takes
/// two entries there: one for objects in place, one that frees.
void* const* slots_of(const Resource& resource)
{
    return *reinterpret_cast<void* const* const*>(&resource);
}

TEST(Resource, CopyAndTextFollowTheDestructorInSlotOrder)
{
    const Nameless nameless;  // overrides the copy operation only
    const Uncopyable uncopyable;
    const File file{UString()};  // overrides both
    EXPECT_NE(slots_of(nameless)[2], slots_of(uncopyable)[2]);
    EXPECT_EQ(slots_of(nameless)[3], slots_of(uncopyable)[3]);
    EXPECT_NE(slots_of(nameless)[3], slots_of(file)[3]);
}

}  // namespace
