#include <kvutil/kvutil_msg.h>
#include <kvutil/stpexception.h>

#include "support/failure.h"
#include "support/memory_fault.h"
#include "support/recording_logger.h"
#include "support/small_stack.h"
#include "support/text.h"
#include "support/virtual_slot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>

using Kvl::IllegalArgException;
using Kvl::Resource;
using Kvl::RuntimeException;
using Kvl::StateException;
using Kvl::STPException;
using Kvl::UMessage;
using Kvl::UString;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr Kvl::stp_reason_code_t reason_7 = Kvl::stp_reason_code_t(7);
const STPException* const no_cause = nullptr;

/// Whether `T` is the class of `e`, not only one of its bases.
template <class T>
bool is_exactly(const STPException& e)
{
    return typeid(e) == typeid(T);
}

UMessage message(const char16_t* selector)
{
    return UMessage(kvutil, 21, selector, u"why");
}

std::string text_of(const char* selector)
{
    return std::string("PLXSV0671E The selector '") + selector + "' is not valid: why";
}

/// A resource that counts itself.
class probe_resource : public Resource {
public:
    explicit probe_resource(const UString& name) : name_(name) { ++living; }
    probe_resource(const probe_resource& o) : Resource(o), name_(o.name_) { ++living; }
    ~probe_resource() override { --living; }
    Resource* do_clone() const override { return new probe_resource(*this); }
    UString text() const override
    {
        ++renderings;
        return name_;
    }

    static inline int living = 0;
    static inline int renderings = 0;

private:
    UString name_;
};

/// An exception class of a client, which counts itself and can be told to fail.
class probe_exception : public STPException {
public:
    explicit probe_exception(int number)
        : STPException(reason_7, UMessage(), nullptr, no_cause, 2), number_(number)
    {
        ++living;
    }
    probe_exception(int number, const std::vector<STPException*>& causes)
        : STPException(reason_7, UMessage(), nullptr, causes, 2), number_(number)
    {
        ++living;
    }
    probe_exception(const probe_exception& o) : STPException(o), number_(o.number_)
    {
        if (copies_until_failure > 0 && --copies_until_failure == 0)
            throw std::runtime_error("no more copies");
        ++living;
    }
    ~probe_exception() override { --living; }
    probe_exception* clone() const override { return new probe_exception(*this); }

    int number() const { return number_; }

    static inline int living = 0;
    static inline int copies_until_failure = 0;

private:
    int number_;
};

/// A chain of `length` exceptions of class `T`, each the cause of the one before. Built from its
/// end by adoption: building it by construction would copy the chain at each link.
template <class T, class... Args>
std::unique_ptr<T> chain(int length, const Args&... args)
{
    auto first = std::make_unique<T>(args...);
    for (int i = 1; i < length; ++i) {
        auto outer = std::make_unique<T>(args...);
        const_cast<std::vector<STPException*>&>(outer->causes()).push_back(first.get());
        first.release();
        first = std::move(outer);
    }
    return first;
}

int length_of(const STPException& first)
{
    int length = 1;
    for (const STPException* e = &first; !e->causes().empty(); e = e->causes()[0])
        ++length;
    return length;
}

const STPException& last_of(const STPException& first)
{
    const STPException* e = &first;
    while (!e->causes().empty())
        e = e->causes()[0];
    return *e;
}

std::vector<int> numbers_of(const std::vector<STPException*>& causes)
{
    std::vector<int> numbers;
    for (const STPException* cause : causes)
        numbers.push_back(dynamic_cast<const probe_exception&>(*cause).number());
    return numbers;
}

// The classes.

TEST(StpException, IsARootClass)
{
    static_assert(std::is_polymorphic_v<STPException>);
    static_assert(!std::is_base_of_v<std::exception, STPException>);
    static_assert(std::is_base_of_v<STPException, RuntimeException>);
    static_assert(std::is_base_of_v<STPException, IllegalArgException>);
    static_assert(std::is_base_of_v<STPException, StateException>);
    static_assert(!std::is_convertible_v<UMessage, StateException>, "explicit");
    static_assert(!std::is_constructible_v<STPException, UMessage>, "only the refinements");
    static_assert(std::is_same_v<Kvl::stp_log_level_t, int>);
    static_assert(std::is_same_v<STPException::stp_reason_code_t, Kvl::stp_reason_code_t>);
    static_assert(std::is_same_v<STPException::stp_log_level_t, Kvl::stp_log_level_t>);
    static_assert(std::is_same_v<std::underlying_type_t<Kvl::stp_reason_code_t>, int>);
    static_assert(Kvl::STP_REASON_39 == 39 && Kvl::STP_REASON_40 == 40);
}

TEST(StpException, RefinementsAddNoData)
{
    static_assert(sizeof(RuntimeException) == sizeof(STPException));
    static_assert(sizeof(IllegalArgException) == sizeof(STPException));
    static_assert(sizeof(StateException) == sizeof(STPException));
}

TEST(StpException, SlotsAreDestructorThenClone)
{
    EXPECT_EQ(virtual_slot(&STPException::clone), 2u);
    EXPECT_EQ(virtual_slot(&RuntimeException::clone), 2u);
    EXPECT_EQ(virtual_slot(&IllegalArgException::clone), 2u);
    EXPECT_EQ(virtual_slot(&StateException::clone), 2u);
}

// Construction.

TEST(StpException, KeepsReasonMessageResourceAndCauses)
{
    const probe_resource resource(u"vob");
    const StateException first(message(u"a"));
    const IllegalArgException second(message(u"b"));
    const std::vector<STPException*> causes = {first.clone(), second.clone()};
    const STPException e(reason_7, message(u"c"), &resource, causes, 2);
    for (STPException* cause : causes)
        delete cause;

    EXPECT_EQ(e.stp_reason_code(), 7);
    EXPECT_EQ(rendered(e), text_of("c"));
    ASSERT_NE(e.resource(), nullptr);
    EXPECT_NE(e.resource(), &resource);
    EXPECT_EQ(e.resource()->text(), UString(u"vob"));
    ASSERT_EQ(e.causes().size(), 2u);
    EXPECT_TRUE(is_exactly<StateException>(*e.causes()[0]));
    EXPECT_TRUE(is_exactly<IllegalArgException>(*e.causes()[1]));
    EXPECT_EQ(rendered(*e.causes()[0]), text_of("a"));
    EXPECT_EQ(rendered(*e.causes()[1]), text_of("b"));
}

TEST(StpException, KeepsASingleCause)
{
    const RuntimeException cause(message(u"a"));
    const STPException e(reason_7, message(u"b"), nullptr, &cause, 2);
    ASSERT_EQ(e.causes().size(), 1u);
    EXPECT_NE(e.causes()[0], &cause);
    EXPECT_TRUE(is_exactly<RuntimeException>(*e.causes()[0]));
    EXPECT_EQ(rendered(*e.causes()[0]), text_of("a"));
}

TEST(StpException, TakesNullForNoResourceAndNoCause)
{
    const STPException without_cause(reason_7, UMessage(), nullptr, no_cause, 2);
    EXPECT_EQ(without_cause.resource(), nullptr);
    EXPECT_THAT(without_cause.causes(), IsEmpty());
    EXPECT_TRUE(without_cause.message().is_nil());

    const STPException without_causes(reason_7, UMessage(), nullptr, std::vector<STPException*>(),
                                      2);
    EXPECT_EQ(without_causes.resource(), nullptr);
    EXPECT_THAT(without_causes.causes(), IsEmpty());
}

TEST(StpException, KeepsAnyReasonCode)
{
    for (const int value : {0, -1, 39, 40, INT_MAX, INT_MIN}) {
        const STPException e(Kvl::stp_reason_code_t(value), UMessage(), nullptr, no_cause, 0);
        EXPECT_EQ(e.stp_reason_code(), value);
        EXPECT_EQ(STPException(e).stp_reason_code(), value);
    }
}

TEST(StpException, AcceptsAnyLevel)
{
    for (const int level : {-1, 0, 1, 2, 3, INT_MAX, INT_MIN})
        EXPECT_EQ(STPException(reason_7, UMessage(), nullptr, no_cause, level).stp_reason_code(),
                  7);
}

TEST(StpException, SkipsNullElementsOfAList)
{
    probe_exception one(1);
    probe_exception two(2);
    const STPException e(reason_7, UMessage(), nullptr, {nullptr, &one, nullptr, &two, nullptr}, 2);
    EXPECT_THAT(numbers_of(e.causes()), ElementsAre(1, 2));
    EXPECT_THAT(STPException(reason_7, UMessage(), nullptr, {nullptr, nullptr}, 2).causes(),
                IsEmpty());
}

TEST(StpException, SkipsACauseWhoseCloneIsNull)
{
    class unclonable : public STPException {
    public:
        unclonable() : STPException(reason_7, UMessage(), nullptr, no_cause, 2) {}
        unclonable* clone() const override { return nullptr; }
    };
    unclonable lost;
    probe_exception kept(1);
    const STPException e(reason_7, UMessage(), nullptr, {&lost, &kept}, 2);
    EXPECT_THAT(numbers_of(e.causes()), ElementsAre(1));
    EXPECT_THAT(STPException(reason_7, UMessage(), nullptr, &lost, 2).causes(), IsEmpty());
}

TEST(StpException, TakesOneCauseTwice)
{
    probe_exception cause(1);
    const STPException e(reason_7, UMessage(), nullptr, {&cause, &cause}, 2);
    EXPECT_THAT(numbers_of(e.causes()), ElementsAre(1, 1));
    EXPECT_NE(e.causes()[0], e.causes()[1]);
}

TEST(StpException, DeletesItsCausesAndItsResourceByTheirOwnDestructors)
{
    {
        const probe_resource resource(u"vob");
        probe_exception cause(1);
        const STPException e(reason_7, UMessage(), &resource, {&cause, &cause}, 2);
        EXPECT_EQ(probe_exception::living, 3);
        EXPECT_EQ(probe_resource::living, 2);
    }
    EXPECT_EQ(probe_exception::living, 0);
    EXPECT_EQ(probe_resource::living, 0);
}

// Copies.

TEST(StpExceptionCopy, YieldsNewCausesThatOutliveTheSource)
{
    const probe_resource resource(u"vob");
    StateException first(message(u"a"));
    RuntimeException second(message(u"b"));
    auto source = std::make_unique<STPException>(reason_7, message(u"c"), &resource,
                                                 std::vector<STPException*>{&first, &second}, 2);
    const STPException copy(*source);
    ASSERT_EQ(copy.causes().size(), 2u);
    EXPECT_NE(copy.causes()[0], source->causes()[0]);
    EXPECT_NE(copy.causes()[1], source->causes()[1]);
    EXPECT_NE(copy.resource(), source->resource());
    source.reset();

    EXPECT_EQ(copy.stp_reason_code(), 7);
    EXPECT_EQ(rendered(copy), text_of("c"));
    EXPECT_EQ(copy.resource()->text(), UString(u"vob"));
    EXPECT_TRUE(is_exactly<StateException>(*copy.causes()[0]));
    EXPECT_TRUE(is_exactly<RuntimeException>(*copy.causes()[1]));
    EXPECT_EQ(rendered(*copy.causes()[0]), text_of("a"));
    EXPECT_EQ(rendered(*copy.causes()[1]), text_of("b"));
}

TEST(StpExceptionCopy, KeepsTheShapeOfATree)
{
    probe_exception leaf_3(3);
    probe_exception leaf_4(4);
    probe_exception leaf_5(5);
    probe_exception branch_1(1, {&leaf_3, &leaf_4});
    probe_exception branch_2(2, {&leaf_5});
    const probe_exception root(0, {&branch_1, &branch_2});
    const probe_exception copy(root);
    EXPECT_THAT(numbers_of(copy.causes()), ElementsAre(1, 2));
    EXPECT_THAT(numbers_of(copy.causes()[0]->causes()), ElementsAre(3, 4));
    EXPECT_THAT(numbers_of(copy.causes()[1]->causes()), ElementsAre(5));
    EXPECT_THAT(copy.causes()[1]->causes()[0]->causes(), IsEmpty());
}

TEST(StpExceptionClone, IsAHeapCopyOfItsOwnClass)
{
    static_assert(
        std::is_same_v<decltype(&STPException::clone), STPException* (STPException::*)() const>);
    static_assert(std::is_same_v<decltype(&StateException::clone),
                                 StateException* (StateException::*)() const>);
    const StateException cause(message(u"a"));
    const STPException e(reason_7, message(u"b"), nullptr, &cause, 2);
    const std::unique_ptr<STPException> clone(e.clone());
    EXPECT_TRUE(is_exactly<STPException>(*clone));
    EXPECT_EQ(clone->stp_reason_code(), 7);
    EXPECT_EQ(rendered(*clone), text_of("b"));
    ASSERT_EQ(clone->causes().size(), 1u);
    EXPECT_NE(clone->causes()[0], e.causes()[0]);
}

TEST(StpExceptionAssign, ReplacesEverything)
{
    const probe_resource old_resource(u"old");
    const probe_resource new_resource(u"new");
    probe_exception old_cause(1);
    probe_exception new_cause(2);
    STPException target(Kvl::STP_REASON_40, message(u"a"), &old_resource, &old_cause, 2);
    const STPException source(reason_7, message(u"b"), &new_resource, {&new_cause, &new_cause}, 2);
    EXPECT_EQ(&(target = source), &target);

    EXPECT_EQ(target.stp_reason_code(), 7);
    EXPECT_EQ(rendered(target), text_of("b"));
    EXPECT_EQ(target.resource()->text(), UString(u"new"));
    EXPECT_NE(target.resource(), source.resource());
    EXPECT_THAT(numbers_of(target.causes()), ElementsAre(2, 2));
    EXPECT_NE(target.causes()[0], source.causes()[0]);
    EXPECT_EQ(probe_exception::living, 2 + 2 + 2) << "the old cause is deleted";
    EXPECT_EQ(probe_resource::living, 2 + 2) << "the old resource is deleted";
}

TEST(StpExceptionAssign, EmptiesWhatTheSourceDoesNotHave)
{
    const probe_resource resource(u"old");
    probe_exception cause(1);
    STPException target(reason_7, message(u"a"), &resource, &cause, 2);
    target = STPException(Kvl::STP_REASON_40, UMessage(), nullptr, no_cause, 2);
    EXPECT_EQ(target.stp_reason_code(), 40);
    EXPECT_TRUE(target.message().is_nil());
    EXPECT_EQ(target.resource(), nullptr);
    EXPECT_THAT(target.causes(), IsEmpty());
}

TEST(StpExceptionAssign, OfItselfDoesNothing)
{
    const probe_resource resource(u"vob");
    probe_exception cause(1);
    STPException e(reason_7, message(u"a"), &resource, &cause, 2);
    const Resource* const own_resource = e.resource();
    const STPException* const own_cause = e.causes()[0];
    STPException& same = e;
    e = same;
    EXPECT_EQ(e.resource(), own_resource);
    ASSERT_EQ(e.causes().size(), 1u);
    EXPECT_EQ(e.causes()[0], own_cause);
    e = std::move(same);
    EXPECT_EQ(e.resource(), own_resource);
    ASSERT_EQ(e.causes().size(), 1u);
    EXPECT_EQ(rendered(e), text_of("a"));
}

TEST(StpExceptionAssign, TakesItsOwnCause)
{
    StateException inner(message(u"inner"));
    const STPException middle(Kvl::STP_REASON_40, message(u"middle"), nullptr, &inner, 2);
    STPException outer(reason_7, message(u"outer"), nullptr, &middle, 2);
    outer = *outer.causes()[0];
    EXPECT_EQ(outer.stp_reason_code(), 40);
    EXPECT_EQ(rendered(outer), text_of("middle"));
    ASSERT_EQ(outer.causes().size(), 1u);
    EXPECT_EQ(rendered(*outer.causes()[0]), text_of("inner"));
}

TEST(StpExceptionAssign, TakesADeeperDescendant)
{
    const probe_resource resource(u"vob");
    const STPException inner(Kvl::STP_REASON_40, message(u"inner"), &resource, no_cause, 2);
    const STPException middle(reason_7, message(u"middle"), nullptr, &inner, 2);
    STPException outer(reason_7, message(u"outer"), nullptr, &middle, 2);
    outer = *outer.causes()[0]->causes()[0];
    EXPECT_EQ(outer.stp_reason_code(), 40);
    EXPECT_EQ(rendered(outer), text_of("inner"));
    EXPECT_EQ(outer.resource()->text(), UString(u"vob"));
    EXPECT_THAT(outer.causes(), IsEmpty());
}

TEST(StpExceptionAssign, GivesTheOuterToItsOwnCause)
{
    probe_exception leaf(2);
    probe_exception root(1, {&leaf});
    *root.causes()[0] = root;
    ASSERT_EQ(root.causes()[0]->causes().size(), 1u);
    EXPECT_THAT(numbers_of(root.causes()), ElementsAre(2)) << "only what STPException holds";
    EXPECT_THAT(numbers_of(root.causes()[0]->causes()), ElementsAre(2));
}

TEST(StpExceptionAssign, LeavesTheClassOfTheTarget)
{
    StateException target(message(u"a"));
    const RuntimeException source(message(u"b"));
    static_cast<STPException&>(target) = source;
    EXPECT_EQ(rendered(target), text_of("b"));
    const std::unique_ptr<STPException> clone(static_cast<STPException&>(target).clone());
    EXPECT_TRUE(is_exactly<StateException>(*clone));
}

TEST(StpExceptionAssign, ThatFailsLeavesTheTargetAsItWas)
{
    const probe_resource resource(u"vob");
    probe_exception one(1);
    probe_exception two(2);
    STPException target(reason_7, message(u"a"), &resource, &one, 2);
    const STPException source(Kvl::STP_REASON_40, message(u"b"), nullptr, {&one, &two}, 2);
    const int living = probe_exception::living;
    probe_exception::copies_until_failure = 2;
    EXPECT_THROW(target = source, std::runtime_error);
    EXPECT_EQ(probe_exception::living, living);
    EXPECT_EQ(target.stp_reason_code(), 7);
    EXPECT_EQ(rendered(target), text_of("a"));
    EXPECT_EQ(target.resource()->text(), UString(u"vob"));
    EXPECT_THAT(numbers_of(target.causes()), ElementsAre(1));
}

TEST(StpExceptionMove, TakesOverCausesAndResource)
{
    static_assert(std::is_nothrow_move_constructible_v<STPException>);
    static_assert(std::is_nothrow_move_assignable_v<STPException>);
    static_assert(std::is_nothrow_move_constructible_v<StateException>);
    static_assert(std::is_nothrow_move_assignable_v<StateException>);
    const probe_resource resource(u"vob");
    probe_exception cause(1);
    STPException source(reason_7, message(u"a"), &resource, &cause, 2);
    const STPException* const same_cause = source.causes()[0];
    STPException moved(std::move(source));
    EXPECT_EQ(moved.stp_reason_code(), 7);
    EXPECT_EQ(rendered(moved), text_of("a"));
    EXPECT_EQ(moved.causes()[0], same_cause);
    EXPECT_EQ(source.resource(), nullptr);
    EXPECT_THAT(source.causes(), IsEmpty());

    STPException target(Kvl::STP_REASON_40, message(u"b"), &resource, {&cause, &cause}, 2);
    target = std::move(moved);
    EXPECT_EQ(target.stp_reason_code(), 7);
    EXPECT_EQ(rendered(target), text_of("a"));
    ASSERT_EQ(target.causes().size(), 1u);
    EXPECT_EQ(target.causes()[0], same_cause);
    EXPECT_EQ(probe_exception::living, 2);
}

TEST(StpExceptionMove, TakesItsOwnCause)
{
    StateException inner(message(u"inner"));
    STPException middle(Kvl::STP_REASON_40, message(u"middle"), nullptr, &inner, 2);
    STPException outer(reason_7, message(u"outer"), nullptr, &middle, 2);
    outer = std::move(*outer.causes()[0]);
    EXPECT_EQ(rendered(outer), text_of("middle"));
    ASSERT_EQ(outer.causes().size(), 1u);
    EXPECT_EQ(rendered(*outer.causes()[0]), text_of("inner"));
}

// Failures while copying.

TEST(StpExceptionFailure, OfAnyCloneFreesWhatWasClonedBefore)
{
    const probe_resource resource(u"vob");
    probe_exception leaf(3);
    probe_exception branch(2, {&leaf, &leaf});
    const probe_exception root(1, {&branch, &leaf, &branch});
    const int exceptions = probe_exception::living;
    const int resources = probe_resource::living;
    int failures = 0;
    for (bool completes = false; !completes; ++failures) {
        probe_exception::copies_until_failure = failures + 1;
        try {
            const STPException e(reason_7, message(u"a"), &resource, &root, 2);
            completes = true;
        } catch (const std::runtime_error&) {
            EXPECT_EQ(probe_exception::living, exceptions);
            EXPECT_EQ(probe_resource::living, resources);
        }
    }
    EXPECT_EQ(failures - 1, 1 + 3 + 2 * 2) << "one for each exception of the tree";
    probe_exception::copies_until_failure = 0;
    EXPECT_THAT(numbers_of(probe_exception(root).causes()), ElementsAre(2, 3, 2))
        << "the next copy is whole again";
}

TEST(StpExceptionMemoryFault, LeavesNothingBehindAndEveryObjectAsItWas)
{
    const UString long_text(std::u16string(100, u'x'));
    const probe_resource resource(long_text);
    StateException leaf(UMessage(kvutil, 21, long_text, long_text));
    probe_exception branch(1, {&leaf, &leaf});
    const std::vector<STPException*> causes = {&branch, &leaf};
    const UMessage m(kvutil, 21, long_text, resource);
    const STPException source(reason_7, m, &resource, causes, 2);
    STPException target(Kvl::STP_REASON_40, message(u"a"), nullptr, &branch, 2);
    const int exceptions = probe_exception::living;
    const int resources = probe_resource::living;
    const auto check = [&] {
        EXPECT_EQ(probe_exception::living, exceptions);
        EXPECT_EQ(probe_resource::living, resources);
        EXPECT_EQ(target.stp_reason_code(), 40);
        EXPECT_EQ(target.message().arguments().size(), 2u);
        EXPECT_EQ(target.resource(), nullptr);
        ASSERT_EQ(target.causes().size(), 1u);
        EXPECT_EQ(target.causes()[0]->causes().size(), 2u);
    };
    const auto construct_list = [&] { STPException(reason_7, m, &resource, causes, 2); };
    const auto construct_one = [&] { STPException(reason_7, m, &resource, &branch, 2); };
    EXPECT_GT(for_each_memory_fault(construct_list, check), 5);
    EXPECT_GT(for_each_memory_fault(construct_one, check), 5);
    EXPECT_GT(for_each_memory_fault([&] { STPException{source}; }, check), 5);
    EXPECT_GT(for_each_memory_fault([&] { delete source.clone(); }, check), 5);
    EXPECT_GT(for_each_memory_fault([&] { StateException{m}; }, check), 1);
    EXPECT_GT(for_each_memory_fault(
                  [&] {
                      STPException copy(target);
                      copy = source;
                  },
                  check),
              5);
    // The last run, without a fault, changes the target, so no check follows it.
    EXPECT_GT(for_each_memory_fault([&] { target = source; }, check), 5);
    EXPECT_EQ(target.stp_reason_code(), 7);
}

TEST(StpExceptionMemoryFault, ReplacesTheRaisedException)
{
    const UString long_text(std::u16string(100, u'x'));
    const UMessage m(kvutil, 21, long_text, long_text);
    const StateException e(m);
    const auto swallow = [](auto raise) {
        try {
            raise();
        } catch (const STPException&) {
        }
    };
    EXPECT_GT(for_each_memory_fault([&] { swallow([&] { StateException::raise(m); }); }, [] {}), 1);
    EXPECT_GT(for_each_memory_fault([&] { swallow([&] { STPException::raise(e, 7); }); }, [] {}),
              1);
}

// Trees too deep for recursion. What their copying and deleting may not break is tested below.

constexpr int deep = 1000000;
constexpr int rather_deep = 20000;  // frames of 7 bytes would already be too much stack

TEST(StpExceptionDepth, OfAMillionCausesIsCopiedAssignedAndDestroyedOnASmallStack)
{
    on_small_stack([] {
        const auto first = chain<STPException>(deep, reason_7, UMessage(), nullptr, no_cause, 2);
        auto copy = std::make_unique<STPException>(*first);
        EXPECT_EQ(length_of(*copy), deep);
        EXPECT_NE(&last_of(*copy), &last_of(*first));
        *copy = *copy->causes()[0]->causes()[0];
        EXPECT_EQ(length_of(*copy), deep - 2);
    });
}

TEST(StpExceptionDepth, OfRefinementsIsCopiedAndDestroyedOnASmallStack)
{
    on_small_stack([] {
        const auto first = chain<StateException>(rather_deep, UMessage());
        const std::unique_ptr<STPException> clone(first->clone());
        EXPECT_EQ(length_of(*clone), rather_deep);
        EXPECT_TRUE(is_exactly<StateException>(last_of(*clone)));
    });
}

TEST(StpExceptionDepth, OfAClassOfAClientIsCopiedAndDestroyedOnASmallStack)
{
    on_small_stack([] {
        const auto first = chain<probe_exception>(rather_deep, 5);
        {
            const STPException outer(reason_7, UMessage(), nullptr, first.get(), 2);
            EXPECT_EQ(length_of(outer), rather_deep + 1);
            EXPECT_EQ(dynamic_cast<const probe_exception&>(last_of(outer)).number(), 5);
            EXPECT_EQ(probe_exception::living, 2 * rather_deep);
        }
        EXPECT_EQ(probe_exception::living, rather_deep);
    });
    EXPECT_EQ(probe_exception::living, 0);
}

TEST(StpExceptionDepth, MakesNoDifferenceWhenAnInnermostCloneFails)
{
    on_small_stack([] {
        const auto first = chain<probe_exception>(rather_deep, 5);
        probe_exception::copies_until_failure = rather_deep;
        EXPECT_THROW(probe_exception copy(*first), std::runtime_error);
        EXPECT_EQ(probe_exception::living, rather_deep);
    });
}

TEST(StpExceptionDepth, IsThrownAndCaught)
{
    on_small_stack([] {
        const auto first = chain<StateException>(rather_deep, UMessage());
        try {
            STPException::raise(*first, 7);
        } catch (const STPException& e) {
            EXPECT_EQ(length_of(e), rather_deep);
        }
    });
}

TEST(StpExceptionWidth, OfAMillionCausesIsCopiedAndDestroyed)
{
    on_small_stack([] {
        StateException cause{UMessage()};
        const STPException first(reason_7, UMessage(), nullptr,
                                 std::vector<STPException*>(deep, &cause), 2);
        const STPException copy(first);
        EXPECT_EQ(copy.causes().size(), size_t(deep));
    });
}

// A clone() is a client's code: it may make other copies, look at them, drop them.

/// Copies itself in the way given.
class odd_clone : public STPException {
public:
    typedef odd_clone* (*way_t)(const odd_clone&);

    explicit odd_clone(way_t way)
        : STPException(reason_7, UMessage(), nullptr, no_cause, 2), way_(way)
    {
    }
    odd_clone(way_t way, const std::vector<STPException*>& causes)
        : STPException(reason_7, UMessage(), nullptr, causes, 2), way_(way)
    {
    }
    odd_clone(const odd_clone&) = default;
    odd_clone(odd_clone&&) = default;
    odd_clone& operator=(const odd_clone&) = default;
    odd_clone& operator=(odd_clone&&) = default;
    odd_clone* clone() const override { return way_(*this); }
    way_t way_of_copying() const { return way_; }

private:
    way_t way_;
};

odd_clone* through_a_temporary(const odd_clone& e)
{
    const odd_clone temporary(e);
    const odd_clone unused(temporary);
    return new odd_clone(temporary);
}

odd_clone* through_the_constructor(const odd_clone& e)
{
    return new odd_clone(e.way_of_copying(), e.causes());
}

odd_clone* through_assignment(const odd_clone& e)
{
    auto clone = std::make_unique<odd_clone>(e.way_of_copying());
    *clone = e;
    *clone = odd_clone(e);
    return clone.release();
}

odd_clone* through_a_move(const odd_clone& e)
{
    odd_clone temporary(e);
    odd_clone moved(std::move(temporary));
    return new odd_clone(std::move(moved));
}

odd_clone* after_dropping_a_failed_one(const odd_clone& e)
{
    try {
        const odd_clone dropped(e);
        throw 1;
    } catch (int) {
    }
    return new odd_clone(e);
}

TEST(StpExceptionOddClone, GivesWholeCopiesOfDeepTreesOnASmallStack)
{
    for (const auto way : {through_a_temporary, through_the_constructor, through_assignment,
                           through_a_move, after_dropping_a_failed_one})
        on_small_stack([way] {
            const auto first = chain<odd_clone>(rather_deep, way);
            const std::unique_ptr<STPException> clone(first->clone());
            EXPECT_EQ(length_of(*clone), rather_deep);
            const odd_clone copy(*first);
            EXPECT_EQ(length_of(copy), rather_deep);
        });
}

odd_clone* looking_at_the_copy(const odd_clone& e)
{
    auto clone = std::make_unique<odd_clone>(e);
    EXPECT_EQ(clone->causes().size(), e.causes().size());
    EXPECT_EQ(length_of(*clone), length_of(e));
    const odd_clone looked_at_and_dropped(e);
    EXPECT_EQ(length_of(looked_at_and_dropped), length_of(e));
    const odd_clone copy_of_a_looked_at_one(*clone);
    EXPECT_EQ(length_of(copy_of_a_looked_at_one), length_of(e));
    return clone.release();
}

TEST(StpExceptionOddClone, MayLookAtItsCopy)
{
    const auto first = chain<odd_clone>(5, looking_at_the_copy);
    const odd_clone copy(*first);
    EXPECT_EQ(length_of(copy), 5);
}

odd_clone* adding_a_cause(const odd_clone& e)
{
    auto clone = std::make_unique<odd_clone>(e);
    auto cause = std::make_unique<StateException>(message(u"added"));
    const_cast<std::vector<STPException*>&>(clone->causes()).push_back(cause.release());
    return clone.release();
}

TEST(StpExceptionOddClone, MayChangeItsCopy)
{
    odd_clone leaf(adding_a_cause);
    odd_clone branch(adding_a_cause, {&leaf});
    ASSERT_EQ(branch.causes().size(), 1u);
    const STPException root(reason_7, UMessage(), nullptr, &branch, 2);
    ASSERT_EQ(root.causes().size(), 1u);
    const STPException& copy = *root.causes()[0];
    ASSERT_EQ(copy.causes().size(), 2u);
    EXPECT_TRUE(is_exactly<odd_clone>(*copy.causes()[0]));
    EXPECT_EQ(copy.causes()[0]->causes().size(), 2u) << "cloned once as leaf, once with branch";
    EXPECT_TRUE(is_exactly<StateException>(*copy.causes()[1]));
}

odd_clone* with_another_tree(const odd_clone& e)
{
    StateException inner{UMessage()};
    StateException outer(reason_7, UMessage(), nullptr, &inner, 2);
    const odd_clone other(e.way_of_copying(), {&outer, &inner});
    auto result = std::make_unique<odd_clone>(e);
    const std::unique_ptr<STPException> outlives(
        new STPException(reason_7, UMessage(), nullptr, {&outer, &outer}, 2));
    EXPECT_EQ(other.causes().size(), 2u);
    EXPECT_EQ(other.causes()[0]->causes().size(), 1u);
    return result.release();
}

TEST(StpExceptionOddClone, MayMakeOtherTrees)
{
    const auto first = chain<odd_clone>(4, with_another_tree);
    EXPECT_EQ(length_of(odd_clone(*first)), 4);
}

/// Counts its causes when it is copied and when it dies.
class census : public STPException {
public:
    explicit census(size_t* last_seen)
        : STPException(reason_7, UMessage(), nullptr, no_cause, 2), last_seen_(last_seen)
    {
    }
    census(size_t* last_seen, const std::vector<STPException*>& causes)
        : STPException(reason_7, UMessage(), nullptr, causes, 2), last_seen_(last_seen),
          when_copied_(causes.size())
    {
    }
    census(const census& o)
        : STPException(o), last_seen_(o.last_seen_), when_copied_(causes().size())
    {
    }
    ~census() override
    {
        *last_seen_ += causes().size();
        StateException leaf{UMessage()};
        const STPException unrelated(reason_7, UMessage(), nullptr, {&leaf, &leaf}, 2);
    }
    census* clone() const override { return new census(*this); }
    size_t when_copied() const { return when_copied_; }

private:
    size_t* last_seen_;
    size_t when_copied_ = 0;
};

TEST(StpExceptionOddClass, SeesItsCausesInItsCopyConstructorAndItsDestructor)
{
    size_t seen = 0;
    {
        census leaf(&seen);
        census branch(&seen, {&leaf, &leaf, &leaf});
        const census root(&seen, {&branch, &leaf});
        const census copy(root);
        EXPECT_EQ(copy.when_copied(), 2u);
        EXPECT_EQ(dynamic_cast<const census&>(*copy.causes()[0]).when_copied(), 3u);
        seen = 0;
    }
    EXPECT_EQ(seen, 2u * (2 + 3) + 3u) << "root, copy and branch";
}

/// Holds an exception of its own, whose causes must be gone when it is.
class holder : public STPException {
public:
    explicit holder(const probe_exception& held)
        : STPException(reason_7, UMessage(), nullptr, no_cause, 2), held_(new probe_exception(held))
    {
    }
    holder(const holder& o) : STPException(o), held_(new probe_exception(*o.held_)) {}
    ~holder() override
    {
        const int before = probe_exception::living;
        const int of_the_held = 1 + int(held_->causes().size());
        held_.reset();
        EXPECT_EQ(probe_exception::living, before - of_the_held);
    }
    holder* clone() const override { return new holder(*this); }

private:
    std::unique_ptr<probe_exception> held_;
};

TEST(StpExceptionOddClass, MayDestroyOtherTreesInItsDestructor)
{
    {
        probe_exception leaf(1);
        const probe_exception held(2, {&leaf, &leaf});
        const holder inner(held);
        const STPException middle(reason_7, UMessage(), nullptr, &inner, 2);
        const STPException outer(reason_7, UMessage(), nullptr, &middle, 2);
    }
    EXPECT_EQ(probe_exception::living, 0);
}

TEST(StpExceptionThreads, CopyOneTreeAtOnce)
{
    StateException leaf(message(u"a"));
    const StateException branch(reason_7, message(u"b"), nullptr, {&leaf, &leaf}, 2);
    const STPException root(reason_7, message(u"c"), nullptr, &branch, 2);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&root] {
            for (int n = 0; n < 200; ++n) {
                const STPException copy(root);
                EXPECT_EQ(copy.causes()[0]->causes().size(), 2u);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

// Logging.

struct level_t {
    int level;
    std::vector<log_line_t> lines;
};

void PrintTo(const level_t& row, std::ostream* out)
{
    *out << "level " << row.level;
}

class StpExceptionLevel : public testing::TestWithParam<level_t> {};

TEST_P(StpExceptionLevel, ChoosesTheOperationOfTheLogger)
{
    const auto& [level, lines] = GetParam();
    recording_logger logger;
    STPException::log(message(u"a"), level);
    EXPECT_EQ(logger.lines, lines);
}

TEST_P(StpExceptionLevel, IsThatOfARaisedList)
{
    const auto& [level, lines] = GetParam();
    recording_logger logger;
    const probe_resource resource(u"vob");
    StateException cause(message(u"cause"));
    const std::vector<STPException*> causes = {&cause, &cause};
    try {
        STPException::raise(reason_7, message(u"a"), &resource, causes, level);
        FAIL() << "returned";
    } catch (const STPException& e) {
        EXPECT_TRUE(is_exactly<STPException>(e));
        EXPECT_EQ(e.stp_reason_code(), 7);
        EXPECT_EQ(rendered(e), text_of("a"));
        EXPECT_EQ(e.resource()->text(), UString(u"vob"));
        ASSERT_EQ(e.causes().size(), 2u);
        EXPECT_EQ(rendered(*e.causes()[1]), text_of("cause"));
    }
    EXPECT_EQ(logger.lines, lines);
}

TEST_P(StpExceptionLevel, IsThatOfARaisedCause)
{
    const auto& [level, lines] = GetParam();
    recording_logger logger;
    const IllegalArgException cause(message(u"cause"));
    try {
        STPException::raise(Kvl::STP_REASON_40, message(u"a"), nullptr, &cause, level);
        FAIL() << "returned";
    } catch (const STPException& e) {
        EXPECT_TRUE(is_exactly<STPException>(e));
        EXPECT_EQ(e.stp_reason_code(), 40);
        EXPECT_EQ(rendered(e), text_of("a"));
        EXPECT_EQ(e.resource(), nullptr);
        ASSERT_EQ(e.causes().size(), 1u);
        EXPECT_TRUE(is_exactly<IllegalArgException>(*e.causes()[0]));
    }
    EXPECT_EQ(logger.lines, lines);
}

TEST_P(StpExceptionLevel, IsThatOfARaisedException)
{
    const auto& [level, lines] = GetParam();
    recording_logger logger;
    const probe_resource resource(u"vob");
    const RuntimeException cause(message(u"cause"));
    const StateException original(reason_7, message(u"a"), &resource, &cause, 2);
    try {
        STPException::raise(original, level);
        FAIL() << "returned";
    } catch (const STPException& e) {
        EXPECT_TRUE(is_exactly<STPException>(e)) << "not the class of the original";
        EXPECT_EQ(e.stp_reason_code(), 7);
        EXPECT_EQ(rendered(e), text_of("a"));
        EXPECT_EQ(e.resource()->text(), UString(u"vob"));
        ASSERT_EQ(e.causes().size(), 1u);
        EXPECT_NE(e.causes()[0], original.causes()[0]);
        EXPECT_TRUE(is_exactly<RuntimeException>(*e.causes()[0]));
    }
    EXPECT_EQ(logger.lines, lines);
}

TEST_P(StpExceptionLevel, LogsNothingWhenLoggingIsDisabled)
{
    const int level = GetParam().level;
    recording_logger logger;
    STPException::g_logging_enabled = false;
    const probe_resource resource(u"vob");
    const UMessage m(kvutil, 19, resource);
    const int renderings = probe_resource::renderings;
    STPException::log(m, level);
    EXPECT_THROW(STPException::raise(reason_7, m, nullptr, no_cause, level), STPException);
    EXPECT_THROW(STPException::raise(reason_7, m, nullptr, {}, level), STPException);
    EXPECT_THROW(STPException::raise(StateException(m), level), STPException);
    EXPECT_THAT(logger.lines, IsEmpty());
    EXPECT_EQ(probe_resource::renderings, renderings) << "nor is the message rendered";
}

TEST_P(StpExceptionLevel, LogsNothingWithoutALogger)
{
    const int level = GetParam().level;
    recording_logger logger;
    Log::LogAdaptor::logger_kvl = nullptr;
    STPException::log(message(u"a"), level);
    EXPECT_THROW(STPException::raise(reason_7, message(u"a"), nullptr, no_cause, level),
                 STPException);
    EXPECT_THAT(logger.lines, IsEmpty());
}

const std::string line = text_of("a");
INSTANTIATE_TEST_SUITE_P(All, StpExceptionLevel,
                         testing::ValuesIn<level_t>({
                             {0, {{"info", line, 0}}},
                             {1, {{"warning", line, 0}}},
                             {2, {{"error", line, 0}}},
                             {-1, {}},
                             {3, {}},
                             {7, {}},
                             {INT_MAX, {}},
                             {INT_MIN, {}},
                         }));

TEST(StpExceptionLog, IsDisabledAtFirst)
{
    EXPECT_FALSE(STPException::g_logging_enabled);
}

TEST(StpExceptionLog, WritesUtf8)
{
    recording_logger logger;
    STPException::log(UMessage(kvutil, 19, u"/gr\u00fcn/\U0001F600"), 2);
    EXPECT_THAT(logger.lines,
                ElementsAre(log_line_t{"error",
                                       "PLXSV0669E Error converting '/gr\xC3\xBCn/\xF0\x9F\x98\x80'"
                                       " to default character set.",
                                       0}));
}

TEST(StpExceptionLog, WritesTheNilMessageAsAnEmptyLine)
{
    recording_logger logger;
    STPException::log(UMessage(), 1);
    EXPECT_THAT(logger.lines, ElementsAre(log_line_t{"warning", "", 0}));
}

TEST(StpExceptionLog, HappensOnceForARaiseThatIsCaughtAndDropped)
{
    recording_logger logger;
    for (int i = 0; i < 2; ++i) {
        try {
            STPException::raise(reason_7, message(u"a"), nullptr, no_cause, 0);
        } catch (const STPException& e) {
            const STPException copy(e);
        }
    }
    EXPECT_EQ(logger.lines.size(), 2u);
}

TEST(StpExceptionLog, LetsAnExceptionOfTheLoggerPass)
{
    class broken_logger : public recording_logger {
    public:
        void error(const std::string&, int) override { throw std::runtime_error("disk full"); }
    };
    broken_logger logger;
    const probe_resource resource(u"vob");
    const int resources = probe_resource::living;
    EXPECT_THROW(STPException::log(message(u"a"), 2), std::runtime_error);
    EXPECT_THROW(STPException::raise(reason_7, message(u"a"), &resource, no_cause, 2),
                 std::runtime_error);
    EXPECT_EQ(probe_resource::living, resources);
    EXPECT_THROW(STPException::raise(reason_7, message(u"a"), &resource, no_cause, 1),
                 STPException);
}

TEST(StpExceptionLog, IsBadAllocWhenRenderingRunsOutOfMemory)
{
    recording_logger logger;
    const UMessage m(kvutil, 19, UString(std::u16string(300, u'x')));
    logger.lines.reserve(100);
    EXPECT_GT(for_each_memory_fault([&] { STPException::log(m, 2); },
                                    [&] { EXPECT_THAT(logger.lines, IsEmpty()); }),
              1);
    EXPECT_EQ(logger.lines.size(), 1u);
}

// The refinements.

template <class T>
class Refinement : public testing::Test {
};
typedef testing::Types<RuntimeException, IllegalArgException, StateException> refinements_t;

class refinement_names_t {
public:
    template <class T>
    static std::string GetName(int)
    {
        if (std::is_same_v<T, RuntimeException>)
            return "Runtime";
        return std::is_same_v<T, StateException> ? "State" : "IllegalArg";
    }
};
TYPED_TEST_SUITE(Refinement, refinements_t, refinement_names_t);

template <class T>
void expect_fixed_case(const STPException& e)
{
    EXPECT_TRUE(is_exactly<T>(e));
    EXPECT_EQ(e.stp_reason_code(), 39);
    EXPECT_EQ(rendered(e), text_of("a"));
    EXPECT_EQ(e.resource(), nullptr);
    EXPECT_THAT(e.causes(), IsEmpty());
}

TYPED_TEST(Refinement, HasReason39NoResourceAndNoCause)
{
    const UMessage m = message(u"a");
    expect_fixed_case<TypeParam>(TypeParam(m));
    expect_fixed_case<TypeParam>(TypeParam(message(u"a")));
    EXPECT_EQ(m.message_string(), message(u"a").message_string()) << "only rvalues are moved";
}

TYPED_TEST(Refinement, TakesEveryPartFromTheCaller)
{
    const probe_resource resource(u"vob");
    StateException cause(message(u"cause"));
    const TypeParam one(reason_7, message(u"a"), &resource, &cause, 2);
    const TypeParam two(reason_7, message(u"a"), &resource, {&cause, &cause}, 2);
    EXPECT_EQ(one.stp_reason_code(), 7);
    EXPECT_EQ(one.resource()->text(), UString(u"vob"));
    EXPECT_EQ(one.causes().size(), 1u);
    EXPECT_EQ(two.causes().size(), 2u);
}

TYPED_TEST(Refinement, IsRaisedWithoutLogging)
{
    recording_logger logger;
    const UMessage m = message(u"a");
    try {
        TypeParam::raise(m);
        FAIL() << "returned";
    } catch (const TypeParam& e) {
        expect_fixed_case<TypeParam>(e);
    }
    try {
        TypeParam::raise(message(u"a"));
        FAIL() << "returned";
    } catch (const TypeParam& e) {
        expect_fixed_case<TypeParam>(e);
    }
    EXPECT_THAT(logger.lines, IsEmpty());
}

TYPED_TEST(Refinement, RaisesByTheInheritedOperationsAnStpException)
{
    try {
        TypeParam::raise(reason_7, message(u"a"), nullptr, no_cause, 7);
        FAIL() << "returned";
    } catch (const STPException& e) {
        EXPECT_TRUE(is_exactly<STPException>(e));
    }
    EXPECT_THROW(TypeParam::raise(reason_7, message(u"a"), nullptr, {}, 7), STPException);
    EXPECT_THROW(TypeParam::raise(TypeParam(message(u"a")), 7), STPException);
}

TYPED_TEST(Refinement, IsCaughtAsStpException)
{
    try {
        TypeParam::raise(message(u"a"));
        FAIL() << "returned";
    } catch (const STPException& e) {
        expect_fixed_case<TypeParam>(e);
    }
}

TYPED_TEST(Refinement, KeepsItsClassWhenCloned)
{
    static_assert(std::is_same_v<decltype(std::declval<const TypeParam&>().clone()), TypeParam*>);
    const StateException cause(message(u"cause"));
    const probe_resource resource(u"vob");
    const TypeParam original(reason_7, message(u"a"), &resource, &cause, 2);
    const STPException& as_base = original;
    const std::unique_ptr<STPException> clone(as_base.clone());
    EXPECT_TRUE(is_exactly<TypeParam>(*clone));
    EXPECT_EQ(clone->stp_reason_code(), 7);
    EXPECT_EQ(rendered(*clone), text_of("a"));
    EXPECT_NE(clone->resource(), original.resource());
    EXPECT_EQ(clone->resource()->text(), UString(u"vob"));
    ASSERT_EQ(clone->causes().size(), 1u);
    EXPECT_NE(clone->causes()[0], original.causes()[0]);
    EXPECT_EQ(rendered(*clone->causes()[0]), text_of("cause"));
}

TYPED_TEST(Refinement, IsCaughtByItsOwnHandlerWhenClonedAndThrown)
{
    const TypeParam original(message(u"a"));
    const std::unique_ptr<TypeParam> clone(original.clone());
    try {
        throw *clone;
    } catch (const TypeParam& e) {
        expect_fixed_case<TypeParam>(e);
    }
}

TYPED_TEST(Refinement, IsNotCaughtByTheOthers)
{
    const auto raise_past_the_others = [] {
        try {
            TypeParam::raise(message(u"a"));
        } catch (const RuntimeException&) {
            return std::is_same_v<TypeParam, RuntimeException>;
        } catch (const IllegalArgException&) {
            return std::is_same_v<TypeParam, IllegalArgException>;
        } catch (const StateException&) {
            return std::is_same_v<TypeParam, StateException>;
        }
        return false;
    };
    EXPECT_TRUE(raise_past_the_others());
}

TYPED_TEST(Refinement, KeepsItsClassAsACause)
{
    const TypeParam cause(message(u"a"));
    const STPException outer(reason_7, UMessage(), nullptr, &cause, 2);
    const STPException copy(outer);
    expect_fixed_case<TypeParam>(*copy.causes()[0]);
}

TYPED_TEST(Refinement, IsAssignedWithItsCauses)
{
    const StateException cause(message(u"cause"));
    const TypeParam source(reason_7, message(u"b"), nullptr, &cause, 2);
    TypeParam target(message(u"a"));
    target = source;
    EXPECT_EQ(target.stp_reason_code(), 7);
    EXPECT_EQ(rendered(target), text_of("b"));
    ASSERT_EQ(target.causes().size(), 1u);
    EXPECT_NE(target.causes()[0], source.causes()[0]);
}

}  // namespace
