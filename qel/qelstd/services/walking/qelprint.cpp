#include "qelprint.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <locale>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <qel/base/thrcancellation.h>

#include "qelcaught.h"
#include "qelrtti.h"
#include "qeltraverse_p.h"
#include "xsequence.h"

/// Printed text not yet passed to the stream: that of one operation or, with `byLines`, of one line or, with
/// `whole` too, of all, so that the stream is called once for several.
class qelPrintTraverser::Text
{
public:
    explicit Text(std::ostream& to) : os(to), state(to) {}

    bool byLines = false;
    bool whole = false;

    Text& operator<<(char c)
    {
        char* const at = room(1);
        *at = c;
        end = at + 1;
        return *this;
    }
    Text& operator<<(std::string_view s)
    {
        if (s.size() > sizeof block) {
            handOn(false);
            pass(s, false);
        } else {
            char* const at = room(s.size());
            std::memcpy(at, s.data(), s.size());
            end = at + s.size();
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
        end = std::to_chars(at, at + 12, number).ptr;
        return *this;
    }
    /// Formatted as by the stream.
    Text& operator<<(double number)
    {
        if (formatsPlainly()) {
            char* const at = room(32);
            end = std::to_chars(at, at + 32, number, std::chars_format::general, 6).ptr;
        } else {
            write();
            os << number;
        }
        return *this;
    }
    /// Ends the line, as std::endl does, and indents the next one.
    void newLine(int blanks)
    {
        *this << '\n';
        if (!whole)
            handOn(true);
        constexpr int most = 64;
        for (; blanks > 0; blanks -= most) {
            char* const at = room(most);
            std::memset(at, ' ', most); // constant size: inlined
            end = at + (blanks < most ? blanks : most);
        }
    }

    /// The name of a type; that of an anonymous one is composed from its parents' names.
    Text& typeName(xrttiobject* type) { return typeName(type, nullptr); }
    Text& attrName(xrttiattr* attr)
    {
        if (!known(attr, 0, " : ", [=] { return attr->getName(); }))
            *this << attr->getName() << " : ";
        return *this;
    }
    Text& label(xrttienum* type, int value)
    {
        if (!known(type, value, "", [=] { return type->mapIntToString(value); }))
            *this << type->mapIntToString(value);
        return *this;
    }

    /// Called at the end of each operation.
    void done()
    {
        if (!byLines)
            write();
    }
    /// Passes the collected text on.
    void write()
    {
        handOn(false);
        putEarlier(false);
    }
    /// Passes the whole text on, and flushes the stream.
    void finish()
    {
        handOn(false);
        putEarlier(true);
    }

private:
    struct Nameless
    {
        xrttiobject* type;
        const Nameless* before;
    };

    /// `before`: the anonymous types whose names contain this one's; in a cycle of them it contributes no
    /// name.
    Text& typeName(xrttiobject* type, const Nameless* before)
    {
        if (known(type, 0, "", [=] { return type->getName(); }))
            return *this;
        for (const Nameless* part = before; part != nullptr; part = part->before)
            if (part->type == type)
                return *this;
        const Nameless here = {type, before};
        for (int i = type->getNParents() - 1; i >= 0; --i)
            typeName(type->getParent(i), &here) << ' ';
        return *this;
    }

    /// Writes the name that `ask` returns, and `after`. While a whole value is printed, short names are
    /// cached, since most are written many times. False, with nothing written, when there is no name.
    template<class Ask>
    bool known(const void* owner, int value, std::string_view after, Ask ask)
    {
        const std::uint64_t mixed =
            (reinterpret_cast<std::uintptr_t>(owner) + static_cast<unsigned>(value)) * 0x9E3779B97F4A7C15u;
        Name& name = names[mixed >> 58];
        if (!byLines || name.owner != owner || name.value != value) {
            const xstring asked = ask();
            if (asked == nullptr || asked == "")
                return false;
            const std::string_view view(asked.CastToCString());
            name.length = view.size() + after.size();
            if (name.length > sizeof name.text) {
                name.owner = nullptr;
                *this << view << after;
                return true;
            }
            view.copy(name.text, view.size());
            after.copy(name.text + view.size(), after.size());
            name.owner = owner;
            name.value = value;
        }
        char* const at = room(sizeof name.text);
        std::memcpy(at, name.text, sizeof name.text); // constant size: inlined
        end = at + name.length;
        return true;
    }

    /// Whether the stream formats reals with its default settings. They are then formatted without it, in a
    /// fraction of the time.
    bool formatsPlainly() const
    {
        constexpr auto formats = std::ios_base::floatfield | std::ios_base::showpoint |
                                 std::ios_base::showpos | std::ios_base::uppercase;
        return (state.flags() & formats) == 0 && state.precision() == 6 && state.width() == 0 &&
               state.getloc() == std::locale::classic();
    }

    /// Passes on what the block holds.
    void handOn(bool flushes)
    {
        const std::string_view text(block, static_cast<std::size_t>(end - block));
        end = block;
        if (!text.empty())
            pass(text, flushes);
    }

    /// Passes `text` to the stream, or to the earlier text.
    void pass(std::string_view text, bool flushes)
    {
        if (whole) {
            try {
                earlier.append(text);
                return;
            } catch (const std::bad_alloc&) {
                putEarlier(false);
            }
        }
        put(text, flushes);
    }

    void putEarlier(bool flushes)
    {
        if (!earlier.empty()) {
            put(earlier, flushes);
            earlier.clear();
        }
    }

    /// One output operation of the stream, with the library's handling of failures.
    void put(std::string_view text, bool flushes)
    {
        const auto size = static_cast<std::streamsize>(text.size());
        std::optional<std::ostream::sentry> sentry;
        if (!state.good() || state.tie() != nullptr || (state.flags() & std::ios_base::unitbuf) != 0)
            sentry.emplace(os); // reports a failed stream, flushes a tied stream before or this one after
        if (!state.good())
            return;
        bool failed = false;
        try {
            std::streambuf* const buffer = state.rdbuf();
            failed = buffer->sputn(text.data(), size) != size || (flushes && buffer->pubsync() == -1);
        } catch (...) {
            thrPassCancellation();
            try {
                state.setstate(std::ios_base::badbit);
            } catch (const std::ios_base::failure&) {
            }
            if ((state.exceptions() & std::ios_base::badbit) != 0)
                throw;
        }
        if (failed)
            state.setstate(std::ios_base::badbit);
    }

    char* room(std::size_t size)
    {
        if (size > static_cast<std::size_t>(block + sizeof block - end))
            handOn(false);
        return end;
    }

    struct Name
    {
        const void* owner = nullptr;
        int value = 0;
        std::size_t length = 0;
        char text[32] = {};
    };

    std::ostream& os;
    std::ios& state;     // of `os`: access through the virtual base is slow
    std::string earlier; // than the block, when the whole text is collected
    char* end = block;
    char block[1024];
    Name names[64]; // by 6 bits of a hash
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
    text->newLine(indent);
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
    text->typeName(type);
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

/// Writes the index in front of a part's value.
bool qelPrintTraverser::printIndex(int index, const char* after)
{
    nextLine();
    *text << index << after;
    text->done();
    return true;
}

bool qelPrintTraverser::printAttr(xrttiattr* attr)
{
    nextLine();
    if (attr != nullptr)
        text->attrName(attr);
    else
        *text << "Unknown union attribute";
    text->done();
    return true;
}

/// `content` in quotes. A wide text that has no multibyte form is reported in its place.
void qelPrintTraverser::printQuoted(const xstring& content)
{
    const char* chars = nullptr;
    try {
        chars = content.CastToCString();
    } catch (xthrowable* error) {
        const qel::caught owner(error);
        errorOccured("QEL exception", error);
        return;
    }
    *text << '"' << (chars != nullptr ? chars : "nil") << '"';
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
    text->label(type, value);
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
    return printAttr(attr);
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
    return printIndex(index);
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
    printIndex(index->get(dim), " : [");
    shiftRight();
    return true;
}

void qelPrintTraverser::endArrayDimension(xrttiarray*, int, xrchandle<xintsequence>, xrcunihandle<xobject>)
{
    printEndObject(']');
}

bool qelPrintTraverser::beginArrayElement(xrttiarray*, xrchandle<xintsequence> index, xrcunihandle<xobject>)
{
    return printIndex(index->get(index->getarraysize() - 1));
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
    return printAttr(attr);
}

bool qelPrintTraverser::beginUnionValue(xrttiunion*, xrttiattr* attr, xrcunihandle<xobject>)
{
    return printAttr(attr);
}

// ---- functions

void qelPrint(xany value, std::ostream& stream, int spaces)
{
    qelPrintTraverser printer(stream, spaces);
    printer.text->byLines = true;
    qelTraverseForPrinter(std::move(value), &printer);
    printer.text->write();
}

void qelPrint(xany value, std::ostream& stream, int spaces, qelWholeText)
{
    qelPrintTraverser printer(stream, spaces);
    printer.text->byLines = printer.text->whole = true;
    qelTraverseForPrinter(std::move(value), &printer);
    printer.text->finish();
}

void qelDebugPrint(xobject* obj)
{
    const qelReadHold held(obj);
    qelPrint(obj, std::cerr, 2);
}

void qelDbgPrintDictKeys(xobject* obj, const char* fileName)
{
    const qelReadHold held(obj);
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
