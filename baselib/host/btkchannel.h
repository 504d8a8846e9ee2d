#pragma once

#include <cstddef>
#include <string>

#include <qel/base/btkfd.h>

/// A stream of bytes in each direction, whose calls do not wait. Used by one thread at a time.
class BASE_API btkChannel
{
public:
    virtual ~btkChannel();

    /// The descriptors to poll for input and for output, perhaps the same one; -1 once that direction has failed.
    virtual btkHandle GetInput() const = 0;
    virtual btkHandle GetOutput() const = 0;

    /// Reads at most `size` bytes, after GetInput() was found readable or HoldsInput() was true. 0: none have
    /// arrived; -1: no more will come.
    virtual std::ptrdiff_t Read(char* to, std::size_t size) = 0;
    /// Writes at most `size` bytes. 0: there is no room; -1: no more can be written. After 0 the same bytes must
    /// come first in the next call.
    virtual std::ptrdiff_t Write(const char* from, std::size_t size) = 0;
    /// Whether bytes may be read that polling does not report.
    virtual bool HoldsInput() const { return false; }
    /// Whether reading waits for room for output.
    virtual bool NeedsRoom() const { return false; }

    /// Announces that nothing more will be written. False when there was no room for that: call it again.
    virtual bool FinishOutput() { return true; }
    /// Whether what was written has arrived, so that closing the channel loses none of it.
    virtual bool HasArrived() const { return true; }
    /// Closes both directions; GetInput() and GetOutput() may stay open.
    virtual void Close() = 0;
    /// Why reading or writing has failed, in words; empty when nothing more is known than that.
    virtual std::string GetFailure() const { return {}; }

protected:
    btkChannel() = default;
    btkChannel(const btkChannel&) = default;
    btkChannel& operator=(const btkChannel&) = default;
};
