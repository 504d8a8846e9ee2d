#include "qeljson.h"

#include <string>

#include "qeltable.h"

constinit qelClass qelXJson::rtti = {
    .name = "qellib::XJson",
    .counted = true,
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(Path, qelOptional), QEL_ATTR(Line, qelOptional), QEL_ATTR(Column, qelOptional),
              QEL_ATTR(Expected, qelOptional), QEL_ATTR(Found, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
    .explain = [](xobject*) { return xstring(); }, // the description has them
};

qelXJson::qelXJson(const char* path, int line, int column, const char* expected, const char* found)
    : Path(path), Line(line), Column(column), Expected(expected), Found(found)
{
    std::string text = path;
    if (line != xnullint)
        text += " (line " + std::to_string(line) + ", column " + std::to_string(column) + ")";
    text.append(": expected ").append(expected).append(", found ").append(found);
    describe(text.c_str());
}

void qelXJson::Throw(const char* path, int line, int column, const char* expected, const char* found)
{
    qelThrowNew<qelXJson>(path, line, column, expected, found);
}
