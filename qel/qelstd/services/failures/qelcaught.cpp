#include "qelcaught.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "qelexception.h"

namespace qel {

caught& caught::operator=(caught&& other) noexcept
{
    if (this != &other) {
        const caught old(failure);
        failure = other.giveUp();
    }
    return *this;
}

caught::~caught()
{
    if (!qelIsObject(failure))
        return;
    if (failure->isRefCountable())
        xrcrelease(failure);
    else
        xdelete(failure);
}

xstring caught::what() const
{
    return qelTextOf(failure);
}

xstring caught::type() const
{
    return qelIsObject(failure) ? failure->getQelTypeName() : xstring();
}

void caught::rethrow()
{
    if (!qelIsObject(failure))
        qelhThrowNotInitialized();
    throw giveUp();
}

namespace {

std::terminate_handler otherHandler;

std::string describe(xthrowable* failure)
{
    const auto textOf = [](const xstring& text) { return text == nullptr ? "" : text.CastToCString(); };
    std::string line =
        std::string("uncaught ") + textOf(failure->getQelTypeName()) + ": " + textOf(qelTextOf(failure));
    if (auto* const inFunction = qelXExternFunc::softcast(failure))
        if (const xrchandle<qelXFunc> function = inFunction->getFunc(); function)
            line.append(", in ").append(textOf(function->getName()));
    return line;
}

[[noreturn]] void reportAndAbort() noexcept
{
    try {
        if (std::current_exception() != nullptr)
            throw;
    } catch (xthrowable* thrown) {
        if (qelIsObject(thrown))
            std::fprintf(stderr, "%s\n", describe(thrown).c_str());
        std::abort();
    } catch (...) {
    }
    if (otherHandler != nullptr)
        otherHandler();
    std::abort();
}

} // namespace

void reportUncaught()
{
    if (std::get_terminate() != reportAndAbort)
        otherHandler = std::set_terminate(reportAndAbort);
}

} // namespace qel
