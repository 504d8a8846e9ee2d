#pragma once

#include <qel/xany.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

class xintsequence;
struct xrttiuserdata;

/// Reads one attribute of `owner`, a live object of the class that has the attribute. The readers derived
/// from tables leave the count of `owner` unchanged, 0 included.
using xrttigetter = xany (*)(xobject* owner);

/// The descriptor of a type: its name, and the facts that generic code needs to walk values of the type.
/// Descriptors are built once and never freed; their classes are not reference countable. An application may
/// build its own descriptors with the constructors and `initialize`; array arguments are kept by pointer, and
/// qelRttiAddToMap registers the result. Once registered, a descriptor may be used from any thread. On a
/// descriptor, isSameAs and isKindOf concern the type that it describes.
///
///     if (xrtti* const type = qelRttiGetFromMap("filelib::NodeInfo"))
///         std::cout << type->getName() << (type->isKindOf(qelGetRtti_object()) ? ", a class\n" : "\n");
class QEL_API xrtti : public virtual xobject
{
    QEL_OBJECT(xrtti);
    QEL_NOT_COUNTED;

public:
    /// Returns the qualified name of the type, such as "filelib::NodeInfo"; "object" or "int" for the
    /// built-in types.
    virtual xstring getName();
    /// Whether `other` is this descriptor or has the same name. Null: false.
    virtual unsigned char isSameAs(const xrtti* other) const;
    /// Whether every value of this type is also one of `other`; every type is a kind of "any". Null: false.
    virtual unsigned char isKindOf(const xrtti* other) const;

private:
    /// Attaches `data` under `key` (kept by pointer), replacing any previous data.
    virtual void addUserData(const char* key, void* data);
    /// Returns the data attached under `key`, or null.
    virtual void* getUserData(const char* key);

protected:
    xrtti() = default;
    ~xrtti() override;
    /// Sets the name.
    void initialize(const char* typeName);

private:
    friend QEL_API void qelRttiAddUserData(xrtti* type, const char* key, void* data);
    friend QEL_API void* qelRttiGetUserData(xrtti* type, const char* key);
    friend QEL_API void* qelRttiGetUserData(const char* typeName, const char* key);

    xstring name;
    unsigned nameHash = 0; // rejects most different names without comparing their text
    xrttiuserdata* userData = nullptr;
};

/// The descriptor of a basic type: "bool", "int", "real", "string" or "any".
class QEL_API xrttibasic : public virtual xrtti
{
    QEL_OBJECT(xrttibasic);

public:
    explicit xrttibasic(const char* typeName);
};

/// The descriptor of an enumeration: label i names value i. The number of labels, as a value, stands for
/// null.
///
///     xrttienum* const kinds = qelGetRtti_fsNodeType();
///     for (int i = 0; i < kinds->getNValues(); ++i)
///         std::cout << kinds->mapIntToString(i) << '\n'; // fsFile, fsDirectory, fsSoftLink
class QEL_API xrttienum : public virtual xrtti
{
    QEL_OBJECT(xrttienum);

public:
    xrttienum(const char* typeName, int labelCount, const char** labelTexts);

    virtual int getNValues();
    /// Returns the label of `value`, or the null string when it has none.
    virtual xstring mapIntToString(int value);
    /// Returns the value that `label` names, or xnullint. Compares it with each label in order.
    virtual int mapStringToInt(const char* label);

private:
    int nValues;
    const char** labels;
};

/// The descriptor of a class of framework objects.
///
///     xrttiobject* const type = object->getRtti();
///     for (int i = 0; i < type->getNParents(); ++i)
///         std::cout << type->getParent(i)->getName() << '\n';
class QEL_API xrttiobject : public virtual xrtti
{
    QEL_OBJECT(xrttiobject);

public:
    xrttiobject() = default;
    /// Sets the facts of the descriptor: once, before it is used. The lists are kept as pointers.
    void initialize(const char* typeName, unsigned char counted, int parentCount, xrttiobject** parentTypes);

    /// Whether objects of the class are reference countable.
    virtual unsigned char getIsRefCount();
    virtual int getNParents();
    /// Returns the i-th direct base class in order of declaration, or null.
    virtual xrttiobject* getParent(int i);
    unsigned char isKindOf(const xrtti* other) const override;

private:
    unsigned char isRefCount = 0;
    int nParents = 0;
    xrttiobject** parents = nullptr;
};

/// One attribute of a structure or a union.
class QEL_API xrttiattr : public virtual xobject
{
    QEL_OBJECT(xrttiattr);
    QEL_NOT_COUNTED;

public:
    xrttiattr(const char* attrName, xrtti* attrType, unsigned char optional, xrttigetter read);

    virtual xstring getName();
    virtual xrtti* getType();
    /// Whether the attribute may be null.
    virtual unsigned char getIsOptional();
    /// Returns the attribute's value.
    /// @throws qelXTypeMismatch    `owner` is of another class
    /// @throws qelXNotInitialized  `owner` is null or xuninitobj
    virtual xany getValue(xobject* owner);

private:
    xstring name;
    xrtti* type;
    unsigned char isOptional;
    xrttigetter getter;
};

/// The descriptor of a class with named attributes.
///
///     if (xrttistruct* const type = xrttistruct::softcast(object->getRtti()))
///         for (int i = 0; i < type->getNAttrs(); ++i) {
///             xrttiattr* const attr = type->getAttr(i);
///             std::cout << attr->getName() << " = " << attr->getValue(object) << '\n';
///         }
class QEL_API xrttistruct : public virtual xrttiobject
{
    QEL_OBJECT(xrttistruct);

public:
    xrttistruct() = default;
    /// Sets the facts of the descriptor: once, before it is used. The lists are kept as pointers.
    void initialize(const char* typeName, unsigned char counted, int parentCount, xrttiobject** parentTypes,
                    int attrCount, xrttiattr** ownAttrs);

    /// Returns the number of the class's own attributes; inherited ones are not counted.
    virtual int getNAttrs();
    /// Returns the i-th own attribute in order of declaration, or null.
    virtual xrttiattr* getAttr(int i);
    /// Compares the names of the attributes in order. Returns the own attribute `attrName`; if there is none and
    /// `inherited` is set, that of the first parent in order that has it; else null.
    /// @throws qelXTypeMismatch  a searched parent is not a structure
    virtual xrttiattr* findAttr(const char* attrName, unsigned char inherited);

private:
    int nAttrs = 0;
    xrttiattr** attrs = nullptr;
};

/// The descriptor of a class that is an array of fixed shape.
///
///     if (xrttiarray* const type = xrttiarray::softcast(object->getRtti()))
///         std::cout << type->getElemValue(object, xintsequence::make({0, 1})) << '\n'; // row 0, column 1
class QEL_API xrttiarray : public virtual xrttiobject
{
    QEL_OBJECT(xrttiarray);

public:
    /// Reads the element at `indices`.
    using elemfn = xany (*)(xobject* owner, int* indices);

    xrttiarray() = default;
    /// Sets the facts of the descriptor: once, before it is used. The lists are kept as pointers.
    void initialize(const char* typeName, unsigned char counted, int dimCount, int* extents,
                    xrtti* elementType, unsigned char elemOptional, elemfn read);

    virtual int getNDimentions();
    /// Returns the extent of dimension `i`, or xnullint.
    virtual int getDimention(int i);
    virtual xrtti* getElemType();
    virtual unsigned char getIsElemOptional();
    /// Returns the element at `indices`, one index for each dimension.
    /// @throws qelXInvalidArrayIndex  an index is outside its extent, or there is none (xnullint) for a
    ///                                dimension; dimensions are counted from 0
    virtual xany getElemValue(xobject* owner, xrchandle<xintsequence> indices);
    /// The same with the indices taken as they are.
    virtual xany getElemValue(xobject* owner, int* indices);

private:
    int nDims = 0;
    int* dims = nullptr;
    xrtti* elemType = nullptr;
    unsigned char isElemOptional = 0;
    elemfn getter = nullptr;
};

/// The descriptor of a class that is a sequence of elements.
///
///     if (xrttisequence* const type = xrttisequence::softcast(object->getRtti()))
///         for (int i = 0; i < type->getSize(object); ++i)
///             std::cout << type->getElemValue(object, i) << '\n';
class QEL_API xrttisequence : public virtual xrttiobject
{
    QEL_OBJECT(xrttisequence);

public:
    /// Functions that read the collection `owner`.
    using sizefn = int (*)(xobject* owner);
    using elemfn = xany (*)(xobject* owner, int index);

    xrttisequence() = default;
    /// Sets the facts of the descriptor: once, before it is used. The lists are kept as pointers.
    void initialize(const char* typeName, unsigned char counted, xrtti* elementType,
                    unsigned char elemOptional, sizefn size, elemfn read);

    virtual xrtti* getElemType();
    virtual unsigned char getIsElemOptional();
    /// Returns the number of elements.
    virtual int getSize(xobject* owner);
    /// Returns the element at `index`.
    virtual xany getElemValue(xobject* owner, int index);

private:
    xrtti* elemType = nullptr;
    unsigned char isElemOptional = 0;
    sizefn sizeFn = nullptr;
    elemfn elemFn = nullptr;
};

/// The descriptor of a class that maps string keys to elements. Elements are also accessible by index: a
/// position in the table, from 0 to getSize() - 1, which may be empty.
///
///     xany age;
///     if (xrttidictionary* const type = xrttidictionary::softcast(object->getRtti()))
///         if (type->findElemValue(object, "age", &age))
///             std::cout << age << '\n';
class QEL_API xrttidictionary : public virtual xrttiobject
{
    QEL_OBJECT(xrttidictionary);

public:
    /// Functions that read the dictionary `owner`; each returns whether there is such an element.
    using sizefn = int (*)(xobject* owner);
    using findfn = unsigned char (*)(xobject* owner, const char* key, xany* out);
    using keybyidxfn = unsigned char (*)(xobject* owner, int index, xstring* outKey);
    using valuebyidxfn = unsigned char (*)(xobject* owner, int index, xany* out);

    xrttidictionary() = default;
    /// Sets the facts of the descriptor: once, before it is used. The lists are kept as pointers.
    void initialize(const char* typeName, unsigned char counted, xrtti* elementType,
                    unsigned char elemOptional, sizefn size, findfn find, keybyidxfn keyByIdx,
                    valuebyidxfn valueByIdx);

    virtual xrtti* getElemType();
    virtual unsigned char getIsElemOptional();
    /// Returns the number of positions, occupied or not.
    virtual int getSize(xobject* owner);
    /// Each stores its result through the `out` pointer and returns whether the element exists.
    virtual unsigned char findElemValue(xobject* owner, const char* key, xany* out);
    virtual unsigned char getElemKeyByIdx(xobject* owner, int index, xstring* outKey);
    virtual unsigned char getElemValueByIdx(xobject* owner, int index, xany* out);

private:
    xrtti* elemType = nullptr;
    unsigned char isElemOptional = 0;
    sizefn sizeFn = nullptr;
    findfn findFn = nullptr;
    keybyidxfn keyByIdxFn = nullptr;
    valuebyidxfn valueByIdxFn = nullptr;
};

/// The descriptor of a discriminated union: an int or enumeration selects the member that is present.
///
///     if (xrttiunion* const type = xrttiunion::softcast(object->getRtti())) {
///         const xany label = type->getDiscr()->getValue(object);
///         if (xrttiattr* const member = type->mapLabelToAttr(label, true))
///             std::cout << member->getName() << " = " << member->getValue(object) << '\n';
///     }
class QEL_API xrttiunion : public virtual xrttiobject
{
    QEL_OBJECT(xrttiunion);

public:
    xrttiunion() = default;
    /// Sets the facts of the descriptor: once, before it is used. The lists are kept as pointers.
    void initialize(const char* typeName, unsigned char counted, int parentCount, xrttiobject** parentTypes,
                    xrttiattr* discriminator, int labelCount, int* labelValues, xrttiattr** members,
                    xrttiattr* defaultMember);

    virtual xrttiattr* getDiscr();
    virtual int getNLabels();
    /// Returns the i-th label, or xnullint.
    virtual int getLabel(int i);
    /// Returns the member of the i-th label, or null; a label may have none.
    virtual xrttiattr* getAttr(int i);
    /// Returns the member for labels that are not listed, or null.
    virtual xrttiattr* getDefaultAttr();
    /// Returns the member of `label`, which may be listed without one (null); else the default member, else
    /// (with `inherited`) the first non-null result of a parent, else null. A label that is neither null,
    /// uninit, int nor enumeration has no member.
    /// @throws qelXTypeMismatch  a searched parent is not a union
    virtual xrttiattr* mapLabelToAttr(xany label, unsigned char inherited);
    virtual xrttiattr* mapLabelToAttr(int label, unsigned char inherited);

private:
    /// Whether this class itself lists `label`, with a member or explicitly without one, as for a label
    /// without a value.
    bool hasLabel(int label, xrttiattr** member);

    xrttiattr* discr = nullptr;
    int nLabels = 0;
    int* labels = nullptr;
    xrttiattr** attrs = nullptr;
    xrttiattr* defaultAttr = nullptr;
};
