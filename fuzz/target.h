#pragma once

// Shared by the targets: their declaration, a check, and an input that is read in small parts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/// The target, which the fuzzing engine, or replay.cpp, calls with each input. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the process, so that the input is reported, unless a property holds.
inline void require(bool holds)
{
    if (!holds)
        std::abort();
}

/// An input that is read from the front; zeros follow its end.
class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

    bool ended() const { return at == end; }
    unsigned byte() { return ended() ? 0 : *at++; }
    /// Does one of these, as the next byte says.
    template<class... Ways>
    void choose(Ways... ways)
    {
        const unsigned chosen = byte() % sizeof...(ways);
        unsigned way = 0;
        ((way++ == chosen ? ways() : void()), ...);
    }

private:
    const std::uint8_t* at;
    const std::uint8_t* const end;
};
