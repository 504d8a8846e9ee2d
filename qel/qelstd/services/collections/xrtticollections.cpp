// The descriptors of arrays, sequences and dictionaries.
#include <vector>

#include "qeltable.h"
#include "qelthrow.h"
#include "xrtti.h"
#include "xsequence.h"

constinit qelClass xrttiarray::rtti = {.name = "xrttiarray", .parents = {QEL_PARENT(xrttiobject)}};
constinit qelClass xrttisequence::rtti = {.name = "xrttisequence", .parents = {QEL_PARENT(xrttiobject)}};
constinit qelClass xrttidictionary::rtti = {.name = "xrttidictionary", .parents = {QEL_PARENT(xrttiobject)}};

// ---- xrttiarray

void xrttiarray::initialize(const char* typeName, unsigned char counted, int dimCount, int* extents,
                            xrtti* elementType, unsigned char elemOptional, elemfn read)
{
    xrttiobject::initialize(typeName, counted, 0, nullptr);
    nDims = dimCount;
    dims = extents;
    elemType = elementType;
    isElemOptional = elemOptional;
    getter = read;
}

int xrttiarray::getNDimentions()
{
    return nDims;
}

int xrttiarray::getDimention(int i)
{
    return i >= 0 && i < nDims ? dims[i] : xnullint;
}

xrtti* xrttiarray::getElemType()
{
    return elemType;
}

unsigned char xrttiarray::getIsElemOptional()
{
    return isElemOptional;
}

xany xrttiarray::getElemValue(xobject* owner, xrchandle<xintsequence> indices)
{
    if (!indices)
        qelhThrowNotInitialized();
    constexpr int usual = 10;
    int local[usual];
    std::vector<int> more;
    const int count = indices->getarraysize();
    int* list = local;
    if (count > usual) {
        more.resize(static_cast<std::size_t>(count));
        list = more.data();
    }
    for (int i = 0; i < count; ++i)
        list[i] = indices->get(i);
    for (int i = 0; i < getNDimentions(); ++i) {
        const int index = i < count ? list[i] : xnullint;
        if (index < 0 || index >= getDimention(i))
            qelhThrowInvalidArrayIndex(owner, i, index);
    }
    return getElemValue(owner, list);
}

xany xrttiarray::getElemValue(xobject* owner, int* indices)
{
    return getter(owner, indices);
}

// ---- xrttisequence, xrttidictionary

void xrttisequence::initialize(const char* typeName, unsigned char counted, xrtti* elementType,
                               unsigned char elemOptional, sizefn size, elemfn read)
{
    xrttiobject::initialize(typeName, counted, 0, nullptr);
    elemType = elementType;
    isElemOptional = elemOptional;
    sizeFn = size;
    elemFn = read;
}

xrtti* xrttisequence::getElemType()
{
    return elemType;
}

unsigned char xrttisequence::getIsElemOptional()
{
    return isElemOptional;
}

int xrttisequence::getSize(xobject* owner)
{
    return sizeFn(owner);
}

xany xrttisequence::getElemValue(xobject* owner, int index)
{
    return elemFn(owner, index);
}

void xrttidictionary::initialize(const char* typeName, unsigned char counted, xrtti* elementType,
                                 unsigned char elemOptional, sizefn size, findfn find, keybyidxfn keyByIdx,
                                 valuebyidxfn valueByIdx)
{
    xrttiobject::initialize(typeName, counted, 0, nullptr);
    elemType = elementType;
    isElemOptional = elemOptional;
    sizeFn = size;
    findFn = find;
    keyByIdxFn = keyByIdx;
    valueByIdxFn = valueByIdx;
}

xrtti* xrttidictionary::getElemType()
{
    return elemType;
}

unsigned char xrttidictionary::getIsElemOptional()
{
    return isElemOptional;
}

int xrttidictionary::getSize(xobject* owner)
{
    return sizeFn(owner);
}

unsigned char xrttidictionary::findElemValue(xobject* owner, const char* key, xany* out)
{
    return findFn(owner, key, out);
}

unsigned char xrttidictionary::getElemKeyByIdx(xobject* owner, int index, xstring* outKey)
{
    return keyByIdxFn(owner, index, outKey);
}

unsigned char xrttidictionary::getElemValueByIdx(xobject* owner, int index, xany* out)
{
    return valueByIdxFn(owner, index, out);
}
