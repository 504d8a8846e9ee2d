#pragma once

#include <qel/base/xpipebuf.h>

/// Reads the process's standard input, by its descriptor: what is read ahead here is not seen by std::cin and
/// the C functions. As std::cin does, it shows what was written to std::cout before it waits.
class BASE_API xistdbuf : public xinputbuf
{
public:
    xistdbuf() : xinputbuf(0) {}

    bool GiveBack() override;

protected:
    std::ptrdiff_t ReadSome(char* to, std::size_t size) override;
};

/// Writes to the process's standard output (type 0) or standard error (type 1), through std::cout and
/// std::cerr, so that it keeps its order with what a program writes there itself.
class BASE_API xostdbuf : public xoutputbuf
{
public:
    explicit xostdbuf(int type);

    /// Brings what was written to std::cout and std::cerr to the descriptors. False when that fails.
    static bool FlushAll();

protected:
    int_type overflow(int_type byte) override;
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    int sync() override;

private:
    bool isError;
};
