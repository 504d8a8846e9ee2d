#include <memory>

#include "filelib.h"
#include "fsexception_p.h"
#include "fsfile.h"
#include "fspath_p.h"

namespace {

/// The three values that a checksum consists of.
struct Checksum
{
    unsigned char sum = 0;
    unsigned char x = 0;
    unsigned count = 0; // modulo 2^32, of which the result takes 16 bits

    void Add(const char* bytes, std::size_t size)
    {
        unsigned char newSum = 0;
        unsigned char newX = 0;
        for (std::size_t i = 0; i < size; ++i) {
            const auto byte = static_cast<unsigned char>(bytes[i]);
            newSum = static_cast<unsigned char>(newSum + byte);
            newX ^= byte;
        }
        sum = static_cast<unsigned char>(sum + newSum);
        x ^= newX;
        count += static_cast<unsigned>(size);
    }

    int Result() const
    {
        // Each byte would be sign-extended before the XOR; extending the result once is equivalent.
        const auto widened = static_cast<unsigned>(int{static_cast<signed char>(x)});
        return static_cast<int>((count << 16) | (static_cast<unsigned>(sum) << 8) | widened);
    }
};

} // namespace

int fsCalculateCheckSum(const char* path)
{
    constexpr const char* function = "fsCalculateCheckSum";
    constexpr unsigned long blockSize = 256 * 1024;
    fsNativePath native;
    path = fsCheckPathSlashes(native, path, function);
    fsiFile file;
    if (!file.Open(path, fsReadOnly))
        fsRaiseLastError(function, path);
    const auto block = std::make_unique_for_overwrite<char[]>(blockSize);
    Checksum checksum;
    unsigned long size;
    fsIOStatus status;
    while ((status = file.Read(block.get(), blockSize, &size)) == fsIOOk)
        checksum.Add(block.get(), size);
    if (status == fsIOFailed || !file.Close())
        fsRaiseLastError(function, path);
    return checksum.Result();
}
