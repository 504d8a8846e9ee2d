#include "qelprint.h"

#include <charconv>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string_view>
#include <utility>

#include "qelcaught_p.h"
#include "qelrtti.h"
#include "qeltraverse_p.h"
#include "xsequence.h"

/// What has been printed and not yet handed to the stream: the texts of one operation or, with `byLines`, of
/// one line, so that the stream is called once for several.
class qelPrintTraverser::Text
{
public:
    explicit Text(std::ostream& to) : os(to) {}

    bool byLines = false;

    Text& operator<<(char c)
    {
        room(1)[0] = c;
        ++used;
        return *this;
    }
    Text& operator<<(std::string_view s)
    {
        if (s.size() > sizeof block) {
            write();
            os.write(s.data(), static_cast<std::streamsize>(s.size()));
        } else {
            std::memcpy(room(s.size()), s.data(), s.size());
            used += s.size();
        }
        return *this;
    }
    Text& operator<<(const char* s) { return *this << std::string_view(s); }
    Text& operator<<(const xstring& name)
    {
        return *this << (name == nullptr ? std::string_view("nil") : std::string_view(name.CastToCString()));
    }
    Text& operator<<(int number)
    {
        char* const at = room(12);
        used += static_cast<std::size_t>(std::to_chars(at, at + 12, number).ptr - at);
        return *this;
    }
    Text& operator<<(double number)
    {
        write();
        os << number;
        return *this;
    }
    /// The name of a type; that of an anonymous one is made of its parents' names.
    Text& operator<<(xrttiobject* type)
    {
        const xstring name = type->getName();
        if (name != nullptr && name != "")
            return *this << name;
        for (int i = type->getNParents() - 1; i >= 0; --i)
            *this << type->getParent(i) << ' ';
        return *this;
    }
    Text& blanks(int count)
    {
        while (count > 0) {
            const int some = count < 64 ? count : 64;
            std::memset(room(64), ' ', static_cast<std::size_t>(some));
            used += static_cast<std::size_t>(some);
            count -= some;
        }
        return *this;
    }

    /// At the end of each operation.
    void done()
    {
        if (!byLines)
            write();
    }
    /// Hands on what there is.
    void write()
    {
        if (used == 0)
            return;
        os.write(block, static_cast<std::streamsize>(used));
        used = 0;
    }
    void flush()
    {
        write();
        os.flush();
    }

private:
    char* room(std::size_t size)
    {
        if (size > sizeof block - used)
            write();
        return block + used;
    }

    std::ostream& os;
    std::size_t used = 0;
    char block[512];
};

qelPrintTraverser::qelPrintTraverser(std::ostream& stream, int spaces)
    : os(stream), step(spaces), text(new Text(os))
{
}

qelPrintTraverser::~qelPrintTraverser()
{
    delete text;
}

// ---- layout

void qelPrintTraverser::nextLine()
{
    if (step == -1) {
        *text << ' ';
        return;
    }
    *text << '\n';
    text->flush();
    text->blanks(indent);
}

void qelPrintTraverser::shiftRight()
{
    if (step != -1)
        indent += step;
}

void qelPrintTraverser::shiftLeft()
{
    if (step != -1)
        indent -= step;
}

bool qelPrintTraverser::printBeginObject(xrttiobject* type, char open)
{
    *text << type;
    nextLine();
    *text << open;
    text->done();
    shiftRight();
    return true;
}

void qelPrintTraverser::printEndObject(char close)
{
    shiftLeft();
    nextLine();
    *text << close;
    text->done();
}

/// What stands on a part's line in front of the value.
template<class Label>
bool qelPrintTraverser::printLabel(const Label& label, const char* after)
{
    nextLine();
    *text << label << after;
    text->done();
    return true;
}

/// `content` in quotes. A wide text that has no multibyte form is reported in its place.
void qelPrintTraverser::printQuoted(const xstring& content)
{
    try {
        content.CastToCString();
    } catch (xthrowable* error) {
        const qelCaught owner(error);
        errorOccured("QEL exception", error);
        return;
    }
    *text << '"' << content << '"';
}

// ---- values

void qelPrintTraverser::simpleValue(xany value)
{
    switch (value.getKind()) {
    case xanyUninit:
        *text << "uninit";
        break;
    case xanyNull:
        *text << "nil";
        break;
    case xanyInt:
        *text << static_cast<int>(value);
        break;
    case xanyBool:
        *text << (static_cast<unsigned char>(value) != 0 ? "true" : "false");
        break;
    case xanyReal:
        *text << static_cast<double>(value);
        break;
    case xanyString:
        printQuoted(value);
        break;
    default:
        errorOccured("Invalid simple value", nullptr);
    }
    text->done();
}

void qelPrintTraverser::enumValue(xrttienum* type, int value)
{
    *text << type->mapIntToString(value);
    text->done();
}

void qelPrintTraverser::errorOccured(const char* message, xrcunihandle<xthrowable>)
{
    *text << "<ERROR: " << message << '>';
    text->done();
}

void qelPrintTraverser::alreadyVisited(xrcunihandle<xobject>)
{
    *text << "<printed>";
    text->done();
}

// ---- compound values

bool qelPrintTraverser::beginObject(xrttiobject* type, xrcunihandle<xobject>)
{
    return printBeginObject(type, '{');
}

void qelPrintTraverser::endObject(xrttiobject*, xrcunihandle<xobject>)
{
    printEndObject('}');
}

bool qelPrintTraverser::beginStructure(xrttistruct* type, xrcunihandle<xobject>)
{
    return printBeginObject(type, '{');
}

void qelPrintTraverser::endStructure(xrttistruct*, xrcunihandle<xobject>)
{
    printEndObject('}');
}

bool qelPrintTraverser::beginStructAttribute(xrttistruct*, xrttiattr* attr, xrcunihandle<xobject>)
{
    return printLabel(attr->getName());
}

bool qelPrintTraverser::beginSequence(xrttisequence* type, xrcunihandle<xobject>)
{
    return printBeginObject(type, '[');
}

void qelPrintTraverser::endSequence(xrttisequence*, xrcunihandle<xobject>)
{
    printEndObject(']');
}

bool qelPrintTraverser::beginSeqElement(xrttisequence*, int index, xrcunihandle<xobject>)
{
    return printLabel(index);
}

bool qelPrintTraverser::beginDictionary(xrttidictionary* type, xrcunihandle<xobject>)
{
    return printBeginObject(type, '{');
}

void qelPrintTraverser::endDictionary(xrttidictionary*, xrcunihandle<xobject>)
{
    printEndObject('}');
}

bool qelPrintTraverser::beginDictElement(xrttidictionary*, xstring key, xrcunihandle<xobject>)
{
    nextLine();
    printQuoted(key);
    *text << " : ";
    text->done();
    return true;
}

bool qelPrintTraverser::beginArray(xrttiarray* type, xrcunihandle<xobject>)
{
    return printBeginObject(type, '[');
}

void qelPrintTraverser::endArray(xrttiarray*, xrcunihandle<xobject>)
{
    printEndObject(']');
}

bool qelPrintTraverser::beginArrayDimension(xrttiarray*, int dim, xrchandle<xintsequence> index,
                                            xrcunihandle<xobject>)
{
    printLabel(index->get(dim), " : [");
    shiftRight();
    return true;
}

void qelPrintTraverser::endArrayDimension(xrttiarray*, int, xrchandle<xintsequence>, xrcunihandle<xobject>)
{
    printEndObject(']');
}

bool qelPrintTraverser::beginArrayElement(xrttiarray*, xrchandle<xintsequence> index, xrcunihandle<xobject>)
{
    return printLabel(index->get(index->getarraysize() - 1));
}

bool qelPrintTraverser::beginUnion(xrttiunion* type, xrcunihandle<xobject>)
{
    return printBeginObject(type, '{');
}

void qelPrintTraverser::endUnion(xrttiunion*, xrcunihandle<xobject>)
{
    printEndObject('}');
}

bool qelPrintTraverser::beginUnionDicriminator(xrttiunion*, xrttiattr* attr, xrcunihandle<xobject>)
{
    return printMember(attr);
}

bool qelPrintTraverser::beginUnionValue(xrttiunion*, xrttiattr* attr, xrcunihandle<xobject>)
{
    return printMember(attr);
}

bool qelPrintTraverser::printMember(xrttiattr* attr)
{
    return attr != nullptr ? printLabel(attr->getName()) : printLabel("Unknown union attribute", "");
}

// ---- functions

void qelPrint(xany value, std::ostream& stream, int spaces)
{
    qelPrintTraverser printer(stream, spaces);
    printer.text->byLines = true;
    qelTraverseUnseen(std::move(value), &printer);
    printer.text->write();
}

void qelDebugPrint(xobject* obj)
{
    qelPrint(obj, std::cerr, 2);
}

void qelDbgPrintDictKeys(xobject* obj, const char* fileName)
{
    std::ofstream file;
    if (qelIsObject(fileName))
        file.open(fileName);
    std::ostream& out = qelIsObject(fileName) ? file : std::cout;

    xrttiobject* const type = qelIsObject(obj) ? obj->getRtti() : qelGetRtti_object();
    xrttidictionary* const dictionary = xrttidictionary::softcast(type);
    if (dictionary == nullptr) {
        out << "Type \"" << type->getName() << "\" is not a dictionary" << std::endl;
        return;
    }
    out << "Dictionary \"" << dictionary->getName() << "\" keys: " << std::endl;
    const int size = dictionary->getSize(obj);
    for (int i = 0; i < size; ++i) {
        xstring key;
        if (dictionary->getElemKeyByIdx(obj, i, &key))
            out << key << std::endl;
    }
}
