#include "xany.h"

#include <cstring>
#include <iterator>
#include <ostream>
#include <string>

#include <qel/base/btkabort.h>
#include <qel/base/btkstrbuf.h>

#include "qelrtti.h"

// ---- construction and destruction

xany::xany(int v, xrttienum* type)
{
    if (v == xnullint || v == xuninitint || v == type->getNValues()) {
        setPlain(v == xuninitint ? xanyUninit : xanyNull, 0);
        return;
    }
    value.tag = xanyEnum;
    value.u.enumValue.value = v;
    value.u.enumValue.type = type;
}

xany::xany(xstring s)
{
    if (s == nullptr) {
        setPlain(xanyNull, 0);
        return;
    }
    value.tag = xanyString;
    value.u.stringValue = s.getxstring_c();
}

xany::xany(const char* text) : xany(xstring(text))
{
    if (text == xuninitstr)
        value.tag = xanyUninit;
}

xany::xany(xobject* p)
{
    if (!qelIsObject(p)) {
        setPlain(p == nullptr ? xanyNull : xanyUninit, 0);
        return;
    }
    xrcattach(p);
    value.tag = xanyObject;
    value.u.objectValue = p;
}

void xany::copyEnum(const __xany_c& from)
{
    if (from.tag != xanyEnum)
        QEL_ABORT("Can not be here.");
    value = from;
}

// ---- queries

xrtti* xany::getRtti() const
{
    switch (value.tag) {
    case xanyUninit:
    case xanyNull:
        return qelGetRtti_any();
    case xanyInt:
        return qelGetRtti_int();
    case xanyBool:
        return qelGetRtti_bool();
    case xanyReal:
        return qelGetRtti_real();
    case xanyString:
        return qelGetRtti_string();
    case xanyEnum:
        return value.u.enumValue.type;
    case xanyObject:
        // A C caller may have stored a marker in place of an object.
        return qelIsObject(value.u.objectValue) ? qelUpcast<xrtti>(value.u.objectValue->getRtti())
                                                : qelGetRtti_any();
    default:
        QEL_ABORT("Can not be here.");
    }
}

xstring xany::getQelTypeName() const
{
    return getRtti()->getName();
}

unsigned char xany::softvalidate(xrtti* type, unsigned char optional) const
{
    return isNull() ? optional : getRtti()->isKindOf(type);
}

void xany::validate(xrtti* type, unsigned char optional) const
{
    if (!softvalidate(type, optional))
        qelThrowInvalid(type, *this);
}

/// Apart, so that comparing two multibyte texts needs no stack frame.
[[gnu::noinline]] static bool equalAfterConversion(const __xstring_c& a, const __xstring_c& b)
{
    return xstring(a) == xstring(b);
}

unsigned char xany::equalsOther(const xany& other) const
{
    if (value.tag == xanyString) [[likely]] {
        const __xstring_c& a = value.u.stringValue;
        const __xstring_c& b = other.value.u.stringValue;
        if (a.buffer == nullptr || b.buffer == nullptr)
            return 0;
        if (a.mb == nullptr || b.mb == nullptr)
            return equalAfterConversion(a, b);
        const std::size_t size = a.buffer->GetMBLength();
        return size == b.buffer->GetMBLength() && std::memcmp(a.mb, b.mb, size) == 0;
    }
    switch (value.tag) {
    case xanyUninit:
    case xanyNull:
        return 1;
    case xanyBool:
        return value.u.boolValue == other.value.u.boolValue;
    case xanyEnum:
        return value.u.enumValue.value == other.value.u.enumValue.value &&
               value.u.enumValue.type == other.value.u.enumValue.type;
    default:
        QEL_ABORT("Can not be here.");
    }
}

unsigned char xany::operator==(const char* text) const
{
    if (text == xuninitstr)
        return isUninit();
    if (text == xnullstr)
        return isNull();
    return text != nullptr && value.tag == xanyString && xstring(value.u.stringValue) == text;
}

// ---- conversions

/// The fatal report of a conversion: its sentence and the kind of the variant.
[[noreturn]] static void abortConversion(const char* sentence, int kind)
{
    static constexpr const char* kinds[] = {"uninit", "null",     "an int",         "a bool",
                                            "a real", "a string", "an enumeration", "an object"};
    const std::string report =
        std::string(sentence) + " It is " +
        (kind >= 0 && kind < static_cast<int>(std::size(kinds)) ? kinds[kind] : "corrupt") + ".";
    QEL_ABORT(report.c_str());
}

xany::operator int() const
{
    switch (value.tag) {
    case xanyUninit:
        return xuninitint;
    case xanyNull:
        return xnullint;
    case xanyInt:
        return value.u.intValue;
    case xanyEnum:
        return value.u.enumValue.value;
    default:
        abortConversion("Can not convert xany to xint.", value.tag);
    }
}

xany::operator unsigned char() const
{
    switch (value.tag) {
    case xanyUninit:
        return xuninitbool;
    case xanyNull:
        return xnullbool;
    case xanyBool:
        return value.u.boolValue;
    default:
        abortConversion("Can not convert xany to xbool.", value.tag);
    }
}

xany::operator double() const
{
    switch (value.tag) {
    case xanyUninit:
        return xuninitreal;
    case xanyNull:
        return xnullreal;
    case xanyInt:
        return value.u.intValue;
    case xanyReal:
        return value.u.realValue;
    default:
        abortConversion("Can not convert xany to xreal.", value.tag);
    }
}

xany::operator xstring() const
{
    switch (value.tag) {
    case xanyUninit:
    case xanyNull:
        return {};
    case xanyString:
        return xstring(value.u.stringValue);
    default:
        abortConversion("Can not convert xany to xrstring.", value.tag);
    }
}

xany::operator xobject*() const
{
    switch (value.tag) {
    case xanyUninit:
        return xuninitobj;
    case xanyNull:
        return nullptr;
    case xanyObject:
        return value.u.objectValue;
    default:
        abortConversion("Can not convert xany to xobject.", value.tag);
    }
}

// ---- output

std::ostream& operator<<(std::ostream& o, const xany& a)
{
    switch (a.getKind()) {
    case xanyUninit:
        return o << "uninit";
    case xanyNull:
        return o << "nil";
    case xanyInt:
        return o << static_cast<int>(a);
    case xanyBool: {
        const unsigned byte = static_cast<unsigned char>(a);
        return byte == 0 ? o << "false" : byte == 1 ? o << "true" : o << byte;
    }
    case xanyReal:
        return o << static_cast<double>(a);
    case xanyString:
        return o << static_cast<xstring>(a);
    case xanyEnum: {
        const int value = static_cast<int>(a);
        auto* const type = xrttienum::softcast(a.value.u.enumValue.type);
        const xstring label = qelIsObject(type) ? type->mapIntToString(value) : xstring();
        return label.isNull() ? o << value : o << label;
    }
    case xanyObject:
        return o << '<' << a.getQelTypeName() << '>';
    default:
        QEL_ABORT("Can not be here.");
    }
}

// ---- the C form

__xany_c xany::getxany_c() const
{
    xany copy(*this);
    const __xany_c result = copy.value;
    copy.setPlain(xanyUninit, 0); // the caller owns its references now
    return result;
}

__xany_c xcadapt_cxx2c(xany a)
{
    return a.getxany_c();
}

xany xcadapt_c2cxx(__xany_c c)
{
    xany result;
    result = c;
    return result;
}
