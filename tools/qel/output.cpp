// The output of commands, and their failures.
#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <iostream>
#include <nlohmann/json.hpp>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/qelcaught.h>
#include <qel/qelexception.h>
#include <qel/xany.h>
#include <qel/xrtti.h>

#include "commands.h"

namespace {

// The flags of the command that runs.
bool asJson = false;
bool isQuiet = false;

// The text in an exception's attribute; empty without one.
std::string attributeOf(xthrowable& caught, const char* name)
{
    xrttistruct* const type = xrttistruct::softcast(caught.getRtti());
    xrttiattr* const attribute = qelIsObject(type) ? type->findAttr(name, 1) : nullptr;
    const xany value = qelIsObject(attribute) ? attribute->getValue(&caught) : xany();
    return value.getKind() == xanyString && !value.isNull() ? xstring(value).CastToCString() : "";
}

// ---- text

std::string cellOf(const Json& value)
{
    if (value.is_null())
        return {};
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (value.is_string())
        return Printable(value.get_ref<const std::string&>());
    if (value.is_array()) {
        std::string all;
        for (const Json& one : value)
            all.append(all.empty() ? "" : ", ").append(cellOf(one));
        return all;
    }
    return Printable(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

struct Column
{
    std::string name;
    std::string heading;
    bool isNumber = true;
    std::size_t width = 0;
};

std::string headingOf(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return name;
}

// The columns are the members of the rows, in the order of their first occurrence.
std::vector<Column> columnsOf(const Json& rows)
{
    std::vector<Column> columns;
    for (const Json& row : rows)
        for (const auto& [name, value] : row.items()) {
            auto column = std::find_if(columns.begin(), columns.end(),
                                       [&name = name](const Column& known) { return known.name == name; });
            if (column == columns.end()) {
                columns.push_back({name, headingOf(name)});
                column = columns.end() - 1;
                column->width = WidthOf(column->heading);
            }
            column->isNumber = column->isNumber && (value.is_number() || value.is_null());
            column->width = std::max(column->width, WidthOf(cellOf(value)));
        }
    return columns;
}

std::string placed(const Column& column, const std::string& cell, bool isLast)
{
    if (column.isNumber)
        return std::string(column.width - std::min(column.width, WidthOf(cell)), ' ') + cell;
    return isLast ? cell : Padded(cell, column.width);
}

std::string tableOf(const Json& rows)
{
    const std::vector<Column> columns = columnsOf(rows);
    std::string headings;
    for (const Column& column : columns)
        headings.append(headings.empty() ? "" : "  ")
            .append(placed(column, column.heading, &column == &columns.back()));
    std::string text = Bold(headings) + '\n';
    for (const Json& row : rows) {
        std::string line;
        for (const Column& column : columns)
            line.append(&column == &columns.front() ? "" : "  ")
                .append(placed(column, row.contains(column.name) ? cellOf(row[column.name]) : std::string(),
                               &column == &columns.back()));
        text.append(line, 0, line.find_last_not_of(' ') + 1).append(1, '\n');
    }
    return text;
}

std::string membersOf(const Json& object)
{
    std::size_t width = 0;
    for (const auto& [name, value] : object.items())
        width = std::max(width, WidthOf(Printable(name)));
    std::string text;
    for (const auto& [name, value] : object.items()) {
        const std::string line = Padded(Printable(name), width) + "  " + cellOf(value);
        text.append(line, 0, line.find_last_not_of(' ') + 1).append(1, '\n');
    }
    return text;
}

} // namespace

// ---- ending

void Fail(Exit status, std::string what, std::string why)
{
    throw CommandFailed{status, std::move(what), std::move(why)};
}

void AnswerNo()
{
    throw CommandFailed{Exit::no, {}, {}};
}

CommandFailed FailureOf(xthrowable* thrown, Exit status, const std::string& what)
{
    const qel::caught failure(thrown);
    const std::string place = attributeOf(*thrown, "Path");
    // The message names the path; the text of the failure would name it again.
    const std::string why = place.empty() ? "" : attributeOf(*thrown, "Description");
    return {status, place.empty() ? what : place, why.empty() ? failure.what().CastToCString() : why};
}

// ---- results

namespace {

// A character of a text and the columns it takes. A byte that belongs to none counts as one.
struct Glyph
{
    std::size_t bytes = 1;
    std::size_t columns = 1;
};

Glyph glyphAt(std::string_view text)
{
    static const bool knowsWidths = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    wchar_t character = 0;
    std::mbstate_t state{};
    const std::size_t size = std::mbrtowc(&character, text.data(), text.size(), &state);
    if (!knowsWidths || size == 0 || size > text.size())
        return {};
    const int columns = wcwidth(character);
    return {size, static_cast<std::size_t>(std::max(columns, 0))};
}

} // namespace

std::size_t WidthOf(std::string_view text)
{
    std::size_t width = 0;
    while (!text.empty()) {
        const Glyph glyph = glyphAt(text);
        width += glyph.columns;
        text.remove_prefix(glyph.bytes);
    }
    return width;
}

std::string CutTo(const std::string& text, std::size_t width)
{
    std::size_t end = 0;
    for (std::size_t used = 0; end < text.size();) {
        const Glyph glyph = glyphAt(std::string_view(text).substr(end));
        used += glyph.columns;
        if (used > width)
            break;
        end += glyph.bytes;
    }
    return text.substr(0, end);
}

std::string Padded(const std::string& text, std::size_t width)
{
    return text + std::string(width - std::min(width, WidthOf(text)), ' ');
}

bool HasScreen()
{
    const char* const terminal = std::getenv("TERM");
    return btkIsTerminal(1) && terminal != nullptr && *terminal != '\0' &&
           std::string_view(terminal) != "dumb";
}

bool HasColours()
{
    const char* const refusal = std::getenv("NO_COLOR");
    return HasScreen() && (refusal == nullptr || *refusal == '\0');
}

std::string Bold(const std::string& text)
{
    return HasScreen() ? "\x1b[1m" + text + "\x1b[m" : text;
}

std::string Printable(std::string_view text)
{
    std::string printable;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (c == 0xC2 && next >= 0x80 && next < 0xA0) // U+0080 to U+009F are control characters too
            ++i;
        else if (c >= ' ' && c != 127)
            printable += text[i];
    }
    return printable;
}

std::string AsText(const Json& result)
{
    if (result.is_null())
        return {};
    if (result.is_object())
        return membersOf(result);
    if (!result.is_array())
        return cellOf(result) + '\n';
    if (!result.empty() &&
        std::all_of(result.begin(), result.end(), [](const Json& row) { return row.is_object(); }))
        return tableOf(result);
    std::string lines;
    for (const Json& value : result)
        lines.append(cellOf(value)).append(1, '\n');
    return lines;
}

namespace {

void writeJson(const Json& value)
{
    std::cout << value.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

} // namespace

void Show(const Json& result, const std::function<std::string(const Json&)>& asText)
{
    if (isQuiet)
        return;
    if (!asJson)
        std::cout << (asText ? asText(result) : AsText(result));
    else if (!result.is_array())
        writeJson(result);
    else
        for (const Json& one : result)
            writeJson(one);
    std::cout.flush();
}

void OfferJson(CLI::App& command, const std::string& form)
{
    command.add_flag("--json", asJson, "Print JSON, " + form);
    OfferQuiet(command);
}

void OfferQuiet(CLI::App& command)
{
    command.add_flag("-q,--quiet", isQuiet, "Print failures only; the exit status is the result");
}

bool IsQuiet()
{
    return isQuiet;
}

CLI::Option* OfferSeconds(CLI::App& command, const char* names, double& seconds, const char* help,
                          const CLI::Validator& check)
{
    return command.add_option(names, seconds, help)
        ->type_name("SECONDS")
        ->check(check)
        ->capture_default_str();
}

void OfferInterval(CLI::App& command, double& seconds, const char* help)
{
    OfferSeconds(command, "--interval", seconds, help, CLI::Range(0.01, 86400.0).description(""));
}

void OfferCount(CLI::App& command, int& count, const char* help)
{
    command.add_option("--count", count, help)
        ->type_name("COUNT")
        ->check(CLI::Range(1, 1000000).description(""));
}
