#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include <qel/base/btkbyteorder.h>
#include <qel/base/btkpath.h>
#include <qel/base/btkreplace.h>
#include <qel/platform/errortable.h>

#include "monfile_p.h"
#include "qelcaught_p.h"
#include "qeltable.h"

constinit qelClass monFile::rtti = {
    .name = "monlib::File",
    .attrs = {QEL_ATTR(Title), QEL_ATTR(Params)},
};

// ---- the file

monFile::monFile(ioFileStream* opened, const std::string& path, bool isReadOnly)
    : stream(opened), place(nullptr), title(""), params(nullptr)
{
    auto ownPlace = std::make_unique<Place>(path, isReadOnly);
    std::unique_ptr<monParamDict, qelDelete> ownParams(new (pDefMemMgr) monParamDict);
    opened->setSerializer(ioSerializer::getXDR());
    opened->fileBuf->KeepWhole();
    btkGetFileState(opened->fileBuf->GetHandle(), ownPlace->opened);
    place = ownPlace.release();
    params = ownParams.release();
}

monFile::~monFile()
{
    EndChanges();
    while (firstParam != nullptr) {
        monParam* const gone = firstParam;
        firstParam = gone->next;
        xdelete(gone);
    }
    delete place;
    xdelete(params);
    xdelete(stream);
}

namespace {

// The absolute path of the operating system, which stays valid when the current directory changes. False with
// the last error set.
bool HostPathOf(const char* path, std::string& host)
{
    if (!platDone(btkHostPath(qelIsObject(path) ? path : nullptr, host)))
        return false;
    std::error_code ignored;
    const std::filesystem::path whole = std::filesystem::absolute(host, ignored);
    if (!whole.empty())
        host = whole.string();
    return true;
}

// The first bytes of a file.
std::string HeadOf(const char* title)
{
    const std::string text = qelIsObject(title) ? title : "";
    const std::uint32_t words[] = {0, btkNetworkOrder(static_cast<std::uint32_t>(text.size()))};
    return std::string(reinterpret_cast<const char*>(words), sizeof words) + text;
}

} // namespace

// Opens a file for use as a monitor file. Null when that fails, and for anything but a regular file, which
// could block a reader.
monFile* monFile::Attach(const std::string& path, const char* given)
{
    btkFileState state;
    if (!btkGetFileState(path.c_str(), state)) {
        platFailOn(path);
        return nullptr;
    }
    if (!state.isPlain) {
        platFailWith(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    std::unique_ptr<xfilebuf> buffer(xfilebuf::Open(path.c_str(), xfilebuf::ReadWrite));
    const bool isReadOnly = buffer == nullptr;
    if (isReadOnly)
        buffer.reset(xfilebuf::Open(path.c_str(), xfilebuf::Read));
    if (buffer == nullptr) {
        platFailOn(path);
        return nullptr;
    }
    std::unique_ptr<ioFileStream, qelDelete> opened(new (pDefMemMgr)
                                                        ioFileStream(buffer.get(), given, !isReadOnly, true));
    buffer.release();
    monFile* const file = new (pDefMemMgr) monFile(opened.get(), path, isReadOnly);
    opened.release();
    return file;
}

monFile* monFile::Open(const char* path)
{
    std::string host;
    return HostPathOf(path, host) ? OpenAt(host, path) : nullptr;
}

monFile* monFile::OpenAt(const std::string& path, const char* given)
{
    std::unique_ptr<monFile, qelDelete> file(Attach(path, given));
    if (file == nullptr)
        return nullptr;
    file->headerWord = file->LoadInt();
    if (file->headerWord > 0) {
        platFailWith(ERROR_FILE_CORRUPT);
        return nullptr;
    }
    file->title = file->stream->ReadString(nullptr);
    file->dataStart = file->readUpTo = file->WhereAmI();
    return file.release();
}

// Replaces an existing file by a new one. Null when that fails, with the reason in errno.
monFile* monFile::MakeAnew(const std::string& path, const char* given, const std::string& head)
{
    btkReplacement next;
    if (!next.CreateBeside(path.c_str()) || !next.Write(head.data(), head.size()))
        return nullptr;
    btkFd own = next.Duplicate();
    if (!own)
        return nullptr;
    std::unique_ptr<xfilebuf> buffer(xfilebuf::Adopt(std::move(own), xfilebuf::ReadWrite));
    std::unique_ptr<ioFileStream, qelDelete> opened(new (pDefMemMgr)
                                                        ioFileStream(buffer.get(), given, true, true));
    buffer.release();
    std::unique_ptr<monFile, qelDelete> file(new (pDefMemMgr) monFile(opened.get(), path, false));
    opened.release();
    // Last, so that no step can fail after the old file has been replaced.
    if (!next.TakePlace(btkReplacement::Unsynced)) {
        const int error = errno;
        file.reset();
        errno = error;
    }
    return file.release();
}

// Replaces the file's content by `head`. When that fails, with the reason in errno, the content is unchanged.
bool monFile::BeginInPlace(const std::string& head)
{
    const btkHandle handle = stream->fileBuf->GetHandle();
    const long long oldSize = btkGetFileSize(handle);
    std::string old(head.size(), '\0');
    const std::ptrdiff_t count = btkReadAt(handle, old.data(), old.size(), 0);
    if (oldSize < 0 || count < 0)
        return false;
    if (btkWriteAt(handle, head.data(), head.size(), 0) == head.size() &&
        btkSetFileSize(handle, static_cast<long long>(head.size())))
        return true;
    const int error = errno;
    btkWriteAt(handle, old.data(), static_cast<std::size_t>(count), 0);
    if (btkGetFileSize(handle) > oldSize)
        btkSetFileSize(handle, oldSize);
    errno = error;
    return false;
}

monFile* monFile::Create(const char* path, const char* newTitle)
{
    std::string host;
    if (!HostPathOf(path, host))
        return nullptr;
    const std::string head = HeadOf(newTitle);
    std::unique_ptr<monFile, qelDelete> file(MakeAnew(host, path, head));
    if (file == nullptr && btkReplacement::IsKeptOut(errno)) {
        file.reset(Attach(host, path));
        if (file == nullptr || file->place->isReadOnly) {
            platFailWith(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        if (!file->BeginInPlace(head)) {
            platFail();
            return nullptr;
        }
    } else if (file == nullptr) {
        platFailOn(host);
        return nullptr;
    }
    file->dataStart = file->readUpTo = static_cast<int>(head.size());
    if (qelIsObject(newTitle))
        file->title = newTitle;
    return file.release();
}

// ---- which file it is

void monFile::Prepare()
{
    stream->CheckOpen();
    if (place->process == btkProcessNumber())
        return;
    if (!btkOpenAnew(stream->fileBuf->GetHandle()))
        stream->ThrowState(ioFileStream::stateBad);
    place->process = btkProcessNumber();
    WatchAnew();
}

void monFile::PrepareToWrite()
{
    Prepare();
    if (place->isReadOnly)
        qelXNativeException::Throw("monFile: Opened for reading only");
}

// Before each reading. Throws when the file has no name left or has been emptied.
long long monFile::SizeUnlessGone()
{
    if (const auto changes = place->changes.lock())
        changes->BeRead();
    btkFileState now;
    if (!btkGetFileState(stream->fileBuf->GetHandle(), now) || !now.hasName || now.size < readUpTo)
        ThrowGone();
    return now.size;
}

void monFile::ThrowGone()
{
    if (const auto changes = place->changes.lock())
        changes->BeGone();
    qelXNativeException::Throw("monFile has shrunk!");
}

bool monFile::isReplaced()
{
    Prepare();
    btkFileState own, there;
    return !btkGetFileState(stream->fileBuf->GetHandle(), own) || !own.hasName ||
           !btkGetFileState(place->path.c_str(), there) || !there.IsSameFile(place->opened);
}

bool monFile::Reopen()
{
    if (!stream->getIsOpen()) {
        platFailWith(ERROR_INVALID_HANDLE);
        return false;
    }
    std::unique_ptr<monFile, qelDelete> anew;
    try {
        anew.reset(OpenAt(place->path, stream->getPath().CastToCString()));
    } catch (xthrowable* thrown) { // the file is not complete yet
        const qelCaught caught(thrown);
        platFailWith(ERROR_FILE_CORRUPT);
    }
    if (anew == nullptr)
        return false;

    std::vector<std::pair<std::string, monParam*>> known;
    for (int slot = 0; slot < params->getarraysize(); ++slot) {
        monParam* parameter = nullptr;
        if (params->getbyindex(slot, &parameter))
            known.emplace_back(parameter->name.CastToCString(), parameter);
    }
    for (const auto& [name, parameter] : known) {
        params->remove(name.c_str());
        place->lost.set(name.c_str(), parameter);
    }
    for (monParam* each = firstParam; each != nullptr; each = each->next)
        each->isLost = true;
    std::swap(stream, anew->stream);
    std::swap(place->opened, anew->place->opened);
    place->isReadOnly = anew->place->isReadOnly;
    place->process = anew->place->process;
    dataStart = anew->dataStart;
    readUpTo = anew->readUpTo;
    title = anew->title;
    headerWord = anew->headerWord;
    isPatient = true;
    WatchAnew();
    return true;
}

xstring monFile::getTitle()
{
    return title;
}

monParamDict* monFile::getParams()
{
    UpdateCache();
    return params;
}

void monFile::Close()
{
    EndChanges();
    stream->Close();
}
