// Path arithmetic, and the conversion of paths and names to those of the operating system. The input is split
// at its first line feed into two paths.
#include <cstring>
#include <string>

#include <qel/base/btkpath.h>
#include <qel/fsexception.h>
#include <qel/fspath.h>

#include "target.h"

namespace {

constexpr std::size_t longest = 259;

/// The result of `operation`; null also when it refuses, which it may do with one exception class only.
template<typename Operation>
xstring answerOf(Operation operation)
{
    try {
        return operation();
    } catch (xthrowable* thrown) {
        require(fsXInvalidPath::softcast(thrown) != nullptr);
        xrcrelease(thrown);
        return {};
    }
}

void requireNative(const xstring& path)
{
    require(path == nullptr || std::strchr(path.CastToCString(), '/') == nullptr);
}

/// Whether `path` begins with `start`.
bool beginsWith(const std::string& path, const xstring& start)
{
    return path.starts_with(start.CastToCString());
}

void divide(const char* path)
{
    const xstring native = answerOf([&] { return fsPathToNative(path); });
    const xstring head = answerOf([&] { return fsGetHeadPath(path); });
    const xstring entry = answerOf([&] { return fsGetHeadEntry(path); });
    const xstring tail = answerOf([&] { return fsGetTailPath(path); });
    const xstring last = answerOf([&] { return fsGetTailEntry(path); });
    for (const xstring& part : {native, head, entry, tail, last})
        requireNative(part);
    if (native == nullptr)
        return;
    const std::string whole = native.CastToCString();
    require(whole.size() == std::strlen(path));
    require(head == nullptr || beginsWith(whole, head));
    require(entry == nullptr || beginsWith(whole, entry));
    require(last == nullptr || whole.ends_with(last.CastToCString()));
    require(tail == nullptr || whole.ends_with(tail.CastToCString()));
    if (head != nullptr && last != nullptr) // head, separator and last name form the whole
        require(std::strlen(head.CastToCString()) + std::strlen(last.CastToCString()) + 1 >= whole.size());
}

void combine(const char* a, const char* b)
{
    const xstring joined = answerOf([&] { return fsCatPaths(a, b); });
    requireNative(joined);
    require(joined == nullptr || std::strlen(joined.CastToCString()) <= longest);
    const xstring common = answerOf([&] { return fsIntersectPaths(a, b); });
    if (common != nullptr) {
        const xstring other = answerOf([&] { return fsIntersectPaths(b, a); });
        const xstring nativeA = answerOf([&] { return fsPathToNative(a); });
        require(beginsWith(nativeA.CastToCString(), common) && other != nullptr);
        const xstring again = answerOf([&] { return fsIntersectPaths(common.CastToCString(), b); });
        require(again == nullptr || again == common);
    }
    const xstring remote = answerOf([&] { return fsMkRemPath(a, b); });
    if (remote != nullptr && std::strstr(a, "::") == nullptr && !std::string(a).ends_with(':')) {
        const xstring local = answerOf([&] { return fsGetLocalPath(remote.CastToCString()); });
        require(local != nullptr && std::strlen(local.CastToCString()) == std::strlen(b));
    }
}

void map(const std::string& path)
{
    const std::string native = btkNativeName(path);
    require(btkHostName(native) == path || path.find('/') != std::string::npos);
    require(native.find('\\') == std::string::npos);
    std::string host, back;
    if (btkHostPath(path.c_str(), host)) {
        require(!host.empty() && host.find('\0') == std::string::npos);
        if (host.front() == '/')
            require(btkNativePath(host, back) && btkHostPath(back.c_str(), back) && back == host);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = std::min(input.find('\n'), input.size());
    const std::string a = input.substr(0, cut).c_str(); // both end at a zero byte
    const std::string b = cut < input.size() ? input.substr(cut + 1).c_str() : "";
    divide(a.c_str());
    combine(a.c_str(), b.c_str());
    map(a);
    return 0;
}
