// The bytes of a request to the name server: a server called "demo" registers its port.

#include <cstdio>
#include <string>

#include <qel/base/nmswire.h>

namespace {

std::string whole; // all that was printed piece by piece

void print(const std::string& bytes, const char* meaning)
{
    int width = 40;
    for (const char c : bytes)
        width -= std::printf("%02x ", static_cast<unsigned char>(c));
    std::printf("%*s%s\n", width, "", meaning);
    whole += bytes;
}

void printInt(int value, const char* meaning)
{
    std::string bytes;
    nmsPutInt(bytes, value);
    print(bytes, meaning);
}

void printText(const std::string& text)
{
    const int length = static_cast<int>(text.size());
    printInt(length + 1, "size: bytes with the ending zero");
    printInt(length, "length");
    print(text, ("\"" + text + "\"").c_str());
}

} // namespace

int main()
{
    nmsFields record;
    record.owner = 4711;
    record.Set("_ServerName", "demo");
    record.Set("_PortNumber", "7001");
    std::string request;
    nmsPutFrame(request, nmsRequestCode::enter);
    nmsPutRecord(request, record);

    printInt(nmsFrameNumber, "number");
    print({static_cast<char>(nmsRequestCode::enter)}, "code: register");
    printInt(static_cast<int>(record.owner), "owner: process 4711");
    printInt(static_cast<int>(record.fields.size()), "count");
    for (const auto& [name, value] : record.fields) {
        printText(name);
        printText(value);
    }
    return whole == request ? 0 : 1;
}
