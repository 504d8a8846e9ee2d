#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

class pcProcess;

/// Labels of the numbers 0 to 8. Thrown exceptions carry one of the numbers in pcCreateCode.
enum pcCreateError : int {
    pcBadIn,
    pcBadOut,
    pcBadErr,
    pcTooLongArgs,
    pcFileNotFound,
    pcCantExecute,
    pcNoMemory,
    pcBadWorkDir,
    pcBadProcessId
};
QEL_ENUM(pcCreateError); // "proclib::CreateError"

/// The numbers that pcXCreate carries.
namespace pcCreateCode {
inline constexpr pcCreateError system =
    static_cast<pcCreateError>(3); ///< refused by the system; getSystemError() has the reason
inline constexpr pcCreateError badIn = static_cast<pcCreateError>(11);  ///< the stream cannot be passed on
inline constexpr pcCreateError badOut = static_cast<pcCreateError>(12); ///< the same
inline constexpr pcCreateError badErr = static_cast<pcCreateError>(13); ///< the same
} // namespace pcCreateCode

/// The base of the failures with processes. Thrown as an `xthrowable*`; not counted: the catcher frees it
/// with xdelete.
///
///     try {
///         qel::own(pcProcess::Create("no-such-program", nullptr, nullptr, nullptr, nullptr, 0, 0));
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (auto* const cause = failure.as<pcXCreate>(); cause && cause->getError() == pcCreateCode::system)
///             std::cerr << failure.what() << '\n';
///     }
class QEL_API pcXException : public virtual xthrowable
{
    QEL_OBJECT(pcXException); // "proclib::XException"
    QEL_NOT_COUNTED;

public:
    /// "Process manipulation error", unless a class overrides it.
    virtual xstring getMsg();

protected:
    pcXException() = default;
};

/// A process could not be started or opened.
class QEL_API pcXCreate : public virtual pcXException
{
    QEL_OBJECT(pcXCreate); // "proclib::XCreate"

public:
    explicit pcXCreate(pcCreateError error, unsigned long systemError = 0);
    [[noreturn]] static void Throw(pcCreateError error, unsigned long systemError = 0);

    pcCreateError getError() { return Error; }
    /// The operating system's error number, for pcCreateCode::system.
    unsigned long getSystemError() { return SystemError; }
    xstring getMsg() override;

private:
    pcCreateError Error;
    unsigned long SystemError;
};

/// A failure of one process. Not thrown by this library.
class QEL_API pcXProcess : public virtual pcXException
{
    QEL_OBJECT(pcXProcess); // "proclib::XProcess"

public:
    explicit pcXProcess(pcProcess* process) : Process(process) {}
    /// Not counted.
    pcProcess* getProcess() { return Process; }

private:
    pcProcess* Process;
};
