#pragma once

#include <qel/xany.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

class xintsequence;
class xrttiarray;
class xrttiattr;
class xrttidictionary;
class xrttienum;
class xrttisequence;
class xrttistruct;
class xrttiunion;

/// How deep objects may be nested in a walked value. What lies deeper is reported as "Nesting too deep".
constexpr int qelTraverseDepth = 10000;

/// What qelTraverse reports to. `obj` is the object that owns the visited part; each handle is made for the
/// call. A begin operation answers whether its part is entered: if not, neither the part's contents nor its
/// end are reported. `attr` and `index` belong to the walk.
///
/// What an operation throws leaves qelTraverse.
class QEL_API qelTraverser
{
public:
    /// Null, an int, a bool, a real or a string. The part of an uninit value has nothing between its begin
    /// and its end.
    virtual void simpleValue(xany value) = 0;
    virtual void enumValue(xrttienum* type, int value) = 0;

    // ---- objects: one of these pairs for each, the contents of its base classes first inside

    /// An object of a class that is none of the following.
    virtual bool beginObject(xrttiobject* type, xrcunihandle<xobject> obj) = 0;
    virtual void endObject(xrttiobject* type, xrcunihandle<xobject> obj) = 0;

    virtual bool beginStructure(xrttistruct* type, xrcunihandle<xobject> obj) = 0;
    virtual void endStructure(xrttistruct* type, xrcunihandle<xobject> obj) = 0;
    /// `type` is the class that declares the attribute.
    virtual bool beginStructAttribute(xrttistruct* type, xrttiattr* attr, xrcunihandle<xobject> obj) = 0;
    virtual void endStructAttribute(xrttistruct* type, xrttiattr* attr, xrcunihandle<xobject> obj);

    virtual bool beginSequence(xrttisequence* type, xrcunihandle<xobject> obj) = 0;
    virtual void endSequence(xrttisequence* type, xrcunihandle<xobject> obj) = 0;
    virtual bool beginSeqElement(xrttisequence* type, int index, xrcunihandle<xobject> obj) = 0;
    virtual void endSeqElement(xrttisequence* type, int index, xrcunihandle<xobject> obj);

    virtual bool beginDictionary(xrttidictionary* type, xrcunihandle<xobject> obj) = 0;
    virtual void endDictionary(xrttidictionary* type, xrcunihandle<xobject> obj) = 0;
    /// The key is empty when it could not be read. An element without a value has the string "<uninit>".
    virtual bool beginDictElement(xrttidictionary* type, xstring key, xrcunihandle<xobject> obj) = 0;
    virtual void endDictElement(xrttidictionary* type, xstring key, xrcunihandle<xobject> obj);

    virtual bool beginArray(xrttiarray* type, xrcunihandle<xobject> obj) = 0;
    virtual void endArray(xrttiarray* type, xrcunihandle<xobject> obj) = 0;
    /// Once for each index of every dimension but the last. `index` has one entry for each dimension, of
    /// which those up to `dim` say where the walk is; the walk goes on to change it, so who keeps it copies.
    virtual bool beginArrayDimension(xrttiarray* type, int dim, xrchandle<xintsequence> index,
                                     xrcunihandle<xobject> obj) = 0;
    virtual void endArrayDimension(xrttiarray* type, int dim, xrchandle<xintsequence> index,
                                   xrcunihandle<xobject> obj) = 0;
    virtual bool beginArrayElement(xrttiarray* type, xrchandle<xintsequence> index,
                                   xrcunihandle<xobject> obj) = 0;
    virtual void endArrayElement(xrttiarray* type, xrchandle<xintsequence> index, xrcunihandle<xobject> obj);

    virtual bool beginUnion(xrttiunion* type, xrcunihandle<xobject> obj) = 0;
    virtual void endUnion(xrttiunion* type, xrcunihandle<xobject> obj) = 0;
    virtual bool beginUnionDicriminator(xrttiunion* type, xrttiattr* discr, xrcunihandle<xobject> obj) = 0;
    virtual void endUnionDicriminator(xrttiunion* type, xrttiattr* discr, xrcunihandle<xobject> obj);
    /// `attr` is null when the discriminator selects no member; nothing is read then.
    virtual bool beginUnionValue(xrttiunion* type, xrttiattr* attr, xrcunihandle<xobject> obj) = 0;
    virtual void endUnionValue(xrttiunion* type, xrttiattr* attr, xrcunihandle<xobject> obj);

    // ---- what stands in the place of a value, a key or a size

    /// "QEL exception", with the exception that a read of the walk has met; "Unknown exception", for any
    /// other; "Invalid enum value"; "Nesting too deep". An exception of a class that is not countable lives
    /// for the call.
    virtual void errorOccured(const char* text, xrcunihandle<xthrowable> error) = 0;
    /// `obj` contains itself: it is being walked already.
    virtual void alreadyVisited(xrcunihandle<xobject> obj) = 0;

protected:
    ~qelTraverser() = default;
};

/// Walks `value` as its descriptors describe it, and reports all of it to `visitor`. Exceptions met while
/// values are read become reports, and the walk goes on without the value. An object is walked wherever it is
/// met, unless it contains itself. Neither the visitor nor the objects change meanwhile. An object that was
/// never attached dies with `value`.
QEL_API void qelTraverse(xany value, qelTraverser* visitor);
