// Arbitrary files opened as monitor files while they grow, read, written and appended to. Whatever the file,
// parameters that were found stay usable, written values are read back, and other openings find added
// parameters.
#include <string>
#include <sys/mman.h>
#include <vector>

#include <qel/base/btkfilepart.h>
#include <qel/qelexception.h>
#include <qel/qelown.h>
#include <qel/xiolib.h>
#include <qel/xmonlib.h>

#include "target.h"

namespace {

using Monitor = qel::owned<monFile>;

// Whether `work` ends without one of the failures that bad files cause.
template<class Work>
bool succeeds(Work work)
{
    try {
        work();
        return true;
    } catch (xthrowable* thrown) {
        if (ioXStream* const failure = ioXStream::softcast(thrown))
            xdelete(failure);
        else
            xrcrelease(qelXNativeException::cast(thrown));
        return false;
    }
}

// A file without a name, which is reopened through its descriptor's path.
class NamelessFile
{
public:
    explicit NamelessFile(btkHandle made) : file(made), path("/proc/self/fd/" + std::to_string(made)) {}
    void Append(const std::uint8_t* data, std::size_t size) const
    {
        const long long end = btkGetFileSize(file.Get());
        require(btkWriteAt(file.Get(), data, size, end) == size);
    }
    void Clear() const { require(btkSetFileSize(file.Get(), 0)); }
    Monitor Open() const
    {
        Monitor opened;
        succeeds([&] { opened.reset(monFile::Open(path.c_str())); });
        return opened;
    }

private:
    btkFd file;
    std::string path;
};

std::vector<monParam*> parametersOf(monFile& file, bool& isSound)
{
    std::vector<monParam*> found;
    isSound = succeeds([&] {
        monParamDict* const params = file.getParams();
        monParam* param = nullptr;
        for (int i = 0; i < params->getarraysize(); ++i)
            if (params->getbyindex(i, &param))
                found.push_back(param);
    });
    return found;
}

// Writes a value and reads it again. False when the file has no place for it.
bool use(monParam& param, std::uint8_t choice)
{
    return succeeds([&] {
        if (auto* const b = monBoolParam::softcast(&param)) {
            b->getValue();
            b->setValue(choice);
            require(b->getValue() == choice);
        } else if (auto* const i = monIntParam::softcast(&param)) {
            i->getValue();
            i->setValue(choice);
            require(i->getValue() == choice);
        } else if (auto* const r = monRealParam::softcast(&param)) {
            r->getValue();
            r->setValue(choice);
            require(r->getValue() == choice);
        } else {
            auto* const s = monStringParam::cast(&param);
            require(s->getValue().GetMBSize() <= static_cast<unsigned>(s->getSize()) + 1);
            const std::string text(static_cast<std::size_t>(std::min<int>(choice, s->getSize())), 'x');
            s->setValue(text.c_str());
            require(s->getValue() == text.c_str());
        }
    });
}

void drive(const NamelessFile& file, const std::uint8_t* data, std::size_t size)
{
    const std::uint8_t choice = data[0];
    const std::size_t first = std::min<std::size_t>(size - 2, data[1] * 4u);
    file.Clear();
    file.Append(data + 2, first);
    const Monitor reader = file.Open();
    bool isSound = false;
    if (reader != nullptr)
        parametersOf(*reader, isSound);

    file.Append(data + 2 + first, size - 2 - first);
    const Monitor writer = file.Open();
    if (writer == nullptr)
        return;
    const std::vector<monParam*> found = parametersOf(*writer, isSound);
    for (monParam* const param : found)
        require(use(*param, choice));

    monIntParam* added = nullptr;
    const bool canAdd = succeeds([&] { added = writer->Int("added"); });
    require(canAdd == isSound);
    if (added == nullptr)
        return; // or it exists with another type
    added->setValue(choice);
    const Monitor other = file.Open();
    require(other != nullptr && other->Int("added")->getValue() == choice);
    const std::size_t count = parametersOf(*other, isSound).size();
    require(isSound && (count == found.size() || count == found.size() + 1));
    if (reader != nullptr)
        require(reader->Int("added")->getValue() == choice);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const NamelessFile file(memfd_create("monitor", MFD_CLOEXEC));
    if (size >= 2 && size < 32768)
        drive(file, data, size);
    return 0;
}
