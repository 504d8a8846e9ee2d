// JSON texts: a text that is read is written, read again and written as the same, but for the order in which
// dictionaries have their keys; a stream in small pieces gives what the text in memory gives; a refused text is
// reported as such.
#include <nlohmann/json.hpp>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>

#include <qel/qeljson.h>
#include <qel/qeltable.h>
#include <qel/xsequence.h>

#include "target.h"

namespace {

/// Names itself in JSON, may refer to others, and has a list of numbers.
class Node : public virtual xobject
{
    QEL_OBJECT(Node);
    QEL_REBUILD(Node);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(double, Size);
    QEL_PROPERTY(xany, Extra);
    QEL_PROPERTY(xrchandle<xintsequence>, Marks);
};
constinit qelClass Node::rtti = {
    .name = "Node",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Size, qelOptional), QEL_ATTR(Extra, qelOptional),
              QEL_ATTR(Marks, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
};

class Pieces : public std::streambuf
{
public:
    explicit Pieces(std::string_view t) : rest(t) {}

private:
    std::streamsize xsgetn(char* to, std::streamsize n) override
    {
        constexpr std::size_t size = 3;
        const std::string_view piece = rest.substr(0, n < 3 ? static_cast<std::size_t>(n) : size);
        piece.copy(to, piece.size());
        rest.remove_prefix(piece.size());
        return static_cast<std::streamsize>(piece.size());
    }

    std::string_view rest;
};

/// The value as text, or the error.
template<class Source>
std::string again(Source&& source, const qel::json::options& how, bool* isRead)
{
    try {
        const xany value = qel::json::read<xany>(source, how);
        *isRead = true;
        std::ostringstream out;
        qel::json::write(value, out, how);
        return out.str();
    } catch (xthrowable* thrown) {
        const xstring text = qelTextOf(thrown);
        require(qelXJson::softcast(thrown) != nullptr);
        *isRead = false;
        xrcrelease(thrown);
        return text.CastToCString();
    }
}

/// The text with the members of each object sorted. Numbers stay whole or real.
std::string sorted(const std::string& text)
{
    return nlohmann::json::parse(text).dump();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool registered = (qelRegister<Node>(), true);
    require(registered);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (text.find("$ref") != std::string_view::npos)
        return 0; // a cycle would never be freed
    const qel::json::options how{.depth = 100, .bytes = 1 << 20, .ignoreUnknown = size % 2 == 0};

    bool isRead = false;
    const std::string first = again(text, how, &isRead);
    Pieces pieces(text);
    std::istream in(&pieces);
    bool isReadInPieces = false;
    require(again(in, how, &isReadInPieces) == first && isReadInPieces == isRead);
    if (isRead) {
        const std::string second = again(std::string_view(first), how, &isRead);
        require(isRead && second.size() == first.size() && sorted(second) == sorted(first));
    }
    return 0;
}
