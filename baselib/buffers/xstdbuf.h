#pragma once

#include <qel/base/xpipebuf.h>

/// Reads the process's standard input, by its descriptor: bytes that it reads ahead are lost to std::cin and
/// the C functions. Like std::cin, it flushes std::cout before it waits.
class BASE_API xistdbuf : public xinputbuf
{
public:
    xistdbuf() : xinputbuf(0) {}

    bool GiveBack() override;

protected:
    std::ptrdiff_t ReadSome(char* to, std::size_t size) override;
};

/// Writes to the process's standard output (type 0) or standard error (type 1), through std::cout and
/// std::cerr, which preserves the order with the program's own output there.
class BASE_API xostdbuf : public xoutputbuf
{
public:
    explicit xostdbuf(int type);

    /// Flushes std::cout and std::cerr to the descriptors. False when that fails.
    static bool FlushAll();

protected:
    int_type overflow(int_type byte) override { return PutOne(byte); }
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    int sync() override;

private:
    bool isError;
};
