#pragma once

#include <iosfwd>

#include <qel/fspathargument.h>
#include <qel/xdictionary.h>
#include <qel/xstring.h>

class evtEvent;
class monFile;

// A monitor file holds named values: bools, ints, reals and texts of bounded length. One process adds them
// and rewrites them in place; any number of others read them. The format is described in docs/monlibsrc.md.
//
// Nothing is cached: each getValue reads the file, and each setValue has written it when it returns. Reads of
// a bool, int or real are atomic: never a mixture of two values. So are reads of a text when both sides use
// this library, with one exception: a killed writer may leave a text of more than 4096 bytes torn, since a
// record has no room for a second copy. A process that stops or is killed at any moment delays others only
// briefly and leaves a file that can be read and written.
//
// A restarted publisher replaces the old file by a new one. Processes with the old one open detect that at
// their next reading ("monFile has shrunk!") and call Reopen. A forked child may continue to use a file that
// its parent has opened; the library reopens it there.
//
// Used by one thread at a time, a file with all its parameters. Failures: ioXStream for stream failures (the
// file was closed, ended early, could not be written); qelXNativeException, with the texts named below, for
// an invalid file or argument. Nothing has been written then. Reading and writing a value throws, besides:
// "monFile has shrunk!" (reading only), when the file has been replaced, removed or emptied; "monFile: Opened
// for reading only"; "monFile: No such parameter any more", after Reopen.

/// One named value in a monitor file. The file owns it; it is valid as long as the file object. Not counted,
/// and not to be freed.
///
///     const auto file = qel::own(monFile::Create("words.mon", "Words"));
///     monIntParam* const requests = file->Int("Requests"); // the file's
///     requests->setValue(requests->getValue() + 1);
///     file->String("State", 64)->setValue("ready"); // up to 64 bytes
class QEL_API monParam : public virtual xobject
{
    QEL_OBJECT(monParam); // "monlib::Param"
    QEL_NOT_COUNTED;

public:
    monParam(const monParam&) = delete;
    monParam& operator=(const monParam&) = delete;

    /// The name as stored in the file.
    virtual xstring getName();
    /// The offset of the value in the file, in bytes.
    long long getPosition() const;

protected:
    /// Enters the new parameter in the dictionary of `owner`. `at`: the position of the value in the file.
    monParam(monFile& owner, const char* called, std::fpos<int> at);
    ~monParam() override;

    /// The name in the file.
    xstring name;
    /// The file, which owns the parameter.
    monFile* file;
    /// The position of the value in the file.
    std::fpos<int> position;

private:
    friend class monFile;
    bool isLost = false;      // not found again since the file was reopened
    monParam* next = nullptr; // in the list of its file, which frees them all
};

/// A bool, as a byte: `file->Bool("Ready")->setValue(true)`. Reserved values pass unchanged.
class QEL_API monBoolParam : public monParam
{
    QEL_OBJECT(monBoolParam); // "monlib::BoolParam"

public:
    virtual unsigned char getValue();
    /// Returns the value.
    virtual unsigned char setValue(unsigned char v);

private:
    friend class monFile;
    monBoolParam(monFile& owner, xstring called, std::fpos<int> at);
};

/// An int: `file->Int("Requests")`.
class QEL_API monIntParam : public monParam
{
    QEL_OBJECT(monIntParam); // "monlib::IntParam"

public:
    virtual int getValue();
    /// Returns the value.
    virtual int setValue(int v);

private:
    friend class monFile;
    monIntParam(monFile& owner, xstring called, std::fpos<int> at);
};

/// A real: `file->Real("Load")->setValue(0.5)`.
class QEL_API monRealParam : public monParam
{
    QEL_OBJECT(monRealParam); // "monlib::RealParam"

public:
    virtual double getValue();
    /// Returns the value.
    virtual double setValue(double v);

private:
    friend class monFile;
    monRealParam(monFile& owner, xstring called, std::fpos<int> at);
};

/// A text of at most getSize() bytes: `file->String("State", 64)->setValue("ready")`.
class QEL_API monStringParam : public monParam
{
    QEL_OBJECT(monStringParam); // "monlib::StringParam"

public:
    /// @throws qelXNativeException  "Weird parameter type": the stored length exceeds the capacity
    virtual xstring getValue();
    /// Null and the reserved pointers write the empty text. Returns the string of `v`.
    /// @throws qelXNativeException  "monStringParam::setValue: Value too long"
    virtual xstring setValue(const char* v);
    template<qelTextObject T>
    xstring setValue(const T& text)
    {
        return setValue(qelTextArgument(text));
    }
    /// The capacity in the file, in bytes.
    virtual int getSize();

private:
    friend class monFile;
    monStringParam(monFile& owner, xstring called, std::fpos<int> at, int size);

    int capacity;
};

/// The parameters of a file by their names. Frees none of them. Not counted: one that the caller has made is
/// freed with xdelete.
///
///     const auto file = qel::own(monFile::Open("words.mon"));
///     for (const auto& [name, param] : *file->getParams())
///         std::cout << name << " at " << param->getPosition() << '\n';
class QEL_API monParamDict : public xtsdictionary<monParam*>
{
    QEL_OBJECT(monParamDict); // "monlib::ParamDict", not counted
    QEL_NOT_COUNTED;

public:
    monParamDict() = default;
    /// Null when memory is exhausted.
    static monParamDict* create();
};

/// An open monitor file. Not counted: freed with xdelete, which closes it.
///
///     if (const auto file = qel::own(monFile::Open("words.mon"))) {
///         const auto changed = qel::own(file->ChangeEvent());
///         std::cout << file->Int("Requests")->getValue() << '\n';
///         changed->Wait(10s); // on when the publisher has written since
///     }
class QEL_API monFile : public virtual xobject
{
    QEL_OBJECT(monFile); // "monlib::File"
    QEL_NOT_COUNTED;

public:
    monFile(const monFile&) = delete;
    monFile& operator=(const monFile&) = delete;
    ~monFile() override;

    /// Opens an existing file, in native or remote form, for reading and writing; for reading only when this
    /// process may not write it. Null when it cannot be opened, and when its header is not that of a monitor
    /// file (GetLastError() is then ERROR_FILE_CORRUPT). The caller owns the new object.
    /// @throws ioXStream  it ends within the header or the title
    static monFile* Open(const char* path);
    template<fsPathObject P>
    static monFile* Open(const P& path)
    {
        return Open(fsPathArgument(path));
    }
    /// Makes a new file with the title; it replaces an existing one atomically and keeps soft links, owner,
    /// mode and access list. Processes with the old one open keep it intact and detect the replacement. Where
    /// the operating system does not allow the replacement (its folder is not writable), the file is emptied
    /// instead. Null when that is not possible, with the old file unchanged, and at once for anything but a
    /// regular file. The caller owns the new object.
    static monFile* Create(const char* path, const char* title);
    template<fsAnyPath P, qelText T>
    requires(fsPathObject<P> || qelTextObject<T>) static monFile* Create(const P& path, const T& title)
    {
        return Create(fsPathArgument(path), qelTextArgument(title));
    }

    /// Whether the path now leads to another file or to none, or this file has no name left.
    bool isReplaced();
    /// Opens the file that the path now leads to, in place of this one. The parameter objects stay valid and
    /// bind to the record of their name and kind in it, if there is one. False, with nothing changed, when it
    /// cannot be opened, is not a monitor file or was closed.
    bool Reopen();

    /// An event that is on when the file has changed, or was replaced or removed, since the event was made
    /// and since the last reading through this object: a watcher makes it, reads, and waits for it together
    /// with others. The first reading after a wait resets it; later changes turn it on again. Stores by this
    /// object count too. After Reopen it is on until the new file has been read. A reading that throws
    /// because the file was replaced or removed resets it until the path leads to another file. It may stay
    /// on where changes cannot be detected: once the file is closed, and in a forked child without a
    /// descriptor left.
    ///
    /// The events of one file share one descriptor. Null, with the last error set, when the system has no
    /// descriptor or watch left. The caller owns the new object and frees it with xdelete.
    /// @throws ioXStream  the file was closed
    evtEvent* ChangeEvent();

    xstring getTitle();
    /// The parameters, after looking for new ones. The file owns the table. Of several parameters with one
    /// name, it has the latest. Costs time for the new ones only.
    /// @throws qelXNativeException  "monFile has shrunk!": open it again; "Weird parameter type": the bytes
    ///                              after the parameters found so far are not a parameter
    monParamDict* getParams();
    /// The parameters found so far, without looking for new ones: after Check, those before the damage.
    monParamDict* getKnownParams() const;

    // ---- find the parameter of a name, or add one whose value is false, 0 or the empty text: the file's

    // Null when a parameter of that name has another kind. They throw as getParams, and qelXNotInitialized
    // without a name. When one has to be added, qelXNativeException, too: "monFile::WriteParamHead: Name too
    // long" for more than 1023 bytes; "monFile: File too large" when positions would exceed an int; "monFile:
    // Another process is adding parameters" after waiting 2 seconds.

    monIntParam* Int(const char* name);
    template<qelTextObject N>
    monIntParam* Int(const N& name)
    {
        return Int(qelTextArgument(name));
    }
    monBoolParam* Bool(const char* name);
    template<qelTextObject N>
    monBoolParam* Bool(const N& name)
    {
        return Bool(qelTextArgument(name));
    }
    monRealParam* Real(const char* name);
    template<qelTextObject N>
    monRealParam* Real(const N& name)
    {
        return Real(qelTextArgument(name));
    }
    /// `capacity`: the greatest length in bytes. An existing parameter keeps its own.
    /// @throws qelXNativeException  "monFile::String: Negative capacity"
    monStringParam* String(const char* name, int capacity);
    template<qelTextObject N>
    monStringParam* String(const N& name, int capacity)
    {
        return String(qelTextArgument(name), capacity);
    }

    // The results of Check.
    enum State {
        whole,
        unfinished, // a record at the end is being added, or its writer was killed
        damaged
    };
    /// Reads the whole file, in time proportional to its size. `offset`: the end of the last whole record, in bytes,
    /// where an unfinished or damaged part begins. Changes nothing; writers refuse to add to a damaged file ("Weird
    /// parameter type").
    /// @throws qelXNativeException  "monFile has shrunk!"
    State Check(int& offset);

    /// Closes the file for good; the parameters stay valid, but reading and writing them throws.
    void Close();

    struct [[gnu::visibility("hidden")]] Inside; // of the library

private:
    explicit monFile(Inside* made);

    Inside* const inside;
};
