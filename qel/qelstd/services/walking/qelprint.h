#pragma once

#include <iosfwd>

#include <qel/qeltraverse.h>

/// An argument of qelPrint: `qelPrint(value, stream, 2, qelWhole)`.
struct qelWholeText
{
};
/// Its value.
inline constexpr qelWholeText qelWhole;

/// Writes reported values as human-readable text: each part on its own line, terminated with std::endl before
/// the next begins, the parts of a compound value between braces and indented; with the step -1 all on one
/// line. Throws only what the stream throws. Subclasses may write to the stream between the operations.
///
///     qelPrintTraverser print(std::cout, 2);
///     qelTraverse(value, &print);
///     std::cout << std::endl;
class QEL_API qelPrintTraverser : public qelTraverser
{
public:
    /// The stream is not owned. `spaces`: the indentation of each level, or -1 for one line.
    qelPrintTraverser(std::ostream& stream, int spaces);
    qelPrintTraverser(const qelPrintTraverser&) = delete;
    qelPrintTraverser& operator=(const qelPrintTraverser&) = delete;
    virtual ~qelPrintTraverser();

    void simpleValue(xany value) override;
    void enumValue(xrttienum* type, int value) override;
    bool beginObject(xrttiobject* type, xrcunihandle<xobject> obj) override;
    void endObject(xrttiobject* type, xrcunihandle<xobject> obj) override;
    bool beginStructure(xrttistruct* type, xrcunihandle<xobject> obj) override;
    void endStructure(xrttistruct* type, xrcunihandle<xobject> obj) override;
    bool beginStructAttribute(xrttistruct* type, xrttiattr* attr, xrcunihandle<xobject> obj) override;
    bool beginSequence(xrttisequence* type, xrcunihandle<xobject> obj) override;
    void endSequence(xrttisequence* type, xrcunihandle<xobject> obj) override;
    bool beginSeqElement(xrttisequence* type, int index, xrcunihandle<xobject> obj) override;
    bool beginDictionary(xrttidictionary* type, xrcunihandle<xobject> obj) override;
    void endDictionary(xrttidictionary* type, xrcunihandle<xobject> obj) override;
    bool beginDictElement(xrttidictionary* type, xstring key, xrcunihandle<xobject> obj) override;
    bool beginArray(xrttiarray* type, xrcunihandle<xobject> obj) override;
    void endArray(xrttiarray* type, xrcunihandle<xobject> obj) override;
    bool beginArrayDimension(xrttiarray* type, int dim, xrchandle<xintsequence> index,
                             xrcunihandle<xobject> obj) override;
    void endArrayDimension(xrttiarray* type, int dim, xrchandle<xintsequence> index,
                           xrcunihandle<xobject> obj) override;
    bool beginArrayElement(xrttiarray* type, xrchandle<xintsequence> index,
                           xrcunihandle<xobject> obj) override;
    bool beginUnion(xrttiunion* type, xrcunihandle<xobject> obj) override;
    void endUnion(xrttiunion* type, xrcunihandle<xobject> obj) override;
    bool beginUnionDicriminator(xrttiunion* type, xrttiattr* discr, xrcunihandle<xobject> obj) override;
    bool beginUnionValue(xrttiunion* type, xrttiattr* attr, xrcunihandle<xobject> obj) override;
    void errorOccured(const char* text, xrcunihandle<xthrowable> error) override;
    void alreadyVisited(xrcunihandle<xobject> obj) override;

private:
    class Text;
    friend QEL_API void qelPrint(xany value, std::ostream& stream, int spaces);
    friend QEL_API void qelPrint(xany value, std::ostream& stream, int spaces, qelWholeText);

    void nextLine();
    void shiftRight();
    void shiftLeft();
    bool printBeginObject(xrttiobject* type, char open);
    void printEndObject(char close);
    bool printIndex(int index, const char* after = " : ");
    bool printAttr(xrttiattr* attr);
    void printQuoted(const xstring& content);

    std::ostream& os;
    int step;
    int indent = 0;
    Text* const text;
};

/// Writes `value` to `stream` as a qelPrintTraverser does, without a line break before or after it:
///
/// ```text
/// people::Person
/// {
///   Name : "h"
///   Age : 80
/// }
/// ```
///
/// An object that was never attached is destroyed with `value`.
QEL_API void qelPrint(xany value, std::ostream& stream, int spaces);

/// The same text, collected in memory and passed to the stream at once, with one flush: much faster into a
/// file, and not mixed with the lines of others who append to it. A stream that formats reals in a way of its
/// own gets the text in parts, as does one for whose text there is no memory.
QEL_API void qelPrint(xany value, std::ostream& stream, int spaces, qelWholeText);

/// Prints `obj` to standard error; for a debugger's command line. Leaves its count unchanged, 0 included.
extern "C" QEL_API void qelDebugPrint(xobject* obj);

/// Writes the keys of the dictionary `obj`, one per line, to the file `fileName`, which is replaced, or to
/// standard output if that is null; for any other object, writes a line saying that it is not a dictionary.
/// Output to a file that cannot be opened is lost. Exceptions of the dictionary pass through.
QEL_API void qelDbgPrintDictKeys(xobject* obj, const char* fileName);
