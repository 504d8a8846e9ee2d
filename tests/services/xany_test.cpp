#include <bit>

#include <qel/qelexception.h>
#include <qel/qelrtti.h>
#include <qel/xany.h>

#include "support/test.h"
#include "support/thrown.h"

namespace {

const char* labels[] = {"red", "green", "blue"};
xrttienum* colour()
{
    static auto* const type = new xrttienum("test::Colour", 3, labels);
    return type;
}

xrchandle<qelXArgs> makeObject()
{
    return new qelXArgs;
}

} // namespace

TEST(xany, HasTheLayoutOfItsCTwin)
{
    EXPECT_EQ(sizeof(xany), 32u);
    const __xany_c c = xcadapt_cxx2c(xany(2, colour()));
    const auto* const bytes = reinterpret_cast<const char*>(&c);
    std::int32_t tag = 0, value = 0;
    const void* type = nullptr;
    std::memcpy(&tag, bytes, 4);
    std::memcpy(&value, bytes + 8, 4);
    std::memcpy(&type, bytes + 16, 8);

    EXPECT_EQ(tag, 6);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(type, static_cast<xrtti*>(colour()));
    EXPECT_EQ(std::bit_cast<std::uint64_t>(xnullreal), 0x5A17A2ECC414A040u);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(xuninitreal), 0x5A1545D516DF5D06u);
    EXPECT_EQ(xuninitreal, 9e125);
}

TEST(xany, ReadsMarkersAsNullAndUninit)
{
    const xany nulls[] = {nullptr,           xnullint,
                          xnullbool,         xnullreal,
                          xnullstr,          static_cast<const char*>(nullptr),
                          xstring(),         static_cast<xobject*>(nullptr),
                          xany(3, colour()), xany(xnullint, colour())};
    for (const xany& value : nulls) {
        EXPECT_TRUE(value.isNull());
        EXPECT_TRUE(value == nulls[0]);
        EXPECT_EQ(value.getRtti(), qelGetRtti_any());
        EXPECT_EQ(static_cast<int>(value), xnullint);
        EXPECT_EQ(static_cast<unsigned char>(value), xnullbool);
        EXPECT_EQ(static_cast<double>(value), xnullreal);
        EXPECT_TRUE(static_cast<xstring>(value) == nullptr);
        EXPECT_EQ(static_cast<xobject*>(value), nullptr);
    }
    const xany uninits[] = {
        {}, xuninitint, xuninitbool, xuninitreal, xuninitstr, xuninitobj, xany(xuninitint, colour())};
    for (const xany& value : uninits) {
        EXPECT_TRUE(value.isUninit());
        EXPECT_TRUE(value == uninits[0]);
        EXPECT_EQ(value.getRtti(), qelGetRtti_any());
        EXPECT_EQ(static_cast<int>(value), xuninitint);
        EXPECT_EQ(static_cast<unsigned char>(value), xuninitbool);
        EXPECT_EQ(static_cast<double>(value), xuninitreal);
        EXPECT_TRUE(static_cast<xstring>(value) == nullptr);
        EXPECT_EQ(static_cast<xobject*>(value), xuninitobj);
    }
}

TEST(xany, ReturnsTheStoredValue)
{
    const xrchandle<qelXArgs> object = makeObject();
    EXPECT_EQ(static_cast<int>(xany(-7)), -7);
    EXPECT_EQ(static_cast<int>(xany(2, colour())), 2);
    EXPECT_EQ(static_cast<unsigned char>(xany(static_cast<unsigned char>(3))), 3);
    EXPECT_EQ(static_cast<unsigned char>(xany(true)), 1);
    EXPECT_EQ(static_cast<double>(xany(2.5)), 2.5);
    EXPECT_TRUE(static_cast<xstring>(xany("")) == "");
    EXPECT_EQ(static_cast<xobject*>(xany(object)), static_cast<xobject*>(object.get()));

    EXPECT_EQ(xany(1).getRtti(), qelGetRtti_int());
    EXPECT_EQ(xany(true).getRtti(), qelGetRtti_bool());
    EXPECT_EQ(xany(1.0).getRtti(), qelGetRtti_real());
    EXPECT_EQ(xany("x").getRtti(), qelGetRtti_string());
    EXPECT_EQ(xany(1, colour()).getRtti(), colour());
    EXPECT_EQ(xany(object).getRtti(), qelXArgs::getClassRtti());
    EXPECT_TRUE(xany(object).getQelTypeName() == "qellib::XArgs");
}

TEST(xany, OwnsOneReferenceToItsObject)
{
    const xrchandle<qelXArgs> object = makeObject();
    {
        xany first(object);
        xany second(first);
        EXPECT_EQ(xrcgetcount(object.get()), 3);
        xany& same = second;
        second = same;
        EXPECT_EQ(xrcgetcount(object.get()), 3);
        second = std::move(same);
        EXPECT_EQ(xrcgetcount(object.get()), 3);
        const xany third(std::move(second));
        EXPECT_EQ(xrcgetcount(object.get()), 3);
        first = 5;
        EXPECT_EQ(xrcgetcount(object.get()), 2);
    }
    EXPECT_EQ(xrcgetcount(object.get()), 1);

    const xany deletesIt(
        new qelXArgs); // never attached before: the leak check shows whether the variant frees it
}

TEST(xany, CountsReferencesSeparatelyFromTheCForm)
{
    const xrchandle<qelXArgs> object = makeObject();
    __xany_c c = xcadapt_cxx2c(xany(object));
    EXPECT_EQ(xrcgetcount(object.get()), 2);
    {
        const xany back = xcadapt_c2cxx(c);
        EXPECT_EQ(xrcgetcount(object.get()), 3);
        EXPECT_TRUE(back == xany(object));
    }
    xrcrelease(c.u.objectValue);
    EXPECT_EQ(xrcgetcount(object.get()), 1);

    c = xany("text").getxany_c();
    EXPECT_TRUE(xcadapt_c2cxx(c) == "text");
    c.u.stringValue.buffer->Unlock();
    EXPECT_TRUE(xcadapt_c2cxx({.tag = xanyObject, .u = {.objectValue = xuninitobj}}).getRtti() ==
                qelGetRtti_any());
}

TEST(xany, EqualsByKindAndValue)
{
    const xrchandle<qelXArgs> object = makeObject(), other = makeObject();
    static auto* const twin = new xrttienum("test::Colour", 3, labels);

    EXPECT_TRUE(xany(1) == 1);
    EXPECT_FALSE(xany(1) == 1.0);
    EXPECT_TRUE(xany(0.0) == -0.0);
    EXPECT_FALSE(xany(static_cast<unsigned char>(1)) == static_cast<unsigned char>(2));
    EXPECT_TRUE(xany("abc") == "abc");
    EXPECT_TRUE(xany("abc") == xany(xstring("ab", "c")));
    EXPECT_TRUE(xany("abc") != "abd");
    EXPECT_TRUE(xany(2, colour()) == xany(2, colour()));
    EXPECT_FALSE(xany(2, colour()) == xany(2, twin));
    EXPECT_FALSE(xany(2, colour()) == 2);
    EXPECT_TRUE(xany(object) == xany(object));
    EXPECT_FALSE(xany(object) == xany(other));
    EXPECT_FALSE(xany(nullptr) == xany());
    EXPECT_TRUE(xany() == xuninitstr);
    EXPECT_TRUE(xany(nullptr) == xnullstr);
    EXPECT_FALSE(xany(nullptr) == static_cast<const char*>(nullptr));
    EXPECT_FALSE(xany(1) == "1");
}

TEST(xany, ValidatesByTypeAndNull)
{
    const xany object(new qelXNull);

    EXPECT_TRUE(xany(1).softvalidate(qelGetRtti_int(), 0));
    EXPECT_TRUE(xany(nullptr).softvalidate(qelGetRtti_int(), 1));
    EXPECT_FALSE(xany(nullptr).softvalidate(qelGetRtti_int(), 0));
    EXPECT_FALSE(xany().softvalidate(qelGetRtti_int(), 1));
    EXPECT_TRUE(xany().softvalidate(qelGetRtti_any(), 0));
    EXPECT_TRUE(object.softvalidate(qelXException::getClassRtti(), 0));
    EXPECT_FALSE(object.softvalidate(qelXArgs::getClassRtti(), 0));

    object.validate(qelGetRtti_object(), 0);
    xany(nullptr).validate(qelGetRtti_int(), 1);
    EXPECT_TRUE(thrownBy([] { xany(nullptr).validate(qelGetRtti_int(), 0); }) == "qellib::XNull");
    EXPECT_TRUE(thrownBy([] { xany(1).validate(qelGetRtti_real(), 0); }) == "qellib::XTypeMismatch");
}

TEST(xany, WrongConversionOrTagEndsTheProcess)
{
    EXPECT_EQ(static_cast<double>(xany(3)), 3.0); // the one conversion between kinds
    EXPECT_DEATH((void)static_cast<double>(xany("3")), "Can not convert xany to xreal\\. It is a string\\.");
    EXPECT_DEATH((void)static_cast<int>(xany("1")), "Can not convert xany to xint\\. It is a string\\.");
    EXPECT_DEATH((void)static_cast<xstring>(xany(1)), "Can not convert xany to xrstring\\. It is an int\\.");
    EXPECT_DEATH((void)static_cast<xobject*>(xany(1)), "Can not convert xany to xobject\\.");
    const __xany_c corrupt = {.tag = 8, .u = {.intValue = 0}};
    EXPECT_DEATH(xcadapt_c2cxx(corrupt), "Can not be here\\.");
}
