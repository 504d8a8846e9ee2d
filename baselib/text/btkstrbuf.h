#pragma once

#include <cstddef>
#include <cstdint>

#include <qel/base/btkatomic.h>
#include <qel/base/thrthreading.h>

/// A shared text in multibyte form (UTF-8), in wide form (UTF-16), or in both. It is created in one form; the
/// other is produced on demand and cached, and neither moves until the text is written to.
///
/// Every holder owns one reference; releasing the last one frees the buffer. Reading a shared buffer changes
/// nothing that another reader sees, so two holders may read it on two threads. To write, a holder obtains
/// its own buffer with ResizeMB or ResizeWC, writes through the returned pointer, and finishes with CommitMB
/// or CommitWC.
///
/// Sizes are bytes with the terminator, lengths are bytes (multibyte) or units (wide) without. A text ends at
/// its first zero. A form takes less than 2 GiB; exceeding it throws std::length_error, and a lack of memory
/// std::bad_alloc, both with nothing changed.
class BASE_API btkStrBuf
{
public:
    btkStrBuf(const btkStrBuf&) = delete;
    btkStrBuf& operator=(const btkStrBuf&) = delete;

    // The members named MB and WC work on that form; the templates take the form from their argument: C is
    // `char` for the multibyte form and `unsigned short` for the wide one.

    /// Returns a new buffer with the empty text, room for `size` bytes of it, and one reference.
    template<typename C>
    static btkStrBuf* Alloc(std::size_t size, C** text);
    static btkStrBuf* AllocMB(std::size_t size, char** mb) { return Alloc(size, mb); }
    static btkStrBuf* AllocWC(std::size_t size, unsigned short** wide) { return Alloc(size, wide); }

    /// Returns a new buffer with a copy of `length` bytes or units of `text`, which contain no zero.
    template<typename C>
    static btkStrBuf* Create(const C* text, std::size_t length);

    /// Returns the text of the form that the buffer was created in.
    template<typename C>
    C* Created()
    {
        return reinterpret_cast<C*>(this + 1);
    }

    /// Stores the address of a form, which is produced first when it is missing. Returns the buffer that the
    /// caller now holds in place of this one. Null, with nothing stored, when a wide text has an unpaired
    /// surrogate and so no multibyte form.
    template<typename C>
    btkStrBuf* Get(C** text);
    btkStrBuf* GetMB(char** mb) { return Get(mb); }
    btkStrBuf* GetWC(unsigned short** wide) { return Get(wide); }

    /// Makes the text writable: takes over the caller's reference to this buffer and returns one that the
    /// caller alone holds, with room for `size` bytes of the form, or more if it must hold the text. With
    /// `keep` the text is preserved, without it is arbitrary. Null, with this buffer still held, when `keep`
    /// requires a multibyte form that the text does not have.
    template<typename C>
    btkStrBuf* Resize(std::size_t size, C** text, bool keep);
    btkStrBuf* ResizeMB(std::size_t size, char** mb, bool keep) { return Resize(size, mb, keep); }
    btkStrBuf* ResizeWC(std::size_t size, unsigned short** wide, bool keep)
    {
        return Resize(size, wide, keep);
    }

    /// Finishes writing to a buffer held alone, in the form it was resized for: stores the length of the new
    /// text and drops the other form, which is stale now. The second overload takes the length, with no zero
    /// before it, and sets the terminator itself.
    template<typename C>
    void Commit();
    void CommitMB() { Commit<char>(); }
    void CommitWC() { Commit<unsigned short>(); }
    template<typename C>
    void Commit(std::size_t newLength);
    void CommitMB(std::size_t newLength) { Commit<char>(newLength); }
    void CommitWC(std::size_t newLength) { Commit<unsigned short>(newLength); }

    /// Returns the length of a form that has been produced.
    template<typename C>
    std::size_t GetLength() const
    {
        return isWide == wideForm<C> ? length : other.GetAcquire()->length;
    }
    std::size_t GetMBLength() const { return GetLength<char>(); }
    std::size_t GetWCLength() const { return GetLength<unsigned short>(); }

    /// Takes one more reference.
    void Lock()
    {
        limit.Set(0);
        if (thrIsThreaded())
            references.Add(1);
        else
            references.Set(references.Get() + 1);
    }

    /// Takes one more reference and stores the addresses of the forms, null for one that has not been
    /// produced. Either pointer may be null.
    void Lock(char** mb, unsigned short** wide);

    /// Drops a reference; the last one frees the buffer.
    void Unlock()
    {
        // A last reference cannot be copied concurrently: no need to write the count.
        if (references.GetAcquire() == 1 || dropReference() == 1)
            destroy();
    }

    /// Appends one byte, not zero, in place. False, with nothing changed, when that is impossible: the buffer
    /// is shared, has another form or no room. It may also be false the first time after sharing ends.
    bool AppendInPlace(char c)
    {
        const std::uint32_t end = length;
        if (end >= limit.Get())
            return false;
        char* const place = Created<char>() + end;
        place[0] = c;
        place[1] = 0;
        length = end + 1;
        return true;
    }

    /// Appends `size` bytes or units, none zero, in place; false as above. They may be part of the text.
    template<typename C>
    bool AppendInPlace(const C* text, std::size_t size);

private:
    /// The form produced on demand; its text follows in memory.
    struct Produced
    {
        std::uint32_t length;
    };

    btkStrBuf(bool wide, std::uint32_t room) : isWide(wide), capacity(room & 0x7FFFFFFFu) { setLimit(); }

    int dropReference()
    {
        if (thrIsThreaded())
            return references.SubtractOrdered(1);
        const int before = references.Get();
        references.Set(before - 1);
        return before;
    }
    void destroy();
    void dropOther();
    void setLimit() { limit.Set(isWide ? 0 : capacity - 1); }
    btkStrBuf* grow(std::size_t size);
    template<typename C>
    static btkStrBuf* Make(std::size_t block);

    template<typename C>
    static C* textOf(Produced* form);
    template<typename C>
    static constexpr bool wideForm = sizeof(C) > 1;

    template<typename C>
    Produced* produce();

    btkAtomic<int> references = 1;
    // The form in which the buffer was created, whose text follows this object.
    std::uint32_t isWide : 1;
    std::uint32_t capacity : 31; // bytes of that text, terminator included
    std::uint32_t length = 0;    // of that text
    // Size up to which a multibyte text may grow in place: 0 while it is shared, or has another form. Set by
    // a write of the only holder, cleared by sharing; so appending a byte takes a single comparison.
    btkAtomic<std::uint32_t> limit = 0;
    btkAtomic<Produced*> other = nullptr;
};
