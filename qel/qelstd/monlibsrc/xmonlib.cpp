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
#include "qelcaught.h"
#include "qeltable.h"

constinit qelClass monFile::rtti = {
    .name = "monlib::File",
    .attrs = {QEL_ATTR(Title), QEL_ATTR(Params)},
};

// ---- the file

monFile::Inside::Inside(Stream openedStream, std::string hostPath, bool readOnly)
    : stream(std::move(openedStream)), path(std::move(hostPath)), isReadOnly(readOnly),
      params(new (pDefMemMgr) monParamDict)
{
    stream->setSerializer(ioSerializer::getXDR());
    stream->fileBuf->KeepWhole();
    btkGetFileState(stream->fileBuf->GetHandle(), opened);
}

monFile::Inside::~Inside()
{
    EndChanges();
    while (firstParam != nullptr) {
        monParam* const gone = firstParam;
        firstParam = gone->next;
        xdelete(gone);
    }
}

monFile* monFile::Inside::Make(Stream opened, const std::string& path, bool isReadOnly)
{
    auto inside = std::make_unique<Inside>(std::move(opened), path, isReadOnly);
    auto* const file = new (pDefMemMgr) monFile(inside.get());
    inside.release();
    return file;
}

monFile::monFile(Inside* made) : inside(made)
{
    inside->file = this;
}

monFile::~monFile()
{
    delete inside;
}

namespace {

// The absolute path of the operating system, which stays valid when the current directory changes. False with
// the last error set.
bool hostPathOf(const char* path, std::string& host)
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
std::string headOf(const char* title)
{
    const std::string text = qelIsObject(title) ? title : "";
    const std::uint32_t words[] = {0, btkNetworkOrder(static_cast<std::uint32_t>(text.size()))};
    return std::string(reinterpret_cast<const char*>(words), sizeof words) + text;
}

} // namespace

// Opens a file for use as a monitor file. Null when that fails, and for anything but a regular file, which
// could block a reader.
monFile* monFile::Inside::Attach(const std::string& path, const char* given)
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
    Stream opened(new (pDefMemMgr) ioFileStream(buffer.get(), given, !isReadOnly, true));
    buffer.release();
    return Make(std::move(opened), path, isReadOnly);
}

monFile* monFile::Open(const char* path)
{
    std::string host;
    return hostPathOf(path, host) ? Inside::OpenAt(host, path) : nullptr;
}

monFile* monFile::Inside::OpenAt(const std::string& path, const char* given)
{
    std::unique_ptr<monFile, qelDelete> file(Attach(path, given));
    if (file == nullptr)
        return nullptr;
    Inside& inside = *file->inside;
    inside.headerWord = inside.LoadInt();
    if (inside.headerWord > 0) {
        platFailWith(ERROR_FILE_CORRUPT);
        return nullptr;
    }
    inside.title = inside.stream->ReadString(nullptr);
    inside.dataStart = inside.readUpTo = inside.WhereAmI();
    return file.release();
}

// Replaces an existing file by a new one. Null when that fails, with the reason in errno.
monFile* monFile::Inside::MakeAnew(const std::string& path, const char* given, const std::string& head)
{
    btkReplacement next;
    if (!next.CreateBeside(path.c_str()) || !next.Write(head.data(), head.size()))
        return nullptr;
    btkFd own = next.Duplicate();
    if (!own)
        return nullptr;
    std::unique_ptr<xfilebuf> buffer(xfilebuf::Adopt(std::move(own), xfilebuf::ReadWrite));
    Stream opened(new (pDefMemMgr) ioFileStream(buffer.get(), given, true, true));
    buffer.release();
    std::unique_ptr<monFile, qelDelete> file(Make(std::move(opened), path, false));
    // Last, so that no step can fail after the old file has been replaced.
    if (!next.TakePlace(btkReplacement::Unsynced)) {
        const int error = errno;
        file.reset();
        errno = error;
    }
    return file.release();
}

// Replaces the file's content by `head`. When that fails, with the reason in errno, the content is unchanged.
bool monFile::Inside::BeginInPlace(const std::string& head)
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
    if (!hostPathOf(path, host))
        return nullptr;
    const std::string head = headOf(newTitle);
    std::unique_ptr<monFile, qelDelete> file(Inside::MakeAnew(host, path, head));
    if (file == nullptr && btkReplacement::IsKeptOut(errno)) {
        file.reset(Inside::Attach(host, path));
        if (file == nullptr || file->inside->isReadOnly) {
            platFailWith(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        if (!file->inside->BeginInPlace(head)) {
            platFail();
            return nullptr;
        }
    } else if (file == nullptr) {
        platFailOn(host);
        return nullptr;
    }
    file->inside->dataStart = file->inside->readUpTo = static_cast<int>(head.size());
    if (qelIsObject(newTitle))
        file->inside->title = newTitle;
    return file.release();
}

// ---- which file it is

void monFile::Inside::Prepare()
{
    stream->CheckOpen();
    if (process == btkProcessNumber())
        return;
    if (!btkOpenAnew(stream->fileBuf->GetHandle()))
        stream->ThrowState(ioFileStream::stateBad);
    process = btkProcessNumber();
    WatchAnew();
}

void monFile::Inside::PrepareToWrite()
{
    Prepare();
    if (isReadOnly)
        qelXNativeException::Throw("monFile: Opened for reading only");
}

// Before each reading. Throws when the file has no name left or has been emptied.
long long monFile::Inside::SizeUnlessGone()
{
    if (const auto shared = changes.lock())
        shared->BeRead();
    btkFileState now;
    if (!btkGetFileState(stream->fileBuf->GetHandle(), now) || !now.hasName || now.size < readUpTo)
        ThrowGone();
    return now.size;
}

void monFile::Inside::ThrowGone()
{
    if (const auto shared = changes.lock())
        shared->BeGone();
    qelXNativeException::Throw("monFile has shrunk!");
}

bool monFile::isReplaced()
{
    inside->Prepare();
    btkFileState own, there;
    return !btkGetFileState(inside->stream->fileBuf->GetHandle(), own) || !own.hasName ||
           !btkGetFileState(inside->path.c_str(), there) || !there.IsSameFile(inside->opened);
}

bool monFile::Reopen()
{
    Inside& old = *inside;
    if (!old.stream->getIsOpen()) {
        platFailWith(ERROR_INVALID_HANDLE);
        return false;
    }
    std::unique_ptr<monFile, qelDelete> file;
    try {
        file.reset(Inside::OpenAt(old.path, old.stream->getPath().CastToCString()));
    } catch (xthrowable* thrown) { // the file is not complete yet
        const qel::caught caught(thrown);
        platFailWith(ERROR_FILE_CORRUPT);
    }
    if (file == nullptr)
        return false;

    std::vector<std::pair<std::string, monParam*>> known;
    for (int slot = 0; slot < old.params->getarraysize(); ++slot) {
        monParam* parameter = nullptr;
        if (old.params->getbyindex(slot, &parameter))
            known.emplace_back(parameter->name.CastToCString(), parameter);
    }
    for (const auto& [name, parameter] : known) {
        old.params->remove(name.c_str());
        old.lost.set(name.c_str(), parameter);
    }
    for (monParam* each = old.firstParam; each != nullptr; each = each->next)
        each->isLost = true;
    Inside& anew = *file->inside;
    std::swap(old.stream, anew.stream);
    std::swap(old.opened, anew.opened);
    old.isReadOnly = anew.isReadOnly;
    old.process = anew.process;
    old.dataStart = anew.dataStart;
    old.readUpTo = anew.readUpTo;
    old.title = anew.title;
    old.headerWord = anew.headerWord;
    old.isPatient = true;
    old.WatchAnew();
    return true;
}

xstring monFile::getTitle()
{
    return inside->title;
}

monParamDict* monFile::getParams()
{
    inside->UpdateCache();
    return inside->params.get();
}

monParamDict* monFile::getKnownParams() const
{
    return inside->params.get();
}

void monFile::Close()
{
    inside->EndChanges();
    inside->stream->Close();
}
