#include <qel/qelrtti.h>
#include <qel/xrtti.h>

#include "support/test.h"

namespace {

/// A new descriptor. It lives as long as the process, where the leak check finds it.
xrttistruct* makeStruct(const char* name)
{
    static auto* const all = new std::vector<xrttistruct*>;
    all->push_back(new xrttistruct);
    all->back()->initialize(name, 1, 0, nullptr, 0, nullptr);
    return all->back();
}

} // namespace

// These two see the types of the library only: the tests below add others.

TEST(Registry, ReturnsNamesUsedInCode)
{
    EXPECT_TRUE(qelRttiCppName(qelRttiGetFromMap("filelib::NodeInfo")) == "fsNodeInfo");
    EXPECT_TRUE(qelRttiCppName(qelRttiGetFromMap("filelib::OpMode")) == "fsOpMode");
    EXPECT_TRUE(qelRttiCppName(qelGetRtti_int()) == nullptr);
    EXPECT_TRUE(qelRttiCppName(nullptr) == nullptr);
    qelRttiForEach(
        [](xrtti* type, void*) {
            const bool isBuiltin = type == qelGetRtti_object() || qelSoftcast<xrttibasic>(type) != nullptr;
            EXPECT_EQ(qelRttiCppName(type) == nullptr, isBuiltin) << type->getName().CastToCString();
        },
        nullptr);
}

TEST(Registry, CreatesObjectsByClassName)
{
    int made = 0;
    qelRttiForEach(
        [](xrtti* type, void* count) {
            const xrcunihandle<xobject> object(qelRttiCreate(type->getName().CastToCString()));
            if (object.get() == nullptr)
                return;
            ++*static_cast<int*>(count);
            EXPECT_EQ(object->getRtti(), type) << type->getName().CastToCString();
            if (!object->isRefCountable())
                xdelete(object.get());
        },
        &made);

    EXPECT_GT(made, 20);
    EXPECT_EQ(qelRttiCreate("filelib::OpMode"), nullptr);
    EXPECT_EQ(qelRttiCreate("int"), nullptr);
    EXPECT_EQ(qelRttiCreate("no::Such"), nullptr);
    EXPECT_EQ(qelRttiCreate(nullptr), nullptr);
}

TEST(Registry, ReturnsTheLastDescriptorOfAName)
{
    xrttistruct* const first = makeStruct("test::Twice");
    xrttistruct* const second = makeStruct("test::Twice");
    qelRttiAddToMap(first);
    EXPECT_EQ(qelRttiGetFromMap("test::Twice"), first);

    qelRttiAddToMap(second);

    EXPECT_EQ(qelRttiGetFromMap("test::Twice"), second);
    EXPECT_EQ(qelRttiGetFromMap("test::Never"), nullptr);
    EXPECT_EQ(qelRttiGetFromMap(nullptr), nullptr);
    EXPECT_EQ(qelRttiGetFromMap("int"), qelGetRtti_int());
    EXPECT_EQ(qelRttiGetFromMap("object"), static_cast<xrtti*>(qelGetRtti_object()));
}

TEST(UserData, ReachesTheRegisteredDescriptorOfTheName)
{
    static int one, two, three;
    xrttistruct* const registered = makeStruct("test::Data");
    xrttistruct* const namesake = makeStruct("test::Data");
    xrttistruct* const nameless = makeStruct("");

    qelRttiAddUserData(registered, "key", &one);
    EXPECT_EQ(qelRttiGetFromMap("test::Data"), registered);
    EXPECT_EQ(qelRttiGetUserData(namesake, "key"), &one);

    qelRttiAddUserData(namesake, "other", &two);
    EXPECT_EQ(qelRttiGetUserData("test::Data", "other"), &two);
    qelRttiAddUserData(namesake, "other", &three);
    EXPECT_EQ(qelRttiGetUserData(registered, "other"), &three);

    qelRttiAddUserData(nameless, "key", &two);
    EXPECT_EQ(qelRttiGetUserData(nameless, "key"), &two);
    EXPECT_EQ(qelRttiGetFromMap(""), nullptr);
    EXPECT_EQ(qelRttiGetUserData("test::Never", "key"), nullptr);
    EXPECT_EQ(qelRttiGetUserData(registered, "absent"), nullptr);
}
