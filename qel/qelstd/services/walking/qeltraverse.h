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

/// Greatest nesting depth of objects in a walked value. A deeper object is reported as "Nesting too deep".
constexpr int qelTraverseDepth = 10000;

/// The visitor of qelTraverse. `obj` is the object that owns the visited part; each handle is created for the
/// call. A begin operation returns whether to enter its part: if not, neither the part's contents nor its end
/// are reported. `attr` and `index` belong to the walk.
///
/// Exceptions thrown by an operation pass through qelTraverse.
///
///     // Counts the strings of a value: qelPrintTraverser has every operation, so one is enough here.
///     class Strings : public qelPrintTraverser
///     {
///     public:
///         explicit Strings(std::ostream& unused) : qelPrintTraverser(unused, -1) {}
///         void simpleValue(xany value) override { count += value.getKind() == xanyString; }
///         int count = 0;
///     };
class QEL_API qelTraverser
{
public:
    /// Null, an int, a bool, a real or a string. An uninit value reports nothing between the begin and the
    /// end of its part.
    virtual void simpleValue(xany value) = 0;
    virtual void enumValue(xrttienum* type, int value) = 0;

    // ---- objects: each is reported by one of these pairs; the contents of its base classes come first

    /// An object of a class of none of the following kinds.
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
    /// The key is empty if it could not be read. An element without a value has the string "<uninit>".
    virtual bool beginDictElement(xrttidictionary* type, xstring key, xrcunihandle<xobject> obj) = 0;
    virtual void endDictElement(xrttidictionary* type, xstring key, xrcunihandle<xobject> obj);

    virtual bool beginArray(xrttiarray* type, xrcunihandle<xobject> obj) = 0;
    virtual void endArray(xrttiarray* type, xrcunihandle<xobject> obj) = 0;
    /// Called once for each index of every dimension but the last. `index` has one entry for each dimension;
    /// those up to `dim` give the current position. The walk changes it afterwards: copy it to keep it.
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

    // ---- reports in place of a value, a key or a size

    /// "QEL exception", with an exception met while reading a value; "Unknown exception", for any other;
    /// "Invalid enum value"; "Nesting too deep". An exception of a class that is not countable is valid for
    /// the call only.
    virtual void errorOccured(const char* text, xrcunihandle<xthrowable> error) = 0;
    /// `obj` contains itself: the walk is already inside it.
    virtual void alreadyVisited(xrcunihandle<xobject> obj) = 0;

protected:
    ~qelTraverser() = default;
};

/// Walks `value` according to its descriptors, and reports all of it to `visitor`, in time proportional to its
/// parts. Exceptions met while
/// reading values are reported, and the walk continues without the value. An object is walked wherever it
/// occurs, unless it contains itself. Neither the visitor nor the objects may change meanwhile. An object
/// that was never attached is destroyed with `value`.
QEL_API void qelTraverse(xany value, qelTraverser* visitor);
