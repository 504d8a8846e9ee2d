#include <qel/qelexception.h>
#include <qel/qelrtti.h>
#include <qel/xrtti.h>
#include <qel/xrttiattrseq.h>
#include <qel/xsequence.h>

#include "support/test.h"
#include "support/thrown.h"

namespace {

// Descriptors live as long as the process; so do those of the tests, where the leak check finds them.
template<class T>
T* kept(T* p)
{
    static auto* const all = new std::vector<const void*>;
    all->push_back(p);
    return p;
}

xrttistruct* makeStruct(const char* name, std::vector<xrttiobject*> parents,
                        std::vector<const char*> attrNames)
{
    auto* const parentBlock = kept(new std::vector<xrttiobject*>(std::move(parents)));
    auto* const attrs = kept(new std::vector<xrttiattr*>);
    for (const char* attrName : attrNames)
        attrs->push_back(new xrttiattr(attrName, qelGetRtti_int(), 0, [](xobject*) { return xany(1); }));
    auto* const type = kept(new xrttistruct);
    type->initialize(name, 1, static_cast<int>(parentBlock->size()), parentBlock->data(),
                     static_cast<int>(attrs->size()), attrs->data());
    return type;
}

std::string namesOf(xrttiattrseq* attrs)
{
    std::string names;
    for (int i = 0; i < attrs->getarraysize(); ++i)
        names += std::string(attrs->get(i)->getName().CastToCString()) + " ";
    xdelete(attrs);
    return names;
}

template<class F>
bool mismatches(F action)
{
    return thrownBy(action) == "qellib::XTypeMismatch";
}

} // namespace

TEST(Descriptors, WithTheSameNameAreTheSameType)
{
    xrttistruct* const one = makeStruct("test::Same", {}, {});
    xrttistruct* const two = makeStruct("test::Same", {}, {});
    xrttistruct* const nameless = makeStruct(nullptr, {}, {});

    EXPECT_TRUE(one->isSameAs(two));
    EXPECT_TRUE(one->isKindOf(two));
    EXPECT_FALSE(one->isSameAs(nameless));
    EXPECT_FALSE(nameless->isSameAs(one));
    EXPECT_FALSE(one->isSameAs(nullptr));
    EXPECT_FALSE(one->isKindOf(nullptr));
}

TEST(Descriptors, ReportTheirAncestors)
{
    xrttistruct* const c = makeStruct("test::C", {}, {});
    xrttistruct* const b = makeStruct("test::B", {c}, {});
    xrttistruct* const a = makeStruct("test::A", {}, {});
    xrttistruct* const derived = makeStruct("test::D", {a, b}, {});

    for (xrttiobject* ancestor : {a, b, c})
        EXPECT_TRUE(derived->isKindOf(ancestor));
    EXPECT_FALSE(a->isKindOf(derived));
    EXPECT_TRUE(c->isKindOf(qelGetRtti_any()));
    EXPECT_TRUE(c->isKindOf(qelGetRtti_object()));
    EXPECT_TRUE(qelGetRtti_int()->isKindOf(qelGetRtti_any()));
    EXPECT_FALSE(qelGetRtti_int()->isKindOf(qelGetRtti_object()));
    EXPECT_EQ(derived->getParent(1), b);
    EXPECT_EQ(derived->getParent(2), nullptr);
    EXPECT_EQ(derived->getParent(-1), nullptr);
}

TEST(Descriptors, VisitEachAncestorOnceInALattice)
{
    // Two classes in each of 60 layers, with both of the layer below as bases: 2^59 ways to the bottom.
    xrttistruct* layer[] = {makeStruct("test::Bottom0", {}, {"N"}), makeStruct("test::Bottom1", {}, {})};
    xrttistruct* const bottom = layer[1];
    for (int i = 0; i < 60; ++i) {
        xrttistruct* const left = makeStruct("test::Left", {layer[0], layer[1]}, {});
        layer[1] = makeStruct("test::Right", {layer[0], layer[1]}, {});
        layer[0] = left;
    }
    EXPECT_TRUE(layer[0]->isKindOf(bottom));
    EXPECT_FALSE(layer[0]->isKindOf(makeStruct("test::Stranger", {}, {})));
    EXPECT_NE(layer[0]->findAttr("N", 1), nullptr);
    EXPECT_EQ(layer[0]->findAttr("M", 1), nullptr);
}

TEST(Descriptors, OfEnumerationsMapBothWays)
{
    static const char* texts[] = {"red", "green"};
    xrttienum type("test::Light", 2, texts);

    EXPECT_EQ(type.getNValues(), 2);
    EXPECT_TRUE(type.mapIntToString(1) == "green");
    EXPECT_TRUE(type.mapIntToString(2) == nullptr);
    EXPECT_TRUE(type.mapIntToString(-1) == nullptr);
    EXPECT_EQ(type.mapStringToInt("red"), 0);
    EXPECT_EQ(type.mapStringToInt("blue"), xnullint);
    EXPECT_EQ(type.mapStringToInt(nullptr), xnullint);
    EXPECT_EQ(type.mapStringToInt(xnullstr), xnullint);
}

TEST(Descriptors, OfStructuresFindAttributes)
{
    xrttistruct* const base = makeStruct("test::Base", {}, {"One", "Two"});
    xrttistruct* const middle = makeStruct("test::Middle", {base}, {"Three"});
    xrttistruct* const type = makeStruct("test::Type", {middle}, {"Two", "Four"});

    EXPECT_EQ(type->findAttr("Two", 1), type->getAttr(0));
    EXPECT_EQ(type->findAttr("One", 1), base->getAttr(0));
    EXPECT_EQ(type->findAttr("One", 0), nullptr);
    EXPECT_EQ(type->findAttr("Five", 1), nullptr);
    EXPECT_EQ(type->getAttr(2), nullptr);
    EXPECT_EQ(namesOf(qelRttiCollectAttrs(type, 1)), "One Two Three Two Four ");
    EXPECT_EQ(namesOf(qelRttiCollectAttrs(type, 0)), "Two Four ");

    xrttistruct* const side = makeStruct("test::Side", {base}, {"Five"});
    xrttistruct* const diamond = makeStruct("test::Diamond", {middle, side}, {"Six"});
    EXPECT_EQ(namesOf(qelRttiCollectAttrs(diamond, 1)), "One Two Three One Two Five Six ");

    xrttistruct* const odd =
        makeStruct("test::Odd", {xrttiobject::cast(xintsequence::getClassRtti())}, {"One"});
    EXPECT_EQ(odd->findAttr("One", 1), odd->getAttr(0));
    EXPECT_TRUE(mismatches([=] { odd->findAttr("Two", 1); }));
    EXPECT_TRUE(mismatches([=] { qelRttiCollectAttrs(odd, 1); }));
}

TEST(Descriptors, OfArraysAcceptBothFormsOfIndices)
{
    constexpr int rank = 12;
    static int extents[rank] = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 3};
    auto* const type = kept(new xrttiarray);
    type->initialize("test::Deep", 1, rank, extents, qelGetRtti_int(), 0, [](xobject*, int* indices) {
        int value = 0;
        for (int i = 0; i < rank; ++i)
            value = value * 3 + indices[i];
        return xany(value);
    });
    const xrchandle<xintsequence> indices(xintsequence::create());
    int plain[rank];
    for (int i = 0; i < rank; ++i) {
        plain[i] = i % 2;
        indices->append(i % 2);
    }

    EXPECT_TRUE(type->getElemValue(nullptr, indices) == type->getElemValue(nullptr, plain));
    const auto refuses = [&](int dimension, int index) {
        return describeThrown<qelXInvalidArrayIndex>([&] { type->getElemValue(nullptr, indices); },
                                                     [=](qelXInvalidArrayIndex* e) {
                                                         return e->getDimension() == dimension &&
                                                                e->getIndex() == index;
                                                     });
    };
    indices->set(4, 2);
    EXPECT_TRUE(refuses(4, 2));
    indices->set(4, -1);
    EXPECT_TRUE(refuses(4, -1));
    indices->set(4, 0);
    indices->removerange(3, rank);
    EXPECT_TRUE(refuses(3, xnullint)); // an index for each of the first three only
    EXPECT_EQ(type->getDimention(11), 3);
    EXPECT_EQ(type->getDimention(12), xnullint);
    EXPECT_EQ(type->getNDimentions(), rank);
}

TEST(Descriptors, OfUnionsMapLabelsToMembers)
{
    static xrttiattr* members[] = {new xrttiattr("One", qelGetRtti_int(), 0, nullptr),
                                   new xrttiattr("Two", qelGetRtti_int(), 0, nullptr)};
    static xrttiattr* const other = new xrttiattr("Other", qelGetRtti_int(), 0, nullptr);
    static int labels[] = {1, 2};
    static int moreLabels[] = {xnullint};
    auto* const open = kept(new xrttiunion);
    open->initialize("test::Open", 1, 0, nullptr, members[0], 2, labels, members, other);
    auto* const closed = kept(new xrttiunion);
    closed->initialize("test::Closed", 1, 0, nullptr, members[0], 1, moreLabels, members, nullptr);
    static xrttiobject* parents[] = {open};
    auto* const derived = kept(new xrttiunion);
    derived->initialize("test::DerivedUnion", 1, 1, parents, members[0], 1, moreLabels, members, nullptr);

    EXPECT_EQ(open->mapLabelToAttr(2, 0), members[1]);
    EXPECT_EQ(open->mapLabelToAttr(7, 0), other);
    EXPECT_EQ(closed->mapLabelToAttr(7, 1), nullptr);
    EXPECT_EQ(derived->mapLabelToAttr(2, 0), nullptr);
    EXPECT_EQ(derived->mapLabelToAttr(2, 1), members[1]);
    EXPECT_EQ(closed->mapLabelToAttr(xany(nullptr), 0), members[0]);
    EXPECT_EQ(open->mapLabelToAttr(xany(2.0), 0), nullptr);
    EXPECT_EQ(open->getLabel(2), xnullint);
    EXPECT_EQ(open->getAttr(2), nullptr);
}

TEST(Descriptors, OfUnionsReturnNullForALabelWithoutMember)
{
    static xrttiattr* members[] = {new xrttiattr("One", qelGetRtti_int(), 0, nullptr)};
    static xrttiattr* none[] = {nullptr};
    static int labels[] = {1};
    auto* const base = kept(new xrttiunion);
    base->initialize("test::Full", 1, 0, nullptr, members[0], 1, labels, members, members[0]);
    static xrttiobject* parents[] = {base};
    auto* const derived = kept(new xrttiunion);
    derived->initialize("test::Void", 1, 1, parents, members[0], 1, labels, none, nullptr);

    EXPECT_EQ(derived->mapLabelToAttr(1, 0), nullptr);
    EXPECT_EQ(derived->mapLabelToAttr(1, 1), nullptr);
    EXPECT_EQ(derived->mapLabelToAttr(2, 1), members[0]);

    // As a parent it returns null for itself and its own parents, and the next parent is searched.
    auto* const sibling = kept(new xrttiunion);
    static xrttiattr* others[] = {new xrttiattr("Two", qelGetRtti_int(), 0, nullptr)};
    sibling->initialize("test::Sibling", 1, 0, nullptr, members[0], 1, labels, others, nullptr);
    static xrttiobject* two[] = {derived, sibling};
    auto* const heir = kept(new xrttiunion);
    heir->initialize("test::Heir", 1, 2, two, members[0], 0, nullptr, nullptr, nullptr);
    EXPECT_EQ(heir->mapLabelToAttr(1, 1), others[0]);
    EXPECT_EQ(heir->mapLabelToAttr(2, 1), members[0]);
    EXPECT_EQ(heir->mapLabelToAttr(1, 0), nullptr);
}
