#pragma once

#include <climits>
#include <iosfwd>
#include <type_traits>

#include <qel/xobject.h>
#include <qel/xstring.h>

class xrttienum;

/// A number of a type whose values may not fit a variant; the others have their own constructors.
template<class N>
concept qelOtherNumber = std::is_arithmetic_v<N> && !std::is_same_v<N, int> && !std::is_same_v<N, bool> &&
                         !std::is_same_v<N, unsigned char> && !std::is_same_v<N, double>;

/// One value of any framework type, or null, or uninit ("never set", the state of a default-constructed
/// variant). It has the layout of `__xany_c`. A string payload owns one reference to its buffer, an object
/// payload one counted reference; an object that was never attached is destroyed with the variant. Each
/// variant is used by one thread at a time.
///
///     xany answer;                // uninit
///     answer = "forty-two";       // a string
///     answer = 42;                // an int
///     if (answer.getKind() == xanyInt)
///         std::cout << static_cast<int>(answer) << '\n';
class QEL_API xany
{
public:
    xany() noexcept { setPlain(xanyUninit, 0); }
    xany(const xany& other) { copyFrom(other.value); }
    xany(xany&& other) noexcept { takeFrom(other); }
    ~xany() { drop(); }

    xany(std::nullptr_t) { setPlain(xanyNull, 0); }
    /// xnullint becomes null, xuninitint uninit.
    xany(int v) { setInt(v); }
    /// A value of an enumeration. As for an int; the number of labels becomes null, too. `type` is not null.
    xany(int v, xrttienum* type);
    /// xnullbool becomes null, xuninitbool uninit. Other bytes are kept unchanged.
    xany(unsigned char v) { setBool(v); }
    template<class B>
    requires std::is_same_v<B, bool> xany(B v) { setBool(v ? 1 : 0); }
    /// xnullreal becomes null, xuninitreal uninit.
    xany(double v) { setReal(v); }
    /// An int, or a real for a floating-point type.
    /// @throws qelXNativeException  the number does not fit, or is one of the two markers
    template<qelOtherNumber N>
    xany(N v)
    {
        if (!holds(v))
            qelThrowOutOfRange();
        if constexpr (std::is_floating_point_v<N>)
            setReal(static_cast<double>(v));
        else
            setInt(static_cast<int>(v));
    }
    /// The null string becomes null. Shares the buffer.
    xany(xstring s);
    /// Null and xnullstr become null, xuninitstr uninit.
    xany(const char* text);
    xany(const unsigned short* text) : xany(xstring(text)) {}
    xany(const char8_t* text) : xany(reinterpret_cast<const char*>(text)) {}
    xany(const char16_t* text) : xany(xstring(text)) {}
    template<qelTextClass S>
    xany(const S& text) : xany(xstring(text))
    {
    }
    /// Null becomes null, xuninitobj uninit. Takes its own counted reference.
    xany(xobject* p);
    template<class T>
    requires std::is_convertible_v<T*, xobject*> xany(T* p) : xany(qelObjectOf(p)) {}
    template<class T>
    xany(const xrcbasehandle<T>& handle) : xany(qelObjectOf(handle.get()))
    {
    }
    template<class T>
    xany(T*) = delete; // any other pointer would convert to a bool

    xany& operator=(const xany& other) { return *this = other.value; }
    xany& operator=(xany&& other) noexcept
    {
        if (this != &other) {
            xany old;
            old.takeFrom(*this);
            takeFrom(other);
        }
        return *this;
    }
    /// Takes its own references; `c` keeps its references.
    xany& operator=(const __xany_c& c)
    {
        // Take before release: the source may be this variant itself, or a part of the value it holds.
        if (value.tag == xanyString) {
            btkStrBuf* const old = value.u.stringValue.buffer;
            copyFrom(c);
            if (old != nullptr)
                old->Unlock();
        } else if (value.tag == xanyObject) {
            xobject* const old = value.u.objectValue;
            copyFrom(c);
            xrcrelease(old);
        } else {
            copyFrom(c);
        }
        return *this;
    }

    /// The kind: xanyUninit ... xanyObject.
    int getKind() const { return value.tag; }
    bool isUninit() const { return value.tag == xanyUninit; }
    bool isNull() const { return value.tag == xanyNull; }

    /// Returns the descriptor of the value's type: that of the object, of the enumeration, or the built-in
    /// one; "any" for null and uninit. Null when an object reports none.
    xrtti* getRtti() const;
    /// The registered name of the value's type.
    xstring getQelTypeName() const;

    /// Whether the value is allowed where `type` is required; null is allowed if `optional` is set.
    unsigned char softvalidate(xrtti* type, unsigned char optional) const;
    /// @throws qelXNull          the value is null, and `optional` is not set
    /// @throws qelXTypeMismatch  the value is of another type
    void validate(xrtti* type, unsigned char optional) const;

    /// Same kind and same value: ints and reals compare by value, bools by their byte, strings by their text,
    /// enumerations by value and type, objects by identity.
    unsigned char operator==(const xany& other) const
    {
        const __xany_c& a = value;
        const __xany_c& b = other.value;
        if (a.tag != b.tag)
            return 0;
        if (a.tag == xanyInt)
            return a.u.intValue == b.u.intValue;
        if (a.tag == xanyReal)
            return a.u.realValue == b.u.realValue;
        if (a.tag == xanyObject)
            return a.u.objectValue == b.u.objectValue;
        return (a.tag == xanyString && a.u.stringValue.buffer == b.u.stringValue.buffer &&
                a.u.stringValue.buffer != nullptr) ||
               equalsOther(other);
    }
    unsigned char operator!=(const xany& other) const { return !(*this == other); }
    /// Whether the value is a string with this text. xnullstr matches null, xuninitstr matches uninit, and a
    /// null pointer matches nothing.
    unsigned char operator==(const char* text) const;
    unsigned char operator!=(const char* text) const { return !(*this == text); }
    /// Whether the value is null.
    unsigned char operator==(std::nullptr_t) const { return isNull(); }
    unsigned char operator!=(std::nullptr_t) const { return !isNull(); }
    unsigned char operator==(const xstring& text) const { return *this == xany(text); }
    unsigned char operator!=(const xstring& text) const { return !(*this == text); }
    /// A number that no variant holds is unequal.
    template<class N>
    requires std::is_arithmetic_v<N>
    unsigned char operator==(N number) const
    {
        if constexpr (qelOtherNumber<N>)
            return holds(number) && *this == xany(number);
        else
            return *this == xany(number);
    }
    template<class N>
    requires std::is_arithmetic_v<N>
    unsigned char operator!=(N number) const { return !(*this == number); }
    template<qelTextClass S>
    unsigned char operator==(const S& text) const
    {
        return *this == xstring(text);
    }
    template<qelTextClass S>
    unsigned char operator!=(const S& text) const
    {
        return !(*this == text);
    }
    /// Whether the value is this object; takes no reference.
    template<class T>
    requires std::is_convertible_v<T*, xobject*>
    unsigned char operator==(T* p) const { return isObject(qelObjectOf(p)); }
    template<class T>
    requires std::is_convertible_v<T*, xobject*>
    unsigned char operator!=(T* p) const { return !(*this == p); }
    /// The same with the variant on the right.
    friend bool operator==(std::nullptr_t, const xany& a) { return a.isNull(); }
    friend bool operator!=(std::nullptr_t, const xany& a) { return !a.isNull(); }
    friend bool operator==(const char* text, const xany& a) { return a.operator==(text) != 0; }
    friend bool operator!=(const char* text, const xany& a) { return a.operator==(text) == 0; }
    friend bool operator==(const xstring& text, const xany& a) { return a.operator==(text) != 0; }
    friend bool operator!=(const xstring& text, const xany& a) { return a.operator==(text) == 0; }
    template<class V>
    requires(std::is_arithmetic_v<V> || qelTextClass<V>) friend bool operator==(const V& value, const xany& a)
    {
        return a.operator==(value) != 0;
    }
    template<class V>
    requires(std::is_arithmetic_v<V> || qelTextClass<V>) friend bool operator!=(const V& value, const xany& a)
    {
        return a.operator==(value) == 0;
    }

    /// Writes the number or text, true or false, the label of an enumeration, "nil" for null, "uninit", or the
    /// class of an object: `<intseq>`.
    friend QEL_API std::ostream& operator<<(std::ostream& o, const xany& a);

    /// Null and uninit convert to the markers of the target type; an int also converts to a double.
    /// Converting a value of another kind is a broken invariant and aborts the process: check the kind first.
    operator int() const;
    operator unsigned char() const;
    operator double() const;
    /// Null and uninit convert to the null string.
    operator xstring() const;
    /// Takes no reference.
    operator xobject*() const;

    /// A copy in C form with its own references, which the caller releases (assign it to a variant and
    /// unlock).
    __xany_c getxany_c() const;

private:
    // Write the first word of a plain value in one store: copies load it whole, and a load shortly after
    // several narrower stores causes a store-forwarding stall.
    template<class V>
    void setPlain(int tag, V v)
    {
        double word = 0;
        __builtin_memcpy(&word, &v, sizeof v);
        value.tag = tag;
        value.u.realValue = word;
    }
    void setInt(int v) { setPlain(v == xnullint ? xanyNull : v == xuninitint ? xanyUninit : xanyInt, v); }
    void setBool(unsigned char v)
    {
        setPlain(v == xnullbool ? xanyNull : v == xuninitbool ? xanyUninit : xanyBool, v);
    }
    void setReal(double v)
    {
        value.tag = v == xnullreal ? xanyNull : v == xuninitreal ? xanyUninit : xanyReal;
        value.u.realValue = v;
    }

    template<qelOtherNumber N>
    static bool holds(N v)
    {
        if constexpr (std::is_floating_point_v<N>) {
            const auto real = static_cast<double>(v);
            const bool isFinite = v * 0 == 0;
            return (isFinite ? real * 0 == 0 : true) && real != xnullreal && real != xuninitreal;
        } else if constexpr (std::is_unsigned_v<N>) {
            return static_cast<unsigned long long>(v) <= INT_MAX;
        } else {
            const auto whole = static_cast<long long>(v);
            return whole >= INT_MIN && whole <= INT_MAX && whole != xnullint && whole != xuninitint;
        }
    }
    bool isObject(const xobject* p) const
    {
        return qelIsObject(p) ? value.tag == xanyObject && value.u.objectValue == p
                              : value.tag == (p == nullptr ? xanyNull : xanyUninit);
    }
    static bool isPlain(int tag) { return static_cast<unsigned>(tag) < xanyString; }
    void copyFrom(const __xany_c& from)
    {
        if (isPlain(from.tag)) {
            value.tag = from.tag;
            __builtin_memcpy(&value.u, &from.u, sizeof value.u.realValue);
        } else if (from.tag == xanyString) {
            value.tag = xanyString;
            // Copy the buffer pointer alone: as part of a vector store it would stall the next load.
            btkStrBuf* const buffer = from.u.stringValue.buffer;
            value.u.stringValue.buffer = buffer;
            if (buffer != nullptr)
                buffer->Lock();
            value.u.stringValue.mb = from.u.stringValue.mb;
            value.u.stringValue.wide = from.u.stringValue.wide;
        } else if (from.tag == xanyObject) {
            value.tag = xanyObject;
            value.u.objectValue = from.u.objectValue;
            xrcattach(from.u.objectValue);
        } else {
            copyEnum(from);
        }
    }
    /// Takes over the value of `other` and leaves `other` uninit; the previous value of this variant is not
    /// released.
    void takeFrom(xany& other)
    {
        value.tag = other.value.tag;
        if (isPlain(other.value.tag))
            value.u.realValue = other.value.u.realValue;
        else
            value.u = other.value.u;
        other.value.tag = xanyUninit;
    }
    void copyEnum(const __xany_c& from);
    void drop()
    {
        if (value.tag == xanyString) {
            if (value.u.stringValue.buffer != nullptr)
                value.u.stringValue.buffer->Unlock();
        } else if (value.tag == xanyObject) {
            xrcrelease(value.u.objectValue);
        }
    }
    unsigned char equalsOther(const xany& other) const;

    __xany_c value;
};

static_assert(sizeof(xany) == sizeof(__xany_c));

/// The variant in C form; the result owns its references.
QEL_API __xany_c xcadapt_cxx2c(xany a);
/// A variant of the value in C form; `c` keeps its own references.
QEL_API xany xcadapt_c2cxx(__xany_c c);
