#include "fsfile.h"

#include <algorithm>

#include <qel/platform/errortable.h>
#include <qel/platform/files.h>

namespace {

/// The most bytes that one platform call transfers.
constexpr unsigned long largestStep = 1UL << 30;

/// Truncates to a whole number of bytes. False, with the last error set, for an invalid value.
bool wholeBytes(double value, LARGE_INTEGER& bytes)
{
    constexpr double beyond = 9223372036854775808.0; // 2^63
    if (!(value > -beyond && value < beyond))
        return platFailWith(ERROR_INVALID_PARAMETER);
    bytes.QuadPart = static_cast<long long>(value);
    return true;
}

} // namespace

fsiFile::~fsiFile()
{
    const unsigned error = GetLastError();
    if (open)
        Close();
    SetLastError(error);
}

bool fsiFile::Open(const char* name, fsFileMode mode)
{
    if (open)
        Close();
    const bool reads = mode == fsReadOnly;
    handle = CreateFileA(name, reads ? GENERIC_READ : GENERIC_WRITE, reads ? FILE_SHARE_READ : 0, nullptr,
                         reads ? OPEN_EXISTING : OPEN_ALWAYS,
                         reads ? FILE_FLAG_SEQUENTIAL_SCAN : FILE_ATTRIBUTE_NORMAL, nullptr);
    open = handle != INVALID_HANDLE_VALUE;
    return open;
}

bool fsiFile::Close()
{
    if (!open)
        return platFailWith(ERROR_INVALID_HANDLE);
    open = false;
    return CloseHandle(handle) == TRUE;
}

fsIOStatus fsiFile::Read(char* buffer, unsigned long count, unsigned long* done)
{
    DWORD got = 0;
    if (!open)
        platFailWith(ERROR_INVALID_HANDLE);
    if (!open || !ReadFile(handle, buffer, static_cast<DWORD>(std::min(count, largestStep)), &got, nullptr))
        return fsIOFailed;
    if (done != nullptr)
        *done = got;
    return got == 0 ? fsIOEnd : fsIOOk;
}

fsIOStatus fsiFile::Write(const char* buffer, unsigned long count, unsigned long* done)
{
    unsigned long written = 0;
    bool failed = !open;
    if (!open)
        platFailWith(ERROR_INVALID_HANDLE);
    while (!failed && written < count) {
        DWORD got = 0;
        failed = !WriteFile(handle, buffer + written,
                            static_cast<DWORD>(std::min(count - written, largestStep)), &got, nullptr);
        written += got;
    }
    if (done != nullptr)
        *done = written;
    return failed ? fsIOFailed : fsIOOk;
}

bool fsiFile::Truncate(double size)
{
    return Seek(fsFromStart, size) && SetEndOfFile(handle);
}

bool fsiFile::Seek(fsFilePosition from, double offset)
{
    LARGE_INTEGER distance{};
    if (!open)
        return platFailWith(ERROR_INVALID_HANDLE);
    return wholeBytes(offset, distance) &&
           SetFilePointerEx(handle, distance, nullptr, static_cast<DWORD>(from));
}
